// nodes_test - query nodes as host threads hold them: how waits end and run out, how nodes are shared, what a full
// table does, how sync nodes signal, and how a node fails. Questions that must stay open go to a list zone that is dead
// on request.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <host_test.h>
#include <kavo.h>
#include <packet.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace testbed;

using NodesTest = LiveAndDeadTest;

// A context whose list questions about addresses stay open until it is closed.
class PendingTest : public NodesTest {
 protected:
  PendingTest() { host_.server(server_.port()).zone(KAVOT_BL_IP, "dead.list").long_timeout(); }
  Host host_{4};
};

TEST_F(PendingTest, WaitsRunOutAndLeaveTheNodeAsItWas) {
  host_.open();
  Node node(host_, KAVOT_BL_IP, "192.0.2.1");
  EXPECT_EQ(node.wait(KAVOWT_NONE), KAVOE_OK);
  for (const KAVO_WAIT_LEVEL level : {KAVOWT_DCACHE, KAVOWT_FIRST, KAVOWT_FULL})
    EXPECT_EQ(node.wait(level, kShortMs), KAVOE_TIMEOUT) << level;
  EXPECT_EQ(node.wait(KAVOWT_FULL, UINT_MAX - 1), KAVOE_TIMEOUT) << "that moment has passed";
  Answers answers;
  EXPECT_EQ(answers.copy(host_, node), KAVOE_NODATA);
  EXPECT_EQ(answers.query(host_, KAVOT_BL_IP, address_bytes("192.0.2.2"), 0, kShortMs), KAVOE_TIMEOUT);
  EXPECT_EQ(answers.query(host_, KAVOT_BL_IP, address_bytes("192.0.2.2"), 0, kLongMs, KAVOWT_NONE), KAVOE_NODATA);
  ASSERT_EQ(kavo_close(host_), KAVOE_OK);
  EXPECT_EQ(kavo_nactive(host_), 1u) << "neither call leaves a node held";
}

TEST_F(NodesTest, ALookIntoTheCacheEndsTheWaitForItAndNoMore) {
  Host host(4, 1 << 16);
  host.server(server_.port()).zone(KAVOT_BL_IP, "dead.list").long_timeout().open();
  const Node node(host, KAVOT_BL_IP, "192.0.2.1");
  for (const KAVO_WAIT_LEVEL level : {KAVOWT_CACHE, KAVOWT_NONE})
    EXPECT_EQ(node.wait(level), KAVOE_OK) << level;
  for (const KAVO_WAIT_LEVEL level : {KAVOWT_DCACHE, KAVOWT_FIRST})
    EXPECT_EQ(node.wait(level, kShortMs), KAVOE_TIMEOUT) << level;
}

TEST_F(PendingTest, SyncNodesSignalOneWaitEach) {
  host_.open();
  Node pending(host_, KAVOT_BL_IP, "192.0.2.1");
  Node bell(host_), whistle(host_);
  ASSERT_NE(static_cast<KAVO_QUERY_NODE>(bell), static_cast<KAVO_QUERY_NODE>(whistle));
  EXPECT_EQ(kavo_node_type(host_, bell), KAVOT_SYNC);
  EXPECT_EQ(bell.wait(KAVOWT_NONE, kShortMs), KAVOE_TIMEOUT) << "an armed sync node satisfies no level";

  ASSERT_EQ(kavo_signal_syncnode(host_, bell), KAVOE_OK);
  ASSERT_EQ(kavo_signal_syncnode(host_, bell), KAVOE_OK) << "a second signal adds nothing";
  EXPECT_EQ(bell.wait(KAVOWT_FULL), KAVOE_OK) << "a signal stays until a wait takes it";
  EXPECT_EQ(bell.wait(KAVOWT_FULL, kShortMs), KAVOE_TIMEOUT);

  // Among questions: the signal cuts the wait short and says so.
  KAVO_QUERY_NODE both[]{pending, bell};
  KAVO_QUERY_NODE resolved = nullptr;
  std::thread ringer([this, &bell] { EXPECT_EQ(kavo_signal_syncnode(host_, bell), KAVOE_OK); });
  EXPECT_EQ(kavo_wait_multiple_nodes(host_, both, 2, KAVOWT_FULL, 0, Deadline(kLongMs), &resolved), KAVOE_OK);
  ringer.join();
  EXPECT_EQ(resolved, static_cast<KAVO_QUERY_NODE>(bell));
  EXPECT_EQ(bell.wait(KAVOWT_FULL, kShortMs), KAVOE_TIMEOUT);

  EXPECT_EQ(kavo_signal_syncnode(host_, pending), KAVOE_BADPAR);
  Answers answers;
  EXPECT_EQ(answers.copy(host_, bell), KAVOE_FAIL);
  std::array<unsigned char, DNS_MAXDN> dn;
  EXPECT_EQ(kavo_node_qdn(host_, bell, dn.data(), dn.size(), nullptr), KAVOE_BADPAR);
}

TEST_F(PendingTest, OneSignalReleasesOneOfTwoWaiters) {
  host_.open();
  Node bell(host_);
  std::atomic<int> released{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 2; ++i) {
    waiters.emplace_back([&bell, &released] {
      EXPECT_EQ(bell.wait(KAVOWT_FULL), KAVOE_OK);
      ++released;
    });
  }
  const auto released_after = [&released](int count) {
    for (unsigned waited = 0; waited < kLongMs && released < count; ++waited)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(kShortMs));
    return released.load();
  };
  ASSERT_EQ(kavo_signal_syncnode(host_, bell), KAVOE_OK);
  EXPECT_EQ(released_after(1), 1);
  ASSERT_EQ(kavo_signal_syncnode(host_, bell), KAVOE_OK);
  EXPECT_EQ(released_after(2), 2);
  for (std::thread &waiter : waiters)
    waiter.join();
}

// A list of the host's own, which the library reads node by node.
struct HostList {
  std::vector<KAVO_QUERY_NODE> nodes;
  unsigned claimed = 2;  // what count() says
  size_t at = 0;
  std::atomic<size_t> shown = SIZE_MAX;  // at most so many nodes are visible

  static HostList &of(void *list) { return *static_cast<HostList *>(list); }
  KAVO_NODELIST_ITERATOR iterator() {
    return {this, [](void *list) { return of(list).claimed; }, [](void *list) { of(list).at = 0; },
            [](void *list) { return ++of(list).at < of(list).size() ? 1 : 0; },
            [](void *list) { return of(list).at < of(list).size() ? of(list).nodes[of(list).at] : nullptr; }};
  }
  [[nodiscard]] size_t size() const { return std::min(nodes.size(), shown.load()); }
};

TEST_F(PendingTest, ArrayWaitTakesEverySignalAListWaitOne) {
  host_.open();
  Node bell(host_), whistle(host_);
  const auto signal_both = [&] {
    return kavo_signal_syncnode(host_, bell) == KAVOE_OK && kavo_signal_syncnode(host_, whistle) == KAVOE_OK;
  };
  HostList list{{bell, whistle}};
  KAVO_NODELIST_ITERATOR iterator = list.iterator();

  ASSERT_TRUE(signal_both());
  EXPECT_EQ(kavo_wait_nodelist(host_, &iterator, KAVOWT_FULL, 0, Deadline(kLongMs)), KAVOE_OK);
  EXPECT_EQ(bell.wait(KAVOWT_FULL, kShortMs), KAVOE_TIMEOUT);
  EXPECT_EQ(whistle.wait(KAVOWT_FULL, kShortMs), KAVOE_OK) << "the second keeps its signal";

  ASSERT_TRUE(signal_both());
  KAVO_QUERY_NODE resolved = nullptr;
  EXPECT_EQ(kavo_wait_multiple_nodes(host_, list.nodes.data(), 2, KAVOWT_FULL, 0, Deadline(kLongMs), &resolved),
            KAVOE_OK);
  EXPECT_EQ(resolved, list.nodes[0]);
  EXPECT_EQ(bell.wait(KAVOWT_FULL, kShortMs), KAVOE_TIMEOUT);
  EXPECT_EQ(whistle.wait(KAVOWT_FULL, kShortMs), KAVOE_TIMEOUT);

  ASSERT_TRUE(signal_both());
  EXPECT_EQ(kavo_wait_nodelist(host_, &iterator, KAVOWT_FULL, 1, Deadline(kLongMs)), KAVOE_OK);
  EXPECT_EQ(whistle.wait(KAVOWT_FULL, kShortMs), KAVOE_TIMEOUT);
  ASSERT_EQ(kavo_signal_syncnode(host_, bell), KAVOE_OK);
  EXPECT_EQ(kavo_wait_nodelist(host_, &iterator, KAVOWT_FULL, 1, Deadline(kShortMs)), KAVOE_TIMEOUT) << "all means all";

  ASSERT_TRUE(signal_both());
  list.claimed = 3;
  EXPECT_EQ(kavo_wait_nodelist(host_, &iterator, KAVOWT_FULL, 1, Deadline(kShortMs)), KAVOE_TIMEOUT) << "two of three";
  HostList none{{}};
  KAVO_NODELIST_ITERATOR nothing = none.iterator();
  EXPECT_EQ(kavo_wait_nodelist(host_, &nothing, KAVOWT_FULL, 0, Deadline(kShortMs)), KAVOE_TIMEOUT);

  list.claimed = 0;
  EXPECT_EQ(kavo_wait_nodelist(host_, &iterator, KAVOWT_FULL, 0, Deadline(kLongMs)), KAVOE_BADPAR);
  iterator.advance = nullptr;
  list.claimed = 2;
  EXPECT_EQ(kavo_wait_nodelist(host_, &iterator, KAVOWT_FULL, 0, Deadline(kLongMs)), KAVOE_BADPAR);
  KAVO_QUERY_NODE holed[]{bell, nullptr};
  EXPECT_EQ(kavo_wait_multiple_nodes(host_, holed, 2, KAVOWT_FULL, 1, Deadline(kLongMs), nullptr), KAVOE_BADPAR);
}

TEST_F(PendingTest, AListWaitEndsWhateverNodeOfTheListEndsIt) {
  host_.open();
  Node bell(host_), whistle(host_), horn(host_);
  // One list has more nodes than it counts, and the last is never signalled; the other grows during the wait.
  HostList surplus, growing;
  surplus.nodes = growing.nodes = {bell, whistle, horn};
  growing.shown = 1;
  KAVO_NODELIST_ITERATOR two_of_three = surplus.iterator(), any = growing.iterator();
  const auto wait = [this](KAVO_NODELIST_ITERATOR *list, int full) {
    EXPECT_EQ(kavo_wait_nodelist(host_, list, KAVOWT_FULL, full, Deadline(kLongMs)), KAVOE_OK);
  };
  // Time for the waiters to sleep; a waiter that comes later finds its node signalled.
  const auto later = [] { std::this_thread::sleep_for(std::chrono::milliseconds(kShortMs)); };
  std::thread all_waiter(wait, &two_of_three, 1);
  later();
  for (KAVO_QUERY_NODE node : {surplus.nodes[0], surplus.nodes[1]})
    EXPECT_EQ(kavo_signal_syncnode(host_, node), KAVOE_OK);
  all_waiter.join();
  std::thread any_waiter(wait, &any, 0);
  later();
  growing.shown = 3;
  EXPECT_EQ(kavo_signal_syncnode(host_, horn), KAVOE_OK);
  any_waiter.join();
}

TEST_F(PendingTest, OnlyAHoldOfTheCallersOwnIsDropped) {
  host_.open();
  KAVO_QUERY_NODE node = nullptr;
  ASSERT_EQ(kavo_subscribe_node_p(host_, KAVOT_BL_IP, "192.0.2.1", 0, nullptr, &node), KAVOE_OK);
  ASSERT_EQ(kavo_wait_node(host_, node, KAVOWT_NONE, Deadline(kLongMs)), KAVOE_OK);
  EXPECT_EQ(kavo_unsubscribe_node(host_, node), KAVOE_OK);
  EXPECT_EQ(kavo_unsubscribe_node(host_, node), KAVOE_BADPAR) << "the one that is left is the server thread's";
  EXPECT_EQ(kavo_nactive(host_), 1u);
  Node again(host_, KAVOT_BL_IP, "192.0.2.1");
  EXPECT_EQ(static_cast<KAVO_QUERY_NODE>(again), node) << "it is still the same node";
}

TEST_F(NodesTest, FullTableMakesOthersWaitUntilTheirDeadline) {
  Host host(1);
  host.server(server_.port()).zone(KAVOT_BL_IP, "live.list").open();
  Node first(host, KAVOT_BL_IP, "192.0.2.1");
  ASSERT_EQ(first.wait(KAVOWT_FULL), KAVOE_OK);
  KAVO_QUERY_NODE other = nullptr;
  EXPECT_EQ(kavo_subscribe_node_p(host, KAVOT_BL_IP, "192.0.2.2", 0, Deadline(kShortMs), &other), KAVOE_TIMEOUT);
  EXPECT_EQ(kavo_subscribe_syncnode(host, Deadline(kShortMs), &other), KAVOE_TIMEOUT);
  EXPECT_EQ(kavo_nactive(host), 1u);
  Node same(host, KAVOT_BL_IP, "192.0.2.1");
  EXPECT_EQ(static_cast<KAVO_QUERY_NODE>(same), static_cast<KAVO_QUERY_NODE>(first)) << "joining needs no room";

  std::atomic<bool> in{false};
  std::thread waiter([&host, &in] {
    KAVO_QUERY_NODE node = nullptr;
    EXPECT_EQ(kavo_subscribe_node_p(host, KAVOT_BL_IP, "192.0.2.2", 0, nullptr, &node), KAVOE_OK);
    in = true;
    EXPECT_EQ(kavo_unsubscribe_node(host, node), KAVOE_OK);
  });
  first.drop();
  std::this_thread::sleep_for(std::chrono::milliseconds(kShortMs));
  EXPECT_FALSE(in) << "one hold is left";
  same.drop();
  waiter.join();
}

// The line of statistics counts the subscriptions that joined a node, found none free, or gave up waiting for one.
TEST_F(PendingTest, WhatBecameOfSubscriptionsIsCounted) {
  std::string lines;
  kavo_set_log_cb(
      [](int, const char *line, void *text) {
        if (strstr(line, "table stat") != nullptr) *static_cast<std::string *>(text) += line;
      },
      &lines);
  host_.open();
  const Node one(host_, KAVOT_BL_IP, "192.0.2.1"), joined(host_, KAVOT_BL_IP, "192.0.2.1"), bell(host_), whistle(host_);
  Node horn(host_);
  KAVO_QUERY_NODE none = nullptr;
  for (int i = 0; i < 4; ++i)
    EXPECT_EQ(kavo_subscribe_syncnode(host_, Deadline(0), &none), KAVOE_TIMEOUT);
  horn.drop();
  Node(host_).drop();
  EXPECT_EQ(lines, "") << "ten are too few";
  Node(host_).drop();
  EXPECT_NE(lines.find("motion 11, overflow 4, reused 1, dropped 4"), std::string::npos) << lines;
  kavo_set_log_cb(nullptr, nullptr);
}

TEST_F(NodesTest, TwoThreadsThatWaitForRoomWithOneQuestionTakeOnePlace) {
  Host host(2);
  host.server(server_.port()).zone(KAVOT_BL_IP, "live.list").open();
  Node first(host), second(host);
  std::array<KAVO_QUERY_NODE, 2> nodes{};
  std::vector<std::jthread> threads;
  for (KAVO_QUERY_NODE &node : nodes) {
    threads.emplace_back([&host, &node] {
      EXPECT_EQ(kavo_subscribe_node_p(host, KAVOT_BL_IP, "192.0.2.1", 0, nullptr, &node), KAVOE_OK);
    });
  }
  // Time for both to wait for room; a thread that comes later joins at once.
  std::this_thread::sleep_for(std::chrono::milliseconds(kShortMs));
  first.drop();
  second.drop();
  threads.clear();
  EXPECT_EQ(nodes[0], nodes[1]);
  EXPECT_EQ(kavo_nactive(host), 1u);
  Node other(host);  // finds the second place free
  for (KAVO_QUERY_NODE node : nodes)
    EXPECT_EQ(kavo_unsubscribe_node(host, node), KAVOE_OK);
}

TEST_F(NodesTest, SameQuestionSharesItsNode) {
  Host host;
  host.server(server_.port()).zone(KAVOT_BL_DOM, "dead.list").long_timeout().open();
  Node plain(host, KAVOT_BL_DOM, "Mail.Example.ORG"), lower(host, KAVOT_BL_DOM, "mail.example.org");
  Node packet(host, KAVOT_BL_DOM, "mail.example.org", KAVOQF_PKT);
  Node recursive(host, KAVOT_BL_DOM, "mail.example.org", KAVOQF_RECURSIVE);
  Node high(host, KAVOT_BL_DOM, "mail.example.org", 0xffff0000u);
  EXPECT_EQ((std::set<KAVO_QUERY_NODE>{plain, packet, recursive}.size()), 3u);
  EXPECT_EQ((std::set<KAVO_QUERY_NODE>{plain, lower, high}.size()), 1u) << "the high bits are the library's own";
  EXPECT_EQ(kavo_nactive(host), 3u);

  const Bytes name = testbed::dn("mail.example.org");
  std::array<sockaddr_in, KAVO_MAX_SERV + 1> servers;
  servers.fill(loopback(server_.port()));
  servers[1].sin_addr.s_addr = htonl(INADDR_LOOPBACK + 1);
  const auto *list = reinterpret_cast<const sockaddr *>(servers.data());
  const auto subscribe = [&](const sockaddr *serv, unsigned count, unsigned flags, KAVO_QUERY_NODE *node) {
    return kavo_subscribe_node_serv_ext(host, KAVOT_BL_DOM, name.data(), serv, count, flags, nullptr, node);
  };
  std::array<KAVO_QUERY_NODE, 8> nodes{};
  EXPECT_EQ(subscribe(list, 2, 0, &nodes[0]), KAVOE_OK);
  EXPECT_EQ(subscribe(list, 2, KAVOQF_RECURSIVE, &nodes[1]), KAVOE_OK);
  std::swap(servers[0], servers[1]);
  EXPECT_EQ(subscribe(list, 2, 0, &nodes[2]), KAVOE_OK);
  EXPECT_EQ(subscribe(list, KAVO_MAX_SERV, 0, &nodes[3]), KAVOE_OK);
  EXPECT_EQ(kavo_wait_node(host, nodes[3], KAVOWT_NONE, Deadline(kLongMs)), KAVOE_OK);
  EXPECT_EQ(subscribe(nullptr, 2, 0, &nodes[4]), KAVOE_OK);
  EXPECT_EQ(kavo_subscribe_node_dcache(host, KAVOT_BL_DOM, name.data(), list, nullptr, &nodes[5]), KAVOE_OK);
  EXPECT_EQ(subscribe(list, 0, KAVOQF_RECURSIVE, &nodes[7]), KAVOE_OK);
  EXPECT_EQ(nodes[7], static_cast<KAVO_QUERY_NODE>(recursive)) << "nor by their number";
  EXPECT_EQ(nodes[0], nodes[1]) << "servers of its own are never asked for recursion";
  EXPECT_NE(nodes[0], nodes[2]) << "the order of the servers counts";
  EXPECT_EQ(nodes[4], static_cast<KAVO_QUERY_NODE>(plain)) << "no array, no servers";
  EXPECT_EQ(std::set<KAVO_QUERY_NODE>(nodes.begin(), nodes.begin() + 6).size(), 5u);
  KAVO_QUERY_NODE refused = nullptr;
  EXPECT_EQ(subscribe(list, KAVO_MAX_SERV + 1, 0, &refused), KAVOE_BADPAR);
  servers[1].sin_family = AF_INET6;
  EXPECT_EQ(subscribe(list, 3, 0, &refused), KAVOE_BADPAR);
  KAVO_QUERY_NODE &again = nodes[6];
  EXPECT_EQ(kavo_subscribe_node_dcache_ext(host, KAVOT_BL_DOM, name.data(), list, 0, nullptr, &again), KAVOE_OK);
  EXPECT_EQ(again, nodes[5]);
  for (KAVO_QUERY_NODE node : nodes)
    EXPECT_EQ(kavo_unsubscribe_node(host, node), KAVOE_OK);
  ASSERT_EQ(kavo_close(host), KAVOE_OK) << "which takes back the server thread's own holds";
  EXPECT_EQ(kavo_nactive(host), 3u);
}

// An answer cache of the host's that holds an expired entry for every question; the first digit of the name chooses its
// answer.
struct StaleCache : dns_cacher {
  StaleCache() : dns_cacher{&kOps} {}

  static int get(dns_cacher *, dns_cdata *entry, dns_time) {
    dns_rr rr{};
    unsigned size = sizeof rr.dnsrr_dn;
    EXPECT_EQ(dns_cdata_dn(entry, rr.dnsrr_dn, &size), 0);
    const char kind = static_cast<char>(rr.dnsrr_dn[1]);
    dns_cdata_setttl(entry, -1);
    dns_cdata_setrcode(entry, kind == '1' ? DNS_R_NXDOMAIN : kind == '2' ? DNS_R_SERVFAIL : DNS_R_NOERROR);
    if (kind == '4') add(entry, &rr, DNS_T_CNAME, {1, 'x', 0});
    if (kind == '5') add(entry, &rr, DNS_T_A, {127, 0, 0, 9});
    return 1;
  }
  static void add(dns_cdata *entry, dns_rr *rr, dns_type type, std::vector<unsigned char> data) {
    rr->dnsrr_cls = DNS_C_IN;
    rr->dnsrr_typ = type;
    rr->dnsrr_dsz = static_cast<unsigned>(data.size());
    rr->dnsrr_dptr = data.data();
    rr->dnsrr_dend = data.data() + data.size();
    EXPECT_EQ(dns_cdata_addrr(entry, rr, nullptr), 0);
    dns_cdata_rewind(entry);
  }
  static constexpr dns_cacher_ops kOps = {get, [](dns_cacher *, const dns_cdata *, dns_time) { return 0; },
                                          [](dns_cacher *, const dns_cdata *, dns_time) { return 0; },
                                          [](dns_cacher *, int, void *, unsigned) { return -1; },
                                          [](dns_cacher *, int, const void *, unsigned) { return -1; }};
};

TEST_F(PendingTest, ExpiredEntriesAnswerAsTheyDidWhenFresh) {
  static StaleCache stale;
  ASSERT_EQ(kavo_set_ext_cache(host_, KAVOCT_ANS, &stale), KAVOE_OK);
  host_.open();
  for (const auto &[subject, said] : {std::pair{"192.0.2.1", "NXDOM"},
                                      {"192.0.2.3", "NODATA"},
                                      {"192.0.2.4", "NODATA"},
                                      {"192.0.2.5", "127.0.0.9"}}) {
    Node node(host_, KAVOT_BL_IP, subject);
    ASSERT_EQ(node.wait(KAVOWT_FIRST), KAVOE_OK);
    std::vector<KAVO_ANSWER> all;
    EXPECT_EQ(in_place(host_, node, &all), std::vector<std::string>{said}) << subject;
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].cache_code, KAVOCC_OLD);
    EXPECT_EQ(all[0].zone, 1);
    EXPECT_EQ(node.wait(KAVOWT_FULL, kShortMs), KAVOE_TIMEOUT) << "the question itself continues";
  }
  ASSERT_EQ(kavo_close(host_), KAVOE_OK);
  ASSERT_EQ(kavo_open(host_), KAVOE_OK);
  Node failed(host_, KAVOT_BL_IP, "192.0.2.2");
  EXPECT_EQ(failed.wait(KAVOWT_NONE), KAVOE_OK);
  EXPECT_EQ(failed.wait(KAVOWT_DCACHE, kShortMs), KAVOE_TIMEOUT) << "an expired failure is no answer";
  ASSERT_EQ(kavo_close(host_), KAVOE_OK);
  EXPECT_EQ(kavo_set_ext_cache(host_, KAVOCT_ANS, nullptr), KAVOE_OK);
}

// A name of `size` bytes in wire form, as text.
std::string name_of(size_t size) {
  std::string text;
  for (size_t left = size - 1; left > 0;) {
    size_t label = std::min<size_t>(left - 1, DNS_MAXLABEL);
    if (left - 1 - label == 1) --label;  // a single byte cannot be a label
    text += std::string(text.empty() ? 0 : 1, '.') + std::string(label, 'a');
    left -= label + 1;
  }
  return text;
}

TEST_F(NodesTest, NameThatGrowsTooLongWithItsZoneFailsItsNodeOnly) {
  constexpr size_t kZoneSize = sizeof "\4live\4list";  // in wire form
  Host host;
  host.server(server_.port()).zone(KAVOT_BL_DOM, "live.list").open();
  const size_t longest = DNS_MAXDN + 1 - kZoneSize;
  Answers answers;
  EXPECT_EQ(answers.ask(host, KAVOT_BL_DOM, name_of(longest)), Texts{"NXDOM"});
  for (const size_t size : {longest + 1, size_t{DNS_MAXDN}}) {
    Node node(host, KAVOT_BL_DOM, name_of(size));
    EXPECT_EQ(node.wait(KAVOWT_FULL), KAVOE_OK) << "a failed node ends every wait";
    EXPECT_EQ(answers.copy(host, node), KAVOE_SRV);
    EXPECT_EQ(answers.query(host, KAVOT_BL_DOM, name_of(size)), KAVOE_SRV);
    std::array<unsigned char, DNS_MAXDN> dn;
    unsigned written = 0;
    EXPECT_EQ(kavo_node_qdn(host, node, dn.data(), static_cast<unsigned>(size) - 1, &written), KAVOE_NOMEM);
    EXPECT_EQ(written, size);
    EXPECT_EQ(kavo_node_qdn(host, node, dn.data(), written, &written), KAVOE_OK);
    EXPECT_EQ(kavo_dns_dnlen(dn.data()), size);
  }
  EXPECT_EQ(kavo_nactive(host), 0u);
  EXPECT_EQ(answers.query(host, KAVOT_BL_DOM, "example"), KAVOE_OK) << "the server thread continues";

  // Of several zones, only the zone that makes the name too long fails.
  Host two;
  two.server(server_.port()).zone(KAVOT_BL_DOM, (std::string(40, 'l') + ".list").c_str());
  two.zone(KAVOT_BL_DOM, "live.list").open();
  EXPECT_EQ(answers.ask(two, KAVOT_BL_DOM, name_of(230)), (Texts{"error 6", "NXDOM"}));
}

TEST_F(NodesTest, AZoneThatIsNoNameFailsAlone) {
  const std::string bad = std::string(70, 'x') + ".list";
  Host host;
  host.server(server_.port()).long_timeout();
  for (const char *zone : {"live.list", bad.c_str(), "dead.list"})
    host.zone(KAVOT_BL_IP, zone);
  host.zone(KAVOT_BL_IP_TXT, bad.c_str()).zone(KAVOT_BL_IP_TXT, "live.list");
  host.zone(KAVOT_BL_DOM, "two..dots").zone(KAVOT_BL_DOM, bad.c_str()).open();
  std::vector<KAVO_ANSWER> all;
  {
    Node whole(host, KAVOT_BL_IP_TXT, "192.0.2.1", KAVOQF_PKT), open(host, KAVOT_BL_IP, "192.0.2.1");
    for (const KAVO_WAIT_LEVEL level : {KAVOWT_NONE, KAVOWT_CACHE, KAVOWT_FIRST})
      EXPECT_EQ(open.wait(level), KAVOE_OK) << level;
    EXPECT_EQ(open.wait(KAVOWT_FULL, kShortMs), KAVOE_TIMEOUT);
    ASSERT_EQ(in_place(host, open, &all), (Texts{"127.0.0.2", "error 6"}));
    EXPECT_TRUE(all[1].zone == 2 && all[1].type == KAVOT_BL_IP && all[1].actual_size == 0);
    ASSERT_EQ(whole.wait(KAVOWT_FULL), KAVOE_OK);
    Answers answers;
    ASSERT_EQ(answers.copy(host, whole), KAVOE_OK);
    ASSERT_EQ(answers.size(), 2);
    EXPECT_TRUE(answers[0].err_code == KAVOE_BADPAR && answers[0].zone == 2 && answers[0].type == KAVOT_PKT);
    EXPECT_EQ(answers[1].err_code, KAVOE_NODATA);
    for (const KAVO_WAIT_LEVEL level : {KAVOWT_NONE, KAVOWT_DCACHE, KAVOWT_FULL})
      EXPECT_EQ(answers.query(host, KAVOT_BL_DOM, "example", 0, kLongMs, level), KAVOE_SRV) << "no zone can be asked";
  }
  ASSERT_EQ(kavo_close(host), KAVOE_OK);
  EXPECT_EQ(kavo_nactive(host), 0u);
  EXPECT_EQ(complaints_about("Zone " + bad).size(), 1u) << "once, and not with each question";
}

}  // namespace
