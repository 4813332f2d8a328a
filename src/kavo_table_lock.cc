// kavo_table_lock.cc - releasing the query table's lock, and what is logged when it cannot be had.
#include "kavo_table_lock.h"

#include <pelk_log.h>

namespace {

constexpr char kSource[] = "kavo_query_table";

}  // namespace

KAVO_ERR kavo_table_lock_failed(int error) {
  PELK_ERROR(kSource, "kavo_table_lock", error, KAVOE_THR, "Unable lock mutex");
  return KAVOE_THR;
}

KAVO_ERR kavo_table_unlock(KAVO ctx) {
  const int error = pelk_mutex_unlock(&ctx->mx_table);
  if (error == 0) return KAVOE_OK;
  PELK_ERROR(kSource, __func__, error, KAVOE_THR, "Unable to unlock mutex");
  return KAVOE_THR;
}

KAVO_ERR kavo_table_no_lock(const char *source, const char *function, KAVO_ERR error, KAVO_ERR logged,
                            const char *message, int line) {
  if (error != KAVOE_SRV) pelk_log_error(source, function, line, 0, logged, "%s", message);
  return error;
}
