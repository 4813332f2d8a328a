// engine_test.cc - the engine in a simulated network: one thread, a clock of its own, everything from one seed.
// Whatever the network does, a query ends in exactly one callback, with the right answer or the right status.
#include <cache_entry.h>
#include <context.h>
#include <gtest/gtest.h>
#include <queries.h>
#include <resolver_file.h>
#include <stream.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace {

using namespace sim;

// tease has every server behave differently at each query; one behaviour refers to a server outside the zone.
void tease(World *world) {
  world->script = [world](const Bytes &query, const std::string &) {
    static constexpr Temper kTempers[] = {Temper::good,   Temper::good,         Temper::dead,        Temper::fails,
                                          Temper::refers, Temper::knows_no_opt, Temper::lowers_case, Temper::truncates};
    const Temper temper = kTempers[world->random(std::size(kTempers))];
    Bytes answer = sim::answer_to(query, temper);
    if (temper == Temper::refers) answer[answer.size() - 2] = 'a';
    return answer;
  };
}

// One storm: servers of every temper with at least one good one, bad weather, forgers, hosts that ask and cancel in
// callbacks, and queries with servers of their own. Answers may be lost, never wrong.
void storm(uint64_t seed) {
  SCOPED_TRACE("seed " + std::to_string(seed));
  World world(seed);
  world.worsen(60);
  static constexpr Temper kTempers[] = {
      Temper::good,        Temper::dead,         Temper::refuses,     Temper::fails,
      Temper::truncates,   Temper::garbles,      Temper::wrong_name,  Temper::wrong_id,
      Temper::wrong_type,  Temper::request,      Temper::chains,      Temper::refers,
      Temper::refuses_tcp, Temper::knows_no_opt, Temper::lowers_case, Temper::lowers_case_by_tcp};
  const unsigned servers = 1 + static_cast<unsigned>(world.random(4));
  std::string good;
  for (unsigned i = 0; i < servers; ++i) {
    const std::string name = (world.chance(50) ? "192.0.2." : "2001:db8::") + std::to_string(i + 1);
    world.add_server(name, i == 0 ? Temper::good : kTempers[world.random(std::size(kTempers))]);
    if (i == 0) good = name;
  }
  if (world.chance(20)) world.routeless.insert(world.chance(50) ? dns::Family::ipv4 : dns::Family::ipv6);
  if (world.chance(30)) set(&world, DNS_OPT_FLAGS, DNS_SERVRRB);
  if (world.chance(30)) {
    set(&world, DNS_OPT_BSC_SIZE, 16);
    set(&world, DNS_OPT_BSC_UPDTIME, static_cast<uint32_t>(world.random(3)));
    set(&world, DNS_OPT_BSC_NBEST, 1 + static_cast<uint32_t>(world.random(3)));
    EXPECT_EQ(dns_set_cost_zone(world.ctx, world.chance(50) ? "cost.test" : nullptr), DNS_E_NOERROR);
  }
  if (world.chance(25)) tease(&world);
  Queries queries(&world);
  if (world.chance(50)) queries.meddling = static_cast<int>(world.random(30));
  if (world.chance(50)) dns_set_dbgfn(world.ctx, Queries::told, &queries);
  const unsigned count = 1 + static_cast<unsigned>(world.random(40));
  for (unsigned i = 0; i < count; ++i) {
    queries.ask(some_name(&world), world.chance(20) ? std::vector<std::string>{good} : std::vector<std::string>{},
                world.chance(50) ? DNS_RCRS : 0);
    if (world.chance(50)) world.turn();
    if (world.chance(5)) world.routeless.clear();
    if (world.chance(10)) queries.cancel(queries.all()[world.random(queries.all().size())].get());
  }
  const bool closes = world.chance(10);
  if (closes) {
    dns_close(world.ctx);
    EXPECT_EQ(world.sockets_open, 0U);
  } else {
    ASSERT_TRUE(world.run(10'000)) << "the engine never came to rest";
  }
  expect_rest(&world);
  for (const auto &asked : queries.all()) {
    if (asked->cancelled || (closes && asked->calls == 0)) {
      EXPECT_EQ(asked->calls, 0);
    } else if (asked->status == DNS_E_TEMPFAIL || asked->status <= DNS_E_FORMERR || asked->status == DNS_E_PROTOCOL) {
      EXPECT_EQ(asked->calls, 1);
      EXPECT_EQ(asked->address(), 0U);
    } else {
      expect_truth(*asked);
    }
  }
}

TEST(Storm, EveryQueryEndsOnceAndRightly) {
  for (uint64_t seed = 1; seed <= 3000 && !testing::Test::HasFailure(); ++seed)
    storm(seed);
}

TEST_F(Engine, AFailingServerCostsNoTimeAndADeadOneItsTimeout) {
  world.add_server("192.0.2.1", Temper::refuses);
  world.add_server("192.0.2.2", Temper::fails);
  world.add_server("192.0.2.3", Temper::garbles);
  world.add_server("192.0.2.4", Temper::good);
  const int64_t start = world.now_us;
  resolve("listed-1.list.test");
  EXPECT_EQ(world.now_us - start, 4 * world.weather.delay_us);
  EXPECT_EQ(world.packets_sent, 4U);

  world.set_temper("192.0.2.1", Temper::dead);
  const int64_t late_start = world.now_us;
  resolve("listed-2.list.test");
  EXPECT_GE(world.now_us - late_start, 50'000) << "the first server's RTO, at its least";
  EXPECT_LT(world.now_us - late_start, 100'000);
}

TEST_F(Engine, StatusesSayWhatWentWrong) {
  struct Row {
    Temper temper;
    dns_status status;
    unsigned packets;
  };
  world.add_server("192.0.2.1", Temper::dead);
  // A server that answered with an error is not asked again; a server without a valid answer gets every attempt.
  for (const Row &row : {Row{Temper::dead, DNS_E_TEMPFAIL, 4}, Row{Temper::refuses, DNS_E_REFUSED, 1},
                         Row{Temper::fails, DNS_E_SERVFAIL, 1}, Row{Temper::refuses_tcp, DNS_E_PROTOCOL, 1},
                         Row{Temper::garbles, DNS_E_PROTOCOL, 1}, Row{Temper::refers, DNS_E_PROTOCOL, 1},
                         Row{Temper::wrong_id, DNS_E_TEMPFAIL, 4}, Row{Temper::wrong_name, DNS_E_TEMPFAIL, 4},
                         Row{Temper::wrong_type, DNS_E_TEMPFAIL, 4}, Row{Temper::request, DNS_E_TEMPFAIL, 4},
                         Row{Temper::loops, DNS_E_CNLOOP, 1}}) {
    SCOPED_TRACE(static_cast<int>(row.temper));
    world.set_temper("192.0.2.1", row.temper);
    world.packets_sent = 0;
    Query &asked = run("listed-" + std::to_string(static_cast<int>(row.temper)) + ".list.test");
    EXPECT_EQ(asked.calls, 1);
    EXPECT_EQ(asked.status, row.status);
    EXPECT_EQ(world.packets_sent, row.packets);
  }
  ASSERT_EQ(dns_add_serv(world.ctx, nullptr), 0);
  EXPECT_EQ(run("listed-1.list.test").status, DNS_E_TEMPFAIL);
  EXPECT_TRUE(dns_timeouts(world.ctx, dns_tv_infinite, world.now()) == dns_tv_infinite) << "at rest";
}

TEST_F(Engine, CancelledAndClosedQueriesAreNeverCalledBack) {
  world.add_server("192.0.2.1", Temper::good);
  Query &queued = queries.ask("listed-1.list.test");
  dns_cancel(world.ctx, queued.handle);
  Query &sent = queries.ask("listed-2.list.test");
  send();
  EXPECT_EQ(world.packets_sent, 1U);
  dns_cancel(world.ctx, sent.handle);
  ASSERT_TRUE(world.run());
  Query &open = queries.ask("listed-3.list.test");
  send();
  Query &waiting = queries.ask("listed-4.list.test");
  dns_close(world.ctx);
  EXPECT_EQ(dns_active(world.ctx), 0);
  EXPECT_EQ(world.sockets_open, 0U);
  EXPECT_EQ(dns_submit_dn_serv(world.ctx, open.dn.data(), DNS_C_IN, DNS_T_A, 0, nullptr, 0, nullptr, answered, &open),
            nullptr);
  EXPECT_EQ(dns_get_status(world.ctx), DNS_E_PERM);
  ASSERT_EQ(dns_open(world.ctx), DNS_E_NOERROR);
  resolve("listed-5.list.test");
  for (const Query *asked : {&queued, &sent, &open, &waiting})
    EXPECT_EQ(asked->calls, 0);
}

TEST_F(Engine, RefusesInvalidQueries) {
  Query asked;
  const auto dn = testbed::dn("a.test");
  const uint8_t long_label[DNS_MAXDN] = {64};
  uint8_t endless[DNS_MAXDN + 1];
  memset(endless, 1, sizeof endless);
  const dns::Address none;
  const struct {
    const uint8_t *dn;
    int cls, typ;
    unsigned nserv;
    dns_status status;
  } rows[] = {
      {nullptr, DNS_C_IN, DNS_T_A, 0, DNS_E_INVAL},       {dn.data(), DNS_C_IN, 0, 0, DNS_E_INVAL},
      {dn.data(), DNS_C_IN, 65536, 0, DNS_E_INVAL},       {dn.data(), 0, DNS_T_A, 0, DNS_E_INVAL},
      {dn.data(), DNS_C_IN, DNS_T_A, 1, DNS_E_INVAL},     {dn.data(), DNS_C_IN, DNS_T_A, DNS_MAXSERV + 1, DNS_E_INVAL},
      {long_label, DNS_C_IN, DNS_T_A, 0, DNS_E_BADQUERY}, {endless, DNS_C_IN, DNS_T_A, 0, DNS_E_BADQUERY}};
  for (const auto &row : rows) {
    SCOPED_TRACE(&row - rows);
    EXPECT_EQ(dns_submit_dn_serv(world.ctx, row.dn, row.cls, row.typ, 0, row.nserv > 0 ? &none : nullptr, row.nserv,
                                 nullptr, answered, &asked),
              nullptr);
    EXPECT_EQ(dns_get_status(world.ctx), row.status);
  }
  EXPECT_EQ(dns_active(world.ctx), 0);
}

TEST_F(Engine, TheCacheAnswersUntilTheRecordExpires) {
  const testbed::Cache cache = testbed::cache_of();
  ASSERT_EQ(dns_set_cache(world.ctx, DNS_CU_ANS, dns_cache_cacher(cache.get())), DNS_E_NOERROR);
  world.add_server("192.0.2.1", Temper::chains);
  for (const char *text : {"listed-7.list.test", "gone-7.list.test", "empty-7.list.test"}) {
    Query &first = resolve(text);
    EXPECT_EQ(first.sflags, 0U);
    const unsigned sent = world.packets_sent;
    Query &second = queries.ask(text);
    Query &own = run(text, {"192.0.2.1"});
    expect_truth(second);
    expect_truth(own);
    EXPECT_EQ(second.sflags, unsigned{DNS_SF_CACHED});
    EXPECT_EQ(second.canonical, first.canonical);
    EXPECT_EQ(own.sflags, 0U) << "a query with servers of its own does not use the cache";
    EXPECT_EQ(world.packets_sent, sent + 1);
  }
  const testbed::Cache other = testbed::cache_of();
  ASSERT_EQ(dns_set_cache(world.ctx, DNS_CU_ANS, dns_cache_cacher(other.get())), DNS_E_NOERROR);
  Query &waiting = queries.ask("listed-7.list.test");
  ASSERT_EQ(dns_set_cache(world.ctx, DNS_CU_ANS, dns_cache_cacher(cache.get())), DNS_E_NOERROR);
  ASSERT_TRUE(world.run());
  EXPECT_EQ(waiting.sflags, unsigned{DNS_SF_CACHED}) << "the cache installed at the lookup counts";
  run("listed-8.list.test", {"192.0.2.1"});
  EXPECT_EQ(run("listed-8.list.test").sflags, 0U) << "nor does such a query fill it";

  world.now_us += 301 * int64_t{1'000'000};
  const unsigned sent = world.packets_sent;
  resolve("listed-7.list.test");
  EXPECT_EQ(world.packets_sent, sent + 1);
}

TEST_F(Engine, AFullSendBufferDelaysQueriesAndLosesNone) {
  world.add_server("192.0.2.1", Temper::good);
  world.send_buffers_full = true;
  queries.ask_listed(300);
  for (int i = 0; i < 5; ++i)
    ASSERT_TRUE(world.turn());
  EXPECT_EQ(world.packets_sent, 0U);
  world.send_buffers_full = false;
  ASSERT_TRUE(world.run());
  queries.expect_truths();
  EXPECT_EQ(world.packets_sent, 300U);

  world.send_buffers_full = true;
  const Query &stuck = queries.ask("listed-1.list.test");
  ASSERT_TRUE(world.run(1000));
  EXPECT_EQ(stuck.status, DNS_E_TEMPFAIL) << "a query ends though its socket never drains";
}

TEST_F(Engine, IdenticalQueriesAreCoalesced) {
  world.add_server("192.0.2.1", Temper::good);
  std::vector<Query *> same;
  for (int i = 0; i < 5; ++i)
    same.push_back(&queries.ask("listed-1.list.test"));
  Query &shouted = queries.ask("LISTED-1.list.test");
  Query &recursive = queries.ask("listed-1.list.test", {}, DNS_RCRS);
  Query &elsewhere = queries.ask("listed-1.list.test", {"192.0.2.1"});
  send();
  EXPECT_EQ(world.packets_sent, 4U);
  Query &late = queries.ask("listed-1.list.test");
  dns_cancel(world.ctx, same[0]->handle);  // the one that was sent: a coalesced query takes its place
  dns_cancel(world.ctx, same[3]->handle);
  ASSERT_TRUE(world.run());
  EXPECT_EQ(world.packets_sent, 5U);
  for (const Query *asked : {same[1], same[2], same[4], &shouted, &recursive, &elsewhere, &late})
    EXPECT_TRUE(asked->calls == 1 && asked->status == DNS_E_NOERROR && asked->address() != 0);
  EXPECT_EQ(same[0]->calls + same[3]->calls, 0);
}

TEST_F(Engine, AFailureIsRememberedForAFewSeconds) {
  world.add_server("192.0.2.1", Temper::fails);
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(run("listed-1.list.test").status, DNS_E_SERVFAIL);
  EXPECT_EQ(world.packets_sent, 1U);
  world.set_temper("192.0.2.1", Temper::good);
  resolve("listed-2.list.test");
  world.now_us += dns::kFailureUs;
  resolve("listed-1.list.test");
}

TEST_F(Engine, MoreThanAServerMayHaveUnderWayWaitsForRoom) {
  constexpr unsigned kRoom = dns::kWindowFirst;
  world.add_server("192.0.2.1", Temper::good);
  queries.ask_listed(3 * kRoom);
  send();
  EXPECT_EQ(world.packets_sent, dns::kPaceBurst);
  for (const unsigned first : {0U, 2 * kRoom})
    for (unsigned i = first; i < first + 100; ++i)
      queries.cancel(queries.all()[i].get());
  ASSERT_TRUE(world.run());
  for (size_t i = 100; i < 2 * kRoom; ++i)
    expect_truth(*queries.all()[i]);
  EXPECT_EQ(dns_active(world.ctx), 0);
  // The next in the queue are cancelled before they are sent: the queries after them must not wait for their answers.
  Queries others(&world);
  others.ask_listed(3 * kRoom);
  world.turn();
  for (unsigned i = kRoom; i < 2 * kRoom; ++i)
    others.cancel(others.all()[i].get());
  ASSERT_TRUE(world.run(1000));
  expect_truth(*others.all().back());
  queries.ask_listed(3 * kRoom);
  send();
  dns_close(world.ctx);
  expect_rest(&world);
}

TEST_F(Engine, SocketsGrowWithTheLoadAndAreRenewed) {
  world.add_server("192.0.2.1", Temper::good);
  world.weather.delay_us = 50'000;
  queries.ask_listed(6000);
  ASSERT_TRUE(world.run());
  EXPECT_GE(world.sockets_open, 1000 / dns::UdpPool::kInFlightPerSocket) << "as the server's window grows";
  world.weather.delay_us = 100;
  dns_ios before[dns::UdpPool::kSocketsMax];
  const int count = dns_sockio(world.ctx, before, dns::UdpPool::kSocketsMax);
  std::set<int> old;
  for (int i = 0; i < count; ++i)
    old.insert(before[i].dnsio_sock);
  world.now_us += dns::UdpPool::kAgeMaxUs;
  run("listed-1.list.test");
  EXPECT_LE(world.sockets_open, dns::UdpPool::kSocketsMin) << "sockets age";
  for (int round = 0; round < 80; ++round) {
    queries.ask_listed(3000);
    ASSERT_TRUE(world.run());
  }
  EXPECT_LE(world.sockets_open, dns::UdpPool::kSocketsMax);
  dns_ios after[dns::UdpPool::kSocketsMax];
  const int now = dns_sockio(world.ctx, after, dns::UdpPool::kSocketsMax);
  for (int i = 0; i < now; ++i)
    EXPECT_EQ(old.count(after[i].dnsio_sock), 0U) << "a worn socket is still in use";
  for (const auto &asked : queries.all())
    ASSERT_EQ(asked->calls, 1);
}

TEST(ResolverFile, ServersAndFiguresWithinTheirBounds) {
  const std::string text =
      "; a comment\nnameserver 192.0.2.1\nnameserver 2001:db8::1\nnameserver\nnameserver 192.0.2.256\n"
      "nameserver fe80::1%lo\nnameserver fe80::1\nnameserver fe80::1%nowhere\nnameserver 2001:db8::1%lo\n"
      "nameserver ::ffff:192.0.2.7\nnameserver fe80::1%7\nnameserver ::\n#" +
      std::string(2000, 'x') + " nameserver 192.0.2.9\noptions rotate timeout:99 attempts:0 ndots: ndots:x\n" +
      "nameserver\t0.0.0.0";
  const testbed::MemoryFile file({reinterpret_cast<const uint8_t *>(text.data()), text.size()});
  const std::string path = file.path();
  dns::Options options;
  dns::Address servers[dns::kServersMax];
  std::vector<std::string> read;
  const unsigned count = dns::read_resolver_file(path.c_str(), &options, servers, dns::kServersMax);
  for (const dns::Address &server : std::span(servers).first(count)) {
    read.push_back(name_of(server) + (server.scope != 0 ? "%" + std::to_string(server.scope) : ""));
    EXPECT_EQ(server.port, 53);
  }
  // The unspecified addresses mean this host, a mapped one the IPv4 server.
  EXPECT_EQ(read, (std::vector<std::string>{"192.0.2.1", "2001:db8::1", "fe80::1%1", "192.0.2.7", "fe80::1%7", "::1",
                                            "127.0.0.1"}));
  EXPECT_EQ(options.timeout_us, 30 * dns::kUsPerSecond);
  EXPECT_EQ(options.ntries, 1U);
  EXPECT_EQ(options.ndots, dns::Options{}.ndots);
  EXPECT_EQ(options.flags, unsigned{DNS_SERVRRB});
  EXPECT_EQ(dns::read_resolver_file(path.c_str(), &options, servers, 1), 1U);
  EXPECT_EQ(dns::read_resolver_file("/nowhere/resolv.conf", &options, servers, 1), 0U);
}

TEST_F(Engine, CallbacksAndADebugFunctionMayCancelAskAndParse) {
  const testbed::Cache cache = testbed::cache_of();
  ASSERT_EQ(dns_set_cache(world.ctx, DNS_CU_ANS, dns_cache_cacher(cache.get())), DNS_E_NOERROR);
  world.weather = {10, 10, 200, 50'000, 20};
  world.add_server("192.0.2.1", Temper::good);
  world.add_server("192.0.2.2", Temper::fails);
  set(&world, DNS_OPT_BSC_SIZE, 16);
  set(&world, DNS_OPT_BSC_UPDTIME, 0);
  ASSERT_EQ(dns_set_cost_zone(world.ctx, "cost.test"), DNS_E_NOERROR);
  queries.meddling = 20;
  dns_set_dbgfn(world.ctx, Queries::told, &queries);
  for (size_t i = 0; i < 200; ++i) {
    queries.ask(i < 100 ? some_name(&world) : queries.all()[i - 100]->text());  // the later ones from the cache
    if (i == 99) world.run();
  }
  ASSERT_TRUE(world.run());
  for (const auto &asked : queries.all()) {
    EXPECT_EQ(asked->calls, asked->cancelled ? 0 : 1);
    if (asked->status == DNS_E_NOERROR) expect_truth(*asked);
  }
}

}  // namespace
