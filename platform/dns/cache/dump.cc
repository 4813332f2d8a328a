// dump.cc - cache dumps: the context, and the writer (dump.h has the format).
//
// A save runs on its caller's thread. It uses the memory of one block, whatever the cache's size.
#include "dump.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>

#include <new>
#include <utility>

#include <cacher.h>
#include <pelk_file.h>
#include <pelk_thread.h>

namespace dns::dump {

dns_cdump *open_dump(int fd, dns_time now) {
  std::unique_ptr<dns_cdump> dump(new (std::nothrow) dns_cdump);
  if (dump == nullptr) return nullptr;
  dump->frame = make_buffer();
  dump->fd = fcntl(fd, F_DUPFD_CLOEXEC, PELK_DESCRIPTOR_MIN);
  dump->now = now;
  return dump->frame != nullptr && dump->fd >= 0 ? dump.release() : nullptr;
}

namespace {

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
  base::put_be(frame + kKindAt, static_cast<uint32_t>(kind));
  base::put_be(frame + kSizeAt, static_cast<uint32_t>(body_size));
  dump->place.sum = sum_of(dump->place.sum, frame, body_size);
  base::put_be(frame, dump->place.sum);
  dump->place.offset += kFrameHead + body_size;
  return write_whole(dump->fd, {frame, kFrameHead + body_size});
}

[[nodiscard]] dns_status put_totals(dns_cdump *dump, Kind kind, const Totals &totals) {
  base::put_be(dump->body().data(), totals.first);
  base::put_be(dump->body().data() + sizeof totals.first, totals.bytes);
  return put_frame(dump, kind, kTotalsSize);
}

[[nodiscard]] dns_status put_file_head(dns_cdump *dump) {
  const dns_status status = write_whole(dump->fd, kMagic);
  if (status != DNS_E_NOERROR) return status;
  base::put_be(dump->body().data(), kVersion);
  base::put_be(dump->body().data() + sizeof kVersion, static_cast<uint64_t>(dump->now));
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

}  // namespace

}  // namespace dns::dump

using namespace dns::dump;

extern "C" {

dns_cdump *dns_cdump_save_init(int fd, dns_time now) {
  const pelk_no_cancel whole;
  const int mode = fcntl(fd, F_GETFL);
  if (mode < 0 || (mode & O_ACCMODE) == O_RDONLY) return nullptr;
  dns_cdump *dump = open_dump(fd, now);
  if (dump == nullptr) return nullptr;
  dump->state = State::kSaving;
  dump->status = put_file_head(dump);
  return dump;
}

int dns_cdump_save_cache(dns_cdump *dump, dns_cache *cache, const void *udata, unsigned size) {
  const pelk_no_cancel whole;
  if (dump == nullptr || dump->state != State::kSaving || cache == nullptr) return DNS_E_INVAL;
  if (size > kUserDataMax || (udata == nullptr && size > 0)) return DNS_E_INVAL;
  if (dump->status == DNS_E_NOERROR) dump->status = put_cache(dump, cache, {static_cast<const uint8_t *>(udata), size});
  if (dump->status == DNS_E_NOERROR) dump->caches += 1;
  return dump->status;
}

int dns_cdump_save_finish(dns_cdump *dump) {
  const pelk_no_cancel whole;
  if (dump == nullptr || dump->state != State::kSaving) return DNS_E_INVAL;
  const std::unique_ptr<dns_cdump> owned(dump);
  if (dump->status != DNS_E_NOERROR) return dump->status;
  const uint64_t size = dump->place.offset + kFrameHead + kTotalsSize;
  const dns_status status = put_totals(dump, kFileEnd, {dump->caches, size});
  const bool closed = close(std::exchange(dump->fd, -1)) == 0;
  return closed ? status : DNS_E_WFILE;
}

}  // extern "C"
