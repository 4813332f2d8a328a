// print.cc - packets as text for people: the layout of dig, records in master-file form.
//
// The packet is untrusted and read through Reader only. Stateless; any thread, also on a stream that other threads
// write to.
#include "print.h"

#include <stdio.h>

#include <algorithm>

#include <cursor.h>
#include <dns_wire.h>
#include <message.h>
#include <record.h>

namespace dns {
namespace {

// Where the columns of a record begin, as dig has them.
constexpr unsigned kTtlColumn = 24;
constexpr unsigned kClassColumn = 32;
constexpr unsigned kTypeColumn = 40;
constexpr unsigned kDataColumn = 48;

// clang-format off
constexpr const char *kOpcodes[] = {"QUERY", "IQUERY", "STATUS", "RESERVED3", "NOTIFY", "UPDATE"};
constexpr const char *kRcodes[] = {"NOERROR", "FORMERR", "SERVFAIL", "NXDOMAIN", "NOTIMP", "REFUSED", "YXDOMAIN",
                                   "YXRRSET", "NXRRSET", "NOTAUTH", "NOTZONE", "RESERVED11", "RESERVED12",
                                   "RESERVED13", "RESERVED14", "RESERVED15", "BADVERS"};
constexpr const char *kSections[] = {"QUESTION", "ANSWER", "AUTHORITY", "ADDITIONAL"};
// clang-format on

// put_named writes the name that a list has for a number, or `otherwise` and the number.
void put_named(std::span<const char *const> names, unsigned number, const char *otherwise, Text *out) {
  if (number < names.size()) {
    out->put(names[number]);
    return;
  }
  out->put(otherwise);
  out->number(number);
}

// ttl_of returns a record's TTL field as the packet has it. An OPT record keeps other things in that field.
uint32_t ttl_of(std::span<const uint8_t> packet, const Record &record) {
  constexpr size_t kTtlBeforeData = sizeof(uint32_t) + sizeof(uint16_t);
  uint32_t ttl = 0;
  return Reader(packet, record.data_at - kTtlBeforeData).u32(&ttl) ? ttl : 0;
}

// The parts of an OPT record's TTL (RFC 6891, 6.1.3).
constexpr unsigned kExtendedRcodeShift = 24;
constexpr unsigned kVersionShift = 16;
constexpr unsigned kByteMask = 0xFF;
constexpr uint32_t kFlagDo = 0x8000;

void put_record(std::span<const uint8_t> packet, const Record &record, uint32_t ttl, Text *out) {
  put_name(record.owner, out);
  out->column(kTtlColumn);
  out->number(ttl);
  out->column(kClassColumn);
  put_class(record.cls, out);
  out->column(kTypeColumn);
  put_type(record.typ, out);
  out->column(kDataColumn);
  put_data(packet, record, out);
  out->put('\n');
}

// put_opt writes an OPT record, whose fields have meanings of their own.
void put_opt(std::span<const uint8_t> packet, const Record &record, int level, Text *out) {
  const uint32_t ttl = ttl_of(packet, record);
  if (level > 0) out->put("\n;; OPT PSEUDOSECTION:\n");
  out->put("; EDNS: version: ");
  out->number(ttl >> kVersionShift & kByteMask);
  out->put((ttl & kFlagDo) != 0 ? ", flags: do; udp: " : ", flags:; udp: ");
  out->number(record.cls);
  out->put('\n');
  Reader data(record.data);
  uint16_t code = 0, size = 0;
  std::span<const uint8_t> value;
  while (data.u16(&code) && data.u16(&size) && data.bytes(size, &value)) {
    out->put("; OPT=");
    out->number(code);
    out->put(": ");
    put_hex(value, out);
    out->put('\n');
  }
}

void put_title(int section, int level, Text *out) {
  if (level <= 0) return;
  out->put("\n;; ");
  out->put(kSections[section]);
  out->put(" SECTION:\n");
}

int put_questions(Reader reader, unsigned count, int level, Text *out) {
  for (unsigned i = 0; i < count; ++i) {
    uint8_t dn[DNS_MAXDN];
    uint16_t typ = 0, cls = 0;
    if (!reader.name(dn) || !reader.u16(&typ) || !reader.u16(&cls)) return DNS_E_PROTOCOL;
    if (i == 0) put_title(DNS_S_QD, level, out);
    out->put(';');
    put_name(dn, out);
    out->column(kClassColumn);
    put_class(cls, out);
    out->column(kTypeColumn);
    put_type(typ, out);
    out->put('\n');
  }
  return DNS_E_NOERROR;
}

bool is_opt(const Record &record, int section) {
  return section == DNS_S_AR && record.typ == DNS_T_OPT;
}

// put_records writes a section's records: the OPT records alone, or all others.
int put_records(Reader reader, unsigned count, int section, bool opt, int level, Text *out) {
  bool titled = opt;
  for (unsigned i = 0; i < count; ++i) {
    Record record;
    if (!read_record(&reader, &record)) return DNS_E_PROTOCOL;
    if (is_opt(record, section) != opt) continue;
    if (!titled) put_title(section, level, out);
    titled = true;
    if (opt) {
      put_opt(reader.packet(), record, level, out);
    } else {
      put_record(reader.packet(), record, ttl_of(reader.packet(), record), out);
    }
  }
  return DNS_E_NOERROR;
}

// extended_rcode returns the upper bits of the response code, which an OPT record carries; 0 without one.
unsigned extended_rcode(std::span<const uint8_t> packet, unsigned count) {
  size_t at = 0;
  if (!section_at(packet, DNS_S_AR, &at)) return 0;
  Record record;
  for (Reader reader(packet, at); count > 0 && read_record(&reader, &record); --count)
    if (record.typ == DNS_T_OPT) return ttl_of(packet, record) >> kExtendedRcodeShift;
  return 0;
}

constexpr struct {
  uint16_t bit;
  const char *name;
} kFlags[] = {{0x8000, " qr"}, {0x0400, " aa"}, {0x0200, " tc"}, {0x0100, " rd"},
              {0x0080, " ra"}, {0x0020, " ad"}, {0x0010, " cd"}, {0x0040, "; MBZ: 0x4"}};

void put_flags(std::span<const uint8_t> packet, Text *out) {
  uint16_t bits = 0;
  if (!Reader(packet, sizeof(uint16_t)).u16(&bits)) return;
  for (const auto &flag : kFlags)
    if ((bits & flag.bit) != 0) out->put(flag.name);
}

std::span<const uint8_t> packet_of(const dns_parse *parse) {
  return {parse->dnsp_pkt, parse->dnsp_end};
}

}  // namespace
}  // namespace dns

using namespace dns;

int dns_printheader(FILE *stream, int level, const struct dns_parse *parse) {
  if (stream == nullptr || parse == nullptr) return DNS_E_INVAL;
  const std::span<const uint8_t> packet = packet_of(parse);
  Header header{};
  if (!read_header(packet, &header)) return DNS_E_PROTOCOL;
  if (level <= 0) return DNS_E_NOERROR;
  constexpr unsigned kRcodeBits = 4;
  Text out(stream);
  out.put(";; ->>HEADER<<- opcode: ");
  put_named(kOpcodes, header.opcode, "RESERVED", &out);
  out.put(", status: ");
  put_named(kRcodes, header.rcode | extended_rcode(packet, header.count[DNS_S_AR]) << kRcodeBits, "RESERVED", &out);
  out.put(", id: ");
  out.number(header.id);
  out.put("\n;; flags:");
  put_flags(packet, &out);
  constexpr const char *kCounts[] = {"; QUERY: ", ", ANSWER: ", ", AUTHORITY: ", ", ADDITIONAL: "};
  for (int section = DNS_S_QD; section < DNS_S_ALL; ++section) {
    out.put(kCounts[section]);
    out.number(header.count[section]);
  }
  out.put('\n');
  return DNS_E_NOERROR;
}

int dns_printsection(FILE *stream, int level, const struct dns_parse *parse, int section) {
  if (stream == nullptr || parse == nullptr || section < DNS_S_QD || section > DNS_S_AR) return DNS_E_INVAL;
  const std::span<const uint8_t> packet = packet_of(parse);
  Header header{};
  size_t at = 0;
  if (!read_header(packet, &header) || !section_at(packet, section, &at)) return DNS_E_PROTOCOL;
  const unsigned count = header.count[section];
  Text out(stream);
  if (section == DNS_S_QD) return put_questions(Reader(packet, at), count, level, &out);
  // As dig does, the OPT record is shown before the other records. A fault ends both walks at the same place.
  if (section == DNS_S_AR) (void)put_records(Reader(packet, at), count, section, true, level, &out);
  return put_records(Reader(packet, at), count, section, false, level, &out);
}

int dns_printpkt(FILE *stream, const unsigned char *packet, unsigned size) {
  if (stream == nullptr || packet == nullptr) return DNS_E_INVAL;
  const struct dns_parse parse = {packet, packet + size, packet, DNS_S_QD, 0};
  int status = dns_printheader(stream, 1, &parse);
  for (int section = DNS_S_QD; section < DNS_S_ALL && status == DNS_E_NOERROR; ++section)
    status = dns_printsection(stream, 1, &parse, section);
  return status;
}

int dns_printrr(FILE *stream, int level, const struct dns_rr *rr) {
  if (stream == nullptr || rr == nullptr || (rr->dnsrr_dptr == nullptr && rr->dnsrr_dsz > 0)) return DNS_E_INVAL;
  if (rr->dnsrr_dsz > UINT16_MAX) return DNS_E_INVAL;
  Record record = {};
  if (dns_dntodn(rr->dnsrr_dn, record.owner, sizeof record.owner) == 0) return DNS_E_INVAL;
  record.typ = static_cast<uint16_t>(rr->dnsrr_typ);
  record.cls = static_cast<uint16_t>(rr->dnsrr_cls);
  record.data = {rr->dnsrr_dptr, rr->dnsrr_dsz};
  Text out(stream);
  if (level > 0)
    put_record(record.data, record, static_cast<uint32_t>(std::max(rr->dnsrr_ttl, 0)), &out);
  else
    put_data(record.data, record, &out);
  return DNS_E_NOERROR;
}
