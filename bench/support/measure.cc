#include "measure.h"

#include <sched.h>
#include <sys/resource.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <fstream>
#include <string>
#include <system_error>

namespace bench {
namespace {

constexpr double kMicro = 1e-6, kNano = 1e-9;

rusage usage_now() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage;
}

double seconds(const timeval &time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * kMicro;
}

void set_cores(const std::vector<unsigned> &wanted) {
  cpu_set_t set;
  CPU_ZERO(&set);
  for (const unsigned core : wanted)
    CPU_SET(core, &set);
  if (sched_setaffinity(0, sizeof set, &set) != 0)
    throw std::system_error(errno, std::generic_category(), "sched_setaffinity");
}

// quantile interpolates between the two values nearest to its place.
double quantile(const std::vector<double> &sorted, double share) {
  const double place = share * static_cast<double>(sorted.size() - 1);
  const auto below = static_cast<size_t>(std::floor(place));
  const size_t above = std::min(below + 1, sorted.size() - 1);
  return std::lerp(sorted[below], sorted[above], place - std::floor(place));
}

}  // namespace

Stopwatch::Stopwatch() : wall_(std::chrono::steady_clock::now()) {
  const rusage usage = usage_now();
  before_ = {0, seconds(usage.ru_utime), seconds(usage.ru_stime)};
}

Cost Stopwatch::stop() const {
  const rusage usage = usage_now();
  const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - wall_;
  return {wall.count(), seconds(usage.ru_utime) - before_.user_s, seconds(usage.ru_stime) - before_.system_s};
}

double processor_s_of(pid_t process) {
  clockid_t clock = 0;
  timespec time{};
  if (process == 0) return 0;
  if (clock_getcpuclockid(process, &clock) != 0 || clock_gettime(clock, &time) != 0)
    throw std::runtime_error("no processor time of process " + std::to_string(process));
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * kNano;
}

namespace {

// status_kib reads a line of the kernel's about this process. Not getrusage's figures: those remember the program which
// this process was before.
long status_kib(const char *name) {
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    long kib = 0;
    if (word == name && status >> kib) return kib;
  }
  throw std::runtime_error(std::string("no ") + name + " in /proc/self/status");
}

}  // namespace

long peak_kib() {
  return status_kib("VmHWM:");
}

long resident_kib() {
  return status_kib("VmRSS:");
}

Spread spread_of(std::vector<double> values) {
  if (values.empty()) return {};
  constexpr double kQuarter = 0.25, kHalf = 0.5;
  std::sort(values.begin(), values.end());
  return {quantile(values, kHalf), quantile(values, kQuarter), quantile(values, 1 - kQuarter)};
}

double median(const std::vector<double> &values) {
  return spread_of(values).median;
}

std::vector<unsigned> cores() {
  cpu_set_t set;
  if (sched_getaffinity(0, sizeof set, &set) != 0)
    throw std::system_error(errno, std::generic_category(), "sched_getaffinity");
  std::vector<unsigned> found;
  for (unsigned core = 0; core < CPU_SETSIZE; ++core)
    if (CPU_ISSET(core, &set)) found.push_back(core);
  return found;
}

Pinned::Pinned(std::optional<unsigned> core) : before_(cores()) {
  if (core) set_cores({*core});
}

Pinned::~Pinned() {
  set_cores(before_);
}

}  // namespace bench
