// must.h - a call of the library that is not allowed to fail.
#ifndef KAVO_BENCH_GUARD_MUST_H
#define KAVO_BENCH_GUARD_MUST_H

#include <kavo.h>

#include <stdexcept>
#include <string>

namespace guard {

inline void must(KAVO_ERR code, const char *what) {
  if (code != KAVOE_OK) throw std::runtime_error(std::string(what) + ": " + kavo_strerror(code));
}

}  // namespace guard

#endif  // KAVO_BENCH_GUARD_MUST_H
