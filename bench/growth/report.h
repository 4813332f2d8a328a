// report.h - what was measured, as Markdown and as a plot.
#ifndef KAVO_BENCH_GROWTH_REPORT_H
#define KAVO_BENCH_GROWTH_REPORT_H

#include <measure.h>

#include <string>
#include <vector>

#include "dimension.h"

namespace growth {

// Point is one size of a dimension: what a unit cost in each of its rounds.
struct Point {
  unsigned size = 0;
  std::vector<double> processor_us, switches, growth;  // growth: against the first size in the same round
};

struct Curve {
  Dimension dimension;
  std::vector<Point> points;
};

// allowed returns by how much a cost may grow with the logarithm of the size, from one size to another.
[[nodiscard]] double allowed(unsigned from, unsigned to);

// holds tells whether the medians of a curve stay within what is allowed.
[[nodiscard]] bool holds(const Curve &curve);

[[nodiscard]] std::string markdown(const std::vector<Curve> &curves, unsigned rounds);

// plot has gnuplot draw the curves, relative to their first points.
void plot(const std::vector<Curve> &curves, const std::string &path);

}  // namespace growth

#endif  // KAVO_BENCH_GROWTH_REPORT_H
