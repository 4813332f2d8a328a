// tcp.cc - connections to servers, and the questions that go over them (RFC 7766); see engine.h.
//
// A server has one connection at most. Questions are pipelined on it, up to kPerConnection, and answered in any order;
// further ones wait in `tcp_waiting`. A connection that breaks takes its questions to a second one, and then to the
// next server.
#include <errno.h>
#include <string.h>

#include <algorithm>
#include <utility>

#include "engine.h"

namespace dns {
namespace {

constexpr unsigned kReadsMax = 16;  // reads from one connection before the others get their turn

int slot_of(const dns_ctx *ctx, const Connection *connection) {
  return kTcpSlot + static_cast<int>(connection - ctx->connections);
}

void disconnect(dns_ctx *ctx, Connection *connection) {
  connection->link.close();
  ctx->server_table.release(connection->server);
  connection->server = nullptr;
  --ctx->connections_open;
}

// broken ends a connection. Its questions are asked again: of the same server where it has not been connected to for
// them twice, else of the next one.
void broken(dns_ctx *ctx, Connection *connection) {
  Link lost;
  for (unsigned i = connection->count; i > 0; --i) {
    dns_query *q = connection->asked[i - 1];
    leave(q);
    q->state = State::sending;
    lost.append(q);
  }
  disconnect(ctx, connection);
  while (!lost.alone()) {
    auto *q = static_cast<dns_query *>(lost.next);
    if (q->tcp_tries < kTcpTriesMax) {
      enqueue(q);
      continue;
    }
    tcp_failed(q);
  }
}

// a free record, or that of the connection that was idle for longest; null when every one is in use.
Connection *spare(dns_ctx *ctx) {
  Connection *best = nullptr;
  for (Connection &connection : ctx->connections) {
    if (!connection.link.is_open()) return &connection;
    if (connection.count == 0 && (best == nullptr || connection.used_us < best->used_us)) best = &connection;
  }
  if (best != nullptr) disconnect(ctx, best);
  return best;
}

Connection *connection_to(dns_ctx *ctx, const Server *server) {
  for (Connection &connection : ctx->connections)
    if (connection.server == server) return &connection;
  return nullptr;
}

// connect begins a connection; null when none can be had, with `*waits` when one may be had later.
Connection *connect(dns_ctx *ctx, Server *server, bool *waits) {
  Connection *connection = spare(ctx);
  *waits = connection == nullptr;
  if (connection == nullptr || connection->link.open(ctx->io, server->address) != 0) return nullptr;
  ctx->server_table.hold_again(server);
  connection->server = server;
  connection->heard_us = ctx->now_us;
  connection->count = 0;
  ++ctx->connections_open;
  return connection;
}

// post queues the question's packet on a connection; false when it has no room.
[[nodiscard]] bool post(dns_query *q, Connection *connection) {
  dns_ctx *ctx = q->ctx;
  uint8_t packet[kQueryRoom];
  if (connection->count == kPerConnection || !ctx->random.u16(&q->id) || !ctx->random.u64(&q->case_bits)) return false;
  const std::span<const uint8_t> message(packet, build(q, packet));
  if (!connection->link.push(message)) return false;
  q->slot = static_cast<int16_t>(slot_of(ctx, connection));
  q->place = static_cast<uint8_t>(connection->count);
  connection->asked[connection->count++] = q;
  connection->used_us = ctx->now_us;
  ctx->index.add(q);
  ++q->tcp_tries;
  sent(q, ctx->options.timeout_us);
  if (ctx->tells(DNS_DE_PKT)) {
    const Hold hold(ctx);
    tell_packet(ctx, q, DNS_D_PKT_REQ, {message, &connection->server->address, q->slot}, 0);
  }
  return true;
}

// take_messages reads a connection as far as there is something; false once it is broken, or where no question is under
// way on it: a server that goes on talking must not keep a resting context awake.
[[nodiscard]] bool take_messages(dns_ctx *ctx, Connection *connection) {
  const sockaddr_in peer = connection->server->address;
  if (connection->count == 0) return false;
  for (unsigned i = 0; i < kReadsMax; ++i) {
    const int got = connection->link.fill();
    if (got == -EAGAIN) return true;
    if (got <= 0) return false;
    connection->heard_us = connection->used_us = ctx->now_us;
    for (std::span<uint8_t> message; connection->link.next(&message);)
      take_packet(ctx, message, peer, slot_of(ctx, connection));
  }
  return true;
}

}  // namespace

void send_over_tcp(dns_query *q) {
  dns_ctx *ctx = q->ctx;
  Server *server = servers_of(q)[q->server];
  bool waits = true;
  Connection *connection = connection_to(ctx, server);
  if (connection == nullptr) connection = connect(ctx, server, &waits);
  if (connection != nullptr && post(q, connection)) return;
  // Where nothing moves for as long as a try may take, the question does not wait for it.
  const int64_t moved_us = std::max(q->sent_us, connection != nullptr ? connection->heard_us : 0);
  if (waits && ctx->now_us - moved_us < ctx->options.timeout_us) {
    ctx->tcp_waiting.append(q);
    return;
  }
  tcp_failed(q);
}

bool tcp_flush(dns_ctx *ctx) {
  if (ctx->connections_open == 0) return false;
  for (Connection &connection : ctx->connections)
    if (connection.link.wants_to_write() && connection.link.flush() != 0) broken(ctx, &connection);
  return !ctx->sending.alone();
}

// tcp_failed leaves the server, unless UDP is open to it: where TCP was to tell whether it keeps the case of letters,
// it is then taken for one that does not, and asked in lower case.
void tcp_failed(dns_query *q) {
  dns_ctx *ctx = q->ctx;
  if (!std::exchange(q->case_missed, false)) {
    q->refused |= 1U << q->server;
    ask_again(q);
    return;
  }
  servers_of(q)[q->server]->lower_until_us = ctx->now_us + kLowerUs;
  q->over_tcp = false;
  if (q->tries < ctx->options.ntries) {
    ask_otherwise(q);
  } else {
    ask_again(q);
  }
}

void tcp_forget(dns_query *q) {
  Connection &connection = q->ctx->connections[q->slot - kTcpSlot];
  dns_query *last = connection.asked[--connection.count];
  connection.asked[q->place] = last;
  last->place = q->place;
}

void tcp_timed_out(dns_query *q) {
  dns_ctx *ctx = q->ctx;
  Connection *connection = &ctx->connections[q->slot - kTcpSlot];
  const bool silent = connection->heard_us <= q->sent_us;
  tcp_failed(q);
  // Nothing at all came back: the others would wait in vain too.
  if (silent && connection->link.is_open()) broken(ctx, connection);
}

bool tcp_event(dns_ctx *ctx, const dns_ios &socket) {
  if (ctx->connections_open == 0) return false;
  for (Connection &connection : ctx->connections) {
    if (!connection.link.is_open() || connection.link.descriptor() != socket.dnsio_sock) continue;
    bool whole = true;
    if ((socket.dnsio_events & DNS_IO_OUT) != 0) whole = connection.link.flush() == 0;
    if (whole && (socket.dnsio_events & DNS_IO_IN) != 0) whole = take_messages(ctx, &connection);
    if (!whole) broken(ctx, &connection);
    return true;
  }
  return false;
}

void tcp_tidy(dns_ctx *ctx) {
  if (ctx->connections_open == 0) return;
  for (Connection &connection : ctx->connections)
    if (connection.link.is_open() && connection.count == 0 && ctx->now_us - connection.used_us >= kTcpIdleUs)
      disconnect(ctx, &connection);
}

void tcp_close(dns_ctx *ctx) {
  for (Connection &connection : ctx->connections)
    if (connection.link.is_open()) disconnect(ctx, &connection);
}

}  // namespace dns
