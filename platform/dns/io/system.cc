// system.cc - the table of functions over the operating system (dns_io.h).
#include <errno.h>
#include <netinet/tcp.h>
#include <netinet/udp.h>
#include <string.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <linux/errqueue.h>  // relies on <time.h>
#include <linux/sock_diag.h>

#include <atomic>

#include <dns_io.h>
#include <pelk_file.h>
#include <socket_address.h>

namespace dns {
namespace {

constexpr dns_time kEpoch2000 = 946684800;  // 2000-01-01 00:00:00 UTC in seconds since 1970

dns_time system_wall(void *) {
  return static_cast<dns_time>(time(nullptr)) - kEpoch2000;
}

bool system_random(void *, void *bytes, size_t size) {
  auto *at = static_cast<uint8_t *>(bytes);
  while (size > 0) {
    const ssize_t got = getrandom(at, size, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    at += got;
    size -= static_cast<size_t>(got);
  }
  return true;
}

constexpr int kOn = 1;

int protocol_family(Family family) {
  return family == Family::ipv6 ? PF_INET6 : PF_INET;
}

// bind_to gives a socket its port, on every local address of the family.
int bind_to(int descriptor, Family family, uint16_t port) {
  Address any;
  any.family = family;
  any.port = port;
  // Without this an IPv6 socket would take the IPv4 port too.
  if (family == Family::ipv6) (void)setsockopt(descriptor, IPPROTO_IPV6, IPV6_V6ONLY, &kOn, sizeof kOn);
  const SocketAddress local(any);
  return bind(descriptor, local.generic(), local.size()) == 0 ? 0 : -errno;
}

int connect_to(int descriptor, const Address &peer) {
  const SocketAddress remote(peer);
  return connect(descriptor, remote.generic(), remote.size()) == 0 ? 0 : -errno;
}

int system_udp_open(void *, Family family, uint16_t port, const Address *peer) {
  const int descriptor =
      pelk_lift(socket(protocol_family(family), SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_UDP));
  if (descriptor < 0) return -errno;
  int error = bind_to(descriptor, family, port);
  if (error == 0 && peer != nullptr) {
    error = connect_to(descriptor, *peer);
    // A route that prohibits the peer: -EACCES would say that the port is refused.
    if (error == -EACCES) error = -EHOSTUNREACH;
  }
  if (error != 0) {
    close(descriptor);
    return error;
  }
  // As much as an unprivileged process may have. The pool does not rely on getting it.
  constexpr int kReceiveBytes = 1 << 20;
  (void)setsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &kReceiveBytes, sizeof kReceiveBytes);
  if (family == Family::ipv6) {
    (void)setsockopt(descriptor, IPPROTO_IPV6, IPV6_RECVERR, &kOn, sizeof kOn);
  } else {
    (void)setsockopt(descriptor, IPPROTO_IP, IP_RECVERR, &kOn, sizeof kOn);
  }
  return descriptor;
}

void system_close(void *, int descriptor) {
  close(descriptor);
}

// asked_whether_kernel_cuts tells whether the kernel can split one send into packets (UDP_SEGMENT, Linux 4.18). An
// older kernel ignores the request and would send them as one packet, so it is asked first.
bool asked_whether_kernel_cuts() {
  const int descriptor = pelk_lift(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP));
  int size = 0;
  socklen_t length = sizeof size;
  const bool known = descriptor >= 0 && getsockopt(descriptor, IPPROTO_UDP, UDP_SEGMENT, &size, &length) == 0;
  if (descriptor >= 0) close(descriptor);
  return known;
}

// kernel_cuts has no guarded initialiser: a child forked during the initialisation would wait for its end forever.
bool kernel_cuts() {
  enum Known : int { unknown, no, yes };
  static constinit std::atomic<int> known = unknown;
  int cuts = known.load(std::memory_order_relaxed);
  if (cuts == unknown) {
    cuts = asked_whether_kernel_cuts() ? yes : no;
    known.store(cuts, std::memory_order_relaxed);
  }
  return cuts == yes;
}

// Outgoing is the records that sendmmsg wants for kBatch datagrams: a message for each, or with `in_runs` a message for
// each run of datagrams of one size, which the kernel splits.
class Outgoing {
 public:
  Outgoing(const Datagram *datagrams, unsigned total, bool connected, bool in_runs) {
    for (unsigned begin = 0, end = 0; begin < total; begin = end) {
      do
        vectors_[end] = {datagrams[end].data, datagrams[end].size};
      while (++end < total && in_runs && datagrams[end].size == datagrams[begin].size);
      messages_[count_] = {};
      msghdr &message = messages_[count_].msg_hdr;
      if (!connected) {
        names_[count_] = SocketAddress(datagrams[begin].peer);
        message.msg_name = names_[count_].generic();
        message.msg_namelen = names_[count_].size();
      }
      message.msg_iov = &vectors_[begin];
      message.msg_iovlen = end - begin;
      if (message.msg_iovlen > 1) cut(&message, static_cast<uint16_t>(datagrams[begin].size));
      ++count_;
    }
  }

  // send returns how many datagrams left, a negated errno when the first could not.
  [[nodiscard]] int send(int descriptor) {
    const int sent = sendmmsg(descriptor, messages_, count_, MSG_NOSIGNAL);
    if (sent < 0) return -errno;
    size_t left = 0;
    for (int i = 0; i < sent; ++i)
      left += messages_[i].msg_hdr.msg_iovlen;
    return static_cast<int>(left);
  }

 private:
  struct Control {
    alignas(cmsghdr) uint8_t bytes[CMSG_SPACE(sizeof(uint16_t))];
  };

  void cut(msghdr *message, uint16_t size) {
    Control *control = &controls_[count_];
    *control = {};  // the kernel reads the padding too
    message->msg_control = control->bytes;
    message->msg_controllen = sizeof control->bytes;
    cmsghdr *part = CMSG_FIRSTHDR(message);
    part->cmsg_level = IPPROTO_UDP;
    part->cmsg_type = UDP_SEGMENT;
    part->cmsg_len = CMSG_LEN(sizeof size);
    memcpy(CMSG_DATA(part), &size, sizeof size);
  }

  unsigned count_ = 0;
  mmsghdr messages_[kBatch];
  iovec vectors_[kBatch];
  SocketAddress names_[kBatch];
  Control controls_[kBatch];
};

// system_udp_send sends runs to loopback only: the network stack is then passed once for a whole run. On other routes a
// network card may split the run, and a faulty one would lose the same queries at each attempt. Unconnected sockets
// send no runs: when nothing listens at a server, ICMP returns only the beginning of a run, so the other queries in it
// would not learn that they have to go elsewhere.
int system_udp_send(void *, int descriptor, const Datagram *datagrams, unsigned count, bool connected) {
  if (connected && count > 1 && reach_of(datagrams->peer) == Reach::host && kernel_cuts()) {
    const int left = Outgoing(datagrams, count, connected, true).send(descriptor);
    // After any other error the packets are sent one by one, which report their own errors.
    if (left > 0 || left == -EAGAIN || left == -EWOULDBLOCK || left == -ENOBUFS || left == -EINTR) return left;
  }
  return Outgoing(datagrams, count, connected, false).send(descriptor);
}

// Incoming ties kBatch datagrams to the records that recvmmsg wants. It is built on the stack for each call: that is
// cheaper than keeping it up to date.
struct Incoming {
  mmsghdr messages[kBatch];
  iovec vectors[kBatch];
  SocketAddress names[kBatch];

  Incoming(Datagram *datagrams, unsigned count, bool connected) {
    for (unsigned i = 0; i < count; ++i) {
      vectors[i] = {datagrams[i].data, datagrams[i].capacity};
      messages[i] = {};
      if (!connected) {
        messages[i].msg_hdr.msg_name = names[i].generic();
        messages[i].msg_hdr.msg_namelen = sizeof(sockaddr_in6);
      }
      messages[i].msg_hdr.msg_iov = &vectors[i];
      messages[i].msg_hdr.msg_iovlen = 1;
    }
  }
};

int system_udp_receive(void *, int descriptor, Datagram *datagrams, unsigned count, bool connected) {
  Incoming incoming(datagrams, count, connected);
  const int received = recvmmsg(descriptor, incoming.messages, count, MSG_DONTWAIT | MSG_TRUNC, nullptr);
  if (received < 0) return -errno;
  for (int i = 0; i < received; ++i) {
    datagrams[i].size = incoming.messages[i].msg_len;
    if (connected) continue;
    datagrams[i].peer = from_socket(incoming.names[i].generic(), incoming.messages[i].msg_hdr.msg_namelen);
  }
  return received;
}

// came_back_by_icmp tells whether a message of the error queue comes from an ICMP error by a router or by the peer.
bool came_back_by_icmp(msghdr *message) {
  for (cmsghdr *part = CMSG_FIRSTHDR(message); part != nullptr; part = CMSG_NXTHDR(message, part)) {
    const bool ipv4 = part->cmsg_level == IPPROTO_IP && part->cmsg_type == IP_RECVERR;
    const bool ipv6 = part->cmsg_level == IPPROTO_IPV6 && part->cmsg_type == IPV6_RECVERR;
    if (!ipv4 && !ipv6) continue;
    sock_extended_err error;
    memcpy(&error, CMSG_DATA(part), sizeof error);
    return error.ee_origin == (ipv4 ? SO_EE_ORIGIN_ICMP : SO_EE_ORIGIN_ICMP6);
  }
  return false;
}

int system_udp_returned(void *, int descriptor, Datagram *datagram) {
  for (;;) {
    iovec vector = {datagram->data, datagram->capacity};
    alignas(cmsghdr) uint8_t control[CMSG_SPACE(sizeof(sock_extended_err) + sizeof(sockaddr_in6))];
    SocketAddress destination;
    msghdr message{};
    message.msg_name = destination.generic();
    message.msg_namelen = sizeof(sockaddr_in6);
    message.msg_iov = &vector;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const ssize_t got = recvmsg(descriptor, &message, MSG_ERRQUEUE | MSG_DONTWAIT);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return 0;
    datagram->size = static_cast<uint32_t>(got);
    datagram->peer = from_socket(destination.generic(), message.msg_namelen);
    if (came_back_by_icmp(&message) && datagram->peer.family != Family::none) return 1;
  }
}

// system_udp_dropped asks when it is needed (SO_MEMINFO, Linux 4.12). SO_RXQ_OVFL says the same with each datagram,
// which would cost every answer.
int system_udp_dropped(void *, int descriptor) {
  uint32_t info[SK_MEMINFO_VARS] = {};
  socklen_t size = sizeof info;
  if (getsockopt(descriptor, SOL_SOCKET, SO_MEMINFO, info, &size) != 0) return -errno;
  return static_cast<int>(info[SK_MEMINFO_DROPS] & INT32_MAX);
}

int system_tcp_open(void *, const Address &peer) {
  const int descriptor =
      pelk_lift(socket(protocol_family(peer.family), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP));
  if (descriptor < 0) return -errno;
  (void)setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &kOn, sizeof kOn);
  const int error = connect_to(descriptor, peer);
  if (error == 0 || error == -EINPROGRESS) return descriptor;
  close(descriptor);
  return error;
}

int result_of(ssize_t moved) {
  if (moved >= 0) return static_cast<int>(moved);
  return errno == EWOULDBLOCK || errno == EINTR ? -EAGAIN : -errno;
}

int system_tcp_send(void *, int descriptor, const uint8_t *bytes, size_t size) {
  return result_of(send(descriptor, bytes, size, MSG_NOSIGNAL | MSG_DONTWAIT));
}

int system_tcp_receive(void *, int descriptor, uint8_t *bytes, size_t size) {
  return result_of(recv(descriptor, bytes, size, MSG_DONTWAIT));
}

constexpr Io kSystem = {nullptr,         system_wall,        system_random,       system_udp_open,    system_close,
                        system_udp_send, system_udp_receive, system_udp_returned, system_udp_dropped, system_tcp_open,
                        system_close,    system_tcp_send,    system_tcp_receive};

}  // namespace

const Io *system_io() {
  return &kSystem;
}

}  // namespace dns
