// rounds.h - measurements that take turns: in each round every task is done once, so that what else the machine does
// falls on all of them alike, and what one costs is set against another of the same round.
#ifndef KAVO_BENCH_COMPARE_ROUNDS_H
#define KAVO_BENCH_COMPARE_ROUNDS_H

#include <string>
#include <vector>

#include "run.h"

namespace compare {

using Measure = double (Figures::*)() const;

// Series is one task and what it took in each round.
struct Series {
  Task task;
  std::vector<Figures> rounds;

  [[nodiscard]] bench::Spread spread(Measure measure) const;
  // total returns a count of all rounds.
  [[nodiscard]] unsigned total(unsigned Figures::*count) const;
  // ratio_to sets each round against the same round of another series, by one measure of each.
  [[nodiscard]] bench::Spread ratio_to(const Series &other, Measure measure, Measure other_measure) const;
  [[nodiscard]] bench::Spread ratio_to(const Series &other, Measure measure) const {
    return ratio_to(other, measure, measure);
  }
};

// interleave does the tasks in turn, `rounds` times. It throws what run throws.
[[nodiscard]] std::vector<Series> interleave(const std::vector<Task> &tasks, unsigned rounds);

// print shows a spread as its median with its quartiles, or the median alone.
[[nodiscard]] std::string print(const bench::Spread &spread, int decimals);
[[nodiscard]] std::string print(double value, int decimals);

}  // namespace compare

#endif  // KAVO_BENCH_COMPARE_ROUNDS_H
