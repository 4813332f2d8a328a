// world.h - the engine's world in one thread of a test: a network that loses, delays, reorders and doubles
// packets, servers that answer, refuse, give wrong answers or stay silent, forgers, and a clock that jumps from event
// to event. Everything follows from one seed.
#ifndef KAVO_TESTBED_WORLD_H
#define KAVO_TESTBED_WORLD_H

#include <dns_engine.h>
#include <dns_io.h>
#include <dns_wire.h>
#include <names.h>
#include <temper.h>
#include <weather.h>

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace sim {

// Reply is what the network delivers for a query; an empty answer is silence.
struct Reply {
  Reply(Bytes answer) : bytes(std::move(answer)) {}  // NOLINT: a script returns bytes

  Bytes bytes;
  unsigned copies = 1;
  std::string from;       // the address that it comes from, if not the server's
  bool returned = false;  // the query comes back undeliverable
  bool whole = false;     // over UDP too, however large
  bool framed = true;     // over TCP, after its length
  bool closes = false;    // the connection
};

class World {
 public:
  explicit World(uint64_t seed);
  World(const World &) = delete;
  World &operator=(const World &) = delete;
  ~World();

  Weather weather;
  dns_ctx *ctx = nullptr;
  int64_t now_us = 1'000'000'000;
  unsigned packets_sent = 0;
  std::map<std::string, unsigned> asked;       // of the packets, those to each server
  std::map<std::string, Capacity> capacities;  // of servers that have not all the room and time there is
  std::map<std::string, int64_t> delays_us;    // of a server's answers, beyond the weather's
  unsigned sockets_open = 0;
  unsigned inbox_room = UINT32_MAX;  // packets that a socket's receive buffer holds
  unsigned connections_made = 0;
  unsigned answers_per_connection = UINT32_MAX;  // after which a server closes it, even with further queries on it
  int tcp_error = 0;                             // of the next `tcp_errors` connections
  unsigned tcp_errors = 0;
  bool by_tcp = false;  // how the query at hand of `script` came
  // script, where there is one, answers in place of every server's temper, over TCP what is too large for a datagram.
  std::function<Reply(const Bytes &query, const std::string &server)> script;
  bool send_buffers_full = false;   // every send finds its buffer full until this is cleared
  std::set<dns::Family> routeless;  // families to which the system refuses to send
  unsigned refused = 0;             // sends and connections that it has refused

  void add_server(const std::string &address, Temper temper);
  void add_servers(const std::vector<std::string> &addresses, Temper temper = Temper::good) {
    for (const std::string &address : addresses)
      add_server(address, temper);
  }
  void set_temper(const std::string &address, Temper temper) { tempers_[address] = temper; }

  // worsen draws the weather of a storm, with forgers up to so many percent.
  void worsen(int forged_percent_max);
  // forge puts a packet into the inbox of every socket that hears a server's port, as if it came from there.
  void forge(const std::string &server, const Bytes &packet, uint16_t port = 53);
  // last_query is the last packet that was sent by UDP.
  [[nodiscard]] const Bytes &last_query() const { return last_query_; }

  // turn lets the engine do what is due, moves the clock to whatever comes next and delivers it. False once no query
  // is open.
  bool turn();
  // read_sockets hands the engine what its sockets hold.
  void read_sockets();
  // run takes turns until no query is open; false when that takes more than `turns_max`.
  bool run(unsigned turns_max = 100'000);
  [[nodiscard]] dns_timeval now() const;
  uint64_t random(uint64_t below) { return std::uniform_int_distribution<uint64_t>(0, below - 1)(random_); }
  bool chance(int percent) { return static_cast<int>(random(100)) < percent; }

 private:
  struct Parcel {
    int socket;
    dns::Address from;
    Bytes bytes;
  };

  struct Stream {
    std::string server;
    Temper temper;
    std::deque<uint8_t> in, out;  // of the server
    unsigned answers = 0;
    bool closed = false;  // by the server
  };

  static dns_time wall(void *self);
  static bool random_bytes(void *self, void *bytes, size_t size);
  static int udp_open(void *self, dns::Family family, uint16_t port, const dns::Address *peer);
  static void udp_close(void *self, int socket);
  static int udp_send(void *self, int socket, const dns::Datagram *datagrams, unsigned count, bool connected);
  static int udp_receive(void *self, int socket, dns::Datagram *datagrams, unsigned count, bool connected);
  static int udp_returned(void *self, int socket, dns::Datagram *datagram);
  static int udp_dropped(void *self, int socket);
  static int tcp_open(void *self, const dns::Address &peer);
  static void tcp_close(void *self, int socket);
  static int tcp_send(void *self, int socket, const uint8_t *bytes, size_t size);
  static int tcp_receive(void *self, int socket, uint8_t *bytes, size_t size);

  void send(int socket, const dns::Datagram &datagram);
  void forge_answers(int socket, const dns::Address &peer, const Bytes &query);
  void answer_stream(Stream *stream, const Bytes &query);
  // take has a server take a query: false if its queue is full; `temper` and `wait_us` become how and when it answers.
  [[nodiscard]] bool take(const std::string &server, Temper *temper, int64_t *wait_us);
  void mail(int socket, const dns::Address &from, Bytes bytes, int64_t wait_us = 0);
  [[nodiscard]] bool refuses(dns::Family family);
  [[nodiscard]] bool hears(int socket, const dns::Address &from) const;
  void deliver_due();

  std::mt19937_64 random_;
  dns::Io io_;
  std::map<std::string, Temper> tempers_;
  std::multimap<int64_t, Parcel> under_way_;
  std::map<int, std::deque<Parcel>> inboxes_;
  std::map<int, std::deque<Parcel>> returned_;
  std::map<int, dns::Family> families_;    // of the sockets
  std::map<int, int> drops_;               // at the sockets
  std::map<int, dns::Address> connected_;  // sockets that receive from this address only
  std::map<int, Stream> streams_;
  std::map<std::array<uint8_t, 2>, std::set<int>> homes_;  // sockets that queries left from, by their ids
  Bytes last_query_;
  int next_socket_ = 100;
};

}  // namespace sim

#endif  // KAVO_TESTBED_WORLD_H
