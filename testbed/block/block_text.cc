#include "block_text.h"

#include <check.h>
#include <kavo_rr.h>

#include <cstdint>
#include <cstring>

namespace testbed {
namespace {

class BlockText {
 public:
  BlockText(KAVO_TYPE type, const KAVO_RR &rr) : rr_(rr) {
    check(rr.rr_mem->dnsm_written <= rr.rr_mem->dnsm_size, "a block's used bytes lie within it");
    const kavo_rr_layout layout = kavo_rr_layout_of(type);
    if (layout == kavo_rr_layout::pkt) {
      packet();
      return;
    }
    name(rr.rr_null->dnsn_cname);
    name(rr.rr_null->dnsn_qname);
    check(rr.rr_null->dnsn_nrr >= 0, "a count is not negative");
    entries(layout);
  }
  [[nodiscard]] const std::string &text() const { return text_; }

 private:
  void inside(const void *place, size_t size) {
    const auto at = reinterpret_cast<uintptr_t>(place) - reinterpret_cast<uintptr_t>(rr_.rr_mem);
    check(at <= rr_.rr_mem->dnsm_written && size <= rr_.rr_mem->dnsm_written - at, "a block points into itself");
  }
  void raw(const void *place, size_t size) {
    if (size == 0) return;
    inside(place, size);
    text_.append(static_cast<const char *>(place), size);
    text_ += '|';
  }
  void name(const char *place) {
    if (place != nullptr) raw(place, strlen(place) + 1);
  }
  void packet() {
    check(rr_.rr_pkt->dnspkt_written >= sizeof(dns_rr_pkt), "a packet's block has a head");
    raw(rr_.rr_pkt->dnspkt_pkt, rr_.rr_pkt->dnspkt_psize);
  }
  template <typename Entry, typename Show>
  void each(const Entry *entry, Show show) {
    for (int32_t i = 0; i < rr_.rr_null->dnsn_nrr; ++i)
      show(entry[i]);
  }
  void entries(kavo_rr_layout layout) {
    const auto names = [this](const char *entry) { name(entry); };
    const auto texts = [&](const dns_txt &entry) {
      check(entry.len >= 0, "a length is not negative");
      raw(entry.txt, static_cast<size_t>(entry.len));
      if (layout == kavo_rr_layout::txt && entry.txt != nullptr) {
        inside(entry.txt + entry.len, 1);
        check(entry.txt[entry.len] == '\0', "a text is terminated");
      }
      text_ += ';';
    };
    const auto mx = [this](const dns_mx &entry) {
      text_ += std::to_string(entry.priority) + " ";
      name(entry.name);
    };
    const auto srv = [this](const dns_srv &entry) {
      text_ += std::to_string(entry.priority) + " " + std::to_string(entry.weight) + " " + std::to_string(entry.port);
      name(entry.name);
    };
    switch (layout) {
      case kavo_rr_layout::a4:
        return each(rr_.rr_a->dnsa4_addr, [this](const in_addr &entry) { raw(&entry, sizeof entry); });
      case kavo_rr_layout::a6:
        return each(rr_.rr_a6->dnsa6_addr, [this](const in6_addr &entry) { raw(&entry, sizeof entry); });
      case kavo_rr_layout::txt:
      case kavo_rr_layout::etxt:
        return each(rr_.rr_txt->dnstxt_txt, texts);
      case kavo_rr_layout::mx:
        return each(rr_.rr_mx->dnsmx_mx, mx);
      case kavo_rr_layout::srv:
        return each(rr_.rr_srv->dnssrv_srv, srv);
      case kavo_rr_layout::ptr:
      case kavo_rr_layout::cname:
      case kavo_rr_layout::ns:
        return each(rr_.rr_ptr->dnsptr_ptr, names);
      case kavo_rr_layout::pkt:
      case kavo_rr_layout::none:
        return;
    }
  }

  const KAVO_RR rr_;
  std::string text_;
};

}  // namespace

std::string text_of(KAVO_TYPE type, const KAVO_RR &rr) {
  return BlockText(type, rr).text();
}

void expect_copies(KAVO_TYPE type, const KAVO_RR &rr) {
  const std::string text = text_of(type, rr);
  if (rr.rr_mem->dnsm_size > KAVO_RR_SIZE_MAX) return;
  KAVO_RR copy = {};
  check(kavo_rr_dup(type, &rr, &copy) == KAVOE_OK, "a block can be copied");
  check(text_of(type, copy) == text, "a copy holds what its block holds");
  kavo_rr_free(&copy);
}

}  // namespace testbed
