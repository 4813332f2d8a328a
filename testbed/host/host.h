// host.h - what a host program has: a context, deadlines and nodes, as objects.
#ifndef KAVO_TESTBED_HOST_H
#define KAVO_TESTBED_HOST_H

#include <kavo.h>

#include <cstdint>
#include <string>

namespace testbed {

// Long enough for the slowest machine: no test waits this long unless it fails.
inline constexpr unsigned kLongMs = 60'000;
// For waits that are meant to run out.
inline constexpr unsigned kShortMs = 60;
inline constexpr uint32_t kNeverMs = 300'000;  // a timeout longer than any test

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
  Host &server(uint16_t port, const char *address = "127.0.0.1");  // after those that are there
  Host &zone(KAVO_TYPE type, const char *name);
  Host &option(KAVO_OPT option, uint32_t value);
  Host &long_timeout();  // no attempt times out before the context is closed, which fails what is open
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

}  // namespace testbed

#endif  // KAVO_TESTBED_HOST_H
