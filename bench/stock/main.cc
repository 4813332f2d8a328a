// bench_stock: bursts of questions at name servers as Debian ships them, whose socket buffers are those of the system.
// A client that sends faster than such a server takes loses questions, or sends them again. The program measures kavo's
// tool and its library beside dnsperf, c-ares and libunbound, on an idle machine and on a busy one, and prints
// Markdown. Every measurement is a process of its own, which the program starts, by running itself where that is a
// library's client.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <iostream>

#include "cases.h"
#include "run.h"

namespace stock {
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
  app->add_option("--count", plan->count, "questions of a burst")
      ->check(CLI::Range(1'000, 1'000'000))
      ->capture_default_str();
  app->add_option("--write", *directory, "write stock.md and its plot into this directory");
  app->footer(help);
}

void describe_task(CLI::App *app, Task *task) {
  app->add_option("CLIENT", task->client, "who asks")
      ->required()
      ->check(CLI::IsMember({"kavo", "c-ares", "libunbound"}));
  app->add_option("--port", task->port, "the server's port on 127.0.0.1")->required()->check(CLI::Range(1, 65535));
  app->add_option("--count", task->count, "questions")->required()->check(CLI::Range(1, 1'000'000));
  app->add_option("--zones", task->zones, "zones")->check(CLI::Range(1, 64))->capture_default_str();
  app->add_option("--window", task->window, "questions at once, for c-ares and libunbound; 0: all");
  app->add_option("--start", task->start_us, "when to begin, µs of the steady clock; 0: now");
  app->add_option("--sampled", task->sampled, "1: tell when the answers came");
}

std::string explanation(const Plan &plan, bool own_network) {
  return "## How to read it\n\n"
         "The servers have their address, port and zones configured and nothing else: one thread, the usual\n"
         "priority and their own receive buffers; what a socket gets of the system is " +
         std::to_string(default_buffer()) +
         " bytes, a few hundred small\n"
         "packets. nsd's limit of answers a second is off, since a burst is above it; unbound has the lists as local\n"
         "zones. Half of the addresses are listed. The clients ask for the A and the TXT record of " +
         std::to_string(plan.count / 2) + " addresses, " + std::to_string(plan.count) +
         "\n"
         "questions in all; the tool does that by itself, with 1,024 addresses at once (`kavo check --zone ZONE\n"
         "--server SERVER -`), dnsperf from a file. libunbound is asked a tenth as many: it needs 16 KiB for each\n"
         "question. c-ares has timeouts of 0.5, 1 and 2 s; it gives up afterwards. All others have the timeouts that\n"
         "they have if nothing is said. Answers of all but dnsperf are checked.\n\n"
         "Each measurement is a whole process, and wall time is from its start to its end. Busy means that two\n"
         "processes beside it use the processor all the time, with the same priority. Rounds: " +
         std::to_string(plan.rounds) +
         ". Figures are their\n"
         "medians, in parentheses the quartiles; the clients take turns within a round, and a ratio is of two figures\n"
         "of the same round. Drops and failed questions are those of all rounds together.\n\n"
         "Packets are counted by the kernel, for all clients alike. Those that reached the server are its drops (of\n"
         "`/proc/net/udp`) and those that it took. The latter are half of all packets that a process took, or that\n"
         "met a full buffer at the client or a closed socket there (`/proc/net/snmp`), since the server answers each\n"
         "packet that it takes with one. " +
         (own_network ? std::string("The program and the servers are in a network of their own, where\n"
                                    "nothing else is counted.\n\n")
                      : std::string("The system gave the program no network of its own: packets of others\n"
                                    "are counted too.\n\n"));
}

void measure(const Plan &plan, const std::vector<std::string> &only, const std::string &directory) {
  Report report;
  const bool own_network = enter_own_network();
  report.add(explanation(plan, own_network));
  for (const Case &each : kCases)
    if (only.empty() || std::find(only.begin(), only.end(), each.name) != only.end()) each.measure(plan, &report);
  report.end();
  if (!directory.empty()) report.write(directory);
}

}  // namespace
}  // namespace stock

int main(int argc, char **argv) {
  CLI::App app("kavo, dnsperf, c-ares and libunbound at name servers as Debian ships them.", "bench_stock");
  stock::Plan plan;
  stock::Task task;
  std::vector<std::string> only;
  std::string directory;
  bool quick = false;
  stock::describe_plan(&app, &plan, &only, &directory);
  app.add_flag("--quick", quick, "one round of 10,000 questions; the other figures are set for it");
  CLI::App *ask = app.add_subcommand("ask", "one measurement: a client asks a server; prints what became of it");
  stock::describe_task(ask, &task);
  const CLI::App *busy = app.add_subcommand("busy", "use the processor until it is ended");
  CLI11_PARSE(app, argc, argv);
  try {
    if (busy->parsed()) stock::be_busy();
    if (ask->parsed()) {
      std::cout << stock::to_text(stock::perform(task));
      return 0;
    }
    if (quick) plan = {1, 10'000};
    stock::measure(plan, only, directory);
  } catch (const std::exception &error) {
    std::fprintf(stderr, "bench_stock: %s\n", error.what());
    return 1;
  }
  return 0;
}
