// answers_test - the answers of list and DNS questions: zone by zone, their cost in packets, every record type through
// real servers, the cache, and servers that fail or lie. Tests that count packets use a fresh context, so that nothing
// is retransmitted: the first attempt at a server never asked before waits for the whole timeout.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <host_test.h>
#include <kavo.h>
#include <name_daemons.h>
#include <packet.h>

#include <algorithm>
#include <array>
#include <barrier>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace testbed;

constexpr int kCache = 1 << 20;

constexpr const char *kThreeZones =
    "zone a.list\nlist 192.0.2.0/24 127.0.0.2 \"first\"\n"
    "zone b.list\nlist 198.51.100.7\n"
    "zone c.list\nlist 192.0.2.1 127.0.0.4,127.0.0.5 \"third\"\n"
    "zone dead.list\nfault dead\n";

using AnswersTest = HostTest;

const std::string kListed = address_bytes("192.0.2.1");

Host &with_three_zones(Host &host, const ListServer &server) {
  host.server(server.port()).long_timeout();
  for (const char *zone : {"a.list", "b.list", "c.list"})
    host.zone(KAVOT_BL_IP, zone).zone(KAVOT_BL_IP_TXT, zone);
  return host.open();
}

TEST_F(AnswersTest, ThreeZonesCostThreePackets) {
  ListServer server(kThreeZones);
  Host host;
  with_three_zones(host, server);
  Node node(host, KAVOT_BL_IP, "192.0.2.1");
  ASSERT_EQ(node.wait(KAVOWT_FULL), KAVOE_OK);
  std::vector<KAVO_ANSWER> all;
  EXPECT_EQ(in_place(host, node, &all), (Texts{"127.0.0.2", "NXDOM", "127.0.0.4,127.0.0.5"}));
  ASSERT_EQ(all.size(), 3u);
  for (size_t i = 0; i < all.size(); ++i) {
    EXPECT_EQ(all[i].type, KAVOT_BL_IP);
    EXPECT_EQ(all[i].zone, static_cast<int>(i) + 1);
    EXPECT_EQ(all[i].cache_code, KAVOCC_NEXISTS);
  }
  EXPECT_STREQ(kavo_zonesmap_zone(host, all[2].zone), "c.list");
  EXPECT_STREQ(all[2].rr.rr_a->dnsa4_qname, "1.2.0.192.c.list");
  EXPECT_EQ(server.received(), 3u);

  EXPECT_EQ(Answers().ask(host, KAVOT_BL_IP_TXT, kListed), (Texts{"first", "NXDOM", "third"}));
}

TEST_F(AnswersTest, EightThreadsAtOnceStillCostThreePackets) {
  constexpr int kThreads = 8;
  ListServer server(kThreeZones);
  Host host;
  with_three_zones(host, server);
  std::barrier all_threads(kThreads);
  std::array<KAVO_QUERY_NODE, kThreads> nodes{};
  std::vector<std::jthread> threads;
  for (KAVO_QUERY_NODE &seen : nodes) {
    threads.emplace_back([&] {
      all_threads.arrive_and_wait();
      Node node(host, KAVOT_BL_IP, "192.0.2.1");
      EXPECT_EQ(node.wait(KAVOWT_FULL), KAVOE_OK);
      EXPECT_EQ(in_place(host, node), (Texts{"127.0.0.2", "NXDOM", "127.0.0.4,127.0.0.5"}));
      seen = node;
      all_threads.arrive_and_wait();  // no thread drops its node before all have asked
    });
  }
  threads.clear();
  EXPECT_EQ(std::count(nodes.begin(), nodes.end(), nodes[0]), kThreads);
  EXPECT_EQ(server.received(), 3u);
  EXPECT_EQ(kavo_nactive(host), 0u);
}

TEST_F(AnswersTest, PartlyResolvedNodeShowsWhatHasArrived) {
  ListServer server(kThreeZones);
  Host host;
  host.server(server.port()).long_timeout();
  for (const char *zone : {"a.list", "dead.list", "b.list"})
    host.zone(KAVOT_BL_IP, zone);
  host.zone(KAVOT_BL_DOM, "dead.list").open();

  Node silent(host, KAVOT_BL_DOM, "example");
  EXPECT_EQ(silent.wait(KAVOWT_NONE), KAVOE_OK);
  Node node(host, KAVOT_BL_IP, "192.0.2.1");
  EXPECT_EQ(node.wait(KAVOWT_FIRST), KAVOE_OK);
  Answers answers;
  for (unsigned waited = 0; answers.size() < 2 && waited < kLongMs; ++waited) {
    ASSERT_EQ(answers.copy(host, node), KAVOE_OK);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_EQ(answers.texts(), (Texts{"127.0.0.2", "NXDOM"}));
  EXPECT_EQ(answers[1].zone, 3);
  EXPECT_EQ(in_place(host, node), answers.texts());
  for (const KAVO_WAIT_LEVEL level : {KAVOWT_NONE, KAVOWT_CACHE, KAVOWT_DCACHE, KAVOWT_FIRST})
    EXPECT_EQ(node.wait(level, 0), KAVOE_OK) << level;
  EXPECT_EQ(node.wait(KAVOWT_FULL, kShortMs), KAVOE_TIMEOUT);

  KAVO_QUERY_NODE nodes[]{silent, node};
  KAVO_QUERY_NODE resolved = nullptr;
  EXPECT_EQ(kavo_wait_multiple_nodes(host, nodes, 2, KAVOWT_FIRST, 0, Deadline(kLongMs), &resolved), KAVOE_OK);
  EXPECT_EQ(resolved, nodes[1]);
  EXPECT_EQ(kavo_wait_multiple_nodes(host, nodes, 2, KAVOWT_FIRST, 1, Deadline(kShortMs), &resolved), KAVOE_TIMEOUT);
  EXPECT_EQ(resolved, nullptr);
  EXPECT_EQ(kavo_wait_multiple_nodes(host, nodes, 2, KAVOWT_FULL, 0, Deadline(kShortMs), nullptr), KAVOE_TIMEOUT);
  EXPECT_EQ(answers.copy(host, silent), KAVOE_NODATA);
  KAVO_ANSWER_ITERATOR iterator = kavo_alloc_answer_iterator();
  EXPECT_EQ(kavo_set_answer_iterator(host, node, iterator), KAVOE_OK);
  EXPECT_EQ(kavo_set_answer_iterator(host, silent, iterator), KAVOE_NODATA);
  EXPECT_EQ(kavo_get_answer(host, iterator), nullptr) << "it has left the first node";
  kavo_free_answer_iterator(iterator);
}

// More zones than a fresh iterator has room for; every other one answers.
TEST_F(AnswersTest, PartlyResolvedNodeOfManyZonesShowsTheOnesThatAnswered) {
  constexpr int kZones = 30;
  std::string zones;
  Host host(64, 0, kZones);
  for (int i = 1; i <= kZones; ++i) {
    const std::string zone = "z" + std::to_string(i) + ".list";
    zones += "zone " + zone + (i % 2 == 0 ? "\nlist 192.0.2.0/24\n" : "\nfault dead\n");
    host.zone(KAVOT_BL_IP, zone.c_str());
  }
  ListServer server(zones);
  host.server(server.port()).long_timeout().open();
  Node node(host, KAVOT_BL_IP, "192.0.2.1");
  ASSERT_EQ(node.wait(KAVOWT_FIRST), KAVOE_OK);
  std::vector<KAVO_ANSWER> all;
  for (unsigned waited = 0; all.size() < kZones / 2 && waited < kLongMs; ++waited) {
    all.clear();
    (void)in_place(host, node, &all);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  ASSERT_EQ(all.size(), kZones / 2U);
  for (size_t i = 0; i < all.size(); ++i)
    EXPECT_EQ(all[i].zone, static_cast<int>(i + 1) * 2);
}

TEST_F(AnswersTest, CopiesGoIntoTheCallersStorage) {
  ListServer server(kThreeZones);
  Host host;
  with_three_zones(host, server);
  Node node(host, KAVOT_BL_IP, "192.0.2.1");
  ASSERT_EQ(node.wait(KAVOWT_FULL), KAVOE_OK);

  std::array<KAVO_ANSWER, 3> array{};
  KAVO_ANSWER *place = array.data();
  int written = -1;
  EXPECT_EQ(kavo_copy_answer(host, node, &place, 1, &written, 0), KAVOE_NOMEM);
  EXPECT_EQ(written, 3) << "the caller learns what it needs";
  ASSERT_EQ(kavo_rr_alloc(&array[0].rr, 1024), KAVOE_OK);
  ASSERT_EQ(kavo_rr_alloc(&array[2].rr, sizeof(dns_rr_a4)), KAVOE_OK);
  EXPECT_EQ(kavo_copy_answer(host, node, &place, 3, &written, 0), KAVOE_OK);
  EXPECT_EQ(render(array[0]), "127.0.0.2");
  EXPECT_EQ(array[1].err_code, KAVOE_NXDOM);
  EXPECT_EQ(array[2].err_code, KAVOE_NOMEM) << "its block is too small";
  EXPECT_EQ(array[2].zone, 3);
  for (KAVO_ANSWER &answer : array)
    kavo_rr_free(&answer.rr);

  KAVO_ANSWER *none = nullptr;
  EXPECT_EQ(kavo_copy_answer(nullptr, node, &none, 0, &written, 1), KAVOE_BADPAR);
  EXPECT_EQ(written, 0) << "a call that fails has written nothing";
  written = 3;
  EXPECT_EQ(kavo_query(host, KAVOT_BL_DOM, "x", 1, &none, 0, &written, 0, KAVOWT_FULL, 0), KAVOE_NOZONES);
  EXPECT_EQ(written, 0);
  Answers answers;
  ASSERT_EQ(answers.copy(host, node), KAVOE_OK);
  const KAVO_ANSWER *data = answers.data();
  const void *block = answers[0].rr.rr_mem;
  node.drop();
  ASSERT_EQ(answers.query(host, KAVOT_BL_IP, kListed), KAVOE_OK);
  EXPECT_EQ(answers.data(), data) << "array and blocks are used again";
  EXPECT_EQ(answers[0].rr.rr_mem, block);
  EXPECT_EQ(answers.texts(), (Texts{"127.0.0.2", "NXDOM", "127.0.0.4,127.0.0.5"}));
}

TEST_F(AnswersTest, RealListServer) {
  const auto daemon = start_rbldnsd(
      {{"ip.list", "ip4set", ":127.0.0.2:listed, see $\n192.0.2.0/24\n198.51.100.7 :127.0.0.9:alone\n!192.0.2.66\n"},
       {"more.list", "ip4set", ":127.0.0.3:too\n192.0.2.0/25\n"},
       {"dom.list", "dnset", ":127.0.1.2:bad domain\n.bad.example\nonly.example\n"}});
  Host host;
  host.server(daemon->port()).zone(KAVOT_BL_IP, "ip.list").zone(KAVOT_BL_IP, "more.list");
  host.zone(KAVOT_BL_IP_TXT, "ip.list").zone(KAVOT_BL_DOM, "dom.list").zone(KAVOT_BL_DOM_TXT, "dom.list").open();
  const auto ask = [&](KAVO_TYPE type, const std::string &subject) { return Answers().ask(host, type, subject); };
  EXPECT_EQ(ask(KAVOT_BL_IP, kListed), (Texts{"127.0.0.2", "127.0.0.3"}));
  EXPECT_EQ(ask(KAVOT_BL_IP, address_bytes("192.0.2.66")), (Texts{"NXDOM", "127.0.0.3"}));
  EXPECT_EQ(ask(KAVOT_BL_IP, address_bytes("192.0.2.200")), (Texts{"127.0.0.2", "NXDOM"}));
  EXPECT_EQ(ask(KAVOT_BL_IP_TXT, address_bytes("198.51.100.7")), Texts{"alone"});
  EXPECT_EQ(ask(KAVOT_BL_IP_TXT, kListed), Texts{"listed, see 192.0.2.1"});
  EXPECT_EQ(ask(KAVOT_BL_DOM, "deep.below.bad.example"), Texts{"127.0.1.2"});
  EXPECT_EQ(ask(KAVOT_BL_DOM, "ONLY.Example"), Texts{"127.0.1.2"});
  EXPECT_EQ(ask(KAVOT_BL_DOM, "not.only.example"), Texts{"NXDOM"});
  EXPECT_EQ(ask(KAVOT_BL_DOM_TXT, "bad.example"), Texts{"bad domain"});
}

// As it is shipped, a list server's socket has room for a few hundred packets.
TEST_F(AnswersTest, BurstAtAListServerAsItIsShipped) {
  constexpr int kBurst = 4000, kPerNetwork = 250, kFirstOfSecondList = 8;
  std::string odd = ":127.0.0.2:odd\n";
  for (int network = 1; network < kBurst / kPerNetwork; network += 2)
    odd += "10.0." + std::to_string(network) + ".0/24\n";
  const auto daemon =
      start_rbldnsd({{"odd.list", "ip4set", odd}, {"high.list", "ip4set", ":127.0.0.3:high\n10.0.8.0/21\n"}});
  Host host(kBurst);
  host.server(daemon->port()).zone(KAVOT_BL_IP, "odd.list").zone(KAVOT_BL_IP, "high.list").open();
  std::deque<Node> nodes;
  for (int i = 0; i < kBurst; ++i)
    nodes.emplace_back(host, KAVOT_BL_IP,
                       "10.0." + std::to_string(i / kPerNetwork) + "." + std::to_string(i % kPerNetwork));
  for (int i = 0; i < kBurst; ++i) {
    const int network = i / kPerNetwork;
    ASSERT_EQ(nodes[static_cast<size_t>(i)].wait(KAVOWT_FULL), KAVOE_OK);
    EXPECT_EQ(in_place(host, nodes[static_cast<size_t>(i)]),
              (Texts{network % 2 == 1 ? "127.0.0.2" : "NXDOM", network >= kFirstOfSecondList ? "127.0.0.3" : "NXDOM"}))
        << i;
  }
}

// ask_at asks one server instead of those of the context.
std::string ask_at(KAVO kavo, uint16_t port, KAVO_TYPE type, const char *name, unsigned flags, Answers *answers) {
  const sockaddr_in server = loopback(port);
  KAVO_QUERY_NODE node = nullptr;
  EXPECT_EQ(kavo_subscribe_node_serv_ext(kavo, type, dn(name).data(), reinterpret_cast<const sockaddr *>(&server), 1,
                                         flags, Deadline(kLongMs), &node),
            KAVOE_OK);
  EXPECT_EQ(kavo_wait_node(kavo, node, KAVOWT_FULL, Deadline(kLongMs)), KAVOE_OK);
  EXPECT_EQ(answers->copy(kavo, node), KAVOE_OK);
  EXPECT_EQ(kavo_unsubscribe_node(kavo, node), KAVOE_OK);
  return render((*answers)[0]);
}

constexpr const char *kMaster =
    "$ORIGIN corp.example.\n$TTL 300\n"
    "@ SOA ns1 admin 1 3600 600 86400 300\n@ NS ns1\n@ NS ns2\nns1 A 127.0.0.1\nns2 A 127.0.0.1\n"
    "@ MX 10 mx1\n@ MX 20 mx2.corp.example.\n@ TXT \"v=spf1 \" \"-all\"\n@ TXT \"second\"\n"
    "mx1 A 192.0.2.10\nmx1 A 192.0.2.11\nmx1 AAAA 2001:db8::10\nmx2 A 192.0.2.12\n"
    "www CNAME middle\nmiddle CNAME mx1\n_smtp._tcp SRV 1 2 25 mx1\n";
constexpr const char *kReverse =
    "$ORIGIN 2.0.192.in-addr.arpa.\n$TTL 300\n@ SOA ns1.corp.example. admin.corp.example. 1 3600 600 86400 300\n"
    "@ NS ns1.corp.example.\n10 PTR mx1.corp.example.\n";

// An authoritative server and a resolver in front of it.
class RecordsTest : public AnswersTest {
 protected:
  std::unique_ptr<NameDaemon> master_ = start_nsd({{"corp.example", kMaster}, {"2.0.192.in-addr.arpa", kReverse}});
  std::unique_ptr<NameDaemon> resolver_ =
      start_unbound({{"corp.example", master_->port()}, {"2.0.192.in-addr.arpa", master_->port()}});
};

TEST_F(RecordsTest, EveryTypeDirectlyAndThroughAResolver) {
  struct Question {
    KAVO_TYPE type;
    std::string subject;
    std::string answer;
  };
  const std::vector<Question> questions{{KAVOT_DNS_A, "mx1.corp.example", "192.0.2.10,192.0.2.11"},
                                        {KAVOT_DNS_A, "WWW.Corp.Example", "192.0.2.10,192.0.2.11"},
                                        {KAVOT_DNS_AAAA, "mx1.corp.example", "2001:db8::10"},
                                        {KAVOT_DNS_NS, "corp.example", "ns1.corp.example,ns2.corp.example"},
                                        {KAVOT_DNS_MX, "corp.example", "10 mx1.corp.example,20 mx2.corp.example"},
                                        {KAVOT_DNS_TXT, "corp.example", "second,v=spf1 -all"},
                                        {KAVOT_DNS_ETXT, "corp.example", "second,v=spf1 -all"},
                                        {KAVOT_DNS_SRV, "_smtp._tcp.corp.example", "1 2 25 mx1.corp.example"},
                                        {KAVOT_DNS_CNAME, "www.corp.example", "middle.corp.example"},
                                        {KAVOT_DNS_PTR, address_bytes("192.0.2.10"), "mx1.corp.example"},
                                        {KAVOT_DNS_A, "missing.corp.example", "NXDOM"},
                                        {KAVOT_DNS_MX, "www.corp.example", "NODATA"}};
  for (const bool direct : {true, false}) {
    Host host(64, direct ? 0 : kCache);
    host.server(direct ? master_->port() : resolver_->port()).option(KAVOOPT_NTRIES, 10).open();
    for (const Question &question : questions) {
      const unsigned flags = direct ? 0 : KAVOQF_RECURSIVE;
      EXPECT_EQ(Answers().ask(host, question.type, question.subject, flags), Texts{question.answer}) << direct;
    }
  }
}

TEST_F(RecordsTest, CnamesPacketsAndServersOfAQuestionsOwn) {
  Host host;
  host.open();
  Answers answers;
  EXPECT_EQ(ask_at(host, master_->port(), KAVOT_DNS_A, "www.corp.example", 0, &answers), "192.0.2.10,192.0.2.11");
  EXPECT_STREQ(answers[0].rr.rr_a->dnsa4_cname, "mx1.corp.example");
  EXPECT_STREQ(answers[0].rr.rr_a->dnsa4_qname, "www.corp.example");
  EXPECT_EQ(answers[0].rr.rr_a->dnsa4_ttl, 300);
  for (const KAVO_TYPE type : {KAVOT_DNS_SOA, KAVOT_DNS_MX}) {
    (void)ask_at(host, master_->port(), type, "corp.example", KAVOQF_PKT, &answers);
    ASSERT_EQ(answers[0].type, KAVOT_PKT);
    const dns_rr_pkt *packet = answers[0].rr.rr_pkt;
    ASSERT_GT(packet->dnspkt_psize, static_cast<uint32_t>(DNS_HSIZE));
    EXPECT_TRUE(packet->dnspkt_pkt[2] & 0x80) << "an answer as it came";
    EXPECT_NE(packet->dnspkt_pkt[7], 0) << "with records";
  }
}

TEST_F(AnswersTest, CacheAnswersTheSecondTime) {
  ListServer server(kThreeZones);
  Host host(64, kCache);
  host.option(KAVOOPT_NXDOM_TTL, 60);
  with_three_zones(host, server);
  Answers answers;
  ASSERT_EQ(answers.query(host, KAVOT_BL_IP, kListed), KAVOE_OK);
  EXPECT_EQ(answers[0].cache_code, KAVOCC_NEXISTS);
  ASSERT_EQ(server.received(), 3u);
  EXPECT_EQ(answers.ask(host, KAVOT_BL_IP, kListed), (Texts{"127.0.0.2", "NXDOM", "127.0.0.4,127.0.0.5"}));
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(answers[i].cache_code, KAVOCC_EXISTS) << i;
  // The same names in an ordinary DNS question, in capitals.
  EXPECT_EQ(answers.ask(host, KAVOT_DNS_A, "1.2.0.192.C.LIST"), Texts{"127.0.0.4,127.0.0.5"});
  EXPECT_EQ(answers[0].cache_code, KAVOCC_EXISTS);
  EXPECT_EQ(server.received(), 3u) << "no packet more";

  // A question with servers of its own bypasses the cache.
  (void)ask_at(host, server.port(), KAVOT_DNS_A, "1.2.0.192.c.list", 0, &answers);
  EXPECT_GT(server.received(), 3u);
}

TEST_F(AnswersTest, CachedZoneShowsWhileAnotherIsAsked) {
  ListServer server(kThreeZones);
  Host host(64, kCache);
  host.server(server.port()).long_timeout();
  host.zone(KAVOT_BL_IP, "a.list").zone(KAVOT_BL_IP, "dead.list").open();
  Answers answers;
  ASSERT_EQ(answers.query(host, KAVOT_DNS_A, "1.2.0.192.a.list"), KAVOE_OK);
  Node node(host, KAVOT_BL_IP, "192.0.2.1");
  ASSERT_EQ(node.wait(KAVOWT_FIRST), KAVOE_OK) << "what the second zone lacks takes nothing from the first";
  ASSERT_EQ(answers.copy(host, node), KAVOE_OK);
  EXPECT_EQ(answers.texts(), Texts{"127.0.0.2"});
  EXPECT_EQ(answers[0].cache_code, KAVOCC_EXISTS);
}

TEST_F(AnswersTest, ExpiredAnswerComesEarlyAndServesWhenTheServerIsGone) {
  ListServer server("zone a.list\nttl 1\nlist 192.0.2.1 127.0.0.8\n");
  Host host(64, kCache);
  host.server(server.port()).zone(KAVOT_BL_IP, "a.list").option(KAVOOPT_CH_REXPRD, 1);
  host.option(KAVOOPT_TIMEOUT_MSEC, 2000).option(KAVOOPT_CLOSE_FAST, 1).option(KAVOOPT_NTRIES, 50).open();
  Answers answers;
  const auto expire = [] { std::this_thread::sleep_for(std::chrono::milliseconds(2500)); };
  ASSERT_EQ(answers.query(host, KAVOT_BL_IP, kListed), KAVOE_OK);
  expire();
  {
    Node node(host, KAVOT_BL_IP, "192.0.2.1");
    ASSERT_EQ(node.wait(KAVOWT_FULL), KAVOE_OK);
    std::vector<KAVO_ANSWER> all;
    EXPECT_EQ(in_place(host, node, &all), (Texts{"127.0.0.8", "127.0.0.8"}));
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].cache_code, KAVOCC_NEXISTS);
    EXPECT_EQ(all[1].cache_code, KAVOCC_OLD);
    EXPECT_EQ(all[1].zone, 1);
    ASSERT_EQ(answers.copy(host, node), KAVOE_OK);
    EXPECT_EQ(answers.size(), 1) << "a copy of a resolved node holds each zone once";
    EXPECT_EQ(answers[0].cache_code, KAVOCC_NEXISTS);
  }
  expire();
  server.stop();
  Node node(host, KAVOT_BL_IP, "192.0.2.1");
  ASSERT_EQ(node.wait(KAVOWT_FIRST), KAVOE_OK);
  ASSERT_EQ(answers.copy(host, node), KAVOE_OK);
  EXPECT_EQ(answers.texts(), Texts{"127.0.0.8"});
  EXPECT_EQ(answers[0].cache_code, KAVOCC_OLD);
  Node raw(host, KAVOT_BL_IP, "192.0.2.1", KAVOQF_PKT);
  ASSERT_EQ(raw.wait(KAVOWT_FIRST), KAVOE_OK);
  ASSERT_EQ(answers.copy(host, raw), KAVOE_OK);
  ASSERT_EQ(answers[0].type, KAVOT_PKT);
  const dns_rr_pkt *packet = answers[0].rr.rr_pkt;
  const std::string bytes(packet->dnspkt_pkt, packet->dnspkt_pkt + packet->dnspkt_psize);
  EXPECT_TRUE(bytes.ends_with(std::string("\0\0\0\0\0\4\x7f\0\0\x08", 10))) << "a TTL of 0 and the address";
}

TEST_F(AnswersTest, WrongAnswersAreNeverBelievedAndFailingServersLeftAtOnce) {
  ListServer honest(kThreeZones);
  for (const char *kind : {"wrong=id", "wrong=question", "wrong=garbage", "wrong=cut", "wrong=servfail",
                           "wrong=refused", "wrong=notimpl"}) {
    SCOPED_TRACE(kind);
    const std::string said(kind);
    const bool fails = said == "wrong=servfail" || said == "wrong=refused" || said == "wrong=notimpl";
    ListServer liar("zone a.list\nlist 192.0.2.1 127.0.0.66\n", {"--fault", kind});
    Answers answers;
    Host alone;
    alone.server(liar.port()).zone(KAVOT_BL_IP, "a.list").option(KAVOOPT_CLOSE_FAST, 1);
    if (!fails) alone.option(KAVOOPT_TIMEOUT_MSEC, kShortMs).option(KAVOOPT_NTRIES, 2);
    alone.open();
    ASSERT_EQ(answers.query(alone, KAVOT_BL_IP, kListed), KAVOE_OK);
    EXPECT_EQ(answers[0].err_code, fails ? KAVOE_DNS : KAVOE_TIMEOUT);
    EXPECT_EQ(liar.received(), fails ? 1u : 2u);

    Host both;
    both.server(liar.port()).server(honest.port()).zone(KAVOT_BL_IP, "a.list");
    if (fails)
      both.long_timeout().open();  // no timeout can pass while the test waits
    else
      both.option(KAVOOPT_TIMEOUT_MSEC, kShortMs).option(KAVOOPT_NTRIES, 50).open();
    EXPECT_EQ(answers.ask(both, KAVOT_BL_IP, kListed), Texts{"127.0.0.2"});
  }
}

TEST_F(AnswersTest, TheBestServerIsAskedMost) {
  constexpr int kQuestions = 60;
  const std::string zones = "zone a.list\nlist 192.0.2.0/24\nzone cost.list\nlist 127.0.0.1 127.0.0.9\n";
  for (const uint32_t nbest : {1u, 2u}) {
    ListServer slow(zones, {"--fault", "delay=30"}), fast(zones);
    Host host;
    host.server(slow.port()).server(fast.port()).zone(KAVOT_BL_IP, "a.list");
    host.option(KAVOOPT_BSC_SIZE, 16).option(KAVOOPT_BSC_NBEST, nbest).option(KAVOOPT_BSC_UPDTIME, 3600);
    ASSERT_EQ(kavo_set_cost_zone(host, "cost.list"), KAVOE_OK);
    host.open();
    for (int i = 0; i < kQuestions; ++i) {
      EXPECT_EQ(Answers().ask(host, KAVOT_BL_IP, address_bytes(("192.0.2." + std::to_string(i)).c_str())),
                Texts{"127.0.0.2"});
    }
    EXPECT_GE(slow.received() + fast.received(), kQuestions + 1u) << "the costs were looked up";
    EXPECT_GE(fast.received(), nbest == 1 ? 50u : 25u);
    EXPECT_GE(slow.received(), nbest == 1 ? 1u : 25u);
  }
}

}  // namespace
