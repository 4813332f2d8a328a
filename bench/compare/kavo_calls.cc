// kavo_calls.cc - kavo's calls that are one question each: kavo_query, which does everything for it, and
// kavo_cache_get, which looks into the cache without the context's thread.
#include <arpa/inet.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "client.h"
#include "kavo_context.h"
#include "packet.h"

namespace compare {
namespace {

constexpr unsigned kTimeoutMs = 10'000;

class Query : public Client {
 public:
  Query(const Task &task, std::shared_ptr<Context> context) : task_(task), context_(std::move(context)) {}
  ~Query() override {
    for (int i = 0; i < length_; ++i)
      kavo_rr_free(&answers_[i].rr);
    free(answers_);
  }
  Query(const Query &) = delete;
  Query &operator=(const Query &) = delete;

  unsigned ask(unsigned first, unsigned count) override {
    unsigned lost = 0;
    for (unsigned i = 0; i < count; ++i)
      if (!is_answered_now(first + i)) ++lost;
    return lost;
  }

 private:
  bool is_answered_now(unsigned number) {
    const uint32_t address = task_.address(number);
    const in_addr subject = {htonl(address)};
    int written = 0;
    must(kavo_query(context_->get(), KAVOT_BL_IP, &subject, sizeof subject, &answers_, length_, &written, kTimeoutMs,
                    KAVOWT_FULL, 0),
         "kavo_query");
    length_ = std::max(length_, written);
    for (int i = 0; i < written; ++i)
      if (!is_answered(answers_[i], address, task_.is_cached(number))) return false;
    return written == static_cast<int>(task_.zones);
  }

  Task task_;
  std::shared_ptr<Context> context_;
  KAVO_ANSWER *answers_ = nullptr;
  int length_ = 0;
};

// Get has a cache of its own that holds the answers about the task's subjects.
class Get : public Client {
 public:
  explicit Get(const Task &task)
      : task_(task), names_(1), cache_(dns_cache_init(size_t{task.subjects} * kCacheBytesEach)) {
    if (cache_ == nullptr) throw std::runtime_error("dns_cache_init");
    bench::ListedBlock block;
    for (unsigned n = 0; n < task.subjects; ++n)
      block.put(dns_cache_cacher(cache_), names_.text_of(task.address(n), 0));
  }
  ~Get() override {
    kavo_rr_free(&found_.rr);
    dns_cache_destroy(cache_);
  }
  Get(const Get &) = delete;
  Get &operator=(const Get &) = delete;

  unsigned ask(unsigned first, unsigned count) override {
    KAVO_CACHE cacher = dns_cache_cacher(cache_);
    unsigned lost = 0;
    for (unsigned i = 0; i < count; ++i) {
      const uint32_t address = task_.address(first + i);
      const char *name = names_.text_of(address, 0);
      const auto size = static_cast<int>(strlen(name));
      if (kavo_cache_get(cacher, KAVOT_BL_IP, name, size, &found_, 0) != KAVOE_OK ||
          !is_answered(found_, address, true))
        ++lost;
    }
    return lost;
  }

 private:
  Task task_;
  Names names_;
  dns_cache *cache_;
  KAVO_ANSWER found_ = {};
};

}  // namespace

Team make_kavo_query(const Task &task) {
  const std::vector<std::shared_ptr<Context>> contexts = Context::for_each_port(task);
  Team team;
  for (unsigned t = 0; t < task.threads; ++t)
    team.push_back(std::make_unique<Query>(task, contexts[t % contexts.size()]));
  return team;
}

Team make_kavo_get(const Task &task) {
  Team team;
  for (unsigned t = 0; t < task.threads; ++t)
    team.push_back(std::make_unique<Get>(task));
  return team;
}

}  // namespace compare
