// kavo_spare_blocks.h - the memory of nodes that have left the table, kept for later nodes.
//
// The blocks are kept by the sizes of the keys that they hold. A table that evicts nodes as it takes them thus
// allocates nothing. No lock: the owner has one.
#ifndef KAVO_SPARE_BLOCKS_H
#define KAVO_SPARE_BLOCKS_H

#include <stddef.h>
#include <stdint.h>

struct kavo_spare_block;

// Bytes between the sizes of blocks: one block fits most of the questions to come.
inline constexpr unsigned KAVO_SPARE_STEP = 16;
inline constexpr unsigned KAVO_SPARE_CLASSES = 41;

struct kavo_spare_blocks {
  kavo_spare_block *first[KAVO_SPARE_CLASSES] = {};
  unsigned count[KAVO_SPARE_CLASSES] = {};
};

// kavo_spare_blocks_get returns a block of `head` zero bytes, which a key of `key_size` bytes follows; null without
// memory. kavo_spare_blocks_put takes one back.
[[nodiscard]] void *kavo_spare_blocks_get(kavo_spare_blocks *spare, size_t head, uint16_t key_size);
void kavo_spare_blocks_put(kavo_spare_blocks *spare, void *block, uint16_t key_size);

// kavo_spare_blocks_free frees every block that is kept.
void kavo_spare_blocks_free(kavo_spare_blocks *spare);

#endif  // KAVO_SPARE_BLOCKS_H
