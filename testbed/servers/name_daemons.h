// name_daemons.h - real name servers on loopback: a list server, an authoritative server and a resolver.
//
// Each start_* call writes a configuration of its own into a scratch directory, starts the distribution's program on a
// free port of 127.0.0.1 or ::1, and returns once the program answers a real query over UDP. A NameDaemon is stopped by
// its process id when it goes out of scope. All of them run as root and as an ordinary user, and send nothing outside
// 127.0.0.0/8 and ::1. They throw std::runtime_error, with what the program wrote, when it does not come up: the test
// fails and says why.
#ifndef KAVO_TESTBED_NAME_DAEMONS_H
#define KAVO_TESTBED_NAME_DAEMONS_H

#include <process.h>
#include <temp_dir.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace testbed {

class NameDaemon {
 public:
  NameDaemon(std::unique_ptr<TempDir> directory, std::vector<std::string> argv, uint16_t port);

  [[nodiscard]] uint16_t port() const { return port_; }
  [[nodiscard]] pid_t pid() const { return process_.pid(); }
  [[nodiscard]] std::string log() { return process_.output().out + process_.output().err; }
  [[nodiscard]] bool running() { return process_.running(); }
  void stop() { process_.stop(); }

 private:
  std::unique_ptr<TempDir> directory_;  // outlives the process that reads it
  Process process_;
  uint16_t port_;
};

// ListZone is one zone of the list server: its name, the kind of its data ("ip4set", "dnset", ...) and the data itself.
struct ListZone {
  std::string name;
  std::string kind;
  std::string data;
};
[[nodiscard]] std::unique_ptr<NameDaemon> start_rbldnsd(const std::vector<ListZone> &zones,
                                                        const std::string &address = "127.0.0.1");

// MasterZone is a zone of the authoritative server, its records in the usual text form; SOA and NS are among them.
// Several servers may share a port, each on an address of its own, ::1 or in 127.0.0.0/8; port 0 is a free one.
struct MasterZone {
  std::string name;
  std::string records;
  bool sign = false;  // with a key that is made for it
};
[[nodiscard]] std::unique_ptr<NameDaemon> start_nsd(const std::vector<MasterZone> &zones,
                                                    const std::string &address = "127.0.0.1", uint16_t port = 0);

// start_unbound starts a resolver without root servers that asks one server for the names of each zone. It answers
// queries without RD from its cache.
struct StubZone {
  std::string name;
  uint16_t port;
  std::string address = "127.0.0.1";
};
[[nodiscard]] std::unique_ptr<NameDaemon> start_unbound(const std::vector<StubZone> &zones,
                                                        const std::string &address = "127.0.0.1");

// start_local_unbound starts a resolver that answers for zones by itself, from lines of its configuration (local-zone,
// local-data); each zone has an SOA record among them. All else is as the resolver has it if nothing is said.
struct LocalZone {
  std::string name;
  std::vector<std::string> lines;
};
[[nodiscard]] std::unique_ptr<NameDaemon> start_local_unbound(const std::vector<LocalZone> &zones);

// find_program looks in PATH and in the system administrator's directories; empty when there is no such program.
[[nodiscard]] std::string find_program(std::string_view name);

// ask_rcode sends one query (class IN, RD set) and returns the response code; nothing without an answer.
[[nodiscard]] std::optional<int> ask_rcode(uint16_t port, std::string_view name, uint16_t type, milliseconds bound,
                                           const std::string &address = "127.0.0.1");

}  // namespace testbed

#endif  // KAVO_TESTBED_NAME_DAEMONS_H
