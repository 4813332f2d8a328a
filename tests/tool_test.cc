// tool_test.cc - the command `kavo` in a shell, against the list server: what it prints, and its exit status.
#include <gtest/gtest.h>
#include <hand_server.h>
#include <kavo.h>
#include <list_server.h>
#include <name_daemons.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using nlohmann::json;
using testbed::ListServer;
using testbed::Result;
using testbed::TempDir;

constexpr const char *kLists = R"(
zone one.test
default 127.0.0.2 "listed, see https://one.test/why"
list 192.0.2.10
list 192.0.2.11 127.0.0.2,127.0.0.4 "two codes"
list 2001:db8::/32 127.0.0.3
list spam.test
list *.spam.test
list evil.test 127.0.0.2 "colour \me"
zone two.test
list 192.0.2.10 127.0.0.5
zone dead.test
fault dead
zone broken.test
list 192.0.2.1 127.255.255.252
list 192.0.2.2 127.255.255.253
list 192.0.2.3 127.255.255.254 "Error: open resolver"
list 192.0.2.4 127.255.255.255
list 192.0.2.5 127.0.0.1
list 192.0.2.6 203.0.113.80
list 192.0.2.7 127.0.0.2,203.0.113.80
zone servfail.test
fault wrong=servfail
zone cname.test
record 10.2.0.192 CNAME 10.2.0.192.two.test
zone plain.test
ttl 60
record @ A 192.0.2.2
record @ A 192.0.2.1
record @ MX 20 mx2.plain.test
record @ MX 10 mail.plain.test
record @ TXT "say \"\\\" \me" "ü"
record _sip._tcp SRV 1 2 5060 sip.plain.test
record www CNAME plain.test.
ttl 1
record brief A 192.0.2.9
zone 2.0.192.in-addr.arpa
record 10 PTR ten.plain.test
zone 8.b.d.0.1.0.0.2.ip6.arpa
record 1.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0 PTR six.plain.test
zone unruly.test
fault reorder=5 dup=20
list 192.0.2.0/25
list 2001:db8::/32
)";

std::vector<json> json_lines(const std::string &text) {
  std::vector<json> lines;
  for (size_t begin = 0, end; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1)
    lines.push_back(json::parse(text.substr(begin, end - begin)));
  return lines;
}

class ToolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string lists = std::string(kLists) + "zone wide.test\n";
    for (int i = 0; i < 70; ++i)
      lists += "record @ A 192.0.2." + std::to_string(i) + "\n";
    for (int i = 0; i < 16; ++i)
      lists += "record @ MX " + std::to_string(i) + " a-mail-exchanger-with-a-name-of-some-length.wide.test\n";
    server_ = std::make_unique<ListServer>(lists, std::vector<std::string>{"--seed", "7"});
    address_ = "127.0.0.1:" + std::to_string(server_->port());
  }

  Result check(std::vector<std::string> words, const std::string &input = "") {
    return ask({"check"}, std::move(words), input);
  }

  Result query(std::vector<std::string> words, const std::string &input = "") {
    return ask({"query"}, std::move(words), input);
  }

  // Runs a command against the list server.
  Result ask(const std::vector<std::string> &command, std::vector<std::string> words, const std::string &input = "") {
    std::vector<std::string> argv{KAVO_TOOL};
    argv.insert(argv.end(), command.begin(), command.end());
    argv.insert(argv.end(), {"--server", address_, "--timeout", "200"});
    argv.insert(argv.end(), words.begin(), words.end());
    return testbed::run(std::move(argv), input);
  }

  // The zone objects of one subject, by zone.
  std::map<std::string, json> zones_of(std::vector<std::string> words, int status) {
    words.push_back("--json");
    const Result result = check(std::move(words));
    EXPECT_EQ(result.status, status) << result.err;
    std::map<std::string, json> zones;
    const json object = json::parse(result.out);
    for (const json &zone : object["zones"])
      zones[zone["zone"]] = zone;
    return zones;
  }

  TempDir dir_;
  std::unique_ptr<ListServer> server_;
  std::string address_;
};

TEST_F(ToolTest, SaysWhichListsHoldASubjectAndWhy) {
  auto zones = zones_of({"--zone", "one.test", "--zone", "two.test", "192.0.2.11"}, 1);
  EXPECT_EQ(zones["one.test"]["status"], "listed");
  EXPECT_EQ(zones["one.test"]["addresses"], json({"127.0.0.2", "127.0.0.4"}));
  EXPECT_EQ(zones["one.test"]["reasons"], json({"two codes"}));
  EXPECT_TRUE(zones["one.test"]["error"].is_null());
  EXPECT_EQ(zones["two.test"]["status"], "not-listed");
  EXPECT_EQ(zones["two.test"]["addresses"], json::array());

  EXPECT_EQ(zones_of({"--zone", "one.test", "2001:db8::25"}, 1)["one.test"]["addresses"], json({"127.0.0.3"}));
  EXPECT_EQ(zones_of({"--zone", "one.test", "2001:db9::25"}, 0)["one.test"]["status"], "not-listed");
  EXPECT_EQ(zones_of({"--zone", "one.test", "::ffff:192.0.2.10"}, 1)["one.test"]["status"], "listed");
  EXPECT_EQ(zones_of({"--zone", "one.test", "Mail.SPAM.test."}, 1)["one.test"]["status"], "listed");
  EXPECT_EQ(zones_of({"--zone", "one.test", "m\xc3\xbcll.test"}, 0)["one.test"]["status"], "not-listed");
  EXPECT_EQ(zones_of({"--zone", "cname.test", "192.0.2.10"}, 1)["cname.test"]["addresses"], json({"127.0.0.5"}));
}

TEST_F(ToolTest, AddressesThatAreNoListingsAreShownAsRefusedOrBroken) {
  for (const char *subject :
       {"192.0.2.1", "192.0.2.2", "192.0.2.3", "192.0.2.4", "192.0.2.5", "192.0.2.6", "192.0.2.7"}) {
    SCOPED_TRACE(subject);
    auto zones = zones_of({"--zone", "broken.test", "--zone", "one.test", subject}, 2);
    EXPECT_EQ(zones["broken.test"]["status"], "refused");
    EXPECT_EQ(zones["broken.test"]["error"].get<std::string>().find("refused or broken: "), 0U);
    EXPECT_EQ(zones["one.test"]["status"], "not-listed");
  }
}

TEST_F(ToolTest, AListThatCannotBeAskedHidesNothingThatOthersSay) {
  auto zones = zones_of({"--zone", "dead.test", "--zone", "servfail.test", "--zone", "one.test", "192.0.2.10"}, 2);
  EXPECT_EQ(zones["dead.test"]["status"], "failed");
  EXPECT_EQ(zones["dead.test"]["error"], "no answer in time");
  EXPECT_EQ(zones["servfail.test"]["status"], "failed");
  EXPECT_NE(zones["servfail.test"]["error"], zones["dead.test"]["error"]);
  EXPECT_EQ(zones["one.test"]["status"], "listed");
}

TEST_F(ToolTest, EveryServerIsAskedWhenTheOthersAreDead) {
  std::vector<std::string> argv{KAVO_TOOL, "check", "--timeout", "200", "--zone", "one.test"};
  for (const char *dead : {"127.0.0.2:9", "127.0.0.3:9", "127.0.0.4:9", "127.0.0.5:9"})
    argv.insert(argv.end(), {"--server", dead});
  argv.insert(argv.end(), {"--server", address_, "192.0.2.10"});
  EXPECT_EQ(testbed::run(argv).status, 1);
}

TEST_F(ToolTest, ServersOfIpv6AreAskedInEveryForm) {
  if (!testbed::ipv6_works()) GTEST_SKIP() << "this machine has no ::1";
  const auto daemon = testbed::start_rbldnsd({{"six.test", "ip4set", "192.0.2.10 :127.0.0.6:six\n"}}, "::1");
  const std::string port = std::to_string(daemon->port());
  for (const std::string &server : {"[::1]:" + port, "[0:0::1]:" + port, "[::]:" + port}) {
    const Result result = testbed::run({KAVO_TOOL, "check", "--trace", "--server", "127.0.0.2:9", "--server", server,
                                        "--timeout", "200", "--zone", "six.test", "192.0.2.10"});
    EXPECT_EQ(result.status, 1) << server << result.err;
    EXPECT_NE(result.err.find("response from <<unknown socket type 10>>"), std::string::npos) << result.err;
    EXPECT_NE(result.out.find("127.0.0.6"), std::string::npos) << result.out;
  }
  for (const char *server : {"::1", "fe80::1%lo"})
    EXPECT_NE(testbed::run({KAVO_TOOL, "query", "--server", server, "--timeout", "1", "six.test"}).status, 64)
        << server;
}

// Nothing of the library may take the place of a standard stream that the caller closed.
TEST_F(ToolTest, ClosedStreamsAreFaultsAndNotSockets) {
  const std::string command = KAVO_TOOL " check --server " + address_ + " --zone one.test ";
  const Result in = testbed::run({"/bin/sh", "-c", command + "- <&-"});
  EXPECT_EQ(in.status, 2);
  EXPECT_NE(in.err.find("Bad file descriptor"), std::string::npos) << in.err;
  EXPECT_EQ(testbed::run({"/bin/sh", "-c", command + "192.0.2.10 >&-"}).status, 2);
  EXPECT_EQ(testbed::run({"/bin/sh", "-c", command + "192.0.2.10 2>&-"}).status, 1);
}

TEST_F(ToolTest, TableHasOneHeaderAlignedColumnsAndNoColourOutsideATerminal) {
  const Result result = check({"--zone", "one.test", "--zone", "two.test", "192.0.2.10", "evil.test", "203.0.113.7"});
  EXPECT_EQ(result.status, 1) << result.err;
  EXPECT_EQ(result.out,
            "SUBJECT      ZONE      RESULT      ADDRESS               REASON\n"
            "192.0.2.10   one.test  LISTED      127.0.0.2             listed, see https://one.test/why\n"
            "             two.test  LISTED      127.0.0.5\n"
            "evil.test    one.test  LISTED      127.0.0.2             colour me\n"
            "             two.test  not listed  -\n"
            "203.0.113.7  one.test  not listed  -\n"
            "             two.test  not listed  -\n"
            "\n2 of 3 subjects listed\n");
}

TEST_F(ToolTest, ZonesFileSaysWhatIsAsked) {
  const std::string file =
      dir_.write("zones.txt", "#IP\none.test\n\nignored\n#IP_TXT\ntwo.test\n\n#IP_TXT\none.test\n\n#MX\nmx.test\n");
  auto zones = zones_of({"--zones", file, "192.0.2.10"}, 1);
  EXPECT_EQ(zones.size(), 1U);  // the second #IP_TXT took the place of the first
  EXPECT_EQ(zones["one.test"]["reasons"].size(), 1U);

  const std::string plain = dir_.write("plain.txt", "#IP\none.test\n");
  EXPECT_EQ(zones_of({"--zones", plain, "192.0.2.10"}, 1)["one.test"]["reasons"].size(), 0U);
  EXPECT_EQ(zones_of({"--zones", plain, "--zone", "two.test", "192.0.2.10"}, 1).size(), 2U);

  // A file that can be read only once.
  EXPECT_EQ(check({"--zones", "/dev/stdin", "192.0.2.10"}, "#IP\none.test\n").status, 1);

  const Result domain = check({"--zones", plain, "spam.test"});
  EXPECT_EQ(domain.status, 2);
  EXPECT_NE(domain.out.find("no zone for domain names is configured"), std::string::npos) << domain.out;
}

TEST_F(ToolTest, LongListFromStandardInputOverAnUnrulyListComesBackWholeAndInOrder) {
  std::string input;
  constexpr int kSubjects = 5000;
  for (int i = 0; i < kSubjects; ++i)
    input += "192.0." + std::to_string(i / 250) + "." + std::to_string(i % 250) + "\r\n\n";
  input += "not a name\n2001:db8::25";
  const Result result = check({"--json", "--zone", "unruly.test", "-", "192.0.2.10"}, input);
  EXPECT_EQ(result.status, 2) << result.err;
  const std::vector<json> lines = json_lines(result.out);
  ASSERT_EQ(lines.size(), kSubjects + 3U);
  EXPECT_EQ(lines[510]["subject"], "192.0.2.10");
  for (int i = 0; i < kSubjects; ++i) {
    const bool listed = i >= 500 && i < 628;
    ASSERT_EQ(lines[static_cast<size_t>(i)]["zones"][0]["status"], listed ? "listed" : "not-listed") << i;
  }
  EXPECT_EQ(lines[kSubjects]["kind"], "invalid");
  EXPECT_EQ(lines[kSubjects + 1]["zones"][0]["status"], "listed");
  EXPECT_EQ(lines[kSubjects + 2]["subject"], "192.0.2.10");
}

TEST_F(ToolTest, AWindowAndARateSlowAListDownAndFailNothing) {
  constexpr int kSubjects = 40;
  std::string input;
  for (int i = 0; i < kSubjects; ++i)
    input += "192.0.2." + std::to_string(100 + i) + "\n";
  const auto begin = std::chrono::steady_clock::now();
  const Result result = check({"--json", "--window", "1", "--rate", "60", "--zone", "plain.test", "-"}, input);
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(json_lines(result.out).size(), size_t{kSubjects});
  const uint64_t received = server_->received();
  EXPECT_GE(received, 2U * kSubjects) << "an address and a reason each";
  EXPECT_LE(static_cast<double>(received), 60 * took.count() + 3);
  EXPECT_EQ(query({"--window", "1", "--rate", "1000000", "plain.test"}).status, 0);
  EXPECT_EQ(ask({"cache", "save"}, {"--window", "1", "--rate", "1000", dir_.file("dump"), "plain.test"}).status, 0);
}

TEST_F(ToolTest, FaultsOfTheCommandLineAreOneLineWithStatus64) {
  const std::string wrong = dir_.write("wrong.txt", "#IP\none.test\n#Ip\n");
  const std::string crlf = dir_.write("crlf.txt", "#IP\r\none.test\r\n");
  const std::string label = dir_.write("label.txt", "#IP\n" + std::string(64, 'a') + ".test\n");
  const std::string others = dir_.write("others.txt", "#MX\none.test\n");
  const std::string zone = "--zone=one.test";
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases{
      {{zone}, "nothing to ask"},
      {{"192.0.2.1"}, "no zones"},
      {{"--zones", others, "192.0.2.1"}, "no zones"},
      {{"--zones", dir_.file("missing"), "192.0.2.1"}, "No such file"},
      {{"--zones", dir_.path(), "192.0.2.1"}, "directory"},
      {{"--zones", wrong, "192.0.2.1"}, "line 3"},
      {{"--zones", crlf, "192.0.2.1"}, "carriage return"},
      {{"--zones", label, "192.0.2.1"}, "line 2"},
      {{"--zone", "a..b", "192.0.2.1"}, "is no zone name"},
      {{zone, "--server", "localhost", "192.0.2.1"}, "\"localhost\" is no IP address"},
      {{zone, "--server", "127.0.0.1:65536", "192.0.2.1"}, "port"},
      {{zone, "--server", "127.0.0.1:", "192.0.2.1"}, "port"},
      {{zone, "--server", "[::1]:", "192.0.2.1"}, "port"},
      {{zone, "--server", "[::1]5300", "192.0.2.1"}, "port"},
      {{zone, "--server", "[::1:5300", "192.0.2.1"}, "brackets"},
      {{zone, "--server", "[127.0.0.1]:5300", "192.0.2.1"}, "brackets"},
      {{zone, "--server", "2001:db8::g", "192.0.2.1"}, "\"2001:db8::g\" is no IP address"},
      {{zone, "--server", "2001:db8::1%lo", "192.0.2.1"}, "only a link-local address"},
      {{zone, "--server", "fe80::1", "192.0.2.1"}, "needs its interface"},
      {{zone, "--server", "[fe80::1%no-such]:5300", "192.0.2.1"}, "\"fe80::1%no-such\" names an interface"},
      {{zone, "--timeout", "0", "192.0.2.1"}, "timeout"},
      {{zone, "--window", "0", "192.0.2.1"}, "--window: Value 0 not in range"},
      {{zone, "--window", "4097", "192.0.2.1"}, "--window: Value 4097 not in range"},
      {{zone, "--rate", "1000001", "192.0.2.1"}, "--rate: Value 1000001 not in range"},
      {{zone, "--rate", "-1", "192.0.2.1"}, "--rate"},
      {{zone, "--unknown", "192.0.2.1"}, "--unknown"},
      {{zone, "192.0.2.256"}, "neither an address nor a domain name"},
      {{zone, "a b"}, "blank"},
      {{zone, "192.0.2.0/24"}, "it holds a /"},
      {{zone, "user@spam.test"}, "it holds a @"},
      {{zone, "https://spam.test/"}, "neither an address nor a domain name"},
      {{"--zone", "https://one.test", "192.0.2.1"}, "is no zone name"},
      {{zone, "2001:db8:::"}, "is no IPv6 address"},
      {{zone, std::string(64, 'a')}, "label"},
      {{zone, ""}, "empty"},
  };
  for (const auto &[words, fault] : cases) {
    const Result result = check(words);
    EXPECT_EQ(result.status, 64) << fault << result.out;
    EXPECT_NE(result.err.find(fault), std::string::npos) << fault << " not in: " << result.err;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    EXPECT_EQ(result.out, "");
  }
}

TEST_F(ToolTest, QueryPrintsTheRecordsOfEachTypeInAnswerOrder) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases{
      {{"plain.test"}, "192.0.2.2\n192.0.2.1\n"},
      {{"--type", "dns_mx", "www.plain.test"}, "20 mx2.plain.test.\n10 mail.plain.test.\n"},
      {{"--type", "SRV", "_sip._tcp.plain.test."}, "1 2 5060 sip.plain.test.\n"},
      {{"--type", "TXT", "plain.test"}, "\"say \\\"\\\\\\\" me\\195\\188\"\n"},
      {{"--type", "TYPE5", "www.plain.test"}, "plain.test.\n"},
      {{"--type", "PTR", "192.0.2.10", "2001:db8::1"}, "192.0.2.10\tten.plain.test.\n2001:db8::1\tsix.plain.test.\n"},
  };
  for (const auto &[words, out] : cases) {
    const Result result = query(words);
    EXPECT_EQ(result.out, out) << result.err;
    EXPECT_EQ(result.status, 0) << out;
  }

  const Result mixed = query({"--json", "-", "dead.test"}, "www.plain.test\nnone.plain.test\n\nno name\n");
  EXPECT_EQ(mixed.status, 2);
  const std::vector<json> lines = json_lines(mixed.out);
  ASSERT_EQ(lines.size(), 4U) << mixed.out;
  EXPECT_EQ(lines[0]["canonical"], "plain.test.");
  EXPECT_EQ(lines[0]["ttl"], 60);
  EXPECT_EQ(lines[0]["answers"], json({{{"address", "192.0.2.2"}}, {{"address", "192.0.2.1"}}}));
  EXPECT_EQ(lines[1]["status"], "nxdomain");
  EXPECT_EQ(lines[2]["name"], "no name");
  EXPECT_EQ(lines[3]["error"], "no answer in time");

  const Result nothing = query({"--type", "AAAA", "plain.test", "none.plain.test"});
  EXPECT_EQ(nothing.status, 1);
  EXPECT_EQ(nothing.out, "");
  EXPECT_EQ(nothing.err, "kavo query: plain.test: no AAAA records\nkavo query: none.plain.test: no such name\n");
}

TEST_F(ToolTest, RawQueryShowsThePacketOfAnyType) {
  const Result soa = query({"--type", "SOA", "plain.test"});
  EXPECT_EQ(soa.status, 64);
  EXPECT_NE(soa.err.find("--raw"), std::string::npos);
  const Result raw = query({"--raw", "--type", "SOA", "plain.test", "none.plain.test"});
  EXPECT_EQ(raw.status, 1) << raw.err;
  for (const char *part : {"status: NOERROR", ";; ANSWER SECTION:\nplain.test.", "IN\tSOA\tns.plain.test.",
                           "status: NXDOMAIN", ";; AUTHORITY SECTION:"}) {
    EXPECT_NE(raw.out.find(part), std::string::npos) << part << " not in:\n" << raw.out;
  }
  // The library hands out no block above 1024 bytes; the tool still shows the answer.
  EXPECT_NE(query({"--raw", "wide.test"}).out.find("ANSWER: 70,"), std::string::npos);
  const Result wide = query({"--type", "MX", "wide.test", "WIDE.test"});
  EXPECT_EQ(wide.status, 0) << wide.err;
  EXPECT_EQ(std::count(wide.out.begin(), wide.out.end(), '\n'), 32);

  const json object = json::parse(query({"--raw", "--json", "--type", "TYPE16", "plain.test"}).out);
  EXPECT_NE(object["packet"].get<std::string>().find("05706c61696e0474657374"), std::string::npos) << object;
}

// The library is the judge, whatever the tool makes of a file.
TEST_F(ToolTest, ZonesCommandAgreesWithTheLibraryOnEveryFile) {
  std::vector<std::string> words{"#IP\n",    "#IP_TXT\n", "#NS\n", "#ip\n",    "# IP\n", "#MX\r\n",
                                 "a.test\n", "b.test\n",  "\n",    "a..b\r\n", "#IP"};
  for (const auto &[count, letter] : {std::pair(1, '\0'), {254, 'x'}, {255, '#'}})
    words.push_back(std::string(static_cast<size_t>(count), letter) + (count == 1 ? "" : "\n"));
  std::minstd_rand random(11);
  int refused = 0;
  for (int i = 0; i < 60; ++i) {
    std::string text;
    for (size_t lines = random() % 12; lines > 0; --lines)
      text += words[random() % (i % 3 == 0 ? words.size() : 10)];
    const std::string file = dir_.write("zones.txt", text);
    KAVO kavo = nullptr;
    ASSERT_EQ(kavo_init_ext(&kavo, 1, 0, 2, 0), KAVOE_OK);
    const bool accepted = kavo_zonesmap_init_cfg(kavo, file.c_str()) == KAVOE_OK;
    kavo_free(kavo);
    refused += accepted ? 0 : 1;
    const Result result = testbed::run({KAVO_TOOL, "zones", "--json", "--max-zones", "2", file});
    ASSERT_EQ(result.status, accepted ? 0 : 1) << text;
    const json object = json::parse(result.out);
    EXPECT_EQ(object["faults"].empty(), accepted) << text;
    for (const json &fault : object["faults"])
      EXPECT_FALSE(fault["line"].is_null()) << "a fault that only the library found: " << fault << "\n" << text;
  }
  EXPECT_GT(refused, 10);
  EXPECT_LT(refused, 50);
}

TEST_F(ToolTest, ZonesCommandNamesEveryFaultByItsLineOrCountsTheZones) {
  const auto zones = [](std::vector<std::string> words, const std::string &input = "") {
    words.insert(words.begin(), {KAVO_TOOL, "zones"});
    return testbed::run(std::move(words), input);
  };
  const std::string bad = dir_.write("bad", "lost.test\n#IP\na..b\n\n#Ip\nx\n#MX\n1\n2\n3\n#NS\r\n");
  const Result faults = zones({"--max-zones", "2", bad});
  EXPECT_EQ(faults.status, 1);
  for (const char *part : {":1: warning: \"lost.test\" is ignored", ":3: warning: \"a..b\" is no zone name",
                           ":5: fault: \"#Ip\" is no section", ":10: fault: \"3\" is the 3rd zone of #MX",
                           ":11: fault: the line ends in a carriage return"}) {
    EXPECT_NE(faults.out.find(bad + part), std::string::npos) << part << " not in:\n" << faults.out;
  }
  EXPECT_EQ(std::count(faults.out.begin(), faults.out.end(), '\n'), 5);
  const Result good = zones({"/dev/stdin"}, "#IP\na.test\nb.test\n\n#MX\na.test\n");
  EXPECT_EQ(good.status, 0) << good.err;
  EXPECT_EQ(good.out, "/dev/stdin: 3 zones in 2 sections\n  #IP               2\n  #MX               1\n");
  EXPECT_EQ(zones({dir_.file("missing")}).status, 64);
  EXPECT_EQ(zones({dir_.path()}).status, 64);
}

TEST_F(ToolTest, SavedCacheAnswersWithoutAServerAndContinuesAgeing) {
  const std::string dump = dir_.file("dump");
  const auto cache = [&](const char *command, std::vector<std::string> words) {
    words.insert(words.begin(), {KAVO_TOOL, "cache", command, "--json", dump});
    const Result result = testbed::run(std::move(words));
    return std::make_pair(result.status, json_lines(result.out));
  };
  const Result saved =
      ask({"cache", "save"}, {dump, "-", "brief.plain.test", "dead.test"}, "www.plain.test\nno.plain.test\n");
  EXPECT_EQ(saved.status, 2);
  EXPECT_EQ(saved.err, "kavo cache save: dead.test: no answer in time\n");
  EXPECT_EQ(saved.out, dump + ": 4 names asked, 3 answers saved\n");
  server_->stop();

  auto loaded = cache("load", {"www.plain.test", "NO.plain.test", "brief.plain.test", "dead.test"});
  for (int i = 0; i < 100 && loaded.second.at(2)["state"] != "expired"; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    loaded = cache("load", {"www.plain.test", "NO.plain.test", "brief.plain.test", "dead.test"});
  }
  const std::vector<json> &found = loaded.second;
  EXPECT_EQ(loaded.first, 1);
  EXPECT_EQ(found[0]["state"], "alive");
  EXPECT_EQ(found[0]["canonical"], "plain.test.");
  EXPECT_EQ(found[0]["answers"].size(), 2U);
  EXPECT_LT(found[0]["ttl"], 60);
  EXPECT_EQ(found[1]["status"], "nxdomain");
  EXPECT_EQ(found[2]["answers"], json({{{"address", "192.0.2.9"}}}));
  EXPECT_LT(found[2]["ttl"], 0);
  EXPECT_EQ(found[3]["state"], "absent");
  EXPECT_EQ(cache("load", {"www.plain.test"}).first, 0);

  std::map<std::string, json> shown;
  for (const json &entry : cache("show", {}).second)
    shown[entry["name"]] = entry;
  ASSERT_EQ(shown.size(), 3U);
  EXPECT_EQ(shown["www.plain.test."]["records"][0]["data"], "plain.test.");
  EXPECT_EQ(shown["no.plain.test."]["status"], "nxdomain");
  EXPECT_EQ(shown["brief.plain.test."]["state"], "expired");
  const Result text = testbed::run({KAVO_TOOL, "cache", "show", dump});
  EXPECT_NE(text.out.find("; brief.plain.test. A: expired "), std::string::npos) << text.out;
  EXPECT_TRUE(text.out.ends_with("; 3 entries: 2 alive, 1 expired\n")) << text.out;

  EXPECT_EQ(truncate(dump.c_str(), 150), 0);
  EXPECT_EQ(cache("load", {"www.plain.test"}), std::make_pair(2, std::vector<json>()));
  EXPECT_EQ(cache("show", {}), std::make_pair(2, std::vector<json>()));
}

TEST(ToolTestPlain, VersionHelpAndNoCommand) {
  const Result version = testbed::run({KAVO_TOOL, "--version"});
  EXPECT_EQ(version.status, 0);
  EXPECT_EQ(version.out, "kavo 4.3.1\n");
  const Result help = testbed::run({KAVO_TOOL, "check", "--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.out.find("Exit status"), std::string::npos);
  EXPECT_EQ(testbed::run({KAVO_TOOL}).status, 64);
}

TEST(ToolTestPlain, ListServerRefusesOtherAddressesAndFaultyFiles) {
  const TempDir dir;
  const std::string server = testbed::listserver_path();
  const std::string good = dir.write("good", "zone a.test\n");
  EXPECT_EQ(testbed::run({server, "--address", "0.0.0.0", good}).status, 1);
  for (const char *text : {"zone a.test\nrecord x MX ten y\n", "zone a.test\nlist x 127.0.0.2 \"open\n"})
    EXPECT_NE(testbed::run({server, dir.write("bad", text)}).err.find(", line 2"), std::string::npos) << text;
}

}  // namespace
