// unbound_client.cc - libunbound through its event interface, with libevent: a context that forwards to the server and
// does nothing on its way there but what forwarding needs (no DNSSEC, no threads or processes of its own).
#include <event2/event.h>
#include <sys/resource.h>
#include <unbound-event.h>
#include <unbound.h>

#include <algorithm>
#include <memory>
#include <span>
#include <stdexcept>

#include "task.h"

namespace stock {
namespace {

constexpr int kTypeA = 1, kTypeTxt = 16, kClassIn = 1;
constexpr size_t kRcodeAt = 3;
constexpr int kRcodeBits = 0x0f;
constexpr unsigned kDescriptorsSpare = 64;
constexpr rlim_t kPortsMax = 16'000;  // each question under way has a socket of its own

void must(int status, const char *what) {
  if (status != 0) throw std::runtime_error(std::string(what) + ": " + ub_strerror(status));
}

// allow_descriptors raises this process's limit as far as it may, and returns it.
rlim_t allow_descriptors() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  return limit.rlim_cur;
}

class Unbound {
 public:
  explicit Unbound(const Task &task) : task_(task), base_(event_base_new()), context_(ub_ctx_create_event(base_)) {
    if (context_ == nullptr) throw std::runtime_error("ub_ctx_create_event");
    const rlim_t ports =
        std::min<rlim_t>({task.at_once() + kDescriptorsSpare, kPortsMax, allow_descriptors() - kDescriptorsSpare});
    set("module-config:", "iterator");
    set("do-not-query-localhost:", "no");
    set("do-ip6:", "no");
    set("outgoing-range:", std::to_string(ports));
    set("num-queries-per-thread:", std::to_string(2 * task.at_once()));
    must(ub_ctx_set_fwd(context_, ("127.0.0.1@" + std::to_string(task.port)).c_str()), "ub_ctx_set_fwd");
    // It answers for names below test itself, unless told not to.
    must(ub_ctx_zone_add(context_, "test.", "transparent"), "ub_ctx_zone_add");
  }
  ~Unbound() {
    ub_ctx_delete(context_);
    event_base_free(base_);
  }
  Unbound(const Unbound &) = delete;
  Unbound &operator=(const Unbound &) = delete;

  Outcome ask() {
    for (unsigned next = 0; next < task_.count || under_way_ > 0;) {
      for (; next < task_.count && under_way_ < task_.at_once(); ++next)
        start(task_.query(next));
      if (under_way_ > 0) event_base_loop(base_, EVLOOP_ONCE);
      if (!fault_.empty()) throw std::runtime_error("libunbound: " + fault_);
    }
    return {failed_, {}};
  }

 private:
  struct Asked {
    Unbound *self;
    Query query;
  };

  void set(const char *option, const std::string &value) {
    must(ub_ctx_set_option(context_, option, value.c_str()), option);
  }

  void start(const Query &query) {
    ++under_way_;
    must(ub_resolve_event(context_, query.name().c_str(), query.reason ? kTypeTxt : kTypeA, kClassIn,
                          new Asked{this, query}, on_end, nullptr),
         "ub_resolve_event");
  }

  // No exception may pass through the library.
  static void on_end(void *arg, int rcode, void *packet, int size, int, char *, int) {
    const std::unique_ptr<Asked> asked(static_cast<Asked *>(arg));
    Unbound *self = asked->self;
    --self->under_way_;
    try {
      // Without a failure of its own, the response code is that of the packet.
      const std::span bytes(static_cast<const uint8_t *>(packet), static_cast<size_t>(size));
      const bool came = rcode == 0 && bytes.size() > kRcodeAt;
      if (!came || !is_right(asked->query, bytes[kRcodeAt] & kRcodeBits, bytes)) ++self->failed_;
    } catch (const std::exception &error) {
      self->fault_ = error.what();
    }
  }

  const Task &task_;
  event_base *base_;
  ub_ctx *context_;
  unsigned under_way_ = 0, failed_ = 0;
  std::string fault_;
};

}  // namespace

Outcome ask_with_unbound(const Task &task) {
  return Unbound(task).ask();
}

}  // namespace stock
