// choice_test.cc - which server a query goes to in a simulated network, and the timeout of each attempt.
#include <gtest/gtest.h>
#include <queries.h>
#include <reply.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace sim;

// ask_in_turn sends one query after the other, `pause_us` after each answer, and returns how long each took.
std::vector<int64_t> ask_in_turn(World *world, int count, int64_t pause_us, const std::vector<std::string> &own = {}) {
  Queries queries(world);
  std::vector<int64_t> took;
  world->asked.clear();
  for (int i = 0; i < count; ++i) {
    const Query &asked = queries.ask("listed-" + std::to_string(i) + ".list.test", own);
    EXPECT_TRUE(world->run());
    expect_truth(asked);
    took.push_back(asked.took_us);
    world->now_us += pause_us;
  }
  return took;
}

TEST_F(Engine, AProbeThatTurnsToLowerCaseStaysAProbe) {
  world.add_server("192.0.2.1", Temper::dead);
  world.add_server("192.0.2.2", Temper::good);
  ask_in_turn(&world, 3, 2'000'000);
  world.set_temper("192.0.2.1", Temper::lowers_case);
  world.tcp_error = -ECONNREFUSED;
  world.tcp_errors = UINT32_MAX;
  ask_in_turn(&world, 1, 0);
  EXPECT_EQ(world.asked["192.0.2.1"], 2U);
  EXPECT_EQ(world.asked["192.0.2.2"], 0U) << "the probe has found it recovered";
}

int64_t median(std::vector<int64_t> of) {
  std::ranges::nth_element(of, of.begin() + static_cast<long>(of.size() / 2));
  return of[of.size() / 2];
}

TEST(Choice, ADeadServerCostsTheMedianNothingAndRecovers) {
  constexpr int kQueries = 1000;
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
      world.add_servers(both);
      if (dead == 1) world.set_temper(both[0], Temper::dead);
      took[dead] = ask_in_turn(&world, kQueries, 10'000, own);
    }
    World &world = worlds[1];
    EXPECT_LE(median(took[1]), median(took[0]));
    EXPECT_LE(took[1][0], dns::Options{}.timeout_us);
    std::ranges::sort(took[1]);
    EXPECT_LE(took[1][kQueries - 3], 60'000) << "but for two, a query is held up by a probe at most";
    EXPECT_LE(world.asked[both[0]], 8U) << "probes come ever more rarely";

    (void)ask_in_turn(&world, 60, 5 * dns::kUsPerSecond, own);
    EXPECT_LE(world.asked[both[0]], 8U) << "but continue";
    EXPECT_GE(world.asked[both[0]], 4U);
    world.set_temper(both[0], Temper::good);
    world.delays_us[both[1]] = 2000;
    (void)ask_in_turn(&world, 70, dns::kUsPerSecond, own);
    (void)ask_in_turn(&world, 100, 10'000, own);
    const unsigned share = row.flags == DNS_SERVRRB ? 50 : 95;
    EXPECT_GE(world.asked[both[0]], share) << "it has recovered";

    // When every server is marked down, all are asked.
    world.set_temper(both[0], Temper::dead);
    world.set_temper(both[1], Temper::dead);
    world.asked.clear();
    Queries queries(&world);
    for (int i = 0; i < 6; ++i) {
      EXPECT_EQ(queries.ask("listed-1.list.test", own).calls, 0);
      ASSERT_TRUE(world.run());
    }
    EXPECT_TRUE(world.asked[both[0]] >= 6 && world.asked[both[1]] >= 6);
  }
}

TEST_F(Engine, QueriesQueuedAtADyingServerGoToTheNext) {
  world.add_server("192.0.2.1", Temper::dead);
  world.add_server("192.0.2.2", Temper::good);
  const unsigned count = 2 * dns::kWindowFirst;
  queries.ask_listed(count);
  for (const unsigned place : {0U, 1U}) {
    for (int64_t ms = 0; ms < 10; ++ms, world.now_us += dns::kUsPerMs)
      send();
    EXPECT_EQ(world.ctx->servers[place]->under_way, dns::kWindowFirst);
    EXPECT_EQ(world.ctx->servers[1 - place]->under_way, 0U);
    world.now_us += place == 0 ? dns::Options{}.timeout_us / 2 : 0;
  }
  ASSERT_TRUE(world.run());
  queries.expect_truths();
  EXPECT_LT(world.asked["192.0.2.1"], dns::kWindowFirst + 100) << "no query waits there for the next round";
  expect_rest(&world);
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
  // expect_shares sends a hundred queries and compares how many of them each server gets, give or take the few that
  // measure the others.
  void expect_shares(unsigned first, unsigned second, unsigned third, int64_t pause_us = 10'000) {
    (void)ask_in_turn(&world, 100, pause_us);
    EXPECT_NEAR(world.asked["192.0.2.1"], first, 4);
    EXPECT_NEAR(world.asked["192.0.2.2"], second, 4);
    EXPECT_NEAR(world.asked["192.0.2.3"], third, 4);
  }
};

TEST_F(Best, QueriesGoWhereTheyCostLeast) {
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
}

TEST_F(Best, ALossyServerIsPassedOverThoughItIsTheFastest) {
  set(&world, DNS_OPT_BSC_UPDTIME, 0);
  unsigned seen = 0;
  world.script = [&seen](const Bytes &query, const std::string &server) {
    const bool lost = server == "192.0.2.2" && seen++ % 2 == 0;
    return sim::answer_to(query, lost ? Temper::dead : Temper::good);
  };
  (void)ask_in_turn(&world, 40, 10'000);
  (void)ask_in_turn(&world, 60, 10'000);
  EXPECT_LE(world.asked["192.0.2.2"], 10U);
  EXPECT_GE(world.asked["192.0.2.1"], 50U);
}

TEST_F(Best, OthersAreMeasuredNowAndThen) {
  // Of queries submitted together, each unmeasured server gets one, and one server the others.
  queries.ask_listed(9);
  send();
  EXPECT_EQ(world.asked["192.0.2.1"], 1U);
  EXPECT_EQ(world.asked["192.0.2.2"], 1U);
  ASSERT_TRUE(world.run());
  (void)ask_in_turn(&world, 64, 10'000);
  EXPECT_EQ(world.asked["192.0.2.2"], 64U) << "those that were measured a moment ago are left in peace";
  // After a minute the others get one query each, and at most one in sixteen queries measures.
  world.now_us += 61 * dns::kUsPerSecond;
  for (int i = 0; i < 2; ++i) {
    (void)ask_in_turn(&world, 16, 10'000);
    EXPECT_EQ(world.asked["192.0.2.2"], 15U);
  }
  (void)ask_in_turn(&world, 32, 10'000);
  EXPECT_EQ(world.asked["192.0.2.2"], 32U);
}

TEST_F(Best, TheFastestIsAskedAgainOnceItRecovers) {
  expect_shares(0, 100, 0);
  world.set_temper("192.0.2.2", Temper::dead);
  (void)ask_in_turn(&world, 2, 10'000);
  expect_shares(100, 0, 0);
  world.set_temper("192.0.2.2", Temper::good);
  (void)ask_in_turn(&world, 10, dns::kUsPerSecond);
  expect_shares(0, 100, 0);
}

TEST_F(Engine, ServersTakeTheirTurnsInTheOrderOfTheList) {
  const std::vector<std::string> servers = {"192.0.2.1", "192.0.2.2", "192.0.2.3"};
  world.add_servers(servers);
  const auto order = [&] {
    std::string places;
    for (int i = 0; i < 6; ++i) {
      (void)ask_in_turn(&world, 1, 10'000);
      for (const auto &[server, count] : world.asked)
        places += server.back();
    }
    return places;
  };
  EXPECT_EQ(order(), "111111");
  world.set_temper("192.0.2.1", Temper::dead);
  (void)ask_in_turn(&world, 2, 10'000);
  EXPECT_EQ(order(), "222222") << "the next one takes its place";
  world.set_temper("192.0.2.1", Temper::good);
  (void)ask_in_turn(&world, 5, dns::kUsPerSecond);
  EXPECT_EQ(order(), "111111");
  set(&world, DNS_OPT_FLAGS, DNS_SERVRRB);
  const std::string turns = order();
  EXPECT_TRUE(turns == "123123" || turns == "231231" || turns == "312312") << turns;
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
  // A server whose cost record is gone costs nothing, and is asked again.
  world.script = [](const Bytes &query, const std::string &) {
    Bytes answer = sim::answer_to(query, Temper::good);
    std::string name(query.begin(), query.end());
    std::ranges::transform(name, name.begin(), [](char c) { return static_cast<char>(tolower(c)); });
    if (name.find("\4cost\4test") == std::string::npos) return answer;
    answer.resize(query.size());
    answer[3] = DNS_R_NXDOMAIN;
    answer[7] = 0;
    return answer;
  };
  world.now_us += 301 * dns::kUsPerSecond;
  (void)ask_in_turn(&world, 10, 10'000);
  expect_shares(0, 100, 0);
  world.script = nullptr;
  world.now_us += 61 * dns::kUsPerSecond;
  (void)ask_in_turn(&world, 10, 10'000);
  expect_shares(100, 0, 0);
  ASSERT_EQ(dns_set_cost_zone(world.ctx, nullptr), DNS_E_NOERROR);
  expect_shares(0, 100, 0);
}

TEST_F(Engine, AFamilyWithoutARouteCostsNothing) {
  world.add_servers({"2001:db8::1", "2001:db8::2", "192.0.2.3"});
  world.routeless = {dns::Family::ipv6};
  const auto expect_no_cost = [this](unsigned attempts) {
    world.refused = 0;
    for (const int64_t took_us : ask_in_turn(&world, 20, 10'000))
      EXPECT_EQ(took_us, world.weather.delay_us);
    EXPECT_EQ(world.refused, 3 * attempts) << "a refused send is repeated twice";
  };
  expect_no_cost(1);  // one of the family is enough
  expect_no_cost(0);
  world.now_us += dns::kCutOffUs;
  set(&world, DNS_OPT_FLAGS, DNS_SERVRRB);
  expect_no_cost(1);
  world.now_us += dns::kCutOffUs;
  set(&world, DNS_OPT_BSC_SIZE, 16);
  expect_no_cost(1);
  world.routeless.clear();
  world.now_us += dns::kCutOffUs;
  (void)ask_in_turn(&world, 20, 10'000);
  EXPECT_GE(world.asked["2001:db8::1"] + world.asked["2001:db8::2"], 2U);

  // A connection that has no local port says nothing about routes.
  world.set_temper("192.0.2.3", Temper::truncates);
  world.tcp_error = -EADDRNOTAVAIL;
  world.tcp_errors = 1;
  (void)ask_in_turn(&world, 1, 10'000, {"192.0.2.3", "2001:db8::1"});
  (void)ask_in_turn(&world, 1, 10'000, {"192.0.2.3", "2001:db8::1"});
  EXPECT_EQ(world.asked["192.0.2.3"], 1U);

  // A server that cannot be asked is tried where the others fail: its route may be back.
  for (const bool there : {false, true}) {
    const std::string name = there ? "listed-7.list.test" : "listed-8.list.test";
    world.set_temper("192.0.2.3", Temper::fails);
    world.routeless = there ? std::set<dns::Family>{} : std::set{dns::Family::ipv6};
    const Query &asked = run(name, {"192.0.2.3", "2001:db8::1"});
    EXPECT_EQ(asked.status, there ? DNS_E_NOERROR : DNS_E_SERVFAIL);
    EXPECT_EQ(asked.took_us, (there ? 2 : 1) * world.weather.delay_us);
  }

  // Where there is no other family, the query waits for a route a few times.
  Scene alone(7);
  alone.world.add_server("2001:db8::1", Temper::good);
  alone.world.routeless = {dns::Family::ipv6};
  EXPECT_EQ(alone.run("listed-1.list.test").status, DNS_E_TEMPFAIL);
  const Query &late = alone.queries.ask("listed-2.list.test");
  alone.world.turn();
  alone.world.routeless.clear();
  ASSERT_TRUE(alone.world.run());
  expect_truth(late);
}

TEST_F(Engine, TheEstimateDecidesNotTheFamily) {
  set(&world, DNS_OPT_BSC_SIZE, 16);
  const std::vector<std::string> servers = {"192.0.2.9", "2001:db8::9", "2001:db8::1", "192.0.2.1"};
  world.add_servers(servers);
  for (const std::string &quick : servers) {
    for (const std::string &server : servers)
      world.delays_us[server] = server == quick ? 1000 : 20'000;
    (void)ask_in_turn(&world, 300, 1'000'000);
    (void)ask_in_turn(&world, 100, 10'000);
    EXPECT_GE(world.asked[quick], 90U) << quick;
  }
  world.delays_us.clear();
  ASSERT_EQ(dns_set_cost_zone(world.ctx, "cost.test"), DNS_E_NOERROR);
  world.now_us += 400 * dns::kUsPerSecond;
  (void)ask_in_turn(&world, 100, 10'000);
  (void)ask_in_turn(&world, 100, 10'000);
  EXPECT_GE(world.asked["192.0.2.1"] + world.asked["2001:db8::1"], 90U) << "the last nibble costs as the last octet";
}

// Attempts to servers of both families leave from sockets of both, and the query takes answers on either.
TEST_F(Engine, LateAnswersOfEitherFamilyCount) {
  const std::vector<std::string> four = {"192.0.2.1", "192.0.2.2"}, six = {"2001:db8::1", "2001:db8::2"};
  for (const auto &[slow, others] : {std::pair(four, six), std::pair(six, four)}) {
    Scene other(8);
    other.world.add_servers({slow[0], others[0], slow[1], others[1]}, Temper::dead);
    other.world.set_temper(slow[0], Temper::good);
    other.world.delays_us[slow[0]] = 5'000'000;
    const Query &asked = other.resolve("listed-1.list.test");
    EXPECT_EQ(asked.took_us, 5'000'000 + other.world.weather.delay_us) << "the answer to the first attempt";
    EXPECT_GE(other.world.packets_sent, 3U);
    expect_rest(&other.world);
  }
}

TEST_F(Engine, ServersAreToldApartByEveryByteOfTheirAddresses) {
  // What differs is a letter's case, were it one; the port; the interface.
  const std::pair<const char *, const char *> pairs[] = {
      {"2001:db8::41", "2001:db8::61"}, {"2001:db8:41::", "2001:db8:61::"}, {"fe80::1%1", "fe80::1%2"}};
  for (const auto &[failing, good] : pairs) {
    Scene other(9);
    other.world.script = [first = true](const Bytes &query, const std::string &) mutable {
      return sim::answer_to(query, std::exchange(first, false) ? Temper::fails : Temper::good);
    };
    EXPECT_EQ(other.run("listed-1.list.test", {failing}).status, DNS_E_SERVFAIL);
    other.resolve("listed-1.list.test", {good});
    for (const char *place : {failing, good}) {
      uint64_t sent = 0;
      EXPECT_EQ(dns_get_serv_nqsent(other.world.ctx, socket_of(place).generic(), &sent), DNS_E_NOERROR);
      EXPECT_EQ(sent, 1U);
    }
  }
}

TEST_F(Best, NoQueryWaitsForTheCostZone) {
  ASSERT_EQ(dns_set_cost_zone(world.ctx, "cost.test"), DNS_E_NOERROR);
  for (const char *server : {"192.0.2.1", "192.0.2.2", "192.0.2.3"})
    world.set_temper(server, Temper::dead);
  for (const char *server : {"192.0.2.5", "192.0.2.6"})
    world.set_temper(server, Temper::good);
  for (const int64_t took_us : ask_in_turn(&world, 100, 10'000, {"192.0.2.5", "192.0.2.6"}))
    EXPECT_LE(took_us, 1000);
  EXPECT_GE(world.packets_sent, 102U) << "the lookups are under way";
  EXPECT_EQ(dns_active(world.ctx), 0);
  const auto expect_held = [this](unsigned looked_up) {
    EXPECT_EQ(world.ctx->costs.open, looked_up);
    unsigned holders = 0;
    world.ctx->server_table.each([&holders](const dns::Server *server) { holders += server->holders; });
    EXPECT_EQ(holders, world.ctx->nserv + looked_up);
  };
  expect_held(2);
  EXPECT_EQ(dns_add_serv(world.ctx, "192.0.2.4"), 4) << "the lookups do not prevent it";
  expect_held(0);
  queries.ask("listed-1.list.test", {"192.0.2.5", "192.0.2.6"});
  world.turn();
  dns_close(world.ctx);
}

TEST_F(Engine, ARoundTripIsMeasuredWhereThePacketIsSure) {
  world.add_server("192.0.2.1", Temper::good);
  world.weather.delay_us = 1'600'000;
  int last_ms = 7;
  resolve("listed-1.list.test", {"192.0.2.1", "192.0.2.1"});
  EXPECT_EQ(world.packets_sent, 2U);
  EXPECT_EQ(dns_get_serv_lastrtt(world.ctx, socket_of("192.0.2.1").generic(), &last_ms), DNS_E_NOERROR);
  EXPECT_EQ(last_ms, 0) << "the answer may be either packet's";
}

TEST_F(Engine, TheTimeoutFollowsAServerThatSlowsDown) {
  world.weather.delay_us = 1000;
  world.add_server("192.0.2.1", Temper::good);
  for (const int64_t delay_us : {1000, 200'000}) {
    world.weather.delay_us = delay_us;
    world.packets_sent = 0;
    constexpr unsigned kQueries = 20;
    for (unsigned i = 0; i < kQueries; ++i)
      run("listed-1.list.test");
    EXPECT_LE(world.packets_sent, kQueries + 5);
  }
}

TEST_F(Engine, TheLastAttemptWaitsForTheWholeTimeoutWhereNoServerIsLeft) {
  world.weather.delay_us = 1000;
  world.add_server("192.0.2.1", Temper::good);
  run("listed-1.list.test");
  world.set_temper("192.0.2.1", Temper::dead);
  for (const auto &[flags, longest_us] : {std::pair{0U, 751'000}, {unsigned{DNS_RCRS}, 3'351'000}}) {
    Query &asked = run("listed-2.list.test", {}, flags);
    EXPECT_EQ(asked.status, DNS_E_TEMPFAIL);
    EXPECT_TRUE(asked.took_us <= longest_us && asked.took_us >= longest_us - 1000) << "each round doubles the timeout";
  }
}

TEST_F(Best, AllAreAskedBeforeOneIsAskedTwice) {
  world.delays_us["192.0.2.1"] = 40'000;
  (void)ask_in_turn(&world, 10, 10'000);
  set(&world, DNS_OPT_NTRIES, 6);
  std::string places;
  world.script = [&places](const Bytes &, const std::string &server) {
    places += server.back();
    return Bytes{};
  };
  run("listed-1.list.test");
  EXPECT_EQ(places, "231231") << "in the order of their costs";
}

// referral refers to the zone test, with so many servers, from 192.0.2.4 on.
Bytes referral(const Bytes &query, uint8_t servers) {
  auto answer = testbed::Reply(query).ns("test", "ns.test");
  for (uint8_t i = 0; i < servers; ++i)
    answer.glue("ns.test", "192.0.2." + std::to_string(4 + i));
  return answer.bytes;
}

TEST_F(Engine, TheServersOfAZoneAreAskedAsIfTheQueryWereNew) {
  world.add_servers({"192.0.2.1", "192.0.2.2", "192.0.2.3"});
  set(&world, DNS_OPT_NTRIES, 8);
  world.delays_us["192.0.2.5"] = 9000;
  bool lossy = false;
  std::string places;
  int64_t asked_us = 0, waited_us = 0;
  world.script = [&](const Bytes &query, const std::string &server) {
    places += server.back();
    waited_us = world.now_us - std::exchange(asked_us, world.now_us);
    if (server.back() < '4') return lossy && places.size() < 6 ? Bytes{} : referral(query, 2);
    return lossy && server.back() == '4' ? Bytes{} : answer_to(query, Temper::good);
  };
  queries.ask_listed(80);
  ASSERT_TRUE(world.run());
  for (const char *server : {"192.0.2.4", "192.0.2.5"})
    EXPECT_GE(world.asked[server], 20U) << "they share what comes before they are known";
  lossy = true;
  places.clear();
  resolve("listed-1.list.test");
  EXPECT_EQ(places, "12312345");
  EXPECT_LT(waited_us, 60'000);
}

TEST(Choice, AttemptsAfterAProbeCount) {
  for (const bool refers : {true, false}) {
    Scene scene(7);
    World &world = scene.world;
    bool later = false;
    world.add_servers({"192.0.2.1", "192.0.2.2"});
    world.script = [&](const Bytes &query, const std::string &server) {
      if (server == "192.0.2.2" && !later) return answer_to(query, Temper::good);
      return server == "192.0.2.1" && later && refers ? referral(query, 1) : Bytes{};
    };
    (void)ask_in_turn(&world, 2, 2 * dns::kUsPerSecond);
    later = true;
    world.packets_sent = 0;
    EXPECT_EQ(scene.run("listed-1.list.test").status, DNS_E_TEMPFAIL);
    EXPECT_EQ(world.packets_sent, 1 + dns::Options{}.ntries);
  }
}

}  // namespace
