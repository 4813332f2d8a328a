// measure.h - what the benchmarks measure with: a stopwatch that knows the processor time of all threads, medians with
// their spread, peak memory, and the pinning of threads to cores. Linux only; errors are std::runtime_error.
#ifndef KAVO_BENCH_SUPPORT_MEASURE_H
#define KAVO_BENCH_SUPPORT_MEASURE_H

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <vector>

namespace bench {

// Cost is what a piece of work took: the time on the wall, and the processor time of all threads of this process.
struct Cost {
  double wall_s = 0;
  double user_s = 0;
  double system_s = 0;

  [[nodiscard]] double processor_s() const { return user_s + system_s; }
};

// Stopwatch runs from its making on.
class Stopwatch {
 public:
  Stopwatch();
  // stop returns the cost since the start; it may be called again.
  [[nodiscard]] Cost stop() const;

 private:
  std::chrono::steady_clock::time_point wall_;
  Cost before_;
};

// processor_s_of returns the processor time that another process has used so far, in seconds; 0 for none (process 0).
[[nodiscard]] double processor_s_of(pid_t process);

// peak_kib returns the most memory that this process had resident at any time, resident_kib what it has now, in KiB.
[[nodiscard]] long peak_kib();
[[nodiscard]] long resident_kib();

// Spread is the median and the quartiles of measured values.
struct Spread {
  double median = 0;
  double low = 0;   // a quarter of the values are at or below it
  double high = 0;  // and a quarter at or above this one
};
[[nodiscard]] Spread spread_of(std::vector<double> values);  // all zero without values
[[nodiscard]] double median(const std::vector<double> &values);

// cores returns the numbers of the processor cores that this process may use.
[[nodiscard]] std::vector<unsigned> cores();

// Pinned keeps the calling thread, and every thread and process that it starts meanwhile, on one core; its end gives
// this thread its former cores back.
class Pinned {
 public:
  explicit Pinned(std::optional<unsigned> core);  // none: nothing happens
  ~Pinned();
  Pinned(const Pinned &) = delete;
  Pinned &operator=(const Pinned &) = delete;

 private:
  std::vector<unsigned> before_;
};

}  // namespace bench

#endif  // KAVO_BENCH_SUPPORT_MEASURE_H
