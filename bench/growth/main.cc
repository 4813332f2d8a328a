// bench_growth: what a question costs as tables, caches, threads, zones and servers grow.
//
// The sizes of a dimension take turns in rounds, all of them set up at the same time, so that what else the machine
// does falls on all of them alike. The exit status says whether every answer was right; whether something grows faster
// than its logarithm is for the reader of the tables.
#include <measure.h>
#include <sys/resource.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <fstream>
#include <memory>

#include "dimension.h"
#include "report.h"

namespace {

using growth::Curve;
using growth::Dimension;
using growth::Point;

constexpr double kMicro = 1e6;

double switches_now() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_nvcsw + usage.ru_nivcsw);
}

// Figures are what a unit cost in one round.
struct Figures {
  double processor_us, switches;
};

Figures measure(const Dimension &dimension, unsigned size, growth::Work *work) {
  const unsigned count = dimension.count(size);
  work->prepare(count);
  const double before = switches_now();
  const bench::Stopwatch watch;
  work->run(count);
  const bench::Cost cost = watch.stop();
  const double units = double{1} * count * (dimension.per_size ? size : 1);
  return {cost.processor_s() * kMicro / units, (switches_now() - before) / units};
}

Curve measure_all(const Dimension &dimension, unsigned rounds) {
  Curve curve{dimension, {}};
  std::vector<std::unique_ptr<growth::Work>> works;
  for (const unsigned size : dimension.sizes) {
    works.push_back(dimension.make(size));
    works.back()->prepare(dimension.warmup(size));
    works.back()->run(dimension.warmup(size));
    curve.points.emplace_back().size = size;
  }
  for (unsigned round = 0; round < rounds; ++round) {
    double first_us = 0;
    for (size_t i = 0; i < works.size(); ++i) {
      Point &point = curve.points[i];
      const Figures figures = measure(dimension, point.size, works[i].get());
      if (i == 0) first_us = figures.processor_us;
      point.processor_us.push_back(figures.processor_us);
      point.switches.push_back(figures.switches);
      point.growth.push_back(figures.processor_us / first_us);
    }
  }
  return curve;
}

// chosen returns the dimensions that were asked for, all of them without any; the servers run on a core of their own.
std::vector<Dimension> chosen(const std::vector<std::string> &names) {
  const bench::Pinned servers(bench::cores().back());
  std::vector<Dimension> all = growth::dimensions();
  for (const std::string &name : names)
    if (std::none_of(all.begin(), all.end(), [&](const Dimension &some) { return some.name == name; }))
      throw std::runtime_error("nothing that grows is called \"" + name + "\"");
  if (!names.empty())
    std::erase_if(
        all, [&](const Dimension &some) { return std::find(names.begin(), names.end(), some.name) == names.end(); });
  return all;
}

void write(const std::string &directory, const std::string &text, const std::vector<Curve> &curves) {
  std::ofstream file(directory + "/growth.md", std::ios::trunc);
  if (!(file << text).flush()) throw std::runtime_error("cannot write to " + directory);
  growth::plot(curves, directory + "/growth.svg");
}

}  // namespace

int main(int argc, char **argv) {
  CLI::App app("What a question costs as tables, caches, threads, zones and servers grow. Prints Markdown.");
  unsigned rounds = 5;
  std::vector<std::string> names;
  std::string directory;
  app.add_option("--rounds", rounds, "rounds of each; medians are shown")
      ->check(CLI::Range(1, 99))
      ->capture_default_str();
  app.add_option("--only", names, "what grows: a section's title, for instance \"zones\"; may be given again");
  app.add_option("--write", directory, "writes growth.md and growth.svg there")->check(CLI::ExistingDirectory);
  CLI11_PARSE(app, argc, argv);
  try {
    const std::vector<Dimension> dimensions = chosen(names);
    const bench::Pinned host(bench::cores().front());
    std::vector<Curve> curves;
    for (const Dimension &dimension : dimensions)
      curves.push_back(measure_all(dimension, rounds));
    const std::string text = growth::markdown(curves, rounds);
    std::fputs(text.c_str(), stdout);
    if (!directory.empty()) write(directory, text, curves);
    return 0;
  } catch (const std::exception &error) {
    std::fprintf(stderr, "bench_growth: %s\n", error.what());
    return 1;
  }
}
