// kavo_info.cc - the vocabulary of the library: texts of codes, names of types, version; and what a host asks of or
// hands to the engine. Constant tables, any thread; what changes the engine does so while the context is at rest.
#include <stdint.h>

#include <array>

#include "kavo_query_table.h"

namespace {

constexpr char kSource[] = "kavo";

constexpr uint32_t kVersion = 0x04030100;
constexpr uint32_t kRevision = 18239;

constexpr std::array<const char *, KAVOE_NOPARSER + 1> kErrorTexts = {
    "KAVO call is finished with success",
    "KAVO failed with unspecified reason",
    "KAVO failed because can't allocate enough memory",
    "KAVO failed because of error while work with file",
    "KAVO failed because of multi-threading error",
    "KAVO failed because of DNS library error",
    "KAVO failed because of incorrect parameter value",
    "KAVO action timed out",
    "KAVO failed because of server thread error",
    "KAVO NXDOMAIN answer for this query",
    "KAVO no zones defined for specified query type",
    "KAVO no data in specified location",
    "KAVO failed because there are no parser for such query type",
};

struct kavo_nameval {
  KAVO_TYPE type;
  const char *name;
};

// clang-format off
constexpr kavo_nameval kavo_typetab[] = {
    {KAVOT_DNS_A, "DNS_A"}, {KAVOT_DNS_NS, "DNS_NS"}, {KAVOT_DNS_MD, "DNS_MD"}, {KAVOT_DNS_MF, "DNS_MF"},
    {KAVOT_DNS_CNAME, "DNS_CNAME"}, {KAVOT_DNS_SOA, "DNS_SOA"}, {KAVOT_DNS_MB, "DNS_MB"}, {KAVOT_DNS_MG, "DNS_MG"},
    {KAVOT_DNS_MR, "DNS_MR"}, {KAVOT_DNS_NULL, "DNS_NULL"}, {KAVOT_DNS_WKS, "DNS_WKS"}, {KAVOT_DNS_PTR, "DNS_PTR"},
    {KAVOT_DNS_HINFO, "DNS_HINFO"}, {KAVOT_DNS_MINFO, "DNS_MINFO"}, {KAVOT_DNS_MX, "DNS_MX"},
    {KAVOT_DNS_TXT, "DNS_TXT"}, {KAVOT_DNS_RP, "DNS_RP"}, {KAVOT_DNS_AFSDB, "DNS_AFSDB"}, {KAVOT_DNS_X25, "DNS_X25"},
    {KAVOT_DNS_ISDN, "DNS_ISDN"}, {KAVOT_DNS_RT, "DNS_RT"}, {KAVOT_DNS_NSAP, "DNS_NSAP"},
    {KAVOT_DNS_NSAP_PTR, "DNS_NSAP_PTR"}, {KAVOT_DNS_SIG, "DNS_SIG"}, {KAVOT_DNS_KEY, "DNS_KEY"},
    {KAVOT_DNS_PX, "DNS_PX"}, {KAVOT_DNS_GPOS, "DNS_GPOS"}, {KAVOT_DNS_AAAA, "DNS_AAAA"}, {KAVOT_DNS_LOC, "DNS_LOC"},
    {KAVOT_DNS_NXT, "DNS_NXT"}, {KAVOT_DNS_EID, "DNS_EID"}, {KAVOT_DNS_NIMLOC, "DNS_NIMLOC"},
    {KAVOT_DNS_SRV, "DNS_SRV"}, {KAVOT_DNS_ATMA, "DNS_ATMA"}, {KAVOT_DNS_NAPTR, "DNS_NAPTR"},
    {KAVOT_DNS_KX, "DNS_KX"}, {KAVOT_DNS_CERT, "DNS_CERT"}, {KAVOT_DNS_A6, "DNS_A6"}, {KAVOT_DNS_DNAME, "DNS_DNAME"},
    {KAVOT_DNS_SINK, "DNS_SINK"}, {KAVOT_DNS_OPT, "DNS_OPT"}, {KAVOT_DNS_APL, "DNS_APL"}, {KAVOT_DNS_DS, "DNS_DS"},
    {KAVOT_DNS_SSHFP, "DNS_SSHFP"}, {KAVOT_DNS_IPSECKEY, "DNS_IPSECKEY"}, {KAVOT_DNS_RRSIG, "DNS_RRSIG"},
    {KAVOT_DNS_NSEC, "DNS_NSEC"}, {KAVOT_DNS_DNSKEY, "DNS_DNSKEY"}, {KAVOT_DNS_DHCID, "DNS_DHCID"},
    {KAVOT_DNS_NSEC3, "DNS_NSEC3"}, {KAVOT_DNS_NSEC3PARAM, "DNS_NSEC3PARAM"}, {KAVOT_DNS_HIP, "DNS_HIP"},
    {KAVOT_DNS_NINFO, "DNS_NINFO"}, {KAVOT_DNS_RKEY, "DNS_RKEY"}, {KAVOT_DNS_TALINK, "DNS_TALINK"},
    {KAVOT_DNS_SPF, "DNS_SPF"}, {KAVOT_DNS_UINFO, "DNS_UINFO"}, {KAVOT_DNS_UID, "DNS_UID"},
    {KAVOT_DNS_GID, "DNS_GID"}, {KAVOT_DNS_UNSPEC, "DNS_UNSPEC"}, {KAVOT_DNS_TKEY, "DNS_TKEY"},
    {KAVOT_DNS_TSIG, "DNS_TSIG"}, {KAVOT_DNS_IXFR, "DNS_IXFR"}, {KAVOT_DNS_AXFR, "DNS_AXFR"},
    {KAVOT_DNS_MAILB, "DNS_MAILB"}, {KAVOT_DNS_MAILA, "DNS_MAILA"}, {KAVOT_DNS_ANY, "DNS_ANY"},
    {KAVOT_DNS_URI, "DNS_URI"}, {KAVOT_DNS_TA, "DNS_TA"}, {KAVOT_DNS_DLV, "DNS_DLV"}, {KAVOT_BL_IP, "BL_IP"},
    {KAVOT_BL_DOM, "BL_DOM"}, {KAVOT_BL_IP_TXT, "BL_IP_TXT"}, {KAVOT_BL_DOM_TXT, "BL_DOM_TXT"},
    {KAVOT_BL_A6, "BL_A6"}, {KAVOT_BL_MX, "BL_MX"}, {KAVOT_BL_SRV, "BL_SRV"}, {KAVOT_BL_CNAME, "BL_CNAME"},
    {KAVOT_BL_NS, "BL_NS"}, {KAVOT_DNS_ETXT, "DNS_ETXT"},
    {KAVOT_INVALID, nullptr},
};
// clang-format on

char folded(char letter) {
  return letter >= 'a' && letter <= 'z' ? static_cast<char>(letter - 'a' + 'A') : letter;
}

// names_equal compares a name, its letters taken as upper case, with one of the table.
bool names_equal(const char *name, const char *upper) {
  while (*name != '\0' && folded(*name) == *upper) {
    name++;
    upper++;
  }
  return *name == '\0' && *upper == '\0';
}

// check_at_rest refuses a context that is not at rest, and so cannot be given `what`.
KAVO_ERR check_at_rest(KAVO kavo, const char *function, const char *message, int line = __builtin_LINE()) {
  return kavo_check_at_rest(kavo, kSource, function, message, line);
}

// own_cache returns the context's own cache that a cacher belongs to, or null.
struct dns_cache *own_cache(KAVO kavo, KAVO_CACHE cacher) {
  for (struct dns_cache *cache : {kavo->cache, kavo->rcache})
    if (cache != nullptr && dns_cache_cacher(cache) == cacher) return cache;
  return nullptr;
}

// keep_own_caches notes which of the context's own caches serve answers and referrals from now on, and destroys those
// that serve neither.
void keep_own_caches(KAVO kavo, struct dns_cache *answers, struct dns_cache *referrals) {
  struct dns_cache *before[] = {kavo->cache, kavo->rcache != kavo->cache ? kavo->rcache : nullptr};
  kavo->cache = answers;
  kavo->rcache = referrals;
  for (struct dns_cache *cache : before)
    if (cache != nullptr && cache != answers && cache != referrals) dns_cache_destroy(cache);
}

}  // namespace

void kavo_set_log_cb(kavo_log_fn *fn, void *uctx) {
  pelk_set_log_sink(fn, uctx);
}

const char *kavo_strerror(KAVO_ERR errnum) {
  return errnum < kErrorTexts.size() ? kErrorTexts[errnum] : nullptr;
}

const char *kavo_typename(KAVO_TYPE type) {
  for (const kavo_nameval *row = kavo_typetab; row->name != nullptr; row++)
    if (row->type == type) return row->name;
  return nullptr;
}

KAVO_TYPE kavo_name2type(const char *name) {
  if (name == nullptr) return KAVOT_INVALID;
  for (const kavo_nameval *row = kavo_typetab; row->name != nullptr; row++)
    if (names_equal(name, row->name)) return row->type;
  return KAVOT_INVALID;
}

int kavo_isparseable(KAVO_TYPE type) {
  const bool special = type >= KAVOT_SP_MIN && type <= KAVOT_SP_MAX;
  const bool ordinary = type >= KAVOT_DNS_MIN && type <= KAVOT_BL_MAX;
  return (special || ordinary) && kavo_get_parser(type, 0) != nullptr ? 1 : 0;
}

uint32_t kavo_version(void) {
  return kVersion;
}

uint32_t kavo_rev(void) {
  return kRevision;
}

uint32_t kavo_nactive(KAVO kavo) {
  if (kavo == nullptr) return KAVOE_BADPAR;
  kavo_table_guard guard(kavo);
  if (guard.error != KAVOE_OK) return kavo_table_no_lock(kSource, __func__, guard.error, KAVOE_SRV, KAVO_NO_TABLE_LOCK);
  return kavo->table_size - kavo->table_nfree;
}

KAVO_ERR kavo_set_ext_cache(KAVO kavo, KAVO_CACHE_TYPE use, KAVO_CACHE cacher) {
  if (kavo == nullptr) return KAVOE_BADPAR;
  const KAVO_ERR refused = check_at_rest(kavo, __func__, "Attempt to set external cache for already opened context");
  if (refused != KAVOE_OK) return refused;
  if (dns_set_cache(kavo->udns_ctx, use, cacher) != 0) {
    PELK_ERROR(kSource, __func__, 0, KAVOE_DNS, "Unable to use external cache");
    return KAVOE_DNS;
  }
  struct dns_cache *own = own_cache(kavo, cacher);
  keep_own_caches(kavo, (use & KAVOCT_ANS) != 0 ? own : kavo->cache, (use & KAVOCT_REF) != 0 ? own : kavo->rcache);
  return KAVOE_OK;
}

KAVO_CACHE kavo_get_ext_cache(KAVO kavo, KAVO_CACHE_TYPE use) {
  return kavo == nullptr || kavo_is_foreign(kavo) ? nullptr : dns_get_cache(kavo->udns_ctx, use);
}

int kavo_set_cost_zone(KAVO kavo, const char *zone) {
  if (kavo == nullptr) return KAVOE_BADPAR;
  const KAVO_ERR refused = check_at_rest(kavo, __func__, "Attempt to set cost zone for already opened context");
  if (refused != KAVOE_OK) return static_cast<int>(refused);
  return dns_set_cost_zone(kavo->udns_ctx, zone) < 0 ? KAVOE_DNS : KAVOE_OK;
}

int kavo_add_expserv(KAVO kavo, const struct in_addr *addr) {
  if (kavo == nullptr) return KAVOE_BADPAR;
  const KAVO_ERR refused = check_at_rest(kavo, __func__, "Attempt to set expected server for already opened context");
  if (refused != KAVOE_OK) return static_cast<int>(refused);
  struct sockaddr_in address = {};
  address.sin_family = AF_INET;
  if (addr != nullptr) address.sin_addr = *addr;
  const void *server = addr != nullptr ? &address : nullptr;
  return dns_add_expserv_s(kavo->udns_ctx, static_cast<const struct sockaddr *>(server)) < 0 ? KAVOE_DNS : KAVOE_OK;
}
