// exchange_test.cc - what passes between the engine and a server in a simulated network besides the question: EDNS0 and
// TCP, letter case and cookies, and forgers among it.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/questions.h"

namespace {

using namespace sim;

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

}  // namespace
