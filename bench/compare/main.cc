// bench_compare: kavo beside a bare loop of system calls and beside other resolver libraries, in ratios of one run. It
// measures case after case and prints Markdown; every measurement is a process of its own, which the program starts by
// running itself with the word "ask" (and the responder, with "respond").
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <iostream>

#include "cases.h"
#include "run.h"

namespace compare {
namespace {

void describe_plan(CLI::App *app, Plan *plan, std::vector<std::string> *only, std::string *directory) {
  std::vector<std::string> names;
  std::string help = "Cases:\n";
  for (const Case &each : kCases) {
    names.emplace_back(each.name);
    help += std::string("  ") + each.name + ": " + each.shows + "\n";
  }
  app->add_option("--only", *only, "measure these cases alone")->check(CLI::IsMember(names))->delimiter(',');
  app->add_option("--rounds", plan->rounds, "rounds of each; medians are printed, and quartiles")
      ->check(CLI::Range(1, 99))
      ->capture_default_str();
  app->add_option("--count", plan->count, "questions of one measurement")
      ->check(CLI::Range(1'000, 500'000))
      ->capture_default_str();
  app->add_option("--write", *directory, "write compare.md and its plots into this directory");
  app->footer(help);
}

// The first two cores that this process may use; with a single one everything shares it.
void choose_cores(Plan *plan) {
  const std::vector<unsigned> cores = bench::cores();
  plan->client_core = cores.front();
  plan->responder_core = cores[cores.size() > 1 ? 1 : 0];
}

std::string explanation(const Plan &plan) {
  return "## How to read it\n\n"
         "Each measurement is a process of its own: all threads of the client run on core " +
         std::to_string(plan.client_core) + ", the responder on core " + std::to_string(plan.responder_core) +
         ",\n"
         "unless a case says otherwise. Rounds: " +
         std::to_string(plan.rounds) +
         ". Figures are their medians, in parentheses the quartiles. Within a round\n"
         "the clients take turns, and a ratio is of two figures of the same round: on a machine that others use too,\n"
         "figures drift, ratios hardly do. Wall times and questions a second suffer most from others.\n\n"
         "The bare loop hands the kernel each packet by itself, as c-ares and libunbound do. kavo hands it packets of\n"
         "one size that go to one server on this machine as one, which the kernel cuts up (`UDP_SEGMENT`): that\n"
         "is why it can cost less than the bare loop. To a server elsewhere it does not. `bare-runs` is the bare loop\n"
         "with the same means, and the least that asking on this machine can cost. Targets are against the plain\n"
         "one.\n\n"
         "The responder of this program uses them too. With many questions at once it costs less processor time a\n"
         "question than the libraries that ask it (see the table), so that none of them waits for it; rbldnsd costs\n"
         "more than most. Half of the addresses are listed. c-ares parses its answers with `ares_parse_a_reply`,\n"
         "libunbound's are read in place. The bare loops and c-ares retransmit nothing. kavo and libunbound do when\n"
         "an answer is late by their own measure; the table tells how many packets kavo sent again.\n\n"
         "kavo asks responders whose receive buffer is what the system gives, a few hundred packets; it sends no\n"
         "faster than they take. Without a window of that kind the other clients would lose questions: they ask\n"
         "responders of the same kind with a buffer for ten thousand packets.\n\n";
}

void measure(const Plan &plan, const std::vector<std::string> &only, const std::string &directory) {
  Report report;
  report.add(explanation(plan));
  for (const Case &each : kCases)
    if (only.empty() || std::find(only.begin(), only.end(), each.name) != only.end()) each.measure(plan, &report);
  std::cout << "## Targets\n\n" << report.targets();
  if (lost_questions() > 0) throw std::runtime_error(std::to_string(lost_questions()) + " questions were lost");
  if (!directory.empty()) report.write(directory);
}

}  // namespace
}  // namespace compare

int main(int argc, char **argv) {
  CLI::App app("kavo beside a bare sendmmsg/recvmmsg loop, c-ares and libunbound.", "bench_compare");
  compare::Plan plan;
  compare::Task task;
  std::vector<std::string> only;
  std::string directory;
  std::string address = "127.0.0.1";
  bool large = false, hold = false;
  compare::describe_plan(&app, &plan, &only, &directory);
  CLI::App *ask = app.add_subcommand("ask", "one measurement: a client asks a responder; prints what it took");
  compare::describe(ask, &task);
  CLI::App *respond = app.add_subcommand("respond", "the responder, until it is ended");
  respond->add_option("--address", address, "where it listens")->capture_default_str();
  respond->add_option("--large", large, "1: a receive buffer for ten thousand packets");
  respond->add_option("--hold", hold, "1: answer the first questions only after a while");
  CLI11_PARSE(app, argc, argv);
  try {
    if (respond->parsed())
      compare::respond(address, large ? compare::Buffers::large : compare::Buffers::of_the_system, hold);
    if (ask->parsed()) {
      std::cout << compare::to_text(compare::perform(task));
      return 0;
    }
    compare::choose_cores(&plan);
    compare::measure(plan, only, directory);
  } catch (const std::exception &error) {
    std::fprintf(stderr, "bench_compare: %s\n", error.what());
    return 1;
  }
  return 0;
}
