// runs_test - the end of one run of a context and the beginning of the next, while other threads wait for room, hold
// nodes or configure it; and threads that are cancelled in a call.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <host_test.h>
#include <kavo.h>
#include <pthread.h>
#include <stored_records.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstring>
#include <string>
#include <thread>

namespace {

using namespace testbed;

using RunsTest = LiveAndDeadTest;

TEST_F(RunsTest, AWaitForRoomEndsWithTheRun) {
  Host host(1);
  host.server(server_.port()).zone(KAVOT_BL_IP, "live.list").open();
  Node held(host, KAVOT_BL_IP, "192.0.2.1");
  std::array<KAVO_ERR, 2> results{};
  KAVO_QUERY_NODE none = nullptr, no_bell = nullptr;
  std::thread asker([&] { results[0] = kavo_subscribe_node_p(host, KAVOT_BL_IP, "192.0.2.2", 0, nullptr, &none); });
  std::thread ringer([&] { results[1] = kavo_subscribe_syncnode(host, nullptr, &no_bell); });
  // Time for both to wait for room; a thread that comes too late is refused at once.
  std::this_thread::sleep_for(std::chrono::milliseconds(kShortMs));
  ASSERT_EQ(kavo_close(host), KAVOE_OK);
  held.drop();
  asker.join();
  ringer.join();
  EXPECT_EQ(results, (std::array{KAVOE_SRV, KAVOE_SRV}));
  EXPECT_EQ(kavo_nactive(host), 0u);
  host.open();
  Node next(host, KAVOT_BL_IP, "192.0.2.2");
  EXPECT_EQ(next.wait(KAVOWT_FULL), KAVOE_OK);
}

TEST_F(RunsTest, NodesOfOtherListsAreNotJoined) {
  Host host;
  host.server(server_.port()).zone(KAVOT_BL_IP, "live.list").long_timeout().open();
  Node old(host, KAVOT_BL_IP, "192.0.2.1"), old_bell(host);
  ASSERT_EQ(old.wait(KAVOWT_FULL), KAVOE_OK);
  ASSERT_EQ(kavo_close(host), KAVOE_OK);
  KAVO_QUERY_NODE refused = nullptr;
  EXPECT_EQ(kavo_subscribe_syncnode(host, nullptr, &refused), KAVOE_SRV);
  EXPECT_EQ(kavo_signal_syncnode(host, old_bell), KAVOE_OK);
  host.open();
  EXPECT_EQ(KAVO_QUERY_NODE{Node(host, KAVOT_BL_IP, "192.0.2.1")}, KAVO_QUERY_NODE{old}) << "the lists are the same";
  ASSERT_EQ(kavo_close(host), KAVOE_OK);
  ASSERT_EQ(kavo_zonesmap_init(host), KAVOE_OK);
  host.zone(KAVOT_BL_IP, "dead.list").open();
  EXPECT_EQ(old_bell.wait(KAVOWT_FULL), KAVOE_OK) << "a sync node works on";
  Node fresh(host, KAVOT_BL_IP, "192.0.2.1"), bell(host);
  EXPECT_NE(static_cast<KAVO_QUERY_NODE>(bell), static_cast<KAVO_QUERY_NODE>(old_bell));
  EXPECT_EQ(fresh.wait(KAVOWT_FULL, kShortMs), KAVOE_TIMEOUT) << "the list that is asked now is silent";
  EXPECT_EQ(in_place(host, old), Texts{"127.0.0.2"});
  EXPECT_EQ(kavo_nactive(host), 4u);
}

TEST_F(RunsTest, ConfigurationIsRefusedWhileAContextRunsAndWhileItCloses) {
  const HandServer slow;
  Host host;
  host.server(slow.port()).zone(KAVOT_BL_IP, "slow.list").option(KAVOOPT_TIMEOUT_MSEC, kNeverMs).open();
  Node node(host, KAVOT_BL_IP, "192.0.2.1");
  const HandServer::Query query = slow.receive();
  const in_addr address{htonl(INADDR_LOOPBACK)};
  const TempDir directory;
  const std::string zones = directory.write("zones", "#IP\nother.list\n\n");
  const auto configure = [&](KAVO_ERR expected) {
    expect_all(expected, {kavo_set_opt(host, KAVOOPT_NTRIES, 2), kavo_set_opt(host, KAVOOPT_DNSREC_CACHESIZE, 4096),
                          kavo_add_dns_server(host, "127.0.0.1", 1), kavo_set_dns_server(host, "127.0.0.1", 1, 1),
                          static_cast<KAVO_ERR>(kavo_set_srvstate_chg_cb(host, nullptr, nullptr)),
                          kavo_zonesmap_init_cfg(host, zones.c_str()), kavo_set_ext_cache(host, KAVOCT_FULL, nullptr),
                          static_cast<KAVO_ERR>(kavo_set_cost_zone(host, "cost.list")),
                          static_cast<KAVO_ERR>(kavo_add_expserv(host, &address)), kavo_add_expserv_s(host, nullptr),
                          kavo_set_cookies(host, 1), kavo_set_trace(host, nullptr, nullptr), kavo_zonesmap_init(host),
                          kavo_add_zone(host, KAVOT_BL_IP, "another.list")});
  };
  configure(KAVOE_SRV);
  std::thread closer([&host] { EXPECT_EQ(kavo_close(host), KAVOE_OK); });
  while (kavo_srv_is_running(host) != 0)
    std::this_thread::yield();
  configure(KAVOE_SRV);
  expect_all(KAVOE_SRV, {kavo_open(host), kavo_free(host)});
  kavo_free_zones(host);
  EXPECT_STREQ(kavo_zonesmap_zone(host, 1), "slow.list");
  sockaddr servers[4];
  unsigned count = 4;
  EXPECT_EQ(kavo_get_dns_servers(host, servers, &count), KAVOE_OK);
  EXPECT_EQ(count, 1U);
  slow.deny(query);
  closer.join();
  EXPECT_EQ(in_place(host, node), Texts{"NXDOM"});
  configure(KAVOE_OK);
}

TEST_F(RunsTest, AContextsOwnCacheMayBeHandedBack) {
  Host host(4, 1 << 20);
  KAVO_CACHE own = kavo_get_ext_cache(host, KAVOCT_ANS);
  ASSERT_EQ(kavo_cache_put(own, KAVOT_DNS_A, "kept", 4, read(KAVOT_DNS_A, every_layout()[0].bytes)), KAVOE_OK);
  for (const KAVO_CACHE_TYPE use : {KAVOCT_FULL, KAVOCT_ANS, KAVOCT_REF}) {
    ASSERT_EQ(kavo_set_ext_cache(host, use, own), KAVOE_OK);
    EXPECT_EQ(kavo_get_ext_cache(host, use), own);
  }
  // With a cache for referrals beside it, and as the one for referrals only.
  ASSERT_EQ(kavo_set_opt(host, KAVOOPT_DNSREC_CACHESIZE, 1 << 16), KAVOE_OK);
  EXPECT_NE(kavo_get_ext_cache(host, KAVOCT_REF), own);
  ASSERT_EQ(kavo_set_ext_cache(host, KAVOCT_REF, own), KAVOE_OK);
  ASSERT_EQ(kavo_set_ext_cache(host, KAVOCT_ANS, nullptr), KAVOE_OK);
  ASSERT_EQ(kavo_set_ext_cache(host, KAVOCT_ANS, own), KAVOE_OK);
  ASSERT_EQ(kavo_set_opt(host, KAVOOPT_DNSREC_CACHESIZE, 1 << 16), KAVOE_OK);
  EXPECT_EQ(kavo_cache_has(own, KAVOT_DNS_A, "kept", 4), KAVOE_OK);
}

// Gate stops the first thread that passes it, until it is opened: a thread of the library, or one that is cancelled.
struct Gate {
  Gate() { EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0); }
  ~Gate() { close(ends[0]), close(ends[1]); }
  static void wait(int, const char *line, void *gate) {
    if (strstr(line, "table stat") != nullptr) static_cast<Gate *>(gate)->pass();
  }
  void pass() {
    char byte;
    if (met.exchange(true)) return;
    EXPECT_EQ(read(ends[0], &byte, 1), 1);
  }
  void meet() const {
    while (!met)
      std::this_thread::yield();
  }
  void open() const { EXPECT_EQ(write(ends[1], "", 1), 1); }
  int ends[2] = {-1, -1};
  std::atomic<bool> met = false;
};

// SlowHost is a host whose cache stops the server thread, and so does its log at the second query that cannot be
// submitted.
struct SlowHost : dns_cacher {
  SlowHost() : dns_cacher{&kOps} {}
  static int look_up(dns_cacher *slow, dns_cdata *, dns_time) {
    static_cast<SlowHost *>(slow)->looked_up.pass();
    return 0;
  }
  static int nothing(dns_cacher *, const dns_cdata *, dns_time) { return 0; }
  static void log(int, const char *line, void *slow) {
    auto &self = *static_cast<SlowHost *>(slow);
    if (strstr(line, "Unable to submit query, error") != nullptr && ++self.refused == 2) self.logged.pass();
  }
  static constexpr dns_cacher_ops kOps = {look_up, nothing, nothing, nullptr, nullptr};
  Gate looked_up, logged;
  int refused = 0;
};

// A thread that has a place but not yet the lock when the run ends gives the place back. The server thread has the
// lock: it logs one query after the other that cannot be submitted, and the first one's place is free when it logs the
// last.
TEST_F(RunsTest, APlaceThatCameWithTheEndOfTheRunIsGivenBack) {
  SlowHost slow;
  constexpr int kPlaces = 3;
  const auto soon = [] { std::this_thread::sleep_for(std::chrono::milliseconds(kShortMs)); };
  Host host(kPlaces);
  host.server(server_.port()).zone(KAVOT_BL_IP, "live.list").zone(KAVOT_BL_DOM, "two..dots");
  ASSERT_EQ(kavo_set_ext_cache(host, KAVOCT_ANS, &slow), KAVOE_OK);
  kavo_set_log_cb(SlowHost::log, &slow);
  host.open();
  Node first(host, KAVOT_BL_IP, "192.0.2.1");
  slow.looked_up.meet();
  for (const char *subject : {"a", "b"})
    Node(host, KAVOT_BL_DOM, subject).drop();
  KAVO_QUERY_NODE none = nullptr;
  std::thread asker([&] { EXPECT_EQ(kavo_subscribe_syncnode(host, nullptr, &none), KAVOE_SRV); });
  soon();  // time to wait for room, and then to be given it; a thread that comes later is refused at once
  slow.looked_up.open();
  slow.logged.meet();
  soon();
  std::thread closer([&host] { EXPECT_EQ(kavo_close(host), KAVOE_OK); });
  while (kavo_srv_is_running(host) != 0)
    std::this_thread::yield();
  slow.logged.open();
  asker.join();
  closer.join();
  first.drop();
  EXPECT_EQ(kavo_nactive(host), 0u);
  host.open();
  std::array<KAVO_QUERY_NODE, kPlaces> bells{};
  for (KAVO_QUERY_NODE &bell : bells)
    EXPECT_EQ(kavo_subscribe_syncnode(host, Deadline(0), &bell), KAVOE_OK);
  for (KAVO_QUERY_NODE bell : bells)
    EXPECT_EQ(kavo_unsubscribe_node(host, bell), KAVOE_OK);
}

TEST_F(RunsTest, NoCallIsACancellationPoint) {
  const TempDir directory;
  const std::string file = directory.file("zones"), dump = directory.file("dump");
  Gate gate;
  Host host(64, 1 << 16);
  host.server(server_.port()).zone(KAVOT_BL_IP, "live.list").open();
  std::atomic<int> whole{0};
  const auto done = [&whole] {
    ++whole;
    pthread_testcancel();
  };
  // Cancelled while its line waits, in the log, with the table's lock held.
  kavo_set_log_cb(Gate::wait, &gate);
  std::thread logs([&] {
    KAVO_QUERY_NODE node = nullptr;
    for (int i = 0; i < 16; ++i)
      EXPECT_EQ(kavo_subscribe_syncnode(host, nullptr, &node), KAVOE_OK);
    done();
  });
  gate.meet();
  ASSERT_EQ(pthread_cancel(logs.native_handle()), 0);
  gate.open();
  logs.join();
  ASSERT_EQ(whole, 1);
  EXPECT_EQ(kavo_nactive(host), 16u);

  // Cancelled before it asks, and before it writes files.
  std::thread asks([&] {
    pthread_cancel(pthread_self());
    KAVO_QUERY_NODE node = nullptr;
    EXPECT_EQ(kavo_subscribe_node_p(host, KAVOT_BL_IP, "192.0.2.1", 0, nullptr, &node), KAVOE_OK);
    EXPECT_EQ(kavo_wait_node(host, node, KAVOWT_FULL, Deadline(kLongMs)), KAVOE_OK);
    EXPECT_EQ(kavo_zonesmap_save_cfg(host, file.c_str()), KAVOE_OK);
    EXPECT_EQ(kavo_cachesave(host, dump.c_str()), KAVOE_OK);
    EXPECT_EQ(kavo_cacheload(host, dump.c_str()), KAVOE_OK);
    done();
  });
  asks.join();
  ASSERT_EQ(whole, 2);
  Answers answers;
  EXPECT_EQ(answers.query(host, KAVOT_BL_IP, address_bytes("192.0.2.2")), KAVOE_OK) << "others are served";

  // And before it closes and opens.
  std::thread closes([&] {
    pthread_cancel(pthread_self());
    EXPECT_EQ(kavo_close(host), KAVOE_OK);
    EXPECT_EQ(kavo_zonesmap_init_cfg(host, file.c_str()), KAVOE_OK);
    EXPECT_EQ(kavo_open(host), KAVOE_OK);
    done();
  });
  closes.join();
  EXPECT_EQ(whole, 3);
  EXPECT_EQ(answers.query(host, KAVOT_BL_IP, address_bytes("192.0.2.3")), KAVOE_OK);
}

}  // namespace
