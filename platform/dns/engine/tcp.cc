// tcp.cc - see tcp.h.
//
// A server has one connection at most. Queries are pipelined on it, up to kPerConnection, and answered in any order;
// further ones wait in `tcp_waiting`. When a connection breaks, its queries move to the next one. That costs a query an
// attempt only if the connection has answered nothing since the query was posted on it: servers may close connections
// at any time, some after a number of answers. Such a server gets no more queries on one connection than it has
// answered on one.
#include "tcp.h"

#include <errno.h>
#include <string.h>

#include <algorithm>

#include "attempt.h"
#include "case_0x20.h"
#include "context.h"
#include "move.h"
#include "places.h"
#include "query_packet.h"
#include "receive.h"
#include "route.h"
#include "rto.h"
#include "trace.h"

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

// is_used_up tells whether as many queries have been posted on a connection as its server answers on one.
bool is_used_up(const dns_ctx *ctx, const Connection *connection) {
  const Server *server = connection->server;
  return ctx->now_us < server->tcp_until_us && connection->posted >= server->tcp_limit;
}

// How an attempt over TCP failed: the server refused, it was silent, or the fault is not the server's.
enum class End { refused, silence, local };

// end_of returns it for the error of a connection. A packet filter may report a server as unreachable.
End end_of(int error) {
  const bool by_server = error == -ECONNREFUSED || error == -ECONNRESET || error == -EPIPE || error == -ETIMEDOUT ||
                         error == -EHOSTUNREACH;
  return by_server ? End::refused : End::local;
}

// failed ends the present attempt over TCP.
void failed(dns_query *q, End end) {
  if (doubts_case(q) && end != End::local) {
    note_no_tcp(q);
    if (q->progress.attempts >= q->ctx->options.ntries) return ask_again(q);
    prepare_for(q, q->attempt.server);
    return ask_otherwise(q);
  }
  ++q->progress.attempts;
  switch (end) {
    case End::refused:
      // After a doubtful answer the true one may still come by UDP.
      return q->attempt.doubt == Doubt::none ? turned_back(q) : ask_again(q);
    case End::local:
      return not_reached(q);
    case End::silence:
      return ask_again(q);
  }
}

// broken ends a connection that has failed with `error`.
void broken(dns_ctx *ctx, Connection *connection, int error) {
  base::Link lost;
  Server *server = connection->server;
  if (connection->count > 0 && connection->answered > 0 && error != -ETIMEDOUT) {
    server->tcp_limit = connection->answered;
    server->tcp_until_us = ctx->now_us + kTcpLimitUs;
  }
  for (unsigned i = connection->count; i > 0; --i) {
    const Connection::Posted posted = connection->under_way[i - 1];
    dns_query *q = posted.query;
    if (posted.answered != connection->answered) --q->attempt.tcp_breaks;
    leave(q);
    move(q, State::sending, &lost);
  }
  disconnect(ctx, connection);
  while (!lost.alone()) {
    auto *q = static_cast<dns_query *>(lost.next);
    if (q->attempt.tcp_breaks < kTcpBreaksMax) {
      enqueue(q);
      continue;
    }
    failed(q, end_of(error));
  }
}

// spare returns a free record, or that of the connection idle for longest; null when all are in use.
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

// connect begins a connection; null with the reason in `error`, -EBUSY when every connection is in use.
Connection *connect(dns_ctx *ctx, Server *server, int *error) {
  Connection *connection = spare(ctx);
  *error = connection == nullptr ? -EBUSY : connection->link.open(ctx->io, server->address);
  if (*error != 0) {
    // A connection may lack a local port alone.
    if (*error != -EADDRNOTAVAIL) note_refusal(ctx, server, *error);
    return nullptr;
  }
  ctx->server_table.hold_again(server);
  connection->server = server;
  connection->heard_us = ctx->now_us;
  connection->count = connection->posted = connection->answered = 0;
  ++ctx->connections_open;
  return connection;
}

// post queues the query's packet on a connection; false when it has no room.
[[nodiscard]] bool post(dns_query *q, Connection *connection) {
  dns_ctx *ctx = q->ctx;
  uint8_t packet[kQueryRoom];
  if (connection->count == kPerConnection || is_used_up(ctx, connection) || !new_id(q)) return false;
  const std::span<const uint8_t> message(packet, build(q, packet));
  if (!connection->link.push(message)) return false;
  q->attempt.slot = static_cast<int16_t>(slot_of(ctx, connection));
  q->attempt.place = static_cast<uint8_t>(connection->count);
  connection->under_way[connection->count++] = {q, connection->answered};
  ++connection->posted;
  connection->used_us = ctx->now_us;
  ctx->index.add(q);
  ++q->attempt.tcp_breaks;
  wait_for_answer(q);
  if (ctx->tells(DNS_DE_PKT)) {
    const Hold hold(ctx);
    memcpy(packet + DNS_HSIZE, q->question.ask, q->ask_size);  // in the host's letter case
    tell_packet(ctx, q, DNS_D_PKT_REQ, {message, &connection->server->address, q->attempt.slot}, 0);
  }
  return true;
}

// take_messages reads a connection until it is empty. Returns a negated errno once it is broken, or when no query is
// under way on it: a server that sends unasked must not keep an idle context awake.
[[nodiscard]] int take_messages(dns_ctx *ctx, Connection *connection) {
  const Address peer = connection->server->address;
  if (connection->count == 0) return -ECONNRESET;
  for (unsigned i = 0; i < kReadsMax; ++i) {
    const int got = connection->link.fill();
    if (got == -EAGAIN) return 0;
    if (got <= 0) return got < 0 ? got : -ECONNRESET;
    connection->heard_us = connection->used_us = ctx->now_us;
    for (std::span<uint8_t> message; connection->link.next(&message);)
      if (take_packet(ctx, message, peer, slot_of(ctx, connection))) ++connection->answered;
  }
  return 0;
}

void read_connection(dns_ctx *ctx, Connection *connection) {
  const int error = take_messages(ctx, connection);
  if (error != 0) broken(ctx, connection, error);
}

// unwritable ends a connection that cannot be written to, after reading what its server sent before it closed.
void unwritable(dns_ctx *ctx, Connection *connection, int error) {
  (void)take_messages(ctx, connection);
  broken(ctx, connection, error);
}

}  // namespace

void send_over_tcp(dns_query *q) {
  dns_ctx *ctx = q->ctx;
  Server *server = present_server(q);
  int error = -EBUSY;
  Connection *connection = connection_to(ctx, server);
  if (connection != nullptr && connection->count == 0 && is_used_up(ctx, connection)) {
    disconnect(ctx, connection);
    connection = nullptr;
  }
  if (connection == nullptr) connection = connect(ctx, server, &error);
  if (connection != nullptr && post(q, connection)) return;
  // A connection on which nothing moved for the timeout of an attempt is not waited for.
  const int64_t moved_us = std::max(q->attempt.sent_us, connection != nullptr ? connection->heard_us : 0);
  if (error == -EBUSY && ctx->now_us - moved_us < ctx->options.timeout_us) {
    ctx->tcp_waiting.append(q);
    return;
  }
  failed(q, end_of(error));
}

bool tcp_flush(dns_ctx *ctx) {
  if (ctx->connections_open == 0) return false;
  for (Connection &connection : ctx->connections) {
    const int error = connection.link.wants_to_write() ? connection.link.flush() : 0;
    if (error != 0) unwritable(ctx, &connection, error);
  }
  return !ctx->sending.alone();
}

void tcp_receive(dns_ctx *ctx) {
  if (ctx->connections_open == 0) return;
  for (Connection &connection : ctx->connections)
    if (connection.link.is_open() && connection.count > 0) read_connection(ctx, &connection);
}

void tcp_timed_out(dns_query *q) {
  dns_ctx *ctx = q->ctx;
  Connection *connection = &ctx->connections[q->attempt.slot - kTcpSlot];
  const bool silent = connection->heard_us <= q->attempt.sent_us;
  failed(q, End::silence);
  // Nothing at all came back, so the other queries would wait in vain too.
  if (silent && connection->link.is_open()) broken(ctx, connection, -ETIMEDOUT);
}

bool tcp_event(dns_ctx *ctx, const dns_ios &socket) {
  if (ctx->connections_open == 0) return false;
  for (Connection &connection : ctx->connections) {
    if (!connection.link.is_open() || connection.link.descriptor() != socket.dnsio_sock) continue;
    const int unsent = (socket.dnsio_events & DNS_IO_OUT) != 0 ? connection.link.flush() : 0;
    if (unsent != 0)
      unwritable(ctx, &connection, unsent);
    else if ((socket.dnsio_events & DNS_IO_IN) != 0)
      read_connection(ctx, &connection);
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
