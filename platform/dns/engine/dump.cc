// dump.cc - cache dumps: the entries of caches in a file, and back (dns_cdump_*).
//
// A dump is a magic number and then frames: a file head (format version, when it was saved), for each cache a head with
// the user data, blocks of entry images (cache_image.h) and an end with totals, and last a file end with totals.
// Integers are in network order, times absolute. Each frame carries a checksum of itself and of all frames before it:
// it goes on from the checksum of the frame before, misses damage once in 2^64 and keeps up with the memory. It guards
// against accidents, not against forgers, so what is read is checked entry by entry all the same. The file end comes
// last, hence a file whose writer was killed has none and is refused as a whole.
//
// A dump context belongs to one thread at a time; the caches may be used by any thread meanwhile. Memory is one block,
// whatever the file's size: a section is read once to check it, and again to load it.
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <memory>
#include <new>
#include <utility>

#include "cache_image.h"
#include "checksum.h"
#include "dns_engine.h"

namespace {

using dns::get_be;
using dns::put_be;

constexpr std::array<uint8_t, 8> kMagic = {0x8d, 'D', 'N', 'C', 'D', '\r', '\n', 0x1a};  // text modes would change it
constexpr uint32_t kVersion = 1;

enum Kind : uint32_t { kFileHead = 1, kCacheHead = 2, kBlock = 3, kCacheEnd = 4, kFileEnd = 5 };

// A frame: checksum (8 bytes), kind (4), size of the body (4), body. The checksum covers what follows it.
constexpr size_t kKindAt = 8;
constexpr size_t kSizeAt = 12;
constexpr size_t kFrameHead = 16;

// Bodies. File head: version (4), moment (8). Cache end: entries (8), bytes of their images (8). File end: caches (8),
// bytes of the whole dump (8).
constexpr size_t kFileHeadSize = 4 + 8;
constexpr size_t kTotalsSize = 8 + 8;
constexpr size_t kUserDataMax = 256;
constexpr size_t kBlockMax = 256 * 1024;  // large enough that calls to the system cost nothing beside the copying
static_assert(kBlockMax >= dns::kImageMax, "every entry fits a block");

constexpr size_t kImagesAtOnce = 512;  // entries put into a cache together

struct Totals {
  uint64_t first = 0;
  uint64_t bytes = 0;
  bool operator==(const Totals &) const = default;
};

// Place is where a frame begins, counted from the dump's first byte, and the checksum of the frame before.
struct Place {
  uint64_t offset = kMagic.size();
  uint64_t sum = 0;
};

// Shown is how far a cache's entries have been handed out: the next block, what is left of the one in the frame, and
// how many entries there were.
struct Shown {
  Place next;
  std::span<const uint8_t> left;
  uint64_t entries = 0;
};

struct Frame {
  uint32_t kind;
  std::span<const uint8_t> body;
};

enum class State { kSaving, kBefore, kOnCache, kAfter };

struct Free {
  void operator()(uint8_t *memory) const { free(memory); }
};

}  // namespace

struct dns_cdump {
  int fd = -1;
  dns_time now = 0;
  State state = State::kBefore;
  dns_status status = DNS_E_NOERROR;  // of a save that has failed
  Place place;                        // saving: the next frame's; on a cache: behind its end
  uint64_t caches = 0;                // saved, or passed
  off_t base = 0;                     // loading: the dump's first byte in the file, and its size
  uint64_t size = 0;
  uint64_t checked = 0;  // blocks before this offset have been read and found whole
  Place blocks;          // on a cache: its first block, its totals, its user data
  Totals totals;
  Shown shown;
  size_t user_size = 0;
  std::array<uint8_t, kUserDataMax> user_data = {};
  std::unique_ptr<uint8_t, Free> frame;  // head and body of one frame

  ~dns_cdump() {
    if (fd >= 0) close(fd);
  }
  [[nodiscard]] std::span<uint8_t> body() const { return {frame.get() + kFrameHead, kBlockMax}; }
};

namespace {

uint64_t sum_of(uint64_t before, const uint8_t *frame, size_t body_size) {
  return checksum(before, frame + kKindAt, kFrameHead - kKindAt + body_size);
}

// open_dump makes a context with a descriptor of its own for what `fd` has open. Null without memory or descriptor.
[[nodiscard]] dns_cdump *open_dump(int fd, dns_time now) {
  std::unique_ptr<dns_cdump> dump(new (std::nothrow) dns_cdump);
  if (dump == nullptr) return nullptr;
  dump->frame.reset(static_cast<uint8_t *>(malloc(kFrameHead + kBlockMax)));
  dump->fd = fcntl(fd, F_DUPFD_CLOEXEC, 0);
  dump->now = now;
  return dump->frame != nullptr && dump->fd >= 0 ? dump.release() : nullptr;
}

// ---- saving -------------------------------------------------------------------------------------------------------

[[nodiscard]] dns_status write_whole(int fd, std::span<const uint8_t> bytes) {
  while (!bytes.empty()) {
    const ssize_t written = write(fd, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return DNS_E_WFILE;
    bytes = bytes.subspan(static_cast<size_t>(written));
  }
  return DNS_E_NOERROR;
}

// put_frame writes a frame whose body is in place.
[[nodiscard]] dns_status put_frame(dns_cdump *dump, Kind kind, size_t body_size) {
  uint8_t *frame = dump->frame.get();
  put_be(frame + kKindAt, static_cast<uint32_t>(kind));
  put_be(frame + kSizeAt, static_cast<uint32_t>(body_size));
  dump->place.sum = sum_of(dump->place.sum, frame, body_size);
  put_be(frame, dump->place.sum);
  dump->place.offset += kFrameHead + body_size;
  return write_whole(dump->fd, {frame, kFrameHead + body_size});
}

[[nodiscard]] dns_status put_totals(dns_cdump *dump, Kind kind, const Totals &totals) {
  put_be(dump->body().data(), totals.first);
  put_be(dump->body().data() + sizeof totals.first, totals.bytes);
  return put_frame(dump, kind, kTotalsSize);
}

[[nodiscard]] dns_status put_file_head(dns_cdump *dump) {
  const dns_status status = write_whole(dump->fd, kMagic);
  if (status != DNS_E_NOERROR) return status;
  put_be(dump->body().data(), kVersion);
  put_be(dump->body().data() + sizeof kVersion, static_cast<uint64_t>(dump->now));
  return put_frame(dump, kFileHead, kFileHeadSize);
}

[[nodiscard]] dns_status put_entries(dns_cdump *dump, dns_cache *cache, Totals *totals) {
  dns::CacheWalk walk;
  int left = 1;
  while (left > 0) {
    dns::Images images = {dump->body(), 0, 0};
    left = dns::cache_walk(cache, &walk, dump->now, &images);
    if (left < 0) return left;
    if (images.used == 0) continue;
    totals->first += images.entries;
    totals->bytes += images.used;
    const dns_status status = put_frame(dump, kBlock, images.used);
    if (status != DNS_E_NOERROR) return status;
  }
  return DNS_E_NOERROR;
}

[[nodiscard]] dns_status put_cache(dns_cdump *dump, dns_cache *cache, std::span<const uint8_t> user_data) {
  if (!user_data.empty()) memcpy(dump->body().data(), user_data.data(), user_data.size());
  Totals totals;
  dns_status status = put_frame(dump, kCacheHead, user_data.size());
  if (status == DNS_E_NOERROR) status = put_entries(dump, cache, &totals);
  if (status == DNS_E_NOERROR) status = put_totals(dump, kCacheEnd, totals);
  return status;
}

// ---- loading ------------------------------------------------------------------------------------------------------

// read_at fills `bytes` from an offset of the dump. DNS_E_TFILE when it ends before.
[[nodiscard]] dns_status read_at(const dns_cdump *dump, uint64_t offset, std::span<uint8_t> bytes) {
  if (offset > dump->size || bytes.size() > dump->size - offset) return DNS_E_TFILE;
  off_t at = dump->base + static_cast<off_t>(offset);
  while (!bytes.empty()) {
    const ssize_t got = pread(dump->fd, bytes.data(), bytes.size(), at);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return DNS_E_RFILE;
    if (got == 0) return DNS_E_TFILE;
    bytes = bytes.subspan(static_cast<size_t>(got));
    at += got;
  }
  return DNS_E_NOERROR;
}

// next_frame reads the frame at `*at` and moves behind it. A block that was checked before is passed without reading
// its body where `pass_checked` allows; all else must have the right checksum.
[[nodiscard]] dns_status next_frame(dns_cdump *dump, Place *at, bool pass_checked, Frame *frame) {
  uint8_t *head = dump->frame.get();
  dns_status status = read_at(dump, at->offset, {head, kFrameHead});
  if (status != DNS_E_NOERROR) return status;
  const size_t size = get_be<uint32_t>(head + kSizeAt);
  const uint64_t sum = get_be<uint64_t>(head);
  if (size > kBlockMax) return DNS_E_TFILE;
  *frame = {get_be<uint32_t>(head + kKindAt), dump->body().first(size)};
  if (!pass_checked || frame->kind != kBlock || at->offset >= dump->checked) {
    status = read_at(dump, at->offset + kFrameHead, dump->body().first(size));
    if (status != DNS_E_NOERROR) return status;
    if (sum_of(at->sum, head, size) != sum) return DNS_E_TFILE;
  }
  *at = {at->offset + kFrameHead + size, sum};
  return DNS_E_NOERROR;
}

[[nodiscard]] bool read_totals(const Frame &frame, Totals *totals) {
  if (frame.body.size() != kTotalsSize) return false;
  totals->first = get_be<uint64_t>(frame.body.data());
  totals->bytes = get_be<uint64_t>(frame.body.data() + sizeof totals->first);
  return true;
}

// check_ends looks at both ends of the file: whether it is a dump of a format known here, and whole.
[[nodiscard]] dns_status check_ends(dns_cdump *dump, Place *first) {
  constexpr size_t kEndSize = kFrameHead + kTotalsSize;
  std::array<uint8_t, kMagic.size()> magic;
  dns_status status = read_at(dump, 0, magic);
  if (status != DNS_E_NOERROR) return status;
  if (magic != kMagic || dump->size < kEndSize) return DNS_E_TFILE;
  uint8_t *end = dump->frame.get();
  status = read_at(dump, dump->size - kEndSize, {end, kEndSize});
  if (status != DNS_E_NOERROR) return status;
  Totals totals;
  if (get_be<uint32_t>(end + kKindAt) != kFileEnd || get_be<uint32_t>(end + kSizeAt) != kTotalsSize) return DNS_E_TFILE;
  if (!read_totals({kFileEnd, dump->body().first(kTotalsSize)}, &totals) || totals.bytes != dump->size)
    return DNS_E_TFILE;
  Frame head;
  status = next_frame(dump, first, false, &head);
  if (status != DNS_E_NOERROR) return status;
  const bool known = head.kind == kFileHead && head.body.size() == kFileHeadSize;
  return known && get_be<uint32_t>(head.body.data()) == kVersion ? DNS_E_NOERROR : DNS_E_TFILE;
}

// check_blocks goes over a cache's blocks to its end, which it leaves `*at` behind.
[[nodiscard]] dns_status check_blocks(dns_cdump *dump, Place *at) {
  uint64_t bytes = 0;
  for (;;) {
    Frame frame;
    const dns_status status = next_frame(dump, at, true, &frame);
    if (status != DNS_E_NOERROR) return status;
    if (frame.kind != kBlock) {
      const bool ended = frame.kind == kCacheEnd && read_totals(frame, &dump->totals);
      const bool sound = ended && dump->totals.bytes == bytes && dump->totals.first <= bytes / dns::kImageMin;
      return sound ? DNS_E_NOERROR : DNS_E_TFILE;
    }
    bytes += frame.body.size();
  }
}

// next_cache stands on the cache whose head is at `at`: 1; or 0 when the file's end is there.
[[nodiscard]] int next_cache(dns_cdump *dump, Place at) {
  Frame frame;
  dump->state = State::kBefore;
  dns_status status = next_frame(dump, &at, false, &frame);
  if (status != DNS_E_NOERROR) return status;
  Totals totals;
  if (frame.kind == kFileEnd) {
    if (!read_totals(frame, &totals) || totals != Totals{dump->caches, at.offset}) return DNS_E_TFILE;
    dump->state = State::kAfter;
    return 0;
  }
  if (frame.kind != kCacheHead || frame.body.size() > kUserDataMax) return DNS_E_TFILE;
  dump->user_size = frame.body.size();
  std::copy(frame.body.begin(), frame.body.end(), dump->user_data.begin());
  dump->blocks = at;
  status = check_blocks(dump, &at);
  if (status != DNS_E_NOERROR) return status;
  dump->checked = std::max(dump->checked, at.offset);
  dump->shown = {dump->blocks, {}, 0};
  dump->place = at;
  dump->caches += 1;
  dump->state = State::kOnCache;
  return 1;
}

// load_block puts a block's entries into a cache. `*seen` grows by their number, `*kept` by those that the cache kept.
[[nodiscard]] dns_status load_block(const dns_cdump *dump, std::span<const uint8_t> bytes, dns_cache *cache,
                                    uint64_t *seen, uint64_t *kept) {
  std::array<dns::Image, kImagesAtOnce> images;
  while (!bytes.empty()) {
    size_t count = 0;
    for (; count < images.size() && !bytes.empty(); ++count) {
      if (!dns::read_image(&bytes, &images[count])) return DNS_E_TFILE;
    }
    const dns_status status = dns::cache_restore(cache, {images.data(), count}, dump->now, kept);
    if (status != DNS_E_NOERROR) return status;
    *seen += count;
  }
  return DNS_E_NOERROR;
}

[[nodiscard]] dns_status load_cache(dns_cdump *dump, dns_cache *cache) {
  Place at = dump->blocks;
  dump->shown = {at, {}, 0};  // the frame is needed here
  uint64_t seen = 0;
  uint64_t kept = 0;
  dns::cache_expect(cache, dump->totals.first);
  for (;;) {
    Frame frame;
    dns_status status = next_frame(dump, &at, false, &frame);
    if (status == DNS_E_NOERROR && frame.kind == kBlock) status = load_block(dump, frame.body, cache, &seen, &kept);
    if (status != DNS_E_NOERROR) return status;
    if (frame.kind != kBlock) break;
  }
  if (seen != dump->totals.first) return DNS_E_TFILE;
  return kept > 0 ? DNS_E_NOERROR : DNS_E_NODATA;
}

// show_block reads blocks until there is one with entries left to show: 1; 0 at their end. A failure moves nothing, so
// that it is found again.
[[nodiscard]] int show_block(dns_cdump *dump) {
  Shown *shown = &dump->shown;
  while (shown->left.empty()) {
    Frame frame;
    Place at = shown->next;
    const dns_status status = next_frame(dump, &at, false, &frame);
    if (status != DNS_E_NOERROR) return status;
    if (frame.kind != kBlock) return shown->entries == dump->totals.first ? 0 : DNS_E_TFILE;
    shown->next = at;
    shown->left = frame.body;
  }
  return 1;
}

}  // namespace

extern "C" {

dns_cdump *dns_cdump_save_init(int fd, dns_time now) {
  const int mode = fcntl(fd, F_GETFL);
  if (mode < 0 || (mode & O_ACCMODE) == O_RDONLY) return nullptr;
  dns_cdump *dump = open_dump(fd, now);
  if (dump == nullptr) return nullptr;
  dump->state = State::kSaving;
  dump->status = put_file_head(dump);
  return dump;
}

int dns_cdump_save_cache(dns_cdump *dump, dns_cache *cache, const void *udata, unsigned size) {
  if (dump == nullptr || dump->state != State::kSaving || cache == nullptr) return DNS_E_INVAL;
  if (size > kUserDataMax || (udata == nullptr && size > 0)) return DNS_E_INVAL;
  if (dump->status == DNS_E_NOERROR) dump->status = put_cache(dump, cache, {static_cast<const uint8_t *>(udata), size});
  if (dump->status == DNS_E_NOERROR) dump->caches += 1;
  return dump->status;
}

int dns_cdump_save_finish(dns_cdump *dump) {
  if (dump == nullptr || dump->state != State::kSaving) return DNS_E_INVAL;
  const std::unique_ptr<dns_cdump> owned(dump);
  if (dump->status != DNS_E_NOERROR) return dump->status;
  const uint64_t size = dump->place.offset + kFrameHead + kTotalsSize;
  const dns_status status = put_totals(dump, kFileEnd, {dump->caches, size});
  const bool closed = close(std::exchange(dump->fd, -1)) == 0;
  return closed ? status : DNS_E_WFILE;
}

dns_cdump *dns_cdump_load_init(int fd, dns_time now) {
  const int mode = fcntl(fd, F_GETFL);
  if (mode < 0 || (mode & O_ACCMODE) == O_WRONLY) return nullptr;
  struct stat about;
  const off_t base = lseek(fd, 0, SEEK_CUR);
  if (base < 0 || fstat(fd, &about) != 0 || !S_ISREG(about.st_mode)) return nullptr;
  dns_cdump *dump = open_dump(fd, now);
  if (dump == nullptr) return nullptr;
  dump->base = base;
  dump->size = static_cast<uint64_t>(std::max<off_t>(about.st_size - base, 0));
  return dump;
}

int dns_cdump_first_cache(dns_cdump *dump) {
  if (dump == nullptr || dump->state == State::kSaving) return DNS_E_INVAL;
  Place first;
  dump->state = State::kBefore;
  dump->caches = 0;
  const dns_status status = check_ends(dump, &first);
  return status == DNS_E_NOERROR ? next_cache(dump, first) : status;
}

int dns_cdump_next_cache(dns_cdump *dump) {
  if (dump == nullptr || dump->state == State::kSaving || dump->state == State::kBefore) return DNS_E_INVAL;
  return dump->state == State::kAfter ? 0 : next_cache(dump, dump->place);
}

int dns_cdump_get_udata(const dns_cdump *dump, void *buffer, unsigned size, unsigned *stored) {
  if (dump == nullptr || dump->state != State::kOnCache || (buffer == nullptr && size > 0)) return DNS_E_INVAL;
  if (stored != nullptr) *stored = static_cast<unsigned>(dump->user_size);
  if (size < dump->user_size) return DNS_E_NOBUFS;
  if (dump->user_size > 0) memcpy(buffer, dump->user_data.data(), dump->user_size);
  return static_cast<int>(dump->user_size);
}

int dns_cdump_load_cache(dns_cdump *dump, dns_cache *cache) {
  if (dump == nullptr || dump->state != State::kOnCache || cache == nullptr) return DNS_E_INVAL;
  return dump->totals.first == 0 ? DNS_E_NODATA : load_cache(dump, cache);
}

int dns_cdump_next_entry(dns_cdump *dump, dns_cdata *entry) {
  if (dump == nullptr || dump->state != State::kOnCache || entry == nullptr) return DNS_E_INVAL;
  const int found = show_block(dump);
  if (found <= 0) return found;
  dns::Image image;
  std::span<const uint8_t> left = dump->shown.left;
  if (!dns::read_image(&left, &image)) return DNS_E_TFILE;
  if (!dns::image_to_cdata(image, dump->now, entry)) return DNS_E_NOMEM;
  dump->shown.left = left;
  dump->shown.entries += 1;
  return 1;
}

int dns_cdump_load_finish(dns_cdump *dump) {
  if (dump == nullptr || dump->state == State::kSaving) return DNS_E_INVAL;
  delete dump;
  return 0;
}

}  // extern "C"
