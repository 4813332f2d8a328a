// socket.h - the UDP sockets of the bare loop and of the responder.
#ifndef KAVO_BENCH_COMPARE_SOCKET_H
#define KAVO_BENCH_COMPARE_SOCKET_H

#include <hand_server.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <system_error>

namespace compare {

inline constexpr int kSocketBuffer = 32 << 20;  // bytes: room for ten thousand small packets
inline constexpr timeval kTimeout = {1, 0};     // for the next answer; then the questions under way are lost

// grow_buffer makes a socket's receive buffer as large as the system lets this process.
inline void grow_buffer(int fd) {
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &kSocketBuffer, sizeof kSocketBuffer) != 0)
    (void)setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &kSocketBuffer, sizeof kSocketBuffer);
}

// UdpSocket is bound to a free port of `address`, and connected to its port `peer` unless that is 0. A connected one
// has room for every answer that may come at once.
class UdpSocket {
 public:
  explicit UdpSocket(const std::string &address, uint16_t peer = 0) {
    sockaddr_storage local = testbed::socket_address(address, 0), remote = testbed::socket_address(address, peer);
    socklen_t size = sizeof local;
    fd_ = ::socket(local.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr *>(&local), size) != 0 ||
        getsockname(fd_, reinterpret_cast<sockaddr *>(&local), &size) != 0 ||
        (peer != 0 && (connect(fd_, reinterpret_cast<sockaddr *>(&remote), size) != 0 ||
                       setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &kTimeout, sizeof kTimeout) != 0)))
      throw std::system_error(errno, std::generic_category(), "socket");
    if (peer != 0) grow_buffer(fd_);
    port_ = testbed::port_of(local);
  }
  ~UdpSocket() {
    if (fd_ >= 0) close(fd_);
  }
  UdpSocket(const UdpSocket &) = delete;
  UdpSocket &operator=(const UdpSocket &) = delete;

  [[nodiscard]] int fd() const { return fd_; }
  [[nodiscard]] uint16_t port() const { return port_; }

 private:
  int fd_ = -1;
  uint16_t port_ = 0;
};

}  // namespace compare

#endif  // KAVO_BENCH_COMPARE_SOCKET_H
