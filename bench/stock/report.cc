#include "report.h"

#include <process.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <stdexcept>

namespace stock {
namespace {

constexpr const char *kHead =
    "# Servers as they are shipped\n\n"
    "Written by `bench_stock --write DIRECTORY` (`scripts/bench` runs it): a burst of questions at name servers as\n"
    "Debian ships them, with their own socket buffers, by kavo, dnsperf, c-ares and libunbound.\n\n";
constexpr const char *kPlot = "stock.svg", *kPlotTitle = "Wall time a question";

// without_repeats keeps the first of each text, in their order.
std::vector<std::string> without_repeats(const std::vector<std::string> &texts) {
  std::vector<std::string> kept;
  for (const std::string &text : texts)
    if (std::find(kept.begin(), kept.end(), text) == kept.end()) kept.push_back(text);
  return kept;
}

}  // namespace

std::string print(double value, int decimals) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
}

std::string print(const bench::Spread &spread, int decimals) {
  return print(spread.median, decimals) + " (" + print(spread.low, decimals) + "-" + print(spread.high, decimals) + ")";
}

void Report::add(const std::string &text) {
  std::cout << text << std::flush;
  text_ += text;
}

void Report::end() {
  std::string text = "## Targets\n\n| case | target | measured | met |\n| --- | --- | --- | --- |\n";
  for (const Target &target : targets_)
    text += "| " + target.subject + " | " + target.wanted + " | " + target.measured + " | " +
            (target.met ? "yes" : "**no**") + " |\n";
  add(text);
}

void Report::write(const std::string &directory) const {
  std::string text = kHead;
  if (!bars_.empty()) {
    plot(directory + "/" + kPlot);
    text += std::string("![") + kPlotTitle + "](" + kPlot + ")\n\n";
  }
  std::ofstream file(directory + "/stock.md");
  file << text << text_;
  if (!file.flush()) throw std::runtime_error("cannot write " + directory + "/stock.md");
}

// The data is a line for each group, of its name and the median and quartiles of each client.
void Report::plot(const std::string &path) const {
  std::vector<std::string> groups, clients;
  for (const Bar &bar : bars_) {
    groups.push_back(bar.group);
    clients.push_back(bar.client);
  }
  clients = without_repeats(clients);
  std::string script = "set terminal svg size 900,500 background rgb 'white'\nset output '" + path + "'\nset title '" +
                       kPlotTitle +
                       "'\nset ylabel 'µs'\nset logscale y\nset grid ytics\nset key outside right\n"
                       "set style data histograms\nset style histogram errorbars gap 1 linewidth 1\n"
                       "set style fill solid 0.7\n$data << EOD\n";
  for (const std::string &group : without_repeats(groups)) {
    script += "'" + group + "'";
    for (const Bar &bar : bars_)
      if (bar.group == group)
        script += " " + print(bar.height.median, 3) + " " + print(bar.height.low, 3) + " " + print(bar.height.high, 3);
    script += "\n";
  }
  script += "EOD\n";
  constexpr size_t kColumns = 3;
  for (size_t i = 0; i < clients.size(); ++i) {
    const size_t column = 2 + kColumns * i;
    script += (i == 0 ? "plot $data using " : ", '' using ") + std::to_string(column) + ":" +
              std::to_string(column + 1) + ":" + std::to_string(column + 2) + ":xtic(1) title '" + clients[i] + "'";
  }
  const testbed::Result result = testbed::run({"gnuplot"}, script + "\n");
  if (result.status != 0) throw std::runtime_error("gnuplot: " + result.err);
}

}  // namespace stock
