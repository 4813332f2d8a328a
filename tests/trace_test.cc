// trace_test.cc - the DNS traffic that a host sees, and its synchronous lookups: the ready-made trace and its record
// texts, the trace of a context, the lookups, and the servers that are set through them.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <host_test.h>
#include <kavo.h>
#include <name_daemons.h>
#include <netdb.h>
#include <process.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

using testbed::Host;
using testbed::ListServer;

// printed returns what an act wrote to the process's two streams, from any thread.
template <typename Act>
testbed::Output printed(Act act) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  act();
  return {testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr()};
}

struct sockaddr *address(sockaddr_in *ip4) {
  return reinterpret_cast<struct sockaddr *>(ip4);
}

// trace prints a packet, held in memory of exactly its size.
void trace(const std::string &packet, int code, const dns_query *q = nullptr, sockaddr *remote = nullptr,
           sockaddr *local = nullptr) {
  const auto exact = std::make_unique<unsigned char[]>(packet.size());
  std::copy(packet.begin(), packet.end(), exact.get());
  dns_dpkt event = {exact.get(), static_cast<unsigned>(packet.size()), local, remote, IPPROTO_UDP, 12};
  kavo_dbgcb(nullptr, const_cast<dns_query *>(q), code, &event, nullptr);
}

// kAnswerHead is the header and question section of an ordinary answer about the A records of example.test, without
// records.
const std::string kAnswerHead("\x12\x34\x81\x80\0\1\0\0\0\0\0\0\7example\4test\0\0\1\0\1", 30);

bool has_line(const std::string &text, const std::string &line) {
  return ("\n" + text + "\n").find("\n" + line + "\n") != std::string::npos;
}

// A query handle that kavo_dbgcb never reads.
const dns_query *some_query() {
  static const char place = 0;
  return reinterpret_cast<const dns_query *>(&place);
}

TEST(TraceLines, ShowTheQueryAndItsAnswer) {
  sockaddr_in remote = testbed::loopback(5300), local = testbed::loopback(40000);
  const testbed::Output request = printed([&] { trace(kAnswerHead, DNS_D_PKT_REQ, some_query(), address(&remote)); });
  EXPECT_EQ(request.out, ";; trying example.test.\n");
  EXPECT_EQ(request.err,
            ";; sending 30 bytes request to 127.0.0.1 port 5300\n"
            ";; ->>HEADER<<- opcode: QUERY, status: NOERROR, id: 4660\n"
            ";; flags: qr rd ra; QUERY: 1, ANSWER: 0, AUTHORITY: 0, ADDITIONAL: 0\n"
            "\n;; QUESTION SECTION:\n;example.test.\t\t\tIN\tA\n\n\n\n");

  const testbed::Output answer =
      printed([&] { trace(kAnswerHead, DNS_D_PKT_RPAN, some_query(), address(&remote), address(&local)); });
  EXPECT_EQ(answer.out, ";; response: answer for example.test.\n");
  EXPECT_TRUE(
      answer.err.starts_with(";; received 30 bytes response from 127.0.0.1 port 5300\n"
                             ";; via 127.0.0.1 port 40000 rtt 12 msec\n;; ->>HEADER<<-"));
  const struct {
    int code;
    const dns_query *q;
    const char *out;
  } rows[] = {{DNS_D_PKT_RPNS, some_query(), ";; response: referral for example.test.\n"},
              {DNS_D_PKT_SERVERR, some_query(), ";; response: for example.test.\n;; server error\n"},
              {DNS_D_PKT_NOREQ, nullptr, ";; unexpected response\n"},
              {DNS_D_PKT_TC, some_query(), ";; response: for example.test.\n"}};
  for (const auto &row : rows)
    EXPECT_EQ(printed([&] { trace(kAnswerHead, row.code, row.q); }).out, row.out);

  sockaddr_in6 ip6{};
  ip6.sin6_family = AF_INET6;
  const testbed::Output strange = printed(
      [&] { trace(kAnswerHead, DNS_D_PKT_NOREQ, nullptr, reinterpret_cast<sockaddr *>(&ip6), address(&local)); });
  EXPECT_TRUE(
      strange.err.starts_with(";; received 30 bytes response from <<unknown socket type 10>>\n"
                              ";; via 127.0.0.1 port 40000\n"));
}

TEST(TraceLines, StayHonestAboutPacketsThatAreNone) {
  const testbed::Output brief = printed([] { trace(kAnswerHead.substr(0, 11), DNS_D_PKT_REQ); });
  EXPECT_EQ(brief.out, ";; trying .\n");
  EXPECT_EQ(brief.err, ";; short packet (11 bytes)\n");
  const std::string root = kAnswerHead.substr(0, DNS_HSIZE) + std::string("\0\0\2\0\1", 5);
  EXPECT_EQ(printed([&] { trace(root, DNS_D_PKT_REQ); }).out, ";; trying .\n");
  const testbed::Output empty = printed([] { trace("", DNS_D_PKT_RPINV, some_query()); });
  EXPECT_EQ(empty.out, ";; response: for .\n;; invalid response\n");
  EXPECT_EQ(empty.err, ";; short packet (0 bytes)\n");

  std::string update = kAnswerHead;
  update[2] = '\x2a';  // opcode 5 and TC
  const testbed::Output odd = printed([&] { trace(update, DNS_D_PKT_RPINV); });
  EXPECT_TRUE(
      odd.err.starts_with(";; unexpected opcode 5\n;; warning: TC bit set, probably incomplete reply\n"
                          ";; ->>HEADER<<- opcode: UPDATE, status: NOERROR, id: 4660\n;; flags: tc ra;"));
  const testbed::Output cache = printed([] {
    trace(kAnswerHead, DNS_D_CU_AN);
    trace(kAnswerHead, DNS_D_CU_NOAN);
  });
  EXPECT_EQ(cache.out + cache.err, "");
}

// Records as texts: each must come out of the trace as it went into the zone file.
constexpr struct {
  int typ;
  const char *text;
} kRecords[] = {
    {1, "A\t192.0.2.1"},
    {2, "NS\tns.else.test."},
    {5, "CNAME\ta\\.b\\\"c\\@\\009.else.test."},
    {7, "MB\tmb.else.test."},
    {12, "PTR\t."},
    {13, "HINFO\t\"PDP 11\" \"RT\\\\11\""},
    {14, "MINFO\ta.test. b.test."},
    {15, "MX\t10 mx.else.test."},
    {16, "TXT\t\"plain\" \"q\\\"b\\\\s;\" \"\" \"\\000\\255\""},
    {17, "RP\tadmin.test. txt.test."},
    {18, "AFSDB\t1 afs.test."},
    {19, "X25\t\"311061700956\""},
    {20, "ISDN\t\"150862028003217\" \"004\""},
    {21, "RT\t10 relay.test."},
    {24, "SIG\tA 8 2 300 20300101000000 20200101000000 12345 test. AQIDBA=="},
    {25, "KEY\t256 3 8 AQID"},
    {26, "PX\t50 a.test. b.test."},
    {28, "AAAA\t2001:db8::1"},
    {33, "SRV\t1 2 8080 host.else.test."},
    {35, "NAPTR\t100 10 \"u\" \"E2U+sip\" \"!^.*$!sip:x@y!\" ."},
    {36, "KX\t10 kx.test."},
    {37, "CERT\t1 2 3 AQIDBAU="},
    {43, "DS\t60485 5 1 2BB183AF5F22588179A53B0A98631FAD1A292118"},
    {44, "SSHFP\t1 1 AABBCCDD"},
    {46, "RRSIG\tMX 8 2 300 20300101000000 20200101000000 12345 test. AQIDBA=="},
    {47, "NSEC\tnext.test. A MX RRSIG NSEC TYPE1234"},
    {48, "DNSKEY\t257 3 8 AQIDBAUG"},
    {49, "DHCID\tAAIBY2/AuCccgoJbsaxcQc9TUapptP69lOjxfNuVAA2kjEA="},
    {51, "NSEC3PARAM 1 0 12 -"},
    {52, "TLSA\t3 1 1 D2ABDE240D7CD3EE"},
    {99, "SPF\t\"v=spf1 -all\""},
    {256, "URI\t10 1 \"https://example.test/\""},
    {257, "CAA\t0 issue \"ca.test\""},
    {29, "LOC\t\\# 4 01020304"},
    {65400, "TYPE65400 \\# 3 ABCDEF"},
    {65401, "TYPE65401 \\# 0"},
};

// in_zone_file writes a record as the zone file has it: data that this system does not spell out, in the form for any
// type, so that the server takes it unseen.
std::string in_zone_file(int typ, const std::string &text) {
  const size_t data = text.find_first_of("\t ");
  const std::string name = "t" + std::to_string(typ) + " 300 IN ";
  if (text.find("\\# ") == std::string::npos) return name + text + "\n";
  return name + "TYPE" + std::to_string(typ) + text.substr(data) + "\n";
}

TEST(TraceRecords, ComeOutAsInAZoneFile) {
  std::string zone = "$ORIGIN rr.test.\n@ 300 IN SOA ns.rr.test. admin.rr.test. 1 2 3 4 5\n@ 300 IN NS ns.rr.test.\n";
  for (const auto &record : kRecords)
    zone += in_zone_file(record.typ, record.text);
  const auto server = testbed::start_nsd({{"rr.test", zone}});
  const std::unique_ptr<dns_ctx, void (*)(dns_ctx *)> ctx(dns_new(nullptr), dns_destroy);
  sockaddr_in at = testbed::loopback(server->port());
  ASSERT_EQ(dns_add_serv(ctx.get(), nullptr), 0);
  ASSERT_EQ(dns_add_serv_s(ctx.get(), address(&at)), 1);
  ASSERT_EQ(dns_open(ctx.get()), 0);
  dns_set_dbgfn(ctx.get(), kavo_dbgcb, nullptr);
  const auto shown = [&](const std::string &name, int typ) {
    return printed([&] { dns_free(dns_resolve_p(ctx.get(), name.c_str(), DNS_C_IN, typ, 0, dns_parse_pkt)); });
  };
  for (const auto &record : kRecords) {
    const std::string name = "t" + std::to_string(record.typ) + ".rr.test";
    const std::string line = name + ".\t\t300\tIN\t" + record.text;
    const testbed::Output trace = shown(name, record.typ);
    EXPECT_TRUE(has_line(trace.err, line)) << line << "\n" << trace.err;
  }
  EXPECT_TRUE(
      has_line(shown("none.rr.test", DNS_T_A).err, "rr.test.\t\t5\tIN\tSOA\tns.rr.test. admin.rr.test. 1 2 3 4 5"));
}

// full_answer holds records of many shapes, an OPT record among them.
std::string full_answer() {
  const std::string owner("\xC0\x0C", 2), fixed("\0\1\0\0\1\x2C", 6);
  const std::string whole("\7example\4test\0", 14);  // where no name may be compressed
  const auto record = [&](unsigned char typ, const std::string &data) {
    return owner + std::string(1, '\0') + static_cast<char>(typ) + fixed + '\0' + static_cast<char>(data.size()) + data;
  };
  std::string packet = kAnswerHead;
  packet[7] = '\x09';
  packet[11] = '\x01';
  packet += record(1, std::string("\xC0\0\2\1", 4));
  packet += record(2, "\2ns" + owner);
  packet += record(6, owner + owner + std::string(20, '\1'));
  packet += record(15, std::string("\0\x0A", 2) + owner);
  packet += record(16, std::string("\2ab\0\1\"", 6));
  packet += record(46, std::string("\0\1\x08\2\0\0\1\x2C\0\0\0\1\0\0\0\2\0\7", 18) + whole + "key");
  packet += record(47, whole + std::string("\0\3\x40\0\1\1\1\x80", 8));
  packet += record(50, std::string("\1\1\0\x0C\4\xAA\xBB\xCC\xDD\5\0\1\2\3\4\0\1\x40", 18));
  packet += record(1, "three");  // no address
  return packet + std::string("\0\0\x29\x04\xD0\1\0\x80\0\0\6\0\x0A\0\2\xAA\xBB", 17);
}

TEST(TraceLines, AnEventReachesStandardErrorInOnePiece) {
  sockaddr_in remote = testbed::loopback(5300), local = testbed::loopback(40000);
  const auto tell = [&] { trace(full_answer(), DNS_D_PKT_RPAN, some_query(), address(&remote), address(&local)); };
  const std::string text = printed(tell).err;
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, ends), 0);
  (void)printed([&] {
    dup2(ends[1], STDERR_FILENO);
    tell();
    tell();
  });
  close(ends[1]);
  std::vector<std::string> pieces;
  char piece[1 << 16];
  for (ssize_t size = 0; (size = read(ends[0], piece, sizeof piece)) > 0;)
    pieces.emplace_back(piece, static_cast<size_t>(size));
  close(ends[0]);
  EXPECT_EQ(pieces, (std::vector{text, text}));
}

TEST(TraceRecords, OfAFullAnswerAreInTheirSections) {
  const testbed::Output full = printed([] { trace(full_answer(), DNS_D_PKT_RPAN); });
  EXPECT_TRUE(has_line(full.err, ";; ->>HEADER<<- opcode: QUERY, status: BADVERS, id: 4660"));
  for (const char *line :
       {";; ANSWER SECTION:", "example.test.\t\t300\tIN\tMX\t10 example.test.",
        "example.test.\t\t300\tIN\tA\t\\# 5 7468726565", "example.test.\t\t300\tIN\tTXT\t\"ab\" \"\" \"\\\"\"",
        "example.test.\t\t300\tIN\tRRSIG\tA 8 2 300 19700101000001 19700101000002 7 example.test. a2V5",
        "example.test.\t\t300\tIN\tNSEC\texample.test. A NSAP-PTR URI",
        "example.test.\t\t300\tIN\tNSEC3\t1 1 12 AABBCCDD 000G40O4 A",
        ";; OPT PSEUDOSECTION:", "; EDNS: version: 0, flags: do; udp: 1232", "; OPT=10: AABB"})
    EXPECT_TRUE(has_line(full.err, line)) << line << "\n" << full.err;
  EXPECT_FALSE(has_line(full.err, ";; ADDITIONAL SECTION:"));
  const testbed::Output cut = printed([] { trace(full_answer().substr(0, 50), DNS_D_PKT_RPAN); });
  EXPECT_TRUE(has_line(cut.err, "example.test.\t\t300\tIN\tA\t192.0.2.1")) << "what is before the cut is shown";
}

constexpr const char *kZones =
    "zone example.test\n"
    "record @ NS ns1.example.test\nrecord @ NS ns2.example.test\nrecord @ NS ns3.example.test\n"
    "record ns1 A 127.0.0.11\nrecord ns1 A 127.0.0.12\nrecord ns3 A 127.0.0.13\n"
    "record www A 127.0.0.23\nrecord www A 127.0.0.21\nrecord www A 127.0.0.22\n"
    "record mail CNAME www.example.test\n"
    "record both AAAA 2001:db8::2\nrecord both A 127.0.0.31\nrecord both AAAA 2001:db8::1\n"
    "record six AAAA 2001:db8::6\n"
    "record apart NS mail.example.test\nrecord apart NS six.example.test\n"
    "record blind NS ns2.example.test\nrecord blind NS nowhere.example.test\n"
    "record text TXT \"only text\"\n"
    "zone dead.test\nfault dead\n";

using HostTraceTest = testbed::HostTest;

TEST_F(HostTraceTest, LookupHandsOutABlockOfItsOwnOrSaysWhyNot) {
  ListServer server(kZones);
  dns_ctx *ctx = dns_new(nullptr);
  sockaddr_in at = testbed::loopback(server.port());
  ASSERT_EQ(dns_add_serv(ctx, nullptr), 0);
  ASSERT_EQ(dns_add_serv_s(ctx, address(&at)), 1);
  const auto status_of = [ctx](const char *name, dns_parse_fn *parse = dns_parse_a4) {
    EXPECT_EQ(dns_resolve_p(ctx, name, DNS_C_IN, DNS_T_A, 0, parse), nullptr) << name;
    return dns_get_status(ctx);
  };
  EXPECT_EQ(status_of("www.example.test"), DNS_E_PERM);
  ASSERT_EQ(dns_open(ctx), 0);
  dns_rr_a4 *www = dns_resolve_a4(ctx, "www.example.test.", 0);
  dns_rr_a4 *mail = dns_resolve_a4(ctx, "mail.example.test", 0);
  auto *text =
      static_cast<dns_rr_txt *>(dns_resolve_p(ctx, "text.example.test", DNS_C_IN, DNS_T_TXT, 0, dns_parse_txt));
  auto *raw = static_cast<dns_rr_pkt *>(dns_resolve_p(ctx, "text.example.test", DNS_C_IN, DNS_T_TXT, 0, dns_parse_pkt));
  EXPECT_EQ(status_of("none.example.test", dns_parse_pkt), DNS_E_NXDOMAIN);
  EXPECT_EQ(status_of("text.example.test"), DNS_E_NODATA);
  EXPECT_EQ(status_of("a..b"), DNS_E_BADQUERY);
  EXPECT_EQ(status_of(nullptr), DNS_E_INVAL);
  EXPECT_EQ(status_of("www.example.test", nullptr), DNS_E_INVAL);
  ASSERT_EQ(dns_add_serv(ctx, nullptr), 0);
  EXPECT_EQ(status_of("www.example.test"), DNS_E_TEMPFAIL);
  dns_destroy(ctx);

  // The blocks outlive one another and the context.
  ASSERT_TRUE(www != nullptr && mail != nullptr && text != nullptr && raw != nullptr);
  EXPECT_EQ(www->dnsa4_nrr, 3);
  EXPECT_EQ(www->dnsa4_addr[0].s_addr, inet_addr("127.0.0.23"));
  EXPECT_STREQ(mail->dnsa4_qname, "mail.example.test");
  EXPECT_STREQ(mail->dnsa4_cname, "www.example.test");
  EXPECT_EQ(mail->dnsa4_addr[2].s_addr, inet_addr("127.0.0.22"));
  EXPECT_STREQ(text->dnstxt_txt[0].txt, "only text");
  EXPECT_GT(raw->dnspkt_psize, 12U);
  EXPECT_EQ(raw->dnspkt_pkt[7], 1);
  for (void *block :
       {static_cast<void *>(www), static_cast<void *>(mail), static_cast<void *>(text), static_cast<void *>(raw)})
    dns_free(block);
  EXPECT_EQ(dns_resolve_a4(nullptr, "www.example.test", 0), nullptr);
}

// The servers of a context, as "address:port" each.
std::vector<std::string> servers_of(KAVO kavo) {
  std::vector<sockaddr_storage> all(64);
  auto count = static_cast<unsigned>(all.size());
  EXPECT_EQ(kavo_get_dns_servers_ss(kavo, all.data(), &count), KAVOE_OK);
  std::vector<std::string> texts;
  for (unsigned i = 0; i < count; ++i) {
    std::array<char, NI_MAXHOST> host{}, port{};
    EXPECT_EQ(getnameinfo(reinterpret_cast<const sockaddr *>(&all[i]), sizeof all[i], host.data(), host.size(),
                          port.data(), port.size(), NI_NUMERICHOST | NI_NUMERICSERV),
              0);
    texts.push_back(std::string(host.data()) + ":" + port.data());
  }
  return texts;
}

using testbed::Texts;

TEST_F(HostTraceTest, ServersAreSetByAddressByHostAndByZone) {
  KAVO fresh = nullptr;
  ASSERT_EQ(kavo_init(&fresh, 1, 0, 0), KAVOE_OK);
  EXPECT_EQ(kavo_set_opt(fresh, KAVOOPT_DNS_PORT, 5353), KAVOE_OK);
  EXPECT_TRUE(servers_of(fresh).at(0).ends_with(":5353")) << "the system's servers have no port of their own";
  EXPECT_EQ(kavo_free(fresh), KAVOE_OK);

  ListServer server(kZones);
  const auto set = [&](const char *name, unsigned port, int direct, KAVO_ERR expected = KAVOE_OK) {
    Host host;
    host.server(server.port()).option(KAVOOPT_DNS_PORT, 5353);
    const size_t descriptors = testbed::open_descriptors();
    EXPECT_EQ(kavo_set_dns_server(host, name, port, direct), expected) << name;
    EXPECT_EQ(testbed::open_descriptors(), descriptors) << "what was opened for lookups is closed";
    return servers_of(host);
  };
  EXPECT_EQ(set("192.0.2.53", 0, 0), Texts{"192.0.2.53:5353"});
  EXPECT_EQ(set("192.0.2.53", 1, 0), Texts{"192.0.2.53:1"});
  EXPECT_EQ(set("192.0.2.53", 65534, 1), Texts{"192.0.2.53:65534"});
  EXPECT_EQ(set("2001:db8::53", 5300, 0), Texts{"2001:db8::53:5300"});
  EXPECT_EQ(set("fe80::1%lo", 0, 1), Texts{"fe80::1%lo:5353"});
  EXPECT_EQ(server.received(), 0U);
  EXPECT_EQ(set("www.example.test", 54, 1), (Texts{"127.0.0.23:54", "127.0.0.21:54", "127.0.0.22:54"}));
  EXPECT_EQ(set("mail.example.test", 0, 1), (Texts{"127.0.0.23:5353", "127.0.0.21:5353", "127.0.0.22:5353"}));
  EXPECT_EQ(set("example.test", 0, 0), (Texts{"127.0.0.11:5353", "127.0.0.12:5353", "127.0.0.13:5353"}));

  EXPECT_EQ(set("six.example.test", 54, 1), Texts{"2001:db8::6:54"});
  EXPECT_EQ(set("both.example.test", 54, 1), (Texts{"127.0.0.31:54", "2001:db8::2:54", "2001:db8::1:54"}));
  EXPECT_EQ(set("apart.example.test", 54, 0),
            (Texts{"127.0.0.23:54", "127.0.0.21:54", "127.0.0.22:54", "2001:db8::6:54"}));

  // A failed lookup leaves the list unchanged.
  const KAVO_ERR no_name = kavo_convert_status(DNS_E_BADQUERY);
  const struct {
    const char *name;
    unsigned port;
    int direct;
    KAVO_ERR error;
  } faults[] = {{"none.example.test", 0, 1, KAVOE_NXDOM},
                {"text.example.test", 0, 1, KAVOE_NODATA},
                {"www.example.test", 0, 0, KAVOE_NODATA},
                {"blind.example.test", 0, 0, KAVOE_NXDOM},
                {"a..b", 0, 1, no_name},
                {"", 0, 0, no_name},
                {"::zz", 0, 1, KAVOE_BADPAR},
                {"fe80::1", 0, 0, KAVOE_BADPAR},
                {"www.example.test", 65535, 1, KAVOE_BADPAR},
                {"www.example.test", 0, -1, KAVOE_BADPAR},
                {nullptr, 0, 0, KAVOE_BADPAR}};
  for (const auto &fault : faults)
    EXPECT_EQ(set(fault.name, fault.port, fault.direct, fault.error),
              Texts{"127.0.0.1:" + std::to_string(server.port())});
  EXPECT_EQ(kavo_set_dns_server(nullptr, "192.0.2.53", 0, 0), KAVOE_BADPAR);

  Host mute;
  EXPECT_EQ(kavo_dns_status(mute), KAVOE_OK);
  mute.server(server.port()).option(KAVOOPT_TIMEOUT_MSEC, 20).option(KAVOOPT_NTRIES, 2);
  EXPECT_EQ(kavo_set_dns_server(mute, "dead.test", 0, 0), KAVOE_TIMEOUT);
  EXPECT_EQ(kavo_dns_status(mute), KAVOE_TIMEOUT);
  // The transport is closed again: the context opens, answers, and refuses while it runs.
  mute.open();
  EXPECT_EQ(kavo_set_dns_server(mute, "192.0.2.53", 0, 0), KAVOE_SRV);
  EXPECT_EQ(testbed::Answers().ask(mute, KAVOT_DNS_TXT, "text.example.test", KAVOQF_RECURSIVE), Texts{"only text"});
}

TEST_F(HostTraceTest, AsManyServersAreTakenAsAContextHolds) {
  constexpr unsigned kMost = 32;
  std::string zones = "zone many.test\nrecord @ NS www.many.test\n";
  for (unsigned i = 1; i <= kMost + 1; ++i)
    zones += "record www A 127.0.0." + std::to_string(i) + "\n";
  zones += "zone one.test\nrecord @ NS ns.one.test\nrecord ns A 127.0.0.7\n";
  ListServer server(zones);
  for (const int direct : {1, 0}) {
    Host host;
    host.server(server.port());
    EXPECT_EQ(kavo_set_dns_server(host, direct != 0 ? "www.many.test" : "many.test", 53, direct),
              direct != 0 ? KAVOE_DNS : KAVOE_OK);
    EXPECT_EQ(servers_of(host).size(), kMost);
  }
  Host single;
  single.server(server.port());
  EXPECT_EQ(kavo_set_dns_server(single, "one.test", 53, 0), KAVOE_OK);
  EXPECT_EQ(servers_of(single), Texts{"127.0.0.7:53"});
  Host host;
  EXPECT_EQ(servers_of(host), Texts{});
  for (const char *bad : {"127.0.0", "::1x", "[::1]", "fe80::1", "fe80::1%", "fe80::1%no-such", "2001:db8::1%lo"})
    EXPECT_EQ(kavo_add_dns_server(host, bad, 1), KAVOE_BADPAR) << bad;
  for (const char *good : {"::ffff:0.0.0.0", "fe80::1%lo", "fe80::1%1", "::ffff:127.0.0.2", "::", "2001:DB8::0:1"})
    EXPECT_EQ(kavo_add_dns_server(host, good, 1), KAVOE_OK) << good;
  EXPECT_EQ(kavo_add_dns_server(host, "127.0.0.1", 65534), KAVOE_OK);
  EXPECT_EQ(kavo_add_dns_server(host, "127.0.0.1", 65535), KAVOE_BADPAR);
  EXPECT_EQ(servers_of(host), (Texts{"127.0.0.1:1", "fe80::1%lo:1", "fe80::1%lo:1", "127.0.0.2:1", "::1:1",
                                     "2001:db8::1:1", "127.0.0.1:65534"}));
  std::array<sockaddr_in, 3> few{};
  unsigned count = 2;
  EXPECT_EQ(kavo_get_dns_servers(host, address(few.data()), &count), KAVOE_NOMEM);
  EXPECT_EQ(count, 3U) << "those of IPv4";
  EXPECT_EQ(few[0].sin_family, 0) << "an array that is too small is left alone";
  EXPECT_EQ(kavo_get_dns_servers(host, address(few.data()), &count), KAVOE_OK);
  EXPECT_EQ(few[1].sin_addr.s_addr, inet_addr("127.0.0.2"));
  std::array<sockaddr_storage, 3> some{};
  EXPECT_EQ(kavo_get_dns_servers_ss(host, some.data(), &count), KAVOE_NOMEM);
  EXPECT_EQ(count, 7U);
  EXPECT_EQ(some[0].ss_family, 0);
  for (unsigned i = count; i < kMost; ++i)
    EXPECT_EQ(kavo_add_dns_server(host, "127.0.0.1", 1), KAVOE_OK);
  EXPECT_EQ(kavo_add_dns_server(host, "127.0.0.1", 1), KAVOE_DNS);
}

TEST_F(HostTraceTest, SeesTheTrafficWhileAnswersArrive) {
  ListServer server(kZones);
  std::vector<int> codes;  // the server thread's while the context runs
  Host host(64, 1 << 16);
  host.server(server.port());
  const auto note = [](dns_ctx *, dns_query *, int code, void *data, void *all) {
    static_cast<std::vector<int> *>(all)->push_back(code);
    if ((code & DNS_D_SYS) != 0) return;
    const auto *packet = static_cast<const dns_dpkt *>(data);
    EXPECT_TRUE(packet->dnsd_plen > 12 && packet->dnsd_sarem != nullptr && packet->dnsd_saloc != nullptr);
  };
  EXPECT_EQ(kavo_set_trace(nullptr, note, &codes), KAVOE_BADPAR);
  ASSERT_EQ(kavo_set_trace(host, note, &codes), KAVOE_OK);
  // The library still hears of its cache.
  for (const KAVO_CACHE_CODE found : {KAVOCC_NEXISTS, KAVOCC_EXISTS, KAVOCC_EXISTS}) {
    testbed::Answers answers;
    host.open();
    EXPECT_EQ(answers.ask(host, KAVOT_DNS_TXT, "text.example.test", KAVOQF_RECURSIVE), Texts{"only text"});
    EXPECT_EQ(answers[0].cache_code, found);
    ASSERT_EQ(kavo_close(host), KAVOE_OK);
    if (found == KAVOCC_EXISTS) kavo_set_trace(host, nullptr, nullptr);
  }
  EXPECT_EQ(codes, (std::vector<int>{DNS_D_CU_NOAN, DNS_D_PKT_REQ, DNS_D_PKT_RPAN, DNS_D_CU_AN}));
}

TEST_F(HostTraceTest, OfTheToolShowsEveryPacket) {
  ListServer server("zone list.test\nlist 192.0.2.10 127.0.0.4 \"bad\"\n");
  const std::string at = "127.0.0.1:" + std::to_string(server.port());
  std::vector<std::string> argv{KAVO_TOOL, "check", "--trace", "--zone", "list.test", "--server", at};
  argv.emplace_back("192.0.2.10");
  const testbed::Result result = testbed::run(argv);
  EXPECT_EQ(result.status, 1) << result.err;
  // Queries leave in random 0x20 case.
  std::string asked = result.out;
  std::transform(asked.begin(), asked.end(), asked.begin(), [](char c) { return static_cast<char>(tolower(c)); });
  EXPECT_TRUE(has_line(asked, ";; trying 10.2.0.192.list.test.")) << result.out;
  EXPECT_TRUE(has_line(result.out, ";; response: answer for 10.2.0.192.list.test."));
  EXPECT_NE(result.out.find("LISTED"), std::string::npos);
  EXPECT_TRUE(has_line(result.err, "10.2.0.192.list.test.\t300\tIN\tA\t127.0.0.4")) << result.err;
  EXPECT_TRUE(has_line(result.err, "10.2.0.192.list.test.\t300\tIN\tTXT\t\"bad\""));
  argv.emplace_back("--json");
  EXPECT_EQ(testbed::run(argv).status, 64);
}

}  // namespace
