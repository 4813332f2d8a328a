// kavo_log.cc - the sink of the library's log lines. One for the whole process; any thread.
#include <kavo.h>
#include <pelk_log.h>

void kavo_set_log_cb(kavo_log_fn *fn, void *uctx) {
  pelk_set_log_sink(fn, uctx);
}
