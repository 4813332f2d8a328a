// switch.h - what the mutants of scripts/mutants are switched with, included before every source of the mutated build.
//
// Each mutant has a number. The one in KAVO_MUTANT is on, in a test program and in every program that it starts. Of each
// mutant whose place is reached a byte is set in the file of KAVO_MUTANT_RECORD, where that is named.
#ifndef KAVO_SCRIPTS_MUTATION_SWITCH_H
#define KAVO_SCRIPTS_MUTATION_SWITCH_H

#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

namespace mutation {

inline constexpr unsigned kMutantsMax = 1 << 16;

inline unsigned number_from_environment() {
  const char *text = getenv("KAVO_MUTANT");
  return text == nullptr ? 0 : static_cast<unsigned>(strtoul(text, nullptr, 10));
}

inline unsigned char *record_from_environment() {
  const char *path = getenv("KAVO_MUTANT_RECORD");
  if (path == nullptr) return nullptr;
  const int file = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (file < 0 || ftruncate(file, kMutantsMax) != 0) abort();
  void *bytes = mmap(nullptr, kMutantsMax, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  if (bytes == MAP_FAILED) abort();
  close(file);
  return static_cast<unsigned char *>(bytes);
}

inline const unsigned chosen = number_from_environment();
inline unsigned char *const record = record_from_environment();

[[gnu::always_inline]] inline bool on(unsigned number) {
  if (record != nullptr) [[unlikely]]
    record[number] = 1;
  return chosen == number;
}

inline bool flip(unsigned number, bool value) {
  return on(number) != value;
}

template <typename T>
[[gnu::always_inline]] inline T one_more(unsigned number, T value) {
  return on(number) ? static_cast<T>(static_cast<long long>(value) + 1) : value;
}

template <typename T>
[[gnu::always_inline]] inline T zero_or_one(unsigned number, T value) {
  if (on(number)) return static_cast<T>(value == static_cast<T>(0) ? 1 : 0);
  return value;
}

template <typename T>
[[gnu::always_inline]] inline T *null(unsigned number, T *value) {
  return on(number) ? nullptr : value;
}

// Each comparison is one of two others; where it is told about, `number` is the first of their numbers.
#define MUTATION_COMPARISON(name, is, first, second)                                  \
  template <typename L, typename R>                                                   \
  [[gnu::always_inline]] inline bool name(unsigned number, const L &l, const R &r) {  \
    const bool one = on(number), other = on(number + 1);                              \
    return one ? l first r : other ? l second r : l is r;                             \
  }
MUTATION_COMPARISON(less, <, <=, >=)
MUTATION_COMPARISON(less_equal, <=, <, >)
MUTATION_COMPARISON(greater, >, >=, <=)
MUTATION_COMPARISON(greater_equal, >=, >, <)
#undef MUTATION_COMPARISON

template <typename L, typename R>
[[gnu::always_inline]] inline bool equal(unsigned number, const L &l, const R &r) {
  return on(number) != (l == r);
}
template <typename L, typename R>
[[gnu::always_inline]] inline bool not_equal(unsigned number, const L &l, const R &r) {
  return on(number) != (l != r);
}

template <typename L, typename R>
[[gnu::always_inline]] inline auto plus(unsigned number, const L &l, const R &r) {
  return on(number) ? l - r : l + r;
}
template <typename L, typename R>
[[gnu::always_inline]] inline auto minus(unsigned number, const L &l, const R &r) {
  return on(number) ? l + r : l - r;
}

// The right side is a function, which is called only where the operator looks at it.
template <typename R>
[[gnu::always_inline]] inline bool both(unsigned number, bool l, const R &r) {
  return on(number) ? l || r() : l && r();
}
template <typename R>
[[gnu::always_inline]] inline bool either(unsigned number, bool l, const R &r) {
  return on(number) ? l && r() : l || r();
}

}  // namespace mutation

#endif  // KAVO_SCRIPTS_MUTATION_SWITCH_H
