#include "cases.h"

#include <algorithm>
#include <optional>
#include <span>

#include "run.h"
#include "servers.h"

namespace stock {
namespace {

constexpr unsigned kHosts = 1000, kLists = 8;
constexpr unsigned kFewer = 10;  // how many times fewer questions libunbound is asked
constexpr double kPacketsMost = 1.02, kTimesDnsperfMost = 1.3, kShareLeast = 40;

struct Contender {
  const char *shown;
  const char *client;
  unsigned window = 0;  // 0: all questions at once
  unsigned fewer = 1;
};

constexpr Contender kBurst[] = {{"`kavo check`", "tool"},
                                {"dnsperf, 100 at a time", "dnsperf"},
                                {"host with kavo, all at once", "kavo"},
                                {"c-ares, all at once", "c-ares"},
                                {"c-ares, 100 at a time", "c-ares", 100},
                                {"libunbound, all at once", "libunbound", 0, kFewer}};
constexpr size_t kTool = 0, kDnsperf = 1;
constexpr Contender kHostsBurst[] = {{"host with kavo", "kavo"}, {"c-ares", "c-ares"}, {"libunbound", "libunbound"}};

// Series is one client on one kind of machine, idle or busy, and its figures of each round.
struct Series {
  const Contender *contender;
  bool busy;
  std::vector<Figures> rounds;

  [[nodiscard]] bench::Spread spread(double (Figures::*measure)() const) const {
    std::vector<double> values;
    for (const Figures &round : rounds)
      values.push_back((round.*measure)());
    return bench::spread_of(std::move(values));
  }
  [[nodiscard]] unsigned failed() const {
    unsigned all = 0;
    for (const Figures &round : rounds)
      all += round.failed;
    return all;
  }
  [[nodiscard]] int64_t drops() const {
    int64_t all = 0;
    for (const Figures &round : rounds)
      all += round.counters.drops;
    return all;
  }
  // ratio_to sets the wall time of a question against that of another series in the same round.
  [[nodiscard]] bench::Spread ratio_to(const Series &other) const {
    std::vector<double> values;
    for (size_t i = 0; i < rounds.size(); ++i)
      values.push_back(rounds[i].wall_us() / other.rounds[i].wall_us());
    return bench::spread_of(std::move(values));
  }
};

std::string load_name(bool busy) {
  return busy ? "busy" : "idle";
}

// interleave has all contenders ask in turn, first on the idle machine, then on the busy one; and so for each round.
std::vector<Series> interleave(const Plan &plan, std::span<const Contender> contenders, const Task &task) {
  std::vector<Series> all;
  for (const bool busy : {false, true})
    for (const Contender &contender : contenders)
      all.push_back({&contender, busy, {}});
  for (unsigned round = 0; round < plan.rounds; ++round) {
    std::optional<Busy> others;
    for (Series &series : all) {
      if (series.busy && !others) others.emplace();
      Task own = task;
      own.client = series.contender->client;
      own.window = series.contender->window;
      own.count /= series.contender->fewer;
      series.rounds.push_back(run(own));
    }
  }
  return all;
}

void add_table(const std::vector<Series> &all, std::optional<size_t> base, Report *report) {
  const size_t half = all.size() / 2;
  std::string text = "| machine | client | questions | wall, s | wall, µs a question |";
  if (base) text += " × dnsperf |";
  text += " packets a question | server's drops | failed |\n| --- | --- | ---: | ---: | ---: | ---: | ---: | ---: |";
  text += base ? " ---: |\n" : "\n";
  for (size_t i = 0; i < all.size(); ++i) {
    const Series &series = all[i];
    const bench::Spread us = series.spread(&Figures::wall_us);
    const unsigned count = series.rounds[0].count;
    text += "| " + load_name(series.busy) + " | " + series.contender->shown + " | " + std::to_string(count) + " | " +
            print(us.median * count / 1e6, 2) + " | " + print(us, 1) + " | ";
    if (base) text += print(series.ratio_to(all[i < half ? *base : half + *base]), 2) + " | ";
    text += print(series.spread(&Figures::packets), 3) + " | " + std::to_string(series.drops()) + " | " +
            std::to_string(series.failed()) + " |\n";
  }
  report->add(text + "\n");
}

void judge_tool(const Series &tool, const std::string &server, Report *report) {
  const bench::Spread packets = tool.spread(&Figures::packets);
  report->add(
      Target{"`kavo check` at " + server + ", " + load_name(tool.busy) + ": failed questions; packets a question",
             "0; at most 1.02", std::to_string(tool.failed()) + "; " + print(packets, 3),
             tool.failed() == 0 && packets.median <= kPacketsMost});
}

std::vector<Series> measure_burst(const Plan &plan, const std::string &server, Report *report) {
  const auto daemon = start_server(server);
  Task task;
  task.port = daemon->port();
  task.count = plan.count;
  std::vector<Series> all = interleave(plan, kBurst, task);
  report->add("## " + server + "\n\n");
  add_table(all, kDnsperf, report);
  for (const Series &series : all)
    report->add(Bar{server + " " + load_name(series.busy), series.contender->shown, series.spread(&Figures::wall_us)});
  for (const bool busy : {false, true})
    judge_tool(all[(busy ? all.size() / 2 : 0) + kTool], server, report);
  return all;
}

}  // namespace

void measure_rbldnsd(const Plan &plan, Report *report) {
  const std::vector<Series> all = measure_burst(plan, "rbldnsd", report);
  for (const size_t first : {size_t{0}, all.size() / 2}) {
    const bench::Spread ratio = all[first + kTool].ratio_to(all[first + kDnsperf]);
    report->add(Target{"`kavo check` at rbldnsd, " + load_name(all[first].busy) + ": wall time",
                       "at most 1.3 × dnsperf", print(ratio, 2) + " ×", ratio.median <= kTimesDnsperfMost});
  }
}

void measure_nsd(const Plan &plan, Report *report) {
  (void)measure_burst(plan, "nsd", report);
}

void measure_unbound(const Plan &plan, Report *report) {
  (void)measure_burst(plan, "unbound", report);
}

void measure_hosts(const Plan &plan, Report *report) {
  const auto daemon = start_server("rbldnsd", kLists);
  Task task;
  task.port = daemon->port();
  task.zones = kLists;
  task.count = std::min(kHosts * kLists, plan.count);
  const std::vector<Series> all = interleave(plan, kHostsBurst, task);
  report->add(
      "## Eight lists\n\n"
      "The questions of 1,000 hosts at once, each about one address in eight lists, all of which one rbldnsd has. A\n"
      "packet for each list.\n\n");
  add_table(all, std::nullopt, report);
  for (const Series &series : all)
    if (series.contender == &kHostsBurst[0])
      report->add(Target{"1,000 hosts' questions about eight lists, " + load_name(series.busy) + ": failed questions",
                         "0", std::to_string(series.failed()), series.failed() == 0});
}

void measure_share(const Plan &plan, Report *report) {
  const auto daemon = start_server("rbldnsd");
  Task task;
  task.client = "kavo";
  task.port = daemon->port();
  task.count = plan.count;
  std::vector<double> lesser;
  unsigned failed = 0;
  for (unsigned round = 0; round < plan.rounds; ++round) {
    const Shares shares = run_side_by_side(task);
    lesser.push_back(shares.lesser);
    failed += shares.failed;
  }
  const bench::Spread spread = bench::spread_of(lesser);
  const double least = *std::min_element(lesser.begin(), lesser.end());
  report->add(
      "## Two contexts at one server\n\n"
      "Two processes, each a host with a context of its own, begin at the same moment to ask one rbldnsd. The share\n"
      "is that of the context which had fewer answers when the first of the two had all.\n\n"
      "| the lesser share, in 100 | the least of all rounds | failed |\n| ---: | ---: | ---: |\n| " +
      print(spread, 1) + " | " + print(least, 1) + " | " + std::to_string(failed) + " |\n\n");
  report->add(Target{"two contexts at one rbldnsd: the lesser share of the answers while both run",
                     "at least 40 in 100", print(spread, 1), spread.median >= kShareLeast});
}

}  // namespace stock
