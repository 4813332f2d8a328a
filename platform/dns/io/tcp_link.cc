// tcp_link.cc - see tcp_link.h.
#include <tcp_link.h>

#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include <utility>

namespace dns {
namespace {

constexpr size_t kLengthSize = 2;
constexpr size_t kIncomingMax = kLengthSize + DNS_MAXPACKET;

}  // namespace

int TcpLink::open(const Io *io, const Address &peer) {
  out_ = static_cast<uint8_t *>(malloc(kUnsentMax + kIncomingMax));
  if (out_ == nullptr) return -ENOMEM;
  const int descriptor = io->tcp_open(io->self, peer);
  if (descriptor < 0) {
    close();
    return descriptor;
  }
  io_ = io;
  in_ = out_ + kUnsentMax;
  descriptor_ = descriptor;
  return 0;
}

void TcpLink::close() {
  abandon();
  free(out_);
  out_ = in_ = nullptr;
  unsent_ = taken_ = filled_ = 0;
}

void TcpLink::abandon() {
  const int descriptor = std::exchange(descriptor_, -1);
  if (descriptor >= 0) io_->tcp_close(io_->self, descriptor);
}

bool TcpLink::push(std::span<const uint8_t> message) {
  if (message.size() > DNS_MAXPACKET || kLengthSize + message.size() > kUnsentMax - unsent_) return false;
  uint8_t *at = out_ + unsent_;
  at[0] = static_cast<uint8_t>(message.size() >> CHAR_BIT);
  at[1] = static_cast<uint8_t>(message.size());
  memcpy(at + kLengthSize, message.data(), message.size());
  unsent_ += kLengthSize + message.size();
  return true;
}

int TcpLink::flush() {
  size_t sent = 0;
  int result = 0;
  while (sent < unsent_) {
    result = io_->tcp_send(io_->self, descriptor_, out_ + sent, unsent_ - sent);
    if (result <= 0) break;
    sent += static_cast<size_t>(result);
  }
  unsent_ -= sent;
  memmove(out_, out_ + sent, unsent_);
  return result >= 0 || result == -EAGAIN ? 0 : result;
}

int TcpLink::fill() {
  filled_ -= taken_;
  memmove(in_, in_ + taken_, filled_);
  taken_ = 0;
  // There is room, since an incomplete message is shorter than the longest one.
  const int got = io_->tcp_receive(io_->self, descriptor_, in_ + filled_, kIncomingMax - filled_);
  if (got > 0) filled_ += static_cast<size_t>(got);
  return got;
}

bool TcpLink::next(std::span<uint8_t> *message) {
  uint8_t *at = in_ + taken_;
  if (filled_ - taken_ < kLengthSize) return false;
  const size_t size = static_cast<size_t>(at[0] << CHAR_BIT | at[1]);
  if (filled_ - taken_ - kLengthSize < size) return false;
  *message = {at + kLengthSize, size};
  taken_ += kLengthSize + size;
  return true;
}

}  // namespace dns
