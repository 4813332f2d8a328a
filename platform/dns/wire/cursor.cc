// cursor.cc - see cursor.h. Pointers in untrusted bytes are resolved here and nowhere else. Stateless; any thread.
#include <cursor.h>

#include <algorithm>

#include <dns_wire.h>

namespace dns {
namespace {

constexpr unsigned kByteBits = 8;
constexpr uint8_t kPointer = 0xC0;  // the two top bits of a length byte that starts a pointer
constexpr uint8_t kPointerHigh = 0x3F;
constexpr size_t kPointerBytes = 2;
// A name has at most 127 labels, and an honest pointer leads to a label. A name with more jumps was made to waste time.
constexpr unsigned kJumpsMax = 127;

}  // namespace

// walk_name walks a name and its pointers, and hands each label with its length byte to `keep`, which returns false for
// a label that makes the name too long.
template <typename Keep>
bool Reader::walk_name(Keep keep) {
  const uint8_t *bytes = packet_.data();
  const size_t end = packet_.size();
  size_t piece = at_;  // where the labels being read begin: a pointer must lead to before it
  size_t after = 0;    // where reading continues: after the name's first pointer
  unsigned size = 0;
  unsigned jumps = 0;
  for (size_t at = at_; at < end;) {
    const uint8_t length = bytes[at];
    if (length <= DNS_MAXLABEL) {
      const unsigned label = length + 1U;
      const unsigned closing = length == 0 ? 0 : 1;
      if (size + label + closing > DNS_MAXDN || label > end - at) return false;
      keep(bytes + at, size, label);
      size += label;
      at += label;
      if (length != 0) continue;
      at_ = after != 0 ? after : at;
      return true;
    }
    if ((length & kPointer) != kPointer || end - at < kPointerBytes) return false;
    const size_t target = static_cast<size_t>(length & kPointerHigh) << kByteBits | bytes[at + 1];
    if (target >= piece || ++jumps > kJumpsMax) return false;
    if (after == 0) after = at + kPointerBytes;
    piece = at = target;
  }
  return false;
}

bool Reader::name(uint8_t *dn, unsigned *size) {
  unsigned written = 0;
  const bool whole = walk_name([&](const uint8_t *label, unsigned at, unsigned count) {
    std::copy(label, label + count, dn + at);
    written = at + count;
  });
  if (whole && size != nullptr) *size = written;
  return whole;
}

bool Reader::check_name() {
  return walk_name([](const uint8_t *, unsigned, unsigned) {});
}

bool Reader::skip_name() {
  const uint8_t *bytes = packet_.data();
  const size_t end = packet_.size();
  for (size_t at = at_; at < end;) {
    const uint8_t length = bytes[at];
    const bool pointer = (length & kPointer) == kPointer;
    if (!pointer && length > DNS_MAXLABEL) return false;
    const size_t step = pointer ? kPointerBytes : length + size_t{1};
    if (step > end - at) return false;
    at += step;
    if (!pointer && at - at_ > DNS_MAXDN) return false;
    if (!pointer && length != 0) continue;
    at_ = at;
    return true;
  }
  return false;
}

void Writer::name(const uint8_t *dn) {
  const unsigned length = dns_dnlen(dn);
  if (length == 0) ok_ = false;
  if (length != 0) bytes({dn, length});
}

void Writer::patch_u16(size_t position, uint16_t value) {
  if (position > at_ || at_ - position < sizeof value) ok_ = false;
  if (!ok_) return;
  store_u16(buffer_.data() + position, value);
}

}  // namespace dns
