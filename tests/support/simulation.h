// simulation.h - the engine's world in one thread of a test: a network that loses, delays, reorders and doubles
// packets, servers that answer, refuse, lie or stay silent, forgers, and a clock that jumps from event to event.
// Everything follows from one seed.
#ifndef KAVO_TESTS_SIMULATION_H
#define KAVO_TESTS_SIMULATION_H

#include <dns_engine.h>
#include <dns_io.h>
#include <dns_wire.h>

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

using Bytes = std::vector<uint8_t>;

// What a server makes of a question.
enum class Temper {
  good,
  dead,
  absent,  // nothing listens there, and its host says so
  refuses,
  fails,
  truncates,
  refuses_tcp,
  knows_no_opt,
  lowers_case,         // and has no TCP
  lowers_case_by_tcp,  // there too
  bakes_cookies,       // refuses a question without its cookie
  garbles,
  wrong_name,
  wrong_id,
  wrong_type,
  request,
  chains,
  loops,
  refers
};

struct Weather {
  int loss_percent = 0;
  int duplicate_percent = 0;
  int64_t delay_us = 100;
  int64_t jitter_us = 0;
  int forged_percent = 0;  // packets sent that draw a forger's answer with a guessed id
  int breaks_percent = 0;  // of the times that a connection is written to or found empty, it breaks
};

// The truth about a name, as every honest server tells it: names are "listed-N", "gone-N" or "empty-N" under any zone.
// In cost.test a server's last octet N costs 127.0.N.N.
struct Truth {
  dns_status status;
  in_addr_t address;  // host byte order
};
Truth truth_of(const uint8_t *dn);

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
  std::map<std::string, unsigned> asked;     // of them those to each server
  std::map<std::string, int64_t> delays_us;  // of a server's answers, beyond the weather's
  unsigned sockets_open = 0;
  unsigned connections_made = 0;
  unsigned answers_per_connection = UINT32_MAX;  // after which a server closes it, whatever else was asked there
  int tcp_error = 0;                             // of the next `tcp_errors` connections
  unsigned tcp_errors = 0;
  bool by_tcp = false;  // how the question at hand of `script` came
  // script, where there is one, answers in place of every server's temper, over TCP what is too
  // large for a datagram; empty for silence.
  std::function<Bytes(const Bytes &question, const std::string &server)> script;
  bool send_buffers_full = false;  // every send finds its buffer full until this is cleared

  void add_server(const std::string &address, Temper temper);
  void set_temper(const std::string &address, Temper temper) { tempers_[address] = temper; }
  static sockaddr_in address_of(const std::string &address, uint16_t port = 53);

  // forge puts a packet into the inbox of every socket, as if it came from a server's port.
  void forge(const std::string &server, const Bytes &packet, uint16_t port = 53);
  // last_question is the last packet that was sent by UDP.
  [[nodiscard]] const Bytes &last_question() const { return last_question_; }

  // turn lets the engine do what is due, moves the clock to whatever comes next and delivers it. False once no question
  // is open.
  bool turn();
  // read_sockets hands the engine what its sockets hold.
  void read_sockets();
  // run takes turns until no question is open; false when that takes more than `turns_max`.
  bool run(unsigned turns_max = 100'000);
  [[nodiscard]] dns_timeval now() const;
  uint64_t random(uint64_t below) { return std::uniform_int_distribution<uint64_t>(0, below - 1)(random_); }
  bool chance(int percent) { return static_cast<int>(random(100)) < percent; }

 private:
  struct Parcel {
    int socket;
    sockaddr_in from;
    Bytes bytes;
  };

  struct Stream {
    std::string server;
    Temper temper;
    std::deque<uint8_t> in, out;  // of the server
    unsigned answers = 0;
  };

  static dns_time wall(void *self);
  static bool random_bytes(void *self, void *bytes, size_t size);
  static int udp_open(void *self, uint16_t port, const sockaddr_in *peer);
  static void udp_close(void *self, int socket);
  static int udp_send(void *self, int socket, const dns::Datagram *datagrams, unsigned count, bool connected);
  static int udp_receive(void *self, int socket, dns::Datagram *datagrams, unsigned count);
  static int udp_returned(void *self, int socket, dns::Datagram *datagram);
  static int tcp_open(void *self, const sockaddr_in &peer);
  static void tcp_close(void *self, int socket);
  static int tcp_send(void *self, int socket, const uint8_t *bytes, size_t size);
  static int tcp_receive(void *self, int socket, uint8_t *bytes, size_t size);

  void send(int socket, const dns::Datagram &datagram);
  void mail(int socket, const sockaddr_in &from, Bytes bytes);
  void deliver_due();

  std::mt19937_64 random_;
  dns::Io io_;
  std::map<std::string, Temper> tempers_;
  std::multimap<int64_t, Parcel> under_way_;
  std::map<int, std::deque<Parcel>> inboxes_;
  std::map<int, std::deque<Parcel>> returned_;
  std::map<int, sockaddr_in> connected_;  // sockets that hear nobody else
  std::map<int, Stream> streams_;
  std::map<std::array<uint8_t, 2>, std::set<int>> homes_;  // sockets that questions left from, by their ids
  Bytes last_question_;
  int next_socket_ = 100;
};

// answer_to builds what a server of some temper sends back; empty for silence.
Bytes answer_to(const Bytes &question, Temper temper, bool by_tcp = false);

// name makes a DN of a text.
std::array<uint8_t, DNS_MAXDN> name(const std::string &text);

}  // namespace sim

#endif  // KAVO_TESTS_SIMULATION_H
