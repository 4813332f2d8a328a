// cache_image.cc - entries to images and back. Pure functions on what the caller holds; nothing here locks.
#include <cache_image.h>

#include <string.h>

#include "cache_shard.h"

namespace dns {

namespace {

constexpr uint8_t kRcodeMax = 15;  // a response code is four bits of a packet's header

constexpr size_t kTtlAt = 8;
constexpr size_t kRunSizeAt = 12;
constexpr size_t kRcodeAt = 14;
constexpr size_t kDnSizeAt = 15;
constexpr size_t kKeyAt = 16;
constexpr size_t kClsInKey = 2;
static_assert(kKeyAt + kImageKeyHead == kImageHead && DNS_MAXDN == UINT8_MAX);

// whole_name tells whether `bytes`, at most DNS_MAXDN, are a DN and nothing else.
[[nodiscard]] bool whole_name(std::span<const uint8_t> bytes) {
  size_t at = 0;
  while (at < bytes.size() && bytes[at] != 0 && bytes[at] <= DNS_MAXLABEL)
    at += 1 + size_t{bytes[at]};
  return at + 1 == bytes.size() && bytes[at] == 0;
}

}  // namespace

size_t write_key(uint16_t typ, uint16_t cls, std::span<const uint8_t> dn, uint8_t *to) {
  base::put_be(to, typ);
  base::put_be(to + kClsInKey, cls);
  memcpy(to + kImageKeyHead, dn.data(), dn.size());
  return kImageKeyHead + dn.size();
}

size_t image_size(const Entry &entry) {
  return kImageHead + entry.dn_size + entry.run_size;
}

void write_image(Entry *entry, uint8_t *to) {
  base::put_be(to, static_cast<uint64_t>(entry->stored));
  base::put_be(to + kTtlAt, static_cast<uint32_t>(entry->ttl));
  base::put_be(to + kRunSizeAt, entry->run_size);
  to[kRcodeAt] = entry->rcode;
  to[kDnSizeAt] = entry->dn_size;
  base::put_be(to + kKeyAt, entry->typ);
  base::put_be(to + kKeyAt + kClsInKey, entry->cls);
  memcpy(to + kImageHead, entry->dn(), size_t{entry->dn_size} + entry->run_size);  // they are side by side there too
}

bool read_image(std::span<const uint8_t> *bytes, Image *image) {
  if (bytes->size() < kImageHead) return false;
  const uint8_t *head = bytes->data();
  const size_t run_size = base::get_be<uint16_t>(head + kRunSizeAt);
  const size_t dn_size = head[kDnSizeAt];
  const uint32_t ttl = base::get_be<uint32_t>(head + kTtlAt);
  if (run_size > kRunMax || ttl > INT32_MAX || head[kRcodeAt] > kRcodeMax) return false;
  if (bytes->size() - kImageHead < dn_size + run_size) return false;
  image->stored = static_cast<dns_time>(base::get_be<uint64_t>(head));
  image->ttl = static_cast<int32_t>(ttl);
  image->typ = base::get_be<uint16_t>(head + kKeyAt);
  image->cls = base::get_be<uint16_t>(head + kKeyAt + kClsInKey);
  image->rcode = head[kRcodeAt];
  image->dn_size = head[kDnSizeAt];
  image->key = bytes->subspan(kKeyAt, kImageKeyHead + dn_size);
  image->body = bytes->subspan(kImageHead, dn_size + run_size);
  *bytes = bytes->subspan(kImageHead + dn_size + run_size);
  return whole_name(image->body.first(dn_size)) && run_facts(image->body.subspan(dn_size), &image->facts);
}

bool image_to_cdata(const Image &image, dns_time now, dns_cdata *entry) {
  const std::span<const uint8_t> run = image.body.subspan(image.dn_size);
  if (!cdata_reserve(entry, run.size())) return false;
  memcpy(entry->dn, image.body.data(), image.dn_size);
  entry->dn_size = image.dn_size;
  entry->cls = image.cls;
  entry->typ = image.typ;
  entry->rcode = image.rcode;
  entry->age = age_since(image.stored, now);
  entry->ttl = image.ttl - entry->age;
  entry->records = image.facts.records;
  entry->cnames = image.facts.cnames;
  entry->run_size = run.size();
  entry->next = 0;
  if (entry->run_size == 0) return true;
  memcpy(entry->run, run.data(), entry->run_size);
  run_settle({entry->run, entry->run_size}, 0, 0, INT32_MAX);
  return true;
}

}  // namespace dns
