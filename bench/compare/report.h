// report.h - what bench_compare writes: Markdown, on standard output while it measures and as a file at the end, with a
// table of the targets in front; and the plots.
#ifndef KAVO_BENCH_COMPARE_REPORT_H
#define KAVO_BENCH_COMPARE_REPORT_H

#include <string>
#include <vector>

#include "rounds.h"

namespace compare {

// Target is one line of the table of targets.
struct Target {
  std::string subject;
  std::string wanted;
  std::string measured;
  bool met;
};

// Plot is a set of lines, each through points with a spread.
struct Plot {
  struct Point {
    double x;
    bench::Spread y;
  };
  struct Line {
    std::string name;
    std::vector<Point> points;
  };
  std::string file;  // its name, without a directory
  std::string title, x_label, y_label;
  std::vector<Line> lines;
};

class Report {
 public:
  // add prints Markdown and keeps it.
  void add(const std::string &text);
  void add(Target target);
  void add(Plot plot) { plots_.push_back(std::move(plot)); }

  // targets returns the table of targets as far as they were measured.
  [[nodiscard]] std::string targets() const;
  // write puts the report and its plots into a directory. Throws std::runtime_error.
  void write(const std::string &directory) const;

 private:
  std::string text_;
  std::vector<Target> targets_;
  std::vector<Plot> plots_;
};

}  // namespace compare

#endif  // KAVO_BENCH_COMPARE_REPORT_H
