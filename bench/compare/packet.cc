#include "packet.h"

#include <questions.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace compare {
namespace {

constexpr unsigned kOctets = 256;
constexpr unsigned kBits = 8;
constexpr uint32_t kByte = 255;
constexpr size_t kTypeAndClass = 4;
constexpr uint8_t kRcode = 0xf, kNxDomain = 3, kQr = 0x80;
constexpr uint8_t kTypeA = 1, kClassIn = 1;
constexpr uint8_t kPointer = 0xc0;
constexpr size_t kFlagsAt = 2, kRcodeAt = 3, kAnswersAt = 7;  // low byte of the answers' count

// Octet is a number from 0 to 255 as a label: "\3127", and as text: "127.".
struct Octet {
  std::array<char, 4> label, text;
  uint8_t size;  // of either
};

std::array<Octet, kOctets> make_octets() {
  std::array<Octet, kOctets> octets{};
  for (unsigned n = 0; n < kOctets; ++n) {
    const std::string digits = std::to_string(n);
    const std::string label = std::string(1, static_cast<char>(digits.size())) + digits, text = digits + ".";
    octets[n].size = static_cast<uint8_t>(label.size());
    memcpy(octets[n].label.data(), label.data(), label.size());
    memcpy(octets[n].text.data(), text.data(), text.size());
  }
  return octets;
}

const std::array<Octet, kOctets> octets = make_octets();

}  // namespace

Names::Names(unsigned zones) : text_{} {
  const std::string tail_end{'\0', '\0', kTypeA, '\0', kClassIn};
  for (unsigned n = 0; n < zones; ++n) {
    const std::string name = bench::zone(n);
    zone_texts_ += name + '\0';
    for (size_t begin = 0; begin < name.size();) {
      const size_t end = std::min(name.find('.', begin), name.size());
      zone_tails_ += static_cast<char>(end - begin) + name.substr(begin, end - begin);
      begin = end + 1;
    }
    zone_tails_ += tail_end;
  }
  text_size_ = zone_texts_.size() / zones;
  tail_size_ = zone_tails_.size() / zones;
}

// Copies of a fixed size are single instructions, and what they write beyond the octet is written over by the next.
const char *Names::text_of(uint32_t address, unsigned zone) {
  char *at = text_;
  for (unsigned i = 0; i < sizeof address; ++i, address >>= kBits) {
    const Octet &octet = octets[address & kByte];
    memcpy(at, octet.text.data(), octet.text.size());
    at += octet.size;
  }
  memcpy(at, zone_texts_.data() + zone * text_size_, text_size_);
  return text_;
}

size_t Names::put_query(std::span<uint8_t, kPacketMax> packet, uint16_t id, uint32_t address, unsigned zone) const {
  const std::array<uint8_t, kHeaderSize> header = {
      static_cast<uint8_t>(id >> kBits), static_cast<uint8_t>(id), 0, 0, 0, 1, 0, 0, 0, 0, 0, 0};
  memcpy(packet.data(), header.data(), header.size());
  uint8_t *at = packet.data() + header.size();
  for (unsigned i = 0; i < sizeof address; ++i, address >>= kBits) {
    const Octet &octet = octets[address & kByte];
    memcpy(at, octet.label.data(), octet.label.size());
    at += octet.size;
  }
  memcpy(at, zone_tails_.data() + zone * tail_size_, tail_size_);
  return static_cast<size_t>(at - packet.data()) + tail_size_;
}

size_t question_end(std::span<const uint8_t> packet) {
  size_t at = kHeaderSize;
  while (at < packet.size() && packet[at] != 0)
    at += packet[at] + size_t{1};
  at += 1 + kTypeAndClass;
  return at <= packet.size() ? at : 0;
}

Says read_answer(std::span<const uint8_t> packet, size_t question_end) {
  constexpr std::array<uint8_t, 6> kRecord = {kPointer, kHeaderSize, 0, kTypeA, 0, kClassIn};
  constexpr std::array<uint8_t, 6> kData = {0, 4, 127, 0, 0, 2};  // its length, and the address
  constexpr size_t kTtl = 4;
  if (packet.size() < question_end || question_end < kHeaderSize || (packet[kFlagsAt] & kQr) == 0) return Says::nothing;
  const unsigned rcode = packet[kRcodeAt] & kRcode, answers = packet[kAnswersAt];
  if (rcode == kNxDomain && answers == 0) return Says::not_listed;
  if (rcode != 0 || answers != 1 || packet.size() < question_end + kRecord.size() + kTtl + kData.size())
    return Says::nothing;
  const uint8_t *record = packet.data() + question_end;
  const bool right = memcmp(record, kRecord.data(), kRecord.size()) == 0 &&
                     memcmp(record + kRecord.size() + kTtl, kData.data(), kData.size()) == 0;
  return right ? Says::listed : Says::nothing;
}

}  // namespace compare
