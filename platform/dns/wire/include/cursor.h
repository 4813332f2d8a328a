// cursor.h - Reader and Writer: cursors over the bytes of packets that cannot pass the end.
//
// Untrusted bytes are parsed with Reader, and packets are built with Writer. Each is a small local object of one
// thread, so nothing guards it. A cursor neither owns nor copies the bytes: the caller keeps them in place, and
// unchanged for a Reader. Nothing here allocates.
#ifndef CURSOR_H
#define CURSOR_H

#include <arpa/inet.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <span>

namespace dns {

// load_u16 and load_u32 read numbers in network order, store_u16 and store_u32 write them.
[[nodiscard]] inline uint16_t load_u16(const uint8_t *at) {
  uint16_t wire;
  memcpy(&wire, at, sizeof wire);
  return ntohs(wire);
}
[[nodiscard]] inline uint32_t load_u32(const uint8_t *at) {
  uint32_t wire;
  memcpy(&wire, at, sizeof wire);
  return ntohl(wire);
}
inline void store_u16(uint8_t *at, uint16_t value) {
  const uint16_t wire = htons(value);
  memcpy(at, &wire, sizeof wire);
}
inline void store_u32(uint8_t *at, uint32_t value) {
  const uint32_t wire = htonl(value);
  memcpy(at, &wire, sizeof wire);
}

// Reader walks untrusted bytes. Every read either succeeds whole or leaves the cursor where it was and returns false.
// Names may point back into the whole packet (RFC 1035, 4.1.4): only strictly backwards, so that reading one always
// ends.
class Reader {
 public:
  Reader(std::span<const uint8_t> packet, size_t position)
      : packet_(packet), at_(position < packet.size() ? position : packet.size()) {}
  explicit Reader(std::span<const uint8_t> packet) : Reader(packet, 0) {}

  [[nodiscard]] size_t position() const { return at_; }
  [[nodiscard]] size_t left() const { return packet_.size() - at_; }
  [[nodiscard]] std::span<const uint8_t> packet() const { return packet_; }
  [[nodiscard]] bool skip(size_t count) {
    if (count > left()) return false;
    at_ += count;
    return true;
  }
  [[nodiscard]] bool u8(uint8_t *value) {
    if (left() < sizeof *value) return false;
    *value = packet_[at_++];
    return true;
  }
  [[nodiscard]] bool u16(uint16_t *value) {
    if (left() < sizeof *value) return false;
    *value = load_u16(packet_.data() + at_);
    at_ += sizeof *value;
    return true;
  }
  [[nodiscard]] bool u32(uint32_t *value) {
    if (left() < sizeof *value) return false;
    *value = load_u32(packet_.data() + at_);
    at_ += sizeof *value;
    return true;
  }
  [[nodiscard]] bool bytes(size_t count, std::span<const uint8_t> *value) {
    if (count > left()) return false;
    *value = packet_.subspan(at_, count);
    at_ += count;
    return true;
  }
  // name reads a DN into `dn` (DNS_MAXDN bytes), following pointers; its length goes to `size` (null allowed).
  // check_name does the same checks and stores nothing.
  [[nodiscard]] bool name(uint8_t *dn, unsigned *size = nullptr);
  [[nodiscard]] bool check_name();
  // passes moves past `value` if these are the next bytes; otherwise it returns false.
  [[nodiscard]] bool passes(std::span<const uint8_t> value) {
    if (value.size() > left() || memcmp(packet_.data() + at_, value.data(), value.size()) != 0) return false;
    at_ += value.size();
    return true;
  }
  // skip_name moves past a name without following its pointer.
  [[nodiscard]] bool skip_name();

 private:
  template <typename Keep>
  [[nodiscard]] bool walk_name(Keep keep);

  std::span<const uint8_t> packet_;
  size_t at_;
};

// Writer fills a buffer. A write that does not fit changes nothing but `ok`, which then stays false.
class Writer {
 public:
  explicit Writer(std::span<uint8_t> buffer, size_t position = 0) : buffer_(buffer), at_(position) {}

  void u8(uint8_t value) {
    uint8_t *place = room(sizeof value);
    if (place != nullptr) *place = value;
  }
  void u16(uint16_t value) {
    uint8_t *place = room(sizeof value);
    if (place != nullptr) store_u16(place, value);
  }
  void u32(uint32_t value) {
    uint8_t *place = room(sizeof value);
    if (place != nullptr) store_u32(place, value);
  }
  void bytes(std::span<const uint8_t> value) {
    uint8_t *place = room(value.size());
    if (place != nullptr && !value.empty()) memcpy(place, value.data(), value.size());
  }
  void name(const uint8_t *dn);
  void patch_u16(size_t position, uint16_t value);
  [[nodiscard]] bool ok() const { return ok_; }
  [[nodiscard]] size_t position() const { return at_; }

 private:
  uint8_t *room(size_t count) {
    if (!ok_ || at_ > buffer_.size() || count > buffer_.size() - at_) {
      ok_ = false;
      return nullptr;
    }
    uint8_t *place = buffer_.data() + at_;
    at_ += count;
    return place;
  }

  std::span<uint8_t> buffer_;
  size_t at_;
  bool ok_ = true;
};

}  // namespace dns

#endif  // CURSOR_H
