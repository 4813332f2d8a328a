// memory_test.cc - the memory of contexts and outstanding questions, as the allocator counts it, and a context whose
// allocations fail. The server is a socket that no process reads, so that every question stays outstanding.
#include <gtest/gtest.h>
#include <hand_server.h>
#include <host.h>
#include <kavo.h>
#include <malloc.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kCounts = false;  // the sanitizers' allocators count differently
#else
constexpr bool kCounts = true;
#endif

std::atomic<bool> nothing_grows = false;

}  // namespace

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
extern "C" void *__libc_realloc(void *block, size_t size);
extern "C" KAVO_EXPORT void *realloc(void *block, size_t size) {
  return nothing_grows.load() ? nullptr : __libc_realloc(block, size);
}
#endif

namespace {

size_t allocated() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

void open(testbed::Host *host, uint16_t port) {
  host->server(port).zone(KAVOT_BL_IP, "list.test").option(KAVOOPT_CLOSE_FAST, 1).option(KAVOOPT_TIMEOUT, 300);
  host->open();
}

// ask asks up to `questions` questions, as long as the context takes them.
std::vector<KAVO_QUERY_NODE> ask(KAVO kavo, size_t questions) {
  std::vector<KAVO_QUERY_NODE> nodes;
  KAVO_QUERY_NODE node = nullptr;
  for (in_addr address = {1}; nodes.size() < questions; ++address.s_addr) {
    if (kavo_subscribe_node(kavo, KAVOT_BL_IP, &address, sizeof address, 0, nullptr, &node) != KAVOE_OK) break;
    nodes.push_back(node);
  }
  return nodes;
}

void leave(KAVO kavo, const std::vector<KAVO_QUERY_NODE> &nodes) {
  for (KAVO_QUERY_NODE node : nodes)
    EXPECT_EQ(kavo_unsubscribe_node(kavo, node), KAVOE_OK);
  EXPECT_EQ(kavo_nactive(kavo), 0U);
}

TEST(Memory, ALargeTableCostsNothingBeforeItIsUsed) {
  if (!kCounts) GTEST_SKIP() << "the sanitizer's allocator does not count";
  const testbed::HandServer silence;
  const auto cost = [&](int table_size) {
    const size_t before = allocated();
    testbed::Host host(table_size);
    open(&host, silence.port());
    return allocated() - before;
  };
  (void)cost(64);
  EXPECT_LE(cost(100'000), cost(64) + 4096);
}

TEST(Memory, AnOutstandingQuestionCostsLessThanOneKibibyte) {
  constexpr int kQuestions = 10'000;
  constexpr size_t kBound = 1024;
  const testbed::HandServer silence;
  testbed::Host kavo(kQuestions);
  open(&kavo, silence.port());
  const size_t before = allocated();
  std::vector<KAVO_QUERY_NODE> nodes = ask(kavo, kQuestions);
  ASSERT_EQ(nodes.size(), size_t{kQuestions});
  ASSERT_EQ(kavo_wait_multiple_nodes(kavo, nodes.data(), kQuestions, KAVOWT_NONE, 1, nullptr, nullptr), KAVOE_OK);
  const size_t each = (allocated() - before) / kQuestions;
  RecordProperty("bytes_a_question", static_cast<int>(each));
  if (kCounts) {
    EXPECT_LT(each, kBound);
  }
  EXPECT_EQ(kavo_nactive(kavo), static_cast<uint32_t>(kQuestions));
  EXPECT_EQ(kavo_close(kavo), KAVOE_OK);
  const size_t held = allocated();
  kavo_free_args(kavo);
  EXPECT_EQ(allocated(), held) << "held nodes keep the room for their answers";
  leave(kavo, nodes);
  kavo_free_args(kavo);
  const size_t bare = allocated();
  kavo_add_args(kavo, kQuestions);
  if (kCounts) {
    EXPECT_LT(bare, held);
    EXPECT_GE(allocated(), bare + kQuestions * sizeof(KAVO_ANSWER));
  }
}

TEST(Memory, AContextThatRanOutOfItIsConfiguredAndOpenedAgain) {
  if (!kCounts) GTEST_SKIP() << "the sanitizer's allocator does not fail";
  constexpr int kQuestions = 1000;
  const testbed::HandServer silence;
  testbed::Host kavo(kQuestions);
  open(&kavo, silence.port());
  nothing_grows = true;  // the list of sockets, for one
  std::vector<KAVO_QUERY_NODE> lost = ask(kavo, kQuestions);
  // The thread that fails ends the waits for an answer and the waits for room.
  std::thread asker(
      [&] { (void)kavo_wait_multiple_nodes(kavo, lost.data(), kQuestions, KAVOWT_FULL, 1, nullptr, nullptr); });
  std::thread guest([&] {
    KAVO_QUERY_NODE none = nullptr;
    EXPECT_EQ(kavo_subscribe_syncnode(kavo, nullptr, &none), KAVOE_SRV);
  });
  asker.join();
  guest.join();
  EXPECT_EQ(kavo_srv_is_running(kavo), 0);
  nothing_grows = false;
  EXPECT_EQ(kavo_set_dns_server(kavo, "no..name", 0, 1), KAVOE_BADPAR);
  ASSERT_EQ(kavo_open(kavo), KAVOE_OK);
  leave(kavo, lost);
  std::vector<KAVO_QUERY_NODE> nodes = ask(kavo, kQuestions);
  EXPECT_EQ(kavo_wait_multiple_nodes(kavo, nodes.data(), kQuestions, KAVOWT_NONE, 1, nullptr, nullptr), KAVOE_OK);
  EXPECT_EQ(kavo_close(kavo), KAVOE_OK);
  leave(kavo, nodes);
}

}  // namespace
