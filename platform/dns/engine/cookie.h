// cookie.h - DNS cookies (RFC 7873): what is sent to a server, and what its answers must repeat.
#ifndef DNS_ENGINE_COOKIE_H
#define DNS_ENGINE_COOKIE_H

#include <stdint.h>

#include <span>

#include <dns_engine.h>
#include <message.h>

#include "arrival.h"
#include "context.h"

namespace dns {

inline constexpr size_t kClientCookieSize = 8;  // RFC 7873, section 4

// with_cookies tells whether the context exchanges cookies. write_cookie writes the client cookie for a server, then
// the server's cookie where it has given one; returns their size.
[[nodiscard]] inline bool with_cookies(const dns_ctx *ctx) {
  return (ctx->options.flags & DNS_COOKIES) != 0;
}
[[nodiscard]] size_t write_cookie(const dns_ctx *ctx, const Server *server,
                                  std::span<uint8_t, kClientCookieSize + kServerCookieMax> cookie);

// check_cookie checks the cookie of an answer of the server at `place` and keeps the server's part of it (RFC 7873,
// section 5.3). A server that has given one always does; whether it has stopped is found out over TCP. False for an
// answer that is in doubt.
[[nodiscard]] bool check_option(const dns_query *q, unsigned place, const Arrival &arrival, const Header &header);
[[nodiscard]] inline bool check_cookie(const dns_query *q, unsigned place, const Arrival &arrival,
                                       const Header &header) {
  return !with_cookies(q->ctx) || check_option(q, place, arrival, header);
}

// wants_cookie tells whether a server refuses the cookie that it was sent (BADCOOKIE, RFC 7873, 5.3): the query is sent
// again with the server's new cookie, and after that over TCP.
[[nodiscard]] bool wants_cookie(const dns_query *q, unsigned place, std::span<const uint8_t> packet,
                                const Header &header);

}  // namespace dns

#endif  // DNS_ENGINE_COOKIE_H
