#include "network.h"

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>

namespace stock {
namespace {

constexpr std::chrono::milliseconds kQuiet{30};
constexpr int kLooksMax = 200;
constexpr int kHexadecimal = 16;

bool write_file(const char *path, const std::string &text) {
  std::ofstream file(path);
  file << text;
  return static_cast<bool>(file.flush());
}

bool bring_up_loopback() {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq request{};
  std::strcpy(request.ifr_name, "lo");
  bool up = fd >= 0 && ioctl(fd, SIOCGIFFLAGS, &request) == 0;
  request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
  up = up && ioctl(fd, SIOCSIFFLAGS, &request) == 0;
  if (fd >= 0) close(fd);
  return up;
}

// The line of names and the line of values of UDP in the kernel's table.
void read_totals(Counters *counters) {
  std::ifstream table("/proc/net/snmp");
  std::string names, values;
  while (std::getline(table, names) && std::getline(table, values)) {
    if (!names.starts_with("Udp:")) continue;
    std::istringstream name_words(names), value_words(values);
    std::string name, value;
    while (name_words >> name && value_words >> value) {
      if (name == "InDatagrams") counters->taken = std::stoll(value);
      if (name == "RcvbufErrors") counters->full = std::stoll(value);
      if (name == "NoPorts") counters->closed = std::stoll(value);
    }
    return;
  }
  throw std::runtime_error("no counters of UDP in /proc/net/snmp");
}

// A line of the kernel's table of sockets has the local address and port second, the drops last.
void read_drops(uint16_t port, Counters *counters) {
  std::ifstream table("/proc/net/udp");
  std::string line;
  std::getline(table, line);
  bool found = false;
  while (std::getline(table, line)) {
    std::istringstream words(line);
    std::string number, local, word, last;
    words >> number >> local;
    while (words >> word)
      last = word;
    if (std::stoul(local.substr(local.find(':') + 1), nullptr, kHexadecimal) != port) continue;
    counters->drops += std::stoll(last);
    found = true;
  }
  if (!found) throw std::runtime_error("the server has no socket in /proc/net/udp");
}

Counters counters_now(uint16_t port) {
  Counters counters;
  read_totals(&counters);
  read_drops(port, &counters);
  return counters;
}

}  // namespace

bool enter_own_network() {
  const uid_t user = geteuid();
  const gid_t group = getegid();
  if (unshare(user == 0 ? CLONE_NEWNET : CLONE_NEWNET | CLONE_NEWUSER) != 0) return false;
  if (user != 0) {
    const auto same = [](unsigned id) { return std::to_string(id) + " " + std::to_string(id) + " 1"; };
    if (!write_file("/proc/self/setgroups", "deny") || !write_file("/proc/self/uid_map", same(user)) ||
        !write_file("/proc/self/gid_map", same(group)))
      throw std::runtime_error("cannot map this user into a network of its own");
  }
  if (!bring_up_loopback()) throw std::runtime_error("cannot bring up loopback in a network of its own");
  return true;
}

int default_buffer() {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  int bytes = 0;
  socklen_t size = sizeof bytes;
  if (fd < 0 || getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, &size) != 0) throw std::runtime_error("socket");
  close(fd);
  return bytes;
}

Counters operator-(const Counters &after, const Counters &before) {
  return {after.taken - before.taken, after.full - before.full, after.closed - before.closed,
          after.drops - before.drops};
}

Counters settled_counters(uint16_t port) {
  Counters counters = counters_now(port);
  for (int look = 0; look < kLooksMax; ++look) {
    std::this_thread::sleep_for(kQuiet);
    const Counters next = counters_now(port), change = next - counters;
    counters = next;
    if (change.taken == 0 && change.full == 0 && change.closed == 0) break;
  }
  return counters;
}

}  // namespace stock
