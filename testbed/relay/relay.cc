#include "relay.h"

#include <signal.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <array>
#include <cstdio>

namespace relay {
namespace {

constexpr size_t kHeldMax = 200'000;    // packets on their way; further ones are turned away
constexpr size_t kFlowsMax = 512;       // client sockets; past them the least recently used gives way
constexpr size_t kStreamEndsMax = 512;  // two for each TCP connection; past them a connection is closed at once
constexpr size_t kPacketMax = 65535;
constexpr unsigned kTurns = 256;        // packets taken from one socket before the others get their turn
constexpr int kSocketBuffer = 8 << 20;  // bytes: room for a burst
constexpr unsigned kEvents = 64;
constexpr int kBacklog = 64;

uint64_t key_of(const sockaddr_in &client) {
  return uint64_t{client.sin_addr.s_addr} << 16 | client.sin_port;
}

const sockaddr *generic(const sockaddr_in &address) {
  return reinterpret_cast<const sockaddr *>(&address);
}

Descriptor make_socket(int kind) {
  return Descriptor(must(socket(AF_INET, kind | SOCK_CLOEXEC | SOCK_NONBLOCK, 0), "socket"));
}

// Only a privileged process may exceed the system's limit; any other gets the limit itself.
void grow_buffer(int fd) {
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &kSocketBuffer, sizeof kSocketBuffer) != 0)
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &kSocketBuffer, sizeof kSocketBuffer);
}

Descriptor make_signals() {
  sigset_t ours;
  sigemptyset(&ours);
  for (const int number : {SIGTERM, SIGINT, SIGUSR1})
    sigaddset(&ours, number);
  sigprocmask(SIG_BLOCK, &ours, nullptr);
  return Descriptor(must(signalfd(-1, &ours, SFD_CLOEXEC | SFD_NONBLOCK), "signalfd"));
}

uint16_t bind_to(int fd, const in_addr &address, uint16_t port) {
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_addr = address;
  local.sin_port = htons(port);
  socklen_t size = sizeof local;
  must(bind(fd, generic(local), size), "port " + std::to_string(port));
  must(getsockname(fd, reinterpret_cast<sockaddr *>(&local), &size), "getsockname");
  return ntohs(local.sin_port);
}

}  // namespace

Relay::Relay(const Terms &terms, uint64_t seed, const sockaddr_in &server)
    : server_(server),
      luck_(terms, seed),
      epoll_(must(epoll_create1(EPOLL_CLOEXEC), "epoll_create1")),
      timer_(must(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK), "timerfd_create")),
      signals_(make_signals()) {}

void Relay::watch(int fd, int operation, uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.fd = fd;
  must(epoll_ctl(epoll_.get(), operation, fd, &event), "epoll_ctl");
}

void Relay::open(const in_addr &address, uint16_t port) {
  tcp_ = make_socket(SOCK_STREAM);
  udp_ = make_socket(SOCK_DGRAM);
  port_ = bind_to(tcp_.get(), address, port);
  (void)bind_to(udp_.get(), address, port_);
  must(listen(tcp_.get(), kBacklog), "listen");
  grow_buffer(udp_.get());
  for (const Descriptor *descriptor : {&tcp_, &udp_, &timer_, &signals_})
    watch(descriptor->get(), EPOLL_CTL_ADD, EPOLLIN);
}

void Relay::forget_oldest_flow() {
  const auto oldest = flows_.find(order_of_use_.front());
  order_of_use_.pop_front();
  watch(oldest->second->socket.get(), EPOLL_CTL_DEL, 0);
  flow_at_.erase(oldest->second->socket.get());
  flows_.erase(oldest);  // packets on their way keep it until they have arrived
  ++counts_.turned_away;
}

std::shared_ptr<Relay::Flow> Relay::flow_of(const sockaddr_in &client) {
  const uint64_t key = key_of(client);
  if (const auto known = flows_.find(key); known != flows_.end()) {
    order_of_use_.splice(order_of_use_.end(), order_of_use_, known->second->place);
    return known->second;
  }
  if (flows_.size() >= kFlowsMax) forget_oldest_flow();
  auto flow =
      std::make_shared<Flow>(Flow{make_socket(SOCK_DGRAM), client, order_of_use_.insert(order_of_use_.end(), key)});
  must(connect(flow->socket.get(), generic(server_), sizeof server_), "connect");
  grow_buffer(flow->socket.get());
  watch(flow->socket.get(), EPOLL_CTL_ADD, EPOLLIN);
  flow_at_[flow->socket.get()] = flow;
  return flows_[key] = flow;
}

void Relay::hold(const std::shared_ptr<Flow> &flow, Way way, std::span<const uint8_t> packet) {
  const Fate fate = luck_.next(way, packet);
  if (fate.copies == 0) ++counts_.lost;
  if (fate.copies > 1) ++counts_.twice;
  const Clock::time_point now = Clock::now();
  for (unsigned i = 0; i < fate.copies; ++i) {
    if (held_.size() >= kHeldMax) {
      ++counts_.turned_away;
      continue;
    }
    held_.push({now + fate.delays[i], order_++, flow, way, {packet.begin(), packet.end()}});
  }
}

void Relay::take_queries() {
  std::array<uint8_t, kPacketMax> packet;
  for (unsigned turn = 0; turn < kTurns; ++turn) {
    sockaddr_in client{};
    socklen_t size = sizeof client;
    const ssize_t got =
        recvfrom(udp_.get(), packet.data(), packet.size(), 0, reinterpret_cast<sockaddr *>(&client), &size);
    if (got < 0) return;
    ++counts_.asked;
    hold(flow_of(client), Way::out, std::span(packet).first(static_cast<size_t>(got)));
  }
}

void Relay::take_answers(const std::shared_ptr<Flow> &flow) {
  std::array<uint8_t, kPacketMax> packet;
  for (unsigned turn = 0; turn < kTurns; ++turn) {
    const ssize_t got = recv(flow->socket.get(), packet.data(), packet.size(), 0);
    if (got < 0) return;  // nothing more, or the server's port is closed, which a bad network hides
    ++counts_.answered;
    hold(flow, Way::back, std::span(packet).first(static_cast<size_t>(got)));
  }
}

void Relay::release_due() {
  const Clock::time_point now = Clock::now();
  for (; !held_.empty() && held_.top().due <= now; held_.pop()) {
    const Held &next = held_.top();
    if (next.way == Way::out) {
      send(next.flow->socket.get(), next.packet.data(), next.packet.size(), 0);
    } else {
      sendto(udp_.get(), next.packet.data(), next.packet.size(), 0, generic(next.flow->client),
             sizeof next.flow->client);
    }
  }
}

void Relay::arm_timer() {
  if (held_.empty()) return;
  const auto due = held_.top().due.time_since_epoch();
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(due);
  itimerspec when{};
  when.it_value = {seconds.count(), std::chrono::duration_cast<std::chrono::nanoseconds>(due - seconds).count()};
  must(timerfd_settime(timer_.get(), TFD_TIMER_ABSTIME, &when, nullptr), "timerfd_settime");
}

void Relay::accept_stream() {
  Descriptor client(accept4(tcp_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (client.get() < 0) return;
  if (stream_at_.size() >= kStreamEndsMax) {
    ++counts_.turned_away;
    return;
  }
  Descriptor server = make_socket(SOCK_STREAM);
  if (connect(server.get(), generic(server_), sizeof server_) != 0 && errno != EINPROGRESS) return;
  const auto stream = std::make_shared<Stream>(std::move(client), std::move(server));
  for (const int end : {stream->client(), stream->server()}) {
    stream_at_[end] = stream;
    watch(end, EPOLL_CTL_ADD, EPOLLIN);
  }
}

void Relay::serve_stream(const std::shared_ptr<Stream> &stream, bool broken) {
  if (!broken && stream->pass_on()) {
    watch(stream->client(), EPOLL_CTL_MOD, stream->wanted_of_client());
    watch(stream->server(), EPOLL_CTL_MOD, stream->wanted_of_server());
    return;
  }
  for (const int end : {stream->client(), stream->server()}) {
    watch(end, EPOLL_CTL_DEL, 0);
    stream_at_.erase(end);
  }
}

void Relay::serve(int fd, bool broken) {
  if (fd == udp_.get()) return take_queries();
  if (fd == tcp_.get()) return accept_stream();
  if (fd == timer_.get()) {
    uint64_t expirations = 0;
    if (read(fd, &expirations, sizeof expirations) < 0 && errno != EAGAIN) must(-1, "read of the timer");
    return;
  }
  // An end that an earlier event of the same batch has closed is in neither table.
  if (const auto flow = flow_at_.find(fd); flow != flow_at_.end()) {
    take_answers(std::shared_ptr<Flow>(flow->second));
  } else if (const auto stream = stream_at_.find(fd); stream != stream_at_.end()) {
    serve_stream(std::shared_ptr<Stream>(stream->second), broken);
  }
}

// take_signal prints the counts; true when the signal ends the run.
bool Relay::take_signal() {
  signalfd_siginfo signal{};
  if (read(signals_.get(), &signal, sizeof signal) != sizeof signal) return false;
  print_counts();
  return signal.ssi_signo != SIGUSR1;
}

void Relay::print_counts() const {
  std::printf("asked=%llu answered=%llu lost=%llu twice=%llu turned-away=%llu\n",
              static_cast<unsigned long long>(counts_.asked), static_cast<unsigned long long>(counts_.answered),
              static_cast<unsigned long long>(counts_.lost), static_cast<unsigned long long>(counts_.twice),
              static_cast<unsigned long long>(counts_.turned_away));
  std::fflush(stdout);
}

void Relay::run() {
  std::array<epoll_event, kEvents> events;
  for (;;) {
    const int count = epoll_wait(epoll_.get(), events.data(), kEvents, -1);
    if (count < 0 && errno != EINTR) must(count, "epoll_wait");
    for (const epoll_event &event : std::span(events).first(static_cast<size_t>(std::max(count, 0)))) {
      if (event.data.fd != signals_.get()) {
        serve(event.data.fd, (event.events & EPOLLERR) != 0);
      } else if (take_signal()) {
        return;
      }
    }
    release_due();
    arm_timer();
  }
}

}  // namespace relay
