// sanitizer.h - whether this build runs under AddressSanitizer, for code that keeps memory to use it again.
#ifndef SANITIZER_H
#define SANITIZER_H

namespace base {

#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kAddressSanitizer = true;
#elif defined(__has_feature)
inline constexpr bool kAddressSanitizer = __has_feature(address_sanitizer);
#else
inline constexpr bool kAddressSanitizer = false;
#endif

}  // namespace base

#endif  // SANITIZER_H
