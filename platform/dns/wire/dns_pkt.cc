// dns_pkt.cc - packets in their C form: records appended to a packet one by one (dns_pkt), and read from one
// (dns_parse).
//
// The caller owns the dns_pkt or dns_parse and the bytes that it points to; nothing is kept between calls. Any thread.
#include <algorithm>

#include <cursor.h>
#include <dns_wire.h>
#include <message.h>
#include <record.h>

namespace {

constexpr size_t kCountsAt = 4;  // where the header's record counts begin

std::span<const uint8_t> bytes_of(const struct dns_parse &parse) {
  return {parse.dnsp_pkt, static_cast<size_t>(parse.dnsp_end - parse.dnsp_pkt)};
}

// place_in tells where in a packet the `size` bytes at `data` are; false when they are not all in it.
bool place_in(const struct dns_parse &parse, const unsigned char *data, size_t size, size_t *at) {
  const auto first = reinterpret_cast<uintptr_t>(parse.dnsp_pkt);
  const auto place = reinterpret_cast<uintptr_t>(data);
  const size_t bytes = bytes_of(parse).size();
  if (place < first || place - first > bytes || size > bytes - (place - first)) return false;
  *at = place - first;
  return true;
}

// write_data writes a record's data after its length.
int write_data(const struct dns_parse *source, const struct dns_rr &rr, std::span<const uint8_t> buffer,
               dns::Writer *writer) {
  const std::span<const uint8_t> data(rr.dnsrr_dptr, rr.dnsrr_dsz);
  size_t at = 0;
  if (source != nullptr && !place_in(*source, rr.dnsrr_dptr, data.size(), &at)) return DNS_E_PROTOCOL;
  const size_t size_at = writer->position();
  writer->u16(0);
  const size_t start = writer->position();
  const auto typ = static_cast<uint16_t>(rr.dnsrr_typ);
  const bool valid = dns::plain_data(source != nullptr ? bytes_of(*source) : data, typ, at, data.size(), writer);
  if (!writer->ok()) return DNS_E_NOBUFS;
  const std::span<const uint8_t> plain = buffer.subspan(start, writer->position() - start);
  // Without a packet to compress against, data that holds no compressed name is written as it came.
  if (!valid || (source == nullptr && !std::ranges::equal(plain, data))) return DNS_E_PROTOCOL;
  writer->patch_u16(size_at, static_cast<uint16_t>(plain.size()));
  return DNS_E_NOERROR;
}

bool writable(const struct dns_rr &rr) {
  const bool numbers =
      rr.dnsrr_typ >= 0 && rr.dnsrr_typ <= UINT16_MAX && rr.dnsrr_cls >= 0 && rr.dnsrr_cls <= UINT16_MAX;
  return numbers && rr.dnsrr_dsz <= UINT16_MAX && (rr.dnsrr_dptr != nullptr || rr.dnsrr_dsz == 0) &&
         dns_dnlen(rr.dnsrr_dn) != 0;
}

}  // namespace

int dns_initpacket(struct dns_pkt *packet, unsigned char *buffer, unsigned size, const unsigned char *dn, dns_type typ,
                   dns_class cls) {
  if (packet == nullptr || buffer == nullptr) return DNS_E_INVAL;
  if (dns_dnlen(dn) == 0 || typ < 0 || typ > UINT16_MAX || cls < 0 || cls > UINT16_MAX) return DNS_E_BADQUERY;
  const size_t room = std::min<size_t>(size, DNS_MAXPACKET);
  const size_t written =
      dns::write_question({buffer, room}, 0, dns::kFlagQr | dns::kFlagRa, {dn, dns_dnlen(dn)}, typ, cls);
  if (written == 0) return DNS_E_NOBUFS;
  *packet = {buffer, buffer + written, buffer + room, DNS_S_AN};
  return static_cast<int>(written);
}

int dns_addrr(struct dns_pkt *packet, const struct dns_parse *source, const struct dns_rr *rr) {
  if (packet == nullptr || rr == nullptr || packet->dnspk_section >= DNS_S_ALL) return DNS_E_INVAL;
  if (!writable(*rr)) return DNS_E_PROTOCOL;
  const std::span<uint8_t> buffer(packet->dnspk_start, packet->dnspk_limit);
  dns::Writer writer(buffer, static_cast<size_t>(packet->dnspk_end - packet->dnspk_start));
  if (dns_dnequal(packet->dnspk_start + DNS_HSIZE, rr->dnsrr_dn) != 0) {
    writer.u16(dns::kToQuestion);
  } else {
    writer.name(rr->dnsrr_dn);
  }
  writer.u16(static_cast<uint16_t>(rr->dnsrr_typ));
  writer.u16(static_cast<uint16_t>(rr->dnsrr_cls));
  writer.u32(static_cast<uint32_t>(std::max(rr->dnsrr_ttl, 0)));
  const int status = write_data(source, *rr, buffer, &writer);
  if (status != DNS_E_NOERROR) return status;
  // A packet of 65535 bytes holds fewer than 65535 records, so the count cannot pass its field.
  const size_t count_at = kCountsAt + sizeof(uint16_t) * static_cast<size_t>(packet->dnspk_section);
  uint16_t count = 0;
  if (!dns::Reader(buffer, count_at).u16(&count)) return DNS_E_INVAL;
  writer.patch_u16(count_at, static_cast<uint16_t>(count + 1));
  packet->dnspk_end = packet->dnspk_start + writer.position();
  return DNS_E_NOERROR;
}

int dns_end_section(struct dns_pkt *packet, int section) {
  if (packet == nullptr || section < DNS_S_QD || section > DNS_S_ALL) return DNS_E_INVAL;
  packet->dnspk_section = std::max(packet->dnspk_section, section);
  return DNS_E_NOERROR;
}

int dns_initparse(struct dns_parse *parse, const unsigned char *packet, const unsigned char *end,
                  unsigned char *question) {
  if (parse == nullptr || packet == nullptr || end == nullptr || end < packet) return DNS_E_INVAL;
  *parse = {packet, end, packet, DNS_S_QD, 0};
  size_t answers_at = 0;
  if (!dns::section_at(bytes_of(*parse), DNS_S_AN, &answers_at)) return DNS_E_PROTOCOL;
  parse->dnsp_cur = packet + DNS_HSIZE;
  dns::Reader reader(bytes_of(*parse), DNS_HSIZE);
  const bool none = answers_at == DNS_HSIZE;
  if (question != nullptr && (none || !reader.name(question))) return DNS_E_PROTOCOL;
  return DNS_E_NOERROR;
}

int dns_rewind_sec(struct dns_parse *parse, int section) {
  if (parse == nullptr || section < DNS_S_AN || section > DNS_S_AR) return DNS_E_INVAL;
  dns::Header header{};
  size_t at = 0;
  const std::span<const uint8_t> packet = bytes_of(*parse);
  if (!dns::read_header(packet, &header) || !dns::section_at(packet, section, &at)) return DNS_E_PROTOCOL;
  parse->dnsp_cur = parse->dnsp_pkt + at;
  parse->dnsp_section = section;
  parse->dnsp_left = header.count[section];
  return DNS_E_NOERROR;
}

int dns_nextrr(struct dns_parse *parse, struct dns_rr *rr) {
  if (parse == nullptr || rr == nullptr) return DNS_E_INVAL;
  if (parse->dnsp_left == 0) return 0;
  dns::Reader reader(bytes_of(*parse), static_cast<size_t>(parse->dnsp_cur - parse->dnsp_pkt));
  dns::Record record;
  if (!dns::read_record(&reader, &record)) return DNS_E_PROTOCOL;
  dns_dntodn(record.owner, rr->dnsrr_dn, sizeof rr->dnsrr_dn);
  rr->dnsrr_cls = record.cls;
  rr->dnsrr_typ = record.typ;
  rr->dnsrr_ttl = record.ttl;
  rr->dnsrr_dsz = static_cast<unsigned>(record.data.size());
  rr->dnsrr_dptr = const_cast<unsigned char *>(record.data.data());
  rr->dnsrr_dend = rr->dnsrr_dptr + record.data.size();
  parse->dnsp_cur = parse->dnsp_pkt + reader.position();
  --parse->dnsp_left;
  return 1;
}
