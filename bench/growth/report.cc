#include "report.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
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

const char *verdict(const Curve &curve, bool met) {
  if (!curve.dimension.judged) return "";
  return met ? "met" : "**not met**";
}

std::string summary(const std::vector<Curve> &curves) {
  std::string out =
      "| what grows | from | to | cost of a | grows by | allowed | |\n"
      "| --- | ---: | ---: | --- | ---: | ---: | --- |\n";
  for (const Curve &curve : curves) {
    if (!curve.dimension.judged) continue;
    const Point &first = curve.points.front(), &last = curve.points.back();
    out += text("| %s | %s | %s | %s | %.2f | %.2f | %s |\n", curve.dimension.name.c_str(), grouped(first.size).c_str(),
                grouped(last.size).c_str(), curve.dimension.unit.c_str(), bench::median(last.growth),
                allowed_at(curve, last), verdict(curve, holds(curve)));
  }
  return out;
}

// microseconds writes a cost with about three digits that mean something.
std::string microseconds(double value) {
  return text(value < 1 ? "%.3f" : "%.2f", value);
}

// by_doubling returns what each doubling since the point before added, in parts of the first cost.
std::string by_doubling(const Curve &curve, size_t at) {
  if (at == 0) return "";
  const Point &before = curve.points[at - 1], &point = curve.points[at];
  const double doublings = std::log2(static_cast<double>(point.size) / before.size);
  return text("%+.2f", (bench::median(point.growth) - bench::median(before.growth)) / doublings);
}

std::string section(const Curve &curve) {
  const Dimension &dimension = curve.dimension;
  std::string out = "\n## " + dimension.name + "\n\n" + dimension.text + "\n\n";
  out += "| " + dimension.size + " | processor µs a " + dimension.unit + " | quartiles | switches a " + dimension.unit +
         " | growth | quartiles | each doubling | allowed | |\n"
         "| ---: | ---: | --- | ---: | ---: | --- | ---: | ---: | --- |\n";
  for (size_t i = 0; i < curve.points.size(); ++i) {
    const Point &point = curve.points[i];
    const bench::Spread cost = bench::spread_of(point.processor_us), growth = bench::spread_of(point.growth);
    out += "| " + grouped(point.size) + " | " + microseconds(cost.median) + " | " + microseconds(cost.low) + " to " +
           microseconds(cost.high);
    out += text(" | %.3f | %.2f | %.2f to %.2f | %s | %.2f | %s |\n", bench::median(point.switches), growth.median,
                growth.low, growth.high, by_doubling(curve, i).c_str(), allowed_at(curve, point),
                verdict(curve, within(curve, point)));
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
  return !curve.dimension.judged || std::all_of(curve.points.begin(), curve.points.end(),
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
      "Allowed is what the logarithm of the size grows by: (1 + log2 of the size) / (1 + log2 of the first size).\n"
      "What grows with the logarithm adds the same with each doubling; what grows with the size adds twice as much\n"
      "with each. Switches are those of the system from one thread to another.\n\n";
  out += summary(curves);
  for (const Curve &curve : curves)
    out += section(curve);
  return out;
}

void plot(const std::vector<Curve> &curves, const std::string &path) {
  std::string head = "set terminal svg size 900,560 font 'sans,13' noenhanced background 'white'\nset output '" + path +
                     "'\n"
                     "set title 'Cost relative to the smallest size'\nset logscale x 2\nset grid\n"
                     "set xlabel 'size, relative to the smallest'\nset ylabel 'cost, relative to the smallest'\n"
                     "set yrange [0:*]\nset key outside right\nset style data linespoints\nplot ";
  std::string data;
  unsigned drawn = 0;
  for (const Curve &curve : curves) {
    if (!curve.dimension.judged) continue;
    head += (drawn == 0 ? "" : ", ") + text("'-' title '%s' lw 2 pt %u", curve.dimension.name.c_str(), drawn + 1);
    ++drawn;
    for (const Point &point : curve.points)
      data += text("%g %g\n", static_cast<double>(point.size) / curve.points.front().size, bench::median(point.growth));
    data += "e\n";
  }
  if (drawn == 0) return;
  const std::string script = head + "\n" + data;
  FILE *gnuplot = popen("gnuplot", "w");
  if (gnuplot == nullptr) throw std::runtime_error("gnuplot cannot be started");
  const bool given = fputs(script.c_str(), gnuplot) >= 0;
  if (pclose(gnuplot) != 0 || !given) throw std::runtime_error("gnuplot did not draw " + path);
}

}  // namespace growth
