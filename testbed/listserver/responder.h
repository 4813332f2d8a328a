// responder.h - turns one query into one answer: bytes in, bytes out, no socket and no clock.
//
// The transport gives the largest size of an answer without EDNS. The Reply tells the transport what to do with the
// answer, and which faults remain for it (dropping, holding back, doubling).
#ifndef KAVO_TOOLS_LISTSERVER_RESPONDER_H
#define KAVO_TOOLS_LISTSERVER_RESPONDER_H

#include <array>
#include <cstdint>
#include <span>

#include <cursor.h>
#include <message.h>
#include "zone_file.h"

namespace listserver {

inline constexpr size_t kUdpPlain = 512;  // bytes of an answer to a query without EDNS (RFC 1035, 4.2.1)
inline constexpr size_t kUdpMax = 4096;   // and with it

// Counts is what the server has seen. A query of class CHAOS for TXT "stats.listserver" returns it and is not counted.
struct Counts {
  uint64_t received = 0;
  uint64_t answered = 0;  // packets sent, doubles included
  uint64_t dropped = 0;   // queries left without an answer on request
  uint64_t broken = 0;    // packets that are no queries
};

struct Reply {
  size_t size = 0;                 // 0: nothing to send
  const Faults *faults = nullptr;  // null: none
  bool counted = true;
};

class Responder {
 public:
  // All are kept by reference and outlive the responder.
  Responder(const Config &config, const Counts &counts, Chance *chance)
      : config_(config), counts_(counts), chance_(chance) {}

  // answer writes the answer to `packet` into `buffer` and returns what to do with it.
  Reply answer(std::span<const uint8_t> packet, std::span<uint8_t> buffer, size_t size_plain);

 private:
  struct Query {
    dns::Header header;
    std::array<uint8_t, DNS_MAXDN> dn;  // as it came
    std::array<char, DNS_MAXDN> lower;  // in lower case
    unsigned dn_size = 0;
    uint16_t type = 0;
    uint16_t cls = 0;
    bool edns = false;
    uint8_t edns_version = 0;
    size_t size_max = 0;
  };
  struct Sections {
    bool aa = false;
    bool tc = false;
    uint16_t rcode = 0;
    uint16_t answers = 0;
    uint16_t authority = 0;
  };

  bool read(std::span<const uint8_t> packet, size_t size_plain, Query *query) const;
  void read_edns(std::span<const uint8_t> packet, size_t at, Query *query) const;
  size_t write(const Query &query, const Zone *zone, size_t zone_at, Wrong wrong, std::span<uint8_t> buffer);
  void write_sections(const Query &query, const Zone *zone, size_t zone_at, Wrong wrong, dns::Writer *writer,
                      Sections *sections);
  static void write_header(const Query &query, const Sections &sections, std::span<uint8_t> buffer);
  bool write_wrong(const Query &query, const Zone &zone, Wrong wrong, dns::Writer *writer, Sections *sections);
  void write_zone(const Query &query, const Zone *zone, size_t zone_at, dns::Writer *writer, Sections *sections);
  void write_stats(dns::Writer *writer, Sections *sections) const;
  size_t spoil(Wrong wrong, std::span<uint8_t> packet);

  const Config &config_;
  const Counts &counts_;
  Chance *chance_;
};

}  // namespace listserver

#endif  // KAVO_TOOLS_LISTSERVER_RESPONDER_H
