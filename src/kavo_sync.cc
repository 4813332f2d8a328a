// kavo_sync.cc - sync nodes: nodes that ask nothing and end one thread's wait when another thread signals them.
//
// They are in the query table like any node, under a name made from the context's counter, and hold a permit. The
// server thread never sees them. Any thread; the states change with mx_table held.
#include <stdint.h>

#include <dns_wire.h>
#include <pelk_log.h>

#include "kavo_query_table.h"
#include "kavo_state.h"
#include "kavo_t.h"
#include "kavo_table_add.h"
#include "kavo_table_lock.h"

namespace {

constexpr char kSource[] = "kavo_sync";
constexpr char kStopped[] = "Attempt to subscribe sync node when server is stopped";

// Bytes of a sync node's name besides the counter's digits: the label's length, a dot, the closing zero. The dot keeps
// the name apart from those that hosts ask.
constexpr unsigned kNameExtra = 3;
constexpr unsigned kDigitsMax = 10;  // digits of a 32-bit counter
static_assert(kDigitsMax + kNameExtra <= DNS_MAXDN);

constexpr uint32_t kBase = 10;

// write_name writes the name of the sync node with a number: its digits, the lowest first.
void write_name(uint32_t number, unsigned char *dn) {
  unsigned char *at = dn + 1;
  *at++ = '.';
  do {
    *at++ = static_cast<unsigned char>('0' + number % kBase);
    number /= kBase;
  } while (number != 0);
  dn[0] = static_cast<unsigned char>(at - dn - 1);
  *at = 0;
}

}  // namespace

KAVO_ERR kavo_subscribe_syncnode(KAVO kavo, const struct timeval *deadline, KAVO_QUERY_NODE *node) {
  if (kavo == nullptr || node == nullptr) return KAVOE_BADPAR;
  const uint32_t run = kavo_table_run(kavo);
  const KAVO_ERR refused = kavo_check_running(kavo, kSource, __func__, kStopped);
  if (refused != KAVOE_OK) return refused;
  unsigned char dn[kDigitsMax + kNameExtra];
  write_name(kavo->syncid.fetch_add(1, std::memory_order_relaxed), dn);
  const KAVO_ERR error = kavo_table_add(kavo, KAVOT_SYNC, dn, nullptr, 0, deadline, 0, run, node);
  return error != KAVOE_SRV ? error : kavo_not_running(kavo, kSource, __func__, kStopped, __LINE__);
}

KAVO_ERR kavo_signal_syncnode(KAVO kavo, KAVO_QUERY_NODE node) {
  if (node == nullptr || kavo == nullptr) return KAVOE_BADPAR;
  kavo_table_guard guard(kavo);
  if (guard.error != KAVOE_OK) return kavo_table_no_lock(kSource, __func__, guard.error);
  if (node->state != KAVOQS_SYNCWAIT && node->state != KAVOQS_SYNCSIG) return KAVOE_BADPAR;
  const KAVO_ERR error = kavo_table_change_state(kavo, node, KAVOQS_SYNCSIG);
  if (error != KAVOE_OK)
    PELK_ERROR(kSource, __func__, 0, error, "Unable to change node state, target state %d", KAVOQS_SYNCSIG);
  return error;
}
