// kavo_table_add.h - how a question comes to its node.
#ifndef KAVO_TABLE_ADD_H
#define KAVO_TABLE_ADD_H

#include <stdint.h>
#include <sys/time.h>

#include <kavo.h>
#include <pelk_sync.h>

#include "kavo_node_servers.h"
#include "kavo_t.h"

// kavo_table_run returns the number of the run that is on, or of the next one. A subscription notes the number before
// it looks at the state: what it then finds holds for as long as this run is on.
[[nodiscard]] inline uint32_t kavo_table_run(const kavo_t *ctx) {
  return pelk_sem_epoch(&ctx->sem_free_node);
}

// kavo_table_add hands out the node of a question with one hold for the caller. A node that exists is joined; else one
// is taken when a permit is free, for which the call waits until `deadline`, and the server thread is woken. The
// question's own servers, if any, are the `nserv` entries of `serv`. KAVOE_SRV, without a line in the log, once `run`
// is over.
[[nodiscard]] KAVO_ERR kavo_table_add(KAVO ctx, KAVO_TYPE type, const unsigned char *dn, const kavo_sa *serv,
                                      unsigned nserv, const struct timeval *deadline, unsigned flags, uint32_t run,
                                      KAVO_QUERY_NODE *query_node) PELK_EXCLUDES(ctx->mx_table);

#endif  // KAVO_TABLE_ADD_H
