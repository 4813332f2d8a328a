// kavo_opt.cc - the options of a context: one table of names, ranges and places, and what each option acts on.
//
// Options are set while the context is at rest, hence without a lock. A value is kept once its range and what it acts
// on have accepted it.
#include <stdint.h>

#include <array>

#include <dns_engine.h>

#include "kavo_caches.h"
#include "kavo_rest.h"
#include "kavo_t.h"

namespace {

constexpr char kSource[] = "kavo";

using Action = KAVO_ERR(KAVO kavo, int engine_opt, uint32_t value);

struct Option {
  const char *name = nullptr;
  KAVO_OPT opt = KAVOOPT_NXDOM_TTL;
  uint32_t kavo_t::*field = nullptr;
  uint32_t def_val = 0;
  uint32_t min = 0;
  uint32_t max = 0;
  Action *action = nullptr;
  int engine_opt = 0;  // the engine's or the cacher's option that the action sets
};

[[nodiscard]] KAVO_ERR keep_only(KAVO, int, uint32_t) {
  return KAVOE_OK;
}

[[nodiscard]] KAVO_ERR set_engine(KAVO kavo, int engine_opt, uint32_t value) {
  return dns_set_opt(kavo->udns_ctx, engine_opt, &value, sizeof value) == 0 ? KAVOE_OK : KAVOE_DNS;
}

[[nodiscard]] KAVO_ERR set_timeout(KAVO kavo, const dns_timeval &timeout) {
  return dns_set_opt(kavo->udns_ctx, DNS_OPT_TIMEOUT, &timeout, sizeof timeout) == 0 ? KAVOE_OK : KAVOE_DNS;
}

[[nodiscard]] KAVO_ERR set_seconds(KAVO kavo, int, uint32_t value) {
  return set_timeout(kavo, {static_cast<int32_t>(value), 0});
}

[[nodiscard]] KAVO_ERR set_milliseconds(KAVO kavo, int, uint32_t value) {
  constexpr uint32_t kMilli = 1000;
  return set_timeout(kavo, {static_cast<int32_t>(value / kMilli), static_cast<int32_t>(value % kMilli * kMilli)});
}

[[nodiscard]] KAVO_ERR set_flag(KAVO kavo, uint32_t bit, bool on) {
  uint32_t flags = 0;
  if (dns_get_opt(kavo->udns_ctx, DNS_OPT_FLAGS, &flags, sizeof flags) != 0) return KAVOE_DNS;
  return set_engine(kavo, DNS_OPT_FLAGS, on ? flags | bit : flags & ~bit);
}

[[nodiscard]] KAVO_ERR set_round_robin(KAVO kavo, int, uint32_t value) {
  return set_flag(kavo, DNS_SERVRRB, value != 0);
}

[[nodiscard]] KAVO_ERR set_negative_ttl(KAVO kavo, int cacher_opt, uint32_t value) {
  const KAVO_ERR error = value == 0 ? KAVOE_OK : kavo_caches_set_flag(kavo, DNS_CR_NCACHE, true);
  return error == KAVOE_OK ? kavo_caches_set_opt(kavo, cacher_opt, value) : error;
}

[[nodiscard]] KAVO_ERR set_minimum_ttl(KAVO kavo, int cacher_opt, uint32_t value) {
  return kavo->cache == nullptr ? set_engine(kavo, DNS_OPT_MINTTL, value)
                                : kavo_caches_set_opt(kavo, cacher_opt, value);
}

[[nodiscard]] KAVO_ERR set_return_expired(KAVO kavo, int, uint32_t value) {
  return kavo_caches_set_flag(kavo, DNS_CR_EXPIRED, value != 0);
}

[[nodiscard]] KAVO_ERR set_referral_cache(KAVO kavo, int, uint32_t value) {
  return kavo_caches_set_referrals(kavo, value);
}

constexpr uint32_t kMaxInt = INT32_MAX;
constexpr auto kScratch = &kavo_t::scratch;

// In the order of the codes. def_val is what a context starts with where nothing else says so; it is not applied.
constexpr std::array<Option, 20> kOptions = {{
    {"negative_ttl", KAVOOPT_NXDOM_TTL, kScratch, 65535, 0, kMaxInt, set_negative_ttl, DNS_CROPT_DEFTTL},
    {"min_cache_delay", KAVOOPT_MIN_CACHE_DELAY, &kavo_t::min_cache_delay, 1000, 0, 65535, keep_only, 0},
    {"dns_port", KAVOOPT_DNS_PORT, &kavo_t::dns_port, 53, 1, 65535, set_engine, DNS_OPT_PORT},
    {"close_fast", KAVOOPT_CLOSE_FAST, &kavo_t::close_fast, 0, 0, 1, keep_only, 0},
    {"max_loop", KAVOOPT_MAX_LOOP, kScratch, 100, 1, 65536, set_engine, DNS_OPT_MAXLOOP},
    {"max_alias", KAVOOPT_MAX_ALIAS, kScratch, 16, 1, 65536, set_engine, DNS_OPT_MAXALIAS},
    {"max_packet", KAVOOPT_MAX_PACKET, kScratch, 4096, 512, 4096, set_engine, DNS_OPT_UDPSIZE},
    {"timeout", KAVOOPT_TIMEOUT, kScratch, 3, 1, 300, set_seconds, DNS_OPT_TIMEOUT},
    {"ntries", KAVOOPT_NTRIES, kScratch, 4, 1, 50, set_engine, DNS_OPT_NTRIES},
    {"ndots", KAVOOPT_NDOTS, kScratch, 1, 0, 1000, set_engine, DNS_OPT_NDOTS},
    {"dnsrec_cachesize", KAVOOPT_DNSREC_CACHESIZE, kScratch, 0, 0, UINT32_MAX, set_referral_cache, 0},
    {"bsc_size", KAVOOPT_BSC_SIZE, kScratch, 0, 0, 262144, set_engine, DNS_OPT_BSC_SIZE},
    {"bsc_upd_time", KAVOOPT_BSC_UPDTIME, kScratch, 60, 0, 86400, set_engine, DNS_OPT_BSC_UPDTIME},
    {"bsc_nbest", KAVOOPT_BSC_NBEST, kScratch, 1, 1, 128, set_engine, DNS_OPT_BSC_NBEST},
    {"serv_round_robin", KAVOOPT_SERV_RRB, kScratch, 0, 0, 1, set_round_robin, DNS_OPT_FLAGS},
    {"minimum_ttl", KAVOOPT_MIN_TTL, kScratch, 0, 0, kMaxInt, set_minimum_ttl, DNS_CROPT_MINTTL},
    {"cache_return_expired", KAVOOPT_CH_REXPRD, kScratch, 0, 0, 1, set_return_expired, DNS_CROPT_FLAGS},
    {"timeout_msec", KAVOOPT_TIMEOUT_MSEC, kScratch, 3000, 1, 300000, set_milliseconds, DNS_OPT_TIMEOUT},
    {"window", KAVOOPT_WINDOW, kScratch, 4096, 1, 4096, set_engine, DNS_OPT_WINDOW},
    {"rate", KAVOOPT_RATE, kScratch, 0, 0, 1000000, set_engine, DNS_OPT_RATE},
}};

constexpr bool is_sound() {
  for (unsigned i = 0; i < kOptions.size(); i++)
    if (static_cast<unsigned>(kOptions[i].opt) != i || kOptions[i].min > kOptions[i].def_val ||
        kOptions[i].def_val > kOptions[i].max)
      return false;
  return true;
}
static_assert(is_sound(), "an option's code is its place, and its default lies in its range");

}  // namespace

KAVO_ERR kavo_set_opt(KAVO kavo, KAVO_OPT opt, uint32_t value) {
  if (opt >= kOptions.size()) return KAVOE_BADPAR;
  const KAVO_ERR refused =
      kavo_check_at_rest(kavo, kSource, __func__, "Attempt to set option for already opened context");
  if (refused != KAVOE_OK) return refused;
  const Option &option = kOptions[opt];
  if (value < option.min || value > option.max) return KAVOE_BADPAR;
  const KAVO_ERR error = option.action(kavo, option.engine_opt, value);
  if (error != KAVOE_OK) return error;
  kavo->*option.field = value;
  return KAVOE_OK;
}

KAVO_ERR kavo_set_cookies(KAVO kavo, int on) {
  const KAVO_ERR refused =
      kavo_check_at_rest(kavo, kSource, __func__, "Attempt to set cookies for already opened context");
  if (refused != KAVOE_OK) return refused;
  return set_flag(kavo, DNS_COOKIES, on != 0);
}

const char *kavo_opt_name(KAVO_OPT opt) {
  return opt < kOptions.size() ? kOptions[opt].name : nullptr;
}
