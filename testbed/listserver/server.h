// server.h - the list server's UDP loop: packets in and out by the batch, and the answers that are held back.
//
// One thread runs everything. Signals are let in only while it waits, so that none is lost between a look and a wait.
#ifndef KAVO_TOOLS_LISTSERVER_SERVER_H
#define KAVO_TOOLS_LISTSERVER_SERVER_H

#include <netinet/in.h>

#include <chrono>
#include <cstdint>
#include <queue>
#include <span>
#include <vector>

#include "responder.h"

namespace listserver {

class Server {
 public:
  Server(const Config &config, uint64_t seed);
  ~Server();
  Server(const Server &) = delete;
  Server &operator=(const Server &) = delete;

  // open binds the UDP socket; port 0 takes a free one. Throws std::system_error.
  void open(const in_addr &address, uint16_t port);
  [[nodiscard]] uint16_t port() const { return port_; }

  // run serves until SIGTERM or SIGINT, and prints the counts then and at every SIGUSR1.
  void run();

 private:
  using Clock = std::chrono::steady_clock;

  // Held is an answer that is sent later.
  struct Held {
    Clock::time_point due;
    uint64_t order;  // answers due at one moment leave in the order they were made
    sockaddr_in to;
    std::vector<uint8_t> packet;
    bool operator<(const Held &other) const {
      return due != other.due ? due > other.due : order > other.order;  // the earliest is the queue's top
    }
  };
  struct Batch;

  unsigned serve_batch();
  void act(const Reply &reply, const sockaddr_in &to, std::span<const uint8_t> packet);
  void post(const sockaddr_in &to, std::span<const uint8_t> packet);
  void flush();
  void release_held();
  void wait(bool at_once);
  void print_counts() const;

  Counts counts_;
  Chance chance_;
  Responder responder_;
  int socket_ = -1;
  uint16_t port_ = 0;
  uint64_t order_ = 0;
  std::priority_queue<Held> held_;
  std::unique_ptr<Batch> batch_;
};

}  // namespace listserver

#endif  // KAVO_TOOLS_LISTSERVER_SERVER_H
