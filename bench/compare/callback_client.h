// callback_client.h - the common part of the clients of libraries that answer through a callback: the questions under
// way, and the loop that keeps their number up.
#ifndef KAVO_BENCH_COMPARE_CALLBACK_CLIENT_H
#define KAVO_BENCH_COMPARE_CALLBACK_CLIENT_H

#include "client.h"
#include "packet.h"

namespace compare {

class CallbackClient : public Client {
 public:
  unsigned ask(unsigned first, unsigned count) final {
    Packets next(task_, first);
    lost_ = 0;
    for (unsigned left = count * task_.zones; left > 0 || free_.size() < asked_.size();) {
      for (; left > 0 && !free_.empty(); --left, next.next()) {
        Asked *asked = free_.back();
        free_.pop_back();
        asked->address = next.address();
        start(names_.text_of(asked->address, next.zone()), asked);
      }
      if (free_.empty()) all_asked(task_);
      if (free_.size() < asked_.size()) turn();
      if (wrong_ != nullptr) wrong(name_, wrong_->address);
    }
    return lost_;
  }

 protected:
  // Asked is a question under way, the argument of the library's callback.
  struct Asked {
    CallbackClient *self = nullptr;
    uint32_t address = 0;
  };

  CallbackClient(const char *name, const Task &task)
      : name_(name), task_(task), names_(task.zones), asked_(task.window() * task.zones) {
    for (Asked &each : asked_) {
      each.self = this;
      free_.push_back(&each);
    }
  }

  // start hands a question to the library, whose callback may come at once.
  virtual void start(const char *name, Asked *asked) = 0;
  // turn waits for the network and lets the library work.
  virtual void turn() = 0;

  // end ends a question; the callback calls it. No exception may pass through the library: a wrong answer is kept until
  // the library's loop returns.
  void end(Asked *asked, Says says) {
    free_.push_back(asked);
    if (says == Says::nothing) {
      ++lost_;
    } else if ((says == Says::listed) != bench::listed(asked->address)) {
      wrong_ = asked;
    }
  }

 private:
  const char *name_;
  Task task_;
  Names names_;
  std::vector<Asked> asked_;
  std::vector<Asked *> free_;
  unsigned lost_ = 0;
  const Asked *wrong_ = nullptr;
};

}  // namespace compare

#endif  // KAVO_BENCH_COMPARE_CALLBACK_CLIENT_H
