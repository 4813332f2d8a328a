#include "server.h"

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <system_error>

namespace listserver {
namespace {

constexpr unsigned kBatch = 64;             // packets moved in one system call
constexpr size_t kHeldMax = 1'000'000;      // answers held back at once; beyond it they count as dropped
constexpr unsigned kBatchesUnwatched = 64;  // under load, a look at the signals after so many batches

volatile sig_atomic_t stop_asked = 0;
volatile sig_atomic_t counts_asked = 0;

void on_signal(int number) {
  if (number == SIGUSR1) {
    counts_asked = 1;
  } else {
    stop_asked = 1;
  }
}

// Holds the server's signals back, and returns the mask that lets them in.
sigset_t hold_signals() {
  sigset_t ours, before;
  sigemptyset(&ours);
  struct sigaction action {};
  action.sa_handler = on_signal;
  for (const int number : {SIGTERM, SIGINT, SIGUSR1}) {
    sigaddset(&ours, number);
    sigaction(number, &action, nullptr);
  }
  sigprocmask(SIG_BLOCK, &ours, &before);
  for (const int number : {SIGTERM, SIGINT, SIGUSR1})
    sigdelset(&before, number);
  return before;
}

timespec span_until(std::chrono::steady_clock::time_point due) {
  const auto left = std::max(due - std::chrono::steady_clock::now(), std::chrono::steady_clock::duration::zero());
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
  return {seconds.count(), std::chrono::duration_cast<std::chrono::nanoseconds>(left - seconds).count()};
}

}  // namespace

// Batch is the packets of one system call each way, their places laid out once.
struct Server::Batch {
  struct Lane {
    std::array<mmsghdr, kBatch> messages;
    std::array<iovec, kBatch> parts;
    std::array<sockaddr_in, kBatch> peers;
    std::array<std::array<uint8_t, kUdpMax>, kBatch> packets;

    Lane() : messages{} {
      for (unsigned i = 0; i < kBatch; ++i) {
        parts[i] = {packets[i].data(), packets[i].size()};
        messages[i].msg_hdr.msg_iov = &parts[i];
        messages[i].msg_hdr.msg_iovlen = 1;
        messages[i].msg_hdr.msg_name = &peers[i];
        messages[i].msg_hdr.msg_namelen = sizeof(sockaddr_in);
      }
    }
  };
  Lane in;
  Lane out;
  unsigned posted = 0;
  std::array<uint8_t, kUdpMax> answer;
  sigset_t wait_mask;
};

Server::Server(const Config &config, uint64_t seed)
    : chance_(seed), responder_(config, counts_, &chance_), batch_(std::make_unique<Batch>()) {}

Server::~Server() {
  if (socket_ >= 0) close(socket_);
}

void Server::open(const in_addr &address, uint16_t port) {
  batch_->wait_mask = hold_signals();
  socket_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (socket_ < 0) throw std::system_error(errno, std::generic_category(), "socket");
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_addr = address;
  local.sin_port = htons(port);
  socklen_t size = sizeof(local);
  auto *generic = reinterpret_cast<sockaddr *>(&local);
  if (bind(socket_, generic, size) != 0 || getsockname(socket_, generic, &size) != 0) {
    throw std::system_error(errno, std::generic_category(), "port " + std::to_string(port));
  }
  port_ = ntohs(local.sin_port);
}

// Sends what is posted. A full socket buffer is waited for: this server loses answers on request only.
void Server::flush() {
  for (unsigned sent = 0; sent < batch_->posted;) {
    const int now = sendmmsg(socket_, &batch_->out.messages[sent], batch_->posted - sent, 0);
    if (now > 0) {
      sent += static_cast<unsigned>(now);
    } else if (errno == EAGAIN) {
      pollfd writable{socket_, POLLOUT, 0};
      poll(&writable, 1, -1);
    } else if (errno != EINTR) {
      ++sent;  // this one's peer is gone
    }
  }
  batch_->posted = 0;
}

void Server::post(const sockaddr_in &to, std::span<const uint8_t> packet) {
  if (batch_->posted == kBatch) flush();
  Batch::Lane &out = batch_->out;
  const unsigned place = batch_->posted++;
  std::copy(packet.begin(), packet.end(), out.packets[place].begin());
  out.parts[place].iov_len = packet.size();
  out.peers[place] = to;
  ++counts_.answered;
}

// Applies a reply's faults: drops it, holds it back, or sends it, perhaps twice.
void Server::act(const Reply &reply, const sockaddr_in &to, std::span<const uint8_t> packet) {
  if (!reply.counted) {
    post(to, packet);
    --counts_.answered;
    return;
  }
  ++counts_.received;
  if (reply.faults == nullptr) {
    if (reply.size == 0) {
      ++counts_.broken;
    } else {
      post(to, packet);
    }
    return;
  }
  if (reply.size == 0 || chance_.hits(reply.faults->drop.value_or(0))) {
    ++counts_.dropped;
    return;
  }
  const unsigned copies = chance_.hits(reply.faults->duplicate.value_or(0)) ? 2 : 1;
  for (unsigned copy = 0; copy < copies; ++copy) {
    const uint64_t delay = delay_us(*reply.faults, &chance_);
    if (delay == 0) {
      post(to, packet);
    } else if (held_.size() < kHeldMax) {
      held_.push({Clock::now() + std::chrono::microseconds(delay), order_++, to, {packet.begin(), packet.end()}});
    } else {
      ++counts_.dropped;
    }
  }
}

// Answers the packets that one call receives, and returns their number.
unsigned Server::serve_batch() {
  Batch::Lane &in = batch_->in;
  for (mmsghdr &message : in.messages)
    message.msg_hdr.msg_namelen = sizeof(sockaddr_in);
  const int received = recvmmsg(socket_, in.messages.data(), kBatch, MSG_DONTWAIT, nullptr);
  for (int i = 0; i < received; ++i) {
    const auto place = static_cast<unsigned>(i);
    const std::span<const uint8_t> packet(in.packets[place].data(), in.messages[place].msg_len);
    const Reply reply = responder_.answer(packet, batch_->answer, kUdpPlain);
    act(reply, in.peers[place], std::span<const uint8_t>(batch_->answer).first(reply.size));
  }
  return received > 0 ? static_cast<unsigned>(received) : 0;
}

void Server::release_held() {
  if (held_.empty()) return;
  const Clock::time_point now = Clock::now();
  for (; !held_.empty() && held_.top().due <= now; held_.pop())
    post(held_.top().to, held_.top().packet);
}

void Server::wait(bool at_once) {
  pollfd readable{socket_, POLLIN, 0};
  timespec span{};
  if (!at_once && !held_.empty()) span = span_until(held_.top().due);
  ppoll(&readable, 1, at_once || !held_.empty() ? &span : nullptr, &batch_->wait_mask);
}

void Server::print_counts() const {
  std::printf("received=%llu answered=%llu dropped=%llu broken=%llu\n",
              static_cast<unsigned long long>(counts_.received), static_cast<unsigned long long>(counts_.answered),
              static_cast<unsigned long long>(counts_.dropped), static_cast<unsigned long long>(counts_.broken));
  std::fflush(stdout);
}

void Server::run() {
  for (unsigned batches = 0; stop_asked == 0; ++batches) {
    const unsigned received = serve_batch();
    release_held();
    flush();
    if (received == 0 || batches % kBatchesUnwatched == 0) wait(received != 0);
    if (counts_asked != 0) {
      counts_asked = 0;
      print_counts();
    }
  }
  print_counts();
}

}  // namespace listserver
