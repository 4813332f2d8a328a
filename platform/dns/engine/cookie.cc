// cookie.cc - see cookie.h.
#include "cookie.h"

#include <string.h>

#include <message.h>
#include <opt.h>
#include <siphash.h>

#include "arrival.h"
#include "context.h"

namespace dns {
namespace {

constexpr size_t kServerCookieMin = 8;  // RFC 7873, section 4

// client_cookie returns the client cookie for a server (RFC 7873, section 4.1).
void client_cookie(const dns_ctx *ctx, const Server *server, uint8_t *cookie) {
  const uint64_t hash = siphash(ctx->cookie_secret, &server->address, sizeof server->address);
  static_assert(sizeof hash == kClientCookieSize);
  memcpy(cookie, &hash, sizeof hash);
}

// keep_cookie keeps the server's part of a cookie option; false when it is malformed, or has another client cookie.
bool keep_cookie(const dns_ctx *ctx, Server *server, std::span<const uint8_t> cookie) {
  uint8_t own[kClientCookieSize];
  client_cookie(ctx, server, own);
  if (cookie.size() < sizeof own || memcmp(cookie.data(), own, sizeof own) != 0) return false;
  const std::span<const uint8_t> theirs = cookie.subspan(sizeof own);
  if (theirs.empty()) return true;
  if (theirs.size() < kServerCookieMin || theirs.size() > kServerCookieMax) return false;
  memcpy(server->cookie, theirs.data(), theirs.size());
  server->cookie_size = static_cast<uint8_t>(theirs.size());
  server->cookie_until_us = ctx->now_us + kCookieUs;
  return true;
}

}  // namespace

size_t write_cookie(const dns_ctx *ctx, const Server *server,
                    std::span<uint8_t, kClientCookieSize + kServerCookieMax> cookie) {
  client_cookie(ctx, server, cookie.data());
  memcpy(&cookie[kClientCookieSize], server->cookie, server->cookie_size);
  return kClientCookieSize + server->cookie_size;
}

bool check_option(const dns_query *q, unsigned place, const Arrival &arrival, const Header &header) {
  const dns_ctx *ctx = q->ctx;
  Server *server = servers_of(q)[place];
  const bool expected = server->gives_cookies(ctx->now_us);
  if (!expected && !said_opt(q, place)) return true;
  // Over TCP no off-path forger answers, and a cookie is not needed.
  const bool without = !arrival.by_udp();
  Sections sections(arrival.packet, header);
  Opt opt;
  if (!read_opt(&sections, &opt)) return without;
  if (!opt.cookie.empty()) return keep_cookie(ctx, server, opt.cookie) || without;
  if (expected && !without) return false;
  if (said_opt(q, place)) server->cookie_until_us = server->cookie_size = 0;
  return true;
}

bool wants_cookie(const dns_query *q, unsigned place, std::span<const uint8_t> packet, const Header &header) {
  constexpr unsigned kBadCookie = 23;
  Sections sections(packet, header);
  Opt opt;
  if (!with_cookies(q->ctx) || !said_opt(q, place) || q->attempt.over_tcp || !read_opt(&sections, &opt)) return false;
  return opt.present && (unsigned{opt.rcode_high} << 4 | header.rcode) == kBadCookie;
}

}  // namespace dns
