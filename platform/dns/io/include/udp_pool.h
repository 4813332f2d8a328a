// udp_pool.h - the UDP sockets of one engine context, on the thread that drives it. No decision about a query is taken
// here.
#ifndef UDP_POOL_H
#define UDP_POOL_H

#include <netinet/in.h>
#include <stdint.h>

#include <dns_io.h>
#include <random_source.h>

namespace dns {

// UdpPool keeps the sockets that queries leave from. Each is bound to a random port; some are connected to one
// server, which spares the kernel a good part of its work for each packet, and are for questions that only that server
// can answer; the others are for all. A batch of questions takes one of them at random, and an answer counts only on
// the socket its question left from. The pool grows with the questions in flight, because a socket's receive buffer
// holds a few hundred answers, and a socket that has served its share is replaced by one on a fresh port (RFC 5452,
// section 9.2) as soon as nothing is in flight on it.
class UdpPool {
 public:
  static constexpr unsigned kSocketsMin = 4;
  static constexpr unsigned kSocketsMax = 64;
  static constexpr unsigned kInFlightPerSocket = 192;  // answers that the usual receive buffer (208 KiB) surely holds
  static constexpr unsigned kUsesPerSocket = 1024;     // questions after which a socket is replaced
  static constexpr int64_t kAgeMaxUs = 60'000'000;     // time after which it is
  static constexpr uint16_t kPortMin = 10240;          // below lie ports that services expect to find free
  static constexpr int kNone = -1;

  explicit UdpPool(const Io *io, RandomSource *random) : io_(io), random_(random) {}
  ~UdpPool() { close(); }
  UdpPool(const UdpPool &) = delete;
  UdpPool &operator=(const UdpPool &) = delete;

  // open makes sure that at least one socket is there. 0 or a negated errno.
  [[nodiscard]] int open();
  void close();

  // pick chooses the slot that the next batch leaves from, opening a socket where the pool needs one, and says how many
  // questions it has room for; a blocked slot when all are, kNone when no socket can be had. The slot is connected to
  // `peer`, or for a null one to nobody.
  [[nodiscard]] int pick(int64_t now_us, const sockaddr_in *peer, unsigned *room);
  // used counts a question that left from a slot, done one whose fate is settled; a worn slot is then closed.
  void used(int slot);
  void done(int slot);
  // heard notes that something has arrived on a slot. A connected slot holds on to the local address of the moment when
  // it was opened, which may be gone: silent tells whether nothing has arrived on such a one since a moment, and
  // missed, for a question that left then and was not answered in time, wears it out if so.
  void heard(int slot, int64_t now_us) { slots_[slot].heard_us = now_us; }
  [[nodiscard]] bool silent(int slot, int64_t since_us) const {
    return connected(slot) && slots_[slot].heard_us < since_us;
  }
  void missed(int slot, int64_t sent_us) {
    if (silent(slot, sent_us)) slots_[slot].uses = kUsesPerSocket;
  }
  // reaches tells whether a packet can leave from a slot for a server, and its answer come in.
  [[nodiscard]] bool reaches(int slot, const sockaddr_in &server) const;
  [[nodiscard]] bool connected(int slot) const { return slots_[slot].peer.sin_family != AF_UNSPEC; }

  [[nodiscard]] int descriptor(int slot) const { return slots_[slot].descriptor; }
  // port is the local port that a slot's questions leave from.
  [[nodiscard]] uint16_t port(int slot) const { return slots_[slot].port; }
  [[nodiscard]] int slot_of(int descriptor) const;
  // blocked marks a slot whose send buffer is full; the loop then waits for it to drain.
  void set_blocked(int slot, bool blocked) { slots_[slot].blocked = blocked; }
  [[nodiscard]] bool blocked(int slot) const { return slots_[slot].blocked; }
  [[nodiscard]] unsigned extent() const { return extent_; }
  [[nodiscard]] bool is_open(int slot) const { return slots_[slot].descriptor >= 0; }
  // in_flight counts the queries that have left from any slot and whose fate is open.
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
    int64_t born_us = 0;    // 0 until it is looked at
    int64_t heard_us = 0;   // when something last arrived
    sockaddr_in peer = {};  // of a connected one
  };

  [[nodiscard]] int open_slot(int64_t now_us, const sockaddr_in *peer);
  [[nodiscard]] int free_slot(const sockaddr_in *peer);
  void retire(int64_t now_us);
  void close_slot(int slot);
  [[nodiscard]] bool serves(int slot, const sockaddr_in *peer) const;
  [[nodiscard]] bool usable(int slot) const;
  [[nodiscard]] bool busier(int a, int b) const;

  const Io *io_;
  RandomSource *random_;
  Slot slots_[kSocketsMax];
  int64_t retired_us_ = 0;  // when sockets were last looked at for their age
  unsigned extent_ = 0;     // slots below this one may be open
  unsigned open_ = 0;
};

}  // namespace dns

#endif  // UDP_POOL_H
