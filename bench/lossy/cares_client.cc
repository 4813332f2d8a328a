// cares_client.cc - c-ares in a loop of poll and ares_process_fd, on the one thread that asks.
#include <ares.h>
#include <arpa/inet.h>
#include <netdb.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <stdexcept>

#include "client.h"

namespace lossy {
namespace {

constexpr const char *kName = "c-ares";
constexpr int kUdpSize = 1232;  // as kavo asks for
constexpr int kAddressesMax = 8;
constexpr time_t kPollS = 1;  // between two checks of the timeouts, where c-ares names none
constexpr long kUsPerMs = 1000;
constexpr long kMsPerSecond = 1000;
constexpr int kClassIn = 1;
constexpr int kTypeA = 1;

void must(int status, const char *what) {
  if (status != ARES_SUCCESS) throw std::runtime_error(std::string(what) + ": " + ares_strerror(status));
}

class Cares : public Client {
 public:
  Cares(const Settings &settings, std::span<const uint16_t> ports) : window_(settings.window) {
    must(ares_library_init(ARES_LIB_INIT_ALL), "ares_library_init");
    ares_options options{};
    options.flags = ARES_FLAG_EDNS;
    options.ednspsz = kUdpSize;
    options.timeout = static_cast<int>(settings.timeout_ms);
    // c-ares counts its attempts for each server.
    options.tries = std::max(1, static_cast<int>(settings.attempts / ports.size()));
    must(ares_init_options(&channel_, &options,
                           ARES_OPT_FLAGS | ARES_OPT_EDNSPSZ | ARES_OPT_TIMEOUTMS | ARES_OPT_TRIES | ARES_OPT_NOROTATE),
         "ares_init_options");
    std::string servers;
    for (const uint16_t port : ports)
      servers += (servers.empty() ? "127.0.0.1:" : ",127.0.0.1:") + std::to_string(port);
    must(ares_set_servers_ports_csv(channel_, servers.c_str()), "ares_set_servers_ports_csv");
  }
  ~Cares() override {
    outcomes_ = nullptr;
    ares_destroy(channel_);
    ares_library_cleanup();
  }
  Cares(const Cares &) = delete;
  Cares &operator=(const Cares &) = delete;

  void ask(unsigned first, unsigned count, std::vector<Outcome> *outcomes) override {
    outcomes_ = outcomes;
    for (unsigned next = first; next < first + count || under_way_ > 0;) {
      while (next < first + count && under_way_ < window_)
        start(next++);
      turn();
      if (!fault_.empty()) throw std::runtime_error(fault_);
    }
  }

 private:
  struct Asked {
    Cares *self;
    unsigned question;
    Clock::time_point since;
  };

  void start(unsigned question) {
    ++under_way_;
    auto asked = std::make_unique<Asked>(Asked{this, question, Clock::now()});
    ares_query(channel_, name_of(question).c_str(), kClassIn, kTypeA, on_end, asked.release());
  }

  static void on_end(void *arg, int status, int, unsigned char *packet, int size) {
    const std::unique_ptr<Asked> asked(static_cast<Asked *>(arg));
    asked->self->end(*asked, status, packet, size);
  }

  // No exception may pass through c-ares: a wrong answer is kept until the end of the loop.
  void end(const Asked &asked, int status, const unsigned char *packet, int size) {
    --under_way_;
    if (outcomes_ == nullptr) return;
    const Clock::time_point now = Clock::now();
    try {
      outcomes_->push_back({is_answered(asked.question, status, packet, size), now - asked.since, now});
    } catch (const std::exception &error) {
      fault_ = error.what();
    }
  }

  static bool is_answered(unsigned question, int status, const unsigned char *packet, int size) {
    if (status == ARES_ENOTFOUND || status == ARES_ENODATA) must_be_right(kName, question, {});
    if (status != ARES_SUCCESS) return false;
    std::array<ares_addrttl, kAddressesMax> found;
    int count = kAddressesMax;
    must(ares_parse_a_reply(packet, size, nullptr, found.data(), &count), "c-ares: ares_parse_a_reply");
    std::vector<uint32_t> addresses;
    for (const ares_addrttl &each : std::span(found).first(static_cast<size_t>(count)))
      addresses.push_back(ntohl(each.ipaddr.s_addr));
    must_be_right(kName, question, addresses);
    return true;
  }

  // One turn of the loop: waits for a socket or a timeout, and lets c-ares work.
  void turn() {
    std::array<ares_socket_t, ARES_GETSOCK_MAXNUM> sockets;
    const int wanted = ares_getsock(channel_, sockets.data(), ARES_GETSOCK_MAXNUM);
    std::vector<pollfd> ready;
    for (unsigned i = 0; i < sockets.size(); ++i) {
      const bool reads = ARES_GETSOCK_READABLE(wanted, i) != 0, writes = ARES_GETSOCK_WRITABLE(wanted, i) != 0;
      const int events = (reads ? POLLIN : 0) | (writes ? POLLOUT : 0);
      if (events != 0) ready.push_back({sockets[i], static_cast<short>(events), 0});
    }
    timeval longest = {kPollS, 0}, place{};
    const timeval *left = ares_timeout(channel_, &longest, &place);
    // Rounded up: a moment too early, c-ares has nothing to do.
    const auto wait_ms = static_cast<int>(left->tv_sec * kMsPerSecond + (left->tv_usec + kUsPerMs - 1) / kUsPerMs);
    if (poll(ready.data(), ready.size(), wait_ms) <= 0) {
      ares_process_fd(channel_, ARES_SOCKET_BAD, ARES_SOCKET_BAD);
      return;
    }
    for (const pollfd &each : ready) {
      const bool reads = (each.revents & (POLLIN | POLLERR | POLLHUP)) != 0, writes = (each.revents & POLLOUT) != 0;
      if (reads || writes)
        ares_process_fd(channel_, reads ? each.fd : ARES_SOCKET_BAD, writes ? each.fd : ARES_SOCKET_BAD);
    }
  }

  unsigned window_;
  unsigned under_way_ = 0;
  ares_channel channel_ = nullptr;
  std::vector<Outcome> *outcomes_ = nullptr;
  std::string fault_;
};

}  // namespace

std::unique_ptr<Client> make_cares(const Settings &settings, std::span<const uint16_t> ports) {
  return std::make_unique<Cares>(settings, ports);
}

}  // namespace lossy
