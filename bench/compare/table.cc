// table.cc - the table of every client at every load, against both responders.
#include <algorithm>

#include "cases.h"

namespace compare {
namespace {

constexpr unsigned kLoads[] = {1, 64, 1000, 10'000};
constexpr unsigned kThreads[] = {1, 4};
constexpr const char *kClients[] = {"bare", "kavo", "c-ares", "libunbound", "bare-runs"};  // ratios are to the first
constexpr unsigned kSlowdown = 8;  // how much longer one question at a time takes than many
constexpr double kBareMax = 1.35;

constexpr const char *kColumns =
    "| outstanding | client | questions/s | processor, µs a question | × the bare loop | "
    "responder, µs | memory, KiB | lost | sent again |\n"
    "| ---: | --- | ---: | ---: | ---: | ---: | ---: | ---: | ---: |\n";

std::string line(const Series &series, const Series &bare) {
  const unsigned outstanding = series.task.window() * series.task.threads;
  const bool tells = series.task.client == std::string_view("kavo");
  const std::string again = tells ? std::to_string(series.total(&Figures::repeated)) : "";
  return "| " + std::to_string(outstanding) + " | " + series.task.client + " | " +
         print(series.spread(&Figures::rate), 0) + " | " + print(series.spread(&Figures::processor_us), 2) + " | " +
         print(series.ratio_to(bare, &Figures::processor_us), 2) + " | " +
         print(series.spread(&Figures::responder_us).median, 2) + " | " +
         print(series.spread(&Figures::memory).median, 0) + " | " + std::to_string(series.total(&Figures::lost)) +
         " | " + again + " |\n";
}

// decide adds the target for many questions at once.
void decide(const std::vector<Series> &all, Report *report) {
  const Series &bare = all[0], &kavo = all[1], &cares = all[2];
  const bench::Spread to_bare = kavo.ratio_to(bare, &Figures::processor_us),
                      to_cares = kavo.ratio_to(cares, &Figures::processor_us);
  report->add(Target{"1,000 outstanding, 1 host thread, one zone: processor time a question",
                     "at most 1.35 × the bare loop, and less than c-ares",
                     print(to_bare, 2) + " × the bare loop, " + print(to_cares, 2) + " × c-ares",
                     to_bare.median <= kBareMax && to_cares.median < 1});
}

// Curves collects the lines of the plots.
struct Curves {
  Plot cost, rate;

  void add(const std::vector<Series> &all) {
    for (size_t i = 0; i < all.size(); ++i) {
      const double x = all[i].task.outstanding;
      cost.lines[i].points.push_back({x, all[i].spread(&Figures::processor_us)});
      rate.lines[i].points.push_back({x, all[i].spread(&Figures::rate)});
    }
  }
};

Curves make_curves() {
  Curves curves{{"compare-cost.svg", "Processor time a question, 1 host thread", "outstanding questions", "µs", {}},
                {"compare-rate.svg", "Questions a second, 1 host thread", "outstanding questions", "questions/s", {}}};
  for (const char *client : kClients) {
    curves.cost.lines.push_back({client, {}});
    curves.rate.lines.push_back({client, {}});
  }
  return curves;
}

std::vector<Series> measure_load(const Plan &plan, const Responders &responders, unsigned load, unsigned threads) {
  std::vector<Task> tasks;
  for (const char *client : kClients) {
    tasks.push_back(plan.task(client, responders, load));
    tasks.back().threads = threads;
    if (load == 1) tasks.back().count = plan.count / kSlowdown;
  }
  return interleave(tasks, plan.rounds);
}

void measure_responder(const Plan &plan, const Responders &responders, const char *name, Curves *curves,
                       Report *report) {
  for (const unsigned threads : kThreads) {
    report->add("### " + std::to_string(threads) + (threads == 1 ? " host thread, " : " host threads, ") + name +
                "\n\n" + kColumns);
    std::vector<Series> usual;
    for (const unsigned load : kLoads) {
      const std::vector<Series> all = measure_load(plan, responders, load, threads);
      for (const Series &series : all)
        report->add(line(series, all[0]));
      if (curves != nullptr && threads == 1) curves->add(all);
      if (curves != nullptr && threads == 1 && load == kUsual) usual = all;
    }
    report->add("\n");
    if (!usual.empty()) decide(usual, report);
  }
}

}  // namespace

void measure_table(const Plan &plan, Report *report) {
  report->add(
      "## Many questions at once\n\n"
      "One zone. With 4 host threads the bare loops have 4 sockets, c-ares 4 channels, libunbound 4 contexts,\n"
      "one for each thread, and kavo one context that all of them use; they share the outstanding questions, of which\n"
      "each has one at least. Processor time is that of all threads of the client, user and system, from the first\n"
      "question to the last answer. Memory is what the client's process had at its peak beyond what it had before\n"
      "there was a client.\n\n");
  Curves curves = make_curves();
  measure_responder(plan, start_both(plan.responder_core), "the responder of this program", &curves, report);
  measure_responder(plan, start_both_rbldnsd(plan.responder_core), "rbldnsd", nullptr, report);
  report->add(std::move(curves.cost));
  report->add(std::move(curves.rate));
}

}  // namespace compare
