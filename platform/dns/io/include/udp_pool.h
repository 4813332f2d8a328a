// udp_pool.h - the UDP sockets of one engine context.
//
// The thread that drives the context uses the pool alone, so nothing guards it. The pool opens, chooses and replaces
// sockets. It never sends or receives, never blocks, and decides nothing about a query.
#ifndef UDP_POOL_H
#define UDP_POOL_H

#include <stdint.h>

#include <atomic>

#include <dns_io.h>
#include <random_source.h>

namespace dns {

// UdpPool keeps the sockets that queries leave from. Each is bound to a random port. A socket that is connected to one
// server carries the queries that only this server can answer, which saves the kernel much of its work for each packet;
// the unconnected ones, of either family, carry the rest. A batch of queries takes one of them at random, and an answer
// counts only on the socket that its query left from. The pool grows with the queries in flight, because a socket's
// receive buffer holds a few hundred answers. A worn socket, which has had its share of queries or of time, is replaced
// by one on a fresh port (RFC 5452, section 9.2) as soon as nothing is in flight on it.
class UdpPool {
 public:
  static constexpr unsigned kSocketsMin = 4;
  static constexpr unsigned kSocketsMax = 64;
  static constexpr unsigned kInFlightPerSocket = 192;  // answers that the usual receive buffer (208 KiB) surely holds
  static constexpr unsigned kInFlightLeast = 16;       // that a socket has room for, however many were dropped
  static constexpr unsigned kUsesPerSocket = 1024;     // queries after which a socket is replaced
  static constexpr int64_t kAgeMaxUs = 60'000'000;     // and the time after which it is
  static constexpr uint16_t kPortMin = 10240;          // lower ports are left to services
  static constexpr int kNone = -1;

  explicit UdpPool(const Io *io, RandomSource *random) : io_(io), random_(random) {}
  ~UdpPool() { close(); }
  UdpPool(const UdpPool &) = delete;
  UdpPool &operator=(const UdpPool &) = delete;

  // open makes sure that at least one socket is there, of whatever family the host has. 0 or a negated errno.
  [[nodiscard]] int open();
  void close();

  // pick chooses the slot that a batch of queries to `server` leaves from, and opens a socket where the pool needs one;
  // `room` receives how many queries the slot has room for. It returns a blocked slot when all are blocked, kNone when
  // no socket can be opened, for the reason of `refusal`, a negated errno. The slot is connected to the server where
  // that `alone` can answer, else it is unconnected.
  [[nodiscard]] int pick(int64_t now_us, const Address &server, bool alone, unsigned *room);
  [[nodiscard]] int refusal() const { return refusal_; }
  // used counts a query that left from a slot, done one that no longer waits there; done closes a worn slot once it is
  // idle.
  void used(int slot);
  void done(int slot);
  // heard notes that something has arrived on a slot. A connected slot keeps the local address that it was opened with,
  // which the host may have lost since. silent tells whether a connected slot has received nothing since `since_us`;
  // missed, after the timeout of a query sent at `sent_us`, wears out a slot that has been silent since.
  void heard(int slot, int64_t now_us) { slots_[slot].heard_us = now_us; }
  [[nodiscard]] bool silent(int slot, int64_t since_us) const {
    return connected(slot) && slots_[slot].heard_us < since_us;
  }
  void missed(int slot, int64_t sent_us) {
    if (silent(slot, sent_us)) slots_[slot].uses = kUsesPerSocket;
  }
  // dropped tells whether the answer to a query sent at `sent_us` may have been dropped at its slot, for lack of room
  // in the receive buffer. Each socket then has half as many queries in flight. drops counts such answers; any thread.
  [[nodiscard]] bool dropped(int slot, int64_t sent_us, int64_t now_us);
  [[nodiscard]] uint64_t drops() const { return drops_.load(std::memory_order_relaxed); }
  // reaches tells whether a slot can send to a server and receive its answer.
  [[nodiscard]] bool reaches(int slot, const Address &server) const {
    return connected(slot) ? slots_[slot].peer == server : slots_[slot].family == server.family;
  }
  [[nodiscard]] bool connected(int slot) const { return slots_[slot].peer.family != Family::none; }

  // peer returns the server that a connected slot is connected to.
  [[nodiscard]] const Address &peer(int slot) const { return slots_[slot].peer; }

  [[nodiscard]] int descriptor(int slot) const { return slots_[slot].descriptor; }
  // family and port are those of a slot's local address.
  [[nodiscard]] Family family(int slot) const { return slots_[slot].family; }
  [[nodiscard]] uint16_t port(int slot) const { return slots_[slot].port; }
  [[nodiscard]] int slot_of(int descriptor) const;
  // A blocked slot has a full send buffer; the loop then waits for it to drain.
  void set_blocked(int slot, bool blocked) { slots_[slot].blocked = blocked; }
  [[nodiscard]] bool blocked(int slot) const { return slots_[slot].blocked; }
  [[nodiscard]] unsigned extent() const { return extent_; }
  [[nodiscard]] bool is_open(int slot) const { return slots_[slot].descriptor >= 0; }
  // in_flight counts the queries that wait for an answer on any slot.
  [[nodiscard]] unsigned in_flight() const {
    unsigned count = 0;
    for (const Slot &slot : slots_)
      count += slot.in_flight;
    return count;
  }
  [[nodiscard]] bool awaits(int slot) const { return slots_[slot].in_flight > 0; }

 private:
  struct Slot {
    int descriptor = -1;
    unsigned in_flight = 0;
    unsigned uses = 0;
    bool blocked = false;
    uint16_t port = 0;
    Family family = Family::none;
    int64_t born_us = 0;     // 0 until retire first sees it
    int64_t heard_us = 0;    // when something last arrived
    int64_t looked_us = 0;   // when `drops` was read
    int64_t dropped_us = 0;  // until when it has risen
    int drops = 0;
    Address peer;  // of a connected one
  };

  [[nodiscard]] int open_slot(int64_t now_us, const Address &server, bool alone);
  [[nodiscard]] int free_slot(const Address &server, bool alone);
  void retire(int64_t now_us);
  void close_slot(int slot);
  [[nodiscard]] bool serves(int slot, const Address &server, bool alone) const {
    return is_open(slot) && connected(slot) == alone && reaches(slot, server);
  }
  [[nodiscard]] bool usable(int slot) const;
  [[nodiscard]] bool busier(int a, int b) const;

  const Io *io_;
  RandomSource *random_;
  Slot slots_[kSocketsMax];
  int64_t retired_us_ = 0;  // when retire last checked the ages
  unsigned extent_ = 0;     // slots below this one may be open
  unsigned open_ = 0;
  unsigned per_socket_ = kInFlightPerSocket;
  std::atomic<uint64_t> drops_ = 0;
  int refusal_ = 0;  // why no socket could be opened
};

}  // namespace dns

#endif  // UDP_POOL_H
