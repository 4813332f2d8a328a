// dump.h - what the writer and the reader of cache dumps share: the format and the context (dns_cdump_*).
//
// A dump is a magic number, then frames: a file head (format version, time of the save); for each cache a head with the
// user data, blocks of entry images (cache_image.h) and an end with totals; last a file end with totals. Integers are
// in network order, times absolute. Each frame has a checksum of itself and of all frames before it, computed on from
// the previous frame's checksum. It misses damage once in 2^64 and is as fast as memory. It is no protection against
// forgery, so each entry is checked as well. The file end comes last, so a file whose writer was killed has none and is
// refused as a whole.
//
// One thread at a time uses a dump context; any thread may use the caches meanwhile.
#ifndef DUMP_H
#define DUMP_H

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/types.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <span>

#include <cache_image.h>
#include <checksum.h>
#include <kavo/dns.h>

namespace dns::dump {

inline constexpr std::array<uint8_t, 8> kMagic = {0x8d, 'D',  'N',  'C',
                                                  'D',  '\r', '\n', 0x1a};  // text modes would change it
inline constexpr uint32_t kVersion = 1;

enum Kind : uint32_t { kFileHead = 1, kCacheHead = 2, kBlock = 3, kCacheEnd = 4, kFileEnd = 5 };

// A frame: checksum (8 bytes), kind (4), size of the body (4), body. The checksum covers what follows it.
inline constexpr size_t kKindAt = 8;
inline constexpr size_t kSizeAt = 12;
inline constexpr size_t kFrameHead = 16;

// Bodies. File head: version (4), moment (8). Cache end: entries (8), bytes of their images (8). File end: caches (8),
// bytes of the whole dump (8).
inline constexpr size_t kFileHeadSize = 4 + 8;
inline constexpr size_t kTotalsSize = 8 + 8;
inline constexpr size_t kUserDataMax = 256;
// Large enough that the copying costs far more than the system calls.
inline constexpr size_t kBlockMax = 256 * 1024;
static_assert(kBlockMax >= kImageMax, "every entry fits a block");

struct Totals {
  uint64_t first = 0;
  uint64_t bytes = 0;
  bool operator==(const Totals &) const = default;
};

// Place is where a frame begins, as an offset in the dump, and the checksum of the frame before.
struct Place {
  uint64_t offset = kMagic.size();
  uint64_t sum = 0;
};

// Shown is how far dns_cdump_next_entry has come in a cache: the next block, what is left of the present one, and how
// many entries it has returned.
struct Shown {
  Place next;
  std::span<const uint8_t> left;
  uint64_t entries = 0;
};

enum class State { kSaving, kBefore, kOnCache, kAfter };

struct Free {
  void operator()(uint8_t *memory) const { free(memory); }
};
// Buffer is room for the head and the body of one frame; null without memory.
using Buffer = std::unique_ptr<uint8_t, Free>;

[[nodiscard]] inline Buffer make_buffer() {
  return Buffer(static_cast<uint8_t *>(malloc(kFrameHead + kBlockMax)));
}

[[nodiscard]] inline uint64_t sum_of(uint64_t before, const uint8_t *frame, size_t body_size) {
  return checksum(before, frame + kKindAt, kFrameHead - kKindAt + body_size);
}

// open_dump makes a context with a descriptor of its own for what `fd` has open. Null without memory or descriptor.
[[nodiscard]] dns_cdump *open_dump(int fd, dns_time now);

}  // namespace dns::dump

struct dns_cdump {
  int fd = -1;
  dns_time now = 0;
  dns::dump::State state = dns::dump::State::kBefore;
  dns_status status = DNS_E_NOERROR;  // of a save that has failed
  dns::dump::Place place;             // saving: the next frame's; on a cache: after its end
  uint64_t caches = 0;                // saved, or read
  off_t base = 0;                     // loading: the dump's first byte in the file, and its size
  uint64_t size = 0;
  uint64_t checked = 0;     // blocks before this offset have been read and found whole
  dns::dump::Place blocks;  // on a cache: its first block, its totals, its entries shown, its user data
  dns::dump::Totals totals;
  dns::dump::Shown shown;
  size_t user_size = 0;
  std::array<uint8_t, dns::dump::kUserDataMax> user_data = {};
  dns::dump::Buffer frame;

  ~dns_cdump() {
    if (fd >= 0) close(fd);
  }
  [[nodiscard]] std::span<uint8_t> body() const { return {frame.get() + dns::dump::kFrameHead, dns::dump::kBlockMax}; }
};

#endif  // DUMP_H
