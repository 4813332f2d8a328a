#include "cases.h"

#include <hand_server.h>

#include <algorithm>

namespace compare {
namespace {

constexpr unsigned kZones = 8;
constexpr unsigned kMany = 10'000, kLargeTable = 100'000;
constexpr unsigned kSubjects = 10'000;
constexpr unsigned kSlowdown = 8;      // how much longer one question at a time takes than many
constexpr unsigned kCachedFactor = 8;  // how many more cached answers than others in the same time
constexpr double kKib = 1024;

constexpr double kZonesMax = 1.15, kLargeMax = 1.2, kSingleMax = 2, kCachedMax = 0.65, kGetMax = 0.2, kMemoryMax = 600,
                 kCoresLeast = 1.8, kHitMax = 1, kGetToTripMax = 0.05, kIpv6Max = 1.1;

std::string cell(const std::string &text) {
  return text + " | ";
}

// rate_alone is questions a second of all workers, the time of the responders that share their cores taken off.
double rate_alone(const Figures &figures) {
  double rate = 0;
  for (const Worker &worker : figures.workers)
    rate += figures.count / static_cast<double>(figures.workers.size()) / (worker.wall_s - worker.responder_s);
  return rate;
}

}  // namespace

Task Plan::task(const char *client, const Responder &responder, unsigned outstanding) const {
  Task task;
  task.client = client;
  task.server_address = responder.address();
  task.ports = {responder.port()};
  task.responders = {responder.process()};
  task.cores = {client_core};
  task.outstanding = outstanding;
  task.count = std::max(count, outstanding);
  return task;
}

void measure_zones(const Plan &plan, Report *report) {
  const Responders responders = start_both(plan.responder_core);
  report->add(
      "## Eight zones a question\n\n"
      "Eight packets a question; the bare loops send the same packets.\n\n"
      "| outstanding | packets | client | processor, µs a packet pair | × the bare loop |\n"
      "| ---: | ---: | --- | ---: | ---: |\n");
  bench::Spread usual;
  for (const unsigned outstanding : {kUsual / kZones, kUsual}) {
    std::vector<Task> tasks;
    for (const char *client : {"bare", "kavo", "c-ares", "bare-runs"}) {
      tasks.push_back(plan.task(client, responders, outstanding));
      tasks.back().zones = kZones;
      tasks.back().count = plan.count / (kZones / 2);
    }
    const std::vector<Series> all = interleave(tasks, plan.rounds);
    for (const Series &series : all)
      report->add("| " + cell(std::to_string(outstanding)) + cell(std::to_string(outstanding * kZones)) +
                  cell(series.task.client) + cell(print(series.spread(&Figures::processor_us), 2)) +
                  print(series.ratio_to(all[0], &Figures::processor_us), 2) + " |\n");
    usual = all[1].ratio_to(all[0], &Figures::processor_us);
  }
  report->add("\n");
  report->add(Target{"eight zones a question, 1,000 outstanding: processor time a packet pair",
                     "at most 1.15 × the bare loop", print(usual, 2) + " ×", usual.median <= kZonesMax});
}

void measure_large(const Plan &plan, Report *report) {
  const auto responder = start_own(plan.responder_core, buffers_for("kavo"));
  Task usual = plan.task("kavo", *responder, kUsual), large = plan.task("kavo", *responder, kMany);
  // Four times what the table holds: three of four questions meet a table that is full, and the memory that it takes
  // once as it fills weighs little.
  usual.count = large.count = std::max(plan.count, 4 * kLargeTable);
  large.table = kLargeTable;
  const std::vector<Series> all = interleave({usual, large}, plan.rounds);
  report->add("## A large table\n\n| outstanding | table | processor, µs a question |\n| ---: | ---: | ---: |\n");
  for (const Series &series : all)
    report->add("| " + cell(std::to_string(series.task.outstanding)) +
                cell(std::to_string(std::max(series.task.table, series.task.outstanding))) +
                print(series.spread(&Figures::processor_us), 2) + " |\n");
  report->add("\n");
  const bench::Spread ratio = all[1].ratio_to(all[0], &Figures::processor_us);
  report->add(Target{"10,000 outstanding, table of 100,000: processor time a question",
                     "at most 1.2 × the case of 1,000", print(ratio, 2) + " ×", ratio.median <= kLargeMax});
}

void measure_single(const Plan &plan, Report *report) {
  const Responders responders = start_both(plan.responder_core);
  std::vector<Task> tasks;
  for (const char *client : {"bare", "kavo-query", "kavo-query", "kavo-get"}) {
    tasks.push_back(plan.task(client, responders, 1));
    tasks.back().count = plan.count / kSlowdown;
  }
  tasks[2].subjects = tasks[3].subjects = kUsual;
  tasks[3].count *= kSlowdown;
  const std::vector<Series> all = interleave(tasks, plan.rounds);
  constexpr const char *kNames[] = {"bare round trip to the responder", "`kavo_query`, asks the responder",
                                    "`kavo_query`, from the cache", "`kavo_cache_get`, a hit"};
  report->add(
      "## One question at a time\n\n"
      "| operation | µs on the wall | × the round trip | processor, µs |\n"
      "| --- | ---: | ---: | ---: |\n");
  bench::Spread ratios[4];
  for (size_t i = 0; i < all.size(); ++i) {
    ratios[i] = all[i].ratio_to(all[0], &Figures::wall_us);
    report->add("| " + cell(kNames[i]) + cell(print(all[i].spread(&Figures::wall_us), 2)) + cell(print(ratios[i], 3)) +
                print(all[i].spread(&Figures::processor_us), 2) + " |\n");
  }
  report->add("\n");
  const auto target = [&](size_t i, const char *subject, const char *wanted, double most) {
    report->add(Target{subject, wanted, print(ratios[i], 3) + " ×", ratios[i].median <= most});
  };
  target(1, "one question at a time (`kavo_query`): wall time", "at most 2 × the bare round trip", kSingleMax);
  target(2, "`kavo_query`, a cache hit: wall time", "at most 1 × the bare round trip", kHitMax);
  target(3, "`kavo_cache_get`, a hit: wall time", "at most 0.05 × the bare round trip", kGetToTripMax);
}

void measure_cached(const Plan &plan, Report *report) {
  const Responders responders = start_both(plan.responder_core);
  std::vector<Task> tasks;
  for (const char *client : {"libunbound", "kavo", "kavo-get"}) {
    tasks.push_back(plan.task(client, responders, kUsual));
    tasks.back().subjects = kSubjects;
    tasks.back().count = plan.count * kCachedFactor;
  }
  const std::vector<Series> all = interleave(tasks, plan.rounds);
  constexpr const char *kNames[] = {"libunbound, event interface", "kavo, nodes", "`kavo_cache_get`"};
  report->add(
      "## Cached answers\n\n"
      "Each asks for 10,000 names whose answers it holds, again and again; the first two with 1,000 questions at\n"
      "once.\n\n"
      "| client | processor, µs an answer | × libunbound |\n"
      "| --- | ---: | ---: |\n");
  bench::Spread ratios[3];
  for (size_t i = 0; i < all.size(); ++i) {
    ratios[i] = all[i].ratio_to(all[0], &Figures::processor_us);
    report->add("| " + cell(kNames[i]) + cell(print(all[i].spread(&Figures::processor_us), 3)) + print(ratios[i], 3) +
                " |\n");
  }
  report->add("\n");
  report->add(Target{"cached answers in bulk, through nodes: processor time each",
                     "at most 0.65 × libunbound's cached answer", print(ratios[1], 2) + " ×",
                     ratios[1].median <= kCachedMax});
  report->add(Target{"`kavo_cache_get`, a hit: processor time", "at most 0.2 × libunbound's cached answer",
                     print(ratios[2], 3) + " ×", ratios[2].median <= kGetMax});
}

void measure_memory(const Plan &plan, Report *report) {
  // Two numbers of questions, so that what a client has anyway drops out.
  constexpr unsigned kFew = 1000, kMost = 4000;
  report->add(
      "## Memory of an outstanding question\n\n"
      "The responder holds its answers back until every question has been asked, and memory is what is resident then;\n"
      "of kavo's questions, those that its window has no room for yet wait in the library. The difference between two\n"
      "numbers of questions, so that what a client has anyway drops out; the benchmark's own notes, 16 to 24 bytes a\n"
      "question, are part of it.\n\n"
      "| client | KiB for 1,000 | KiB for 4,000 | bytes a question |\n"
      "| --- | ---: | ---: | ---: |\n");
  bench::Spread kavo;
  for (const char *client : {"kavo", "c-ares", "libunbound"}) {
    const auto kib = [&](unsigned outstanding) {
      const auto responder = start_own(plan.responder_core, buffers_for(client), true);
      Task task = plan.task(client, *responder, outstanding);
      task.count = outstanding;
      task.held = true;
      return run(task).memory();
    };
    std::vector<double> few, most, bytes;
    for (unsigned round = 0; round < plan.rounds; ++round) {
      few.push_back(kib(kFew));
      most.push_back(kib(kMost));
      bytes.push_back((most.back() - few.back()) * kKib / (kMost - kFew));
    }
    const bench::Spread each = bench::spread_of(bytes);
    report->add("| " + cell(client) + cell(print(bench::median(few), 0)) + cell(print(bench::median(most), 0)) +
                print(each, 0) + " |\n");
    if (client == std::string_view("kavo")) kavo = each;
  }
  report->add("\n");
  report->add(Target{"memory an outstanding question, table block included", "at most 600 bytes",
                     print(kavo, 0) + " bytes", kavo.median <= kMemoryMax});
}

void measure_cores(const Plan &plan, Report *report) {
  report->add(
      "## Two contexts on two cores\n\n"
      "Each context, the host thread that asks it and a responder of its own share one core. The responder is not\n"
      "what is measured, so its processor time is taken off the wall time, of one context as of two; with 1,000\n"
      "questions at once a core is never idle. Both contexts are in one process.\n\n"
      "| contexts | questions/s, the responder not counting |\n| ---: | ---: |\n");
  const std::unique_ptr<Responder> responders[] = {start_own(plan.client_core, buffers_for("kavo")),
                                                   start_own(plan.responder_core, buffers_for("kavo"))};
  Task one = plan.task("kavo", *responders[0], kUsual), two = one;
  two.ports.push_back(responders[1]->port());
  two.responders.push_back(responders[1]->process());
  two.cores.push_back(plan.responder_core);
  two.threads = 2;
  two.outstanding *= 2;
  two.count *= 2;
  const std::vector<Series> all = interleave({one, two}, plan.rounds);
  std::vector<double> rates[2], gain;
  for (size_t round = 0; round < plan.rounds; ++round) {
    for (size_t i = 0; i < all.size(); ++i)
      rates[i].push_back(rate_alone(all[i].rounds[round]));
    gain.push_back(rates[1].back() / rates[0].back());
  }
  for (size_t i = 0; i < all.size(); ++i)
    report->add("| " + cell(std::to_string(i + 1)) + print(bench::spread_of(rates[i]), 0) + " |\n");
  report->add("\n");
  const bench::Spread spread = bench::spread_of(gain);
  report->add(Target{"two contexts on two cores against one",
                     "at least 1.8 × the questions a second, the responder not counting", print(spread, 2) + " ×",
                     spread.median >= kCoresLeast});
}

void measure_ipv6(const Plan &plan, Report *report) {
  report->add("## IPv6\n\n");
  if (!testbed::ipv6_works()) {
    report->add("Left out: this machine has no ::1.\n\n");
    return;
  }
  report->add(
      "kavo asks the responder on either address, 1,000 questions at once, one zone.\n\n"
      "| responder on | processor, µs a question | × 127.0.0.1 |\n| --- | ---: | ---: |\n");
  const Buffers buffers = buffers_for("kavo");
  const auto ipv4 = start_own(plan.responder_core, buffers),
             ipv6 = start_own(plan.responder_core, buffers, false, "::1");
  const std::vector<Series> all =
      interleave({plan.task("kavo", *ipv4, kUsual), plan.task("kavo", *ipv6, kUsual)}, plan.rounds);
  for (const Series &series : all)
    report->add("| " + cell(series.task.server_address) + cell(print(series.spread(&Figures::processor_us), 2)) +
                print(series.ratio_to(all[0], &Figures::processor_us), 2) + " |\n");
  report->add("\n");
  const bench::Spread ratio = all[1].ratio_to(all[0], &Figures::processor_us);
  report->add(Target{"1,000 outstanding, 1 host thread, one zone, the responder on ::1: processor time a question",
                     "at most 1.1 × the case on 127.0.0.1", print(ratio, 2) + " ×", ratio.median <= kIpv6Max});
}

}  // namespace compare
