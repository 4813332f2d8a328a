// zones.h - what the list server knows: zones, their list entries and their plain records, and the search for a name.
//
// Everything is filled once, before the first query, and only read afterwards. Names are DNs in lower case, held as
// strings with their closing zero byte; a record's data is in wire form, the names in it written whole.
#ifndef KAVO_TOOLS_LISTSERVER_ZONES_H
#define KAVO_TOOLS_LISTSERVER_ZONES_H

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "faults.h"

namespace listserver {

// dn_from_text returns the lower-case DN of a name's text; throws std::runtime_error for a text that is no name.
// `absolute` (null allowed) is told whether the text ends in a dot.
std::string dn_from_text(std::string_view text, bool *absolute = nullptr);
std::string text_from_dn(const std::string &dn);

struct Record {
  uint16_t type;
  uint32_t ttl;
  std::string data;
};

// Node is the records of one name, or of every name of a list entry.
struct Node {
  std::vector<Record> records;
};

// Address is an address of either family as 128 bits, IPv4 in the highest 32, so that a prefix is always the leading
// bits.
struct Address {
  uint64_t high = 0;
  uint64_t low = 0;
  bool operator==(const Address &) const = default;
};
struct AddressHash {
  size_t operator()(const Address &address) const;
};
Address prefix_of(Address address, unsigned bits);

// Prefixes finds the longest prefix that holds an address: one hash lookup for each length that occurs.
class Prefixes {
 public:
  void add(Address address, unsigned bits, const Node *node);
  [[nodiscard]] const Node *find(Address address) const;

 private:
  struct Length {
    unsigned bits;
    std::unordered_map<Address, const Node *, AddressHash> nodes;
  };
  std::vector<Length> lengths_;  // the longest first
};

class Zone {
 public:
  explicit Zone(std::string dn);

  // The entries keep a pointer to the node, which keep() has made the zone's own.
  const Node *keep(Node node);
  void list_ip4(Address address, unsigned bits, const Node *node) { ip4_.add(address, bits, node); }
  void list_ip6(Address address, unsigned bits, const Node *node) { ip6_.add(address, bits, node); }
  void list_name(const std::string &dn, const Node *node);      // dn: relative to the zone, as are all below
  void list_below(const std::string &dn, const Node *node);     // every name below dn, not dn itself
  void add_record(const std::string &owner_dn, Record record);  // owner_dn: whole, at or below the zone

  // Search is what a name means in this zone: a node, or a name that exists without records of its own, or neither.
  struct Search {
    const Node *node = nullptr;
    bool exists = false;
  };
  [[nodiscard]] Search find(std::string_view dn) const;  // dn: whole, at or below the zone

  std::string dn;
  std::string soa;  // the SOA record's data
  uint32_t soa_ttl = 0;
  uint32_t negative_ttl = 0;  // how long a negative answer may be kept: the lesser of the SOA's TTL and its minimum
  Faults faults;

 private:
  [[nodiscard]] const Node *find_below(std::string_view relative) const;
  void add_ancestors(std::string_view dn, size_t end);

  std::deque<Node> nodes_;
  Prefixes ip4_;
  Prefixes ip6_;
  std::unordered_map<std::string_view, const Node *> names_;  // keys point into texts_
  std::unordered_map<std::string_view, const Node *> below_;
  std::unordered_map<std::string_view, Node *> records_;
  std::unordered_set<std::string_view> ancestors_;  // empty non-terminals, relative
  std::deque<std::string> texts_;
};

// ZoneSet finds the zone of a name: the one with the longest name.
class ZoneSet {
 public:
  // add throws std::runtime_error for a zone that is there already.
  Zone *add(std::string dn);
  [[nodiscard]] Zone *get(const std::string &dn) const;
  struct Match {
    const Zone *zone = nullptr;
    size_t at = 0;  // where the zone's name begins in the name that was searched
  };
  [[nodiscard]] Match find(std::string_view dn) const;
  [[nodiscard]] const std::vector<std::unique_ptr<Zone>> &all() const { return zones_; }

 private:
  std::vector<std::unique_ptr<Zone>> zones_;
  std::unordered_map<std::string_view, Zone *> by_name_;  // keys are the zones' own dn
  std::vector<unsigned> depths_;                          // numbers of labels that zones have, the greatest first
};

}  // namespace listserver

#endif  // KAVO_TOOLS_LISTSERVER_ZONES_H
