// session.h - what every command shares: exit statuses, and a context of the library with the servers, timeouts and
// trace that the user asked for.
#ifndef KAVO_TOOLS_KAVO_SESSION_H
#define KAVO_TOOLS_KAVO_SESSION_H

#include <kavo.h>

#include <memory>
#include <string>
#include <vector>

#include "fault.h"
#include "large.h"

namespace tool {

// Exit statuses of every command; the first two say what was learned.
inline constexpr int kExitClear = 0;   // check: nothing is listed; others: all is well, every name has an answer
inline constexpr int kExitListed = 1;  // check: something is listed; others: a name has no answer, a file has faults
inline constexpr int kExitFailed = 2;  // a query failed, whatever else was learned
inline constexpr int kExitUsage = 64;  // EX_USAGE of sysexits.h

inline constexpr unsigned kTimeoutMs = 2000;
inline constexpr unsigned kTimeoutMsMax = 300000;  // the library's own bound

inline constexpr unsigned kWindowMax = 4096;  // the library's own bounds
inline constexpr unsigned kRateMax = 1'000'000;

inline constexpr size_t kSubjects = 1024;  // asked about at once: bounds memory whatever the list's length

// Network is how servers are asked.
struct Network {
  std::vector<std::string> servers;  // ADDRESS[:PORT] or [ADDRESS]:PORT; empty: the system's
  unsigned timeout_ms = kTimeoutMs;  // of one attempt
  unsigned window = kWindowMax;      // queries under way to one server
  unsigned rate = 0;                 // queries a second to one server; 0: no limit
  bool trace = false;
};

// Room is what a context is made for.
struct Room {
  int nodes = 1;
  int cache_bytes = 0;  // 0: no cache
  int zones = 1;        // of one type
};

// Context owns a context of the library.
class Context {
 public:
  explicit Context(const Room &room);
  ~Context();
  Context(const Context &) = delete;
  Context &operator=(const Context &) = delete;
  [[nodiscard]] KAVO kavo() const { return kavo_; }

 private:
  KAVO kavo_ = nullptr;
};

// Session is a context that asks servers. What the constructor does not set may be set before open(). Throws Usage for
// a server that is none.
class Session {
 public:
  Session(const Network &network, const Room &room);
  // keep_large has answers kept that are too large for the library, before open(); large() is null without.
  void keep_large();
  [[nodiscard]] LargeAnswers *large() const { return large_.get(); }
  void open();
  [[nodiscard]] KAVO kavo() const { return context_.kavo(); }
  // wait_ms returns how long to wait for an answer among `outstanding` queries: for all attempts, and some, after what
  // the window and the rate hold back.
  [[nodiscard]] unsigned wait_ms(size_t outstanding) const;

 private:
  std::unique_ptr<LargeAnswers> large_;  // outlives the context, which tells it of packets
  Context context_;
  Network network_;
};

}  // namespace tool

#endif  // KAVO_TOOLS_KAVO_SESSION_H
