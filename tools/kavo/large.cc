#include "large.h"

#include <algorithm>
#include <array>
#include <cctype>

#include "fault.h"

namespace tool {
namespace {

constexpr size_t kQuestionTail = 4;        // type and class
constexpr size_t kBlockMin = 64UL << 10U;  // bytes of the first attempt
constexpr size_t kBlockMax = 16UL << 20U;  // a packet of short records with long names takes a quarter of it
constexpr size_t kRcodeAt = 3;             // the fourth byte of a header; its low four bits
constexpr unsigned kRcodeMask = 0xf;
constexpr size_t kAnswerCountAt = 6;

// A name as a key. The library sends names in random letter case.
std::string key_of(const unsigned char *dn, size_t size) {
  std::string key(reinterpret_cast<const char *>(dn), size);
  std::transform(key.begin(), key.end(), key.begin(),
                 [](unsigned char byte) { return static_cast<char>(std::tolower(byte)); });
  return key;
}

std::string key_of(const unsigned char *dn) {
  return key_of(dn, kavo_dns_dnlen(dn));
}

KAVO_ERR outcome_of(const std::vector<unsigned char> &packet) {
  if ((packet[kRcodeAt] & kRcodeMask) == DNS_R_NXDOMAIN) return KAVOE_NXDOM;
  return packet[kAnswerCountAt] == 0 && packet[kAnswerCountAt + 1] == 0 ? KAVOE_NODATA : KAVOE_OK;
}

// Has the library's parser lay the answer out. Null for a packet that cannot be read.
void *parse(dns_parse_fn *parser, const unsigned char *dn, const std::vector<unsigned char> &packet, Block *block) {
  const unsigned char *begin = packet.data(), *end = begin + packet.size();
  const unsigned char *answers = begin + DNS_HSIZE + kavo_dns_dnlen(dn) + kQuestionTail;
  for (size_t size = kBlockMin; size <= kBlockMax; size *= 2) {
    block->assign(size / sizeof(uint64_t), 0);
    void *result = block->data();
    const int got = parser(nullptr, nullptr, dn, begin, answers, end, &result, static_cast<unsigned>(size));
    if (got >= 0) return result;
    if (got != DNS_E_NOBUFS) return nullptr;
  }
  return nullptr;
}

}  // namespace

void LargeAnswers::observe(KAVO kavo, bool trace) {
  trace_ = trace;
  must(kavo_set_trace(kavo, note, this), "cannot set the trace");
}

void LargeAnswers::note(dns_ctx *ctx, dns_query *query, int code, void *data, void *self) {
  auto *answers = static_cast<LargeAnswers *>(self);
  if (answers->trace_) kavo_dbgcb(ctx, query, code, data, nullptr);
  if (code == DNS_D_PKT_RPAN && data != nullptr) answers->keep(*static_cast<const dns_dpkt *>(data));
}

void LargeAnswers::keep(const dns_dpkt &event) {
  // The packet is an answer: its question section holds the name that was sent, uncompressed.
  std::array<unsigned char, DNS_MAXDN> dn{};
  if (event.dnsd_plen < DNS_HSIZE + kQuestionTail + 1) return;
  const unsigned char *name = event.dnsd_pkt + DNS_HSIZE;
  const size_t room = std::min<size_t>(event.dnsd_plen - DNS_HSIZE - kQuestionTail, dn.size());
  std::copy_n(name, room, dn.begin());
  const unsigned size = kavo_dns_dnlen(dn.data());
  if (size == 0 || size > room) return;
  const std::lock_guard guard(mutex_);
  const auto place = kept_.find(key_of(dn.data(), size));
  if (place != kept_.end()) place->second.packet.assign(event.dnsd_pkt, event.dnsd_pkt + event.dnsd_plen);
}

void LargeAnswers::expect(const unsigned char *dn) {
  const std::lock_guard guard(mutex_);
  ++kept_[key_of(dn)].waiting;
}

bool LargeAnswers::take(const unsigned char *dn, KAVO_TYPE type, unsigned flags, Block *block, KAVO_ANSWER *answer) {
  std::vector<unsigned char> packet;
  {
    const std::lock_guard guard(mutex_);
    const auto place = kept_.find(key_of(dn));
    if (place == kept_.end()) return false;
    packet = place->second.packet;
    if (--place->second.waiting == 0) kept_.erase(place);
  }
  dns_parse_fn *parser = kavo_get_parser(type, flags);
  if (answer->err_code != KAVOE_NOMEM || packet.empty() || parser == nullptr) return false;
  answer->rr.rr_mem = static_cast<dns_rr_mem *>(parse(parser, dn, packet, block));
  if (answer->rr.rr_mem == nullptr) return false;
  answer->err_code = outcome_of(packet);
  answer->actual_size = kavo_rr_get_size(&answer->rr);
  return true;
}

}  // namespace tool
