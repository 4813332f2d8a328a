// dimension.h - what may grow, and what is measured while it does.
#ifndef KAVO_BENCH_GROWTH_DIMENSION_H
#define KAVO_BENCH_GROWTH_DIMENSION_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace growth {

// Work is what is measured, set up for one size.
class Work {
 public:
  Work() = default;
  virtual ~Work() = default;
  Work(const Work &) = delete;
  Work &operator=(const Work &) = delete;
  // prepare does what a round needs and what is not measured.
  virtual void prepare(unsigned) {}
  virtual void run(unsigned count) = 0;
};

struct Dimension {
  std::string name;  // on the command line and in the plot
  std::string size;  // what grows: the head of the table's first column
  std::string unit;  // the cost is of one of these
  std::string text;  // what is measured, in a sentence or two
  std::vector<unsigned> sizes;
  std::function<std::unique_ptr<Work>(unsigned size)> make;
  std::function<unsigned(unsigned size)> count;   // of questions in a round
  std::function<unsigned(unsigned size)> warmup;  // of questions before the first
  bool per_size = false;                          // each question has `size` units
  bool judged = true;                             // false if shown for comparison alone
};

// dimensions returns all of them. They share the list servers, which run as long as one of them is there.
[[nodiscard]] std::vector<Dimension> dimensions();

}  // namespace growth

#endif  // KAVO_BENCH_GROWTH_DIMENSION_H
