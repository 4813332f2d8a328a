// counts.cc - user instructions and system calls of a question, counted by valgrind and strace. Each is the difference
// between a long run and a short one, so that starting and ending drop out; all threads count.
#include <fstream>
#include <iterator>
#include <regex>

#include "cases.h"

namespace compare {
namespace {

constexpr unsigned kLonger = 5;  // how many times longer the long run is
constexpr double kInstructionsMax = 6000, kCallsMax = 1.3;

// number_in returns the number that a match of `expression` has in parentheses.
double number_in(const std::string &text, const char *expression) {
  std::smatch match;
  if (!std::regex_search(text, match, std::regex(expression)))
    throw std::runtime_error(std::string("no \"") + expression + "\" in: " + text);
  return std::stod(match[1]);
}

double instructions(const Task &task) {
  std::string output;
  (void)run(task, {"valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null"}, &output);
  return number_in(output, "Collected : (\\d+)");
}

double calls(const Task &task) {
  const testbed::TempDir directory;
  const std::string path = directory.file("counts");
  (void)run(task, {"strace", "-f", "-c", "-U", "calls,name", "-o", path});
  std::ifstream file(path);
  return number_in(std::string(std::istreambuf_iterator<char>(file), {}), "(\\d+) total");
}

// each returns what one more question costs, as `count` counts it.
double each(Task task, unsigned few, double (*count)(const Task &task)) {
  task.count = few;
  const double for_few = count(task);
  task.count = few * kLonger;
  return (count(task) - for_few) / (task.count - few);
}

}  // namespace

void measure_counts(const Plan &plan, Report *report) {
  const Responders responders = start_both(plan.responder_core);
  report->add(
      "## Instructions and system calls\n\nOf the whole client process, in user mode, counted by callgrind and by "
      "`strace`, once: what a long run has more than a short\none. 1,000 questions at once, one zone.\n\n"
      "| client | user instructions a question | system calls a question |\n| --- | ---: | ---: |\n");
  double kavo_instructions = 0, kavo_calls = 0;
  for (const auto &[client, questions] :
       {std::pair("bare", 4000U), {"kavo", 4000U}, {"c-ares", 4000U}, {"libunbound", 1000U}}) {
    const Task task = plan.task(client, responders, kUsual);
    const double in_user = each(task, questions, instructions), in_kernel = each(task, questions, calls);
    report->add(std::string("| ") + client + " | " + print(in_user, 0) + " | " + print(in_kernel, 2) + " |\n");
    if (task.client != "kavo") continue;
    kavo_instructions = in_user;
    kavo_calls = in_kernel;
  }
  report->add("\n");
  report->add(Target{"1,000 outstanding, 1 host thread, one zone: user instructions and system calls a question",
                     "at most 6,000 and 1.3", print(kavo_instructions, 0) + " and " + print(kavo_calls, 2),
                     kavo_instructions <= kInstructionsMax && kavo_calls <= kCallsMax});
}

}  // namespace compare
