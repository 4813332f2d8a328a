// kavo_rr.h - record blocks inside the library: which layout serves which type, and the limit on a block's size.
//
// The operations on blocks are public and in <kavo.h>. They keep no state and may run on any thread.
#ifndef KAVO_RR_H
#define KAVO_RR_H

#include <kavo.h>

#include "kavo_types.h"

// The largest block that kavo_rr_alloc makes, in bytes.
inline constexpr unsigned KAVO_RR_SIZE_MAX = 1024;

// kavo_rr_layout_of returns the layout of a type's blocks; `none` for a type that has no blocks.
[[nodiscard]] inline kavo_rr_layout kavo_rr_layout_of(KAVO_TYPE type) {
  return kavo_type_find(type).layout;
}

#endif  // KAVO_RR_H
