// options_test.cc - the settings of a context, as seen by servers that the test itself plays: what queries carry, which
// server they go to, whose answers are believed. Nothing here waits for a timeout: the answer that must not be believed
// comes first, and the right one after it on the same socket.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <host_test.h>
#include <kavo.h>
#include <packet.h>
#include <poll.h>

#include <array>
#include <chrono>
#include <deque>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace testbed;

// cookie_size returns the size of a query's COOKIE option (RFC 7873), which is the only option that queries have; 0
// without one.
size_t cookie_size(const HandServer::Query &query) {
  constexpr size_t kOptHead = 11, kOptionHead = 4;
  constexpr uint8_t kCookie = 10;
  const size_t at = question_end(query.packet) + kOptHead;
  return query.packet.size() > at + kOptionHead && query.packet[at + 1] == kCookie
             ? query.packet.size() - at - kOptionHead
             : 0;
}

using OptionsTest = HostTest;

// the_answer waits for a node's outcome.
std::string the_answer(KAVO kavo, const Node &node) {
  EXPECT_EQ(node.wait(KAVOWT_FULL), KAVOE_OK);
  const std::vector<std::string> texts = in_place(kavo, node);
  return texts.size() == 1 ? texts[0] : "not one answer";
}

// believed returns the answer that a host believes: another's, which is faster, or its server's.
std::string believed(Host *host, const HandServer &server, const HandServer &other) {
  host->open();
  const Node node(*host, KAVOT_DNS_A, "who.example");
  const HandServer::Query query = server.receive();
  other.answer(query, 66);
  server.answer(query, 2);
  const std::string answer = the_answer(*host, node);
  EXPECT_EQ(kavo_close(*host), KAVOE_OK);
  return answer;
}

TEST_F(OptionsTest, OnlyExpectedStrangersAreBelieved) {
  const HandServer server, expected("127.0.0.9"), stranger("127.0.0.8");
  Host host;
  host.server(server.port()).long_timeout();
  EXPECT_EQ(believed(&host, server, expected), "127.0.0.2") << "a fresh context expects no stranger";
  const in_addr address{htonl(INADDR_LOOPBACK + 8)};
  ASSERT_EQ(kavo_add_expserv(host, &address), 0);
  EXPECT_EQ(believed(&host, server, expected), "127.0.0.66");
  EXPECT_EQ(believed(&host, server, stranger), "127.0.0.2");
  ASSERT_EQ(kavo_add_expserv(host, nullptr), 0);
  EXPECT_EQ(believed(&host, server, expected), "127.0.0.2");
}

TEST_F(OptionsTest, OnlyExpectedStrangersOfIpv6AreBelieved) {
  if (!ipv6_works()) GTEST_SKIP() << "this machine has no ::1";
  const HandServer server("::1"), expected("::1"), stranger("::1");
  Host host;
  host.server(server.port(), "::1").long_timeout();
  const auto expect = [&host](const char *address, uint16_t port) {
    const sockaddr_storage place = socket_address(address, port);
    ASSERT_EQ(kavo_add_expserv_s(host, reinterpret_cast<const sockaddr *>(&place)), KAVOE_OK);
  };
  expect("::2", 0);
  expect("127.0.0.1", 0);
  EXPECT_EQ(believed(&host, server, expected), "127.0.0.2") << "not even from its server's address";
  expect("::1", expected.port());
  EXPECT_EQ(believed(&host, server, expected), "127.0.0.66");
  EXPECT_EQ(believed(&host, server, stranger), "127.0.0.2");
  expect("::1", 0);
  EXPECT_EQ(believed(&host, server, stranger), "127.0.0.66");
  ASSERT_EQ(kavo_add_expserv_s(host, nullptr), KAVOE_OK);
  EXPECT_EQ(believed(&host, server, expected), "127.0.0.2");
}

// Cookies and the rotation of servers are bits of one option of the engine's.
TEST_F(OptionsTest, CookiesAndRotationAreSwitchedEachAlone) {
  const std::array<HandServer, 2> servers;
  Host host;
  host.server(servers[0].port()).server(servers[1].port()).long_timeout();
  struct Seen {
    bool cookies, rotation;
    bool operator==(const Seen &) const = default;
  };
  // What a server sees of two questions, one after the other.
  const auto seen = [&] {
    host.open();
    std::vector<size_t> asked, cookies;
    for (const char *name : {"a.example", "b.example"}) {
      const Node node(host, KAVOT_DNS_A, name);
      std::array<pollfd, 2> wait{{{servers[0].descriptor(), POLLIN, 0}, {servers[1].descriptor(), POLLIN, 0}}};
      EXPECT_GT(poll(wait.data(), wait.size(), kLongMs), 0);
      asked.push_back(wait[0].revents != 0 ? 0 : 1);
      const HandServer::Query query = servers[asked.back()].receive();
      cookies.push_back(cookie_size(query));
      servers[asked.back()].answer(query, 2);
      EXPECT_EQ(the_answer(host, node), "127.0.0.2");
    }
    EXPECT_EQ(kavo_close(host), KAVOE_OK);
    EXPECT_TRUE(cookies[0] == cookies[1] && (cookies[0] == 0 || cookies[0] == 8)) << "a client's cookie, or none";
    return Seen{cookies[0] != 0, asked[0] != asked[1]};
  };
  EXPECT_EQ(seen(), (Seen{false, false})) << "as a context begins";
  ASSERT_EQ(kavo_set_cookies(host, 1), KAVOE_OK);
  EXPECT_EQ(seen(), (Seen{true, false}));
  host.option(KAVOOPT_SERV_RRB, 1);
  EXPECT_EQ(seen(), (Seen{true, true}));
  ASSERT_EQ(kavo_set_cookies(host, 0), KAVOE_OK);
  EXPECT_EQ(seen(), (Seen{false, true}));
  ASSERT_EQ(kavo_set_cookies(host, -1), KAVOE_OK);
  host.option(KAVOOPT_SERV_RRB, 0);
  EXPECT_EQ(seen(), (Seen{true, false}));
}

TEST_F(OptionsTest, NegativeAnswersWithoutSoaAreKeptForTheNegativeTtl) {
  const HandServer server;
  Host host(8, 1 << 16);
  host.server(server.port()).long_timeout();
  // Whether the second question for a name finds its negative answer in the cache.
  const auto kept = [&](const char *name) {
    bool found = false;
    host.open();
    for (int i = 0; i < 2; ++i) {
      const Node node(host, KAVOT_DNS_A, name);
      EXPECT_EQ(node.wait(KAVOWT_CACHE), KAVOE_OK);
      found = !in_place(host, node).empty();
      if (!found) server.deny(server.receive());
      EXPECT_EQ(the_answer(host, node), "NXDOM");
    }
    EXPECT_EQ(kavo_close(host), KAVOE_OK);
    return found;
  };
  EXPECT_FALSE(kept("a.example"));
  const uint32_t none = 0;
  KAVO_CACHE cacher = kavo_get_ext_cache(host, KAVOCT_ANS);
  ASSERT_GE(cacher->dnscr_ops->setopt(cacher, DNS_CROPT_FLAGS, &none, sizeof none), 0);
  host.option(KAVOOPT_NXDOM_TTL, 60);
  EXPECT_TRUE(kept("b.example")) << "though the cache had been told to keep none";
  host.option(KAVOOPT_NXDOM_TTL, 0);
  EXPECT_FALSE(kept("c.example"));
}

TEST_F(OptionsTest, AWindowBoundsTheQueriesUnderWayAndTheOthersWait) {
  constexpr size_t kQuestions = 12;
  for (const size_t window : {size_t{1}, size_t{3}}) {
    SCOPED_TRACE(window);
    const HandServer server;
    const sockaddr_in place = loopback(server.port());
    const auto *address = reinterpret_cast<const sockaddr *>(&place);
    Host host;
    host.server(server.port()).long_timeout().option(KAVOOPT_WINDOW, static_cast<uint32_t>(window)).open();
    std::deque<Node> nodes;
    for (size_t i = 0; i < kQuestions; ++i)
      nodes.emplace_back(host, KAVOT_DNS_A, std::to_string(i) + ".example");
    std::deque<HandServer::Query> held;
    for (size_t seen = 0; seen < kQuestions;) {
      for (; seen < kQuestions && held.size() < window; ++seen)
        held.push_back(server.receive());
      int size = 0, waiting = -1;
      const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(kLongMs);
      // The server may see a query before the context has counted it.
      while ((kavo_get_serv_nwaiting(host, address, &waiting) != KAVOE_OK ||
              waiting != static_cast<int>(kQuestions - seen)) &&
             std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      ASSERT_EQ(waiting, static_cast<int>(kQuestions - seen));
      EXPECT_EQ(kavo_get_serv_window(host, address, &size), KAVOE_OK);
      EXPECT_EQ(size, static_cast<int>(window));
      pollfd early{server.descriptor(), POLLIN, 0};
      ASSERT_EQ(poll(&early, 1, 5), 0) << "one more query than the window has room for";
      server.answer(held.front(), 2);
      held.pop_front();
    }
    for (const HandServer::Query &query : held)
      server.answer(query, 2);
    for (const Node &node : nodes)
      EXPECT_EQ(the_answer(host, node), "127.0.0.2");
    uint64_t overloads = 1, dropped = 1;
    expect_all(KAVOE_OK, {kavo_get_serv_noverload(host, address, &overloads), kavo_get_ndropped(host, &dropped)});
    EXPECT_EQ(overloads + dropped, 0u);
  }
}

TEST_F(OptionsTest, ARateHoldsForRetransmissionsToo) {
  constexpr unsigned kRate = 200, kQuestions = 150, kBurst = 10;
  ListServer server("zone a.list\nlist 192.0.2.0/24\n", {"--fault", "drop=30", "--seed", "7"});
  Host host(kQuestions);
  host.server(server.port()).zone(KAVOT_BL_IP, "a.list").option(KAVOOPT_RATE, kRate);
  host.option(KAVOOPT_TIMEOUT_MSEC, 300).option(KAVOOPT_NTRIES, 50).open();
  const auto begin = std::chrono::steady_clock::now();
  std::deque<Node> nodes;
  for (unsigned i = 0; i < kQuestions; ++i)
    nodes.emplace_back(host, KAVOT_BL_IP, "192.0.2." + std::to_string(i));
  for (const Node &node : nodes)
    EXPECT_EQ(the_answer(host, node), "127.0.0.2");
  const uint64_t received = server.received();
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
  EXPECT_GT(received, kQuestions) << "nothing was sent again";
  EXPECT_LE(static_cast<double>(received), kRate * took.count() + kBurst);
}

}  // namespace
