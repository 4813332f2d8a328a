// address_text.cc - addresses as labels of the names that lists are queried for (RFC 5782), and as texts. Stateless;
// any thread.
#include <arpa/inet.h>
#include <string.h>

#include <algorithm>
#include <array>

#include <dns_wire.h>

namespace {

constexpr unsigned kNibbleBits = 4;
constexpr unsigned kNibbleMask = 0x0F;
constexpr unsigned kNibbleLabelBytes = 2;  // a length byte and one hexadecimal digit

// OctetLabel is an octet's label: a length byte, and its decimal digits without leading zeros.
using OctetLabel = std::array<uint8_t, 4>;
constexpr std::array<OctetLabel, UINT8_MAX + 1> kOctetLabels = [] {
  std::array<OctetLabel, UINT8_MAX + 1> labels{};
  for (unsigned octet = 0; octet < labels.size(); ++octet) {
    constexpr unsigned kTen = 10;
    constexpr unsigned kHundred = 100;
    const unsigned digits = octet >= kHundred ? 3 : octet >= kTen ? 2 : 1;
    labels[octet][0] = static_cast<uint8_t>(digits);
    for (unsigned i = digits, rest = octet; i > 0; --i, rest /= kTen)
      labels[octet][i] = static_cast<uint8_t>('0' + rest % kTen);
  }
  return labels;
}();

// put_octet writes an octet's label. Returns the position after it, or null when it does not fit before `end`.
unsigned char *put_octet(uint8_t octet, unsigned char *at, const unsigned char *end) {
  const OctetLabel &label = kOctetLabels[octet];
  const size_t size = size_t{1} + label[0];
  const auto room = static_cast<size_t>(end - at);
  if (room < size) return nullptr;
  if (room >= label.size()) {
    memcpy(at, label.data(), label.size());
  } else {
    std::copy_n(label.begin(), size, at);
  }
  return at + size;
}

unsigned char *put_nibble(unsigned nibble, unsigned char *at) {
  constexpr char kHex[] = "0123456789abcdef";
  *at++ = 1;
  *at++ = static_cast<unsigned char>(kHex[nibble]);
  return at;
}

}  // namespace

unsigned char *dns_a4todn_(const struct in_addr *address, unsigned char *dn, const unsigned char *end) {
  if (address == nullptr || dn == nullptr || end == nullptr) return nullptr;
  unsigned char octets[sizeof address->s_addr];
  memcpy(octets, &address->s_addr, sizeof octets);
  for (size_t i = sizeof octets; i > 0 && dn != nullptr; --i)
    dn = put_octet(octets[i - 1], dn, end);
  return dn;
}

unsigned char *dns_a6todn_(const struct in6_addr *address, unsigned char *dn, const unsigned char *end) {
  if (address == nullptr || dn == nullptr || end == nullptr) return nullptr;
  const auto &octets = address->s6_addr;
  constexpr size_t kOctets = sizeof(struct in6_addr);
  if (end - dn < static_cast<ptrdiff_t>(kOctets * 2 * kNibbleLabelBytes)) return nullptr;
  for (size_t i = kOctets; i > 0; --i) {
    dn = put_nibble(octets[i - 1] & kNibbleMask, dn);
    dn = put_nibble(octets[i - 1] >> kNibbleBits, dn);
  }
  return dn;
}

int dns_pton(int family, const char *text, void *address) {
  if (text == nullptr || address == nullptr) return -1;
  return inet_pton(family, text, address);
}

const char *dns_ntop(int family, const void *address, char *text, unsigned size) {
  if (address == nullptr || text == nullptr) return nullptr;
  return inet_ntop(family, address, text, size);
}
