// records.cc - a packet of a host's own: every record parser, every printer, the walk over its records, and what comes
// of a record that is put into another packet or into a cache entry.
#include <block.h>
#include <dns_wire.h>
#include <message.h>

#include <array>

#include "fuzz.h"

namespace {

using fuzz::check;
using fuzz::Exact;

using Entry = std::unique_ptr<dns_cdata, decltype(&dns_cdata_free)>;

void print_trace(const Exact &packet) {
  sockaddr_in server{};
  server.sin_family = AF_INET;
  dns_dpkt event = {packet.begin(), static_cast<unsigned>(packet.span().size()),
                    nullptr,        reinterpret_cast<const sockaddr *>(&server),
                    IPPROTO_UDP,    1};
  FILE *const out = stdout, *const err = stderr;
  const std::string text = fuzz::written([&](FILE *stream) {
    stdout = stderr = stream;
    for (const int code : {DNS_D_PKT_REQ, DNS_D_PKT_RPAN, DNS_D_PKT_RPINV})
      kavo_dbgcb(nullptr, reinterpret_cast<dns_query *>(&event), code, &event, nullptr);
    stdout = out;
    stderr = err;
  });
  fuzz::expect_printable(text);
}

void parse_block(KAVO_TYPE type, dns::Block kind, const Exact &packet, size_t answers_at, const uint8_t *dn) {
  dns_parse_fn *parse = type == KAVOT_PKT ? kavo_get_parser(KAVOT_DNS_A, KAVOQF_PKT) : kavo_get_parser(type, 0);
  size_t needed = 0;
  const int status = dns::lay_block(kind, packet.span(), answers_at, dn, {}, &needed);
  if (status != DNS_E_NOBUFS) return check(status < 0, "no block fits no room");
  const auto make = [&](size_t size, void *block) {
    const uint8_t *at = packet.begin() + answers_at;
    return parse(nullptr, nullptr, dn, packet.begin(), at, packet.end(), &block, static_cast<unsigned>(size));
  };
  const std::unique_ptr<void, decltype(&free)> block(malloc(needed), free), small(malloc(needed - 1), free);
  check(make(needed - 1, small.get()) == DNS_E_NOBUFS, "no block fits less than it needs");
  check(make(needed, block.get()) == static_cast<int>(needed), "a block fits what it needs");
  const KAVO_RR rr = {static_cast<dns_rr_mem *>(block.get())};
  check(rr.rr_mem->dnsm_size == needed && rr.rr_mem->dnsm_written == needed, "a block says its size");
  fuzz::expect_copies(type, rr);
}

std::string section_text(const uint8_t *packet, const uint8_t *end, int section) {
  const dns_parse parse = {packet, end, packet, DNS_S_QD, 0};
  std::string text = fuzz::written([&](FILE *stream) { (void)dns_printsection(stream, 1, &parse, section); });
  std::transform(text.begin(), text.end(), text.begin(), [](char c) { return static_cast<char>(tolower(c)); });
  return text;
}

// Copied is a packet to which every record of a section goes over, one by one, and a cache entry that gets them too.
class Copied {
 public:
  Copied(const Exact &packet, const dns_parse &parse, const uint8_t *dn, int section)
      : packet_(packet), parse_(parse), section_(section) {
    check(dns_initpacket(&out_, buffer_.data(), buffer_.size(), dn, DNS_T_A, DNS_C_IN) > 0, "a packet begins");
    check(dns_end_section(&out_, section) == 0, "a section opens");
    check(dns_cdata_setdn(entry_.get(), dn) == 0, "an entry has a name");
  }
  void run() {
    if (dns_rewind_sec(&parse_, section_) != 0) return;
    dns_rr rr;
    int more = 0;
    while ((more = dns_nextrr(&parse_, &rr)) == 1)
      copy(rr);
    check(dns_end_section(&out_, DNS_S_ALL) == 0, "a packet ends");
    if (more == 0 && whole_) {
      check(section_text(out_.dnspk_start, out_.dnspk_end, section_) ==
                section_text(packet_.begin(), packet_.end(), section_),
            "copied, records say the same");
    }
    read_back();
  }

 private:
  void copy(const dns_rr &rr) {
    const bool plain_ttl = rr.dnsrr_dptr[-6] < 0x80;  // a larger one is invalid, and read as 0
    const bool added = dns_addrr(&out_, &parse_, &rr) == 0;
    whole_ = whole_ && added && plain_ttl;
    const int kept = dns_cdata_addrr(entry_.get(), &rr, &parse_);
    check(!added || kept == 0 || kept == DNS_E_NOMEM, "what a packet takes an entry takes");
  }
  // read_back walks the entry: what it gives are records without compression, which print and go into another entry.
  void read_back() {
    const Entry second(dns_cdata_init(0), dns_cdata_free);
    std::array<uint8_t, DNS_MAXPACKET> data;
    dns_rr rr = {};
    const auto next = [&rr](const Entry &entry, uint8_t *to) {
      rr.dnsrr_dptr = to;
      rr.dnsrr_dsz = DNS_MAXPACKET;
      return dns_cdata_nextrr(entry.get(), &rr) == 1;
    };
    std::string first_text, second_text;
    const auto print = [&rr](FILE *stream) { check(dns_printrr(stream, 1, &rr) == 0, "a kept record prints"); };
    while (next(entry_, data.data())) {
      first_text += fuzz::written(print);
      check(dns_cdata_addrr(second.get(), &rr, nullptr) == 0, "what an entry gave it takes");
    }
    while (next(second, data.data()))
      second_text += fuzz::written(print);
    fuzz::expect_printable(first_text);
    check(first_text == second_text && dns_cdata_nrr(second.get()) == dns_cdata_nrr(entry_.get()),
          "kept twice, the same");
  }

  const Exact &packet_;
  dns_parse parse_;
  int section_;
  std::array<uint8_t, DNS_MAXPACKET> buffer_;
  dns_pkt out_{};
  Entry entry_{dns_cdata_init(64), dns_cdata_free};
  bool whole_ = true;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const Exact packet({data, size});
  print_trace(packet);
  dns_parse parse;
  uint8_t dn[DNS_MAXDN];
  if (dns_initparse(&parse, packet.begin(), packet.end(), dn) != 0 || dns_dnlen(dn) == 0) return 0;
  size_t at = 0;
  check(dns::section_at(packet.span(), DNS_S_AN, &at), "the question section that was read can be skipped");
  for (size_t i = 0; i < std::size(fuzz::kBlockTypes); ++i)
    parse_block(fuzz::kBlockTypes[i], static_cast<dns::Block>(i), packet, at, dn);
  for (const int section : {DNS_S_AN, DNS_S_NS, DNS_S_AR})
    Copied(packet, parse, dn, section).run();
  return 0;
}
