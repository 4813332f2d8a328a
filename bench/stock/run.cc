#include "run.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>

namespace stock {
namespace {

using Clock = std::chrono::steady_clock;

constexpr testbed::milliseconds kTimeMax{120'000};
constexpr std::chrono::milliseconds kStartIn{500};  // until both of two processes are ready
constexpr double kMicro = 1e6, kHundred = 100;
constexpr int kToolFailed = 2;  // its exit status when a question failed; below it all were answered

std::string self() {
  return std::filesystem::read_symlink("/proc/self/exe");
}

std::string dotted(uint32_t address) {
  const in_addr raw = {htonl(address)};
  char text[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, &raw, text, sizeof text);
  return text;
}

std::vector<std::string> ask_argv(const Task &task) {
  return {self(),
          "ask",
          task.client,
          "--port=" + std::to_string(task.port),
          "--count=" + std::to_string(task.count),
          "--zones=" + std::to_string(task.zones),
          "--window=" + std::to_string(task.window),
          "--start=" + std::to_string(task.start_us),
          "--sampled=" + std::to_string(task.sampled)};
}

Outcome from_text(const std::string &text) {
  const auto json = nlohmann::json::parse(text);
  Outcome outcome{json.at("failed"), {}};
  for (const auto &sample : json.at("samples"))
    outcome.samples.push_back({sample.at(0), sample.at(1)});
  return outcome;
}

// Job is a process to be run, and how its success is read from what it wrote.
class Job {
 public:
  explicit Job(const Task &task) : task_(task) {}
  virtual ~Job() = default;
  Job(const Job &) = delete;
  Job &operator=(const Job &) = delete;

  [[nodiscard]] virtual std::vector<std::string> argv() const { return ask_argv(task_); }
  [[nodiscard]] virtual unsigned failed(const testbed::Result &result) const { return from_text(result.out).failed; }
  [[nodiscard]] virtual int status_most() const { return 0; }

 protected:
  Task task_;
};

// Dnsperf reads its queries from a file, and keeps 100 under way.
class Dnsperf : public Job {
 public:
  explicit Dnsperf(const Task &task) : Job(task) {
    std::string queries;
    for (unsigned n = 0; n < task.count; ++n) {
      const Query query = task.query(n);
      queries += query.name() + (query.reason ? " TXT\n" : " A\n");
    }
    file_ = directory_.write("queries", queries);
  }
  [[nodiscard]] std::vector<std::string> argv() const override {
    return {"dnsperf", "-s", "127.0.0.1", "-p", std::to_string(task_.port), "-q", "100", "-d", file_};
  }
  [[nodiscard]] unsigned failed(const testbed::Result &result) const override {
    return task_.count - number_after(result.out, "Queries completed:");
  }

 private:
  static unsigned number_after(const std::string &text, const std::string &word) {
    const size_t at = text.find(word);
    if (at == std::string::npos) throw std::runtime_error("dnsperf wrote no line \"" + word + "\"");
    return static_cast<unsigned>(std::stoul(text.substr(at + word.size())));
  }

  testbed::TempDir directory_;
  std::string file_;
};

// Tool is the command-line tool; a file is its input and another its output, so that this process does nothing
// meanwhile.
class Tool : public Job {
 public:
  explicit Tool(const Task &task) : Job(task) {
    std::string addresses;
    for (unsigned n = 0; n < task.count; n += 2)
      addresses += dotted(task.query(n).address) + "\n";
    directory_.write("addresses", addresses);
  }
  [[nodiscard]] std::vector<std::string> argv() const override {
    return {"/bin/sh",
            "-c",
            R"(exec "$0" check --zone "$1" --server "$2" - <"$3" >"$4")",
            KAVO_TOOL,
            bench::zone(0),
            "127.0.0.1:" + std::to_string(task_.port),
            directory_.file("addresses"),
            directory_.file("verdicts")};
  }
  [[nodiscard]] int status_most() const override { return kToolFailed; }
  // Its output is a line for each address in order, below a line of titles.
  [[nodiscard]] unsigned failed(const testbed::Result &) const override {
    std::ifstream verdicts(directory_.file("verdicts"));
    std::string line;
    std::getline(verdicts, line);
    unsigned failed = 0;
    for (unsigned n = 0; n < task_.count; n += 2)
      if (!std::getline(verdicts, line) || !is_right(task_.query(n), line)) ++failed;
    return failed;
  }

 private:
  static bool is_right(const Query &query, const std::string &line) {
    if (line.find("FAILED") != std::string::npos || line.find("reason unknown") != std::string::npos) return false;
    std::istringstream words(line);
    std::string text;
    for (std::string word; words >> word;)
      text += (text.empty() ? "" : " ") + word;
    const std::string verdict =
        bench::listed(query.address) ? std::string("LISTED 127.0.0.2 ") + kReason : "not listed -";
    if (text != dotted(query.address) + " " + bench::zone(query.zone) + " " + verdict)
      throw std::runtime_error("kavo check: a wrong line: " + line);
    return true;
  }

  testbed::TempDir directory_;
};

std::unique_ptr<Job> job_for(const Task &task) {
  if (task.client == "tool") return std::make_unique<Tool>(task);
  if (task.client == "dnsperf") return std::make_unique<Dnsperf>(task);
  return std::make_unique<Job>(task);
}

// answers_at returns how many answers had come at a moment.
uint64_t answers_at(const std::vector<Sample> &samples, int64_t at_us) {
  uint64_t answers = 0;
  for (const Sample &sample : samples)
    if (sample.at_us <= at_us) answers = sample.answers;
  return answers;
}

// last_us returns when the last answer had come.
int64_t last_us(const std::vector<Sample> &samples) {
  const auto last = std::find_if(samples.begin(), samples.end(),
                                 [&](const Sample &sample) { return sample.answers == samples.back().answers; });
  return last->at_us;
}

Outcome outcome_of(testbed::Process *process) {
  const std::optional<int> status = process->wait_exit(kTimeMax);
  const testbed::Output output = process->output();
  if (status != 0) throw std::runtime_error("one of two hosts failed: " + output.err);
  return from_text(output.out);
}

}  // namespace

double Figures::wall_us() const {
  return wall_s * kMicro / count;
}

double Figures::packets() const {
  return static_cast<double>(counters.queries()) / count;
}

Outcome perform(const Task &task) {
  if (task.client == "kavo") return ask_with_kavo(task);
  if (task.client == "c-ares") return ask_with_cares(task);
  if (task.client == "libunbound") return ask_with_unbound(task);
  throw std::runtime_error("no client \"" + task.client + "\"");
}

std::string to_text(const Outcome &outcome) {
  nlohmann::json json = {{"failed", outcome.failed}, {"samples", nlohmann::json::array()}};
  for (const Sample &sample : outcome.samples)
    json["samples"].push_back({sample.at_us, sample.answers});
  return json.dump() + "\n";
}

Figures run(const Task &task) {
  const std::unique_ptr<Job> job = job_for(task);
  const Counters before = settled_counters(task.port);
  const Clock::time_point began = Clock::now();
  const testbed::Result result = testbed::run(job->argv(), "", kTimeMax);
  const std::chrono::duration<double> wall = Clock::now() - began;
  if (result.status > job->status_most())
    throw std::runtime_error(task.client + " failed (" + std::to_string(result.status) + "): " + result.err);
  return {task.count, job->failed(result), wall.count(), settled_counters(task.port) - before};
}

Shares run_side_by_side(Task task) {
  const Clock::time_point start = Clock::now() + kStartIn;
  task.start_us = std::chrono::duration_cast<std::chrono::microseconds>(start.time_since_epoch()).count();
  task.sampled = true;
  testbed::Process first(ask_argv(task)), second(ask_argv(task));
  const Outcome one = outcome_of(&first), other = outcome_of(&second);
  const int64_t end_us = std::min(last_us(one.samples), last_us(other.samples));
  const auto of_one = static_cast<double>(answers_at(one.samples, end_us)),
             of_other = static_cast<double>(answers_at(other.samples, end_us));
  return {kHundred * std::min(of_one, of_other) / (of_one + of_other), one.failed + other.failed};
}

Busy::Busy() : first_({self(), "busy"}), second_({self(), "busy"}) {}

void be_busy() {
  for (volatile uint64_t turns = 0;;)
    turns = turns + 1;
}

}  // namespace stock
