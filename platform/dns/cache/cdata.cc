// cdata.cc - see cdata.h; and the operations dns_cdata_*.
//
// Every record that comes in, from a host or from a packet, goes through `append`, which checks it and writes it
// without compression. `next_record` reads the run and trusts it.
#include <cdata.h>

#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <new>

#include <byte_order.h>
#include <chain.h>
#include <cursor.h>
#include <dns_wire.h>
#include <message.h>
#include <record.h>

namespace {

using dns::Reader;

constexpr size_t kPointerSize = 2;  // bytes of kOwnName
constexpr size_t kTtlSize = 4;
constexpr size_t kRecordFixed = 2 + 2 + kTtlSize + 2;  // type, class, TTL, data length
constexpr size_t kClsInFixed = 2;
constexpr size_t kTtlInFixed = 4;
constexpr size_t kSizeInFixed = 8;
constexpr uint8_t kPointerBits = 0xC0;
constexpr int kRcodeMax = 15;  // the response code is four bits of the header's fourth byte
constexpr size_t kRcodeAt = 3;
constexpr size_t kAnswerCountAt = 6;

// What a record's data may grow by without compression: no type has more than two names that may be compressed.
constexpr size_t kExpansionMax = 2 * DNS_MAXDN;

// RunRecord is one record of a run. Its owner is the entry's own name where `owner` is null.
struct RunRecord {
  const uint8_t *owner;
  uint16_t typ;
  uint16_t cls;
  uint32_t ttl;
  size_t ttl_at;
  std::span<const uint8_t> data;
};

// next_record reads the record at `*at` and moves `*at` past it. False at the end of the run.
bool next_record(std::span<const uint8_t> run, size_t *at, RunRecord *record) {
  if (*at >= run.size()) return false;
  const uint8_t *owner = run.data() + *at;
  const bool own = *owner >= kPointerBits;
  record->owner = own ? nullptr : owner;
  const size_t fixed_at = *at + (own ? kPointerSize : dns_dnlen(owner));
  if (fixed_at + kRecordFixed > run.size()) return false;
  const uint8_t *fixed = run.data() + fixed_at;
  record->typ = base::get_be<uint16_t>(fixed);
  record->cls = base::get_be<uint16_t>(fixed + kClsInFixed);
  record->ttl = base::get_be<uint32_t>(fixed + kTtlInFixed);
  record->ttl_at = fixed_at + kTtlInFixed;
  const size_t size = base::get_be<uint16_t>(fixed + kSizeInFixed);
  const size_t data_at = fixed_at + kRecordFixed;
  if (size > run.size() - data_at) return false;
  record->data = run.subspan(data_at, size);
  *at = data_at + size;
  return true;
}

// Source is where the data of a record to append is: in a packet that names may be compressed against, or alone.
struct Source {
  std::span<const uint8_t> packet;
  size_t at;
  size_t size;
  bool alone;
};

// write_data writes the data uncompressed. False for data that the type does not allow, and for any compressed name in
// data without a packet, even if its pointer happens to hit a name in the same data.
[[nodiscard]] bool write_data(const Source &source, uint16_t typ, std::span<uint8_t> buffer, dns::Writer *writer) {
  const size_t at = writer->position();
  if (!dns::plain_data(source.packet, typ, source.at, source.size, writer) || !writer->ok()) return false;
  if (!source.alone) return true;
  const size_t written = writer->position() - at;
  return written == source.size && (written == 0 || memcmp(buffer.data() + at, source.packet.data(), written) == 0);
}

// owner_size returns the size of the owner at the beginning of `run`, in the form that append writes: kOwnName, or a
// whole name. 0 for any other form.
[[nodiscard]] size_t owner_size(std::span<const uint8_t> run) {
  if (run.size() >= kPointerSize && base::get_be<uint16_t>(run.data()) == dns::kOwnName) return kPointerSize;
  Reader reader(run);
  uint8_t dn[DNS_MAXDN];
  unsigned size = 0;
  return reader.name(dn, &size) && reader.position() == size ? size : 0;  // one with a pointer is shorter than its name
}

// whole_data tells whether `data` is uncompressed data that the type allows. Most records are addresses, for which the
// size decides.
[[nodiscard]] bool whole_data(uint16_t typ, std::span<const uint8_t> data) {
  if (typ == DNS_T_A) return data.size() == sizeof(in_addr);
  if (typ == DNS_T_AAAA) return data.size() == sizeof(in6_addr);
  std::array<uint8_t, dns::kRunMax + kExpansionMax> copy;  // written before it is read
  dns::Writer writer(copy);
  return write_data({data, 0, data.size(), true}, typ, copy, &writer);
}

// append writes a record after the run. DNS_E_NOERROR; DNS_E_INVAL for an owner that is no name, DNS_E_PROTOCOL for
// data that the type does not allow, DNS_E_NOMEM.
[[nodiscard]] dns_status append(dns_cdata *entry, const uint8_t *owner, uint16_t typ, uint16_t cls, int32_t ttl,
                                const Source &source) {
  const size_t owner_size = dns_dnlen(owner);
  if (owner_size == 0) return DNS_E_INVAL;
  const size_t most = entry->run_size + owner_size + kRecordFixed + source.size + kExpansionMax;
  if (!dns::cdata_reserve(entry, most)) return DNS_E_NOMEM;
  const std::span<uint8_t> buffer(entry->run, entry->run_capacity);
  dns::Writer writer(buffer, entry->run_size);
  if (entry->dn_size != 0 && dns_dnequal(owner, entry->dn) != 0) {
    writer.u16(dns::kOwnName);
  } else {
    writer.name(owner);
  }
  writer.u16(typ);
  writer.u16(cls);
  writer.u32(static_cast<uint32_t>(std::max(ttl, 0)) + static_cast<uint32_t>(entry->age));
  const size_t data_size_at = writer.position();
  writer.u16(0);
  const size_t data_at = writer.position();
  if (!write_data(source, typ, buffer, &writer)) return DNS_E_PROTOCOL;
  const size_t end = writer.position();
  if (end > dns::kRunMax) return DNS_E_NOMEM;
  writer.patch_u16(data_size_at, static_cast<uint16_t>(end - data_at));
  entry->run_size = end;
  entry->records += 1;
  if (typ == DNS_T_CNAME) entry->cnames += 1;
  return DNS_E_NOERROR;
}

void drop_records(dns_cdata *entry) {
  entry->run_size = 0;
  entry->records = 0;
  entry->cnames = 0;
  entry->next = 0;
  entry->age = 0;
}

unsigned chain_cnames(uint16_t typ, unsigned cnames) {
  return typ == DNS_T_CNAME || typ == DNS_T_ANY ? 0 : cnames;
}

bool fits_u16(int value) {
  return value >= 0 && value <= UINT16_MAX;
}

// counted_down returns what remains of a record's TTL; in an expired entry that is the entry's own TTL, below 0.
int32_t counted_down(const dns_cdata *entry, uint32_t ttl) {
  if (entry->ttl < 0) return entry->ttl;
  return static_cast<int32_t>(std::max<int64_t>(int64_t{ttl} - entry->age, 0));
}

// source_of finds the data of `rr` inside `packet`, or takes it alone where that is null. False when it is elsewhere.
bool source_of(const dns_rr *rr, const dns_parse *packet, Source *source) {
  if (rr->dnsrr_dsz > UINT16_MAX || (rr->dnsrr_dptr == nullptr && rr->dnsrr_dsz > 0)) return false;
  if (rr->dnsrr_dptr != nullptr && rr->dnsrr_dptr + rr->dnsrr_dsz != rr->dnsrr_dend) return false;
  *source = {{rr->dnsrr_dptr, rr->dnsrr_dsz}, 0, rr->dnsrr_dsz, true};
  if (packet == nullptr) return true;
  const auto first = reinterpret_cast<uintptr_t>(packet->dnsp_pkt);
  const auto last = reinterpret_cast<uintptr_t>(packet->dnsp_end);
  const auto data = reinterpret_cast<uintptr_t>(rr->dnsrr_dptr);
  if (data < first || data > last || last - data < rr->dnsrr_dsz) return false;
  *source = {{packet->dnsp_pkt, last - first}, data - first, rr->dnsrr_dsz, false};
  return true;
}

// Section is the answer section of a packet that is being taken over.
struct Section {
  std::span<const uint8_t> packet;
  size_t at;
  unsigned count;
};

[[nodiscard]] dns_status append_from(dns_cdata *entry, std::span<const uint8_t> packet, const dns::Record &record) {
  return append(entry, record.owner, record.typ, record.cls, record.ttl,
                {packet, record.data_at, record.data.size(), false});
}

bool in_class(const dns_cdata *entry, const dns::Record &record) {
  return entry->cls == DNS_C_ANY || record.cls == entry->cls;
}

// append_pass walks the section once and appends the CNAMEs, at most `*left`, of the chain from `dn` on; `dn` becomes
// the last target.
[[nodiscard]] dns_status append_pass(dns_cdata *entry, const Section &section, uint8_t *dn, unsigned *left) {
  Reader reader(section.packet, section.at);
  for (unsigned i = 0; *left > 0 && i < section.count; ++i) {
    dns::Record record;
    if (!dns::read_record(&reader, &record)) return DNS_E_PROTOCOL;
    if (record.typ != DNS_T_CNAME || !in_class(entry, record) || dns_dnequal(record.owner, dn) == 0) continue;
    const dns_status status = append_from(entry, section.packet, record);
    if (status != DNS_E_NOERROR) return status;
    Reader target(section.packet, record.data_at);
    if (!target.name(dn)) return DNS_E_PROTOCOL;
    *left -= 1;
  }
  return DNS_E_NOERROR;
}

// append_cnames appends the CNAMEs of the chain. They mostly are in its order, and then take one pass.
[[nodiscard]] dns_status append_cnames(dns_cdata *entry, const Section &section, const uint8_t *from,
                                       const dns::Chain &chain) {
  uint8_t dn[DNS_MAXDN];
  if (dns_dntodn(from, dn, sizeof dn) == 0) return DNS_E_BADQUERY;
  for (unsigned left = chain.cnames; left > 0;) {
    const unsigned before = left;
    const dns_status status = append_pass(entry, section, dn, &left);
    if (status != DNS_E_NOERROR) return status;
    if (left == before) return DNS_E_PROTOCOL;
  }
  return dns_dnequal(dn, chain.end) != 0 ? DNS_E_NOERROR : DNS_E_PROTOCOL;
}

// append_answers appends the records of the entry's type (any, for ANY) that `dn` owns.
[[nodiscard]] dns_status append_answers(dns_cdata *entry, const Section &section, const uint8_t *dn) {
  Reader reader(section.packet, section.at);
  for (unsigned i = 0; i < section.count; ++i) {
    dns::Record record;
    if (!dns::read_record(&reader, &record)) return DNS_E_PROTOCOL;
    const bool asked = (record.typ == entry->typ || entry->typ == DNS_T_ANY) && in_class(entry, record);
    if (!asked || dns_dnequal(record.owner, dn) == 0) continue;
    const dns_status status = append_from(entry, section.packet, record);
    if (status != DNS_E_NOERROR) return status;
  }
  return DNS_E_NOERROR;
}

}  // namespace

dns_cdata::~dns_cdata() {
  free(run);
}

namespace dns {

bool cdata_reserve(dns_cdata *entry, size_t size) {
  if (size <= entry->run_capacity) return true;
  const size_t capacity = std::max(size, 2 * entry->run_capacity);
  void *run = realloc(entry->run, capacity);
  if (run == nullptr) return false;
  entry->run = static_cast<uint8_t *>(run);
  entry->run_capacity = capacity;
  return true;
}

bool cdata_is_negative(const dns_cdata *entry) {
  return is_negative(entry->typ, entry->rcode, entry->records, entry->cnames);
}

bool is_negative(uint16_t typ, uint8_t rcode, unsigned records, unsigned cnames) {
  return rcode == DNS_R_NXDOMAIN || records == chain_cnames(typ, cnames);
}

dns_status cdata_from_answer(dns_cdata *entry, std::span<const uint8_t> packet, size_t answers_at, unsigned cnames_max,
                             int rcode, int32_t ttl) {
  drop_records(entry);
  if (entry->dn_size == 0) return DNS_E_BADQUERY;
  if (rcode < 0 || rcode > kRcodeMax) return DNS_E_PROTOCOL;
  entry->rcode = static_cast<uint8_t>(rcode);
  entry->ttl = ttl;
  Chain chain;
  dns_status status =
      follow_chain(packet, answers_at, {entry->dn, entry->dn_size}, entry->typ, entry->cls, cnames_max, &chain);
  if (status == DNS_E_NOERROR) status = cdata_append_chain(entry, packet, answers_at, entry->dn, chain, true);
  if (status != DNS_E_NOERROR) drop_records(entry);
  return status;
}

dns_status cdata_append_chain(dns_cdata *entry, std::span<const uint8_t> packet, size_t answers_at, const uint8_t *from,
                              const Chain &chain, bool answers) {
  Header header;
  if (!read_header(packet, &header)) return DNS_E_PROTOCOL;
  const Section section = {packet, answers_at, header.count[DNS_S_AN]};
  const dns_status status = append_cnames(entry, section, from, chain);
  return status == DNS_E_NOERROR && answers ? append_answers(entry, section, chain.end) : status;
}

int cdata_to_packet(const dns_cdata *entry, uint8_t *buffer, size_t size) {
  if (entry->dn_size == 0) return DNS_E_BADQUERY;
  const std::span<uint8_t> packet(buffer, std::min<size_t>(size, DNS_MAXPACKET));
  dns_pkt head;
  const int head_size =
      dns_initpacket(&head, buffer, static_cast<unsigned>(packet.size()), entry->dn, entry->typ, entry->cls);
  if (head_size < 0) return head_size;
  Writer writer(packet, static_cast<size_t>(head_size));
  writer.bytes({entry->run, entry->run_size});
  writer.patch_u16(kAnswerCountAt, static_cast<uint16_t>(entry->records));
  if (!writer.ok()) return DNS_E_NOBUFS;
  buffer[kRcodeAt] = static_cast<uint8_t>(buffer[kRcodeAt] | entry->rcode);
  const int32_t most = entry->ttl < 0 ? 0 : INT32_MAX;
  run_settle(packet.subspan(static_cast<size_t>(head_size), entry->run_size), entry->age, 0, most);
  return static_cast<int>(writer.position());
}

bool run_facts(std::span<const uint8_t> run, RunFacts *facts) {
  *facts = {};
  while (!run.empty()) {
    const size_t owner = owner_size(run);
    if (owner == 0) return false;
    RunRecord record;
    size_t at = 0;
    if (!next_record(run, &at, &record) || !whole_data(record.typ, record.data)) return false;
    facts->records = static_cast<uint16_t>(facts->records + 1);
    if (record.typ == DNS_T_CNAME) facts->cnames = static_cast<uint16_t>(facts->cnames + 1);
    facts->ttl_max = std::max(facts->ttl_max, record.ttl);
    run = run.subspan(at);
  }
  return true;
}

void run_settle(std::span<uint8_t> run, int32_t age, int32_t least, int32_t most) {
  RunRecord record;
  for (size_t at = 0; next_record(run, &at, &record);) {
    const int64_t ttl = std::clamp<int64_t>(int64_t{record.ttl} - age, least, most);
    Writer writer(run.subspan(record.ttl_at, kTtlSize));
    writer.u32(static_cast<uint32_t>(ttl));
  }
}

}  // namespace dns

extern "C" {

// The entry's buffer is made at once, so that the lookup of a small entry allocates nothing more.
dns_cdata *dns_cdata_init(unsigned size) {
  dns_cdata *entry = new (std::nothrow) dns_cdata;
  if (entry == nullptr) return nullptr;
  if (dns::cdata_reserve(entry, std::min<size_t>(size, dns::kRunMax))) return entry;
  delete entry;
  return nullptr;
}

void dns_cdata_free(dns_cdata *entry) {
  delete entry;
}

// dns_cdata_setdn names the entry. Another name makes it another entry, so its records go.
int dns_cdata_setdn(dns_cdata *entry, const unsigned char *dn) {
  const unsigned size = dn == nullptr ? 0 : dns_dnlen(dn);
  if (entry == nullptr || size == 0) return DNS_E_INVAL;
  if (entry->dn_size != 0 && dns_dnequal(entry->dn, dn) == 0) drop_records(entry);
  memmove(entry->dn, dn, size);
  entry->dn_size = static_cast<uint8_t>(size);
  return 0;
}

int dns_cdata_setcls(dns_cdata *entry, dns_class cls) {
  if (entry == nullptr || !fits_u16(cls)) return DNS_E_INVAL;
  entry->cls = static_cast<uint16_t>(cls);
  return 0;
}

int dns_cdata_settyp(dns_cdata *entry, dns_type typ) {
  if (entry == nullptr || !fits_u16(typ)) return DNS_E_INVAL;
  entry->typ = static_cast<uint16_t>(typ);
  return 0;
}

int dns_cdata_setttl(dns_cdata *entry, int32_t ttl) {
  if (entry == nullptr) return DNS_E_INVAL;
  entry->ttl = ttl;
  return 0;
}

int dns_cdata_setflags(dns_cdata *entry, unsigned flags) {
  if (entry == nullptr) return DNS_E_INVAL;
  entry->flags = flags;
  return 0;
}

int dns_cdata_setrcode(dns_cdata *entry, int rcode) {
  if (entry == nullptr || rcode < 0 || rcode > kRcodeMax) return DNS_E_INVAL;
  entry->rcode = static_cast<uint8_t>(rcode);
  return 0;
}

int dns_cdata_dn(const dns_cdata *entry, unsigned char *dn, unsigned *size) {
  if (entry == nullptr || dn == nullptr || size == nullptr || entry->dn_size == 0) return DNS_E_INVAL;
  if (*size < entry->dn_size) return DNS_E_NOBUFS;
  memcpy(dn, entry->dn, entry->dn_size);
  *size = entry->dn_size;
  return 0;
}

dns_class dns_cdata_cls(const dns_cdata *entry) {
  return entry->cls;
}
dns_type dns_cdata_typ(const dns_cdata *entry) {
  return entry->typ;
}
int32_t dns_cdata_ttl(const dns_cdata *entry) {
  return entry->ttl;
}
unsigned dns_cdata_flags(const dns_cdata *entry) {
  return entry->flags;
}
int dns_cdata_rcode(const dns_cdata *entry) {
  return entry->rcode;
}
unsigned dns_cdata_nrr(const dns_cdata *entry) {
  return entry->records;
}
unsigned dns_cdata_nalias(const dns_cdata *entry) {
  return chain_cnames(entry->typ, entry->cnames);
}

unsigned dns_cdata_numan(const dns_cdata *entry) {
  if (entry->records > 0) return entry->records;
  return entry->rcode == DNS_R_NOERROR || entry->rcode == DNS_R_NXDOMAIN ? 1 : 0;
}

int dns_cdata_addrr(dns_cdata *entry, const dns_rr *rr, const dns_parse *packet) {
  if (entry == nullptr || rr == nullptr || !fits_u16(rr->dnsrr_typ) || !fits_u16(rr->dnsrr_cls)) return DNS_E_INVAL;
  Source source;
  if (!source_of(rr, packet, &source)) return DNS_E_INVAL;
  const auto typ = static_cast<uint16_t>(rr->dnsrr_typ);
  const auto cls = static_cast<uint16_t>(rr->dnsrr_cls);
  return append(entry, rr->dnsrr_dn, typ, cls, rr->dnsrr_ttl, source);
}

int dns_cdata_nextrr(dns_cdata *entry, dns_rr *rr) {
  if (entry == nullptr || rr == nullptr) return DNS_E_INVAL;
  size_t at = entry->next;
  RunRecord record;
  if (!next_record({entry->run, entry->run_size}, &at, &record)) return 0;
  const size_t size = record.data.size();
  if (size > rr->dnsrr_dsz || (rr->dnsrr_dptr == nullptr && size > 0)) return DNS_E_NOBUFS;
  const uint8_t *owner = record.owner == nullptr ? entry->dn : record.owner;
  memcpy(rr->dnsrr_dn, owner, dns_dnlen(owner));
  rr->dnsrr_cls = record.cls;
  rr->dnsrr_typ = record.typ;
  rr->dnsrr_ttl = counted_down(entry, record.ttl);
  if (size > 0) memcpy(rr->dnsrr_dptr, record.data.data(), size);
  rr->dnsrr_dsz = static_cast<unsigned>(size);
  rr->dnsrr_dend = rr->dnsrr_dptr + size;
  entry->next = at;
  return 1;
}

void dns_cdata_rewind(dns_cdata *entry) {
  entry->next = 0;
}

}  // extern "C"
