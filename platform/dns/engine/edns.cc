// edns.cc - see edns.h.
#include "edns.h"

#include <message.h>
#include <opt.h>

#include "attempt.h"
#include "context.h"
#include "cookie.h"
#include "places.h"

namespace dns {

size_t add_opt(dns_query *q, std::span<uint8_t> packet, size_t size) {
  const dns_ctx *ctx = q->ctx;
  const Server *server = present_server(q);
  const uint32_t place = bit(q->attempt.server);
  const bool plain = q->attempt.plain || server->plain_until_us > ctx->now_us;
  // A server that gives cookies is always sent one, as its answers do not count without.
  const bool with_opt = !plain || (with_cookies(ctx) && server->gives_cookies(ctx->now_us));
  q->attempt.with_opt = with_opt ? q->attempt.with_opt | place : q->attempt.with_opt & ~place;
  if (!with_opt) return size;
  uint8_t cookie[kClientCookieSize + kServerCookieMax];
  const size_t cookie_size = with_cookies(ctx) ? write_cookie(ctx, server, cookie) : 0;
  return write_opt(packet, size, static_cast<uint16_t>(ctx->options.udp_size), {cookie, cookie_size});
}

bool wants_no_opt(const dns_query *q, unsigned place, std::span<const uint8_t> packet, const Header &header) {
  constexpr uint8_t kBadVersionHigh = 1;
  Sections sections(packet, header);
  Opt opt;
  if (!said_opt(q, place) || !read_opt(&sections, &opt)) return false;
  if (header.rcode == DNS_R_FORMERR || header.rcode == DNS_R_NOTIMPL) return !opt.present;
  return header.rcode == DNS_R_NOERROR && opt.rcode_high == kBadVersionHigh;
}

bool lacks_question(std::span<const uint8_t> packet, const Header &header) {
  return (header.rcode == DNS_R_FORMERR || header.rcode == DNS_R_NOTIMPL) && packet.size() == DNS_HSIZE &&
         header.count[DNS_S_QD] == 0;
}

void take_lacking_question(dns_query *q, unsigned place) {
  if (!is_present(q, place) || q->attempt.plain || !said_opt(q, place)) return;
  q->attempt.plain = true;
  ask_otherwise(q);
}

void note_plain_answer(const dns_query *q, unsigned place) {
  if (q->attempt.plain && place == q->attempt.server) servers_of(q)[place]->plain_until_us = q->ctx->now_us + kNoEdnsUs;
}

}  // namespace dns
