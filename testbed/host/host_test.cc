#include "host_test.h"

#include <algorithm>
#include <filesystem>
#include <mutex>

namespace testbed {
namespace {

std::mutex log_mutex;
std::vector<std::string> failed_assertions;  // guarded by log_mutex
std::vector<std::string> complaints;         // guarded by log_mutex

void watch_log(int level, const char *line, void *) {
  const std::lock_guard<std::mutex> lock(log_mutex);
  if (level <= KAVO_LOG_CRIT) failed_assertions.emplace_back(line);
  if (level <= KAVO_LOG_WARNING) complaints.emplace_back(line);
}

}  // namespace

void HostTest::SetUp() {
  const std::lock_guard<std::mutex> lock(log_mutex);
  failed_assertions.clear();
  complaints.clear();
  kavo_set_log_cb(watch_log, nullptr);
}

std::vector<std::string> HostTest::complaints_about(std::string_view text) {
  const std::lock_guard<std::mutex> lock(log_mutex);
  std::vector<std::string> found;
  std::ranges::copy_if(complaints, std::back_inserter(found),
                       [text](const std::string &line) { return line.find(text) != std::string::npos; });
  return found;
}

void HostTest::TearDown() {
  kavo_set_log_cb(nullptr, nullptr);
  const std::lock_guard<std::mutex> lock(log_mutex);
  for (const std::string &line : failed_assertions)
    ADD_FAILURE() << line;
}

std::string address_bytes(const char *text) {
  in_addr address{};
  EXPECT_GT(kavo_dns_ptoa4(text, &address), 0) << text;
  return {reinterpret_cast<const char *>(&address), sizeof address};
}

size_t open_descriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(all), end(all)));
}

}  // namespace testbed
