// recursion_test - questions that the library resolves iteratively through a delegation tree, large answers over TCP,
// and what a resolver holds in its cache: all from real name servers, on addresses of their own that share a port.
#include <gtest/gtest.h>
#include <host_test.h>
#include <kavo.h>
#include <name_daemons.h>
#include <netinet/in.h>
#include <packet.h>

#include <atomic>
#include <cctype>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace {

using namespace testbed;

constexpr int kCache = 1 << 22;
constexpr const char *kSoa = "$TTL 300\n@ SOA ns1.a.test. admin.a.test. 1 3600 600 86400 300\n";

// Traced is a host that counts the packets it sends, retransmissions left out, and the records of the answers that come
// over TCP. Blocks that large exceed what a host is given (KAVO_RR_SIZE_MAX): only its trace sees them.
struct Traced : Host {
  explicit Traced(int cache = kCache) : Host(256, cache) {
    EXPECT_EQ(kavo_set_trace(*this, count, this), KAVOE_OK);
    option(KAVOOPT_NTRIES, 10);
  }
  static void count(dns_ctx *, dns_query *, int code, void *data, void *udata) {
    auto *self = static_cast<Traced *>(udata);
    if (code != DNS_D_PKT_REQ && code != DNS_D_PKT_RPAN) return;
    const auto &packet = *static_cast<const dns_dpkt *>(data);
    const bool tcp = packet.dnsd_proto == IPPROTO_TCP;
    if (code == DNS_D_PKT_REQ && self->is_new(packet)) ++(tcp ? self->by_tcp : self->by_udp);
    if (code == DNS_D_PKT_RPAN && tcp) self->records.push_back(packet.dnsd_pkt[6] * 256 + packet.dnsd_pkt[7]);
  }
  bool is_new(const dns_dpkt &packet) {
    std::string key = std::to_string(packet.dnsd_proto) + std::to_string(packet.dnsd_pkt[2]);
    key.append(reinterpret_cast<const char *>(packet.dnsd_sarem), sizeof(sockaddr_in));
    for (unsigned i = DNS_HSIZE; i < packet.dnsd_plen; ++i)
      key.push_back(static_cast<char>(std::tolower(packet.dnsd_pkt[i])));
    return seen.insert(key).second;
  }
  // ask returns the answer's text, followed by the number of packets sent by UDP.
  std::string ask(KAVO_TYPE type, const char *name, unsigned flags = 0) {
    const int before = by_udp;
    seen.clear();
    EXPECT_EQ(answers.query(*this, type, name, flags), KAVOE_OK);
    return render(answers[0]) + " " + std::to_string(by_udp - before);
  }
  Answers answers;
  std::atomic<int> by_udp = 0, by_tcp = 0;
  std::set<std::string> seen;  // the engine's thread's while a question is open
  std::vector<int> records;    // to be read when everything is answered
};

class WalkTest : public HostTest {
 protected:
  static std::string zone(const std::string &records) { return kSoa + records; }

  Traced &walker(Traced *host) const {
    host->option(KAVOOPT_TIMEOUT_MSEC, 500).option(KAVOOPT_DNS_PORT, port_).server(port_).open();
    return *host;
  }

  const uint16_t port_ = free_udp_port();
};

class TreeTest : public WalkTest {
 protected:
  std::unique_ptr<NameDaemon> root_ =
      start_nsd({{".", zone("@ NS ns.root.\nns.root. A 127.0.0.1\ntest. NS ns.test.\nns.test. A 127.0.0.2\n")}},
                "127.0.0.1", port_);
  std::unique_ptr<NameDaemon> top_ = start_nsd(
      {{"test", zone("@ NS ns\nns A 127.0.0.2\na NS ns1.a\nns1.a A 127.0.0.3\nb NS host.a\n")}}, "127.0.0.2", port_);
  std::unique_ptr<NameDaemon> leaf_ =
      start_nsd({{"a.test", zone("@ NS ns1\nns1 A 127.0.0.3\nhost A 127.0.0.3\nwww A 192.0.2.1\nother A 192.0.2.2\n"
                                 "mail MX 10 www\nto-b CNAME over\nover CNAME www.b.test.\nto-none CNAME no.b.test.\n"
                                 "to-loop CNAME loop.b.test.\n")},
                 {"b.test", zone("@ NS host.a.test.\nwww A 192.0.2.3\nloop CNAME to-loop.a.test.\n")}},
                "127.0.0.3", port_);
};

TEST_F(TreeTest, IsWalkedOnceAndRemembered) {
  TempDir directory;
  {
    Traced host;
    walker(&host);
    EXPECT_EQ(host.ask(KAVOT_DNS_A, "www.a.test"), "192.0.2.1 3");
    EXPECT_EQ(host.ask(KAVOT_DNS_MX, "mail.a.test"), "10 www.a.test 1");
    EXPECT_EQ(host.ask(KAVOT_DNS_A, "www.a.test"), "192.0.2.1 0");
    EXPECT_EQ(host.ask(KAVOT_DNS_A, "no.a.test"), "NXDOM 1");
    EXPECT_EQ(host.ask(KAVOT_DNS_TXT, "www.a.test"), "NODATA 1");
    // Its server's name is in the other zone: it is looked up there.
    EXPECT_EQ(host.ask(KAVOT_DNS_A, "www.b.test"), "192.0.2.3 3");
    EXPECT_EQ(host.ask(KAVOT_DNS_TXT, "www.b.test"), "NODATA 1");
    EXPECT_EQ(host.ask(KAVOT_DNS_A, "To-B.a.test"), "192.0.2.3 2");
    EXPECT_STREQ(host.answers[0].rr.rr_a->dnsa4_cname, "www.b.test");
    EXPECT_STREQ(host.answers[0].rr.rr_a->dnsa4_qname, "To-B.a.test");
    EXPECT_EQ(host.ask(KAVOT_DNS_A, "to-b.a.test"), "192.0.2.3 0");
    EXPECT_EQ(host.ask(KAVOT_DNS_A, "to-none.a.test"), "NXDOM 2");
    ASSERT_EQ(host.answers.query(host, KAVOT_DNS_A, "to-loop.a.test"), KAVOE_OK);
    EXPECT_EQ(host.answers[0].err_code, KAVOE_DNS);
    EXPECT_EQ(host.by_tcp, 0);
    ASSERT_EQ(kavo_cachesave(host, directory.file("dump").c_str()), KAVOE_OK);
  }
  for (const bool loaded : {true, false}) {
    Traced host(loaded ? kCache : 0);
    EXPECT_EQ(kavo_cacheload(host, directory.file("dump").c_str()), KAVOE_OK);
    walker(&host);
    EXPECT_EQ(host.ask(KAVOT_DNS_A, "other.a.test"), loaded ? "192.0.2.2 1" : "192.0.2.2 3");
    EXPECT_EQ(host.ask(KAVOT_DNS_A, "to-b.a.test"), loaded ? "192.0.2.3 0" : "192.0.2.3 9");
  }
}

TEST_F(TreeTest, AResolverIsAskedForWhatItHolds) {
  const auto resolver = start_unbound({{"a.test", port_, "127.0.0.3"}, {"b.test", port_, "127.0.0.3"}});
  Traced host(0);
  host.server(resolver->port()).open();
  EXPECT_EQ(host.ask(KAVOT_DNS_A, "to-b.a.test", KAVOQF_RECURSIVE), "192.0.2.3 1");
  EXPECT_EQ(host.ask(KAVOT_DNS_A, "to-none.a.test", KAVOQF_RECURSIVE), "NXDOM 1");
  EXPECT_EQ(host.ask(KAVOT_DNS_TXT, "www.a.test", KAVOQF_RECURSIVE), "NODATA 1");
  // This server holds no such data, and refers to others.
  sockaddr_in place = loopback(port_);
  place.sin_addr.s_addr = htonl(INADDR_LOOPBACK + 1);
  const auto *top = reinterpret_cast<const sockaddr *>(&place);
  const struct {
    const sockaddr *server;
    const char *name;
    const char *text;
    int packets;
  } rows[] = {{nullptr, "to-b.a.test", "192.0.2.3", 1},
              {nullptr, "to-none.a.test", "NXDOM", 1},
              {top, "other.a.test", "192.0.2.2", 2}};
  for (const auto &row : rows) {
    SCOPED_TRACE(&row - rows);
    const int before = host.by_udp;
    KAVO_QUERY_NODE node = nullptr;
    ASSERT_EQ(kavo_subscribe_node_dcache(host, KAVOT_DNS_A, dn(row.name).data(), row.server, Deadline(kLongMs), &node),
              KAVOE_OK);
    EXPECT_EQ(kavo_wait_node(host, node, KAVOWT_DCACHE, Deadline(kLongMs)), KAVOE_OK);
    EXPECT_EQ(kavo_wait_node(host, node, KAVOWT_FULL, Deadline(kLongMs)), KAVOE_OK);
    EXPECT_EQ(in_place(host, node), Texts{row.text});
    EXPECT_EQ(host.by_udp - before, row.packets);
    EXPECT_EQ(kavo_unsubscribe_node(host, node), KAVOE_OK);
  }
}

// The servers of a zone have addresses of one family.
TEST_F(WalkTest, TheFamiliesAlternateOnTheWayDown) {
  if (!ipv6_works()) GTEST_SKIP() << "this machine has no ::1";
  const auto root = start_nsd({{".", zone("@ NS ns.root.\nns.root. A 127.0.0.1\ntest. NS ns.test.\n"
                                          "ns.test. AAAA ::1\nnet. NS ns.net.\nns.net. A 127.0.0.2\n")}},
                              "127.0.0.1", port_);
  const auto four = start_nsd({{"net", zone("@ NS ns\nns A 127.0.0.2\nfar NS six.test.\n")},
                               {"four.test", zone("@ NS ns\nns A 127.0.0.2\nwww A 192.0.2.2\n")}},
                              "127.0.0.2", port_);
  const auto six = start_nsd({{"test", zone("@ NS ns\nns AAAA ::1\nsix AAAA ::1\nwww A 192.0.2.1\n"
                                            "four NS ns.four\nns.four A 127.0.0.2\n")},
                              {"far.net", zone("@ NS six.test.\nwww A 192.0.2.3\n")}},
                             "::1", port_);
  Traced host;
  walker(&host);
  EXPECT_EQ(host.ask(KAVOT_DNS_A, "www.test"), "192.0.2.1 2");
  EXPECT_EQ(host.ask(KAVOT_DNS_A, "www.four.test"), "192.0.2.2 2");
  // The referral gives no address of the server, which has one of IPv6 alone.
  EXPECT_EQ(host.ask(KAVOT_DNS_A, "www.far.net"), "192.0.2.3 5");
  EXPECT_EQ(host.ask(KAVOT_DNS_TXT, "www.far.net"), "NODATA 1");
}

using Large = HostTest;

TEST_F(Large, SetsArriveWholeOverTcp) {
  constexpr int kMany = 40, kTexts = 40, kHugeTexts = 225, kExchanges = 900;
  std::string records = std::string(kSoa) + "@ NS ns1.a.test.\n";
  const auto text = [&records](const std::string &owner, int count) {
    for (int i = 0; i < count; ++i)
      records += owner + " TXT \"" + std::to_string(i) + std::string(250, 'x') + "\"\n";
  };
  for (int i = 0; i < kMany; ++i)
    text("t" + std::to_string(i), kTexts);
  text("huge", kHugeTexts);
  for (int i = 0; i < kExchanges; ++i)
    records += "huge MX " + std::to_string(i) + " m" + std::to_string(i) + "\n";
  for (const bool sign : {false, true}) {
    const auto daemon = start_nsd({{"big.test", records, sign}});
    for (const uint32_t size : {512, 4096}) {
      SCOPED_TRACE(std::to_string(size) + (sign ? " signed" : ""));
      Traced host(size == 512 ? 0 : kCache);
      host.option(KAVOOPT_MAX_PACKET, size).server(daemon->port()).open();
      std::vector<std::unique_ptr<Node>> nodes;
      for (int i = 0; i < kMany; ++i)
        nodes.push_back(std::make_unique<Node>(host, KAVOT_DNS_TXT, "t" + std::to_string(i) + ".big.test"));
      const size_t before = open_descriptors();
      for (const auto &node : nodes)
        ASSERT_EQ(node->wait(KAVOWT_FULL), KAVOE_OK);
      EXPECT_LE(open_descriptors(), before + 1 + 4) << "four sockets, and one connection";
      std::vector<int> expected(kMany, kTexts);
      for (const KAVO_TYPE type : {KAVOT_DNS_TXT, KAVOT_DNS_MX}) {
        ASSERT_EQ(host.answers.query(host, type, "huge.big.test"), KAVOE_OK);
        EXPECT_EQ(host.answers[0].err_code, KAVOE_NOMEM);
        expected.push_back(type == KAVOT_DNS_TXT ? kHugeTexts : kExchanges);
      }
      EXPECT_EQ(host.records, expected);
      EXPECT_EQ(host.by_tcp, kMany + 2);
      EXPECT_EQ(host.ask(KAVOT_DNS_A, "none.big.test").substr(0, 5), "NXDOM");
    }
  }
}

}  // namespace
