// tcp.h - connections to servers, and the queries that go over them (RFC 7766).
#ifndef DNS_ENGINE_TCP_H
#define DNS_ENGINE_TCP_H

#include <dns_engine.h>

namespace dns {

// send_over_tcp sends a query on the connection to its server, or queues it for one.
void send_over_tcp(dns_query *q);

// tcp_flush writes the output of every connection. True when one broke, and its queries are to be sent again.
[[nodiscard]] bool tcp_flush(dns_ctx *ctx);

// tcp_receive reads what has arrived on every connection. tcp_event reads and writes the connection of a descriptor;
// false when there is none.
void tcp_receive(dns_ctx *ctx);
[[nodiscard]] bool tcp_event(dns_ctx *ctx, const dns_ios &socket);

// tcp_timed_out ends the attempt of a query that is under way on a connection.
void tcp_timed_out(dns_query *q);

// tcp_tidy closes connections that have been idle, tcp_close all.
void tcp_tidy(dns_ctx *ctx);
void tcp_close(dns_ctx *ctx);

}  // namespace dns

#endif  // DNS_ENGINE_TCP_H
