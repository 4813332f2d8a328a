#include "responder.h"

#include <record.h>

#include <algorithm>
#include <string>
#include <string_view>

namespace listserver {
namespace {

constexpr uint16_t kClassChaos = 3;
constexpr uint16_t kRcodeBadVersion = 16;  // its upper bits are in the OPT record (RFC 6891, 6.1.3)
constexpr uint16_t kEdnsSize = 1232;       // what the server itself takes
constexpr size_t kOptSize = 11;            // bytes of an OPT record without options
constexpr unsigned kCnamesMax = 16;
constexpr uint16_t kPointer = 0xc000;  // a compressed name: two bits and a position
constexpr size_t kPointerMax = 0x3fff;
constexpr uint16_t kFlagQr = 0x8000, kFlagAa = 0x0400, kFlagTc = 0x0200, kFlagRd = 0x0100;
constexpr unsigned kOpcodeShift = 11;
constexpr unsigned kRcodeBits = 4;  // of the response code, in the header
constexpr unsigned kRcode = 0xf;
constexpr unsigned kOptRcodeShift = 24;    // where the OPT record's TTL field holds its upper bits
constexpr unsigned kOptVersionShift = 16;  // and the version of EDNS
constexpr uint8_t kLetterCase = 0x20;
constexpr std::array<uint8_t, 4> kForeignAddress{198, 18, 0, 1};  // of a network for tests of devices (RFC 2544)
constexpr std::string_view kStatsName("\5stats\12listserver\0", 18);

const uint8_t *bytes(const std::string &text) {
  return reinterpret_cast<const uint8_t *>(text.data());
}
std::span<const uint8_t> span_of(const std::string &text) {
  return {bytes(text), text.size()};
}

bool letter(uint8_t byte) {
  return (byte | kLetterCase) >= 'a' && (byte | kLetterCase) <= 'z';
}

uint16_t rcode_of(Wrong wrong) {
  switch (wrong) {
    case Wrong::servfail:
      return DNS_R_SERVFAIL;
    case Wrong::refused:
      return DNS_R_REFUSED;
    case Wrong::notimpl:
      return DNS_R_NOTIMPL;
    case Wrong::formerr:
      return DNS_R_FORMERR;
    case Wrong::none:
    case Wrong::id:
    case Wrong::question:
    case Wrong::address:
    case Wrong::tc:
    case Wrong::garbage:
    case Wrong::cut:
    case Wrong::loop:
      return DNS_R_NOERROR;
  }
  return DNS_R_NOERROR;
}

// Owner is the owner name of records: its offset in the packet, or the whole name if the offset exceeds a pointer's.
struct Owner {
  size_t at;
  const uint8_t *dn;
};

void write_record(const Owner &owner, uint16_t type, uint32_t ttl, std::span<const uint8_t> data, dns::Writer *writer) {
  if (owner.at != 0 && owner.at <= kPointerMax) {
    writer->u16(static_cast<uint16_t>(kPointer | owner.at));
  } else {
    writer->name(owner.dn);
  }
  writer->u16(type);
  writer->u16(DNS_C_IN);
  writer->u32(ttl);
  writer->u16(static_cast<uint16_t>(data.size()));
  writer->bytes(data);
}

// The OPT record (RFC 6891, 6.1.2), with the upper bits of the response code.
void write_opt(uint16_t rcode, std::span<uint8_t> buffer) {
  dns::Writer opt(buffer);
  opt.u8(0);
  opt.u16(DNS_T_OPT);
  opt.u16(kEdnsSize);
  opt.u32(static_cast<uint32_t>(rcode >> kRcodeBits) << kOptRcodeShift);
  opt.u16(0);
}

// Written is the outcome for one name: how many records were written, and the CNAME to follow.
struct Written {
  unsigned records = 0;
  const Record *cname = nullptr;
};

// Writes the records of one name that answer a query of this type. A CNAME answers every type, and is followed unless
// the query is for CNAME (RFC 1034, 3.6.2).
Written write_name(const Zone &zone, std::string_view dn, const Zone::Search &search, uint16_t type, const Owner &owner,
                   dns::Writer *writer) {
  Written written;
  const bool any = type == DNS_T_ANY;
  if (search.node != nullptr) {
    for (const Record &record : search.node->records) {
      const bool cname = record.type == DNS_T_CNAME;
      if (record.type != type && !any && !cname) continue;
      write_record(owner, record.type, record.ttl, span_of(record.data), writer);
      ++written.records;
      if (cname && type != DNS_T_CNAME && !any) written.cname = &record;
    }
  }
  if (dn.size() == zone.dn.size() && (type == DNS_T_SOA || any)) {
    write_record(owner, DNS_T_SOA, zone.soa_ttl, span_of(zone.soa), writer);
    ++written.records;
  }
  return written;
}

}  // namespace

// The OPT record of the additional section, where there is one.
void Responder::read_edns(std::span<const uint8_t> packet, size_t at, Query *query) const {
  dns::Reader reader(packet, at);
  const unsigned records =
      query->header.count[DNS_S_AN] + query->header.count[DNS_S_NS] + query->header.count[DNS_S_AR];
  dns::Record record;
  for (unsigned i = 0; i < records && dns::read_record(&reader, &record); ++i) {
    if (record.typ != DNS_T_OPT) continue;
    query->edns = true;
    query->size_max = std::clamp<size_t>(record.cls, kUdpPlain, kUdpMax);
    query->edns_version = static_cast<uint8_t>(record.ttl >> kOptVersionShift);
  }
}

bool Responder::read(std::span<const uint8_t> packet, size_t size_plain, Query *query) const {
  if (query->header.count[DNS_S_QD] != 1) return false;
  dns::Reader reader(packet, DNS_HSIZE);
  if (!reader.name(query->dn.data(), &query->dn_size) || !reader.u16(&query->type) || !reader.u16(&query->cls)) {
    return false;
  }
  for (unsigned i = 0; i < query->dn_size; ++i) {
    const uint8_t byte = query->dn[i];
    query->lower[i] = static_cast<char>(byte >= 'A' && byte <= 'Z' ? byte | kLetterCase : byte);
  }
  query->size_max = size_plain;
  if (reader.left() != 0) read_edns(packet, reader.position(), query);
  return true;
}

void Responder::write_header(const Query &query, const Sections &sections, std::span<uint8_t> buffer) {
  dns::Writer header(buffer);
  header.u16(query.header.id);
  const unsigned flags = kFlagQr | (query.header.opcode << kOpcodeShift) | (sections.aa ? kFlagAa : 0) |
                         (sections.tc ? kFlagTc : 0) | (query.header.rd ? kFlagRd : 0) | (sections.rcode & kRcode);
  header.u16(static_cast<uint16_t>(flags));
  header.u16(1);
  header.u16(sections.answers);
  header.u16(sections.authority);
  header.u16(query.edns ? 1 : 0);
}

void Responder::write_stats(dns::Writer *writer, Sections *sections) const {
  std::string text = "received=" + std::to_string(counts_.received) + " answered=" + std::to_string(counts_.answered) +
                     " dropped=" + std::to_string(counts_.dropped) + " broken=" + std::to_string(counts_.broken);
  text.insert(text.begin(), static_cast<char>(text.size()));
  writer->u16(kPointer | DNS_HSIZE);
  writer->u16(DNS_T_TXT);
  writer->u16(kClassChaos);
  writer->u32(0);
  writer->u16(static_cast<uint16_t>(text.size()));
  writer->bytes(span_of(text));
  sections->answers = 1;
  sections->aa = true;
}

// Writes a wrong answer that is made of records; false when the query must be answered rightly.
bool Responder::write_wrong(const Query &query, const Zone &zone, Wrong wrong, dns::Writer *writer,
                            Sections *sections) {
  const Owner owner{DNS_HSIZE, query.dn.data()};
  if (wrong == Wrong::loop) {
    write_record(owner, DNS_T_CNAME, zone.soa_ttl, {query.dn.data(), query.dn_size}, writer);
  } else if (wrong == Wrong::address && query.type == DNS_T_A) {
    write_record(owner, DNS_T_A, zone.soa_ttl, kForeignAddress, writer);
  } else {
    return false;
  }
  sections->answers = 1;
  return true;
}

// Writes the answer from the zones: the records of the name and its CNAME chain, or a negative answer with the zone's
// SOA record.
void Responder::write_zone(const Query &query, const Zone *zone, size_t zone_at, dns::Writer *writer,
                           Sections *sections) {
  std::string_view dn(query.lower.data(), query.dn_size);
  Owner owner{DNS_HSIZE, query.dn.data()};
  Owner apex{DNS_HSIZE + zone_at, bytes(zone->dn)};
  for (unsigned cnames = 0; zone != nullptr && cnames <= kCnamesMax; ++cnames) {
    const Zone::Search search = zone->find(dn);
    const Written written = write_name(*zone, dn, search, query.type, owner, writer);
    sections->answers = static_cast<uint16_t>(sections->answers + written.records);
    if (written.records == 0) {
      sections->rcode = search.exists ? DNS_R_NOERROR : DNS_R_NXDOMAIN;
      write_record(apex, DNS_T_SOA, zone->negative_ttl, span_of(zone->soa), writer);
      sections->authority = 1;
    }
    if (written.cname == nullptr) return;
    dn = written.cname->data;
    owner = {writer->position() - dn.size(), bytes(written.cname->data)};
    zone = config_.zones.find(dn).zone;
    if (zone != nullptr) apex = {0, bytes(zone->dn)};
  }
}

// Decides on the answer to a query; the first rule that fits wins.
void Responder::write_sections(const Query &query, const Zone *zone, size_t zone_at, Wrong wrong, dns::Writer *writer,
                               Sections *sections) {
  const std::string_view dn(query.lower.data(), query.dn_size);
  if (query.header.opcode != 0) {
    sections->rcode = DNS_R_NOTIMPL;
  } else if (query.edns && query.edns_version != 0) {
    sections->rcode = kRcodeBadVersion;
  } else if (query.cls == kClassChaos && query.type == DNS_T_TXT && dn == kStatsName) {
    write_stats(writer, sections);
  } else if (zone == nullptr || query.cls != DNS_C_IN) {
    sections->rcode = DNS_R_REFUSED;
  } else if (rcode_of(wrong) != DNS_R_NOERROR) {
    sections->rcode = rcode_of(wrong);
  } else {
    sections->aa = true;
    sections->tc = wrong == Wrong::tc;
    if (sections->tc || write_wrong(query, *zone, wrong, writer, sections)) return;
    write_zone(query, zone, zone_at, writer, sections);
  }
}

size_t Responder::write(const Query &query, const Zone *zone, size_t zone_at, Wrong wrong, std::span<uint8_t> buffer) {
  const size_t room = std::min(buffer.size(), query.size_max) - (query.edns ? kOptSize : 0);
  dns::Writer head(buffer.first(room), DNS_HSIZE);
  head.bytes({query.dn.data(), query.dn_size});
  head.u16(query.type);
  head.u16(query.cls);
  dns::Writer body = head;
  Sections sections;
  write_sections(query, zone, zone_at, wrong, &body, &sections);
  if (!body.ok()) {
    body = head;
    sections = {.aa = true, .tc = true};
  }
  const size_t size = body.position();
  if (query.edns) write_opt(sections.rcode, buffer.subspan(size, kOptSize));
  write_header(query, sections, buffer);
  return size + (query.edns ? kOptSize : 0);
}

// Corrupts the bytes of an answer, for the kinds of wrong answers that need it; returns its new size.
size_t Responder::spoil(Wrong wrong, std::span<uint8_t> packet) {
  if (wrong == Wrong::id) packet[0] = static_cast<uint8_t>(packet[0] ^ (1 + chance_->below(255)));
  if (wrong == Wrong::question) {
    // Another letter in the first label; a question for the root becomes one of another type.
    uint8_t &byte = packet[DNS_HSIZE] != 0 ? packet[DNS_HSIZE + 1] : packet[DNS_HSIZE + 2];
    byte = byte == 'x' ? 'y' : 'x';
  }
  if (wrong == Wrong::garbage) {
    for (uint8_t &byte : packet.subspan(2))
      byte = static_cast<uint8_t>(chance_->below(256));
  }
  return wrong == Wrong::cut ? 1 + chance_->below(packet.size() - 1) : packet.size();
}

Reply Responder::answer(std::span<const uint8_t> packet, std::span<uint8_t> buffer, size_t size_plain) {
  Query query;
  if (!dns::read_header(packet, &query.header) || query.header.qr) return {0, nullptr, true};
  if (!read(packet, size_plain, &query)) {
    dns::Writer writer(buffer);
    writer.u16(query.header.id);
    writer.u16(kFlagQr | DNS_R_FORMERR);
    for (int section = DNS_S_QD; section <= DNS_S_AR; ++section)
      writer.u16(0);
    return {writer.position(), nullptr, true};
  }
  if (query.cls == kClassChaos) return {write(query, nullptr, 0, Wrong::none, buffer), nullptr, false};
  const ZoneSet::Match match = config_.zones.find({query.lower.data(), query.dn_size});
  const Faults *faults = match.zone != nullptr ? &match.zone->faults : &config_.faults;
  if (faults->dead.value_or(false)) return {0, faults, true};
  const Wrong kind = faults->wrong.value_or(Wrong::none);
  const Wrong wrong = kind != Wrong::none && chance_->hits(faults->wrong_in_100.value_or(0)) ? kind : Wrong::none;
  size_t size = write(query, match.zone, match.at, wrong, buffer);
  if (faults->swap_case.value_or(false)) {
    for (uint8_t &byte : buffer.subspan(DNS_HSIZE, query.dn_size)) {
      if (letter(byte)) byte ^= kLetterCase;
    }
  }
  size = spoil(wrong, buffer.first(size));
  return {size, faults, true};
}

}  // namespace listserver
