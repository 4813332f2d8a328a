// check.h - a property that must hold, in tests and fuzz targets alike.
#ifndef KAVO_TESTBED_CHECK_H
#define KAVO_TESTBED_CHECK_H

#include <cstdio>
#include <cstdlib>

namespace testbed {

// check ends the process if a property does not hold, as a fault that a sanitizer finds does; libFuzzer then keeps the
// input.
inline void check(bool holds, const char *property, const char *file = __builtin_FILE(), int line = __builtin_LINE()) {
  if (holds) return;
  fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, property);
  abort();
}

}  // namespace testbed

#endif  // KAVO_TESTBED_CHECK_H
