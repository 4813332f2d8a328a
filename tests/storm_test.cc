// storm_test - many threads, a small table and a bad network at once: eight host threads ask random questions of a
// server that loses 2 answers in 100, doubles some and reorders the rest. The right answer follows from the question,
// so that an answer to the wrong question shows.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <host_test.h>
#include <kavo.h>
#include <malloc.h>

#include <array>
#include <atomic>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using testbed::Deadline;
using testbed::Host;
using testbed::kSanitized;
using testbed::ListServer;

constexpr int kThreads = 8;
constexpr int kTable = 64;
constexpr int kBatch = 12;  // questions of one thread at once; all threads together want more than the table holds
constexpr int kRounds = 2;
constexpr int kQuestions = kSanitized ? 20'000 : 100'000;  // of one round
constexpr int kQuestionsCached = kQuestions / 5;
// An attempt is lost when its answer comes later than this; a slow build must not lose any.
constexpr uint32_t kTryMs = kSanitized ? 400 : 40;
constexpr uint32_t kTries = 50;
constexpr unsigned kRoomMs = 20;  // how long a thread waits for room in the table before it drops its own nodes
constexpr unsigned kIdleMax = testbed::kLongMs / kRoomMs;
constexpr unsigned kHotSubjects = 16;
constexpr size_t kHeapSlack = 256 << 10;  // what a round may leave in caches of the allocator

constexpr unsigned kListedNet = 10;  // addresses of 10.x are listed by x, those of 11.x are not
constexpr unsigned kOctets = 256;
constexpr unsigned kDomains = 256;  // names below d0 to d127 are listed, those below d128 to d255 are not

// The code of the first list for an address of 10.octet, and the code of the second for even octets.
unsigned first_code(unsigned octet) {
  return 2 + octet % 250;
}

std::string zones_file() {
  std::string first = "zone first.storm\n", second = "zone second.storm\n", names = "zone names.storm\n";
  for (unsigned octet = 0; octet < kOctets; ++octet) {
    const std::string net = "list 10." + std::to_string(octet) + ".0.0/16 127.0.";
    first += net + "0." + std::to_string(first_code(octet)) + "\n";
    if (octet % 2 == 0) second += net + "1." + std::to_string(octet) + "\n";
    if (octet < kDomains / 2)
      names += "list *.d" + std::to_string(octet) + ".example 127.0.2." + std::to_string(octet) + "\n";
  }
  return first + second + names;
}

// A question and what each of its zones must answer: the address as text, empty for a name that is not listed.
struct Question {
  KAVO_TYPE type = KAVOT_INVALID;
  std::string subject;
  std::vector<std::string> names;  // with the zones
  std::vector<std::string> codes;
  KAVO_QUERY_NODE node = nullptr;
};

Question address_question(unsigned number) {
  const unsigned net = kListedNet + (number & 1), octet = number >> 1 & 0xff;
  const unsigned third = number >> 9 & 0xff, fourth = number >> 17 & 0xff;
  const auto join = [](std::array<unsigned, 4> octets) {
    std::string text;
    for (const unsigned part : octets)
      text += (text.empty() ? "" : ".") + std::to_string(part);
    return text;
  };
  const std::string reversed = join({fourth, third, octet, net});
  const bool listed = net == kListedNet;
  return {KAVOT_BL_IP,
          join({net, octet, third, fourth}),
          {reversed + ".first.storm", reversed + ".second.storm"},
          {listed ? "127.0.0." + std::to_string(first_code(octet)) : "",
           listed && octet % 2 == 0 ? "127.0.1." + std::to_string(octet) : ""}};
}

Question domain_question(unsigned number) {
  const unsigned domain = number % kDomains;
  const std::string name = "h" + std::to_string(number) + ".d" + std::to_string(domain) + ".example";
  return {
      KAVOT_BL_DOM, name, {name + ".names.storm"}, {domain < kDomains / 2 ? "127.0.2." + std::to_string(domain) : ""}};
}

Question random_question(std::mt19937 *chance) {
  const auto number = static_cast<unsigned>((*chance)());
  // One question in eight is one of a few that all threads ask, so that they share nodes.
  const unsigned subject = number % 8 == 0 ? (number >> 3) % kHotSubjects : static_cast<unsigned>((*chance)());
  return number >> 31 == 0 ? address_question(subject) : domain_question(subject);
}

bool right(const KAVO_ANSWER &answer, const Question &question, size_t zone) {
  const std::string &code = question.codes[zone];
  if (code.empty()) return answer.err_code == KAVOE_NXDOM;
  return testbed::render(answer) == code && question.names[zone] == answer.rr.rr_a->dnsa4_qname;
}

class Asker {
 public:
  Asker(KAVO kavo, unsigned seed, std::atomic<int> *left) : kavo_(kavo), chance_(seed), left_(left) {}
  ~Asker() { kavo_free_answer_iterator(iterator_); }

  void run() {
    for (unsigned idle = 0; *left_ > 0; idle = held_.empty() ? idle + 1 : 0) {
      if (idle > kIdleMax) return blame({}, "the table stays full");
      finish();
      gather();
    }
    finish();
  }
  [[nodiscard]] int wrong() const { return wrong_; }
  [[nodiscard]] int asked() const { return asked_; }
  [[nodiscard]] const std::string &first_wrong() const { return first_wrong_; }

 private:
  // Takes up to a random number of nodes, fewer when the table is full.
  void gather() {
    const size_t wanted = 1 + chance_() % kBatch;
    while (held_.size() < wanted) {
      Question question = random_question(&chance_);
      const KAVO_ERR result =
          kavo_subscribe_node_p(kavo_, question.type, question.subject.c_str(), 0, Deadline(kRoomMs), &question.node);
      if (result == KAVOE_TIMEOUT) break;
      if (result != KAVOE_OK) return blame(question, "subscribe " + std::to_string(result));
      held_.push_back(std::move(question));
    }
  }

  void finish() {
    for (Question &question : held_) {
      const KAVO_ERR result = kavo_wait_node(kavo_, question.node, KAVOWT_FULL, Deadline(testbed::kLongMs));
      if (result != KAVOE_OK)
        blame(question, "wait " + std::to_string(result));
      else
        check(question);
      if (kavo_unsubscribe_node(kavo_, question.node) != KAVOE_OK) blame(question, "unsubscribe");
      ++asked_;
      --*left_;
    }
    held_.clear();
  }

  void check(const Question &question) {
    if (kavo_set_answer_iterator(kavo_, question.node, iterator_) != KAVOE_OK) return blame(question, "no answers");
    size_t zone = 0;
    for (; const KAVO_ANSWER *answer = kavo_get_answer(kavo_, iterator_); ++zone) {
      if (zone >= question.codes.size() || !right(*answer, question, zone))
        return blame(question, "answer " + testbed::render(*answer) + " of zone " + std::to_string(answer->zone));
    }
    if (zone != question.codes.size()) blame(question, std::to_string(zone) + " answers");
  }

  void blame(const Question &question, const std::string &what) {
    if (wrong_++ == 0) first_wrong_ = question.subject + ": " + what;
  }

  KAVO kavo_;
  std::mt19937 chance_;
  std::atomic<int> *left_;
  KAVO_ANSWER_ITERATOR iterator_ = kavo_alloc_answer_iterator();
  std::vector<Question> held_;
  int asked_ = 0;
  int wrong_ = 0;
  std::string first_wrong_;
};

void storm(uint16_t port, unsigned round, int questions, int cache_size) {
  Host host(kTable, cache_size);
  host.server(port).option(KAVOOPT_TIMEOUT_MSEC, kTryMs).option(KAVOOPT_NTRIES, kTries);
  host.zone(KAVOT_BL_IP, "first.storm").zone(KAVOT_BL_IP, "second.storm").zone(KAVOT_BL_DOM, "names.storm").open();
  std::atomic<int> left{questions};
  std::vector<std::unique_ptr<Asker>> askers;
  std::vector<std::jthread> threads;
  for (unsigned i = 0; i < kThreads; ++i)
    askers.push_back(std::make_unique<Asker>(host, round * kThreads + i + 1, &left));
  for (const auto &asker : askers)
    threads.emplace_back(&Asker::run, asker.get());
  threads.clear();
  int asked = 0;
  for (const auto &asker : askers) {
    EXPECT_EQ(asker->wrong(), 0) << asker->first_wrong();
    asked += asker->asked();
  }
  EXPECT_GE(asked, questions);
  EXPECT_EQ(kavo_nactive(host), 0u);
  // No place in the table has been lost either.
  std::vector<std::unique_ptr<testbed::Node>> places;
  for (int i = 0; i < kTable; ++i)
    places.push_back(std::make_unique<testbed::Node>(host));
}

class StormTest : public testbed::HostTest {
 protected:
  // Runs equal rounds and checks that the second leaves no more memory allocated than the first.
  void rounds(int questions, int cache_size) {
    ListServer server(zones_file(), {"--fault", "drop=2,dup=1,reorder=2"});
    size_t heap = 0, descriptors = 0;
    for (unsigned round = 0; round < kRounds; ++round) {
      storm(server.port(), round, questions, cache_size);
      const size_t heap_now = mallinfo2().uordblks, descriptors_now = testbed::open_descriptors();
      if (round == 0) descriptors = descriptors_now;
      EXPECT_EQ(descriptors_now, descriptors);
      // Sanitizers bring an allocator of their own; the leak sanitizer looks at the end of its run.
      EXPECT_TRUE(round == 0 || kSanitized || heap_now < heap + kHeapSlack) << heap << " bytes, then " << heap_now;
      heap = heap_now;
    }
    EXPECT_GT(server.received(), static_cast<uint64_t>(questions));
  }
};

TEST_F(StormTest, EveryAnswerIsTheRightOne) {
  rounds(kQuestions, 0);
}

TEST_F(StormTest, EveryAnswerIsTheRightOneThroughASmallCache) {
  constexpr int kSmallCache = 64 << 10;  // entries give way all the time
  rounds(kQuestionsCached, kSmallCache);
}

}  // namespace
