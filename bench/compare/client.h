// client.h - what bench_compare compares: clients that ask the same questions, a number of them outstanding at once,
// each in the way of its own library.
//
// One process is one measurement of one client: memory and processor time are then the client's alone, and the same
// process can be put under perf, strace or valgrind.
#ifndef KAVO_BENCH_COMPARE_CLIENT_H
#define KAVO_BENCH_COMPARE_CLIENT_H

#include <measure.h>
#include <questions.h>
#include <unistd.h>

#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace compare {

// Task is what a client is to do.
struct Task {
  std::string client = "kavo";
  // The address of all responders; c-ares and libunbound ask 127.0.0.1 alone.
  std::string server_address = "127.0.0.1";
  std::vector<unsigned> ports;    // responders: worker t asks the one at place t, going round
  std::vector<pid_t> responders;  // their processes, whose processor time is taken as well; may be empty
  std::vector<unsigned> cores;    // worker t runs on the one at place t, going round; none: anywhere
  unsigned outstanding = 1000;    // questions at once, of all workers together, but at least one a worker
  unsigned threads = 1;           // workers
  unsigned count = 40'000;        // questions, of all workers together
  unsigned zones = 1;             // packets a question
  unsigned table = 0;             // kavo's table; 0: as many places as questions are outstanding
  bool held = false;              // no answer comes for a while
  unsigned subjects = 0;  // above 0: so many listed addresses are asked about repeatedly, and answers are cached

  [[nodiscard]] unsigned window() const { return outstanding > threads ? outstanding / threads : 1; }
  [[nodiscard]] uint16_t port_of(unsigned worker) const { return static_cast<uint16_t>(ports[worker % ports.size()]); }
  [[nodiscard]] std::optional<unsigned> core_of(unsigned worker) const {
    return cores.empty() ? std::nullopt : std::optional(cores[worker % cores.size()]);
  }
  // Question n is about address (n); it was asked before, and its answer is cached, where is_cached (n).
  [[nodiscard]] uint32_t address(uint32_t n) const {
    return subjects == 0 ? bench::question(n) : bench::listed_question(n % subjects);
  }
  [[nodiscard]] bool is_cached(uint32_t n) const { return subjects > 0 && n >= subjects; }
};

// For how long the answers of a task that is held stay back after the first query, and when its memory is read: after
// so long from the last question on.
constexpr useconds_t kHeldUs = 1'200'000, kHeldReadUs = 200'000;

// Client is one worker: it is made by one thread and asks on one thread.
class Client {
 public:
  virtual ~Client() = default;
  // ask asks questions `first` to `first + count - 1` of the task, checks each answer as it comes, and returns when
  // each question has ended, with the number of those that were not answered. A wrong answer is thrown.
  [[nodiscard]] virtual unsigned ask(unsigned first, unsigned count) = 0;
  // packets_sent returns how many packets left so far, those of all workers that share what they left from; 0 where the
  // library does not tell.
  [[nodiscard]] virtual uint64_t packets_sent() const { return 0; }
  // resident_kib returns the memory of the process when the questions of a task that is held were under way.
  [[nodiscard]] long resident_kib() const { return resident_kib_; }

 protected:
  // all_asked must be called when as many questions are under way as there may be.
  void all_asked(const Task &task) {
    if (!task.held || resident_kib_ != 0) return;
    usleep(kHeldReadUs);  // other threads may still work for them
    resident_kib_ = bench::resident_kib();
  }

 private:
  long resident_kib_ = 0;
};

using Team = std::vector<std::unique_ptr<Client>>;  // a worker for each thread

// They throw std::runtime_error.
[[nodiscard]] Team make_bare(const Task &task);       // sendmmsg and recvmmsg, a socket each
[[nodiscard]] Team make_bare_runs(const Task &task);  // the same, packets of one size sent as one (runs.h)
[[nodiscard]] Team make_kavo(const Task &task);  // nodes; a context for each port, shared by the workers that ask it
[[nodiscard]] Team make_kavo_query(const Task &task);  // kavo_query, one question at a time
[[nodiscard]] Team make_kavo_get(const Task &task);    // kavo_cache_get, a cache each
[[nodiscard]] Team make_cares(const Task &task);       // a channel each
[[nodiscard]] Team make_unbound(const Task &task);     // libunbound's event interface, a context each

// Packets counts through the packets of a stretch of questions: every zone of one address, then the next address.
class Packets {
 public:
  Packets(const Task &task, unsigned first) : task_(task), question_(first) {}
  [[nodiscard]] uint32_t address() const { return task_.address(question_); }
  [[nodiscard]] unsigned zone() const { return zone_; }
  void next() {
    if (++zone_ < task_.zones) return;
    zone_ = 0;
    ++question_;
  }

 private:
  const Task &task_;
  unsigned question_, zone_ = 0;
};

// wrong throws a client's report of a wrong answer.
[[noreturn]] inline void wrong(const char *client, uint32_t address) {
  throw std::runtime_error(std::string(client) + ": wrong answer about " + bench::name_of(address));
}

}  // namespace compare

#endif  // KAVO_BENCH_COMPARE_CLIENT_H
