#include "name_daemons.h"

#include <hand_server.h>
#include <packet.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace testbed {
namespace {

constexpr uint16_t kTypeSoa = 6;
constexpr int kReadyAttempts = 100;
constexpr milliseconds kReadyWait{200};
constexpr uint16_t kProbeId = 0x5e7d;
constexpr mode_t kReadableByAll = 0755;  // a server that gives up root must still reach its files

std::unique_ptr<TempDir> shared_directory() {
  auto directory = std::make_unique<TempDir>();
  if (chmod(directory->path().c_str(), kReadableByAll) != 0) throw std::runtime_error("chmod " + directory->path());
  return directory;
}

std::string required_program(std::string_view name) {
  std::string path = find_program(name);
  if (path.empty()) throw std::runtime_error(std::string(name) + " is not installed");
  return path;
}

// Waits until the daemon answers for every zone; the answer to the zone's SOA query has code 0.
std::unique_ptr<NameDaemon> ready(std::unique_ptr<NameDaemon> daemon, const std::vector<std::string> &zones,
                                  const std::string &address = "127.0.0.1") {
  size_t answered = 0;
  for (int i = 0; i < kReadyAttempts && answered < zones.size() && daemon->running(); ++i) {
    const std::optional<int> rcode = ask_rcode(daemon->port(), zones[answered], kTypeSoa, kReadyWait, address);
    if (rcode == 0)
      ++answered;
    else
      std::this_thread::sleep_for(kReadyWait / 4);
  }
  if (answered < zones.size())
    throw std::runtime_error("no answer for " + zones[answered] + " from the server:\n" + daemon->log());
  return daemon;
}

// sign signs a zone file and returns the name of the signed one.
std::string sign(const TempDir &directory, const std::string &zone, const std::string &file) {
  const std::string shell = "cd '" + directory.path() + "' && key=$(ldns-keygen -r /dev/urandom -a ECDSAP256SHA256 '" +
                            zone + "') && exec ldns-signzone -o '" + zone + "' " + file + " \"$key\"";
  const Result result = run({"/bin/sh", "-c", shell});
  if (result.status != 0) throw std::runtime_error("ldns-signzone (ldnsutils): " + result.err);
  return file + ".signed";
}

// unbound_head returns what every configuration of unbound begins with: where it is and listens.
std::string unbound_head(const TempDir &directory, const std::string &address, uint16_t port) {
  return "server:\n  interface: " + address + "\n  port: " + std::to_string(port) +
         "\n  username: \"\"\n  chroot: \"\"\n  directory: \"" + directory.path() + "\"\n  pidfile: \"" +
         directory.file("unbound.pid") + "\"\n  do-daemonize: no\n  use-syslog: no\n";
}

}  // namespace

NameDaemon::NameDaemon(std::unique_ptr<TempDir> directory, std::vector<std::string> argv, uint16_t port)
    : directory_(std::move(directory)), process_(std::move(argv), "", directory_->path()), port_(port) {}

std::optional<int> ask_rcode(uint16_t port, std::string_view name, uint16_t type, milliseconds bound,
                             const std::string &address) {
  const sockaddr_storage to = socket_address(address, port);
  const int fd = socket(to.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return std::nullopt;
  const timeval wait{bound.count() / 1000, (bound.count() % 1000) * 1000};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
  const Bytes packet = Packet(name, type, kProbeId, kQueryFlags).bytes;
  std::array<unsigned char, 4096> answer;
  ssize_t got = -1;
  if (connect(fd, reinterpret_cast<const sockaddr *>(&to),
              to.ss_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in)) == 0 &&
      send(fd, packet.data(), packet.size(), 0) == static_cast<ssize_t>(packet.size()))
    got = recv(fd, answer.data(), answer.size(), 0);
  close(fd);
  if (got < static_cast<ssize_t>(DNS_HSIZE) || answer[0] != kProbeId >> 8 || answer[1] != (kProbeId & 0xff))
    return std::nullopt;
  return answer[kRcodeAt] & 0x0f;
}

std::string find_program(std::string_view name) {
  const char *path = std::getenv("PATH");
  std::istringstream directories(std::string(path == nullptr ? "" : path) + ":/usr/local/sbin:/usr/sbin:/sbin");
  for (std::string directory; std::getline(directories, directory, ':');) {
    const std::string candidate = directory + "/" + std::string(name);
    if (!directory.empty() && access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return "";
}

std::unique_ptr<NameDaemon> start_rbldnsd(const std::vector<ListZone> &zones, const std::string &address) {
  const uint16_t port = free_udp_port();
  auto directory = shared_directory();
  std::vector<std::string> argv{required_program("rbldnsd"),         "-n", "-c", "0", "-b",
                                address + "/" + std::to_string(port)};
  // It refuses to serve as root.
  if (geteuid() == 0) argv.insert(argv.end(), {"-u", "nobody"});
  std::vector<std::string> names;
  for (const ListZone &zone : zones) {
    const std::string file = "zone" + std::to_string(names.size());
    directory->write(file, "$SOA 300 ns.invalid. admin.invalid. 1 300 300 300 300\n$NS 300 ns.invalid.\n" + zone.data);
    argv.push_back(zone.name + ":" + zone.kind + ":" + file);
    names.push_back(zone.name);
  }
  return ready(std::make_unique<NameDaemon>(std::move(directory), std::move(argv), port), names, address);
}

std::unique_ptr<NameDaemon> start_nsd(const std::vector<MasterZone> &zones, const std::string &address, uint16_t port) {
  if (port == 0) port = free_udp_port();
  auto directory = shared_directory();
  const std::string &path = directory->path();
  std::ostringstream config;
  config << "server:\n  ip-address: " << address << "\n  port: " << port
         << "\n  username: \"\"\n  chroot: \"\"\n  server-count: 1\n"
         << "  zonesdir: \"" << path << "\"\n  pidfile: \"" << path << "/nsd.pid\"\n  database: \"\"\n  xfrdir: \""
         << path << "\"\n  xfrdfile: \"" << path << "/xfrd.state\"\n  zonelistfile: \"" << path
         << "/zone.list\"\n  rrl-ratelimit: 0\n"
         << "remote-control:\n  control-enable: no\n";
  std::vector<std::string> names;
  for (const MasterZone &zone : zones) {
    std::string file = "zone" + std::to_string(names.size());
    directory->write(file, zone.records);
    if (zone.sign) file = sign(*directory, zone.name, file);
    config << "zone:\n  name: \"" << zone.name << "\"\n  zonefile: \"" << file << "\"\n";
    names.push_back(zone.name);
  }
  std::vector<std::string> argv{required_program("nsd"), "-d", "-c", directory->write("nsd.conf", config.str())};
  return ready(std::make_unique<NameDaemon>(std::move(directory), std::move(argv), port), names, address);
}

std::unique_ptr<NameDaemon> start_unbound(const std::vector<StubZone> &zones, const std::string &address) {
  const uint16_t port = free_udp_port();
  auto directory = shared_directory();
  std::ostringstream config;
  config << unbound_head(*directory, address, port) << "  num-threads: 1\n  outgoing-interface: 127.0.0.1\n"
         << "  do-not-query-localhost: no\n  module-config: \"iterator\"\n  access-control: 127.0.0.0/8 allow_snoop\n"
         << "  access-control: ::1/128 allow_snoop\n  do-ip6: " << (address == "::1" ? "yes" : "no") << "\n"
         << "  outgoing-range: 64\n  num-queries-per-thread: 64\n  unblock-lan-zones: yes\n";
  // Names that it would otherwise answer for itself, such as those below test.
  for (const StubZone &zone : zones)
    config << "  local-zone: \"" << zone.name << "\" transparent\n";
  config << "remote-control:\n  control-enable: no\n";
  std::vector<std::string> names;
  for (const StubZone &zone : zones) {
    config << "stub-zone:\n  name: \"" << zone.name << "\"\n  stub-addr: " << zone.address << "@" << zone.port
           << "\n  stub-prime: no\n";
    names.push_back(zone.name);
  }
  std::vector<std::string> argv{required_program("unbound"), "-d", "-c",
                                directory->write("unbound.conf", config.str())};
  return ready(std::make_unique<NameDaemon>(std::move(directory), std::move(argv), port), names, address);
}

std::unique_ptr<NameDaemon> start_local_unbound(const std::vector<LocalZone> &zones) {
  const uint16_t port = free_udp_port();
  auto directory = shared_directory();
  std::string config = unbound_head(*directory, "127.0.0.1", port);
  std::vector<std::string> names;
  for (const LocalZone &zone : zones) {
    for (const std::string &line : zone.lines)
      config += "  " + line + "\n";
    names.push_back(zone.name);
  }
  config += "remote-control:\n  control-enable: no\n";
  std::vector<std::string> argv{required_program("unbound"), "-d", "-c", directory->write("unbound.conf", config)};
  return ready(std::make_unique<NameDaemon>(std::move(directory), std::move(argv), port), names);
}

}  // namespace testbed
