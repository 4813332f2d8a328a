#include "run.h"

#include <process.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <thread>

#include "responder.h"

namespace compare {
namespace {

constexpr double kMicro = 1e6;
constexpr unsigned kWarmUp = 2000;           // questions at least; more where more are outstanding or cached
constexpr unsigned kWarmUpFrom = 3'000'000;  // these are asked only once
constexpr testbed::milliseconds kTimeMax{120'000};

unsigned long lost_by_all = 0;

struct Kind {
  const char *name;
  Team (*make)(const Task &task);
};

constexpr Kind kKinds[] = {{"bare", make_bare},        {"bare-runs", make_bare_runs}, {"kavo", make_kavo},
                           {"c-ares", make_cares},     {"libunbound", make_unbound},  {"kavo-query", make_kavo_query},
                           {"kavo-get", make_kavo_get}};

Team make_team(const Task &task) {
  for (const Kind &kind : kKinds)
    if (task.client == kind.name) return kind.make(task);
  throw std::runtime_error("no client \"" + task.client + "\"");
}

double responder_s(const Task &task, unsigned worker) {
  return task.responders.empty() ? 0 : bench::processor_s_of(task.responders[worker % task.responders.size()]);
}

// Share is what one worker does of a stretch of questions, and what became of it.
struct Share {
  unsigned first, count, lost;
  Worker worker;
  std::exception_ptr fault;
};

void work(const Task &task, unsigned number, Client *client, Share *share) {
  try {
    const bench::Pinned pinned(task.core_of(number));
    const double responder_before = responder_s(task, number);
    const bench::Stopwatch watch;
    share->lost = client->ask(share->first, share->count);
    share->worker = {watch.stop().wall_s, responder_s(task, number) - responder_before};
  } catch (...) {
    share->fault = std::current_exception();
  }
}

// ask_all has the workers ask a stretch of questions, each a share of it; a single one on this thread.
std::vector<Share> ask_all(const Task &task, const Team &team, unsigned first, unsigned count) {
  std::vector<Share> shares(team.size());
  const auto workers = static_cast<unsigned>(team.size());
  for (unsigned t = 0; t < workers; ++t)
    shares[t] = {first + count / workers * t, count / workers, 0, {}, nullptr};
  std::vector<std::thread> threads;
  for (unsigned t = 1; t < workers; ++t)
    threads.emplace_back(work, std::cref(task), t, team[t].get(), &shares[t]);
  work(task, 0, team[0].get(), shares.data());
  for (std::thread &thread : threads)
    thread.join();
  for (const Share &share : shares)
    if (share.fault) std::rethrow_exception(share.fault);
  return shares;
}

std::string list(const char *option, const auto &values) {
  std::string text = option;
  for (const auto value : values)
    text += (text == option ? "=" : ",") + std::to_string(value);
  return text;
}

std::vector<std::string> argv_of(const Task &task) {
  std::vector<std::string> argv = {self(),
                                   "ask",
                                   task.client,
                                   "--address=" + task.server_address,
                                   list("--port", task.ports),
                                   "--outstanding=" + std::to_string(task.outstanding),
                                   "--threads=" + std::to_string(task.threads),
                                   "--count=" + std::to_string(task.count),
                                   "--zones=" + std::to_string(task.zones),
                                   "--table=" + std::to_string(task.table),
                                   "--subjects=" + std::to_string(task.subjects),
                                   "--held=" + std::to_string(task.held)};
  if (!task.responders.empty()) argv.push_back(list("--responder", task.responders));
  if (!task.cores.empty()) argv.push_back(list("--core", task.cores));
  return argv;
}

Figures from_text(const std::string &text) {
  const auto json = nlohmann::json::parse(text);
  Figures figures;
  figures.count = json.at("count");
  figures.packets = json.at("packets");
  figures.lost = json.at("lost");
  figures.repeated = json.at("repeated");
  figures.cost = {json.at("wall_s"), json.at("user_s"), json.at("system_s")};
  figures.memory_kib = json.at("memory_kib");
  for (const auto &worker : json.at("workers"))
    figures.workers.push_back({worker.at("wall_s"), worker.at("responder_s")});
  return figures;
}

}  // namespace

double Figures::processor_us() const {
  return cost.processor_s() * kMicro / packets;
}

double Figures::responder_us() const {
  return workers[0].responder_s * kMicro / packets;
}

double Figures::wall_us() const {
  return cost.wall_s * kMicro / count;
}

double Figures::memory() const {
  return static_cast<double>(memory_kib);
}

double Figures::rate() const {
  return count / cost.wall_s;
}

std::vector<std::string> client_names() {
  std::vector<std::string> names;
  for (const Kind &kind : kKinds)
    names.emplace_back(kind.name);
  return names;
}

void describe(CLI::App *app, Task *task) {
  app->add_option("CLIENT", task->client, "who asks")->required()->check(CLI::IsMember(client_names()));
  app->add_option("--address", task->server_address,
                  "responders' address; c-ares and libunbound take the default alone")
      ->capture_default_str();
  app->add_option("--port", task->ports, "responders' ports")->required()->check(CLI::Range(1, 65535))->delimiter(',');
  app->add_option("--responder", task->responders, "their processes")->delimiter(',');
  app->add_option("--core", task->cores, "where the workers run")->delimiter(',');
  app->add_option("--outstanding", task->outstanding, "questions at once")
      ->check(CLI::Range(1, 100'000))
      ->capture_default_str();
  app->add_option("--threads", task->threads, "host threads")->check(CLI::Range(1, 64))->capture_default_str();
  app->add_option("--count", task->count, "questions")->check(CLI::Range(1, 1'000'000))->capture_default_str();
  app->add_option("--zones", task->zones, "zones a question")->check(CLI::Range(1, 64))->capture_default_str();
  app->add_option("--table", task->table, "places in kavo's table; 0: as many as outstanding questions");
  app->add_option("--held", task->held, "1: the responder holds its answers back; the memory is that of meanwhile");
  app->add_option("--subjects", task->subjects, "above 0: ask so many names again and again, from the cache");
}

Figures perform(const Task &task) {
  const bench::Pinned pinned(task.core_of(0));
  const long memory_before = bench::peak_kib();
  const Team team = make_team(task);
  const unsigned warm_up = task.subjects > 0 ? task.subjects : std::max(kWarmUp, 2 * task.outstanding);
  // The first pass over the subjects fills the cache, which answers all later questions.
  std::vector<Share> shares = ask_all(task, team, task.subjects > 0 ? 0 : kWarmUpFrom, warm_up);
  Figures figures;
  for (const Share &share : shares)
    figures.lost += share.lost;
  const uint64_t sent_before = team[0]->packets_sent();
  const bench::Stopwatch watch;
  shares = ask_all(task, team, task.subjects, task.count);
  figures.cost = watch.stop();
  const uint64_t sent = team[0]->packets_sent() - sent_before;
  figures.memory_kib = (task.held ? team[0]->resident_kib() : bench::peak_kib()) - memory_before;
  for (const Share &share : shares) {
    figures.count += share.count;
    figures.lost += share.lost;
    figures.workers.push_back(share.worker);
  }
  figures.packets = figures.count * task.zones;
  if (sent > figures.packets) figures.repeated = static_cast<unsigned>(sent - figures.packets);
  return figures;
}

std::string to_text(const Figures &figures) {
  nlohmann::json json = {{"count", figures.count},
                         {"packets", figures.packets},
                         {"lost", figures.lost},
                         {"repeated", figures.repeated},
                         {"wall_s", figures.cost.wall_s},
                         {"user_s", figures.cost.user_s},
                         {"system_s", figures.cost.system_s},
                         {"memory_kib", figures.memory_kib},
                         {"workers", nlohmann::json::array()}};
  for (const Worker &worker : figures.workers)
    json["workers"].push_back({{"wall_s", worker.wall_s}, {"responder_s", worker.responder_s}});
  return json.dump() + "\n";
}

unsigned long lost_questions() {
  return lost_by_all;
}

Figures run(const Task &task, std::vector<std::string> under, std::string *under_output) {
  std::vector<std::string> argv = std::move(under);
  const std::vector<std::string> own = argv_of(task);
  argv.insert(argv.end(), own.begin(), own.end());
  const testbed::Result result = testbed::run(argv, "", kTimeMax);
  if (result.status != 0)
    throw std::runtime_error(task.client + " failed (" + std::to_string(result.status) + "): " + result.err);
  if (under_output != nullptr) *under_output = result.err;
  Figures figures = from_text(result.out);
  lost_by_all += figures.lost;
  return figures;
}

}  // namespace compare
