// kavo_client.cc - a host that asks all questions through the library's public interface, and waits for each in turn.
#include <arpa/inet.h>
#include <hand_server.h>
#include <kavo.h>
#include <library.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string_view>
#include <thread>
#include <utility>

#include "task.h"

namespace stock {
namespace {

using bench::must;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kSampleStep{2};

int64_t now_us() {
  return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch()).count();
}

class Context {
 public:
  Context(const Task &task, unsigned nodes) : server_(testbed::loopback(task.port)) {
    must(kavo_init_ext(&kavo_, static_cast<int>(nodes), 0, static_cast<int>(task.zones), 0), "kavo_init_ext");
    for (unsigned n = 0; n < task.zones; ++n) {
      must(kavo_add_zone(kavo_, KAVOT_BL_IP, bench::zone(n).c_str()), "kavo_add_zone");
      must(kavo_add_zone(kavo_, KAVOT_BL_IP_TXT, bench::zone(n).c_str()), "kavo_add_zone");
    }
    must(kavo_add_dns_server(kavo_, nullptr, 0), "kavo_add_dns_server");
    must(kavo_add_dns_server(kavo_, "127.0.0.1", task.port), "kavo_add_dns_server");
    must(kavo_open(kavo_), "kavo_open");
  }
  ~Context() {
    kavo_close(kavo_);
    kavo_free(kavo_);
  }
  Context(const Context &) = delete;
  Context &operator=(const Context &) = delete;

  operator KAVO() const { return kavo_; }
  // answers returns how many answers have come; 0 before the server was asked.
  [[nodiscard]] uint64_t answers() const {
    uint64_t used = 0;
    return kavo_get_serv_nused(kavo_, reinterpret_cast<const sockaddr *>(&server_), &used) == KAVOE_OK ? used : 0;
  }

 private:
  KAVO kavo_ = nullptr;
  sockaddr_in server_;
};

// Sampler notes the number of answers until its end.
class Sampler {
 public:
  Sampler(const Context &context, bool wanted) : context_(context) {
    if (wanted) thread_ = std::thread(&Sampler::run, this);
  }
  ~Sampler() { (void)end(); }
  Sampler(const Sampler &) = delete;
  Sampler &operator=(const Sampler &) = delete;

  std::vector<Sample> end() {
    ended_ = true;
    if (!thread_.joinable()) return {};
    thread_.join();
    note();
    return std::move(samples_);
  }

 private:
  void note() { samples_.push_back({now_us(), context_.answers()}); }
  void run() {
    for (; !ended_; std::this_thread::sleep_for(kSampleStep))
      note();
  }

  const Context &context_;
  std::atomic<bool> ended_ = false;
  std::vector<Sample> samples_;
  std::thread thread_;
};

// is_right judges a list's answer as the function for packets does.
bool is_right(const Query &query, const KAVO_ANSWER &answer) {
  if (answer.err_code != KAVOE_OK && answer.err_code != KAVOE_NXDOM) return false;
  if (!query.reason) {
    bench::check(answer, bench::listed(query.address));
    return true;
  }
  const bool found = answer.err_code == KAVOE_OK;
  const dns_rr_txt *block = answer.rr.rr_txt;
  if (found != bench::listed(query.address) ||
      (found && (block->dnstxt_nrr != 1 || std::string_view(reinterpret_cast<const char *>(block->dnstxt_txt[0].txt),
                                                            static_cast<size_t>(block->dnstxt_txt[0].len)) != kReason)))
    throw std::runtime_error("kavo: wrong answer about " + query.name());
  return true;
}

class Host {
 public:
  explicit Host(const Task &task)
      : task_(task), nodes_(task.count / task.zones), context_(task, static_cast<unsigned>(nodes_.size())) {
    if (iterator_ == nullptr) throw std::runtime_error("kavo_alloc_answer_iterator");
  }
  ~Host() {
    for (const KAVO_QUERY_NODE node : nodes_)
      if (node != nullptr) kavo_unsubscribe_node(context_, node);
  }
  Host(const Host &) = delete;
  Host &operator=(const Host &) = delete;

  Outcome ask() {
    Outcome outcome;
    Sampler sampler(context_, task_.sampled);
    for (unsigned n = 0; n < nodes_.size(); ++n)
      start(n);
    for (unsigned n = 0; n < nodes_.size(); ++n)
      outcome.failed += finish(n);
    outcome.samples = sampler.end();
    return outcome;
  }

 private:
  void start(unsigned n) {
    const Query query = task_.query(n * task_.zones);
    const in_addr subject = {htonl(query.address)};
    must(kavo_subscribe_node(context_, query.reason ? KAVOT_BL_IP_TXT : KAVOT_BL_IP, &subject, sizeof subject, 0,
                             nullptr, &nodes_[n]),
         "kavo_subscribe_node");
  }

  // finish returns how many of a node's questions have failed.
  unsigned finish(unsigned n) {
    must(kavo_wait_node(context_, nodes_[n], KAVOWT_FULL, nullptr), "kavo_wait_node");
    must(kavo_set_answer_iterator(context_, nodes_[n], iterator_.get()), "kavo_set_answer_iterator");
    unsigned right = 0;
    for (const KAVO_ANSWER *answer; (answer = kavo_get_answer(context_, iterator_.get())) != nullptr;)
      right += is_right(task_.query(n * task_.zones), *answer) ? 1 : 0;
    must(kavo_unsubscribe_node(context_, std::exchange(nodes_[n], nullptr)), "kavo_unsubscribe_node");
    return task_.zones - right;
  }

  Task task_;
  std::vector<KAVO_QUERY_NODE> nodes_;
  Context context_;
  std::unique_ptr<kavo_answer_iterator_t, void (*)(KAVO_ANSWER_ITERATOR)> iterator_{kavo_alloc_answer_iterator(),
                                                                                    kavo_free_answer_iterator};
};

}  // namespace

Outcome ask_with_kavo(const Task &task) {
  Host host(task);
  if (task.start_us != 0) std::this_thread::sleep_for(std::chrono::microseconds(task.start_us - now_us()));
  return host.ask();
}

}  // namespace stock
