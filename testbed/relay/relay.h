// relay.h - a bad network between a client and a DNS server: UDP packets suffer what the terms say, TCP connections
// pass unharmed.
//
// One thread runs everything. Each client socket has a flow, a socket of its own towards the server, so that answers
// find their way back. Packets on their way wait in one queue, ordered by the moment of their arrival.
#ifndef KAVO_BENCH_RELAY_RELAY_H
#define KAVO_BENCH_RELAY_RELAY_H

#include <netinet/in.h>

#include <chrono>
#include <cstdint>
#include <list>
#include <memory>
#include <queue>
#include <unordered_map>
#include <vector>

#include "descriptor.h"
#include "luck.h"
#include "stream.h"

namespace relay {

// Counts are what the relay saw of the packets, by the way they went.
struct Counts {
  uint64_t asked = 0;        // packets from clients
  uint64_t answered = 0;     // packets from the server
  uint64_t lost = 0;         // of both
  uint64_t twice = 0;        // of both
  uint64_t turned_away = 0;  // packets that found the queue full, flows and connections that gave way to others
};

class Relay {
 public:
  Relay(const Terms &terms, uint64_t seed, const sockaddr_in &server);

  // open binds a UDP and a TCP socket to one port of the address; port 0 takes a free one. Throws std::system_error.
  void open(const in_addr &address, uint16_t port);
  [[nodiscard]] uint16_t port() const { return port_; }

  // run passes packets on until SIGTERM or SIGINT, and prints the counts then and at every SIGUSR1.
  void run();

 private:
  using Clock = std::chrono::steady_clock;

  struct Flow {
    Descriptor socket;
    sockaddr_in client;
    std::list<uint64_t>::iterator place;  // in order_of_use_
  };
  struct Held {
    Clock::time_point due;
    uint64_t order;
    std::shared_ptr<Flow> flow;
    Way way;
    std::vector<uint8_t> packet;
    bool operator<(const Held &other) const {
      return due != other.due ? due > other.due : order > other.order;  // the earliest is the queue's top
    }
  };

  void watch(int fd, int operation, uint32_t events);
  std::shared_ptr<Flow> flow_of(const sockaddr_in &client);
  void forget_oldest_flow();
  void take_queries();
  void take_answers(const std::shared_ptr<Flow> &flow);
  void hold(const std::shared_ptr<Flow> &flow, Way way, std::span<const uint8_t> packet);
  void release_due();
  void arm_timer();
  void accept_stream();
  void serve_stream(const std::shared_ptr<Stream> &stream, bool broken);
  void serve(int fd, bool broken);
  [[nodiscard]] bool take_signal();
  void print_counts() const;

  sockaddr_in server_;
  Luck luck_;
  Counts counts_;
  uint16_t port_ = 0;
  uint64_t order_ = 0;
  Descriptor epoll_;
  Descriptor timer_;
  Descriptor signals_;
  Descriptor udp_;
  Descriptor tcp_;
  std::unordered_map<uint64_t, std::shared_ptr<Flow>> flows_;  // by the client's address and port
  std::list<uint64_t> order_of_use_;                           // keys of flows_, the one used longest ago first
  std::unordered_map<int, std::shared_ptr<Flow>> flow_at_;     // by descriptor
  std::unordered_map<int, std::shared_ptr<Stream>> stream_at_;
  std::priority_queue<Held> held_;
};

}  // namespace relay

#endif  // KAVO_BENCH_RELAY_RELAY_H
