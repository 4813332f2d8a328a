// hand_server.h - a name server that answers on its owner's command.
#ifndef KAVO_TESTBED_HAND_SERVER_H
#define KAVO_TESTBED_HAND_SERVER_H

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <string>
#include <vector>

namespace testbed {

[[nodiscard]] sockaddr_in loopback(uint16_t port);

// ipv6_works tells whether this machine has ::1.
[[nodiscard]] bool ipv6_works();

// socket_address makes one from an address of either family, and port_of returns its port.
[[nodiscard]] sockaddr_storage socket_address(const std::string &address, uint16_t port);
[[nodiscard]] uint16_t port_of(const sockaddr_storage &address);

class HandServer {
 public:
  struct Query {
    std::vector<uint8_t> packet;  // empty if none has come within a minute
    sockaddr_storage from;
    socklen_t from_size;
  };

  explicit HandServer(const std::string &address = "127.0.0.1");
  ~HandServer();
  HandServer(const HandServer &) = delete;
  HandServer &operator=(const HandServer &) = delete;
  [[nodiscard]] uint16_t port() const { return port_; }
  [[nodiscard]] int descriptor() const { return socket_; }
  [[nodiscard]] Query receive() const;
  // answer answers with the address 127.0.0.`octet`, deny with NXDOMAIN and no SOA record.
  void answer(const Query &query, uint8_t octet) const;
  void deny(const Query &query) const;
  void send(const Query &query, const std::vector<uint8_t> &packet) const;

 private:
  int socket_;
  uint16_t port_ = 0;
};

}  // namespace testbed

#endif  // KAVO_TESTBED_HAND_SERVER_H
