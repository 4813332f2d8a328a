// paths.h - the hot paths whose instructions are counted. A path is set up once, outside the count, and then run for a
// number of units (questions, entries, lines); main.cc says when counting begins and ends.
//
// Every path does the same work in every run: its questions follow from the unit's number, and it checks the answers. A
// path throws on any other answer.
#ifndef KAVO_BENCH_GUARD_PATHS_H
#define KAVO_BENCH_GUARD_PATHS_H

#include <memory>
#include <vector>

namespace guard {

// Work is a path that has been set up. Units are numbered on from one run to the next.
class Work {
 public:
  Work() = default;
  virtual ~Work() = default;
  Work(const Work &) = delete;
  Work &operator=(const Work &) = delete;
  virtual void run(unsigned count) = 0;
};

struct Path {
  const char *name;  // as in figures.txt
  const char *unit;  // a figure is the cost of one
  unsigned count;    // units that are counted; enough to make small variations negligible
  unsigned warmup;   // units before them; they do everything that happens only once
  std::unique_ptr<Work> (*make)();
};

// paths returns those of this program. There are two: one with the shared library as a host has it, one with the inner
// layers in sight.
[[nodiscard]] std::vector<Path> paths();

// store_paths returns those of the answer cache, its dump and the zones file, which are among the first program's.
[[nodiscard]] std::vector<Path> store_paths();

}  // namespace guard

#endif  // KAVO_BENCH_GUARD_PATHS_H
