// kavo_table_lock.h - the lock of the query table, mx_table.
//
// Any thread, but never one that waits for a permit or in select.
#ifndef KAVO_TABLE_LOCK_H
#define KAVO_TABLE_LOCK_H

#include <kavo.h>
#include <pelk_sync.h>

#include "kavo_state.h"
#include "kavo_t.h"

// kavo_table_lock and kavo_table_unlock take and release mx_table; a failure is logged: KAVOE_THR. The lock of a
// context whose run is a parent process's is not touched: KAVOE_SRV. The analysis takes the lock for held in any case.
[[gnu::cold]] KAVO_ERR kavo_table_lock_failed(int error);
[[nodiscard]] inline KAVO_ERR kavo_table_lock(KAVO ctx) PELK_ACQUIRE(ctx->mx_table) PELK_NO_ANALYSIS {
  if (kavo_is_foreign(ctx)) [[unlikely]]
    return KAVOE_SRV;
  const int error = pelk_mutex_lock(&ctx->mx_table);
  return error == 0 ? KAVOE_OK : kavo_table_lock_failed(error);
}
KAVO_ERR kavo_table_unlock(KAVO ctx) PELK_RELEASE(ctx->mx_table);

// kavo_table_guard holds the table lock for a scope. `error` is the result of taking it. The analysis takes the lock
// for held either way, so a caller checks `error` first.
class PELK_SCOPED_CAPABILITY kavo_table_guard {
 public:
  explicit kavo_table_guard(KAVO ctx) PELK_ACQUIRE(ctx->mx_table) : error(kavo_table_lock(ctx)), ctx_(ctx) {}
  ~kavo_table_guard() PELK_RELEASE() { drop(); }
  kavo_table_guard(const kavo_table_guard &) = delete;
  kavo_table_guard &operator=(const kavo_table_guard &) = delete;

  const KAVO_ERR error;

 private:
  void drop() PELK_NO_ANALYSIS {
    if (error == KAVOE_OK) kavo_table_unlock(ctx_);
  }
  const KAVO ctx_;
};

// kavo_table_no_lock logs what could not be done without the lock, with `error` or another code; nothing for the
// context of a parent process. Returns `error`.
inline constexpr char KAVO_NO_TABLE_LOCK[] = "Unable to lock query table";
KAVO_ERR kavo_table_no_lock(const char *source, const char *function, KAVO_ERR error, KAVO_ERR logged,
                            const char *message, int line = __builtin_LINE());
inline KAVO_ERR kavo_table_no_lock(const char *source, const char *function, KAVO_ERR error,
                                   const char *message = KAVO_NO_TABLE_LOCK, int line = __builtin_LINE()) {
  return kavo_table_no_lock(source, function, error, error, message, line);
}

#endif  // KAVO_TABLE_LOCK_H
