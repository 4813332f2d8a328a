// ipv6_test - servers on ::1, alone and beside those of IPv4: real name servers, asked as a context's servers and as a
// question's own.
#include <gtest/gtest.h>
#include <host_test.h>
#include <kavo.h>
#include <name_daemons.h>
#include <netinet/in.h>
#include <packet.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace {

using namespace testbed;
using Servers = std::vector<sockaddr_storage>;

constexpr int kTexts = 3;  // more than a datagram of 512 bytes holds

class Ipv6Test : public HostTest {
 protected:
  void SetUp() override {
    if (!ipv6_works()) GTEST_SKIP() << "this machine has no ::1";
    HostTest::SetUp();
  }

  static std::unique_ptr<NameDaemon> master(const char *address = "::1") {
    std::string records = "$TTL 300\n@ SOA ns admin 1 3600 600 86400 300\n@ NS ns\nns A 127.0.0.1\nwww A 192.0.2.1\n";
    for (int i = 0; i < kTexts; ++i)
      records += "large TXT \"" + std::to_string(i) + std::string(250, 'x') + "\"\n";
    return start_nsd({{"a.test", records}}, address);
  }
};

// Asked is a question to servers of its own, about an address.
struct Asked {
  Asked(KAVO context, const Servers &servers, const char *name = "www.a.test")
      : kavo(context),
        error(kavo_subscribe_node_serv_ss(context, KAVOT_DNS_A, dn(name).data(), servers.data(),
                                          static_cast<unsigned>(servers.size()), 0, Deadline(kLongMs), &node)) {}
  ~Asked() {
    if (node != nullptr) {
      EXPECT_EQ(kavo_unsubscribe_node(kavo, node), KAVOE_OK);
    }
  }
  Asked(const Asked &) = delete;
  Asked &operator=(const Asked &) = delete;
  [[nodiscard]] Texts answer() const {
    EXPECT_EQ(kavo_wait_node(kavo, node, KAVOWT_FULL, Deadline(kLongMs)), KAVOE_OK);
    return in_place(kavo, node);
  }

  KAVO kavo;
  KAVO_QUERY_NODE node = nullptr;
  KAVO_ERR error;
};

TEST_F(Ipv6Test, ListsRecordsAndLargeSetsAreAnswered) {
  const auto lists = start_rbldnsd({{"a.list", "ip4set", "192.0.2.0/24 :127.0.0.2:\n"}}, "::1");
  Host host;
  host.server(lists->port(), "::1").zone(KAVOT_BL_IP, "a.list").long_timeout().open();
  const time_t before = time(nullptr);
  Answers answers;
  EXPECT_EQ(answers.ask(host, KAVOT_BL_IP, address_bytes("192.0.2.1")), Texts{"127.0.0.2"});
  EXPECT_EQ(answers.ask(host, KAVOT_BL_IP, address_bytes("198.51.100.1")), Texts{"NXDOM"});
  const sockaddr_storage place = socket_address("::1", lists->port());
  const auto *server = reinterpret_cast<const sockaddr *>(&place);
  uint64_t sent = 0, used = 0, timed_out = 7;
  int average = -1, last = -1, checked = -1;
  expect_all(KAVOE_OK, {kavo_get_serv_nqsent(host, server, &sent), kavo_get_serv_nused(host, server, &used),
                        kavo_get_serv_ntimeout(host, server, &timed_out), kavo_get_serv_avgrtt(host, server, &average),
                        kavo_get_serv_lastrtt(host, server, &last), kavo_get_serv_last_check(host, server, &checked)});
  EXPECT_EQ((std::vector<uint64_t>{sent, used, timed_out}), (std::vector<uint64_t>{2, 2, 0}));
  EXPECT_TRUE(average >= 0 && last >= 0 && checked >= before);

  const auto records = master();
  Host other;
  other.option(KAVOOPT_MAX_PACKET, 512).server(records->port(), "::1").open();
  EXPECT_EQ(answers.ask(other, KAVOT_DNS_A, "www.a.test"), Texts{"192.0.2.1"});
  ASSERT_EQ(answers.query(other, KAVOT_DNS_TXT, "large.a.test"), KAVOE_OK);
  ASSERT_EQ(answers[0].err_code, KAVOE_OK);
  EXPECT_EQ(answers[0].rr.rr_txt->dnstxt_nrr, kTexts) << "over TCP";
}

TEST_F(Ipv6Test, AResolverIsAskedForRecursionAndForWhatItHolds) {
  const auto records = master("127.0.0.1");
  const auto resolver = start_unbound({{"a.test", records->port()}}, "::1");
  Host host;
  host.server(resolver->port(), "::1").open();
  EXPECT_EQ(Answers().ask(host, KAVOT_DNS_A, "www.a.test", KAVOQF_RECURSIVE), Texts{"192.0.2.1"});

  Host without_servers;
  without_servers.open();
  const sockaddr_storage cache = socket_address("::1", resolver->port());
  KAVO_QUERY_NODE node = nullptr;
  ASSERT_EQ(kavo_subscribe_node_dcache_ss(without_servers, KAVOT_DNS_A, dn("www.a.test").data(), &cache, 0,
                                          Deadline(kLongMs), &node),
            KAVOE_OK);
  EXPECT_EQ(kavo_wait_node(without_servers, node, KAVOWT_DCACHE, Deadline(kLongMs)), KAVOE_OK);
  EXPECT_EQ(in_place(without_servers, node), Texts{"192.0.2.1"});
  EXPECT_EQ(kavo_unsubscribe_node(without_servers, node), KAVOE_OK);
}

TEST_F(Ipv6Test, AQuestionsOwnServersMayBeOfBothFamilies) {
  const auto six = master(), four = master("127.0.0.1");
  const uint16_t dead = HandServer().port();
  Servers many;
  for (uint16_t port = 1; port < KAVO_MAX_SERV; ++port)
    many.push_back(socket_address("::1", port));
  many.push_back(socket_address("::1", six->port()));
  const Servers lists[] = {{socket_address("127.0.0.1", dead), socket_address("::1", six->port())},
                           {socket_address("::1", dead), socket_address("127.0.0.1", four->port())},
                           {socket_address("::ffff:127.0.0.1", four->port())},
                           {socket_address("::", six->port())},
                           many};
  for (const Servers &servers : lists) {
    SCOPED_TRACE(&servers - lists);
    Host host;
    host.option(KAVOOPT_NTRIES, 2 * KAVO_MAX_SERV).open();
    const Asked asked(host, servers);
    EXPECT_EQ(asked.answer(), Texts{"192.0.2.1"});
  }
}

TEST_F(Ipv6Test, ServersDecideWhichQuestionsShareANode) {
  // None of these ever answers, and none of these interfaces exists.
  const HandServer mute("::1"), mute4;
  const auto at = [&](const char *address, uint32_t scope = 0) {
    sockaddr_storage place = socket_address(address, address[0] == '1' ? mute4.port() : mute.port());
    if (place.ss_family == AF_INET6) reinterpret_cast<sockaddr_in6 *>(&place)->sin6_scope_id = scope;
    return place;
  };
  Host host;
  host.long_timeout().open();
  const Servers four{at("127.0.0.1"), at("127.0.0.1")};
  std::vector<sockaddr> as_before(four.size());
  for (size_t i = 0; i < four.size(); ++i)
    memcpy(&as_before[i], &four[i], sizeof as_before[i]);
  KAVO_QUERY_NODE before = nullptr;
  ASSERT_EQ(kavo_subscribe_node_serv(host, KAVOT_DNS_A, dn("www.a.test").data(), as_before.data(), 2, nullptr, &before),
            KAVOE_OK);
  const Asked same(host, four), six(host, {at("::1")}), scoped(host, {at("::1", 3)});
  EXPECT_EQ(same.node, before);
  EXPECT_EQ(six.node, scoped.node) << "a scope means nothing there";
  const Asked port(host, {socket_address("::1", mute4.port())}), twice(host, {at("::1"), at("::1")}),
      mixed(host, {at("127.0.0.1"), at("::1")}), swapped(host, {at("::1"), at("127.0.0.1")}),
      link(host, {at("fe80::1", 1'000'001)}), other_link(host, {at("fe80::1", 1'000'002)});
  std::string longest;
  for (int i = 0; i < 127; ++i)
    longest += "a.";
  const Servers most(KAVO_MAX_SERV, at("::1"));
  const Asked whole(host, most, longest.c_str()), again(host, most, longest.c_str());
  EXPECT_EQ(whole.node, again.node) << "the longest name, and most servers";
  EXPECT_EQ((std::set<KAVO_QUERY_NODE>{nullptr, before, six.node, port.node, twice.node, mixed.node, swapped.node,
                                       link.node, other_link.node, whole.node})
                .size(),
            10U);
  sockaddr_storage local{};
  local.ss_family = AF_UNIX;
  for (const Servers &bad :
       {Servers{at("::1"), local}, Servers{at("fe80::1")}, Servers(KAVO_MAX_SERV + 1, at("::1")), Servers{{}}})
    EXPECT_EQ(Asked(host, bad).error, KAVOE_BADPAR) << bad.size();
  EXPECT_EQ(kavo_unsubscribe_node(host, before), KAVOE_OK);
}

// The only timeout here is longer than the test.
TEST_F(Ipv6Test, APortWithoutAServerIsNotWaitedFor) {
  const auto four = master("127.0.0.1");
  const uint16_t dead = HandServer("::1").port();
  for (const bool alone : {true, false}) {
    Host host;
    host.server(dead, "::1").long_timeout();
    if (!alone) host.server(four->port());
    host.open();
    Answers answers;
    ASSERT_EQ(answers.query(host, KAVOT_DNS_A, "www.a.test"), KAVOE_OK);
    EXPECT_EQ(answers[0].err_code, alone ? KAVOE_DNS : KAVOE_OK);
  }
}

// A child has a resolver file of its own, where the system permits that.
TEST_F(Ipv6Test, TheSystemsServersMayAllBeOfIpv6) {
  constexpr int kNotPermitted = 77;
  const auto records = master();
  const TempDir directory;
  const std::string file = directory.write("resolv.conf", "nameserver fe80::1\nnameserver ::1\n");
  const pid_t child = fork();
  if (child == 0) {
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0 ||
        mount(file.c_str(), "/etc/resolv.conf", nullptr, MS_BIND, nullptr) != 0)
      _exit(kNotPermitted);
    KAVO kavo = nullptr;
    EXPECT_EQ(kavo_init(&kavo, 8, 0, 0), KAVOE_OK);
    EXPECT_EQ(kavo_set_opt(kavo, KAVOOPT_DNS_PORT, records->port()), KAVOE_OK);
    EXPECT_EQ(kavo_open(kavo), KAVOE_OK);
    EXPECT_EQ(Answers().ask(kavo, KAVOT_DNS_A, "www.a.test"), Texts{"192.0.2.1"});
    EXPECT_EQ(kavo_close(kavo), KAVOE_OK);
    EXPECT_EQ(kavo_free(kavo), KAVOE_OK);
    (void)fflush(nullptr);
    _exit(HasFailure() ? 1 : 0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == kNotPermitted) GTEST_SKIP() << "no resolver file of its own is permitted here";
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
