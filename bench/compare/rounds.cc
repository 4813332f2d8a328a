#include "rounds.h"

#include <cstdio>

namespace compare {

bench::Spread Series::spread(Measure measure) const {
  std::vector<double> values;
  for (const Figures &round : rounds)
    values.push_back((round.*measure)());
  return bench::spread_of(std::move(values));
}

unsigned Series::total(unsigned Figures::*count) const {
  unsigned all = 0;
  for (const Figures &round : rounds)
    all += round.*count;
  return all;
}

bench::Spread Series::ratio_to(const Series &other, Measure measure, Measure other_measure) const {
  std::vector<double> values;
  for (size_t i = 0; i < rounds.size(); ++i)
    values.push_back((rounds[i].*measure)() / (other.rounds[i].*other_measure)());
  return bench::spread_of(std::move(values));
}

std::vector<Series> interleave(const std::vector<Task> &tasks, unsigned rounds) {
  std::vector<Series> all;
  for (const Task &task : tasks)
    all.push_back({task, {}});
  for (unsigned round = 0; round < rounds; ++round)
    for (Series &series : all)
      series.rounds.push_back(run(series.task));
  return all;
}

std::string print(double value, int decimals) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
}

std::string print(const bench::Spread &spread, int decimals) {
  return print(spread.median, decimals) + " (" + print(spread.low, decimals) + "-" + print(spread.high, decimals) + ")";
}

}  // namespace compare
