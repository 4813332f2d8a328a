// dns_wire.h - bytes only: names, addresses, packets and records. No socket, clock, lock or allocation in sight.
//
// Foreign bytes are read through Reader, a cursor that cannot pass the end; everything else here is built on it.
#ifndef DNS_WIRE_H
#define DNS_WIRE_H

#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <span>

#include <kavo/dns.h>

// ---- names and addresses, in the C form that the library above calls -----------------------------------------------

extern "C" {

// dns_dnlen returns the length of a DN, its closing zero byte included; 0 for bytes that are no DN (a label above 63
// bytes, or no closing zero within DNS_MAXDN bytes). It reads at most DNS_MAXDN bytes.
unsigned dns_dnlen(const unsigned char *dn);

// dns_dnequal returns nonzero when both names are the same domain, ASCII letters without regard to case (RFC 4343):
// then it is their length. 0 otherwise, also for bytes that are no DN.
unsigned dns_dnequal(const unsigned char *dn1, const unsigned char *dn2);

// dns_dntodn copies a DN; returns its length, 0 when it does not fit `size` or is no DN.
unsigned dns_dntodn(const unsigned char *sdn, unsigned char *ddn, unsigned size);

// dns_ptodn turns `length` bytes of text (0: up to its terminator) into a DN. "\X" and "\DDD" escapes are understood; a
// closing dot is optional and reported through `absolute` (null allowed). Returns the DN's length; 0 when it does not
// fit `size` or is longer than DNS_MAXDN, below 0 when the text is no name (an empty label, a label above 63 bytes, an
// escape cut off or above 255). "." is the root.
int dns_ptodn(const char *text, unsigned length, unsigned char *dn, int size, int *absolute);

// dns_dntop writes a DN as text without a closing dot (the root is "."), dots and backslashes inside labels escaped as
// "\." and bytes outside printable ASCII as "\DDD". Returns the text's length without its terminator; 0 when it does
// not fit `size`, below 0 for bytes that are no DN. dns_dntop_size gives the bytes that the text and its terminator
// need, or 0.
int dns_dntop(const unsigned char *dn, char *text, int size);
unsigned dns_dntop_size(const unsigned char *dn);

// dns_dntosp is dns_dntop into a buffer of the calling thread's own, valid until the thread's next call; "" for no DN.
const char *dns_dntosp(const unsigned char *dn);

// dns_a4todn_ writes the four decimal labels of an address, lowest-order octet first, dns_a6todn_ the 32 nibble labels,
// lowest first (RFC 5782); neither a closing zero. They return the position after the last label, or null when the
// labels do not fit before `end`.
unsigned char *dns_a4todn_(const struct in_addr *address, unsigned char *dn, const unsigned char *end);
unsigned char *dns_a6todn_(const struct in6_addr *address, unsigned char *dn, const unsigned char *end);

// dns_pton reads an address text (AF_INET: strictly four decimal octets; AF_INET6). Above 0 for an address, 0 for a
// text that is none, below 0 for another family. dns_ntop writes one and returns `text`, or null when it does not fit.
int dns_pton(int family, const char *text, void *address);
const char *dns_ntop(int family, const void *address, char *text, unsigned size);

}  // extern "C"

// ---- packets in the C form -----------------------------------------------------------------------------------------

// dns_pkt: a packet being written. Records go into the section that is open: the answer section after dns_initpacket;
// dns_end_section closes the sections before the named one and opens that; DNS_S_ALL closes the packet.
struct dns_pkt {
  unsigned char *dnspk_start;
  unsigned char *dnspk_end;    // the byte after the last one written
  unsigned char *dnspk_limit;  // the byte after the buffer
  int dnspk_section;           // the section that is open
};

// dns_parse: a packet being read, record by record. The packet is foreign and is never read outside its bounds.
struct dns_parse {
  const unsigned char *dnsp_pkt;
  const unsigned char *dnsp_end;
  const unsigned char *dnsp_cur;  // where the next record begins
  int dnsp_section;               // the section that is being walked
  unsigned dnsp_left;             // records left in it
};

extern "C" {

// dns_initpacket starts a packet with its header (QR and RA set, everything else 0) and one question. Returns the bytes
// written; DNS_E_NOBUFS or DNS_E_BADQUERY.
int dns_initpacket(struct dns_pkt *packet, unsigned char *buffer, unsigned size, const unsigned char *dn, dns_type typ,
                   dns_class cls);

// dns_addrr appends a record to the open section and counts it in the header; its name is compressed to a pointer to
// the question where it is the question's. Names in its data may be compressed against `source`, and are written whole;
// with a null source they must not be. A negative TTL, an expired entry's, is written as 0. 0, DNS_E_NOBUFS,
// DNS_E_PROTOCOL.
int dns_addrr(struct dns_pkt *packet, const struct dns_parse *source, const struct dns_rr *rr);
int dns_end_section(struct dns_pkt *packet, int section);

// dns_initparse prepares to read [packet, end) and stands at its question section; `question` (null allowed) receives
// the question's DN (DNS_MAXDN bytes). 0, or DNS_E_PROTOCOL for a packet without a whole header or with broken
// questions.
int dns_initparse(struct dns_parse *parse, const unsigned char *packet, const unsigned char *end,
                  unsigned char *question);
// dns_rewind_sec stands before the first record of a section (DNS_S_AN, DNS_S_NS, DNS_S_AR). 0 or DNS_E_PROTOCOL.
int dns_rewind_sec(struct dns_parse *parse, int section);
// dns_nextrr reads the next record of the section; its data points into the packet. 1, 0 after the last one, or
// DNS_E_PROTOCOL.
int dns_nextrr(struct dns_parse *parse, struct dns_rr *rr);

// dns_printheader prints a packet's header, dns_printsection one of its sections (DNS_S_QD to DNS_S_AR), as dig does:
// records in master-file form, an OPT record as the pseudo-section that it is. At `level` 0 there are records only, no
// header and no titles. A section prints as far as it is sound. Only the bounds of `parse` matter, so that a packet
// which dns_initparse refused can be shown. 0, DNS_E_PROTOCOL for a packet that is cut off or broken, DNS_E_INVAL.
int dns_printheader(FILE *stream, int level, const struct dns_parse *parse);
int dns_printsection(FILE *stream, int level, const struct dns_parse *parse, int section);

}  // extern "C"

namespace dns {

// ---- cursors -------------------------------------------------------------------------------------------------------

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

// Reader walks foreign bytes. Every read either succeeds whole or leaves the cursor where it was and returns false.
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
  // check_name checks all that name does, and keeps nothing.
  [[nodiscard]] bool name(uint8_t *dn, unsigned *size = nullptr);
  [[nodiscard]] bool check_name();
  // passes passes over `value` where it stands next; false for other bytes.
  [[nodiscard]] bool passes(std::span<const uint8_t> value) {
    if (value.size() > left() || memcmp(packet_.data() + at_, value.data(), value.size()) != 0) return false;
    at_ += value.size();
    return true;
  }
  // skip_name passes over a name without looking where a pointer leads.
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

// ---- packets -------------------------------------------------------------------------------------------------------

// Header is a packet's first twelve bytes (RFC 1035, 4.1.1).
struct Header {
  uint16_t id;
  bool qr, aa, tc, rd, ra;
  uint8_t opcode;
  uint8_t rcode;
  uint16_t count[4];  // records by section, DNS_S_QD to DNS_S_AR
};
[[nodiscard]] bool read_header(std::span<const uint8_t> packet, Header *header);

// records_in returns how many records a packet's header counts in a section, DNS_S_QD to DNS_S_AR; 0 for a packet
// without a whole header.
[[nodiscard]] inline unsigned records_in(std::span<const uint8_t> packet, int section) {
  constexpr size_t kCountsAt = 4;
  if (packet.size() < DNS_HSIZE) return 0;
  return load_u16(packet.data() + kCountsAt + static_cast<size_t>(section) * sizeof(uint16_t));
}

// Sections finds where the sections of a packet begin, and walks over each at most once.
class Sections {
 public:
  Sections(std::span<const uint8_t> packet, const Header &header) : reader_(packet, DNS_HSIZE), header_(header) {}
  // One for a packet whose questions have been read, up to `answers_at`.
  Sections(std::span<const uint8_t> packet, const Header &header, size_t answers_at)
      : reader_(packet, answers_at), header_(header), passed_(DNS_S_AN), starts_{reader_.position()} {}

  [[nodiscard]] std::span<const uint8_t> packet() const { return reader_.packet(); }
  [[nodiscard]] const Header &header() const { return header_; }
  // find gives the position of the first record of a section, DNS_S_QD to DNS_S_ALL, which stands for the byte behind
  // the last one. False for a malformed packet.
  [[nodiscard]] bool find(int section, size_t *position);

 private:
  Reader reader_;  // behind the last section that was passed
  const Header &header_;
  int passed_ = DNS_S_QD;          // the section that the reader stands before
  size_t starts_[DNS_S_ALL] = {};  // of the sections behind DNS_S_QD, as far as they were found
};

// write_query builds a packet that asks about a whole DN, with the RD bit as told; returns its length, 0 when `buffer`
// is too small.
[[nodiscard]] size_t write_query(std::span<uint8_t> buffer, uint16_t id, bool recursive, std::span<const uint8_t> dn,
                                 dns_type typ, dns_class cls);

// Letter case carries random bits that an answer must bring back (a forger has to guess them). apply_case gives the
// letters of a DN the case that `bits` says, each of up to 64 bytes a bit of its own; kLowerCase makes all lower case.
// has_case tells whether `name`, of dn's size, is `dn` with its letters in that case.
inline constexpr uint64_t kLowerCase = UINT64_MAX;
void apply_case(std::span<uint8_t> dn, uint64_t bits);
[[nodiscard]] bool has_case(std::span<const uint8_t> name, const uint8_t *dn, uint64_t bits);

// write_opt appends an OPT record (RFC 6891) to the question packet of `size` bytes in `packet`: it tells the server
// that UDP answers may be `udp_size` bytes, and carries a cookie option (RFC 7873) where `cookie` is not empty. The
// packet's length, 0 when it does not fit.
[[nodiscard]] size_t write_opt(std::span<uint8_t> packet, size_t size, uint16_t udp_size,
                               std::span<const uint8_t> cookie);

// Opt is what an answer's OPT record says. `cookie` points into the packet.
struct Opt {
  bool present;
  uint8_t rcode_high;  // the upper eight bits of the response code, above the header's four
  uint8_t version;
  uint16_t udp_size;
  std::span<const uint8_t> cookie;
};
// read_opt looks for an OPT record. False for a packet that is malformed or has two.
[[nodiscard]] bool read_opt(Sections *sections, Opt *opt);

// Record is one record of a packet, its data still compressed. `data_at` is the data's place in the packet.
struct Record {
  uint8_t owner[DNS_MAXDN];
  unsigned owner_size;
  uint16_t typ;
  uint16_t cls;
  int32_t ttl;  // 0 to 2^31 - 1: a larger one is read as 0 (RFC 2181, section 8)
  std::span<const uint8_t> data;
  size_t data_at;
};
[[nodiscard]] bool read_record(Reader *reader, Record *record);

// plain_data writes a record's data to `writer` with every compressed name in it written whole, for the types that may
// hold one (RFC 3597, section 4). False for data that its type does not allow, or when it does not fit.
[[nodiscard]] bool plain_data(std::span<const uint8_t> packet, uint16_t typ, size_t data_at, size_t data_size,
                              Writer *writer);

// Chain is where the aliases of an answer lead: the records of the asked type at `end` answer the question.
struct Chain {
  uint8_t end[DNS_MAXDN];
  unsigned end_size;
  unsigned aliases;  // CNAME records followed
  unsigned records;  // records of the type (and class) at the end
  int32_t ttl;       // the least TTL of the aliases and those records; INT32_MAX without any
  bool left;         // `end` lies outside the zone whose servers answered, so that nothing is known about it
};
// follow_chain walks the answer section from `dn`, a whole DN. A CNAME answers a question for CNAME or ANY and is not
// followed then. It ends at the first name outside the zone `within` (null: none is outside), whose servers cannot
// speak for it (RFC 2181, 5.4.1). DNS_E_NOERROR, DNS_E_PROTOCOL for a section that is malformed, DNS_E_CNLOOP beyond
// `aliases_max` aliases.
[[nodiscard]] dns_status follow_chain(std::span<const uint8_t> packet, size_t answers_at, std::span<const uint8_t> dn,
                                      dns_type typ, dns_class cls, unsigned aliases_max, Chain *chain,
                                      const uint8_t *within = nullptr);

// covers tells whether a zone holds a name: whether it is the name itself or one above it. Both are whole DNs.
[[nodiscard]] bool covers(std::span<const uint8_t> zone, std::span<const uint8_t> dn);
[[nodiscard]] inline bool covers(const uint8_t *zone, const uint8_t *dn) {
  return covers({zone, dns_dnlen(zone)}, {dn, dns_dnlen(dn)});
}

// Denial is what the authority section says when there is no answer.
struct Denial {
  bool soa;        // a SOA record stands there whose owner is the name asked or one above it
  bool stray_soa;  // a SOA record of another zone stands there
  bool ns;         // NS records stand there
  int32_t ttl;     // seconds to keep the denial: the lesser of the SOA's TTL and its MINIMUM (RFC 2308); 0 without
  uint8_t zone[DNS_MAXDN];  // the owner of the SOA, or of the NS records
};
[[nodiscard]] dns_status read_denial(std::span<const uint8_t> packet, size_t authority_at, std::span<const uint8_t> dn,
                                     Denial *denial);

// section_at finds where a section begins. False for a malformed packet.
[[nodiscard]] bool section_at(std::span<const uint8_t> packet, int section, size_t *position);

// ---- record blocks -------------------------------------------------------------------------------------------------

enum class Block { a4, a6, txt, etxt, mx, ptr, cname, ns, srv, pkt };

// The aliases that a block's chain may have, where no context sets another bound.
inline constexpr unsigned kAliasesMax = 16;

// lay_block lays the answer to `dn` out as a record block in `buffer` (aligned to 8 bytes) and returns the block's
// size, which its size field carries too. DNS_E_NOBUFS: it does not fit, and `needed` (null allowed) says what would.
// Entries are the records of the block's type at the end of the chain, in packet order.
[[nodiscard]] int lay_block(Block kind, std::span<const uint8_t> packet, size_t answers_at, const uint8_t *dn,
                            std::span<uint8_t> buffer, size_t *needed, unsigned aliases_max = kAliasesMax);

}  // namespace dns

#endif  // DNS_WIRE_H
