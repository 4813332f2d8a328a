// kavo_client.cc - kavo through its public interface: one context, one host thread that waits for any of its nodes.
#include <arpa/inet.h>
#include <kavo.h>

#include <stdexcept>

#include "client.h"

namespace lossy {
namespace {

constexpr const char *kName = "kavo";

void must(KAVO_ERR code, const char *what) {
  if (code != KAVOE_OK) throw std::runtime_error(std::string(what) + ": " + kavo_strerror(code));
}

class Kavo : public Client {
 public:
  Kavo(const Settings &settings, std::span<const uint16_t> ports) : window_(settings.window) {
    must(kavo_init(&kavo_, static_cast<int>(window_), 0, 0), "kavo_init");
    must(kavo_set_opt(kavo_, KAVOOPT_TIMEOUT_MSEC, settings.timeout_ms), "timeout_msec");
    must(kavo_set_opt(kavo_, KAVOOPT_NTRIES, settings.attempts), "ntries");
    must(kavo_add_dns_server(kavo_, nullptr, 0), "kavo_add_dns_server");
    for (const uint16_t port : ports)
      must(kavo_add_dns_server(kavo_, "127.0.0.1", port), "kavo_add_dns_server");
    must(kavo_open(kavo_), "kavo_open");
    iterator_ = kavo_alloc_answer_iterator();
    if (iterator_ == nullptr) throw std::runtime_error("kavo_alloc_answer_iterator");
  }
  ~Kavo() override {
    kavo_free_answer_iterator(iterator_);
    kavo_close(kavo_);
    kavo_free(kavo_);
  }
  Kavo(const Kavo &) = delete;
  Kavo &operator=(const Kavo &) = delete;

  void ask(unsigned first, unsigned count, std::vector<Outcome> *outcomes) override {
    for (unsigned next = first; next < first + count || !nodes_.empty();) {
      while (next < first + count && nodes_.size() < window_)
        start(next++);
      finish_one(outcomes);
    }
  }

 private:
  struct Asked {
    unsigned question;
    Clock::time_point since;
  };

  void start(unsigned question) {
    KAVO_QUERY_NODE node = nullptr;
    asked_.push_back({question, Clock::now()});
    must(kavo_subscribe_node_p(kavo_, KAVOT_DNS_A, name_of(question).c_str(), KAVOQF_RECURSIVE, nullptr, &node),
         "kavo_subscribe_node_p");
    nodes_.push_back(node);
  }

  void finish_one(std::vector<Outcome> *outcomes) {
    KAVO_QUERY_NODE node = nullptr;
    must(
        kavo_wait_multiple_nodes(kavo_, nodes_.data(), static_cast<int>(nodes_.size()), KAVOWT_FULL, 0, nullptr, &node),
        "kavo_wait_multiple_nodes");
    const Clock::time_point now = Clock::now();
    size_t place = 0;
    while (nodes_[place] != node)
      ++place;
    outcomes->push_back({is_answered(node, asked_[place].question), now - asked_[place].since, now});
    must(kavo_unsubscribe_node(kavo_, node), "kavo_unsubscribe_node");
    nodes_[place] = nodes_.back();
    asked_[place] = asked_.back();
    nodes_.pop_back();
    asked_.pop_back();
  }

  bool is_answered(KAVO_QUERY_NODE node, unsigned question) {
    must(kavo_set_answer_iterator(kavo_, node, iterator_), "kavo_set_answer_iterator");
    const KAVO_ANSWER *answer = kavo_get_answer(kavo_, iterator_);
    if (answer == nullptr) throw std::runtime_error("kavo: a question without an outcome");
    if (answer->err_code == KAVOE_NXDOM || answer->err_code == KAVOE_NODATA) must_be_right(kName, question, {});
    if (answer->err_code != KAVOE_OK) return false;
    std::vector<uint32_t> addresses;
    for (int i = 0; i < answer->rr.rr_a->dnsa4_nrr; ++i)
      addresses.push_back(ntohl(answer->rr.rr_a->dnsa4_addr[i].s_addr));
    must_be_right(kName, question, addresses);
    return true;
  }

  unsigned window_;
  KAVO kavo_ = nullptr;
  KAVO_ANSWER_ITERATOR iterator_ = nullptr;
  std::vector<KAVO_QUERY_NODE> nodes_;  // under way
  std::vector<Asked> asked_;            // the same places
};

}  // namespace

std::unique_ptr<Client> make_kavo(const Settings &settings, std::span<const uint16_t> ports) {
  return std::make_unique<Kavo>(settings, ports);
}

}  // namespace lossy
