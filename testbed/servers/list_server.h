// list_server.h - this project's own servers on loopback: the list server, and the relay that plays a bad network in
// front of it.
#ifndef KAVO_TESTBED_LIST_SERVER_H
#define KAVO_TESTBED_LIST_SERVER_H

#include <process.h>
#include <temp_dir.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace testbed {

// OwnServer is a program that prints "listening on ADDRESS:PORT" once it is ready. It throws std::runtime_error, with
// what the program wrote, if it does not come to that.
class OwnServer {
 public:
  explicit OwnServer(std::vector<std::string> argv);
  [[nodiscard]] uint16_t port() const { return port_; }
  [[nodiscard]] pid_t pid() const { return process_.pid(); }
  // stop returns the exit status.
  int stop() { return process_.stop(); }
  // count returns the last figure that the program has printed after `word`; it prints its counts at its end.
  [[nodiscard]] uint64_t count(std::string_view word);

 protected:
  Process process_;

 private:
  uint16_t port_ = 0;
};

// ListServer runs kavo-listserver on a zones file, with further words of its command line.
class ListServer : private TempDir, public OwnServer {
 public:
  explicit ListServer(std::string_view zones, const std::vector<std::string> &words = {});
  // received returns how many queries have reached the server, those included whose answers have come back.
  [[nodiscard]] uint64_t received();

 private:
  size_t asked_ = 0;  // how many times the counts were asked for
};

// Relay runs kavo-relay in front of a server of 127.0.0.1.
class Relay : public OwnServer {
 public:
  Relay(uint16_t server_port, const std::vector<std::string> &words);
};

// listserver_path returns the list server's program.
[[nodiscard]] std::string listserver_path();

}  // namespace testbed

#endif  // KAVO_TESTBED_LIST_SERVER_H
