#include "runs.h"

#include <netinet/udp.h>

#include <algorithm>
#include <cstring>
#include <numeric>
#include <utility>

namespace compare {

void Runs::lay_out(std::span<const iovec> packets, sockaddr_in6 *peers) {
  std::array<uint8_t, kBatch> order;
  std::iota(order.begin(), order.end(), uint8_t{0});
  const auto key = [&](uint8_t i) {
    return std::pair(peers == nullptr ? in_port_t{0} : peers[i].sin6_port, packets[i].iov_len);
  };
  const auto total = static_cast<unsigned>(packets.size());
  std::stable_sort(order.begin(), order.begin() + total, [&](uint8_t a, uint8_t b) { return key(a) < key(b); });
  count_ = 0;
  for (unsigned begin = 0, end = 0; begin < total; begin = end) {
    for (; end < total && key(order[end]) == key(order[begin]); ++end)
      sorted_[end] = packets[order[end]];
    if (sorted_[begin].iov_len != 0)
      add(peers == nullptr ? nullptr : &peers[order[begin]], std::span(sorted_).subspan(begin, end - begin));
  }
}

unsigned Runs::send(int fd) {
  unsigned refused = 0;
  for (unsigned sent = 0; sent < count_;) {
    const int now = sendmmsg(fd, &messages_[sent], count_ - sent, 0);
    refused += now > 0 ? 0 : 1;
    sent += now > 0 ? static_cast<unsigned>(now) : 1;
  }
  return refused;
}

void Runs::add(sockaddr_in6 *peer, std::span<iovec> parts) {
  Control &room = controls_[count_];
  msghdr &message = messages_[count_++].msg_hdr;
  message = {};
  message.msg_name = peer;
  message.msg_namelen = peer == nullptr ? 0 : sizeof *peer;
  message.msg_iov = parts.data();
  message.msg_iovlen = parts.size();
  if (parts.size() == 1) return;
  message.msg_control = room.bytes.data();
  message.msg_controllen = room.bytes.size();
  cmsghdr *control = CMSG_FIRSTHDR(&message);
  control->cmsg_level = SOL_UDP;
  control->cmsg_type = UDP_SEGMENT;
  control->cmsg_len = CMSG_LEN(sizeof(uint16_t));
  const auto size = static_cast<uint16_t>(parts[0].iov_len);
  memcpy(CMSG_DATA(control), &size, sizeof size);
}

}  // namespace compare
