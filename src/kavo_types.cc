// kavo_types.cc - the table of question types, and the public functions that read it.
//
// The rows are found by number: a DNS type through an index, a list type by its distance from the first. Constant, any
// thread.
#include "kavo_types.h"

#include <array>

#include <pelk_log.h>

namespace {

constexpr char kSource[] = "kavo_dns";

using Layout = kavo_rr_layout;
constexpr kavo_subject kName = kavo_subject::name;
constexpr kavo_subject kAddress = kavo_subject::address;

constexpr kavo_type_info named(KAVO_TYPE type, const char *name) {
  return {.type = type, .name = name};
}

constexpr kavo_type_info parsed(KAVO_TYPE type, const char *name, dns_parse_fn *parser, Layout layout,
                                kavo_subject subject = kName) {
  return {.type = type, .name = name, .parser = parser, .layout = layout, .subject = subject};
}

// The rows: the empty one, the DNS types in the order of their numbers, the list types, the rest.
// clang-format off
constexpr std::array kRows = std::to_array<kavo_type_info>({
    {},
    parsed(KAVOT_DNS_A, "DNS_A", dns_parse_a4, Layout::a4),
    parsed(KAVOT_DNS_NS, "DNS_NS", dns_parse_ns, Layout::ns),
    named(KAVOT_DNS_MD, "DNS_MD"), named(KAVOT_DNS_MF, "DNS_MF"),
    parsed(KAVOT_DNS_CNAME, "DNS_CNAME", dns_parse_cname, Layout::cname),
    named(KAVOT_DNS_SOA, "DNS_SOA"), named(KAVOT_DNS_MB, "DNS_MB"), named(KAVOT_DNS_MG, "DNS_MG"),
    named(KAVOT_DNS_MR, "DNS_MR"), named(KAVOT_DNS_NULL, "DNS_NULL"), named(KAVOT_DNS_WKS, "DNS_WKS"),
    parsed(KAVOT_DNS_PTR, "DNS_PTR", dns_parse_ptr, Layout::ptr, kAddress),
    named(KAVOT_DNS_HINFO, "DNS_HINFO"), named(KAVOT_DNS_MINFO, "DNS_MINFO"),
    parsed(KAVOT_DNS_MX, "DNS_MX", dns_parse_mx, Layout::mx),
    parsed(KAVOT_DNS_TXT, "DNS_TXT", dns_parse_txt, Layout::txt),
    named(KAVOT_DNS_RP, "DNS_RP"), named(KAVOT_DNS_AFSDB, "DNS_AFSDB"), named(KAVOT_DNS_X25, "DNS_X25"),
    named(KAVOT_DNS_ISDN, "DNS_ISDN"), named(KAVOT_DNS_RT, "DNS_RT"), named(KAVOT_DNS_NSAP, "DNS_NSAP"),
    named(KAVOT_DNS_NSAP_PTR, "DNS_NSAP_PTR"), named(KAVOT_DNS_SIG, "DNS_SIG"), named(KAVOT_DNS_KEY, "DNS_KEY"),
    named(KAVOT_DNS_PX, "DNS_PX"), named(KAVOT_DNS_GPOS, "DNS_GPOS"),
    parsed(KAVOT_DNS_AAAA, "DNS_AAAA", dns_parse_a6, Layout::a6),
    named(KAVOT_DNS_LOC, "DNS_LOC"), named(KAVOT_DNS_NXT, "DNS_NXT"), named(KAVOT_DNS_EID, "DNS_EID"),
    named(KAVOT_DNS_NIMLOC, "DNS_NIMLOC"),
    parsed(KAVOT_DNS_SRV, "DNS_SRV", dns_parse_srv, Layout::srv),
    named(KAVOT_DNS_ATMA, "DNS_ATMA"), named(KAVOT_DNS_NAPTR, "DNS_NAPTR"), named(KAVOT_DNS_KX, "DNS_KX"),
    named(KAVOT_DNS_CERT, "DNS_CERT"), named(KAVOT_DNS_A6, "DNS_A6"), named(KAVOT_DNS_DNAME, "DNS_DNAME"),
    named(KAVOT_DNS_SINK, "DNS_SINK"), named(KAVOT_DNS_OPT, "DNS_OPT"), named(KAVOT_DNS_APL, "DNS_APL"),
    named(KAVOT_DNS_DS, "DNS_DS"), named(KAVOT_DNS_SSHFP, "DNS_SSHFP"), named(KAVOT_DNS_IPSECKEY, "DNS_IPSECKEY"),
    named(KAVOT_DNS_RRSIG, "DNS_RRSIG"), named(KAVOT_DNS_NSEC, "DNS_NSEC"), named(KAVOT_DNS_DNSKEY, "DNS_DNSKEY"),
    named(KAVOT_DNS_DHCID, "DNS_DHCID"), named(KAVOT_DNS_NSEC3, "DNS_NSEC3"),
    named(KAVOT_DNS_NSEC3PARAM, "DNS_NSEC3PARAM"), named(KAVOT_DNS_HIP, "DNS_HIP"),
    named(KAVOT_DNS_NINFO, "DNS_NINFO"), named(KAVOT_DNS_RKEY, "DNS_RKEY"), named(KAVOT_DNS_TALINK, "DNS_TALINK"),
    named(KAVOT_DNS_SPF, "DNS_SPF"), named(KAVOT_DNS_UINFO, "DNS_UINFO"), named(KAVOT_DNS_UID, "DNS_UID"),
    named(KAVOT_DNS_GID, "DNS_GID"), named(KAVOT_DNS_UNSPEC, "DNS_UNSPEC"), named(KAVOT_DNS_TKEY, "DNS_TKEY"),
    named(KAVOT_DNS_TSIG, "DNS_TSIG"), named(KAVOT_DNS_IXFR, "DNS_IXFR"), named(KAVOT_DNS_AXFR, "DNS_AXFR"),
    named(KAVOT_DNS_MAILB, "DNS_MAILB"), named(KAVOT_DNS_MAILA, "DNS_MAILA"), named(KAVOT_DNS_ANY, "DNS_ANY"),
    named(KAVOT_DNS_URI, "DNS_URI"),

    {KAVOT_BL_IP, "BL_IP", "IP", DNS_T_A, dns_parse_a4, Layout::a4, kAddress},
    {KAVOT_BL_DOM, "BL_DOM", "DOMAIN", DNS_T_A, dns_parse_a4, Layout::a4, kName},
    {KAVOT_BL_IP_TXT, "BL_IP_TXT", "IP_TXT", DNS_T_TXT, dns_parse_txt, Layout::txt, kAddress},
    {KAVOT_BL_DOM_TXT, "BL_DOM_TXT", "DOMAIN_TXT", DNS_T_TXT, dns_parse_txt, Layout::txt, kName},
    {KAVOT_BL_A6, "BL_A6", "A6", DNS_T_AAAA, dns_parse_a6, Layout::a6, kName},
    {KAVOT_BL_MX, "BL_MX", "MX", DNS_T_MX, dns_parse_mx, Layout::mx, kName},
    {KAVOT_BL_SRV, "BL_SRV", "SRV", DNS_T_SRV, dns_parse_srv, Layout::srv, kName},
    {KAVOT_BL_CNAME, "BL_CNAME", "CNAME", DNS_T_CNAME, dns_parse_cname, Layout::cname, kName},
    {KAVOT_BL_NS, "BL_NS", "NS", DNS_T_NS, dns_parse_ns, Layout::ns, kName},

    {KAVOT_DNS_ETXT, "DNS_ETXT", nullptr, DNS_T_TXT, dns_parse_etxt, Layout::etxt, kName},
    {.type = KAVOT_PKT, .layout = Layout::pkt},
    named(KAVOT_DNS_TA, "DNS_TA"), named(KAVOT_DNS_DLV, "DNS_DLV"),
});
// clang-format on

constexpr size_t kListTypes = KAVOT_BL_MAX - KAVOT_BL_MIN + 1;

// The place of the first list type's row.
constexpr size_t kFirstList = [] {
  size_t place = 0;
  while (kRows[place].type != KAVOT_BL_MIN)
    ++place;
  return place;
}();

// The places of the DNS types' rows by number, up to the last one before the list types; 0 for none.
constexpr auto kDnsPlaces = [] {
  std::array<uint8_t, kRows[kFirstList - 1].type + 1> places{};
  for (size_t place = 1; place < kFirstList; ++place)
    places[kRows[place].type] = static_cast<uint8_t>(place);
  return places;
}();

constexpr bool lists_in_order() {
  for (size_t i = 0; i < kListTypes; ++i)
    if (kRows[kFirstList + i].type != KAVOT_BL_MIN + i || kRows[kFirstList + i].keyword == nullptr) return false;
  return true;
}
static_assert(kRows.size() <= UINT8_MAX && lists_in_order());

}  // namespace

const kavo_type_info &kavo_type_find(KAVO_TYPE type) {
  if (type < kDnsPlaces.size()) return kRows[kDnsPlaces[type]];
  if (kavo_type_is_list(type)) return kRows[kFirstList + (type - KAVOT_BL_MIN)];
  for (size_t place = kFirstList + kListTypes; place < kRows.size(); ++place)
    if (kRows[place].type == type) return kRows[place];
  return kRows[0];
}

std::span<const kavo_type_info> kavo_type_rows() {
  return std::span(kRows).subspan(1);
}

extern "C" {

dns_type kavo_convert_type(KAVO_TYPE type) {
  if (type >= KAVOT_DNS_MIN && type <= KAVOT_DNS_MAX) return static_cast<dns_type>(type);
  const dns_type asked = kavo_type_find(type).asked;
  if (asked == DNS_T_INVALID) PELK_WARN(kSource, __func__, "Invalid type of query passed to submission function");
  return asked;
}

KAVO_TYPE kavo_convert_type_r(dns_type type) {
  return static_cast<KAVO_TYPE>(type);
}

dns_parse_fn *kavo_get_parser(KAVO_TYPE type, unsigned flags) {
  return (flags & KAVOQF_PKT) != 0 ? dns_parse_pkt : kavo_type_find(type).parser;
}

}  // extern "C"
