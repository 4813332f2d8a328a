// result.cc - see result.h, and the record parsers: the wire layer's blocks, laid out in the caller's buffer or in the
// memory that the context keeps for the result of the last parse.
#include "result.h"

#include <stdint.h>
#include <stdlib.h>

#include <algorithm>

#include <block.h>

#include "context.h"

namespace dns {
namespace {

constexpr size_t kResultMin = 4096;  // the context's first result memory; it grows to the largest block that was needed

bool result_reserve(dns_ctx *ctx, size_t size) {
  if (size <= ctx->result_size) return true;
  free(ctx->result);
  ctx->result_size = 0;
  ctx->result = static_cast<uint8_t *>(malloc(size));
  if (ctx->result == nullptr) return false;
  ctx->result_size = size;
  return true;
}

int parse(Block kind, dns_ctx *ctx, const uint8_t *dn, const uint8_t *packet, const uint8_t *at, const uint8_t *end,
          void **result, unsigned size) {
  if (dn == nullptr || packet == nullptr || at < packet || end < at || result == nullptr) return DNS_E_INVAL;
  const std::span<const uint8_t> bytes(packet, end);
  const size_t answers_at = static_cast<size_t>(at - packet);
  if (size > 0) {
    if (*result == nullptr) return DNS_E_INVAL;
    const unsigned cnames_max = ctx != nullptr ? ctx->options.maxalias : kCnamesMax;
    return lay_block(kind, bytes, answers_at, dn, {static_cast<uint8_t *>(*result), size}, nullptr, cnames_max);
  }
  if (ctx == nullptr) return DNS_E_INVAL;
  if (!result_reserve(ctx, kResultMin)) return DNS_E_NOMEM;
  size_t needed = 0;
  int written = lay_block(kind, bytes, answers_at, dn, {ctx->result, ctx->result_size}, &needed, ctx->options.maxalias);
  if (written == DNS_E_NOBUFS) {
    if (!result_reserve(ctx, needed)) return DNS_E_NOMEM;
    written = lay_block(kind, bytes, answers_at, dn, {ctx->result, ctx->result_size}, &needed, ctx->options.maxalias);
  }
  if (written >= 0) *result = ctx->result;
  return written;
}

// parsed runs the query's parser.
int parsed(dns_query *q, std::span<const uint8_t> packet, size_t answers_at, void **result) {
  const Question &question = q->question;
  if (question.parse == nullptr) return 0;
  const uint8_t *start = packet.data();
  const int size = question.parse(q->ctx, q, question.dn, start, start + answers_at, start + packet.size(), result, 0);
  if (size < 0 || question.parse == dns_parse_pkt || *result == nullptr) return size;
  auto *head = static_cast<dns_rr_null *>(*result);
  head->dnsn_ttl = std::max(head->dnsn_ttl, static_cast<int32_t>(q->ctx->options.minttl));
  return size;
}

}  // namespace

int result_of(dns_query *q, dns_status status, std::span<const uint8_t> packet, size_t answers_at, void **result) {
  *result = nullptr;
  if (is_negative(status) && q->question.parse != dns_parse_pkt) return 0;
  return status == DNS_E_CNLOOP ? 0 : parsed(q, packet, answers_at, result);
}

}  // namespace dns

// Each parser is the same operation over another kind of block.
#define DNS_PARSER(name, kind)                                                                                      \
  int name(dns_ctx *ctx, dns_query *, const unsigned char *qdn, const unsigned char *pkt, const unsigned char *cur, \
           const unsigned char *end, void **result, unsigned size) {                                                \
    return dns::parse(dns::Block::kind, ctx, qdn, pkt, cur, end, result, size);                                     \
  }

extern "C" {
DNS_PARSER(dns_parse_a4, a4)
DNS_PARSER(dns_parse_a6, a6)
DNS_PARSER(dns_parse_txt, txt)
DNS_PARSER(dns_parse_etxt, etxt)
DNS_PARSER(dns_parse_mx, mx)
DNS_PARSER(dns_parse_ptr, ptr)
DNS_PARSER(dns_parse_cname, cname)
DNS_PARSER(dns_parse_ns, ns)
DNS_PARSER(dns_parse_srv, srv)
DNS_PARSER(dns_parse_pkt, pkt)
}
