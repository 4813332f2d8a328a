#include "report.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <stdexcept>

namespace growth {
namespace {

[[gnu::format(printf, 1, 2)]] std::string text(const char *format, ...) {
  char line[512];
  va_list arguments;
  va_start(arguments, format);
  const int size = vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  if (size < 0 || static_cast<size_t>(size) >= sizeof line) throw std::runtime_error("a line too long");
  return line;
}

// grouped writes a number with a comma between thousands.
std::string grouped(unsigned number) {
  std::string digits = std::to_string(number);
  for (size_t at = digits.size(); at > 3; at -= 3)
    digits.insert(at - 3, ",");
  return digits;
}

double allowed_at(const Curve &curve, const Point &point) {
  return allowed(curve.points.front().size, point.size);
}

bool within(const Curve &curve, const Point &point) {
  return bench::median(point.growth) <= allowed_at(curve, point);
}

// worst returns the point that comes nearest to what is allowed, or passes it by most.
const Point &worst(const Curve &curve) {
  return *std::max_element(curve.points.begin() + 1, curve.points.end(), [&](const Point &a, const Point &b) {
    return bench::median(a.growth) / allowed_at(curve, a) < bench::median(b.growth) / allowed_at(curve, b);
  });
}

std::string summary(const std::vector<Curve> &curves) {
  std::string out =
      "| what grows | from | to | cost of a | grows by | allowed | nearest to the limit | |\n"
      "| --- | ---: | ---: | --- | ---: | ---: | --- | --- |\n";
  for (const Curve &curve : curves) {
    const Point &first = curve.points.front(), &last = curve.points.back(), &near = worst(curve);
    out += text("| %s | %s | %s | %s | %.2f | %.2f | %.2f of %.2f at %s | %s |\n", curve.dimension.name.c_str(),
                grouped(first.size).c_str(), grouped(last.size).c_str(), curve.dimension.unit.c_str(),
                bench::median(last.growth), allowed_at(curve, last), bench::median(near.growth),
                allowed_at(curve, near), grouped(near.size).c_str(), holds(curve) ? "met" : "**not met**");
  }
  return out;
}

std::string section(const Curve &curve) {
  const Dimension &dimension = curve.dimension;
  std::string out = "\n## " + dimension.name + "\n\n" + dimension.text + "\n\n";
  out += text("| %s | processor µs a %s | quartiles | switches a %s | growth | quartiles | allowed | |\n",
              dimension.size.c_str(), dimension.unit.c_str(), dimension.unit.c_str());
  out += "| ---: | ---: | --- | ---: | ---: | --- | ---: | --- |\n";
  for (const Point &point : curve.points) {
    const bench::Spread cost = bench::spread_of(point.processor_us), growth = bench::spread_of(point.growth);
    out += text("| %s | %.2f | %.2f to %.2f | %.3f | %.2f | %.2f to %.2f | %.2f | %s |\n", grouped(point.size).c_str(),
                cost.median, cost.low, cost.high, bench::median(point.switches), growth.median, growth.low, growth.high,
                allowed_at(curve, point), within(curve, point) ? "met" : "**not met**");
  }
  return out;
}

}  // namespace

// A cost that grows with the logarithm grows by the same for each doubling; the first size has a cost too, so that what
// begins at one may have doubled at two.
double allowed(unsigned from, unsigned to) {
  return (1 + std::log2(to)) / (1 + std::log2(from));
}

bool holds(const Curve &curve) {
  return std::all_of(curve.points.begin(), curve.points.end(),
                     [&](const Point &point) { return within(curve, point); });
}

std::string markdown(const std::vector<Curve> &curves, unsigned rounds) {
  std::string out =
      "# Growth\n\n"
      "Written by `bench_growth --write DIRECTORY`: what a question costs as the things around it grow.\n\n"
      "![growth](growth.svg)\n\n";
  out += text(
      "Processor time, user and system, of all threads of the host's process. All sizes of a table take turns in %u\n"
      "rounds; figures are medians, with the quartiles beside them, and growth is against the first size in the same\n"
      "round. The host's process runs on one core and the list servers on the others, where there are others. Every\n"
      "answer is checked.\n\n",
      rounds);
  out +=
      "Allowed is what the logarithm of the size grows by: (1 + log2 of the size) / (1 + log2 of the first size). "
      "Switches\n"
      "are those of the system from one thread to another.\n\n";
  out += summary(curves);
  for (const Curve &curve : curves)
    out += section(curve);
  return out;
}

void plot(const std::vector<Curve> &curves, const std::string &path) {
  const std::unique_ptr<FILE, int (*)(FILE *)> gnuplot(popen("gnuplot", "w"), pclose);
  if (gnuplot == nullptr) throw std::runtime_error("no gnuplot");
  std::string script = "set terminal svg size 900,560 font 'sans,13' background 'white'\nset output '" + path +
                       "'\n"
                       "set title 'Cost relative to the smallest size'\nset logscale x 2\nset grid\n"
                       "set xlabel 'size, relative to the smallest'\nset ylabel 'cost, relative to the smallest'\n"
                       "set yrange [0:*]\nset key outside right\nset style data linespoints\nplot ";
  for (size_t i = 0; i < curves.size(); ++i)
    script += (i == 0 ? "" : ", ") + text("'-' title '%s' lw 2 pt %zu", curves[i].dimension.name.c_str(), i + 1);
  script += "\n";
  for (const Curve &curve : curves) {
    for (const Point &point : curve.points)
      script +=
          text("%g %g\n", static_cast<double>(point.size) / curve.points.front().size, bench::median(point.growth));
    script += "e\n";
  }
  if (fputs(script.c_str(), gnuplot.get()) < 0 || fflush(gnuplot.get()) != 0)
    throw std::runtime_error("gnuplot failed");
}

}  // namespace growth
