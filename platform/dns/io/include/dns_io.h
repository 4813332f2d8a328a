// dns_io.h - moving bytes: the one table of functions through which the engine reaches the operating system, the pool
// of UDP sockets, TCP connections, and the source of random numbers. No decision about a question is taken here.
//
// All of it belongs to one engine context and runs on the thread that drives it.
#ifndef DNS_IO_H
#define DNS_IO_H

#include <netinet/in.h>
#include <pelk.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <span>

#include <kavo/dns_types.h>

namespace dns {

// Datagram is one packet on its way out (`size` bytes from `data`) or in (`capacity` bytes at `data`; `size` is then
// the packet's true length, above `capacity` when the packet was cut).
struct Datagram {
  uint8_t *data;
  uint32_t capacity;
  uint32_t size;
  sockaddr_in peer;
};

inline constexpr unsigned kBatch = 64;  // datagrams that one call sends or receives at most

// Io is the world as the engine sees it. A test puts a simulated network and clock in its place. Functions that fail
// return a negated errno.
struct Io {
  void *self;
  dns_time (*wall)(void *self);
  bool (*random)(void *self, void *bytes, size_t size);
  // udp_open returns a non-blocking socket bound to `port` on every local address. Where `peer` is not null it is
  // connected to that: it reaches and hears nobody else.
  int (*udp_open)(void *self, uint16_t port, const sockaddr_in *peer);
  void (*udp_close)(void *self, int socket);
  // udp_send sends up to kBatch datagrams and returns how many left; a negated errno when the first could not.
  // `connected` tells that the socket is connected to the peer of all of them; those of one size are then cheapest side
  // by side.
  int (*udp_send)(void *self, int socket, const Datagram *datagrams, unsigned count, bool connected);
  // udp_receive fills up to kBatch datagrams and returns how many arrived; 0 or -EAGAIN when none is there.
  int (*udp_receive)(void *self, int socket, Datagram *datagrams, unsigned count);
  // udp_returned takes one packet that the network reported back as undeliverable: its bytes as far as they came back,
  // and as peer where it was going. 1; 0 when there is none.
  int (*udp_returned)(void *self, int socket, Datagram *datagram);
  // tcp_open returns a non-blocking socket that is connecting to `peer`.
  int (*tcp_open)(void *self, const sockaddr_in &peer);
  void (*tcp_close)(void *self, int socket);
  // tcp_send and tcp_receive return how many bytes went through; -EAGAIN when none can yet, also while connecting;
  // tcp_receive 0 at the end of what the peer has to say.
  int (*tcp_send)(void *self, int socket, const uint8_t *bytes, size_t size);
  int (*tcp_receive)(void *self, int socket, uint8_t *bytes, size_t size);
};

// system_io returns the table's real body.
[[nodiscard]] const Io *system_io();

// RandomSource hands out the secure random bytes of an Io, fetched in blocks so that an id does not cost a system call.
// What is left of a block is for the process that fetched it: forked children would all hand out the same.
class RandomSource {
 public:
  explicit RandomSource(const Io *io) : io_(io) {}
  [[nodiscard]] bool u16(uint16_t *value) { return take(value); }
  [[nodiscard]] bool u64(uint64_t *value) { return take(value); }
  // discard has the next bytes fetched anew.
  void discard() { left_ = 0; }

 private:
  template <typename T>
  [[nodiscard]] bool take(T *value) {
    if ((left_ < sizeof *value || process_ != pelk_process()) && !fill()) return false;
    left_ -= static_cast<unsigned>(sizeof *value);
    memcpy(value, bytes_ + left_, sizeof *value);
    // What was handed out does not stay behind in memory.
    memset(bytes_ + left_, 0, sizeof *value);
    return true;
  }
  [[nodiscard]] bool fill();

  const Io *io_;
  uint64_t process_ = 0;  // that fetched the bytes
  uint8_t bytes_[1024];
  unsigned left_ = 0;
};

// UdpPool keeps the sockets that questions leave from. Each is bound to a random port; some are connected to one
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

// TcpLink is one connection to a server: messages with their length in front (RFC 1035, 4.2.2), any number of them
// under way in either direction (RFC 7766, 6.2.1.1).
class TcpLink {
 public:
  static constexpr size_t kUnsentMax = 64 * 1024;  // bytes of questions that wait for the socket

  TcpLink() = default;
  ~TcpLink() { close(); }
  TcpLink(const TcpLink &) = delete;
  TcpLink &operator=(const TcpLink &) = delete;

  // open begins to connect. 0 or a negated errno, -ENOMEM among them.
  [[nodiscard]] int open(const Io *io, const sockaddr_in &peer);
  void close();
  // abandon closes the descriptor alone, in a forked child: the parent's thread may have been in any of the others.
  void abandon();
  [[nodiscard]] bool is_open() const { return descriptor_ >= 0; }
  [[nodiscard]] int descriptor() const { return descriptor_; }

  // push queues a message; false when kUnsentMax would be passed. flush sends what is queued as far as the socket takes
  // it: 0, or a negated errno once the connection is broken.
  [[nodiscard]] bool push(std::span<const uint8_t> message);
  [[nodiscard]] int flush();
  [[nodiscard]] bool wants_to_write() const { return unsent_ > 0; }

  // fill reads what has arrived: above 0 for something, -EAGAIN for nothing yet, 0 when the peer has closed, else a
  // negated errno. next takes the next whole message out of it, valid until the next fill; false when none is whole.
  [[nodiscard]] int fill();
  [[nodiscard]] bool next(std::span<uint8_t> *message);

 private:
  const Io *io_ = nullptr;
  int descriptor_ = -1;
  uint8_t *out_ = nullptr;  // kUnsentMax bytes, then the room for what comes in
  uint8_t *in_ = nullptr;
  size_t unsent_ = 0;  // bytes at `out_` that have not left
  size_t taken_ = 0;   // bytes at `in_` that `next` has handed out
  size_t filled_ = 0;  // bytes at `in_`
};

}  // namespace dns

#endif  // DNS_IO_H
