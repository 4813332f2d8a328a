// kavo_spare_blocks.cc - getting, keeping and freeing the memory of nodes.
#include "kavo_spare_blocks.h"

#include <stdlib.h>
#include <string.h>

#include <new>
#include <utility>

#include <pelk_annotations.h>
#include <sanitizer.h>

// kavo_spare_block: what a block holds while no node is in it.
struct kavo_spare_block {
  kavo_spare_block *next = nullptr;
};

namespace {

// Blocks of each size that are kept.
constexpr unsigned kSpareMax = base::kAddressSanitizer ? 0 : 64;

unsigned class_of(uint16_t key_size) {
  return (key_size - 1U) / KAVO_SPARE_STEP;
}

}  // namespace

void *kavo_spare_blocks_get(kavo_spare_blocks *spare, size_t head, uint16_t key_size) {
  const unsigned size_class = class_of(key_size);
  kavo_spare_block *&first = spare->first[size_class];
  if (first == nullptr) return calloc(1, head + (size_class + 1) * KAVO_SPARE_STEP);
  void *block = std::exchange(first, first->next);
  --spare->count[size_class];
  memset(block, 0, head);
  return block;
}

void kavo_spare_blocks_put(kavo_spare_blocks *spare, void *block, uint16_t key_size) {
  const unsigned size_class = class_of(key_size);
  if (spare->count[size_class] >= kSpareMax) {
    free(block);
    return;
  }
  spare->first[size_class] = new (block) kavo_spare_block{spare->first[size_class]};
  ++spare->count[size_class];
}

void kavo_spare_blocks_free(kavo_spare_blocks *spare) {
  for (kavo_spare_block *&first : spare->first)
    while (first != nullptr)
      free(std::exchange(first, first->next));
  *spare = {};
}
