// run.h - one measurement: a process of this program that makes a client, has it ask, and prints what that took.
#ifndef KAVO_BENCH_COMPARE_RUN_H
#define KAVO_BENCH_COMPARE_RUN_H

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "client.h"

namespace compare {

// Worker is what one worker of a client saw: its own time, and the processor time of the responder it asked.
struct Worker {
  double wall_s = 0;
  double responder_s = 0;
};

// Figures are what a task took, from the first question to the last answer, after a stretch that warms up.
struct Figures {
  unsigned count = 0;  // questions
  unsigned packets = 0;
  unsigned lost = 0;
  unsigned repeated = 0;  // retransmissions, as far as the client counts them
  bench::Cost cost;
  long memory_kib = 0;  // of the client at its peak, without what the process had before
  std::vector<Worker> workers;

  // Of one packet pair, in microseconds: processor time of the client and of the responders.
  [[nodiscard]] double processor_us() const;
  [[nodiscard]] double responder_us() const;
  [[nodiscard]] double wall_us() const;  // of one question
  [[nodiscard]] double rate() const;     // questions a second
  [[nodiscard]] double memory() const;   // KiB
};

// client_names returns the names of all clients; describe adds the options of a task to the program that performs it.
[[nodiscard]] std::vector<std::string> client_names();
void describe(CLI::App *app, Task *task);

// perform does a task in this process and returns what it took.
[[nodiscard]] Figures perform(const Task &task);
[[nodiscard]] std::string to_text(const Figures &figures);

// run has a process of its own perform a task: directly, or under a program such as valgrind (`under`), whose output
// goes to `under_output`. Throws std::runtime_error for a process that fails, which one with a wrong answer does.
[[nodiscard]] Figures run(const Task &task, std::vector<std::string> under = {}, std::string *under_output = nullptr);

// lost_questions returns how many questions all runs so far have lost: a single one spoils their figures.
[[nodiscard]] unsigned long lost_questions();

}  // namespace compare

#endif  // KAVO_BENCH_COMPARE_RUN_H
