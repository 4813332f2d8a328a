// tcp_link.h - one TCP connection to a server: it sends and receives whole DNS messages.
//
// The thread that drives the engine context uses it alone, so nothing guards it. It never blocks, closes itself or
// reconnects, and it knows nothing of the queries in its messages: connection.h does.
#ifndef TCP_LINK_H
#define TCP_LINK_H

#include <stddef.h>
#include <stdint.h>

#include <span>

#include <dns_io.h>

namespace dns {

// TcpLink is one connection. Each message has its length in front (RFC 1035, 4.2.2), and messages are pipelined in both
// directions (RFC 7766, 6.2.1.1).
class TcpLink {
 public:
  static constexpr size_t kUnsentMax = 64 * 1024;  // bytes of queries that wait for the socket

  TcpLink() = default;
  ~TcpLink() { close(); }
  TcpLink(const TcpLink &) = delete;
  TcpLink &operator=(const TcpLink &) = delete;

  // open begins to connect. 0 or a negated errno, -ENOMEM among them.
  [[nodiscard]] int open(const Io *io, const Address &peer);
  void close();
  // abandon closes only the descriptor, in a forked child: the parent's thread may have been inside any of the other
  // functions.
  void abandon();
  [[nodiscard]] bool is_open() const { return descriptor_ >= 0; }
  [[nodiscard]] int descriptor() const { return descriptor_; }

  // push queues a message; false when that would exceed kUnsentMax. flush sends what is queued as far as the socket
  // takes it: 0, or a negated errno once the connection is broken.
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

#endif  // TCP_LINK_H
