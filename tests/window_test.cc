// window_test.cc - how much a server is sent at once, in a simulated network: crowds, queues, bad lines, limits.
#include <gtest/gtest.h>
#include <queries.h>

#include <algorithm>
#include <string>
#include <utility>

namespace {

using namespace sim;

constexpr char kServer[] = "192.0.2.1";

class Crowd : public Engine {
 protected:
  Crowd() { world.add_server(kServer, Temper::good); }

  // run asks so many queries at once, and returns how long it took until all were over, in microseconds.
  int64_t run(int count) {
    const int64_t begun_us = world.now_us;
    queries.ask_listed(count);
    EXPECT_TRUE(world.run(1'000'000));
    expect_rest(&world);
    return world.now_us - begun_us;
  }
  // failed counts the queries without an answer; every answer must be the truth.
  int failed() {
    int count = 0;
    for (const auto &query : queries.all()) {
      if (query->status == DNS_E_TEMPFAIL)
        ++count;
      else
        expect_truth(*query);
    }
    return count;
  }
  const dns::Server &server() { return *world.ctx->servers[0]; }
};

class Queue : public Crowd, public ::testing::WithParamInterface<int64_t> {};

TEST_P(Queue, IsFilledAndNotOverrun) {
  constexpr int kCount = 20'000, kServiceUs = 200;
  world.capacities[kServer] = {100, kServiceUs};
  world.weather.delay_us = GetParam();
  EXPECT_LT(run(kCount), kCount * kServiceUs * 105 / 100);
  EXPECT_EQ(failed(), 0);
  EXPECT_LT(world.capacities[kServer].dropped, kCount / 100);
  EXPECT_LT(world.asked[kServer], kCount * 102 / 100);
}

INSTANTIATE_TEST_SUITE_P(, Queue, ::testing::Values(100, 20'000, 40'000));

TEST_F(Crowd, ABadLineIsNoOverload) {
  constexpr int kCount = 4000;
  for (const int loss_percent : {3, 15}) {
    world.weather = {loss_percent, 0, 50'000, 100'000};
    world.asked.clear();
    run(kCount);
    EXPECT_LT(failed(), 50);
  }
}

TEST_F(Crowd, ALimitOfQueriesASecondIsFound) {
  constexpr int kCount = 6000;
  world.weather.delay_us = 10'000;
  for (const Temper above : {Temper::dead, Temper::truncates}) {
    world.capacities[kServer] = {UINT32_MAX, 0, 1000, above};
    world.asked.clear();
    run(kCount);
    EXPECT_LT(failed(), kCount / 100);
    EXPECT_LT(world.asked[kServer], 2 * kCount);
  }
}

// What is lost at the host's own sockets says nothing about the server, and costs no attempt.
TEST_F(Crowd, AnswersDroppedAtTheHostsOwnSocketsAreAskedForAgain) {
  world.weather.delay_us = 10'000;
  world.inbox_room = 20;
  run(2000);
  EXPECT_EQ(failed(), 0);
  EXPECT_GT(world.ctx->sockets.drops(), 0U);
  EXPECT_EQ(server().overloads, 0U);
}

// A server that falls silent fails those that wait for it together with those that were sent: they do not wait in turn.
TEST_F(Crowd, WhoeverWaitsForADeadServerIsNotKeptLongerThanOthers) {
  world.set_temper(kServer, Temper::dead);
  EXPECT_LT(run(20 * static_cast<int>(dns::kWindowFirst)), 30'000'000);
  EXPECT_EQ(failed(), 20 * static_cast<int>(dns::kWindowFirst));
  EXPECT_LE(world.asked[kServer], 4 * dns::kWindowFirst);
  Queries others(&world);
  others.meddling = 80;  // callbacks cancel each other's queries, and those that they fail with
  others.ask_listed(300);
  ASSERT_TRUE(world.run(100'000));
  world.set_temper(kServer, Temper::good);
  const int before = failed();
  run(1000);
  EXPECT_EQ(failed(), before);
}

// A server that comes and goes, and one that loses every second query.
TEST_F(Crowd, AServerThatFlapsIsAskedAgain) {
  world.weather.delay_us = 5'000;
  set(&world, DNS_OPT_NTRIES, 10);
  queries.ask_listed(3000);
  for (int turn = 0; world.turn() && turn < 1'000'000; ++turn)
    world.set_temper(kServer, world.now_us / 700'000 % 2 == 0 ? Temper::good : Temper::dead);
  EXPECT_EQ(failed(), 0);
  world.weather.loss_percent = 15;
  run(1000);
  EXPECT_EQ(failed(), 0);
  expect_rest(&world);
}

TEST_F(Crowd, ARateIsKept) {
  set(&world, DNS_OPT_RATE, 100);
  world.capacities[kServer].per_second = INT32_MAX;
  const int64_t took_us = run(500);
  EXPECT_EQ(failed(), 0);
  EXPECT_TRUE(took_us > 4'900'000 && took_us < 5'100'000) << took_us;
  set(&world, DNS_OPT_RATE, 0);
  set(&world, DNS_OPT_WINDOW, 1);
  world.weather.delay_us = 10'000;
  EXPECT_GE(run(50), 500'000) << "one at a time";
}

}  // namespace
