// kavo_zones.h - configuring the zones of a context.
#ifndef KAVO_ZONES_H
#define KAVO_ZONES_H

#include <kavo.h>

// kavo_zones_may_change is kavo_check_at_rest for calls that change a context's zones. Once it has returned KAVOE_OK,
// no subscription joins a node that still holds answers of the lists before.
[[nodiscard]] KAVO_ERR kavo_zones_may_change(KAVO kavo, const char *function, const char *message,
                                             int line = __builtin_LINE());

// kavo_zones_table_bytes returns the bytes that a failure to store the next zone tells of.
[[nodiscard]] int kavo_zones_table_bytes(KAVO kavo);

#endif  // KAVO_ZONES_H
