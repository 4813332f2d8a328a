// unbound_client.cc - libunbound through its event interface, with libevent: a context that forwards to the responder
// and does nothing on its way there but what forwarding needs (no DNSSEC, no threads or processes of its own).
#include <event2/event.h>
#include <sys/resource.h>
#include <unbound-event.h>
#include <unbound.h>

#include <algorithm>

#include "callback_client.h"

namespace compare {
namespace {

constexpr const char *kName = "libunbound";
constexpr int kTypeA = 1, kClassIn = 1;
constexpr unsigned kDescriptorsSpare = 64;
constexpr unsigned kPortsMax = 16'000;    // each question under way has a socket of its own
constexpr size_t kCacheBytesEach = 2048;  // far more than an answer takes
constexpr size_t kCacheBytesLeast = 1 << 20;

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

class Unbound : public CallbackClient {
 public:
  Unbound(const Task &task, uint16_t port)
      : CallbackClient(kName, task), base_(event_base_new()), context_(ub_ctx_create_event(base_)) {
    if (context_ == nullptr) throw std::runtime_error("ub_ctx_create_event");
    const unsigned window = task.window() * task.zones;
    const rlim_t descriptors = allow_descriptors() / task.threads;
    const auto ports = std::min<rlim_t>({window + kDescriptorsSpare, kPortsMax, descriptors - kDescriptorsSpare});
    const std::string cache = std::to_string(std::max(kCacheBytesLeast, task.subjects * kCacheBytesEach));
    set("module-config:", "iterator");
    set("do-not-query-localhost:", "no");
    set("do-ip6:", "no");
    set("outgoing-range:", std::to_string(ports));
    set("num-queries-per-thread:", std::to_string(2 * window));
    set("msg-cache-size:", cache);
    set("rrset-cache-size:", cache);
    must(ub_ctx_set_fwd(context_, ("127.0.0.1@" + std::to_string(port)).c_str()), "ub_ctx_set_fwd");
    // It answers for names below test itself, unless told not to.
    must(ub_ctx_zone_add(context_, "test.", "transparent"), "ub_ctx_zone_add");
  }
  ~Unbound() override {
    ub_ctx_delete(context_);
    event_base_free(base_);
  }
  Unbound(const Unbound &) = delete;
  Unbound &operator=(const Unbound &) = delete;

 private:
  void set(const char *option, const std::string &value) {
    must(ub_ctx_set_option(context_, option, value.c_str()), option);
  }

  void start(const char *name, Asked *asked) override {
    must(ub_resolve_event(context_, name, kTypeA, kClassIn, asked, on_end, nullptr), "ub_resolve_event");
  }

  static void on_end(void *arg, int rcode, void *packet, int size, int, char *, int) {
    auto *asked = static_cast<Asked *>(arg);
    Says says = Says::nothing;
    if (rcode == 0) {
      const std::span bytes(static_cast<const uint8_t *>(packet), static_cast<size_t>(size));
      says = read_answer(bytes, question_end(bytes));
    }
    static_cast<Unbound *>(asked->self)->end(asked, says);
  }

  void turn() override { event_base_loop(base_, EVLOOP_ONCE); }

  event_base *base_;
  ub_ctx *context_;
};

}  // namespace

Team make_unbound(const Task &task) {
  Team team;
  for (unsigned t = 0; t < task.threads; ++t)
    team.push_back(std::make_unique<Unbound>(task, task.port_of(t)));
  return team;
}

}  // namespace compare
