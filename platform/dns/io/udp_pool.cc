// udp_pool.cc - see udp_pool.h.
#include <udp_pool.h>

#include <errno.h>

#include <algorithm>

namespace dns {
namespace {

constexpr int kBindAttempts = 64;  // random ports, before the pool gives up

}  // namespace

int UdpPool::open() {
  const auto opens = [this](Family family) { return open_slot(0, loopback(family, 0), false) != kNone; };
  return open_ > 0 || opens(Family::ipv4) || opens(Family::ipv6) ? 0 : -EADDRNOTAVAIL;
}

void UdpPool::close() {
  for (unsigned slot = 0; slot < extent_; ++slot)
    if (slots_[slot].descriptor >= 0) close_slot(static_cast<int>(slot));
  extent_ = 0;
}

// retire wears out sockets that are older than kAgeMaxUs.
void UdpPool::retire(int64_t now_us) {
  retired_us_ = now_us;
  for (unsigned i = 0; i < extent_; ++i) {
    Slot &s = slots_[i];
    if (s.descriptor < 0) continue;
    if (s.born_us == 0) s.born_us = now_us;
    if (now_us - s.born_us < kAgeMaxUs) continue;
    s.uses = kUsesPerSocket;
    if (s.in_flight == 0) close_slot(static_cast<int>(i));
  }
}

int UdpPool::pick(int64_t now_us, const Address &server, bool alone, unsigned *room) {
  constexpr int64_t kLookUs = 1'000'000;
  refusal_ = 0;
  if (now_us - retired_us_ >= kLookUs) retire(now_us);
  unsigned serving = 0;
  for (unsigned i = 0; i < extent_; ++i)
    serving += serves(static_cast<int>(i), server, alone) ? 1 : 0;
  // The pool grows to its least size before it uses any socket again, as fewer ports are easier to guess.
  if (serving < kSocketsMin) (void)open_slot(now_us, server, alone);
  uint16_t random = 0;
  if (!random_->u16(&random) || extent_ == 0) return kNone;
  for (unsigned i = 0; i < extent_; ++i) {
    const int slot = static_cast<int>((random + i) % extent_);
    if (!serves(slot, server, alone) || !usable(slot)) continue;
    *room = per_socket_ - slots_[slot].in_flight;
    return slot;
  }
  const int fresh = open_slot(now_us, server, alone);
  if (fresh != kNone) {
    *room = per_socket_;
    return fresh;
  }
  // Every socket is full: share the queries evenly, and let the kernel drop what its buffers cannot hold.
  int least = kNone;
  for (unsigned i = 0; i < extent_; ++i) {
    const int slot = static_cast<int>((random + i) % extent_);
    if (serves(slot, server, alone) && (least == kNone || busier(least, slot))) least = slot;
  }
  *room = kBatch;
  return least;
}

bool UdpPool::usable(int slot) const {
  const Slot &s = slots_[slot];
  return s.descriptor >= 0 && !s.blocked && s.in_flight < per_socket_ && s.uses < kUsesPerSocket;
}

// busier tells whether slot `a` is a worse choice than slot `b`: blocked, or with more in flight.
bool UdpPool::busier(int a, int b) const {
  if (slots_[a].blocked != slots_[b].blocked) return slots_[a].blocked;
  return slots_[a].in_flight > slots_[b].in_flight;
}

void UdpPool::used(int slot) {
  ++slots_[slot].in_flight;
  ++slots_[slot].uses;
}

void UdpPool::done(int slot) {
  Slot &s = slots_[slot];
  --s.in_flight;
  if (s.in_flight == 0 && s.uses >= kUsesPerSocket) close_slot(slot);
}

bool UdpPool::dropped(int slot, int64_t sent_us, int64_t now_us) {
  Slot &s = slots_[slot];
  if (s.looked_us != now_us) {
    s.looked_us = now_us;
    const int drops = io_->udp_dropped(io_->self, s.descriptor);
    if (drops > s.drops) {
      drops_.fetch_add(static_cast<uint64_t>(drops - s.drops), std::memory_order_relaxed);
      s.drops = drops;
      s.dropped_us = now_us;
      per_socket_ = std::max(kInFlightLeast, per_socket_ / 2);
    }
  }
  return sent_us < s.dropped_us;
}

int UdpPool::slot_of(int descriptor) const {
  for (unsigned slot = 0; slot < extent_; ++slot)
    if (slots_[slot].descriptor == descriptor) return static_cast<int>(slot);
  return kNone;
}

// free_slot returns a slot for a new socket: an empty one, or else that of an idle socket that serves other queries.
int UdpPool::free_slot(const Address &server, bool alone) {
  for (unsigned slot = 0; slot < extent_; ++slot)
    if (slots_[slot].descriptor < 0) return static_cast<int>(slot);
  if (extent_ < kSocketsMax) return static_cast<int>(extent_++);
  for (unsigned i = 0; i < extent_; ++i) {
    const int slot = static_cast<int>(i);
    if (slots_[slot].in_flight > 0 || serves(slot, server, alone)) continue;
    close_slot(slot);
    return slot;
  }
  return kNone;
}

int UdpPool::open_slot(int64_t now_us, const Address &server, bool alone) {
  const int slot = free_slot(server, alone);
  if (slot == kNone) return kNone;
  for (int i = 0; i < kBindAttempts; ++i) {
    uint16_t port = 0;
    if (!random_->u16(&port)) return kNone;
    // Ports below kPortMin are drawn again rather than mapped upwards, so that every port stays equally likely.
    if (port < kPortMin) continue;
    const int descriptor = io_->udp_open(io_->self, server.family, port, alone ? &server : nullptr);
    if (descriptor < 0) refusal_ = descriptor;
    if (descriptor == -EADDRINUSE || descriptor == -EACCES) continue;
    if (descriptor < 0) return kNone;
    slots_[slot] = {};
    slots_[slot].descriptor = descriptor;
    slots_[slot].born_us = now_us;
    slots_[slot].port = port;
    slots_[slot].family = server.family;
    if (alone) slots_[slot].peer = server;
    ++open_;
    return slot;
  }
  return kNone;
}

// close_slot takes the descriptor out of the pool first: a child forked meanwhile must not close the descriptor's
// number, which may be another file's by then.
void UdpPool::close_slot(int slot) {
  const int descriptor = slots_[slot].descriptor;
  slots_[slot] = {};
  io_->udp_close(io_->self, descriptor);
  --open_;
}

}  // namespace dns
