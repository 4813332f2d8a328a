// kavo_context.h - an open context of kavo, as the clients use it.
#ifndef KAVO_BENCH_COMPARE_KAVO_CONTEXT_H
#define KAVO_BENCH_COMPARE_KAVO_CONTEXT_H

#include <hand_server.h>
#include <kavo.h>
#include <library.h>

#include <memory>
#include <vector>

#include "client.h"

namespace compare {

using bench::must;

inline constexpr size_t kCacheBytesEach = 1024;  // far more than an answer takes

// is_answered says whether a list's answer about an address came; a wrong one is thrown, and so is one that should have
// come from the cache but did not, or the other way round.
[[nodiscard]] bool is_answered(const KAVO_ANSWER &answer, uint32_t address, bool from_cache);

class Context {
 public:
  Context(const Task &task, uint16_t port);
  ~Context();
  Context(const Context &) = delete;
  Context &operator=(const Context &) = delete;

  [[nodiscard]] KAVO get() const { return kavo_; }
  [[nodiscard]] uint64_t packets_sent() const;

  // for_each_port returns a context for each port of the task, each with its thread on its worker's core.
  [[nodiscard]] static std::vector<std::shared_ptr<Context>> for_each_port(const Task &task);

 private:
  KAVO kavo_ = nullptr;
  sockaddr_storage server_;
};

}  // namespace compare

#endif  // KAVO_BENCH_COMPARE_KAVO_CONTEXT_H
