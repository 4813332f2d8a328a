// byte_order.h - integers in network order, for places whose bounds are known to hold. Packets are read and written
// with Reader and Writer (cursor.h), which check bounds.
#ifndef BYTE_ORDER_H
#define BYTE_ORDER_H

#include <stdint.h>
#include <string.h>

#include <bit>
#include <concepts>

namespace base {

// swapped turns an integer of two bytes or more to network order, or back.
template <std::unsigned_integral T>
[[nodiscard]] constexpr T swapped(T value) {
  static_assert(std::endian::native == std::endian::little && sizeof(T) > 1);
  if constexpr (sizeof(T) == sizeof(uint16_t)) return __builtin_bswap16(value);
  if constexpr (sizeof(T) == sizeof(uint32_t)) return __builtin_bswap32(value);
  return __builtin_bswap64(value);
}

template <std::unsigned_integral T>
void put_be(uint8_t *to, T value) {
  value = swapped(value);
  memcpy(to, &value, sizeof value);
}

template <std::unsigned_integral T>
[[nodiscard]] T get_be(const uint8_t *from) {
  T value = 0;
  memcpy(&value, from, sizeof value);
  return swapped(value);
}

}  // namespace base

#endif  // BYTE_ORDER_H
