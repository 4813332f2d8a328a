// cares_client.cc - c-ares in a loop of poll and ares_process_fd. A channel keeps to one UDP socket; poll waits for it
// with a bound of its own, for asking c-ares how long to wait walks all its questions.
#include <ares.h>
#include <arpa/inet.h>
#include <netdb.h>
#include <poll.h>

#include <array>

#include "callback_client.h"
#include "socket.h"

namespace compare {
namespace {

constexpr const char *kName = "c-ares";
constexpr int kTimeoutMs = 5000;  // a lost packet shows
constexpr int kTries = 1;
constexpr int kLookMs = 100;  // between two looks at the timeouts
constexpr int kClassIn = 1, kTypeA = 1;
constexpr int kAddressesMax = 8;

void must(int status, const char *what) {
  if (status != ARES_SUCCESS) throw std::runtime_error(std::string(what) + ": " + ares_strerror(status));
}

class Cares : public CallbackClient {
 public:
  Cares(const Task &task, uint16_t port) : CallbackClient(kName, task) {
    ares_options options{};
    options.flags = ARES_FLAG_STAYOPEN;
    options.timeout = kTimeoutMs;
    options.tries = kTries;
    must(ares_init_options(&channel_, &options, ARES_OPT_FLAGS | ARES_OPT_TIMEOUTMS | ARES_OPT_TRIES),
         "ares_init_options");
    must(ares_set_servers_ports_csv(channel_, ("127.0.0.1:" + std::to_string(port)).c_str()),
         "ares_set_servers_ports_csv");
    ares_set_socket_configure_callback(channel_, on_socket, nullptr);
  }
  ~Cares() override { ares_destroy(channel_); }
  Cares(const Cares &) = delete;
  Cares &operator=(const Cares &) = delete;

 private:
  static int on_socket(ares_socket_t fd, int, void *) {
    grow_buffer(fd);
    return ARES_SUCCESS;
  }

  void start(const char *name, Asked *asked) override { ares_query(channel_, name, kClassIn, kTypeA, on_end, asked); }

  static void on_end(void *arg, int status, int, unsigned char *packet, int size) {
    auto *asked = static_cast<Asked *>(arg);
    Says says = Says::nothing;
    if (status == ARES_ENOTFOUND) says = Says::not_listed;
    if (status == ARES_SUCCESS && is_listed(packet, size)) says = Says::listed;
    static_cast<Cares *>(asked->self)->end(asked, says);
  }

  static bool is_listed(const unsigned char *packet, int size) {
    std::array<ares_addrttl, kAddressesMax> found;
    int count = kAddressesMax;
    return ares_parse_a_reply(packet, size, nullptr, found.data(), &count) == ARES_SUCCESS && count == 1 &&
           ntohl(found[0].ipaddr.s_addr) == bench::kListedAnswer;
  }

  void turn() override {
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

  ares_channel channel_ = nullptr;
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
