#include "hand_server.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <packet.h>
#include <unistd.h>

#include <cstring>
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

sockaddr_storage socket_address(const std::string &address, uint16_t port) {
  addrinfo hints{};
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo *found = nullptr;
  if (getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &found) != 0)
    throw std::invalid_argument(address);
  sockaddr_storage result{};
  memcpy(&result, found->ai_addr, found->ai_addrlen);
  freeaddrinfo(found);
  return result;
}

uint16_t port_of(const sockaddr_storage &address) {
  sockaddr_in6 either;  // both families have it in the same place
  memcpy(&either, &address, sizeof either);
  return ntohs(either.sin6_port);
}

bool ipv6_works() {
  const int fd = socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const sockaddr_storage here = socket_address("::1", 0);
  const bool works = fd >= 0 && bind(fd, reinterpret_cast<const sockaddr *>(&here), sizeof(sockaddr_in6)) == 0;
  if (fd >= 0) close(fd);
  return works;
}

HandServer::HandServer(const std::string &address_text)
    : socket_(socket(address_text.find(':') != std::string::npos ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  sockaddr_storage address = socket_address(address_text, 0);
  socklen_t size = address.ss_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
  if (bind(socket_, reinterpret_cast<sockaddr *>(&address), size) != 0 ||
      getsockname(socket_, reinterpret_cast<sockaddr *>(&address), &size) != 0)
    throw std::runtime_error("no socket");
  setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &kBound, sizeof kBound);
  port_ = port_of(address);
}

HandServer::~HandServer() {
  close(socket_);
}

HandServer::Query HandServer::receive() const {
  Query query{std::vector<uint8_t>(DNS_MAXPACKET), {}, sizeof(sockaddr_storage)};
  const ssize_t got = recvfrom(socket_, query.packet.data(), query.packet.size(), 0,
                               reinterpret_cast<sockaddr *>(&query.from), &query.from_size);
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
             query.from_size) != static_cast<ssize_t>(packet.size()))
    throw std::runtime_error("an answer was not sent");
}

}  // namespace testbed
