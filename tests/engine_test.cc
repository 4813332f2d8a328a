// engine_test.cc - the engine in a simulated network: one thread, a clock of its own, everything from one seed.
// Whatever the network does, a question ends in exactly one callback, with the right answer or the right status.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "../platform/dns/engine/engine.h"
#include "support/packets.h"
#include "support/simulation.h"

namespace {

using sim::Temper;
using sim::World;

class Questions;

struct Asked {
  std::array<uint8_t, DNS_MAXDN> dn;
  dns_query *handle = nullptr;
  bool cancelled = false;
  Questions *asker = nullptr;
  int calls = 0;
  dns_status status = 1;
  unsigned sflags = 0;
  in_addr_t address = 0;
  std::string canonical;
  const World *world = nullptr;
  int64_t took_us = 0;  // until then the moment that it was asked at
};

void meddle(Questions *questions);

void answered(dns_ctx *ctx, dns_query *q, void *result, unsigned size, void *data) {
  auto *asked = static_cast<Asked *>(data);
  EXPECT_EQ(q, asked->handle);
  EXPECT_NE(dns_dnequal(dns_qdn(q), asked->dn.data()), 0U);
  ++asked->calls;
  meddle(asked->asker);
  asked->status = dns_get_status(ctx);
  asked->sflags = dns_get_sflags(ctx);
  asked->took_us = asked->world->now_us - asked->took_us;
  if (result == nullptr) return;
  const auto *block = static_cast<const dns_rr_a4 *>(result);
  EXPECT_EQ(block->dnsa4_size, size);
  EXPECT_EQ(block->dnsa4_written, size);
  asked->canonical = block->dnsa4_cname;
  if (block->dnsa4_nrr == 1) asked->address = ntohl(block->dnsa4_addr[0].s_addr);
}

std::string some_name(World *world) {
  static const char *const kinds[] = {"listed-", "listed-", "gone-", "empty-"};
  std::string text = kinds[world->random(4)] + std::to_string(world->random(1000)) + ".List.test";
  // Some names are too long to lie in a question's own record.
  if (world->chance(20)) text += "." + std::string(60, 'x') + "." + std::string(61, 'y');
  return text;
}

// Questions keeps what was asked at one place, for the callbacks point at it. From a callback, and from the debug
// function where told is that, it asks and cancels in `meddling` of a hundred cases.
class Questions {
 public:
  explicit Questions(World *world) : world_(world) {}
  int meddling = 0;

  Asked &ask(const std::string &text, const std::vector<std::string> &servers = {}, unsigned flags = 0) {
    asked_.push_back(std::make_unique<Asked>());
    Asked &asked = *asked_.back();
    asked.dn = sim::name(text);
    asked.world = world_;
    asked.asker = this;
    asked.took_us = world_->now_us;
    std::vector<sockaddr_in> addresses;
    for (const std::string &server : servers)
      addresses.push_back(World::address_of(server));
    asked.handle =
        dns_submit_dn_serv(world_->ctx, asked.dn.data(), DNS_C_IN, DNS_T_A, flags,
                           addresses.empty() ? nullptr : reinterpret_cast<const sockaddr *>(addresses.data()),
                           static_cast<unsigned>(addresses.size()), dns_parse_a4, answered, &asked);
    EXPECT_NE(asked.handle, nullptr);
    EXPECT_EQ(asked.calls, 0) << "no callback runs inside a submission";
    return asked;
  }

  void cancel(Asked *asked) {
    if (asked->calls == 0 && !std::exchange(asked->cancelled, true)) dns_cancel(world_->ctx, asked->handle);
  }
  void meddle() {
    constexpr size_t kMost = 300;
    if (!world_->chance(meddling) || asked_.size() > kMost) return;
    const size_t some = world_->random(asked_.size());
    if (world_->chance(50)) {
      cancel(asked_[some].get());
    } else {
      ask(world_->chance(50) ? some_name(world_) : dns_dntosp(asked_[some]->dn.data()));
    }
  }
  // told may also cancel what the engine itself asks, and parses a packet that takes more memory than any answer.
  static void told(dns_ctx *ctx, dns_query *q, int, void *, void *udata) {
    auto *self = static_cast<Questions *>(udata);
    if (self->world_->chance(5)) parse(ctx);
    self->meddle();
    if (q == nullptr || !self->world_->chance(self->meddling)) return;
    if (dns_qcbck(q) == answered) {
      self->cancel(static_cast<Asked *>(dns_qudata(q)));
    } else {
      dns_cancel(ctx, q);
    }
  }

  [[nodiscard]] const std::vector<std::unique_ptr<Asked>> &all() const { return asked_; }

 private:
  static void parse(dns_ctx *ctx) {
    sim::Bytes text(30'208);
    for (size_t at = 0; at < text.size(); at += 256)
      text[at] = 255;
    const packets::Answer answer = packets::Answer("other.test", DNS_T_TXT).add("other.test", DNS_T_TXT, text);
    const uint8_t *packet = answer.packet.data();
    void *block = nullptr;
    EXPECT_GT(dns_parse_txt(ctx, nullptr, sim::name("other.test").data(), packet, packet + answer.answers_at,
                            packet + answer.packet.size(), &block, 0),
              0);
  }

  World *world_;
  std::vector<std::unique_ptr<Asked>> asked_;
};

void meddle(Questions *questions) {
  questions->meddle();
}

void expect_truth(const Asked &asked) {
  const sim::Truth truth = sim::truth_of(asked.dn.data());
  EXPECT_EQ(asked.calls, 1);
  EXPECT_EQ(asked.status, truth.status);
  EXPECT_EQ(asked.address, truth.address);
}

void set(World *world, int option, uint32_t value) {
  ASSERT_EQ(dns_set_opt(world->ctx, option, &value, sizeof value), DNS_E_NOERROR);
}

// tease has every server do something else each time that it is asked: refer to a server outside the zone, for one.
void tease(World *world) {
  world->script = [world](const sim::Bytes &question, const std::string &) {
    static constexpr Temper kTempers[] = {Temper::good,   Temper::good,         Temper::dead,        Temper::fails,
                                          Temper::refers, Temper::knows_no_opt, Temper::lowers_case, Temper::truncates};
    const Temper temper = kTempers[world->random(std::size(kTempers))];
    sim::Bytes answer = sim::answer_to(question, temper);
    if (temper == Temper::refers) answer[answer.size() - 2] = 'a';
    return answer;
  };
}

// expect_rest checks that nothing is left of any question.
void expect_rest(World *world) {
  dns_ctx *ctx = world->ctx;
  EXPECT_EQ(dns_active(ctx), 0);
  EXPECT_TRUE(ctx->leader_count == 0 && ctx->resting.alone() && ctx->cancelled.alone());
  if (ctx->ratings_open > 0) return;
  EXPECT_TRUE(ctx->in_flight == 0 && ctx->sending.alone() && ctx->tcp_waiting.alone());
  ctx->server_table.each([](dns::Server *s) { EXPECT_TRUE(s->under_way == 0 && s->parked.alone()); });
}

// One storm: servers of every temper with at least one good one, bad weather, forgers, hosts that ask and cancel in
// callbacks, and questions with servers of their own. Answers may be lost, never wrong.
void storm(uint64_t seed) {
  SCOPED_TRACE("seed " + std::to_string(seed));
  World world(seed);
  world.weather = {static_cast<int>(world.random(30)),
                   static_cast<int>(world.random(20)),
                   200,
                   static_cast<int64_t>(world.random(80'000)),
                   static_cast<int>(world.random(60)),
                   static_cast<int>(world.random(20))};
  static constexpr Temper kTempers[] = {
      Temper::good,        Temper::dead,         Temper::refuses,     Temper::fails,
      Temper::truncates,   Temper::garbles,      Temper::wrong_name,  Temper::wrong_id,
      Temper::wrong_type,  Temper::request,      Temper::chains,      Temper::refers,
      Temper::refuses_tcp, Temper::knows_no_opt, Temper::lowers_case, Temper::lowers_case_by_tcp};
  const unsigned servers = 1 + static_cast<unsigned>(world.random(4));
  for (unsigned i = 0; i < servers; ++i)
    world.add_server("192.0.2." + std::to_string(i + 1),
                     i == 0 ? Temper::good : kTempers[world.random(std::size(kTempers))]);
  if (world.chance(30)) set(&world, DNS_OPT_FLAGS, DNS_SERVRRB);
  if (world.chance(30)) {
    set(&world, DNS_OPT_BSC_SIZE, 16);
    set(&world, DNS_OPT_BSC_UPDTIME, static_cast<uint32_t>(world.random(3)));
    set(&world, DNS_OPT_BSC_NBEST, 1 + static_cast<uint32_t>(world.random(3)));
    EXPECT_EQ(dns_set_cost_zone(world.ctx, world.chance(50) ? "cost.test" : nullptr), DNS_E_NOERROR);
  }
  if (world.chance(25)) tease(&world);
  Questions questions(&world);
  if (world.chance(50)) questions.meddling = static_cast<int>(world.random(30));
  if (world.chance(50)) dns_set_dbgfn(world.ctx, Questions::told, &questions);
  const unsigned count = 1 + static_cast<unsigned>(world.random(40));
  for (unsigned i = 0; i < count; ++i) {
    questions.ask(some_name(&world),
                  world.chance(20) ? std::vector<std::string>{"192.0.2.1"} : std::vector<std::string>{},
                  world.chance(50) ? DNS_RCRS : 0);
    if (world.chance(50)) world.turn();
    if (world.chance(10)) questions.cancel(questions.all()[world.random(questions.all().size())].get());
  }
  const bool closes = world.chance(10);
  if (closes) {
    dns_close(world.ctx);
    EXPECT_EQ(world.sockets_open, 0U);
  } else {
    ASSERT_TRUE(world.run(10'000)) << "the engine never came to rest";
  }
  expect_rest(&world);
  for (const auto &asked : questions.all()) {
    if (asked->cancelled || (closes && asked->calls == 0)) {
      EXPECT_EQ(asked->calls, 0);
    } else if (asked->status == DNS_E_TEMPFAIL || asked->status <= DNS_E_FORMERR || asked->status == DNS_E_PROTOCOL) {
      EXPECT_EQ(asked->calls, 1);
      EXPECT_EQ(asked->address, 0U);
    } else {
      expect_truth(*asked);
    }
  }
}

TEST(Storm, EveryQuestionEndsOnceAndRightly) {
  for (uint64_t seed = 1; seed <= 3000 && !testing::Test::HasFailure(); ++seed)
    storm(seed);
}

class Engine : public testing::Test {
 protected:
  World world{42};
  Questions questions{&world};
};

TEST_F(Engine, AnswersDeniesAndFollowsAliasesInAnyOrder) {
  world.add_server("192.0.2.1", Temper::good);
  Asked &listed = questions.ask("listed-1.list.test");
  Asked &gone = questions.ask("gone-1.list.test");
  Asked &empty = questions.ask("empty-1.list.test");
  ASSERT_TRUE(world.run());
  for (const Asked *asked : {&listed, &gone, &empty})
    expect_truth(*asked);
  EXPECT_EQ(world.packets_sent, 3U);
  EXPECT_TRUE(dns_timeouts(world.ctx, dns_tv_infinite, world.now()) == dns_tv_infinite);

  world.set_temper("192.0.2.1", Temper::chains);
  Asked &aliased = questions.ask("listed-2.list.test");
  ASSERT_TRUE(world.run());
  expect_truth(aliased);
  EXPECT_EQ(aliased.canonical, "END.test");

  world.set_temper("192.0.2.1", Temper::loops);
  Asked &looping = questions.ask("listed-3.list.test");
  ASSERT_TRUE(world.run());
  EXPECT_EQ(looping.status, DNS_E_CNLOOP);
}

TEST_F(Engine, AFailingServerCostsNoTimeAndADeadOneItsTimeOut) {
  world.add_server("192.0.2.1", Temper::refuses);
  world.add_server("192.0.2.2", Temper::fails);
  world.add_server("192.0.2.3", Temper::garbles);
  world.add_server("192.0.2.4", Temper::good);
  const int64_t start = world.now_us;
  Asked &asked = questions.ask("listed-1.list.test");
  ASSERT_TRUE(world.run());
  expect_truth(asked);
  EXPECT_EQ(world.now_us - start, 4 * world.weather.delay_us);
  EXPECT_EQ(world.packets_sent, 4U);

  world.set_temper("192.0.2.1", Temper::dead);
  const int64_t late_start = world.now_us;
  Asked &late = questions.ask("listed-2.list.test");
  ASSERT_TRUE(world.run());
  expect_truth(late);
  EXPECT_GE(world.now_us - late_start, 50'000) << "the first server's own estimate, at its least";
  EXPECT_LT(world.now_us - late_start, 100'000);
}

TEST_F(Engine, WhatIsCutOffIsAskedForOnOneConnection) {
  world.add_server("192.0.2.1", Temper::truncates);
  std::vector<Asked *> all;
  for (int i = 0; i < 500; ++i)
    all.push_back(&questions.ask("listed-" + std::to_string(i) + ".list.test"));
  ASSERT_TRUE(world.run());
  for (const Asked *asked : all)
    expect_truth(*asked);
  EXPECT_EQ(world.connections_made, 1U);
  EXPECT_EQ(world.packets_sent, 500U);
  world.weather.breaks_percent = 30;
  for (int i = 0; i < 200; ++i)
    questions.ask("listed-" + std::to_string(i) + ".list.test");
  ASSERT_TRUE(world.run());
  EXPECT_GT(world.connections_made, 1U);
  dns_close(world.ctx);
  EXPECT_EQ(world.sockets_open, 0U);
}

TEST_F(Engine, AServerWithoutEdnsIsAskedPlainlyFromThenOn) {
  world.add_server("192.0.2.1", Temper::knows_no_opt);
  for (const unsigned packets : {2U, 3U, 4U}) {
    Asked &asked = questions.ask("listed-1.list.test");
    ASSERT_TRUE(world.run());
    expect_truth(asked);
    EXPECT_EQ(world.packets_sent, packets);
  }
  world.now_us += dns::kNoEdnsUs;
  questions.ask("listed-1.list.test");
  ASSERT_TRUE(world.run());
  EXPECT_EQ(world.packets_sent, 6U);
}

// A forger who knows the question, the server and even every socket, and must guess the id and the case of the letters.
TEST_F(Engine, AMillionForgedPacketsAreNotBelieved) {
  world.add_server("192.0.2.1", Temper::dead);
  constexpr int64_t kLongUs = 600'000'000;
  const dns_timeval patient = {kLongUs / dns::kUsPerSecond, 0};
  ASSERT_EQ(dns_set_opt(world.ctx, DNS_OPT_TIMEOUT, &patient, sizeof patient), 0);
  Asked &asked = questions.ask("listed-1.list.test");
  dns_timeouts(world.ctx, dns_tv_infinite, world.now());
  sim::Bytes forged = sim::answer_to(world.last_question(), Temper::good);
  const sim::Bytes sent = world.last_question();
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

TEST_F(Engine, AServerThatDoesNotKeepTheCaseIsAskedInLowerCase) {
  for (const Temper temper : {Temper::lowers_case, Temper::lowers_case_by_tcp}) {
    World other(7);
    Questions asks(&other);
    other.add_server("192.0.2.1", temper);
    for (int i = 0; i < 3; ++i) {
      const Asked &asked = asks.ask("Listed-" + std::to_string(i) + ".LIST.test");
      ASSERT_TRUE(other.run());
      expect_truth(asked);
      EXPECT_EQ(asked.canonical, "Listed-" + std::to_string(i) + ".LIST.test") << "as it was asked";
    }
    const bool by_tcp = temper == Temper::lowers_case_by_tcp;
    EXPECT_EQ(other.packets_sent, by_tcp ? 3U : 4U);
    EXPECT_EQ(other.connections_made, by_tcp ? 1U : 0U);
  }
}

TEST_F(Engine, CookiesAreExchangedWhereTheyAreAskedFor) {
  world.add_server("192.0.2.1", Temper::bakes_cookies);
  const uint32_t flags = DNS_COOKIES;
  ASSERT_EQ(dns_set_opt(world.ctx, DNS_OPT_FLAGS, &flags, sizeof flags), 0);
  for (const unsigned packets : {2U, 3U}) {
    Asked &asked = questions.ask("listed-" + std::to_string(packets) + ".list.test");
    ASSERT_TRUE(world.run());
    expect_truth(asked);
    EXPECT_EQ(world.packets_sent, packets);
  }
  world.set_temper("192.0.2.1", Temper::good);  // a forger in its place, who knows all but the cookie
  Asked &asked = questions.ask("listed-1.list.test");
  ASSERT_TRUE(world.run());
  EXPECT_EQ(asked.status, DNS_E_TEMPFAIL);
}

TEST_F(Engine, StatusesSayWhatWentWrong) {
  struct Row {
    Temper temper;
    dns_status status;
    unsigned packets;
  };
  world.add_server("192.0.2.1", Temper::dead);
  // A server that answered with an error is not asked again; one that says nothing that counts is asked every time.
  for (const Row &row : {Row{Temper::dead, DNS_E_TEMPFAIL, 4}, Row{Temper::refuses, DNS_E_REFUSED, 1},
                         Row{Temper::fails, DNS_E_SERVFAIL, 1}, Row{Temper::refuses_tcp, DNS_E_PROTOCOL, 1},
                         Row{Temper::garbles, DNS_E_PROTOCOL, 1}, Row{Temper::refers, DNS_E_PROTOCOL, 1},
                         Row{Temper::wrong_id, DNS_E_TEMPFAIL, 4}, Row{Temper::wrong_name, DNS_E_TEMPFAIL, 4},
                         Row{Temper::wrong_type, DNS_E_TEMPFAIL, 4}, Row{Temper::request, DNS_E_TEMPFAIL, 4}}) {
    SCOPED_TRACE(static_cast<int>(row.temper));
    world.set_temper("192.0.2.1", row.temper);
    world.packets_sent = 0;
    Asked &asked = questions.ask("listed-" + std::to_string(static_cast<int>(row.temper)) + ".list.test");
    ASSERT_TRUE(world.run());
    EXPECT_EQ(asked.calls, 1);
    EXPECT_EQ(asked.status, row.status);
    EXPECT_EQ(world.packets_sent, row.packets);
  }
  ASSERT_EQ(dns_add_serv(world.ctx, nullptr), 0);
  Asked &nobody = questions.ask("listed-1.list.test");
  ASSERT_TRUE(world.run());
  EXPECT_EQ(nobody.status, DNS_E_TEMPFAIL);
}

TEST_F(Engine, CancelledAndClosedQuestionsAreNeverCalledBack) {
  world.add_server("192.0.2.1", Temper::good);
  Asked &queued = questions.ask("listed-1.list.test");
  dns_cancel(world.ctx, queued.handle);
  Asked &sent = questions.ask("listed-2.list.test");
  (void)dns_timeouts(world.ctx, dns_tv_infinite, world.now());
  EXPECT_EQ(world.packets_sent, 1U);
  dns_cancel(world.ctx, sent.handle);
  ASSERT_TRUE(world.run());
  Asked &open = questions.ask("listed-3.list.test");
  (void)dns_timeouts(world.ctx, dns_tv_infinite, world.now());
  Asked &waiting = questions.ask("listed-4.list.test");
  dns_close(world.ctx);
  EXPECT_EQ(dns_active(world.ctx), 0);
  EXPECT_EQ(world.sockets_open, 0U);
  EXPECT_EQ(dns_submit_dn_serv(world.ctx, open.dn.data(), DNS_C_IN, DNS_T_A, 0, nullptr, 0, nullptr, answered, &open),
            nullptr);
  EXPECT_EQ(dns_get_status(world.ctx), DNS_E_PERM);
  ASSERT_EQ(dns_open(world.ctx), DNS_E_NOERROR);
  Asked &again = questions.ask("listed-5.list.test");
  ASSERT_TRUE(world.run());
  expect_truth(again);
  for (const Asked *asked : {&queued, &sent, &open, &waiting})
    EXPECT_EQ(asked->calls, 0);
}

struct HostChain {
  dns_query *victim = nullptr;
  int left = 200;
  int victim_calls = 0;
};

const auto kChainName = sim::name("listed-1.list.test");

// ask_on is a host that, told one answer, cancels a question of the same turn and asks two more.
void ask_on(dns_ctx *ctx, dns_query *, void *, unsigned, void *data) {
  auto *chain = static_cast<HostChain *>(data);
  dns_cancel(ctx, chain->victim);
  chain->victim = nullptr;
  if (chain->left-- == 0) return;
  dns_query_fn *never = [](dns_ctx *, dns_query *, void *, unsigned, void *d) {
    ++static_cast<HostChain *>(d)->victim_calls;
  };
  const auto ask = [&](dns_query_fn *callback) {
    return dns_submit_dn_serv(ctx, kChainName.data(), DNS_C_IN, DNS_T_A, 0, nullptr, 0, nullptr, callback, data);
  };
  EXPECT_NE(ask(ask_on), nullptr);
  chain->victim = ask(never);
}

TEST_F(Engine, CallbacksMayAskAndCancel) {
  const std::unique_ptr<dns_cache, decltype(&dns_cache_destroy)> cache(dns_cache_init(1 << 16), dns_cache_destroy);
  // Answers from the cache come in the very turn in which questions are taken up, those from a server later.
  for (dns_cacher *cacher : {static_cast<dns_cacher *>(nullptr), dns_cache_cacher(cache.get())}) {
    ASSERT_EQ(dns_set_cache(world.ctx, DNS_CU_ANS, cacher), DNS_E_NOERROR);
    ASSERT_EQ(dns_add_serv(world.ctx, nullptr), 0);
    world.add_server("192.0.2.1", Temper::good);
    HostChain chain;
    ask_on(world.ctx, nullptr, nullptr, 0, &chain);
    ASSERT_TRUE(world.run());
    EXPECT_EQ(chain.left, -1);
    EXPECT_EQ(chain.victim_calls, 0);
  }
}

TEST_F(Engine, RefusesWhatIsNoQuestion) {
  Asked asked;
  const auto dn = sim::name("a.test");
  const uint8_t long_label[DNS_MAXDN] = {64};
  uint8_t endless[DNS_MAXDN + 1];
  memset(endless, 1, sizeof endless);
  const sockaddr six = {AF_INET6, {}};
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
    EXPECT_EQ(dns_submit_dn_serv(world.ctx, row.dn, row.cls, row.typ, 0, row.nserv > 0 ? &six : nullptr, row.nserv,
                                 nullptr, answered, &asked),
              nullptr);
    EXPECT_EQ(dns_get_status(world.ctx), row.status);
  }
  EXPECT_EQ(dns_active(world.ctx), 0);
}

TEST_F(Engine, TheCacheAnswersUntilTheRecordExpires) {
  const std::unique_ptr<dns_cache, decltype(&dns_cache_destroy)> cache(dns_cache_init(1 << 20), dns_cache_destroy);
  ASSERT_EQ(dns_set_cache(world.ctx, DNS_CU_ANS, dns_cache_cacher(cache.get())), DNS_E_NOERROR);
  std::vector<int> events;
  dns_set_dbgfn(
      world.ctx,
      [](dns_ctx *, dns_query *, int code, void *, void *udata) {
        if ((code & DNS_D_SYS) != 0) static_cast<std::vector<int> *>(udata)->push_back(code);
      },
      &events);
  world.add_server("192.0.2.1", Temper::chains);
  for (const char *text : {"listed-7.list.test", "gone-7.list.test", "empty-7.list.test"}) {
    Asked &first = questions.ask(text);
    ASSERT_TRUE(world.run());
    expect_truth(first);
    EXPECT_EQ(first.sflags, 0U);
    const unsigned sent = world.packets_sent;
    Asked &second = questions.ask(text);
    Asked &own = questions.ask(text, {"192.0.2.1"});
    ASSERT_TRUE(world.run());
    expect_truth(second);
    expect_truth(own);
    EXPECT_EQ(second.sflags, unsigned{DNS_SF_CACHED});
    EXPECT_EQ(second.canonical, first.canonical);
    EXPECT_EQ(own.sflags, 0U) << "a question with servers of its own stays out of the cache";
    EXPECT_EQ(world.packets_sent, sent + 1);
  }
  events.resize(6);
  questions.ask("listed-8.list.test", {"192.0.2.1"});
  ASSERT_TRUE(world.run());
  Asked &fresh = questions.ask("listed-8.list.test");
  ASSERT_TRUE(world.run());
  EXPECT_EQ(fresh.sflags, 0U) << "nor does such a question fill it";
  events.resize(6);
  EXPECT_EQ(events,
            (std::vector<int>{DNS_D_CU_NOAN, DNS_D_CU_AN, DNS_D_CU_NOAN, DNS_D_CU_AN, DNS_D_CU_NOAN, DNS_D_CU_AN}));

  world.now_us += 301 * int64_t{1'000'000};
  const unsigned sent = world.packets_sent;
  Asked &expired = questions.ask("listed-7.list.test");
  ASSERT_TRUE(world.run());
  expect_truth(expired);
  EXPECT_EQ(world.packets_sent, sent + 1);
}

TEST_F(Engine, AFullSendBufferDelaysQuestionsAndLosesNone) {
  world.add_server("192.0.2.1", Temper::good);
  world.send_buffers_full = true;
  for (int i = 0; i < 300; ++i)
    questions.ask("listed-" + std::to_string(i) + ".list.test");
  for (int i = 0; i < 5; ++i)
    ASSERT_TRUE(world.turn());
  EXPECT_EQ(world.packets_sent, 0U);
  world.send_buffers_full = false;
  ASSERT_TRUE(world.run());
  for (const auto &asked : questions.all())
    expect_truth(*asked);
  EXPECT_EQ(world.packets_sent, 300U);

  world.send_buffers_full = true;
  const Asked &stuck = questions.ask("listed-1.list.test");
  ASSERT_TRUE(world.run(1000));
  EXPECT_EQ(stuck.status, DNS_E_TEMPFAIL) << "a question ends though its socket never drains";
}

TEST_F(Engine, TheSameQuestionIsAskedOnce) {
  world.add_server("192.0.2.1", Temper::good);
  std::vector<Asked *> same;
  for (int i = 0; i < 5; ++i)
    same.push_back(&questions.ask("listed-1.list.test"));
  Asked &shouted = questions.ask("LISTED-1.list.test");
  Asked &recursive = questions.ask("listed-1.list.test", {}, DNS_RCRS);
  Asked &elsewhere = questions.ask("listed-1.list.test", {"192.0.2.1"});
  dns_timeouts(world.ctx, dns_tv_infinite, world.now());
  EXPECT_EQ(world.packets_sent, 4U);
  Asked &late = questions.ask("listed-1.list.test");
  dns_cancel(world.ctx, same[0]->handle);  // the one that was sent: another takes its place
  dns_cancel(world.ctx, same[3]->handle);
  ASSERT_TRUE(world.run());
  EXPECT_EQ(world.packets_sent, 5U);
  for (const Asked *asked : {same[1], same[2], same[4], &shouted, &recursive, &elsewhere, &late})
    EXPECT_TRUE(asked->calls == 1 && asked->status == DNS_E_NOERROR && asked->address != 0);
  EXPECT_EQ(same[0]->calls + same[3]->calls, 0);
}

TEST_F(Engine, AFailureIsRememberedForAFewSeconds) {
  world.add_server("192.0.2.1", Temper::fails);
  for (int i = 0; i < 3; ++i) {
    Asked &asked = questions.ask("listed-1.list.test");
    ASSERT_TRUE(world.run());
    EXPECT_EQ(asked.status, DNS_E_SERVFAIL);
  }
  EXPECT_EQ(world.packets_sent, 1U);
  world.set_temper("192.0.2.1", Temper::good);
  Asked &other = questions.ask("listed-2.list.test");
  ASSERT_TRUE(world.run());
  expect_truth(other);
  world.now_us += dns::Failures::kKeptUs;
  Asked &later = questions.ask("listed-1.list.test");
  ASSERT_TRUE(world.run());
  expect_truth(later);
}

TEST_F(Engine, MoreThanAServerMayHaveUnderWayWaitsForRoom) {
  world.add_server("192.0.2.1", Temper::good);
  for (unsigned i = 0; i < 3 * dns::kPerServer; ++i)
    questions.ask("listed-" + std::to_string(i) + ".list.test");
  dns_timeouts(world.ctx, dns_tv_infinite, world.now());
  EXPECT_EQ(world.packets_sent, dns::kPerServer);
  for (const unsigned first : {0U, 2 * dns::kPerServer})
    for (unsigned i = first; i < first + 100; ++i)
      questions.cancel(questions.all()[i].get());
  ASSERT_TRUE(world.run());
  for (size_t i = 100; i < 2 * dns::kPerServer; ++i)
    expect_truth(*questions.all()[i]);
  EXPECT_EQ(dns_active(world.ctx), 0);
  // Those whose turn has come are cancelled before they leave: the ones behind them must not wait for their answers.
  Questions others(&world);
  for (unsigned i = 0; i < 3 * dns::kPerServer; ++i)
    others.ask("listed-" + std::to_string(i) + ".list.test");
  world.turn();
  for (unsigned i = dns::kPerServer; i < 2 * dns::kPerServer; ++i)
    others.cancel(others.all()[i].get());
  ASSERT_TRUE(world.run(1000));
  expect_truth(*others.all().back());
  for (unsigned i = 0; i < 3 * dns::kPerServer; ++i)
    questions.ask("listed-" + std::to_string(i) + ".list.test");
  dns_timeouts(world.ctx, dns_tv_infinite, world.now());
  dns_close(world.ctx);
  expect_rest(&world);
}

TEST_F(Engine, SocketsGrowWithTheLoadAndAreRenewed) {
  world.add_server("192.0.2.1", Temper::good);
  for (int i = 0; i < 3000; ++i)
    questions.ask("listed-" + std::to_string(i) + ".list.test");
  ASSERT_TRUE(world.run());
  EXPECT_GE(world.sockets_open, 3000 / dns::UdpPool::kInFlightPerSocket);
  dns_ios before[dns::UdpPool::kSocketsMax];
  const int count = dns_sockio(world.ctx, before, dns::UdpPool::kSocketsMax);
  std::set<int> old;
  for (int i = 0; i < count; ++i)
    old.insert(before[i].dnsio_sock);
  world.now_us += dns::UdpPool::kAgeMaxUs;
  questions.ask("listed-1.list.test");
  ASSERT_TRUE(world.run());
  EXPECT_LE(world.sockets_open, dns::UdpPool::kSocketsMin) << "sockets age";
  for (int round = 0; round < 80; ++round) {
    for (int i = 0; i < 3000; ++i)
      questions.ask("listed-" + std::to_string(i) + ".list.test");
    ASSERT_TRUE(world.run());
  }
  EXPECT_LE(world.sockets_open, dns::UdpPool::kSocketsMax);
  dns_ios after[dns::UdpPool::kSocketsMax];
  const int now = dns_sockio(world.ctx, after, dns::UdpPool::kSocketsMax);
  for (int i = 0; i < now; ++i)
    EXPECT_EQ(old.count(after[i].dnsio_sock), 0U) << "a worn socket is still in use";
  for (const auto &asked : questions.all())
    ASSERT_EQ(asked->calls, 1);
}

TEST_F(Engine, StatisticsFollowTheServers) {
  world.add_server("192.0.2.1", Temper::dead);
  world.add_server("192.0.2.2", Temper::good);
  world.weather.delay_us = 20'000;
  const sockaddr_in places[] = {World::address_of("192.0.2.1"), World::address_of("192.0.2.2")};
  const auto *dead = reinterpret_cast<const sockaddr *>(&places[0]);
  const auto *good = reinterpret_cast<const sockaddr *>(&places[1]);
  uint64_t sent = 7, timed_out = 7, used = 7;
  int average = 0, last = 0, check = 0;
  EXPECT_EQ(dns_get_serv_nqsent(world.ctx, good, &sent), DNS_E_INVAL) << "not asked yet";
  for (int i = 0; i < 5; ++i) {
    questions.ask("listed-1.list.test");
    ASSERT_TRUE(world.run());
  }
  // Twice is enough for a server to be set aside.
  for (const int error :
       {dns_get_serv_nqsent(world.ctx, dead, &sent), dns_get_serv_ntimeout(world.ctx, dead, &timed_out),
        dns_get_serv_nused(world.ctx, good, &used), dns_get_serv_avgrtt(world.ctx, good, &average),
        dns_get_serv_lastrtt(world.ctx, good, &last), dns_get_serv_last_check(world.ctx, good, &check)})
    EXPECT_EQ(error, DNS_E_NOERROR);
  EXPECT_TRUE(sent == 2 && timed_out == 2 && used == 5) << sent << " " << timed_out << " " << used;
  EXPECT_TRUE(average == 20 && last == 20) << average << " " << last;
  EXPECT_EQ(check, world.now_us / 1'000'000);
}

// ask_in_turn asks one question after the other, `pause_us` after each answer, and returns how long they took.
std::vector<int64_t> ask_in_turn(World *world, int count, int64_t pause_us, const std::vector<std::string> &own = {}) {
  Questions questions(world);
  std::vector<int64_t> took;
  world->asked.clear();
  for (int i = 0; i < count; ++i) {
    const Asked &asked = questions.ask("listed-" + std::to_string(i) + ".list.test", own);
    EXPECT_TRUE(world->run());
    expect_truth(asked);
    took.push_back(asked.took_us);
    world->now_us += pause_us;
  }
  return took;
}

int64_t median(std::vector<int64_t> of) {
  std::ranges::nth_element(of, of.begin() + static_cast<long>(of.size() / 2));
  return of[of.size() / 2];
}

TEST(Choice, ADeadServerCostsTheMedianNothingAndComesBack) {
  constexpr int kQuestions = 1000;
  const std::vector<std::string> both = {"192.0.2.1", "192.0.2.2"};
  struct Row {
    uint32_t flags;
    bool own;
    uint32_t bsc_size;
    uint32_t ntries;
  };
  for (const Row &row : {Row{0, false, 0, 4}, Row{DNS_SERVRRB, false, 0, 4}, Row{0, true, 0, 4}, Row{0, false, 16, 4},
                         Row{DNS_SERVRRB, false, 0, 2}}) {
    SCOPED_TRACE(testing::Message() << row.flags << " " << row.own << " " << row.bsc_size << " " << row.ntries);
    const std::vector<std::string> own = row.own ? both : std::vector<std::string>{};
    World worlds[2] = {World(1), World(1)};
    std::vector<int64_t> took[2];
    for (const size_t dead : {0U, 1U}) {
      World &world = worlds[dead];
      world.weather.delay_us = 5000;
      set(&world, DNS_OPT_FLAGS, row.flags);
      set(&world, DNS_OPT_BSC_SIZE, row.bsc_size);
      set(&world, DNS_OPT_NTRIES, row.ntries);
      for (const std::string &server : both)
        world.add_server(server, Temper::good);
      if (dead == 1) world.set_temper(both[0], Temper::dead);
      took[dead] = ask_in_turn(&world, kQuestions, 10'000, own);
    }
    World &world = worlds[1];
    EXPECT_LE(median(took[1]), median(took[0]));
    EXPECT_LE(took[1][0], dns::Options{}.timeout_us);
    std::ranges::sort(took[1]);
    EXPECT_LE(took[1][kQuestions - 3], 60'000) << "but for two, a question is held up by a probe at most";
    EXPECT_LE(world.asked[both[0]], 8U) << "probes come ever more rarely";

    (void)ask_in_turn(&world, 60, 5 * dns::kUsPerSecond, own);
    EXPECT_LE(world.asked[both[0]], 8U) << "but go on";
    EXPECT_GE(world.asked[both[0]], 4U);
    world.set_temper(both[0], Temper::good);
    world.delays_us[both[1]] = 2000;
    (void)ask_in_turn(&world, 70, dns::kUsPerSecond, own);
    (void)ask_in_turn(&world, 100, 10'000, own);
    const unsigned share = row.flags == DNS_SERVRRB ? 50 : 95;
    EXPECT_GE(world.asked[both[0]], share) << "it is back";

    // With none left, all are asked.
    world.set_temper(both[0], Temper::dead);
    world.set_temper(both[1], Temper::dead);
    world.asked.clear();
    Questions questions(&world);
    for (int i = 0; i < 6; ++i) {
      EXPECT_EQ(questions.ask("listed-1.list.test", own).calls, 0);
      ASSERT_TRUE(world.run());
    }
    EXPECT_TRUE(world.asked[both[0]] >= 6 && world.asked[both[1]] >= 6);
  }
}

class Best : public Engine {
 protected:
  Best() {
    set(&world, DNS_OPT_BSC_SIZE, 16);
    for (const auto &[server, delay_us] :
         {std::pair{"192.0.2.3", 30'000}, {"192.0.2.2", 5'000}, {"192.0.2.1", 20'000}}) {
      world.add_server(server, Temper::good);
      world.delays_us[server] = delay_us;
    }
  }
  // expect_shares asks a hundred questions and compares how many of them each server gets, give or take the few by
  // which the others are measured.
  void expect_shares(unsigned first, unsigned second, unsigned third, int64_t pause_us = 10'000) {
    (void)ask_in_turn(&world, 100, pause_us);
    EXPECT_NEAR(world.asked["192.0.2.1"], first, 4);
    EXPECT_NEAR(world.asked["192.0.2.2"], second, 4);
    EXPECT_NEAR(world.asked["192.0.2.3"], third, 4);
  }
};

TEST_F(Best, QuestionsGoWhereTheyCostLeast) {
  expect_shares(0, 100, 0);
  world.delays_us["192.0.2.2"] = 40'000;
  expect_shares(0, 100, 0);
  world.now_us += 60 * dns::kUsPerSecond;
  expect_shares(100, 0, 0);
  set(&world, DNS_OPT_BSC_NBEST, 2);
  expect_shares(50, 0, 50);
  set(&world, DNS_OPT_BSC_NBEST, 1);
  set(&world, DNS_OPT_BSC_UPDTIME, 0);
  world.delays_us["192.0.2.2"] = 1000;
  (void)ask_in_turn(&world, 400, dns::kUsPerSecond);
  expect_shares(0, 100, 0);

  // A server that loses every other packet costs its time-outs.
  world.delays_us = {{"192.0.2.1", 20'000}, {"192.0.2.2", 20'000}, {"192.0.2.3", 20'000}};
  (void)ask_in_turn(&world, 400, dns::kUsPerSecond);
  for (int i = 0; i < 100; ++i) {
    world.set_temper("192.0.2.2", i % 2 == 0 ? Temper::dead : Temper::good);
    (void)ask_in_turn(&world, 1, 10'000);
  }
  world.set_temper("192.0.2.2", Temper::good);
  (void)ask_in_turn(&world, 10, 10'000);
  EXPECT_EQ(world.asked["192.0.2.2"], 0U);
}

TEST_F(Best, TheCostZoneMovesTheTraffic) {
  ASSERT_EQ(dns_set_cost_zone(world.ctx, "cost.test"), DNS_E_NOERROR);
  (void)ask_in_turn(&world, 10, 10'000);
  EXPECT_EQ(world.packets_sent, 13U) << "each server's cost is looked up once";
  expect_shares(100, 0, 0);
  world.now_us += 61 * dns::kUsPerSecond;
  world.packets_sent = 0;
  expect_shares(100, 0, 0);
  EXPECT_EQ(world.packets_sent, 100U) << "the costs are good for another four minutes";
  ASSERT_EQ(dns_set_cost_zone(world.ctx, nullptr), DNS_E_NOERROR);
  expect_shares(0, 100, 0);
}

TEST_F(Best, NobodyWaitsForTheCostZone) {
  ASSERT_EQ(dns_set_cost_zone(world.ctx, "cost.test"), DNS_E_NOERROR);
  for (const char *server : {"192.0.2.1", "192.0.2.2", "192.0.2.3"})
    world.set_temper(server, Temper::dead);
  for (const char *server : {"192.0.2.5", "192.0.2.6"})
    world.set_temper(server, Temper::good);
  for (const int64_t took_us : ask_in_turn(&world, 100, 10'000, {"192.0.2.5", "192.0.2.6"}))
    EXPECT_LE(took_us, 1000);
  EXPECT_GE(world.packets_sent, 102U) << "the look-ups are under way";
  EXPECT_EQ(dns_active(world.ctx), 0);
  EXPECT_EQ(dns_add_serv(world.ctx, "192.0.2.4"), 4) << "and in nobody's way";
  questions.ask("listed-1.list.test", {"192.0.2.5", "192.0.2.6"});
  world.turn();
  dns_close(world.ctx);
}

TEST(ResolverFile, ServersAndFiguresWithinTheirBounds) {
  const std::string path = testing::TempDir() + "kavo_resolver_file";
  const std::unique_ptr<FILE, decltype(&fclose)> file(fopen(path.c_str(), "w"), fclose);
  ASSERT_NE(file, nullptr);
  fputs(("; a comment\nnameserver 192.0.2.1\nnameserver 2001:db8::1\nnameserver\nnameserver 192.0.2.256\n#" +
         std::string(2000, 'x') + " nameserver 192.0.2.9\noptions rotate timeout:99 attempts:0 ndots: ndots:x\n" +
         "nameserver\t0.0.0.0")
            .c_str(),
        file.get());
  ASSERT_EQ(fflush(file.get()), 0);
  dns::Options options;
  sockaddr_in servers[dns::kServersMax];
  ASSERT_EQ(dns::read_resolver_file(path.c_str(), &options, servers, dns::kServersMax), 2U);
  EXPECT_TRUE(dns::same_address(servers[0], World::address_of("192.0.2.1")));
  EXPECT_TRUE(dns::same_address(servers[1], World::address_of("127.0.0.1"))) << "where a packet to 0.0.0.0 arrives";
  EXPECT_EQ(options.timeout_us, 30 * dns::kUsPerSecond);
  EXPECT_EQ(options.ntries, 1U);
  EXPECT_EQ(options.ndots, dns::Options{}.ndots);
  EXPECT_EQ(options.flags, unsigned{DNS_SERVRRB});
  EXPECT_EQ(dns::read_resolver_file(path.c_str(), &options, servers, 1), 1U);
  EXPECT_EQ(dns::read_resolver_file("/nowhere/resolv.conf", &options, servers, 1), 0U);
  remove(path.c_str());
}

TEST_F(Engine, ARoundTripIsMeasuredWhereThePacketIsSure) {
  world.add_server("192.0.2.1", Temper::good);
  world.weather.delay_us = 1'600'000;
  const sockaddr_in place = World::address_of("192.0.2.1");
  int last_ms = 7;
  expect_truth((questions.ask("listed-1.list.test", {"192.0.2.1", "192.0.2.1"}), world.run(), *questions.all().back()));
  EXPECT_EQ(world.packets_sent, 2U);
  EXPECT_EQ(dns_get_serv_lastrtt(world.ctx, reinterpret_cast<const sockaddr *>(&place), &last_ms), DNS_E_NOERROR);
  EXPECT_EQ(last_ms, 0) << "the answer may be either packet's";
}

TEST_F(Engine, AServerThatSlowsDownIsSoonWaitedFor) {
  world.weather.delay_us = 1000;
  world.add_server("192.0.2.1", Temper::good);
  for (const int64_t delay_us : {1000, 200'000}) {
    world.weather.delay_us = delay_us;
    world.packets_sent = 0;
    constexpr unsigned kQuestions = 20;
    for (unsigned i = 0; i < kQuestions; ++i) {
      questions.ask("listed-1.list.test");
      ASSERT_TRUE(world.run());
    }
    EXPECT_LE(world.packets_sent, kQuestions + 5);
  }
}

TEST_F(Engine, ADebugFunctionMayCancelAskAndParse) {
  const std::unique_ptr<dns_cache, decltype(&dns_cache_destroy)> cache(dns_cache_init(1 << 20), dns_cache_destroy);
  ASSERT_EQ(dns_set_cache(world.ctx, DNS_CU_ANS, dns_cache_cacher(cache.get())), DNS_E_NOERROR);
  world.weather = {10, 10, 200, 50'000, 20};
  world.add_server("192.0.2.1", Temper::good);
  world.add_server("192.0.2.2", Temper::fails);
  set(&world, DNS_OPT_BSC_SIZE, 16);
  set(&world, DNS_OPT_BSC_UPDTIME, 0);
  ASSERT_EQ(dns_set_cost_zone(world.ctx, "cost.test"), DNS_E_NOERROR);
  questions.meddling = 20;
  dns_set_dbgfn(world.ctx, Questions::told, &questions);
  for (int i = 0; i < 100; ++i)
    questions.ask(some_name(&world));
  ASSERT_TRUE(world.run());
  for (const auto &asked : questions.all()) {
    EXPECT_EQ(asked->calls, asked->cancelled ? 0 : 1);
    if (asked->status == DNS_E_NOERROR) expect_truth(*asked);
  }
}

}  // namespace
