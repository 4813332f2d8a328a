// The command `kavo` asked from a shell, against the list server: what it prints, and the exit status that a script
// sees.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/process.h"

namespace {

using nlohmann::json;
using support::Process;
using support::Result;
using support::TempDir;

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
zone unruly.test
fault reorder=5 dup=20
list 192.0.2.0/25
list 2001:db8::/32
)";

class ToolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    server_ = std::make_unique<Process>(
        std::vector<std::string>{KAVO_TOOLS_DIR "/kavo-listserver", "--seed", "7", dir_.write("lists.txt", kLists)});
    const auto line = server_->wait_line("listening on ");
    ASSERT_TRUE(line) << server_->output().err;
    address_ = "127.0.0.1:" + std::to_string(support::port_in(*line));
  }

  Result check(std::vector<std::string> words, const std::string &input = "") {
    std::vector<std::string> argv{KAVO_TOOLS_DIR "/kavo", "check", "--server", address_, "--timeout", "200"};
    argv.insert(argv.end(), words.begin(), words.end());
    return support::run(std::move(argv), input);
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
  std::unique_ptr<Process> server_;
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
  std::vector<std::string> argv{KAVO_TOOLS_DIR "/kavo", "check", "--timeout", "200", "--zone", "one.test"};
  for (const char *dead : {"127.0.0.2:9", "127.0.0.3:9", "127.0.0.4:9", "127.0.0.5:9"})
    argv.insert(argv.end(), {"--server", dead});
  argv.insert(argv.end(), {"--server", address_, "192.0.2.10"});
  EXPECT_EQ(support::run(argv).status, 1);
}

// Nothing of the library may take the place of a standard stream that the caller closed.
TEST_F(ToolTest, ClosedStreamsAreFaultsAndNotSockets) {
  const std::string command = KAVO_TOOLS_DIR "/kavo check --server " + address_ + " --zone one.test ";
  const Result in = support::run({"/bin/sh", "-c", command + "- <&-"});
  EXPECT_EQ(in.status, 2);
  EXPECT_NE(in.err.find("Bad file descriptor"), std::string::npos) << in.err;
  EXPECT_EQ(support::run({"/bin/sh", "-c", command + "192.0.2.10 >&-"}).status, 2);
  EXPECT_EQ(support::run({"/bin/sh", "-c", command + "192.0.2.10 2>&-"}).status, 1);
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
  std::vector<json> lines;
  for (size_t begin = 0, end; (end = result.out.find('\n', begin)) != std::string::npos; begin = end + 1) {
    lines.push_back(json::parse(result.out.substr(begin, end - begin)));
  }
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
      {{zone, "--server", "localhost", "192.0.2.1"}, "is no IPv4 address"},
      {{zone, "--server", "127.0.0.1:65536", "192.0.2.1"}, "port"},
      {{zone, "--server", "127.0.0.1:", "192.0.2.1"}, "port"},
      {{zone, "--server", "::1", "192.0.2.1"}, "only IPv4"},
      {{zone, "--timeout", "0", "192.0.2.1"}, "timeout"},
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

TEST(ToolTestPlain, VersionHelpAndNoCommand) {
  const Result version = support::run({KAVO_TOOLS_DIR "/kavo", "--version"});
  EXPECT_EQ(version.status, 0);
  EXPECT_EQ(version.out, "kavo 4.3.1\n");
  const Result help = support::run({KAVO_TOOLS_DIR "/kavo", "check", "--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.out.find("Exit status"), std::string::npos);
  EXPECT_EQ(support::run({KAVO_TOOLS_DIR "/kavo"}).status, 64);
}

TEST(ToolTestPlain, ListServerRefusesOtherAddressesAndFaultyFiles) {
  const TempDir dir;
  const std::string server = KAVO_TOOLS_DIR "/kavo-listserver";
  const std::string good = dir.write("good", "zone a.test\n");
  EXPECT_EQ(support::run({server, "--address", "0.0.0.0", good}).status, 1);
  for (const char *text : {"list 192.0.2.1\n", "zone a.test\nlist 192.0.2.1/24\n", "zone a.test\nlist x 1.2.3\n",
                           "zone a.test\nrecord x MX ten y\n", "zone a.test\nzone A.test\n", "fault drop=101\n",
                           "zone a.test\nlist x 127.0.0.2 \"open\n", "zone a..b\n"}) {
    const Result result = support::run({server, dir.write("bad", text)});
    EXPECT_EQ(result.status, 1) << text;
    EXPECT_NE(result.err.find(", line "), std::string::npos) << result.err;
  }
}

}  // namespace
