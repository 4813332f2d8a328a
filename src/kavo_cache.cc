// kavo_cache.cc - a cache in the library's own terms: record blocks put under questions, fetched as answers, deleted,
// looked for.
//
// Any thread may call these at any time; the cacher itself serializes its callers. An entry is keyed by the question's
// name and DNS type, so that types which ask for the same records share entries. A fetch is built for speed: buffers on
// the stack, and one cache-data object that each thread keeps from one call to the next.
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <memory>
#include <span>
#include <utility>

#include <cursor.h>
#include <dns_engine.h>
#include <dns_wire.h>

#include "kavo_rr.h"
#include "kavo_t.h"

namespace {

constexpr unsigned kEntryRoom = 256;  // bytes of records for which an object has room at once

// An object is kept for the thread's next call unless its entry made a longer packet than this, for which it may have
// grown.
constexpr size_t kKeptPacket = 1024;

constexpr size_t kStringMax = 255;  // bytes of one character-string of a TXT record

using Dn = std::array<unsigned char, DNS_MAXDN>;

// ---- the object of a call -----------------------------------------------------------------------------------------

// The object that the thread keeps, null while a call has it. At the thread's end a destructor of the host's may call
// after Keeper's has run; nothing is kept any more then.
thread_local dns_cdata *kept = nullptr;
thread_local bool thread_ends = false;

struct Keeper {
  ~Keeper() {
    dns_cdata_free(std::exchange(kept, nullptr));
    thread_ends = true;
  }
  void keep(dns_cdata *entry) { dns_cdata_free(std::exchange(kept, entry)); }
};
thread_local Keeper keeper;

// CacheData is the cache-data object of one call, the one that the thread keeps where that is free.
class CacheData {
 public:
  CacheData() : entry_(std::exchange(kept, nullptr)) {
    if (entry_ == nullptr) entry_ = dns_cdata_init(kEntryRoom);
  }
  ~CacheData() {
    if (keep_ && !thread_ends) {
      keeper.keep(entry_);
    } else {
      dns_cdata_free(entry_);
    }
  }
  CacheData(const CacheData &) = delete;
  CacheData &operator=(const CacheData &) = delete;

  // set makes the object an empty entry of a key; false without an object, or for a type that DNS does not have.
  [[nodiscard]] bool set(const Dn &dn, dns_type typ, unsigned flags) {
    static constexpr unsigned char kRoot[] = {0};
    static constexpr unsigned char kOther[] = {1, 'x', 0};
    if (entry_ == nullptr) return false;
    // A change of name empties the entry. One of these two names is not the entry's.
    if (dns_cdata_setdn(entry_, kRoot) < 0 || dns_cdata_setdn(entry_, kOther) < 0) return false;
    if (dns_cdata_setdn(entry_, dn.data()) < 0 || dns_cdata_setcls(entry_, DNS_C_IN) < 0) return false;
    if (dns_cdata_setttl(entry_, 0) < 0 || dns_cdata_setrcode(entry_, DNS_R_NOERROR) < 0) return false;
    return dns_cdata_settyp(entry_, typ) >= 0 && dns_cdata_setflags(entry_, flags) >= 0;
  }

  [[nodiscard]] dns_cdata *get() const { return entry_; }
  // keep leaves the object to the thread's next call.
  void keep() { keep_ = true; }

 private:
  dns_cdata *entry_;
  bool keep_ = false;
};

// ---- keys ---------------------------------------------------------------------------------------------------------

// Question is the key of an entry, whose class is IN.
struct Question {
  Dn dn;  // as much as its name needs is set
  dns_type typ = DNS_T_INVALID;
};

[[nodiscard]] KAVO_ERR convert_query_to_dn(const char *query, int query_len, Dn *dn) {
  if (query == nullptr || query_len < 1 || query_len > static_cast<int>(dn->size())) return KAVOE_FAIL;
  const int size = kavo_dns_ptodn(query, static_cast<unsigned>(query_len), dn->data(), static_cast<int>(dn->size()));
  return size > 0 ? KAVOE_OK : KAVOE_FAIL;
}

// KAVOT_DNS_MAX passes the conversion, but no record has such a type.
[[nodiscard]] KAVO_ERR convert_query(KAVO_TYPE type, const char *query, int query_len, Question *question) {
  question->typ = kavo_convert_type(type);
  if (question->typ == DNS_T_INVALID || question->typ > UINT16_MAX) return KAVOE_BADPAR;
  return convert_query_to_dn(query, query_len, &question->dn);
}

// ---- from a block to records --------------------------------------------------------------------------------------

// RecordWriter appends a block's entries to an entry of the cache, one record each.
class RecordWriter {
 public:
  RecordWriter(dns_cdata *entry, const Question &question, int32_t ttl) : entry_(entry) {
    rr_.dnsrr_cls = DNS_C_IN;
    rr_.dnsrr_typ = question.typ;
    rr_.dnsrr_ttl = ttl;
    memcpy(rr_.dnsrr_dn, question.dn.data(), question.dn.size());
  }

  [[nodiscard]] KAVO_ERR add(const KAVO_RR &block, size_t i) {
    switch (rr_.dnsrr_typ) {
      case DNS_T_A:
        return append(&block.rr_a->dnsa4_addr[i], sizeof(in_addr));
      case DNS_T_AAAA:
      case DNS_T_A6:
        return append(&block.rr_a6->dnsa6_addr[i], sizeof(in6_addr));
      case DNS_T_NS:
      case DNS_T_CNAME:
      case DNS_T_PTR:
        return name({}, block.rr_ptr->dnsptr_ptr[i]);
      case DNS_T_MX: {
        const dns_mx &mx = block.rr_mx->dnsmx_mx[i];
        return name({&mx.priority, 1}, mx.name);
      }
      case DNS_T_SRV: {
        const dns_srv &srv = block.rr_srv->dnssrv_srv[i];
        const int32_t numbers[] = {srv.priority, srv.weight, srv.port};
        return name(numbers, srv.name);
      }
      case DNS_T_TXT:
        return text(block.rr_txt->dnstxt_txt[i]);
      default:
        return KAVOE_BADPAR;
    }
  }

 private:
  [[nodiscard]] KAVO_ERR append(const void *data, size_t size) {
    // The field is not const because others read records into it; this record is only read.
    rr_.dnsrr_dptr = static_cast<unsigned char *>(const_cast<void *>(data));
    rr_.dnsrr_dsz = static_cast<unsigned>(size);
    rr_.dnsrr_dend = rr_.dnsrr_dptr + size;
    return dns_cdata_addrr(entry_, &rr_, nullptr) == 0 ? KAVOE_OK : KAVOE_FAIL;
  }

  // name appends data that is numbers of 16 bits, the low bits of those given, and a name.
  [[nodiscard]] KAVO_ERR name(std::span<const int32_t> numbers, const char *text) {
    std::array<uint8_t, 3 * sizeof(uint16_t) + DNS_MAXDN> data;
    Dn dn;
    if (text == nullptr || dns_ptodn(text, 0, dn.data(), static_cast<int>(dn.size()), nullptr) <= 0) return KAVOE_FAIL;
    dns::Writer writer(data);
    for (const int32_t number : numbers)
      writer.u16(static_cast<uint16_t>(number));
    writer.name(dn.data());
    return writer.ok() ? append(data.data(), writer.position()) : KAVOE_FAIL;
  }

  // text appends a text cut into full character-strings and a last one, which may be empty.
  [[nodiscard]] KAVO_ERR text(const dns_txt &txt) {
    if (txt.len < 0 || txt.len > UINT16_MAX || (txt.txt == nullptr && txt.len > 0)) return KAVOE_FAIL;
    const auto length = static_cast<size_t>(txt.len);
    const size_t size = length + length / kStringMax + 1;
    struct Free {
      void operator()(uint8_t *memory) const { free(memory); }
    };
    const std::unique_ptr<uint8_t, Free> data(static_cast<uint8_t *>(malloc(size)));
    if (data == nullptr) return KAVOE_NOMEM;
    dns::Writer writer({data.get(), size});
    const std::span<const uint8_t> bytes(reinterpret_cast<const uint8_t *>(txt.txt), length);
    for (size_t at = 0; at <= length; at += kStringMax) {
      const auto piece = bytes.subspan(at, std::min(kStringMax, length - at));
      writer.u8(static_cast<uint8_t>(piece.size()));
      writer.bytes(piece);
    }
    return writer.ok() ? append(data.get(), size) : KAVOE_FAIL;
  }

  dns_cdata *entry_;
  dns_rr rr_ = {};
};

// add_records appends every entry of a block. The address of the entries is at one place in all layouts.
[[nodiscard]] KAVO_ERR add_records(dns_cdata *entry, const Question &question, const KAVO_RR &block) {
  if (block.rr_null->dnsn_nrr > 0 && block.rr_a->dnsa4_addr == nullptr) return KAVOE_BADPAR;
  RecordWriter writer(entry, question, block.rr_null->dnsn_ttl);
  for (int32_t i = 0; i < block.rr_null->dnsn_nrr; ++i) {
    const KAVO_ERR error = writer.add(block, static_cast<size_t>(i));
    if (error != KAVOE_OK) return error;
  }
  return KAVOE_OK;
}

// ---- from an entry to a block -------------------------------------------------------------------------------------

// classify works out what an entry answers; false for an entry that makes no sense as an answer.
[[nodiscard]] bool classify(const dns_cdata *entry, KAVO_ERR *outcome) {
  if (dns_cdata_numan(entry) == 0) return false;
  const int rcode = dns_cdata_rcode(entry);
  const unsigned records = dns_cdata_nrr(entry);
  const unsigned cnames = dns_cdata_nalias(entry);
  const bool nothing = records == cnames || records == 0;
  if (rcode == DNS_R_NOERROR && (nothing || records > cnames)) {
    *outcome = nothing ? KAVOE_NODATA : KAVOE_OK;
    return true;
  }
  if (rcode != DNS_R_NXDOMAIN || !nothing) return false;
  *outcome = KAVOE_NXDOM;
  return true;
}

// Packet is the answer packet that an entry is turned back into, for the parsers to read.
struct Packet {
  std::array<unsigned char, KAVO_PBUF_SIZE> bytes;
  const unsigned char *answers = nullptr;
  const unsigned char *end = nullptr;
};

[[nodiscard]] bool rebuild(dns_cdata *entry, const Question &question, Packet *packet) {
  std::array<unsigned char, KAVO_RRBUF_SIZE> data;
  dns_pkt writer;
  const int head = dns_initpacket(&writer, packet->bytes.data(), static_cast<unsigned>(packet->bytes.size()),
                                  question.dn.data(), question.typ, DNS_C_IN);
  if (head < 0) return false;
  for (;;) {
    dns_rr rr;
    rr.dnsrr_dptr = data.data();
    rr.dnsrr_dsz = static_cast<unsigned>(data.size());
    const int found = dns_cdata_nextrr(entry, &rr);
    if (found == 0) break;
    // Some of the records would be a wrong answer.
    if (found < 0 || dns_addrr(&writer, nullptr, &rr) < 0) return false;
  }
  if (dns_end_section(&writer, DNS_S_ALL) < 0) return false;
  packet->answers = packet->bytes.data() + head;
  packet->end = writer.dnspk_end;
  return true;
}

// Scratch holds a block that is being parsed.
struct Scratch {
  alignas(8) std::array<unsigned char, KAVO_RR_SIZE_MAX> bytes;
};

// parse lays an entry's block out in `scratch`. An expired entry's packet cannot carry its age, the block can.
[[nodiscard]] bool parse(dns_cdata *entry, KAVO_TYPE type, const Question &question, const Packet &packet,
                         Scratch *scratch, KAVO_RR *block) {
  dns_parse_fn *parser = kavo_get_parser(type, 0);
  void *result = scratch->bytes.data();
  if (parser == nullptr || parser(nullptr, nullptr, question.dn.data(), packet.bytes.data(), packet.answers, packet.end,
                                  &result, static_cast<unsigned>(scratch->bytes.size())) < 0) {
    return false;
  }
  block->rr_mem = static_cast<dns_rr_mem *>(result);
  const int32_t ttl = dns_cdata_ttl(entry);
  if (ttl < 0) block->rr_null->dnsn_ttl = ttl;
  return true;
}

[[nodiscard]] KAVO_ERR fetch(CacheData *data, KAVO_TYPE type, const Question &question, KAVO_ANSWER *answer) {
  Packet packet;
  Scratch scratch;
  KAVO_RR block = {};
  if (!classify(data->get(), &answer->err_code)) return KAVOE_FAIL;
  if (!rebuild(data->get(), question, &packet)) return KAVOE_FAIL;
  if (static_cast<size_t>(packet.end - packet.bytes.data()) <= kKeptPacket) data->keep();
  if (!parse(data->get(), type, question, packet, &scratch, &block)) return KAVOE_FAIL;
  if (kavo_rr_dup(type, &block, &answer->rr) != KAVOE_OK) return KAVOE_FAIL;
  answer->type = type;
  answer->cache_code = answer->rr.rr_null->dnsn_ttl < 0 ? KAVOCC_OLD : KAVOCC_EXISTS;
  answer->actual_size = kavo_rr_get_size(&answer->rr);
  answer->zone = 0;
  answer->query_time = 0;
  return KAVOE_OK;
}

// look_up returns the outcome of a lookup, with what was found in `data`.
[[nodiscard]] KAVO_ERR look_up(KAVO_CACHE cacher, const Question &question, unsigned flags, CacheData *data) {
  if (!data->set(question.dn, question.typ, flags)) return KAVOE_FAIL;
  const int found = dns_cacher_get(cacher, data->get(), dns_gettime(nullptr));
  if (found < 0) return KAVOE_FAIL;
  if (found > 0) return KAVOE_OK;
  data->keep();
  return KAVOE_NODATA;
}

}  // namespace

extern "C" {

KAVO_ERR kavo_cache_put(KAVO_CACHE cacher, KAVO_TYPE kavo_query_type, const char *query, int query_len,
                        KAVO_RR *kavo_rr) {
  if (query == nullptr || cacher == nullptr || kavo_rr == nullptr || kavo_rr->rr_mem == nullptr) return KAVOE_BADPAR;
  Question question;
  KAVO_ERR error = convert_query(kavo_query_type, query, query_len, &question);
  if (error != KAVOE_OK) return error;
  CacheData data;
  if (!data.set(question.dn, question.typ, 0)) return KAVOE_FAIL;
  if (dns_cdata_setttl(data.get(), kavo_rr->rr_null->dnsn_ttl) < 0) return KAVOE_FAIL;
  error = add_records(data.get(), question, *kavo_rr);
  if (error != KAVOE_OK) return error;
  return dns_cacher_put(cacher, data.get(), dns_gettime(nullptr)) == 0 ? KAVOE_OK : KAVOE_FAIL;
}

KAVO_ERR kavo_cache_get(KAVO_CACHE cacher, KAVO_TYPE kavo_query_type, const char *query, int query_len,
                        KAVO_ANSWER *answer, int need_expired_also) {
  if (cacher == nullptr || answer == nullptr) return KAVOE_BADPAR;
  Question question;
  KAVO_ERR error = convert_query(kavo_query_type, query, query_len, &question);
  if (error != KAVOE_OK) return error;
  CacheData data;
  error = look_up(cacher, question, need_expired_also != 0 ? DNS_CD_FORCE_EXPIRED : 0, &data);
  return error == KAVOE_OK ? fetch(&data, kavo_query_type, question, answer) : error;
}

KAVO_ERR kavo_cache_del(KAVO_CACHE cacher, KAVO_TYPE kavo_query_type, const char *query, int query_len) {
  if (cacher == nullptr) return KAVOE_BADPAR;
  Question question;
  const KAVO_ERR error = convert_query(kavo_query_type, query, query_len, &question);
  if (error != KAVOE_OK) return error;
  CacheData data;
  if (!data.set(question.dn, question.typ, 0)) return KAVOE_FAIL;
  data.keep();
  return dns_cacher_delete(cacher, data.get(), dns_gettime(nullptr)) >= 0 ? KAVOE_OK : KAVOE_FAIL;
}

KAVO_ERR kavo_cache_has(KAVO_CACHE cacher, KAVO_TYPE kavo_query_type, const char *query, int query_len) {
  if (cacher == nullptr) return KAVOE_BADPAR;
  Question question;
  const KAVO_ERR error = convert_query(kavo_query_type, query, query_len, &question);
  if (error != KAVOE_OK) return error;
  CacheData data;
  return look_up(cacher, question, 0, &data);
}

}  // extern "C"
