// cache_image.h - images: the form in which entries leave a cache and come back, bytes in network order.
//
// An image is its head (when the entry was stored, TTL, run size, response code, name size), its key (type, class,
// name), and its run. Images are written under a shard's mutex and read without one: an image is untrusted until
// read_image has checked it. cache_walk, cache_expect and cache_restore may run on any thread, and hold one shard's
// mutex at a time.
#ifndef CACHE_IMAGE_H
#define CACHE_IMAGE_H

#include <stddef.h>
#include <stdint.h>

#include <span>

#include <byte_order.h>
#include <cdata.h>
#include <kavo/dns.h>

namespace dns {

struct Entry;

// Image is what an image says.
struct Image {
  dns_time stored;
  int32_t ttl;
  uint16_t typ;
  uint16_t cls;
  uint8_t rcode;
  uint8_t dn_size;
  RunFacts facts;
  std::span<const uint8_t> key;   // type, class, name: what a cache hashes, without regard to letter case
  std::span<const uint8_t> body;  // name and run, side by side as in an entry
};

inline constexpr size_t kImageKeyHead = 2 + 2;
inline constexpr size_t kImageHead = 8 + 4 + 2 + 1 + 1 + kImageKeyHead;
inline constexpr size_t kImageMin = kImageHead + 1;  // of the root, without records
inline constexpr size_t kImageMax = kImageHead + DNS_MAXDN + kRunMax;

// write_key writes a key in an image's form, at most kImageKeyHead + DNS_MAXDN bytes; returns their number.
[[nodiscard]] size_t write_key(uint16_t typ, uint16_t cls, std::span<const uint8_t> dn, uint8_t *to);

[[nodiscard]] size_t image_size(const Entry &entry);
// write_image writes image_size bytes.
void write_image(Entry *entry, uint8_t *to);
// read_image takes the image at the beginning of `*bytes` and moves `*bytes` past it; the image points into the bytes.
// False for an image that no cache can have written.
[[nodiscard]] bool read_image(std::span<const uint8_t> *bytes, Image *image);
// image_to_cdata makes `entry` hold what the image says, as old as it is at `now`. False without memory.
[[nodiscard]] bool image_to_cdata(const Image &image, dns_time now, dns_cdata *entry);

// CacheWalk is a place in a walk over a cache. Only the walk itself changes it.
struct CacheWalk {
  unsigned shard = 0;
  size_t bucket = 0;
  uint64_t through = 0;  // entries up to this hash are done; above 0 only in a bucket larger than a whole room
};

// Images are filled by a walk.
struct Images {
  std::span<uint8_t> room;  // kImageMax at least
  size_t used = 0;
  uint64_t entries = 0;
};

// cache_walk appends the images of entries that `cache` would return at `now`, from `walk` on. Above 0: the room is
// full; 0: the cache has been walked to its end; DNS_E_FAIL. Any thread may use the cache meanwhile: a shard's mutex is
// held for a few dozen entries at a time. An entry that is there all the while is found. One that is inserted, removed
// or replaced meanwhile may be missed, and some may be found twice.
[[nodiscard]] int cache_walk(dns_cache *cache, CacheWalk *walk, dns_time now, Images *images);

// cache_expect prepares a cache for `entries` more, so that putting them costs less.
void cache_expect(dns_cache *cache, uint64_t entries);

// cache_restore puts entries back as old as they are: those that the cache would still return and has nothing newer
// for. `*kept` grows by their number. 0; DNS_E_NOMEM, DNS_E_FAIL. An entry too large for the cache is left out.
[[nodiscard]] int cache_restore(dns_cache *cache, std::span<const Image> images, dns_time now, uint64_t *kept);

}  // namespace dns

#endif  // CACHE_IMAGE_H
