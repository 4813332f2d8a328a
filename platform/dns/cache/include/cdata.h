// cdata.h - a cache entry outside a cache (the record of dns_cdata_*), and its conversion from and to an answer packet.
//
// An entry belongs to one thread at a time; nothing here locks or reads a clock. Its records are a run: bytes in the
// form of an answer section, without compressed names in their data. Each is owner, type, class, TTL, length, data. An
// owner that is the entry's own name is the pointer kOwnName, which leads to the question of any answer packet, so that
// copying a run makes an answer section. A run is trusted, because it is either written here or has passed run_facts.
#ifndef CDATA_H
#define CDATA_H

#include <stddef.h>
#include <stdint.h>

#include <span>

#include <chain.h>
#include <kavo/dns.h>

struct dns_cdata {
  uint8_t dn[DNS_MAXDN] = {};
  uint8_t dn_size = 0;  // 0: it has no name yet
  uint16_t cls = DNS_C_IN;
  uint16_t typ = DNS_T_INVALID;
  uint8_t rcode = DNS_R_NOERROR;
  int32_t ttl = 0;       // seconds that remain; negative once expired
  int32_t age = 0;       // seconds that it has been in a cache; its records' TTLs are from before that
  unsigned flags = 0;    // DNS_CD_FORCE_EXPIRED, dns::kNoSoa
  unsigned records = 0;  // all in the run
  unsigned cnames = 0;   // those of type CNAME
  uint8_t *run = nullptr;
  size_t run_size = 0;
  size_t run_capacity = 0;
  size_t next = 0;    // where dns_cdata_nextrr continues
  uint64_t hash = 0;  // of its key, from cache_look_ahead, for one lookup; 0: unknown

  dns_cdata() = default;
  dns_cdata(const dns_cdata &) = delete;
  dns_cdata &operator=(const dns_cdata &) = delete;
  ~dns_cdata();
};

namespace dns {

// A flag besides DNS_CD_FORCE_EXPIRED: a negative answer without a SOA record, hence without a TTL.
inline constexpr unsigned kNoSoa = 8192;

// A pointer to the question's name, right after the header (RFC 1035, 4.1.4).
inline constexpr uint16_t kOwnName = 0xC000 | DNS_HSIZE;

// Bytes of the longest run: a header, the longest question section and the run always fit in one message.
inline constexpr size_t kQuestionTail = 4;  // type and class
inline constexpr size_t kRunMax = DNS_MAXPACKET - DNS_HSIZE - DNS_MAXDN - kQuestionTail;

// cdata_reserve makes room for a run of `size` bytes, keeping the run. False without memory: nothing has changed.
[[nodiscard]] bool cdata_reserve(dns_cdata *entry, size_t size);

// cdata_is_negative tells whether the entry is a negative answer: the name does not exist (NXDOMAIN), or its CNAME
// chain ends without a record of the type (NODATA).
[[nodiscard]] bool cdata_is_negative(const dns_cdata *entry);
[[nodiscard]] bool is_negative(uint16_t typ, uint8_t rcode, unsigned records, unsigned cnames);

// cdata_from_answer makes `entry`, whose key is set, hold the answer in `packet`: the CNAME chain from its name and the
// records of its type at the chain's end, nothing else. DNS_E_NOERROR; DNS_E_PROTOCOL for an answer section that is
// malformed; DNS_E_CNLOOP; DNS_E_BADQUERY for an entry without a name; DNS_E_NOMEM, also for an answer that is too
// large without compression. After a failure the entry holds no records.
[[nodiscard]] dns_status cdata_from_answer(dns_cdata *entry, std::span<const uint8_t> packet, size_t answers_at,
                                           unsigned cnames_max, int rcode, int32_t ttl);

// cdata_end marks the end of the entry's records; cdata_cut removes what was appended after such a mark.
struct CdataEnd {
  size_t run_size = 0;
  unsigned records = 0;
  unsigned cnames = 0;
};
[[nodiscard]] inline CdataEnd cdata_end(const dns_cdata *entry) {
  return {entry->run_size, entry->records, entry->cnames};
}
inline void cdata_cut(dns_cdata *entry, const CdataEnd &end) {
  entry->run_size = end.run_size;
  entry->records = end.records;
  entry->cnames = end.cnames;
}

// cdata_append_chain appends to `entry` the CNAMEs of `chain`, which follow_chain found from `from` on in `packet`,
// and, with `answers`, the records of the entry's type at the chain's end. DNS_E_NOERROR, or as cdata_from_answer.
[[nodiscard]] dns_status cdata_append_chain(dns_cdata *entry, std::span<const uint8_t> packet, size_t answers_at,
                                            const uint8_t *from, const Chain &chain, bool answers);

// cdata_to_packet writes the entry as a whole answer packet: header (QR, RA, the response code), question, and the
// records with what remains of their TTLs, 0 for those of an expired entry. Returns its length; DNS_E_NOBUFS when it
// does not fit `size` (DNS_MAXPACKET always does); DNS_E_BADQUERY for an entry without a name.
[[nodiscard]] int cdata_to_packet(const dns_cdata *entry, uint8_t *buffer, size_t size);

// RunFacts is what a run holds: its records, those of type CNAME, the longest TTL.
struct RunFacts {
  uint16_t records = 0;
  uint16_t cnames = 0;
  uint32_t ttl_max = 0;
};

// run_facts checks a run from outside the process. False for one that could not have been written here.
[[nodiscard]] bool run_facts(std::span<const uint8_t> run, RunFacts *facts);

// run_settle rewrites the TTLs of a run: each lowered by `age`, then kept within `least` and `most`.
void run_settle(std::span<uint8_t> run, int32_t age, int32_t least, int32_t most);

}  // namespace dns

#endif  // CDATA_H
