// run.h - one measurement: a process that asks a server, from its start to its end, and what the kernel counted
// meanwhile.
#ifndef KAVO_BENCH_STOCK_RUN_H
#define KAVO_BENCH_STOCK_RUN_H

#include <process.h>
#include <temp_dir.h>

#include <string>
#include <utility>
#include <vector>

#include "network.h"
#include "task.h"

namespace stock {

// Figures are what a task took.
struct Figures {
  unsigned count = 0;  // questions
  unsigned failed = 0;
  double wall_s = 0;
  Counters counters;

  [[nodiscard]] double wall_us() const;  // of one question
  [[nodiscard]] double packets() const;  // that left, of one question
};

// The clients: "tool" (kavo check), "dnsperf", "kavo" (a host), "c-ares", "libunbound". The latter three are processes
// of this program, which perform does.
[[nodiscard]] Outcome perform(const Task &task);
[[nodiscard]] std::string to_text(const Outcome &outcome);

// run has a process do a task. Throws std::runtime_error for one that does not end in time and for a wrong answer.
[[nodiscard]] Figures run(const Task &task);

// run_side_by_side has two processes do a task each, beginning at one moment, and returns how many answers in 100 the
// one that got fewer had while both ran, and how many questions of both failed.
struct Shares {
  double lesser;
  unsigned failed;
};
[[nodiscard]] Shares run_side_by_side(Task task);

// Busy is two processes that do nothing but use the processor.
class Busy {
 public:
  Busy();

 private:
  testbed::Process first_, second_;
};
[[noreturn]] void be_busy();

}  // namespace stock

#endif  // KAVO_BENCH_STOCK_RUN_H
