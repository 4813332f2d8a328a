// options_test.cc - what the settings of a context change, as seen by servers that the test itself plays: what their
// queries carry, whom they go to, whose answers are believed. Nothing here waits for a timeout: what must not be
// believed comes first, and what is right after it by the same road.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <kavo.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <stdexcept>
#include <string>
#include <vector>

#include <host_test.h>

namespace {

using namespace testbed;

// Query is a query as it came, and where from.
struct Query {
  std::string packet;
  sockaddr_in from{};

  [[nodiscard]] size_t question_end() const { return packet.find('\0', DNS_HSIZE) + 5; }
  // cookie_size is that of the COOKIE option (RFC 7873), which is the only option that queries have; 0 without one.
  [[nodiscard]] size_t cookie_size() const {
    constexpr size_t kOptHead = 11, kOptionHead = 4;
    constexpr char kCookie = 10;
    const std::string options = packet.substr(question_end() + kOptHead);
    return options.size() > kOptionHead && options[1] == kCookie ? options.size() - kOptionHead : 0;
  }
};

// StandIn is one UDP socket of the test, on an address of 127.0.0.0/8 and a port that the system chose.
class StandIn {
 public:
  explicit StandIn(const char *address = "127.0.0.1") : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in own{};
    own.sin_family = AF_INET;
    inet_pton(AF_INET, address, &own.sin_addr);
    socklen_t size = sizeof own;
    if (bind(fd_, reinterpret_cast<sockaddr *>(&own), size) != 0 ||
        getsockname(fd_, reinterpret_cast<sockaddr *>(&own), &size) != 0)
      throw std::runtime_error(address);
    port_ = ntohs(own.sin_port);
  }
  ~StandIn() { close(fd_); }
  StandIn(const StandIn &) = delete;
  StandIn &operator=(const StandIn &) = delete;

  [[nodiscard]] uint16_t port() const { return port_; }
  [[nodiscard]] pollfd watched() const { return {fd_, POLLIN, 0}; }

  [[nodiscard]] Query receive() const {
    Query query{std::string(4096, '\0'), {}};
    pollfd wait = watched();
    socklen_t size = sizeof query.from;
    const ssize_t got = poll(&wait, 1, kLongMs) == 1 ? recvfrom(fd_, query.packet.data(), query.packet.size(), 0,
                                                                reinterpret_cast<sockaddr *>(&query.from), &size)
                                                     : -1;
    if (got < DNS_HSIZE) throw std::runtime_error("no query came");
    query.packet.resize(static_cast<size_t>(got));
    return query;
  }

  // answer sends the address 127.0.0.`octet` as the answer to a query that some server has received; deny sends that
  // there is no such name, and not for how long.
  void answer(const Query &query, char octet) const {
    using namespace std::string_literals;
    reply(query, 0, "\xc0\x0c\0\1\0\1\0\0\1\0\0\4\x7f\0\0"s + octet);
  }
  void deny(const Query &query) const { reply(query, 3, ""); }

 private:
  void reply(const Query &query, char rcode, const std::string &record) const {
    std::string packet = query.packet.substr(0, query.question_end()) + record;
    packet[2] = static_cast<char>(0x84);
    packet[3] = rcode;
    packet[7] = record.empty() ? 0 : 1;
    packet[11] = 0;
    EXPECT_EQ(sendto(fd_, packet.data(), packet.size(), 0, reinterpret_cast<const sockaddr *>(&query.from),
                     sizeof query.from),
              static_cast<ssize_t>(packet.size()));
  }

  int fd_;
  uint16_t port_ = 0;
};

using OptionsTest = HostTest;

// the_answer waits for a node's outcome.
std::string the_answer(KAVO kavo, const Node &node) {
  EXPECT_EQ(node.wait(KAVOWT_FULL), KAVOE_OK);
  const std::vector<std::string> texts = in_place(kavo, node);
  return texts.size() == 1 ? texts[0] : "not one answer";
}

TEST_F(OptionsTest, OnlyExpectedStrangersAreBelieved) {
  const StandIn server, expected("127.0.0.9"), stranger("127.0.0.8");
  Host host;
  host.server(server.port()).patient();
  // Whom of the two the host believes: the stranger, who is faster, or its server.
  const auto believed = [&](const StandIn &other) {
    host.open();
    const Node node(host, KAVOT_DNS_A, "who.example");
    const Query query = server.receive();
    other.answer(query, 66);
    server.answer(query, 2);
    const std::string answer = the_answer(host, node);
    EXPECT_EQ(kavo_close(host), KAVOE_OK);
    return answer;
  };
  EXPECT_EQ(believed(expected), "127.0.0.2") << "a fresh context expects nobody";
  const in_addr address{htonl(INADDR_LOOPBACK + 8)};
  ASSERT_EQ(kavo_add_expserv(host, &address), 0);
  EXPECT_EQ(believed(expected), "127.0.0.66");
  EXPECT_EQ(believed(stranger), "127.0.0.2");
  ASSERT_EQ(kavo_add_expserv(host, nullptr), 0);
  EXPECT_EQ(believed(expected), "127.0.0.2");
}

// Cookies and the rotation of servers are bits of one word of the engine's.
TEST_F(OptionsTest, CookiesAndRotationAreSwitchedEachAlone) {
  const std::array<StandIn, 2> servers;
  Host host;
  host.server(servers[0].port()).server(servers[1].port()).patient();
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
      std::array<pollfd, 2> wait{servers[0].watched(), servers[1].watched()};
      EXPECT_GT(poll(wait.data(), wait.size(), kLongMs), 0);
      asked.push_back(wait[0].revents != 0 ? 0 : 1);
      const Query query = servers[asked.back()].receive();
      cookies.push_back(query.cookie_size());
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

TEST_F(OptionsTest, DenialsThatSayNotForHowLongAreKeptForTheNegativeTtl) {
  const StandIn server;
  Host host(8, 1 << 16);
  host.server(server.port()).patient();
  // Whether a denial is found in the cache when the name is asked for again.
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

}  // namespace
