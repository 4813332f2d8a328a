// memory_test.cc - what contexts and outstanding questions cost, as the allocator counts it. The server is a socket
// that nobody reads, so that every question stays outstanding.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <kavo.h>
#include <malloc.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kCounts = false;  // the sanitizers' allocators keep books of their own
#else
constexpr bool kCounts = true;
#endif

size_t allocated() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

class Silence {
 public:
  Silence() : socket_(::socket(AF_INET, SOCK_DGRAM, 0)) {
    address_.sin_family = AF_INET;
    address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address_;
    if (bind(socket_, reinterpret_cast<sockaddr *>(&address_), size) != 0 ||
        getsockname(socket_, reinterpret_cast<sockaddr *>(&address_), &size) != 0)
      ADD_FAILURE() << "no socket";
  }
  ~Silence() { close(socket_); }
  Silence(const Silence &) = delete;
  Silence &operator=(const Silence &) = delete;
  [[nodiscard]] uint16_t port() const { return ntohs(address_.sin_port); }

 private:
  int socket_;
  sockaddr_in address_{};
};

KAVO make(int table_size, uint16_t port) {
  KAVO kavo = nullptr;
  EXPECT_EQ(kavo_init(&kavo, table_size, 0, 0), KAVOE_OK);
  EXPECT_EQ(kavo_add_zone(kavo, KAVOT_BL_IP, "list.test"), KAVOE_OK);
  EXPECT_EQ(kavo_set_opt(kavo, KAVOOPT_CLOSE_FAST, 1), KAVOE_OK);
  EXPECT_EQ(kavo_set_opt(kavo, KAVOOPT_TIMEOUT, 300), KAVOE_OK);
  EXPECT_EQ(kavo_add_dns_server(kavo, nullptr, 0), KAVOE_OK);
  EXPECT_EQ(kavo_add_dns_server(kavo, "127.0.0.1", port), KAVOE_OK);
  EXPECT_EQ(kavo_open(kavo), KAVOE_OK);
  return kavo;
}

TEST(Memory, ALargeTableCostsNothingBeforeItIsUsed) {
  if (!kCounts) GTEST_SKIP() << "the sanitizer's allocator does not count";
  const Silence silence;
  const auto cost = [&](int table_size) {
    const size_t before = allocated();
    KAVO kavo = make(table_size, silence.port());
    const size_t after = allocated();
    EXPECT_EQ(kavo_close(kavo), KAVOE_OK);
    EXPECT_EQ(kavo_free(kavo), KAVOE_OK);
    return after - before;
  };
  (void)cost(64);
  EXPECT_LE(cost(100'000), cost(64) + 4096);
}

TEST(Memory, AnOutstandingQuestionCostsLessThanOneKibibyte) {
  constexpr int kQuestions = 10'000;
  constexpr size_t kBound = 1024;
  const Silence silence;
  KAVO kavo = make(kQuestions, silence.port());
  std::vector<KAVO_QUERY_NODE> nodes(kQuestions);
  const size_t before = allocated();
  for (int i = 0; i < kQuestions; ++i) {
    const in_addr address = {htonl(0x0A000000U + static_cast<uint32_t>(i))};
    ASSERT_EQ(
        kavo_subscribe_node(kavo, KAVOT_BL_IP, &address, sizeof address, 0, nullptr, &nodes[static_cast<size_t>(i)]),
        KAVOE_OK);
  }
  ASSERT_EQ(kavo_wait_multiple_nodes(kavo, nodes.data(), kQuestions, KAVOWT_NONE, 1, nullptr, nullptr), KAVOE_OK);
  const size_t each = (allocated() - before) / kQuestions;
  RecordProperty("bytes_a_question", static_cast<int>(each));
  if (kCounts) {
    EXPECT_LT(each, kBound);
  }
  EXPECT_EQ(kavo_nactive(kavo), static_cast<uint32_t>(kQuestions));
  EXPECT_EQ(kavo_close(kavo), KAVOE_OK);
  for (KAVO_QUERY_NODE node : nodes)
    EXPECT_EQ(kavo_unsubscribe_node(kavo, node), KAVOE_OK);
  EXPECT_EQ(kavo_nactive(kavo), 0U);
  EXPECT_EQ(kavo_free(kavo), KAVOE_OK);
}

}  // namespace
