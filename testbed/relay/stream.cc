#include "stream.h"

#include <sys/epoll.h>
#include <sys/socket.h>

namespace relay {
namespace {

bool only_waits() {
  return errno == EAGAIN || errno == EINTR || errno == ENOTCONN;
}

}  // namespace

Stream::Stream(Descriptor client, Descriptor server) : client_(std::move(client)), server_(std::move(server)) {}

bool Stream::Lane::fill(int from) {
  const ssize_t got = recv(from, bytes.data(), bytes.size(), 0);
  if (got < 0) return only_waits();
  begin = 0;
  end = static_cast<size_t>(got);
  ended = got == 0;
  return true;
}

bool Stream::Lane::drain(int to) {
  const ssize_t sent = send(to, &bytes[begin], end - begin, MSG_NOSIGNAL);
  if (sent < 0) return only_waits();
  begin += static_cast<size_t>(sent);
  return true;
}

// One read and one write at a time: a long stream must not hold up the packets.
bool Stream::Lane::pass_on(int from, int to) {
  if (empty() && !ended) {
    if (!fill(from)) return false;
    if (ended) shutdown(to, SHUT_WR);
  }
  return empty() || drain(to);
}

bool Stream::pass_on() {
  const bool whole = out_.pass_on(client(), server()) && back_.pass_on(server(), client());
  return whole && !(out_.ended && back_.ended);
}

uint32_t Stream::wanted(const Lane &from_here, const Lane &to_here) {
  uint32_t events = 0;
  if (from_here.empty() && !from_here.ended) events |= EPOLLIN;
  if (!to_here.empty()) events |= EPOLLOUT;
  return events;
}

}  // namespace relay
