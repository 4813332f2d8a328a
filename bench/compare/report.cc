#include "report.h"

#include <process.h>

#include <fstream>
#include <iostream>
#include <stdexcept>

namespace compare {
namespace {

constexpr const char *kHead =
    "# Beside a bare loop and other libraries\n\n"
    "Written by `bench_compare --write DIRECTORY` (`scripts/bench` runs it): what asking costs with kavo, with c-ares\n"
    "and with libunbound (both as Debian has them), and with a bare loop of `sendmmsg` and `recvmmsg` that does\n"
    "nothing but fill and check packets. All of it on loopback, all of them asking the same questions, every answer\n"
    "checked, no question lost.\n\n";

void write_file(const std::string &path, const std::string &text) {
  std::ofstream file(path);
  file << text;
  if (!file.flush()) throw std::runtime_error("cannot write " + path);
}

// script returns what gnuplot is told: the data inline, a line with bars for the quartiles for each client.
std::string script(const Plot &plot, const std::string &path) {
  std::string text = "set terminal svg size 800,500 background rgb 'white'\nset output '" + path + "'\nset title '" +
                     plot.title + "'\nset xlabel '" + plot.x_label + "'\nset ylabel '" + plot.y_label +
                     "'\nset logscale xy\nset grid\nset key outside right\n";
  std::string lines;
  for (size_t i = 0; i < plot.lines.size(); ++i) {
    const std::string data = "$data" + std::to_string(i);
    text += data + " << EOD\n";
    for (const Plot::Point &point : plot.lines[i].points)
      text += print(point.x, 0) + " " + print(point.y.median, 3) + " " + print(point.y.low, 3) + " " +
              print(point.y.high, 3) + "\n";
    text += "EOD\n";
    lines += (i == 0 ? "plot " : ", ") + data + " using 1:2:3:4 with yerrorlines linewidth 2 title '" +
             plot.lines[i].name + "'";
  }
  return text + lines + "\n";
}

}  // namespace

void Report::add(const std::string &text) {
  std::cout << text << std::flush;
  text_ += text;
}

void Report::add(Target target) {
  add("Target: " + target.subject + " " + target.wanted + ": " + target.measured + ", " +
      (target.met ? "met" : "**not met**") + ".\n\n");
  targets_.push_back(std::move(target));
}

std::string Report::targets() const {
  std::string text = "| case | target | measured | met |\n| --- | --- | --- | --- |\n";
  for (const Target &target : targets_)
    text += "| " + target.subject + " | " + target.wanted + " | " + target.measured + " | " +
            (target.met ? "yes" : "**no**") + " |\n";
  return text + "\n";
}

void Report::write(const std::string &directory) const {
  std::string text = kHead;
  text += "## Targets\n\n" + targets();
  for (const Plot &plot : plots_) {
    text += "![" + plot.title + "](" + plot.file + ")\n\n";
    const testbed::Result result = testbed::run({"gnuplot"}, script(plot, directory + "/" + plot.file));
    if (result.status != 0) throw std::runtime_error("gnuplot: " + result.err);
  }
  write_file(directory + "/compare.md", text + text_);
}

}  // namespace compare
