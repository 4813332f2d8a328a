// runs.h - packets that leave in runs: those of one size to one peer as one message, which the kernel cuts up
// (UDP_SEGMENT). It walks the way down its stack once for all of them.
#ifndef KAVO_BENCH_COMPARE_RUNS_H
#define KAVO_BENCH_COMPARE_RUNS_H

#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstdint>
#include <span>

namespace compare {

inline constexpr unsigned kBatch = 64;  // packets of one system call each way

class Runs {
 public:
  // lay_out brings up to kBatch packets into order, those of no bytes left out. `peers` tells where each is going, null
  // on a connected socket; an IPv4 address takes the first bytes of its peer. Packets and peers stay the caller's, and
  // are sent from where they are.
  void lay_out(std::span<const iovec> packets, sockaddr_in6 *peers);

  // send returns how many of the runs the system refused.
  unsigned send(int fd);

 private:
  struct Control {
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(uint16_t))> bytes;
  };

  void add(sockaddr_in6 *peer, std::span<iovec> parts);

  unsigned count_ = 0;
  std::array<iovec, kBatch> sorted_;
  std::array<mmsghdr, kBatch> messages_;
  std::array<Control, kBatch> controls_;
};

}  // namespace compare

#endif  // KAVO_BENCH_COMPARE_RUNS_H
