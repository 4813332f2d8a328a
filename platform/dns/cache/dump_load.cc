// dump_load.cc - cache dumps: the reader, into caches and entry by entry (dump.h has the format).
//
// A cache's blocks are read in two passes: the first checks all of them, the second loads them. So nothing of a damaged
// cache is loaded, and memory is one block for each thread, whatever the file's size. Where there are many blocks, a
// few threads share a pass: a block's checksum continues the one that the frame before it states, so the blocks can be
// read in any order. The calling thread is one of them; the others end before the call returns.
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>

#include <cacher.h>
#include <pelk_annotations.h>
#include <pelk_sync.h>
#include <pelk_thread.h>
#include <record.h>

#include "dump.h"

namespace dns::dump {

namespace {

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

// Frame is what the head of a frame says, and its body in the buffer that it was read into.
struct Frame {
  uint64_t sum = 0;
  uint32_t kind = 0;
  std::span<uint8_t> body;
};

// read_head reads the head of the frame at `offset` into a buffer.
[[nodiscard]] dns_status read_head(const dns_cdump *dump, uint64_t offset, uint8_t *buffer, Frame *frame) {
  const dns_status status = read_at(dump, offset, {buffer, kFrameHead});
  if (status != DNS_E_NOERROR) return status;
  const size_t size = base::get_be<uint32_t>(buffer + kSizeAt);
  *frame = {base::get_be<uint64_t>(buffer), base::get_be<uint32_t>(buffer + kKindAt), {buffer + kFrameHead, size}};
  return size <= kBlockMax ? DNS_E_NOERROR : DNS_E_TFILE;
}

// read_body reads the body of the frame at `at`, after its head, and checks both.
[[nodiscard]] dns_status read_body(const dns_cdump *dump, const Place &at, const Frame &frame) {
  const dns_status status = read_at(dump, at.offset + kFrameHead, frame.body);
  if (status != DNS_E_NOERROR) return status;
  return sum_of(at.sum, frame.body.data() - kFrameHead, frame.body.size()) == frame.sum ? DNS_E_NOERROR : DNS_E_TFILE;
}

// place_after returns the place of the next frame.
Place place_after(const Place &at, const Frame &frame) {
  return {at.offset + kFrameHead + frame.body.size(), frame.sum};
}

// next_frame reads the frame at `*at` into the context's buffer and moves `*at` past it.
[[nodiscard]] dns_status next_frame(dns_cdump *dump, Place *at, Frame *frame) {
  dns_status status = read_head(dump, at->offset, dump->frame.get(), frame);
  if (status == DNS_E_NOERROR) status = read_body(dump, *at, *frame);
  if (status == DNS_E_NOERROR) *at = place_after(*at, *frame);
  return status;
}

[[nodiscard]] bool read_totals(const Frame &frame, Totals *totals) {
  if (frame.body.size() != kTotalsSize) return false;
  totals->first = base::get_be<uint64_t>(frame.body.data());
  totals->bytes = base::get_be<uint64_t>(frame.body.data() + sizeof totals->first);
  return true;
}

// check_ends checks both ends of the file: that it is a dump of a known format, and complete.
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
  if (base::get_be<uint32_t>(end + kKindAt) != kFileEnd || base::get_be<uint32_t>(end + kSizeAt) != kTotalsSize)
    return DNS_E_TFILE;
  if (!read_totals({0, kFileEnd, dump->body().first(kTotalsSize)}, &totals) || totals.bytes != dump->size)
    return DNS_E_TFILE;
  Frame head;
  status = next_frame(dump, first, &head);
  if (status != DNS_E_NOERROR) return status;
  const bool known = head.kind == kFileHead && head.body.size() == kFileHeadSize;
  return known && base::get_be<uint32_t>(head.body.data()) == kVersion ? DNS_E_NOERROR : DNS_E_TFILE;
}

// ---- a pass over a cache's blocks ----------------------------------------------------------------------------------

constexpr size_t kImagesAtOnce = 512;  // entries put into a cache together

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

// The most threads besides the calling one, and the blocks that justify each.
constexpr size_t kHelpersMax = 3;
constexpr uint64_t kBlocksEach = 2;

// Pass is one pass over a cache's blocks, which loads them into `cache`, or only checks them when that is null.
struct Pass {
  const dns_cdump *dump;
  dns_cache *cache;
  pelk_mutex_t mutex;
  Place at PELK_GUARDED_BY(mutex);  // the next frame to be taken by a thread
  bool ended PELK_GUARDED_BY(mutex) = false;
  dns_status status PELK_GUARDED_BY(mutex) = DNS_E_NOERROR;  // the first failure, which ends the pass for all threads
  uint64_t bytes PELK_GUARDED_BY(mutex) = 0;
  uint64_t seen PELK_GUARDED_BY(mutex) = 0;
  uint64_t kept PELK_GUARDED_BY(mutex) = 0;
};

// take_block takes the next block for the calling thread: its place and, in the thread's buffer, its head. False at the
// end of the pass.
[[nodiscard]] bool take_block(Pass *pass, uint8_t *buffer, Place *at, Frame *frame) {
  const pelk_lock lock(&pass->mutex);
  if (lock.error != 0 || pass->ended || pass->status != DNS_E_NOERROR) return false;
  *at = pass->at;
  pass->status = read_head(pass->dump, at->offset, buffer, frame);
  pass->ended = frame->kind != kBlock;
  if (pass->status != DNS_E_NOERROR || pass->ended) return false;
  pass->at = place_after(*at, *frame);
  pass->bytes += frame->body.size();
  return true;
}

// A block that an earlier pass has checked is not checked again.
[[nodiscard]] dns_status handle_block(const Pass *pass, const Place &at, const Frame &frame, uint64_t *seen,
                                      uint64_t *kept) {
  if (pass->cache == nullptr && at.offset < pass->dump->checked) return DNS_E_NOERROR;
  const dns_status status = read_body(pass->dump, at, frame);
  if (status != DNS_E_NOERROR || pass->cache == nullptr) return status;
  return load_block(pass->dump, frame.body, pass->cache, seen, kept);
}

// run_pass handles blocks until none is left. Each thread of a pass runs it with a buffer of its own.
void run_pass(Pass *pass, uint8_t *buffer) {
  Place at;
  Frame frame;
  while (take_block(pass, buffer, &at, &frame)) {
    uint64_t seen = 0;
    uint64_t kept = 0;
    const dns_status status = handle_block(pass, at, frame, &seen, &kept);
    const pelk_lock lock(&pass->mutex);
    if (pass->status == DNS_E_NOERROR) pass->status = lock.error == 0 ? status : DNS_E_FAIL;
    pass->seen += seen;
    pass->kept += kept;
  }
}

// run_helper is a helper's routine. Without memory it leaves the work to the other threads.
void *run_helper(void *argument) {
  const Buffer buffer = make_buffer();
  if (buffer != nullptr) run_pass(static_cast<Pass *>(argument), buffer.get());
  return nullptr;
}

// helpers_for returns how many helpers are of use from `offset` on: no more than there are other processors.
size_t helpers_for(const dns_cdump *dump, uint64_t offset) {
  cpu_set_t processors;
  if (sched_getaffinity(0, sizeof processors, &processors) != 0) return 0;
  const uint64_t blocks = (dump->size - std::min(offset, dump->size)) / kBlockMax;
  return std::min<uint64_t>({kHelpersMax, static_cast<size_t>(CPU_COUNT(&processors)) - 1, blocks / kBlocksEach});
}

// run_with_helpers returns when no block is left or a thread has failed.
void run_with_helpers(Pass *pass, dns_cdump *dump, uint64_t offset) {
  std::array<pelk_thread_t, kHelpersMax> helpers;
  const size_t wanted = helpers_for(dump, offset);
  size_t count = 0;
  while (count < wanted && pelk_thread_create(&helpers[count], run_helper, pass) == 0)
    ++count;
  run_pass(pass, dump->frame.get());
  while (count > 0)
    (void)pelk_thread_join(helpers[--count]);
}

// Found is what a pass has counted.
struct Found {
  uint64_t bytes = 0;
  uint64_t seen = 0;
  uint64_t kept = 0;
};

// pass_over_blocks runs a pass from `*at` on and leaves `*at` at the frame after the blocks.
[[nodiscard]] dns_status pass_over_blocks(dns_cdump *dump, dns_cache *cache, Place *at, Found *found) {
  Pass pass = {.dump = dump, .cache = cache, .mutex = {}, .at = *at};
  if (pelk_mutex_init(&pass.mutex) != 0) return DNS_E_FAIL;
  run_with_helpers(&pass, dump, at->offset);
  dns_status status = DNS_E_FAIL;
  {
    const pelk_lock lock(&pass.mutex);
    status = pass.status;
    *at = pass.at;
    *found = {pass.bytes, pass.seen, pass.kept};
  }
  (void)pelk_mutex_destroy(&pass.mutex);
  return status;
}

// check_blocks checks a cache's blocks and its end, and moves `*at` past the end.
[[nodiscard]] dns_status check_blocks(dns_cdump *dump, Place *at) {
  Found found;
  Frame end;
  dns_status status = pass_over_blocks(dump, nullptr, at, &found);
  if (status == DNS_E_NOERROR) status = next_frame(dump, at, &end);
  if (status != DNS_E_NOERROR) return status;
  const bool ended = end.kind == kCacheEnd && read_totals(end, &dump->totals);
  // The number of entries must be possible for that many bytes.
  const uint64_t most = found.bytes / kImageMin, least = (found.bytes + kImageMax - 1) / kImageMax;
  const bool sound =
      ended && dump->totals.bytes == found.bytes && dump->totals.first >= least && dump->totals.first <= most;
  return sound ? DNS_E_NOERROR : DNS_E_TFILE;
}

// ---- the caches of a dump -----------------------------------------------------------------------------------------

// next_cache checks the cache whose head is at `at` and makes it the current one: 1; or 0 when the file's end is there.
[[nodiscard]] int next_cache(dns_cdump *dump, Place at) {
  Frame frame;
  dump->state = State::kBefore;
  dns_status status = next_frame(dump, &at, &frame);
  if (status != DNS_E_NOERROR) return status;
  Totals totals;
  if (frame.kind == kFileEnd) {
    if (!read_totals(frame, &totals) || totals != Totals{dump->caches, at.offset} || at.offset != dump->size)
      return DNS_E_TFILE;
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

[[nodiscard]] dns_status load_cache(dns_cdump *dump, dns_cache *cache) {
  Place at = dump->blocks;
  Found found;
  dump->shown = {at, {}, 0};  // a pass reuses its frame
  cache_expect(cache, dump->totals.first);
  const dns_status status = pass_over_blocks(dump, cache, &at, &found);
  if (status != DNS_E_NOERROR) return status;
  if (found.seen != dump->totals.first) return DNS_E_TFILE;
  return found.kept > 0 ? DNS_E_NOERROR : DNS_E_NODATA;
}

// show_block reads blocks until there is one with entries left to show: 1; 0 at their end. After a failure the walk
// stays where it is.
[[nodiscard]] int show_block(dns_cdump *dump) {
  Shown *shown = &dump->shown;
  while (shown->left.empty()) {
    Frame frame;
    Place at = shown->next;
    const dns_status status = next_frame(dump, &at, &frame);
    if (status != DNS_E_NOERROR) return status;
    if (frame.kind != kBlock) return shown->entries == dump->totals.first ? 0 : DNS_E_TFILE;
    shown->next = at;
    shown->left = frame.body;
  }
  return 1;
}

}  // namespace

}  // namespace dns::dump

using namespace dns::dump;

extern "C" {

dns_cdump *dns_cdump_load_init(int fd, dns_time now) {
  const pelk_no_cancel whole;
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
  const pelk_no_cancel whole;
  if (dump == nullptr || dump->state == State::kSaving) return DNS_E_INVAL;
  Place first;
  dump->state = State::kBefore;
  dump->caches = 0;
  const dns_status status = check_ends(dump, &first);
  return status == DNS_E_NOERROR ? next_cache(dump, first) : status;
}

int dns_cdump_next_cache(dns_cdump *dump) {
  const pelk_no_cancel whole;
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
  const pelk_no_cancel whole;
  if (dump == nullptr || dump->state != State::kOnCache || cache == nullptr) return DNS_E_INVAL;
  return dump->totals.first == 0 ? DNS_E_NODATA : load_cache(dump, cache);
}

int dns_cdump_next_entry(dns_cdump *dump, dns_cdata *entry) {
  const pelk_no_cancel whole;
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
  const pelk_no_cancel whole;
  if (dump == nullptr || dump->state == State::kSaving) return DNS_E_INVAL;
  delete dump;
  return 0;
}

}  // extern "C"
