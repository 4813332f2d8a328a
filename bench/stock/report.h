// report.h - what bench_stock writes: Markdown, on standard output while it measures and as a file at the end, with the
// table of the targets at its end; and a plot.
#ifndef KAVO_BENCH_STOCK_REPORT_H
#define KAVO_BENCH_STOCK_REPORT_H

#include <measure.h>

#include <string>
#include <vector>

namespace stock {

// Target is one line of the table of targets.
struct Target {
  std::string subject;
  std::string wanted;
  std::string measured;
  bool met;
};

// Bar is one bar of the plot: in each group, a client has one.
struct Bar {
  std::string group, client;
  bench::Spread height;
};

class Report {
 public:
  // add prints Markdown and keeps it.
  void add(const std::string &text);
  void add(Target target) { targets_.push_back(std::move(target)); }
  void add(Bar bar) { bars_.push_back(std::move(bar)); }

  // end adds the table of targets as far as they were measured.
  void end();
  // write puts the report and its plot into a directory. Throws std::runtime_error.
  void write(const std::string &directory) const;

 private:
  void plot(const std::string &path) const;

  std::string text_;
  std::vector<Target> targets_;
  std::vector<Bar> bars_;
};

// print shows a spread as its median with its quartiles.
[[nodiscard]] std::string print(const bench::Spread &spread, int decimals);
[[nodiscard]] std::string print(double value, int decimals);

}  // namespace stock

#endif  // KAVO_BENCH_STOCK_REPORT_H
