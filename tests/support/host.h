// host.h - what the tests of the library from outside share: a host program's context, deadlines and answers as
// objects, the list server with its packet counter, and a watch over the log.
#ifndef KAVO_TESTS_SUPPORT_HOST_H
#define KAVO_TESTS_SUPPORT_HOST_H

#include <gtest/gtest.h>
#include <kavo.h>

#include <netinet/in.h>

#include <cstdint>
#include <initializer_list>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support/process.h"

namespace support {

// Long enough for the slowest machine: no test waits this long unless it fails.
inline constexpr unsigned kLongMs = 60'000;
// For waits that are meant to run out.
inline constexpr unsigned kShortMs = 60;
inline constexpr uint32_t kNeverMs = 300'000;  // a time-out that no test sits through

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
inline constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer) || __has_feature(address_sanitizer)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif
#else
inline constexpr bool kSanitized = false;
#endif

// Deadline is a moment so many milliseconds from its making, handed to the library as a pointer.
class Deadline {
 public:
  explicit Deadline(unsigned ms) { kavo_get_deadline(ms, &at_); }
  operator const timeval *() const { return &at_; }

 private:
  timeval at_{};
};

// Host owns a context, from kavo_init_ext to kavo_free, with no servers but those that it is given.
class Host {
 public:
  explicit Host(int table_size = 64, int cache_size = 0, int max_zones = 8);
  ~Host();
  Host(const Host &) = delete;
  Host &operator=(const Host &) = delete;

  operator KAVO() const { return kavo_; }
  Host &server(uint16_t port);  // of 127.0.0.1, after those that are there
  Host &zone(KAVO_TYPE type, const char *name);
  Host &option(KAVO_OPT option, uint32_t value);
  Host &patient();  // waits for an answer until it is closed, which fails what is open
  Host &open();

 private:
  KAVO kavo_ = nullptr;
};

// Node is one hold on a node; dropped at the end unless drop() did it before.
class Node {
 public:
  Node(KAVO kavo, KAVO_TYPE type, const std::string &subject, unsigned flags = 0);
  explicit Node(KAVO kavo);  // a sync node
  ~Node() { drop(); }
  Node(const Node &) = delete;
  Node &operator=(const Node &) = delete;

  operator KAVO_QUERY_NODE() const { return node_; }
  void drop();
  [[nodiscard]] KAVO_ERR wait(KAVO_WAIT_LEVEL level, unsigned ms = kLongMs) const;

 private:
  KAVO kavo_;
  KAVO_QUERY_NODE node_ = nullptr;
};

// Answers is an array of answers of the caller's, for kavo_copy_answer and kavo_query.
class Answers {
 public:
  Answers() = default;
  ~Answers();
  Answers(const Answers &) = delete;
  Answers &operator=(const Answers &) = delete;

  KAVO_ERR copy(KAVO kavo, KAVO_QUERY_NODE node);
  KAVO_ERR query(KAVO kavo, KAVO_TYPE type, std::string_view subject, unsigned flags = 0, unsigned timeout = kLongMs,
                 KAVO_WAIT_LEVEL level = KAVOWT_FULL);
  [[nodiscard]] int size() const { return written_; }
  [[nodiscard]] const KAVO_ANSWER *data() const { return data_; }
  const KAVO_ANSWER &operator[](int i) const { return data_[i]; }
  // The answers' texts in their order, as render() writes them.
  [[nodiscard]] std::vector<std::string> texts() const;

 private:
  KAVO_ANSWER *data_ = nullptr;
  int length_ = 0;
  int written_ = 0;
};

// render writes an answer down for comparison: its records, sorted and joined by commas, or the name of its error.
[[nodiscard]] std::string render(const KAVO_ANSWER &answer);
// in_place reads a node's answers through an iterator: the texts of what it yields now; empty when it cannot be set.
[[nodiscard]] std::vector<std::string> in_place(KAVO kavo, KAVO_QUERY_NODE node,
                                                std::vector<KAVO_ANSWER> *all = nullptr);

[[nodiscard]] sockaddr_in loopback(uint16_t port);
[[nodiscard]] std::string address_bytes(const char *dotted);
[[nodiscard]] size_t open_descriptors();

// ListServer runs kavo-listserver on a zones file with faults of the whole server ("drop=2").
class ListServer {
 public:
  explicit ListServer(std::string_view zones, std::vector<std::string> faults = {});
  [[nodiscard]] uint16_t port() const { return port_; }
  // received returns how many questions have reached the server; those whose answers have come back are among them.
  [[nodiscard]] uint64_t received();
  void stop() { process_.stop(); }

 private:
  TempDir directory_;
  Process process_;
  uint16_t port_ = 0;
  size_t asked_ = 0;  // how many times the counts were asked for
};

// HandServer is a name server that answers when the test has it do so.
class HandServer {
 public:
  struct Query {
    std::vector<uint8_t> packet;  // empty when none came within kLongMs
    sockaddr_in from;
  };

  HandServer();
  ~HandServer();
  HandServer(const HandServer &) = delete;
  HandServer &operator=(const HandServer &) = delete;
  [[nodiscard]] uint16_t port() const { return port_; }
  [[nodiscard]] Query receive() const;
  void deny(const Query &query) const;  // NXDOMAIN

 private:
  int socket_;
  uint16_t port_ = 0;
};

// expect_all checks that calls which the library must refuse have all ended alike; the first is number 0.
template <typename Result>
void expect_all(Result expected, std::initializer_list<Result> results) {
  for (const Result &result : results)
    EXPECT_EQ(result, expected) << "call " << &result - results.begin();
}

// HostTest fails a test in which the library logged a failed assertion.
class HostTest : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  // complaints_about returns the lines of warnings and worse that hold a text.
  [[nodiscard]] static std::vector<std::string> complaints_about(std::string_view text);
};

// LiveAndDeadTest has a server with a list that answers and one that keeps its questions open.
class LiveAndDeadTest : public HostTest {
 protected:
  ListServer server_{"zone live.list\nlist 192.0.2.0/24\nzone dead.list\nfault dead\n"};
};

}  // namespace support

#endif  // KAVO_TESTS_SUPPORT_HOST_H
