// segments.h - where the elements of an array are that grows without moving any: in segments, four for each doubling.
#ifndef SEGMENTS_H
#define SEGMENTS_H

#include <stddef.h>

#include <bit>

namespace base::segments {

inline constexpr size_t kFirst = 8;  // elements of the first segment
inline constexpr size_t kEach = 4;   // segments of each doubling
inline constexpr unsigned kFirstShift = std::countr_zero(kFirst / kEach);
static_assert(std::has_single_bit(kFirst));

// count_for returns how many segments hold 2^`bits` elements.
constexpr size_t count_for(unsigned bits) {
  return 1 + kEach * (bits - std::countr_zero(kFirst));
}

// shift_of is the binary logarithm of the size of an element's segment, past the first one.
constexpr unsigned shift_of(size_t element) {
  return static_cast<unsigned>(std::bit_width(element / kEach)) - 1;
}
constexpr size_t segment_of(size_t element) {
  if (element < kFirst) return 0;
  const unsigned shift = shift_of(element);
  return 1 + kEach * (shift - kFirstShift) + (element >> shift) - kEach;
}
constexpr size_t size_of(size_t segment) {
  return segment == 0 ? kFirst : size_t{1} << (kFirstShift + (segment - 1) / kEach);
}

}  // namespace base::segments

#endif  // SEGMENTS_H
