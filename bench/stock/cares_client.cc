// cares_client.cc - c-ares in a loop of poll and ares_process_fd. An id of a query has 16 bits: more questions at once
// than those can tell apart are shared by several channels.
#include <ares.h>
#include <arpa/inet.h>
#include <netdb.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <memory>
#include <stdexcept>

#include "task.h"

namespace stock {
namespace {

constexpr unsigned kChannelMax = 32'768;  // questions at once; half of the ids, so that a free one is soon found
constexpr int kTimeoutMs = 500;           // of the first attempt; each further one has twice as long
constexpr int kTries = 3;
constexpr int kPollMs = 20;  // between two checks of the timeouts
constexpr int kClassIn = 1, kTypeA = 1, kTypeTxt = 16;

void must(int status, const char *what) {
  if (status != ARES_SUCCESS) throw std::runtime_error(std::string(what) + ": " + ares_strerror(status));
}

class Channel {
 public:
  Channel(const Task &task, unsigned first, unsigned end, unsigned window)
      : task_(task), next_(first), end_(end), window_(window) {
    ares_options options{};
    options.flags = ARES_FLAG_STAYOPEN;
    options.timeout = kTimeoutMs;
    options.tries = kTries;
    must(ares_init_options(&channel_, &options, ARES_OPT_FLAGS | ARES_OPT_TIMEOUTMS | ARES_OPT_TRIES),
         "ares_init_options");
    must(ares_set_servers_ports_csv(channel_, ("127.0.0.1:" + std::to_string(task.port)).c_str()),
         "ares_set_servers_ports_csv");
  }
  ~Channel() {
    if (channel_ != nullptr) ares_destroy(channel_);
  }
  Channel(const Channel &) = delete;
  Channel &operator=(const Channel &) = delete;

  [[nodiscard]] bool is_done() const { return next_ == end_ && under_way_ == 0; }
  [[nodiscard]] unsigned failed() const { return failed_; }

  // fill starts as many questions as the window has room for.
  void fill() {
    for (; next_ < end_ && under_way_ < window_; ++next_) {
      const Query query = task_.query(next_);
      ++under_way_;
      ares_query(channel_, query.name().c_str(), kClassIn, query.reason ? kTypeTxt : kTypeA, on_end,
                 new Asked{this, query});
    }
  }

  // watch adds the channel's sockets to those that are polled.
  void watch(std::vector<pollfd> *ready) const {
    std::array<ares_socket_t, ARES_GETSOCK_MAXNUM> sockets;
    const int wanted = ares_getsock(channel_, sockets.data(), ARES_GETSOCK_MAXNUM);
    for (unsigned i = 0; i < sockets.size(); ++i)
      if (ARES_GETSOCK_READABLE(wanted, i) != 0) ready->push_back({sockets[i], POLLIN, 0});
  }

  // work takes the answers of one socket, ARES_SOCKET_BAD for none, and looks after the timeouts.
  void work(ares_socket_t socket) {
    ares_process_fd(channel_, socket, ARES_SOCKET_BAD);
    if (!fault_.empty()) throw std::runtime_error("c-ares: " + fault_);
  }

 private:
  struct Asked {
    Channel *self;
    Query query;
  };

  // No exception may pass through the library.
  static void on_end(void *arg, int status, int, unsigned char *packet, int size) {
    const std::unique_ptr<Asked> asked(static_cast<Asked *>(arg));
    Channel *self = asked->self;
    --self->under_way_;
    const bool came = status == ARES_SUCCESS || status == ARES_ENOTFOUND;
    try {
      if (!came || !is_right(asked->query, status == ARES_SUCCESS ? 0 : 3, {packet, static_cast<size_t>(size)}))
        ++self->failed_;
    } catch (const std::exception &error) {
      self->fault_ = error.what();
    }
  }

  const Task &task_;
  unsigned next_, end_, window_;
  unsigned under_way_ = 0, failed_ = 0;
  std::string fault_;
  ares_channel channel_ = nullptr;
};

void turn(const std::vector<std::unique_ptr<Channel>> &channels) {
  std::vector<pollfd> ready;
  std::vector<Channel *> owners;
  for (const auto &channel : channels) {
    channel->watch(&ready);
    owners.resize(ready.size(), channel.get());
  }
  if (poll(ready.data(), ready.size(), kPollMs) <= 0) {
    for (const auto &channel : channels)
      channel->work(ARES_SOCKET_BAD);
    return;
  }
  for (size_t i = 0; i < ready.size(); ++i)
    if (ready[i].revents != 0) owners[i]->work(ready[i].fd);
}

}  // namespace

Outcome ask_with_cares(const Task &task) {
  must(ares_library_init(ARES_LIB_INIT_ALL), "ares_library_init");
  const unsigned number = (task.at_once() + kChannelMax - 1) / kChannelMax;
  std::vector<std::unique_ptr<Channel>> channels;
  for (unsigned i = 0; i < number; ++i)
    channels.push_back(std::make_unique<Channel>(
        task, task.count / number * i, i + 1 == number ? task.count : task.count / number * (i + 1), task.at_once()));
  const auto is_done = [](const auto &channel) { return channel->is_done(); };
  while (!std::all_of(channels.begin(), channels.end(), is_done)) {
    for (const auto &channel : channels)
      channel->fill();
    turn(channels);
  }
  Outcome outcome;
  for (const auto &channel : channels)
    outcome.failed += channel->failed();
  return outcome;
}

}  // namespace stock
