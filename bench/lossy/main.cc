// bench_lossy: kavo and c-ares on a bad network. Both ask the same questions of the same list server, each through a
// relay of its own that loses, delays and doubles packets by the same seed, so that both meet the same luck; they take
// turns within one run. Every answer is checked. The result is a table of how many questions were answered, how fast,
// and with how many packets.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "client.h"
#include "network.h"

namespace lossy {

std::string name_of(unsigned n) {
  return "q" + std::to_string(n) + "." + kZone;
}

uint32_t address_of(unsigned n) {
  constexpr uint32_t kNet = 0x0A000000;
  return kNet + n;
}

void must_be_right(const char *client, unsigned n, std::span<const uint32_t> addresses) {
  if (addresses.size() != 1 || addresses[0] != address_of(n))
    throw std::runtime_error(std::string(client) + ": wrong answer about " + name_of(n));
}

namespace {

struct Plan {
  Settings settings;
  unsigned count = 1000;  // questions of a row
  unsigned rounds = 2;    // turns in which each client asks them
  uint64_t seed = 1;
};

struct Row {
  const char *name;
  std::vector<Path> paths;
};

constexpr unsigned kDead = 100;

std::vector<Row> rows() {
  return {{"no loss", {{0}}},
          {"5 in 100 lost", {{5}}},
          {"20 in 100 lost", {{20}}},
          {"50 in 100 lost", {{50}}},
          {"two servers, no loss", {{0}, {0}}},
          {"two servers, the first dead", {{kDead}, {0}}}};
}

double ms(Clock::duration span) {
  return std::chrono::duration<double, std::milli>(span).count();
}

// Contestant is one client with its own network, and its outcomes so far.
struct Contestant {
  const char *name;
  std::unique_ptr<Network> network;
  std::unique_ptr<Client> client;
  std::vector<Outcome> outcomes;
  Clock::time_point began;

  void ask(unsigned first, unsigned count) {
    if (outcomes.empty()) began = Clock::now();
    client->ask(first, count, &outcomes);
  }
  [[nodiscard]] std::string line(const char *row);
};

// percentile returns the least value that `in_100` of 100 sorted values do not exceed; 0 without values.
double percentile(const std::vector<double> &sorted, unsigned in_100) {
  constexpr size_t kHundred = 100;
  return sorted.empty() ? 0 : sorted[(sorted.size() * in_100 + kHundred - 1) / kHundred - 1];
}

std::string Contestant::line(const char *row) {
  std::vector<double> times;
  Clock::time_point first = Clock::time_point::max();
  for (const Outcome &outcome : outcomes) {
    if (!outcome.answered) continue;
    times.push_back(ms(outcome.took));
    first = std::min(first, outcome.at);
  }
  std::sort(times.begin(), times.end());
  const auto all = static_cast<double>(outcomes.size());
  char text[256];
  std::snprintf(text, sizeof text, "| %-27s | %-6s | %6.1f | %6.0f | %6.0f | %6.0f | %5.2f |\n", row, name,
                100 * static_cast<double>(times.size()) / all, percentile(times, 50), percentile(times, 99),
                times.empty() ? 0.0 : ms(first - began), static_cast<double>(network->stop()) / all);
  return text;
}

// Networks are made before the clients: processes are started while the program has no thread but its readers.
std::string compete(const Plan &plan, const testbed::ListServer &server, const Row &row, uint64_t seed) {
  Contestant contestants[] = {{"kavo", nullptr, nullptr, {}, {}}, {"c-ares", nullptr, nullptr, {}, {}}};
  for (Contestant &each : contestants)
    each.network = std::make_unique<Network>(server.port(), row.paths, seed);
  contestants[0].client = make_kavo(plan.settings, contestants[0].network->ports());
  contestants[1].client = make_cares(plan.settings, contestants[1].network->ports());
  for (unsigned round = 0; round < plan.rounds; ++round) {
    const unsigned begin = plan.count * round / plan.rounds, end = plan.count * (round + 1) / plan.rounds;
    for (Contestant &each : contestants)
      each.ask(begin, end - begin);
  }
  return contestants[0].line(row.name) + contestants[1].line(row.name);
}

constexpr const char *kHead =
    "| network | client | answered, in 100 | median, ms | 99th percentile, ms | first answer, ms | "
    "packets a question |\n"
    "| --- | --- | ---: | ---: | ---: | ---: | ---: |\n";

std::string explanation(const Plan &plan) {
  std::ostringstream text;
  text
      << "# On a lossy network\n\n"
         "Written by `bench_lossy --write FILE`: kavo beside c-ares, on a bad network on loopback.\n\n"
         "Both clients ask the list server of this repository, each through a relay of its own (`kavo-relay`). A\n"
         "relay loses packets as the row says and lets "
      << kTwiceIn100 << " in 100 arrive twice, and each packet takes " << kDelayMs << " ± " << kJitterMs
      << " ms, each way,\n"
         "so that packets overtake each other. A dead server is a relay that loses everything. The fate of a packet\n"
         "depends on its question and on the number of the packets about it before, not on the time: both clients\n"
         "meet the same luck, attempt for attempt.\n\n"
         "In each row each client asks the same "
      << plan.count << " different questions, " << plan.settings.window << " outstanding at once, in " << plan.rounds
      << " turns with\n"
         "the other client. Both are set to send at most "
      << plan.settings.attempts << " packets for a question over all servers, with a timeout of\n"
      << plan.settings.timeout_ms
      << " ms for the first of them. The further timeouts are their own: c-ares doubles this one with every round;\n"
         "kavo measures, and never waits for longer than this. Both ask with EDNS0, neither has a cache. Each is used\n"
         "by one thread: kavo through its public interface, c-ares with `poll`.\n\n"
         "Times run from asking to the answer in the host's hands, over the questions that were answered; every\n"
         "answer's contents are checked. The first answer is counted from the row's first question.\n\n";
  return text.str();
}

void compete_in_all(const Plan &plan, const std::string &path) {
  const testbed::ListServer server(zones_of(plan.count));
  std::string table = kHead;
  std::cout << kHead << std::flush;
  uint64_t seed = plan.seed;
  for (const Row &row : rows()) {
    const std::string lines = compete(plan, server, row, seed);
    seed += row.paths.size();
    std::cout << lines << std::flush;
    table += lines;
  }
  if (path.empty()) return;
  std::ofstream file(path);
  file << explanation(plan) << table;
  if (!file.flush()) throw std::runtime_error("cannot write " + path);
}

Plan quick() {
  Plan plan;
  plan.settings = {50, 400, 4};
  plan.count = 100;
  plan.rounds = 1;
  return plan;
}

}  // namespace
}  // namespace lossy

int main(int argc, char **argv) {
  CLI::App app("kavo and c-ares on a bad network: answers, times and packets.", "bench_lossy");
  lossy::Plan plan;
  std::string path;
  bool quick = false;
  app.add_option("--count", plan.count, "questions of a row")->check(CLI::Range(1U, 65536U))->capture_default_str();
  app.add_option("--rounds", plan.rounds, "turns in which each client asks them")
      ->check(CLI::Range(1U, 99U))
      ->capture_default_str();
  app.add_option("--outstanding", plan.settings.window, "questions outstanding at once")
      ->check(CLI::Range(1U, 1000U))
      ->capture_default_str();
  app.add_option("--timeout", plan.settings.timeout_ms, "milliseconds of the first attempt")
      ->check(CLI::Range(50U, 60'000U))
      ->capture_default_str();
  app.add_option("--tries", plan.settings.attempts, "packets for one question")
      ->check(CLI::Range(1U, 50U))
      ->capture_default_str();
  app.add_option("--seed", plan.seed, "of the relays' luck")->capture_default_str();
  app.add_option("--write", path, "write the table here, with how it was made");
  app.add_flag("--quick", quick, "100 questions a row and short waits; the other figures are set for it");
  CLI11_PARSE(app, argc, argv);
  try {
    if (quick) plan = lossy::quick();
    lossy::compete_in_all(plan, path);
  } catch (const std::exception &error) {
    std::fprintf(stderr, "bench_lossy: %s\n", error.what());
    return 1;
  }
  return 0;
}
