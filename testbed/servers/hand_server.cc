#include "hand_server.h"

#include <arpa/inet.h>
#include <packet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace testbed {
namespace {

constexpr timeval kBound = {60, 0};

}  // namespace

sockaddr_in loopback(uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  return address;
}

HandServer::HandServer(const char *address_text) : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address = loopback(0);
  inet_pton(AF_INET, address_text, &address.sin_addr);
  socklen_t size = sizeof address;
  if (bind(socket_, reinterpret_cast<sockaddr *>(&address), size) != 0 ||
      getsockname(socket_, reinterpret_cast<sockaddr *>(&address), &size) != 0)
    throw std::runtime_error("no socket");
  setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &kBound, sizeof kBound);
  port_ = ntohs(address.sin_port);
}

HandServer::~HandServer() {
  close(socket_);
}

HandServer::Query HandServer::receive() const {
  Query query{std::vector<uint8_t>(DNS_MAXPACKET), {}};
  socklen_t size = sizeof query.from;
  const ssize_t got =
      recvfrom(socket_, query.packet.data(), query.packet.size(), 0, reinterpret_cast<sockaddr *>(&query.from), &size);
  query.packet.resize(got > 0 ? static_cast<size_t>(got) : 0);
  return query;
}

void HandServer::answer(const Query &query, uint8_t octet) const {
  send(query, Packet::reply(query.packet).add(kQuestionPointer, DNS_T_A, {127, 0, 0, octet}).bytes);
}

void HandServer::deny(const Query &query) const {
  send(query, Packet::reply(query.packet, DNS_R_NXDOMAIN).bytes);
}

void HandServer::send(const Query &query, const std::vector<uint8_t> &packet) const {
  if (sendto(socket_, packet.data(), packet.size(), 0, reinterpret_cast<const sockaddr *>(&query.from),
             sizeof query.from) != static_cast<ssize_t>(packet.size()))
    throw std::runtime_error("an answer was not sent");
}

}  // namespace testbed
