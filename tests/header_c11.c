/*
 * header_c11.c - <kavo.h> on its own, as a host in strict C11 sees it. Nothing here runs: it compiles without a
 * warning, or the build fails. The assertions hold the numbers and layouts that programs already built against the
 * library rely on.
 */
#include <kavo.h>

/* Nothing is included above, so the header brings what it needs; a second inclusion changes nothing. */
#include <kavo.h>
#include <stddef.h>

_Static_assert(KAVOE_OK == 0 && KAVOE_TIMEOUT == 7 && KAVOE_NOPARSER == 12, "results");
_Static_assert(KAVOT_BL_IP == 65537 && KAVOT_BL_NS == 65545, "list types");
_Static_assert(KAVOT_DNS_ETXT == 131073 && KAVOT_SYNC == 131074 && KAVOT_PKT == 131075, "special types");
_Static_assert(KAVOQT_DNS_A6 == 28, "the alias asks for AAAA records");
_Static_assert(KAVOSS_STOPPED == 1 && KAVOSS_ERROR == 5, "server states");
_Static_assert(KAVOWT_NONE == -2 && KAVOWT_DCACHE == 0 && KAVOWT_FULL == 2, "wait levels");
_Static_assert(KAVOCC_UNKNOWN == 0 && KAVOCC_ERROR == 4, "cache codes");
_Static_assert((unsigned)KAVOCT_ANS == (unsigned)DNS_CU_ANS && (unsigned)KAVOCT_REF == (unsigned)DNS_CU_REF,
               "cache uses");
_Static_assert(KAVOQF_RECURSIVE == 1 && KAVOQF_PKT == 2, "request flags");

_Static_assert(offsetof(KAVO_ANSWER, err_code) == 4 && offsetof(KAVO_ANSWER, cache_code) == 8, "answer: codes");
_Static_assert(offsetof(KAVO_ANSWER, actual_size) == 12 && offsetof(KAVO_ANSWER, zone) == 16, "answer: size, zone");
_Static_assert(offsetof(KAVO_ANSWER, rr) == 24 && offsetof(KAVO_ANSWER, query_time) == 32, "answer: records, time");
_Static_assert(sizeof(KAVO_ANSWER) == 40, "answer");
_Static_assert(offsetof(dns_rr_a4, dnsa4_addr) == 32 && offsetof(dns_rr_null, dnsn_nrr) == 28, "record blocks");
_Static_assert(sizeof(dns_rr_pkt) == 12, "a packet's bytes follow its head at once");

/* A callback written in C has the type that the header asks for. */
static void state_changed(KAVO kavo, KAVO_SRV_STATE old_state, KAVO_SRV_STATE new_state, void *uctx) {
  (void)kavo;
  (void)old_state;
  *(KAVO_SRV_STATE *)uctx = new_state;
}
extern kavo_srvstate_chg_fn *const header_c11_callback;
kavo_srvstate_chg_fn *const header_c11_callback = state_changed;
