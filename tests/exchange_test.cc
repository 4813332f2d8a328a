// exchange_test.cc - how the engine and a server exchange messages in a simulated network: EDNS0, TCP, 0x20, cookies,
// and forgers.
#include <gtest/gtest.h>
#include <queries.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <utility>

namespace {

using namespace sim;

TEST_F(Engine, TruncatedAnswersAreFetchedOverOneConnection) {
  world.add_server("192.0.2.1", Temper::truncates);
  queries.ask_listed(500);
  ASSERT_TRUE(world.run());
  queries.expect_truths();
  EXPECT_EQ(world.connections_made, 1U);
  EXPECT_EQ(world.packets_sent, 500U);
  world.weather.breaks_percent = 30;
  queries.ask_listed(200);
  ASSERT_TRUE(world.run());
  EXPECT_GT(world.connections_made, 1U);
  dns_close(world.ctx);
  EXPECT_EQ(world.sockets_open, 0U);
}

TEST_F(Engine, AServerWithoutEdnsIsAskedPlainlyFromThenOn) {
  world.add_server("192.0.2.1", Temper::knows_no_opt);
  const auto expect_plain = [this] {
    world.packets_sent = 0;
    for (const unsigned packets : {2U, 3U, 4U}) {
      resolve("listed-1.list.test");
      EXPECT_EQ(world.packets_sent, packets);
    }
    world.now_us += dns::kNoEdnsUs;
  };
  expect_plain();
  world.script = [](const Bytes &query, const std::string &) {
    if (query[11] == 0) return answer_to(query, Temper::good);
    return Bytes{query[0], query[1], 0x80, DNS_R_FORMERR, 0, 0, 0, 0, 0, 0, 0, 0};  // without a question
  };
  expect_plain();
}

// A forger who knows the query, the server and even every socket, and must guess the id and the 0x20 case.
TEST_F(Engine, AMillionForgedPacketsAreNotBelieved) {
  world.add_server("192.0.2.1", Temper::dead);
  constexpr int64_t kLongUs = 600'000'000;
  const dns_timeval timeout = {kLongUs / dns::kUsPerSecond, 0};
  ASSERT_EQ(dns_set_opt(world.ctx, DNS_OPT_TIMEOUT, &timeout, sizeof timeout), 0);
  Query &asked = queries.ask("listed-1.list.test");
  send();
  Bytes forged = sim::answer_to(world.last_query(), Temper::good);
  const Bytes sent = world.last_query();
  for (int i = 0; i < 1'000'000; ++i) {
    forged[0] = static_cast<uint8_t>(i >> 8);  // every id comes up, fifteen times
    forged[1] = static_cast<uint8_t>(i);
    for (size_t at = DNS_HSIZE; at < DNS_HSIZE + 20; ++at)
      if (isalpha(forged[at]) != 0) forged[at] = static_cast<uint8_t>(forged[at] ^ (world.random(2) << 5));
    world.forge("192.0.2.1", forged);
    if (i % 64 == 63) world.read_sockets();
    ASSERT_EQ(asked.calls, 0) << "after " << i << " packets";
  }
  world.set_temper("192.0.2.1", Temper::good);
  world.now_us += kLongUs;
  ASSERT_TRUE(world.run());
  expect_truth(asked);
}

TEST_F(Engine, AStrangersAnswerCountsWhereItIsExpected) {
  const auto believed = [this](const std::string &stranger, uint16_t port) {
    // Two servers: a socket connected to a lone server receives from no other address.
    const std::string net = stranger.substr(0, stranger.size() - 1);
    Query &asked = queries.ask("listed-" + std::to_string(port) + ".list.test", {net + "1", net + "2"});
    send();
    hear(stranger, sim::answer_to(world.last_query(), Temper::good), port);
    if (asked.calls > 0) expect_truth(asked);
    queries.cancel(&asked);
    return asked.calls > 0;
  };
  const auto expect_answers_of = [this](const std::string &stranger, uint16_t port) {
    EXPECT_GT(dns_add_expserv_s(world.ctx, socket_of(stranger, port).generic()), 0);
  };
  for (const std::string net : {"192.0.2.", "2001:db8::"}) {
    for (const char *server : {"1", "2"})
      world.add_server(net + server, Temper::dead);
    EXPECT_FALSE(believed(net + "7", 53)) << "a fresh context expects no other address";
    EXPECT_FALSE(believed(net + "1", 54)) << "nor its own server at another port";
    expect_answers_of(net + "7", 0);
    expect_answers_of(net + "8", 5353);
    for (const uint16_t port : {53, 54, 5353})
      EXPECT_TRUE(believed(net + "7", port));
    EXPECT_TRUE(believed(net + "8", 5353));
    EXPECT_FALSE(believed(net + "8", 53));
    for (const uint16_t port : {53, 5353})
      EXPECT_FALSE(believed(net + "9", port));
    ASSERT_EQ(dns_add_expserv_s(world.ctx, nullptr), 0);
    EXPECT_FALSE(believed(net + "7", 53));
    EXPECT_FALSE(believed(net + "8", 5353));
  }
}

// What the debug function is told of a packet. It may cancel the query then.
TEST_F(Engine, TheTraceSaysWhatAPacketIsTakenFor) {
  struct Row {
    int code;
    std::function<void(Bytes *)> spoil;
    const char *from = "192.0.2.1";
  };
  struct Told {
    int code;  // that counts, and at which the query is cancelled if there are `queries`
    Queries *queries;
    unsigned codes = 0, others = 0;
  };
  const Row rows[] = {
      {DNS_D_PKT_RPAN, [](Bytes *) {}},
      {DNS_D_PKT_NOQR, [](Bytes *packet) { (*packet)[2] &= 0x7F; }},
      {DNS_D_PKT_RPINV, [](Bytes *packet) { (*packet)[2] |= 0x08; }},
      {DNS_D_PKT_RPINV, [](Bytes *packet) { packet->resize(DNS_HSIZE - 1); }},
      {DNS_D_PKT_RPINV, [](Bytes *packet) { (*packet)[testbed::question_end(*packet) - 3] = DNS_T_NS; }},
      {DNS_D_PKT_RPINV, [](Bytes *packet) { (*packet)[DNS_HSIZE + 1] = 'x'; }},
      {DNS_D_PKT_RPINV, [](Bytes *packet) { (*packet)[DNS_HSIZE + 1] ^= 0x20; }},
      {DNS_D_PKT_RPINV, [](Bytes *packet) { (*packet)[testbed::kQuestionsAt] = 0; }},
      {DNS_D_PKT_RPINV, [](Bytes *packet) { packet->resize(dns::kAnswerRoom + 1); }},
      {DNS_D_PKT_NOREQ, [](Bytes *packet) { (*packet)[1] ^= 1; }},
      {DNS_D_PKT_NOREQ, [](Bytes *) {}, "192.0.2.7"},
      {DNS_D_PKT_NEDNS0,
       [](Bytes *packet) {
         *packet = {(*packet)[0], (*packet)[1], 0x80, DNS_R_FORMERR};
         packet->resize(DNS_HSIZE);
       }},
  };
  for (const Row &row : rows)
    for (const bool cancels : {false, true}) {
      SCOPED_TRACE(std::to_string(&row - rows) + (cancels ? " cancelled" : ""));
      Scene other(11);
      Told told = {row.code, cancels ? &other.queries : nullptr};
      other.world.add_server("192.0.2.1", Temper::dead);
      const auto hear = [](dns_ctx *, dns_query *, int code, void *, void *data) {
        auto *heard = static_cast<Told *>(data);
        // A packet is no answer to the sockets that its query has not left from.
        if (code == heard->code) ++heard->codes;
        if (code != heard->code && code != DNS_D_PKT_REQ && code != DNS_D_PKT_NOREQ) ++heard->others;
        if (code == heard->code && heard->queries != nullptr) heard->queries->cancel(heard->queries->all()[0].get());
      };
      dns_set_dbgfn(other.world.ctx, hear, &told);
      const Query &asked = other.queries.ask("listed-1.list.test");
      other.send();
      Bytes packet = sim::answer_to(other.world.last_query(), Temper::good);
      row.spoil(&packet);
      other.hear(row.from, packet);
      EXPECT_TRUE(told.codes > 0 && told.others == 0) << told.codes << " " << told.others;
      EXPECT_EQ(asked.calls, row.code == DNS_D_PKT_RPAN && !cancels ? 1 : 0);
      other.world.set_temper("192.0.2.1", Temper::good);
      ASSERT_TRUE(other.world.run());
      EXPECT_EQ(asked.calls, cancels ? 0 : 1);
    }
}

TEST_F(Engine, AServerThatDoesNotKeepTheCaseIsAskedInLowerCase) {
  for (const Temper temper : {Temper::lowers_case, Temper::lowers_case_by_tcp}) {
    Scene other(7);
    other.world.add_server("192.0.2.1", temper);
    for (const std::string name : {"Listed-0.LIST.test", "Listed-1.LIST.test", "Listed-2.LIST.test"})
      EXPECT_EQ(other.resolve(name).canonical, name) << "as it was asked";
    const bool by_tcp = temper == Temper::lowers_case_by_tcp;
    EXPECT_EQ(other.world.packets_sent, by_tcp ? 3U : 4U);
    EXPECT_EQ(other.world.connections_made, by_tcp ? 1U : 0U);
  }
}

TEST_F(Engine, CookiesAreExchangedWhereTheyAreAskedFor) {
  world.add_server("192.0.2.1", Temper::bakes_cookies);
  set(&world, DNS_OPT_FLAGS, DNS_COOKIES);
  for (const unsigned packets : {2U, 3U}) {
    resolve("listed-" + std::to_string(packets) + ".list.test");
    EXPECT_EQ(world.packets_sent, packets);
  }
  // A forger at its address knows all but the cookie; the current attempt may be at the other server.
  world.tcp_error = -EMFILE;
  world.tcp_errors = 100;
  world.add_server("192.0.2.2", Temper::dead);
  world.set_temper("192.0.2.1", Temper::good);
  for (const int64_t delay_us : {0, 200'000}) {
    world.delays_us["192.0.2.1"] = delay_us;
    EXPECT_EQ(run("listed-1.list.test").status, DNS_E_TEMPFAIL);
  }
  // A server that no longer sends cookies proves it over TCP; without TCP the engine forgets the cookie after minutes.
  world.tcp_errors = 0;
  world.delays_us.clear();
  resolve("listed-2.list.test");
  EXPECT_EQ(world.connections_made, 1U);
  resolve("listed-3.list.test");
  EXPECT_EQ(world.connections_made, 1U);
}

TEST_F(Engine, ACookieThatNoLongerComesIsForgotten) {
  world.add_server("192.0.2.1", Temper::bakes_cookies);
  set(&world, DNS_OPT_FLAGS, DNS_COOKIES);
  world.tcp_error = -ECONNREFUSED;
  world.tcp_errors = UINT32_MAX;
  run("listed-1.list.test");
  world.set_temper("192.0.2.1", Temper::good);
  EXPECT_NE(run("listed-2.list.test").status, DNS_E_NOERROR);
  world.now_us += dns::kCookieUs;
  resolve("listed-3.list.test");
}

TEST_F(Engine, ServersThatCloseConnectionsLoseNothing) {
  world.add_server("192.0.2.1", Temper::truncates);
  for (const unsigned answers : {1U, 7U}) {
    world.answers_per_connection = answers;
    world.connections_made = 0;
    world.now_us += dns::kTcpLimitUs;  // the engine forgets what it learned of the server
    queries.ask_listed(60);
    ASSERT_TRUE(world.run());
    queries.expect_truths();
    EXPECT_LE(world.connections_made, 60 / answers + 3);
  }
}

TEST_F(Engine, AnAnswerThatALateLoopFindsOnAConnectionCounts) {
  world.add_server("192.0.2.1", Temper::truncates);
  Query &asked = queries.ask("listed-1.list.test");
  ASSERT_TRUE(world.turn());
  send();
  ASSERT_EQ(world.connections_made, 1U);
  world.now_us += 60 * dns::kUsPerSecond;
  send();
  expect_truth(asked);
}

TEST_F(Engine, AConnectionThatCannotBeHadCostsAttemptsAndNotTheQuery) {
  world.add_server("192.0.2.1", Temper::truncates);
  for (const int error : {-ECONNREFUSED, -EMFILE}) {
    world.tcp_error = error;
    world.tcp_errors = 2;
    Query &asked = resolve("listed-1.list.test");
    EXPECT_LT(asked.took_us, dns::kUsPerSecond);
    dns_close(world.ctx);
    ASSERT_EQ(dns_open(world.ctx), DNS_E_NOERROR);
  }
}

TEST_F(Engine, WhatAnEarlierServerTruncatesIsFetchedThere) {
  world.add_server("192.0.2.1", Temper::good);
  run("listed-1.list.test");
  world.set_temper("192.0.2.1", Temper::truncates);
  world.delays_us["192.0.2.1"] = 200'000;
  world.add_server("192.0.2.2", Temper::dead);
  Query &asked = resolve("listed-2.list.test");
  EXPECT_LT(asked.took_us, 300'000);
}

// The answer to the first attempt counts, and the answer to the third: each socket of a lone server serves two.
TEST_F(Engine, ASlowServerIsHeardThoughItsQueryHasLeftTheSocket) {
  const dns_timeval timeout = {1, 0};
  for (const auto &[lost, delay_us] : {std::pair{0U, 3'500'000}, {2U, 1'200'000}}) {
    Scene other(42);
    ASSERT_EQ(dns_set_opt(other.world.ctx, DNS_OPT_TIMEOUT, &timeout, sizeof timeout), 0);
    set(&other.world, DNS_OPT_NTRIES, 10);
    other.world.add_server("192.0.2.1", Temper::good);
    other.world.delays_us["192.0.2.1"] = delay_us;
    other.world.script = [&other, lost = lost](const Bytes &query, const std::string &) {
      return other.world.packets_sent <= lost ? Bytes{} : answer_to(query, Temper::good);
    };
    EXPECT_LE(other.resolve("listed-2.list.test").took_us, lost * dns::kUsPerSecond + delay_us + 1000);
  }
}

TEST_F(Engine, AServerIsNotBelievedUnderAnIdThatItWasNotAskedUnder) {
  world.add_server("192.0.2.1", Temper::refuses_tcp);
  world.add_server("192.0.2.2", Temper::dead);
  Query &asked = queries.ask("listed-1.list.test");
  while (world.asked["192.0.2.2"] == 0)
    ASSERT_TRUE(world.turn());
  hear("192.0.2.1", answer_to(world.last_query(), Temper::good));
  EXPECT_EQ(asked.calls, 0);
  hear("192.0.2.2", answer_to(world.last_query(), Temper::good));
  expect_truth(asked);
}

TEST_F(Engine, NothingThatListensIsToldApartFromSilence) {
  world.add_server("192.0.2.1", Temper::absent);
  world.weather.duplicate_percent = 100;  // an ICMP error during a pause changes nothing
  const Query &refused = run("listed-1.list.test");
  EXPECT_EQ(refused.status, DNS_E_REFUSED);
  EXPECT_TRUE(refused.took_us >= 500'000 && refused.took_us < dns::kUsPerSecond) << refused.took_us;
  EXPECT_EQ(world.packets_sent, 4U);

  world.add_servers({"192.0.2.2", "192.0.2.3"}, Temper::absent);
  const Query &all_refused = run("listed-1.list.test");
  EXPECT_TRUE(all_refused.status == DNS_E_REFUSED && all_refused.took_us >= 500'000) << all_refused.took_us;
  ASSERT_EQ(dns_add_serv(world.ctx, nullptr), 0);
  world.add_server("192.0.2.1", Temper::absent);

  Query &starting = queries.ask("listed-1.list.test");
  for (const unsigned packets = world.packets_sent; world.packets_sent < packets + 2;)
    ASSERT_TRUE(world.turn());
  world.set_temper("192.0.2.1", Temper::good);
  ASSERT_TRUE(world.run());
  expect_truth(starting);
  EXPECT_LT(starting.took_us, dns::kUsPerSecond);

  for (const char *server : {"192.0.2.7", "192.0.2.8"})
    world.set_temper(server, Temper::absent);
  world.packets_sent = 0;
  const Query &direct = resolve("listed-2.list.test", {"192.0.2.7", "192.0.2.8"}, DNS_DCACHE);
  EXPECT_EQ(world.packets_sent, 3U);
  EXPECT_LT(direct.took_us, 10'000) << "moves on at once";

  Query &closed = queries.ask("listed-3.list.test", {"192.0.2.7"});
  for (int i = 0; i < 3; ++i)
    ASSERT_TRUE(world.turn());
  dns_close(world.ctx);
  expect_rest(&world);
  EXPECT_EQ(closed.calls, 0) << "it was pausing";
}

TEST_F(Engine, APauseDoesNotForgetHowAServerIsToBeAsked) {
  world.add_server("192.0.2.1", Temper::good);
  unsigned plain = 0;
  world.script = [&plain](const Bytes &query, const std::string &) {
    Reply reply = answer_to(query, Temper::knows_no_opt);
    if (query[testbed::kAdditionalAt] != 0 || ++plain > 1) return reply;
    reply.bytes.clear();
    reply.returned = true;
    return reply;
  };
  resolve("listed-1.list.test");
  EXPECT_EQ(world.packets_sent, 3U) << "with EDNS0 once";
}

// has_capitals tells whether the name in a query has capital letters.
bool has_capitals(const Bytes &query) {
  return std::any_of(query.begin() + DNS_HSIZE, query.end() - 15, [](uint8_t c) { return isupper(c) != 0; });
}

TEST_F(Engine, AServerThatKeepsTheCaseIsNotTalkedOutOfIt) {
  const auto ask = [&](int times) {
    for (int i = 0; i < times; ++i)
      resolve("listed-1.list.test");
  };
  world.add_server("192.0.2.1", Temper::good);
  ask(10);
  // A forged packet is right but for its 0x20 case, while TCP fails.
  world.tcp_error = -EMFILE;
  world.tcp_errors = 100;
  for (const char *server : {"192.0.2.1", "192.0.2.2"}) {  // the second is unknown yet
    ASSERT_EQ(dns_add_serv(world.ctx, nullptr), 0);
    world.add_server(server, Temper::dead);
    Query &asked = queries.ask("listed-2.list.test");
    send();
    hear(server, answer_to(world.last_query(), Temper::lowers_case));
    EXPECT_EQ(asked.calls, 0);
    world.set_temper(server, Temper::good);
    world.tcp_errors = 2;
    ASSERT_TRUE(world.run());
    expect_truth(asked);
    ask(3);
    EXPECT_TRUE(has_capitals(world.last_query()));
  }
  // What the server itself answers over TCP counts.
  world.tcp_errors = 0;
  world.now_us += dns::kTcpIdleUs;
  world.set_temper("192.0.2.2", Temper::lowers_case_by_tcp);
  ask(3);
  EXPECT_FALSE(has_capitals(world.last_query()));
}

TEST_F(Engine, AServerWithoutTcpThatDoesNotKeepTheCaseIsNeverTakenForOneThatDoes) {
  world.add_server("192.0.2.1", Temper::lowers_case);
  for (const int error : {-ECONNREFUSED, -EHOSTUNREACH}) {
    world.tcp_error = error;
    world.tcp_errors = UINT32_MAX;
    for (int i = 0; i < 100; ++i) {
      world.now_us += dns::kLowerUs;
      // A single letter comes back right by chance every other time.
      resolve("1.x");
    }
  }
}

TEST_F(Engine, AnotherMachineInAKnownServersPlaceIsFoundOut) {
  world.add_server("192.0.2.1", Temper::good);
  for (int i = 0; i < 10; ++i)
    resolve("listed-1.list.test");
  world.set_temper("192.0.2.1", Temper::lowers_case);
  EXPECT_NE(run("listed-2.list.test").status, DNS_E_NOERROR);
  world.now_us += dns::kOtherCaseUs;
  resolve("listed-3.list.test");
}

TEST_F(Engine, AServerMayHaveACaseOfItsOwn) {
  world.add_server("192.0.2.1", Temper::good);
  world.script = [](const Bytes &query, const std::string &) {
    Bytes answer = answer_to(query, Temper::good);
    for (size_t at = DNS_HSIZE; answer[at] != 0; ++at)
      answer[at] = static_cast<uint8_t>(toupper(answer[at]));
    return answer;
  };
  for (int i = 0; i < 3; ++i)
    resolve("listed-1.list.test");
  EXPECT_EQ(world.connections_made, 1U);
}

TEST_F(Engine, ASentPacketIsToldWithTheNameAsItWasGiven) {
  const auto told = [](dns_ctx *, dns_query *q, int code, void *data, void *count) {
    if (code != DNS_D_PKT_REQ) return;
    const auto *event = static_cast<const dns_dpkt *>(data);
    ++*static_cast<int *>(count);
    EXPECT_EQ(memcmp(event->dnsd_pkt + DNS_HSIZE, dns_qdn(q), dns_dnlen(dns_qdn(q))), 0);
  };
  int count = 0;
  dns_set_dbgfn(world.ctx, told, &count);
  world.add_server("192.0.2.1", Temper::truncates);
  resolve("listed-1.List.Test");
  EXPECT_EQ(count, 2) << "by UDP and over TCP";
}

TEST_F(Engine, AFailureOfOneServerIsNotAnothers) {
  world.add_server("192.0.2.1", Temper::good);
  world.set_temper("192.0.2.65", Temper::fails);
  world.set_temper("192.0.2.97", Temper::good);
  EXPECT_EQ(run("Listed-1.list.test", {"192.0.2.65"}).status, DNS_E_SERVFAIL);
  resolve("listed-1.list.test", {"192.0.2.97"});
  const unsigned packets = world.packets_sent;
  EXPECT_EQ(run("LISTED-1.list.test", {"192.0.2.65"}).status, DNS_E_SERVFAIL);
  EXPECT_EQ(world.packets_sent, packets) << "names are the same in any case";
}

TEST_F(Engine, ALateIcmpErrorStartsNoAttempt) {
  world.add_server("192.0.2.1", Temper::absent);
  world.add_servers({"192.0.2.2", "192.0.2.3"}, Temper::dead);
  Query &asked = queries.ask("listed-1.list.test");
  send();
  world.forge("192.0.2.1", answer_to(world.last_query(), Temper::fails));  // overtakes the packet
  for (int i = 0; i < 2; ++i) {
    world.read_sockets();
    send();
  }
  EXPECT_TRUE(world.asked["192.0.2.2"] == 1 && world.asked["192.0.2.3"] == 0);
  hear("192.0.2.2", answer_to(world.last_query(), Temper::good));
  expect_truth(asked);
}

TEST_F(Engine, Only0x20OverUdpProvesThatAServerKeepsTheCase) {
  for (const bool by_udp_alone : {true, false}) {
    Scene other(7);
    other.world.add_server("192.0.2.1", Temper::good);
    other.world.script = [&](const Bytes &query, const std::string &) {
      const bool lowers = !other.world.by_tcp || !by_udp_alone;
      return answer_to(query, lowers ? Temper::lowers_case : Temper::good);
    };
    for (int i = 0; i < 20; ++i) {
      if (i % 10 == 0) other.world.now_us += dns::kLowerUs;
      const Query &asked = other.resolve("listed-" + std::to_string(i) + ".list.test");
      EXPECT_LT(asked.took_us, 10'000) << "was taken for a forgery";
    }
  }
}

}  // namespace
