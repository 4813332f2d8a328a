#include "zones.h"

#include <algorithm>
#include <array>
#include <optional>
#include <stdexcept>

#include <dns_wire.h>

namespace listserver {
namespace {

constexpr unsigned kAddressBits = 128;
constexpr unsigned kWordBits = 64;
constexpr unsigned kIp4Labels = 4;
constexpr unsigned kIp6Labels = 32;
constexpr unsigned kLabelsMax = 127;  // of a DN: each takes two bytes at least
constexpr unsigned kOctetMax = 255;
constexpr unsigned kOctetDigits = 3;

char lower(char byte) {
  return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte - 'A' + 'a') : byte;
}
unsigned label_size(std::string_view dn, size_t at) {
  return static_cast<unsigned char>(dn[at]);
}

// Labels of a DN before `end`, in order.
struct Labels {
  std::array<std::string_view, kLabelsMax> label;
  unsigned count = 0;
};
Labels split(std::string_view dn, size_t end) {
  Labels labels;
  for (size_t at = 0; at < end && labels.count < kLabelsMax; at += label_size(dn, at) + 1) {
    labels.label[labels.count++] = dn.substr(at + 1, label_size(dn, at));
  }
  return labels;
}

// An octet as lists write it: decimal, without leading zeros.
std::optional<unsigned> octet(std::string_view label) {
  if (label.empty() || label.size() > kOctetDigits || (label.size() > 1 && label[0] == '0')) return std::nullopt;
  unsigned value = 0;
  for (const char digit : label) {
    if (digit < '0' || digit > '9') return std::nullopt;
    value = value * 10 + static_cast<unsigned>(digit - '0');
  }
  if (value > kOctetMax) return std::nullopt;
  return value;
}

std::optional<unsigned> nibble(std::string_view label) {
  if (label.size() != 1) return std::nullopt;
  if (label[0] >= '0' && label[0] <= '9') return label[0] - '0';
  if (label[0] >= 'a' && label[0] <= 'f') return label[0] - 'a' + 10;
  return std::nullopt;
}

// Reversed labels, the lowest-order part first, become the leading bits of an address.
template <typename Part>
std::optional<Address> reversed(const Labels &labels, unsigned part_bits, Part part) {
  Address address;
  for (unsigned i = 0; i < labels.count; ++i) {
    const std::optional<unsigned> value = part(labels.label[labels.count - 1 - i]);
    if (!value) return std::nullopt;
    const unsigned shift = kAddressBits - (i + 1) * part_bits;
    if (shift >= kWordBits) {
      address.high |= uint64_t{*value} << (shift - kWordBits);
    } else {
      address.low |= uint64_t{*value} << shift;
    }
  }
  return address;
}

uint64_t leading(unsigned bits) {
  return bits == 0 ? 0 : ~uint64_t{0} << (kWordBits - bits);
}

}  // namespace

std::string dn_from_text(std::string_view text, bool *absolute) {
  if (text.empty()) throw std::runtime_error("a name is missing");
  std::array<unsigned char, DNS_MAXDN> dn;
  int closed = 0;
  const int size = dns_ptodn(text.data(), static_cast<unsigned>(text.size()), dn.data(), DNS_MAXDN, &closed);
  if (size <= 0) throw std::runtime_error("\"" + std::string(text) + "\" is no domain name");
  if (absolute != nullptr) *absolute = closed != 0;
  std::string result(dn.begin(), dn.begin() + size);
  // A length byte is at most 63 and so never one of the letters.
  std::transform(result.begin(), result.end(), result.begin(), lower);
  return result;
}

std::string text_from_dn(const std::string &dn) {
  return dns_dntosp(reinterpret_cast<const unsigned char *>(dn.c_str()));
}

size_t AddressHash::operator()(const Address &address) const {
  constexpr uint64_t kMix = 0x9e3779b97f4a7c15;  // the golden ratio's bits spread neighbouring addresses
  return ((address.high * kMix) ^ (address.low + kMix)) * kMix >> 16;
}

Address prefix_of(Address address, unsigned bits) {
  if (bits <= kWordBits) return {address.high & leading(bits), 0};
  return {address.high, address.low & leading(bits - kWordBits)};
}

void Prefixes::add(Address address, unsigned bits, const Node *node) {
  auto place = std::find_if(lengths_.begin(), lengths_.end(), [&](const Length &l) { return l.bits <= bits; });
  if (place == lengths_.end() || place->bits != bits) place = lengths_.insert(place, Length{bits, {}});
  place->nodes[prefix_of(address, bits)] = node;
}

const Node *Prefixes::find(Address address) const {
  for (const Length &length : lengths_) {
    const auto found = length.nodes.find(prefix_of(address, length.bits));
    if (found != length.nodes.end()) return found->second;
  }
  return nullptr;
}

Zone::Zone(std::string name) : dn(std::move(name)) {}

const Node *Zone::keep(Node node) {
  return &nodes_.emplace_back(std::move(node));
}

// The names between `dn` and the zone exist too, as empty non-terminals at least.
void Zone::add_ancestors(std::string_view name, size_t end) {
  for (size_t at = label_size(name, 0) + 1; at < end; at += label_size(name, at) + 1) {
    ancestors_.insert(texts_.emplace_back(name.substr(at, end - at)));
  }
}

void Zone::list_name(const std::string &relative, const Node *node) {
  const std::string &kept = texts_.emplace_back(relative, 0, relative.size() - 1);
  names_[kept] = node;
  add_ancestors(relative, relative.size() - 1);
}

void Zone::list_below(const std::string &relative, const Node *node) {
  const std::string &kept = texts_.emplace_back(relative, 0, relative.size() - 1);
  below_[kept] = node;
  ancestors_.insert(kept);
  if (!kept.empty()) add_ancestors(relative, relative.size() - 1);
}

void Zone::add_record(const std::string &owner_dn, Record record) {
  const size_t end = owner_dn.size() - dn.size();
  const std::string key = owner_dn.substr(0, end);
  auto found = records_.find(key);
  if (found == records_.end()) {
    if (!key.empty()) add_ancestors(owner_dn, end);
    found = records_.emplace(texts_.emplace_back(key), &nodes_.emplace_back()).first;
  }
  found->second->records.push_back(std::move(record));
}

const Node *Zone::find_below(std::string_view relative) const {
  if (below_.empty()) return nullptr;
  for (size_t at = 0; at < relative.size();) {
    at += label_size(relative, at) + 1;
    const auto found = below_.find(relative.substr(at));
    if (found != below_.end()) return found->second;
  }
  return nullptr;
}

Zone::Search Zone::find(std::string_view name) const {
  const std::string_view relative = name.substr(0, name.size() - dn.size());
  if (const auto found = records_.find(relative); found != records_.end()) return {found->second, true};
  if (relative.empty()) return {nullptr, true};
  const Labels labels = split(relative, relative.size());
  std::optional<Address> address;
  const Node *node = nullptr;
  if (labels.count == kIp4Labels && (address = reversed(labels, 8, octet))) node = ip4_.find(*address);
  if (labels.count == kIp6Labels && (address = reversed(labels, 4, nibble))) node = ip6_.find(*address);
  if (node != nullptr) return {node, true};
  if (const auto found = names_.find(relative); found != names_.end()) return {found->second, true};
  if (ancestors_.contains(relative)) return {nullptr, true};
  node = find_below(relative);
  return {node, node != nullptr};
}

Zone *ZoneSet::add(std::string dn) {
  if (by_name_.contains(dn)) throw std::runtime_error("zone " + text_from_dn(dn) + " is there twice");
  Zone *zone = zones_.emplace_back(std::make_unique<Zone>(std::move(dn))).get();
  by_name_[zone->dn] = zone;
  const unsigned depth = split(zone->dn, zone->dn.size() - 1).count;
  if (std::find(depths_.begin(), depths_.end(), depth) == depths_.end()) {
    depths_.push_back(depth);
    std::sort(depths_.rbegin(), depths_.rend());
  }
  return zone;
}

Zone *ZoneSet::get(const std::string &dn) const {
  const auto found = by_name_.find(dn);
  return found == by_name_.end() ? nullptr : found->second;
}

ZoneSet::Match ZoneSet::find(std::string_view dn) const {
  std::array<uint8_t, kLabelsMax + 1> starts;  // where each label begins, the closing zero byte last
  unsigned count = 0;
  for (size_t at = 0; count < starts.size(); at += label_size(dn, at) + 1) {
    starts[count++] = static_cast<uint8_t>(at);
    if (label_size(dn, at) == 0) break;
  }
  for (const unsigned depth : depths_) {
    if (depth >= count) continue;
    const size_t at = starts[count - 1 - depth];
    const auto found = by_name_.find(dn.substr(at));
    if (found != by_name_.end()) return {found->second, at};
  }
  return {};
}

}  // namespace listserver
