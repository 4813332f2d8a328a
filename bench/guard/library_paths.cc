// library_paths.cc - questions through the public interface, on all threads that take part: the host's and the
// context's server thread. The answers come from kavo-listserver over loopback.
//
// Questions go round with kOutstanding open: one is waited for, read and dropped, and the next takes its place.
#include <arpa/inet.h>
#include <kavo.h>
#include <library.h>
#include <list_server.h>
#include <questions.h>

#include <cstdint>
#include <stdexcept>
#include <string>

#include "paths.h"

namespace guard {
namespace {

using bench::must;

constexpr unsigned kOutstanding = 1000;
constexpr unsigned kLists = 8;
constexpr int kCacheBytes = 1 << 24;
constexpr uint32_t kTimeoutSeconds = 300;  // nothing is retransmitted, however slow the run
// So many cached names that each comes again after its node has been given to another name.
constexpr uint32_t kCachedNames = 4 * kOutstanding;

class Questions final : public Work {
 public:
  // `names` of 0: no name comes twice, and there is no cache.
  Questions(unsigned lists, uint32_t names) : lists_(lists), names_(names) {
    must(kavo_init_ext(&kavo_, kOutstanding, names == 0 ? 0 : kCacheBytes, kLists, 0), "kavo_init_ext");
    for (unsigned list = 0; list < lists; ++list)
      must(kavo_add_zone(kavo_, KAVOT_BL_IP, bench::zone(list).c_str()), "kavo_add_zone");
    must(kavo_add_dns_server(kavo_, nullptr, 0), "kavo_add_dns_server");
    must(kavo_add_dns_server(kavo_, "127.0.0.1", server_.port()), "kavo_add_dns_server");
    must(kavo_set_opt(kavo_, KAVOOPT_TIMEOUT, kTimeoutSeconds), "kavo_set_opt");
    must(kavo_open(kavo_), "kavo_open");
    iterator_ = kavo_alloc_answer_iterator();
  }
  ~Questions() override {
    kavo_free_answer_iterator(iterator_);
    kavo_close(kavo_);
    kavo_free(kavo_);
  }

  void run(unsigned count) override {
    for (unsigned i = 0; i < count + kOutstanding; ++i) {
      if (i >= kOutstanding) finish(i % kOutstanding);
      if (i < count) start(i % kOutstanding);
    }
  }

 private:
  void start(unsigned slot) {
    const uint32_t address = bench::question(names_ == 0 ? next_ : next_ % names_);
    ++next_;
    const in_addr query = {htonl(address)};
    addresses_[slot] = address;
    must(kavo_subscribe_node(kavo_, KAVOT_BL_IP, &query, sizeof query, 0, nullptr, &nodes_[slot]),
         "kavo_subscribe_node");
  }

  void finish(unsigned slot) {
    must(kavo_wait_node(kavo_, nodes_[slot], KAVOWT_FULL, nullptr), "kavo_wait_node");
    must(kavo_set_answer_iterator(kavo_, nodes_[slot], iterator_), "kavo_set_answer_iterator");
    unsigned answers = 0;
    while (const KAVO_ANSWER *answer = kavo_get_answer(kavo_, iterator_)) {
      bench::check(*answer, bench::listed(addresses_[slot]));
      ++answers;
    }
    if (answers != lists_) throw std::runtime_error("an answer is missing");
    must(kavo_unsubscribe_node(kavo_, nodes_[slot]), "kavo_unsubscribe_node");
  }

  testbed::ListServer server_{bench::listserver_zones(kLists)};
  KAVO kavo_ = nullptr;
  KAVO_ANSWER_ITERATOR iterator_ = nullptr;
  unsigned lists_;
  uint32_t names_;
  uint32_t next_ = 0;
  KAVO_QUERY_NODE nodes_[kOutstanding] = {};
  uint32_t addresses_[kOutstanding] = {};
};

template <unsigned lists, uint32_t names>
std::unique_ptr<Work> questions() {
  return std::make_unique<Questions>(lists, names);
}

}  // namespace

std::vector<Path> paths() {
  std::vector<Path> all = {{"question", "question", 20'000, 5'000, questions<1, 0>},
                           {"question-8-lists", "question", 10'000, 2'000, questions<kLists, 0>},
                           {"question-cached", "question", 20'000, 2 * kCachedNames, questions<1, kCachedNames>}};
  const std::vector<Path> store = store_paths();
  all.insert(all.end(), store.begin(), store.end());
  return all;
}

}  // namespace guard
