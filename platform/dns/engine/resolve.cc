// resolve.cc - synchronous lookups: one query on an open context, which the calling thread drives until the query is
// over.
//
// Other queries that are open on the context continue meanwhile, and their callbacks run here. A lookup needs no
// timeout of its own, because the engine ends every query after its last attempt. It sleeps in poll and reads the
// system's clock, so it is for contexts over the operating system's Io.
#include <limits.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <memory>

#include <dns_wire.h>
#include <pelk_thread.h>

#include "context.h"

namespace dns {
namespace {

struct Freed {
  void operator()(void *block) const { free(block); }
};

// Lookup is the data of a synchronous query. Its block goes to the caller.
struct Lookup {
  dns_parse_fn *parse;
  std::unique_ptr<void, Freed> block;
  dns_status status = DNS_E_CANCEL;  // for a query that ends without an outcome
  bool over = false;
};

// parse_own is called in place of a lookup's parser. The parser runs twice: in the context's memory, which tells the
// size, and in a block of that size, because a block cannot be moved once it is laid out.
int parse_own(dns_ctx *ctx, dns_query *q, const unsigned char *qdn, const unsigned char *pkt, const unsigned char *cur,
              const unsigned char *end, void **result, unsigned) {
  auto *lookup = static_cast<Lookup *>(dns_qudata(q));
  dns_parse_fn *parse = lookup->parse;
  const int size = parse(ctx, q, qdn, pkt, cur, end, result, 0);
  *result = nullptr;
  if (size <= 0) return size;
  lookup->block.reset(malloc(static_cast<size_t>(size)));
  if (lookup->block == nullptr) return DNS_E_NOMEM;
  void *place = lookup->block.get();
  const int written = parse(ctx, q, qdn, pkt, cur, end, &place, static_cast<unsigned>(size));
  if (written > 0) *result = place;
  return written;
}

// take_outcome is the callback of a lookup. A block of parse_own is taken over; a raw packet, in which nothing points
// anywhere, is copied out of the context's memory.
void take_outcome(dns_ctx *ctx, dns_query *q, void *result, unsigned size, void *data) {
  auto *lookup = static_cast<Lookup *>(data);
  lookup->over = true;
  lookup->status = ctx->status;
  const bool own = dns_qparse(q) == parse_own;
  if (result == nullptr) lookup->block.reset();
  if (own || lookup->status != DNS_E_NOERROR || result == nullptr) return;
  lookup->block.reset(malloc(size));
  if (lookup->block == nullptr) {
    lookup->status = DNS_E_NOMEM;
  } else {
    memcpy(lookup->block.get(), result, size);
  }
}

// SocketSet is the context's sockets, as the engine lists them and as poll takes them.
class SocketSet {
 public:
  // fill lists the sockets anew; false without memory.
  [[nodiscard]] bool fill(dns_ctx *ctx) {
    for (;;) {
      const auto found = static_cast<unsigned>(std::max(dns_sockio(ctx, sockets_.get(), room_), 0));
      count_ = std::min(found, room_);
      if (found <= room_) break;
      sockets_.reset(static_cast<dns_ios *>(calloc(found, sizeof(dns_ios))));
      polled_.reset(static_cast<pollfd *>(calloc(found, sizeof(pollfd))));
      room_ = sockets_ != nullptr && polled_ != nullptr ? found : 0;
      if (room_ == 0) return false;
    }
    for (unsigned i = 0; i < count_; ++i) {
      const bool writes = (sockets_[i].dnsio_events & DNS_IO_OUT) != 0;
      const bool reads = (sockets_[i].dnsio_events & DNS_IO_IN) != 0;
      polled_[i] = {sockets_[i].dnsio_sock, static_cast<short>((reads ? POLLIN : 0) | (writes ? POLLOUT : 0)), 0};
    }
    return true;
  }

  // wait sleeps until a socket is ready or `longest` is over, and hands the engine what is ready.
  void wait(dns_ctx *ctx, dns_timeval longest) {
    if (poll(polled_.get(), count_, milliseconds(longest)) <= 0) return;
    dns_timeval now;
    dns_gettimeofday(&now);
    for (unsigned i = 0; i < count_; ++i) {
      const short ready = polled_[i].revents;
      // A socket that failed is read: that is how its error is learned and cleared.
      const bool reads = (ready & (POLLIN | POLLERR | POLLHUP)) != 0;
      const bool writes = (ready & POLLOUT) != 0;
      const dns_ios event = {sockets_[i].dnsio_sock, (reads ? uint32_t{DNS_IO_IN} : 0) | (writes ? DNS_IO_OUT : 0)};
      if (event.dnsio_events != 0) dns_ioevent(ctx, &event, now);
    }
  }

 private:
  // milliseconds rounds up, so that a wait is not over before it is due.
  static int milliseconds(dns_timeval span) {
    constexpr int64_t kMsPerSecond = 1000;
    constexpr int64_t kUsPerMs = 1000;
    const int64_t ms = span.dnstv_sec * kMsPerSecond + (span.dnstv_usec + kUsPerMs - 1) / kUsPerMs;
    return static_cast<int>(std::min<int64_t>(ms, INT_MAX));
  }

  std::unique_ptr<dns_ios[], Freed> sockets_;
  std::unique_ptr<pollfd[], Freed> polled_;
  unsigned room_ = 0;
  unsigned count_ = 0;
};

// drive runs the context until the lookup is over, or until no query is open: a debug function may have cancelled it.
void drive(dns_ctx *ctx, dns_query *q, Lookup *lookup) {
  SocketSet sockets;
  while (!lookup->over) {
    dns_timeval now;
    dns_gettimeofday(&now);
    const dns_timeval wait = dns_timeouts(ctx, dns_tv_infinite, now);
    if (lookup->over || wait == dns_tv_infinite) return;
    if (!sockets.fill(ctx)) {
      dns_cancel(ctx, q);
      lookup->status = DNS_E_NOMEM;
      return;
    }
    sockets.wait(ctx, wait);
  }
}

}  // namespace
}  // namespace dns

using namespace dns;

extern "C" {

void *dns_resolve_p(dns_ctx *ctx, const char *name, dns_class cls, dns_type typ, unsigned flags, dns_parse_fn *parse) {
  if (ctx == nullptr) return nullptr;
  const pelk_no_cancel whole;
  uint8_t dn[DNS_MAXDN];
  if (name == nullptr || parse == nullptr) {
    ctx->status = DNS_E_INVAL;
    return nullptr;
  }
  if (dns_ptodn(name, 0, dn, sizeof dn, nullptr) <= 0) {
    ctx->status = DNS_E_BADQUERY;
    return nullptr;
  }
  Lookup lookup = {.parse = parse, .block = nullptr};
  dns_parse_fn *parser = parse == dns_parse_pkt ? dns_parse_pkt : parse_own;
  dns_query *q = dns_submit_dn_serv(ctx, dn, cls, typ, flags | DNS_RCRS, nullptr, 0, parser, take_outcome, &lookup);
  if (q == nullptr) return nullptr;
  drive(ctx, q, &lookup);
  ctx->status = lookup.status;
  return lookup.over ? lookup.block.release() : nullptr;
}

dns_rr_a4 *dns_resolve_a4(dns_ctx *ctx, const char *name, unsigned flags) {
  return static_cast<dns_rr_a4 *>(dns_resolve_p(ctx, name, DNS_C_IN, DNS_T_A, flags, dns_parse_a4));
}

}  // extern "C"
