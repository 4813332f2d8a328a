// cares_client.cc - c-ares in a loop of poll and ares_process_fd. A channel keeps to one UDP socket; poll waits for it
// with a bound of its own, for asking c-ares how long to wait walks all its questions.
#include <ares.h>
#include <arpa/inet.h>
#include <netdb.h>
#include <poll.h>

#include <array>
#include <mutex>

#include "client.h"
#include "packet.h"
#include "socket.h"

namespace compare {
namespace {

constexpr const char *kName = "c-ares";
constexpr int kTimeoutMs = 5000;  // a packet that is lost shows
constexpr int kTries = 1;
constexpr int kLookMs = 100;  // between two looks at the time-outs
constexpr int kClassIn = 1, kTypeA = 1;
constexpr int kAddressesMax = 8;

void must(int status, const char *what) {
  if (status != ARES_SUCCESS) throw std::runtime_error(std::string(what) + ": " + ares_strerror(status));
}

class Cares : public Client {
 public:
  Cares(const Task &task, uint16_t port) : task_(task), names_(task.zones), asked_(task.window() * task.zones) {
    ares_options options{};
    options.flags = ARES_FLAG_STAYOPEN;
    options.timeout = kTimeoutMs;
    options.tries = kTries;
    must(ares_init_options(&channel_, &options, ARES_OPT_FLAGS | ARES_OPT_TIMEOUTMS | ARES_OPT_TRIES),
         "ares_init_options");
    must(ares_set_servers_ports_csv(channel_, ("127.0.0.1:" + std::to_string(port)).c_str()),
         "ares_set_servers_ports_csv");
    ares_set_socket_configure_callback(channel_, on_socket, nullptr);
    for (Asked &each : asked_) {
      each.self = this;
      free_.push_back(&each);
    }
  }
  ~Cares() override { ares_destroy(channel_); }
  Cares(const Cares &) = delete;
  Cares &operator=(const Cares &) = delete;

  unsigned ask(unsigned first, unsigned count) override {
    Packets next(task_, first);
    lost_ = 0;
    for (unsigned left = count * task_.zones; left > 0 || free_.size() < asked_.size();) {
      for (; left > 0 && !free_.empty(); --left, next.next())
        start(next.address(), next.zone());
      turn();
      if (!fault_.empty()) throw std::runtime_error(fault_);
    }
    return lost_;
  }

 private:
  struct Asked {
    Cares *self;
    uint32_t address;
  };

  static int on_socket(ares_socket_t fd, int, void *) {
    grow_buffer(fd);
    return ARES_SUCCESS;
  }

  void start(uint32_t address, unsigned zone) {
    Asked *asked = free_.back();
    free_.pop_back();
    asked->address = address;
    ares_query(channel_, names_.text_of(address, zone), kClassIn, kTypeA, on_end, asked);
  }

  static void on_end(void *arg, int status, int, unsigned char *packet, int size) {
    auto *asked = static_cast<Asked *>(arg);
    asked->self->end(asked, status, packet, size);
  }

  // No exception may pass through c-ares: a wrong answer is kept until its loop is left.
  void end(Asked *asked, int status, const unsigned char *packet, int size) {
    free_.push_back(asked);
    if (status != ARES_SUCCESS && status != ARES_ENOTFOUND) {
      ++lost_;
      return;
    }
    if ((status == ARES_SUCCESS && is_listed(packet, size)) != bench::listed(asked->address))
      fault_ = std::string(kName) + ": wrong answer about " + bench::name_of(asked->address);
  }

  static bool is_listed(const unsigned char *packet, int size) {
    std::array<ares_addrttl, kAddressesMax> found;
    int count = kAddressesMax;
    return ares_parse_a_reply(packet, size, nullptr, found.data(), &count) == ARES_SUCCESS && count == 1 &&
           ntohl(found[0].ipaddr.s_addr) == bench::kListedAnswer;
  }

  // One turn of the loop: waits for a socket, and lets c-ares work.
  void turn() {
    std::array<ares_socket_t, ARES_GETSOCK_MAXNUM> sockets;
    const int wanted = ares_getsock(channel_, sockets.data(), ARES_GETSOCK_MAXNUM);
    std::array<pollfd, ARES_GETSOCK_MAXNUM> ready;
    nfds_t count = 0;
    for (unsigned i = 0; i < sockets.size(); ++i)
      if (ARES_GETSOCK_READABLE(wanted, i) != 0) ready[count++] = {sockets[i], POLLIN, 0};
    if (poll(ready.data(), count, kLookMs) <= 0) {
      ares_process_fd(channel_, ARES_SOCKET_BAD, ARES_SOCKET_BAD);
      return;
    }
    for (nfds_t i = 0; i < count; ++i)
      if (ready[i].revents != 0) ares_process_fd(channel_, ready[i].fd, ARES_SOCKET_BAD);
  }

  Task task_;
  Names names_;
  std::vector<Asked> asked_;
  std::vector<Asked *> free_;
  ares_channel channel_ = nullptr;
  unsigned lost_ = 0;
  std::string fault_;
};

}  // namespace

Team make_cares(const Task &task) {
  must(ares_library_init(ARES_LIB_INIT_ALL), "ares_library_init");
  Team team;
  for (unsigned t = 0; t < task.threads; ++t)
    team.push_back(std::make_unique<Cares>(task, task.port_of(t)));
  return team;
}

}  // namespace compare
