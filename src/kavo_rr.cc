// kavo_rr.cc - record blocks: allocating, growing, copying, measuring and releasing them.
//
// A block's pointers point into the block itself, so a copy rebuilds every one of them. Every answer is copied, and
// blocks can come from a host: a copy runs over its source once, and believes neither its counts nor its pointers. What
// the source refers to must be in its used bytes, and what is placed must be in the destination; otherwise the copy
// ends with an assertion in the log and an empty destination. No state: any thread may run this.
#include "kavo_rr.h"

#include <errno.h>
#include <stddef.h>
#include <string.h>

#include <dns_engine.h>
#include <pelk_log.h>

namespace {

constexpr char kSource[] = "kavo_rr";

// Every layout but the packet's is the common head and one pointer to the entries, which the copy reaches by its place.
constexpr size_t kRecordSize = sizeof(dns_rr_null) + sizeof(void *);
constexpr size_t kPacketAt = offsetof(dns_rr_pkt, dnspkt_pkt);

static_assert(offsetof(dns_rr_a4, dnsa4_addr) == sizeof(dns_rr_null) && sizeof(dns_rr_a4) == kRecordSize);
static_assert(sizeof(dns_rr_a6) == kRecordSize && sizeof(dns_rr_txt) == kRecordSize &&
              sizeof(dns_rr_mx) == kRecordSize);
static_assert(sizeof(dns_rr_ptr) == kRecordSize && sizeof(dns_rr_cname) == kRecordSize);
static_assert(sizeof(dns_rr_ns) == kRecordSize && sizeof(dns_rr_srv) == kRecordSize);

void report(const char *function, const char *expression, int line = __builtin_LINE()) {
  pelk_syslog(PELK_LOG_CRIT, "[assertion at %s:%s():%d] for '%s'", kSource, function, line, expression);
}

// Extent is the used bytes of a block.
class Extent {
 public:
  Extent(const void *block, size_t size) : start_(static_cast<const char *>(block)), size_(size) {}

  // holds returns whether `count` bytes at `place` are in the extent.
  [[nodiscard]] bool holds(const void *place, size_t count) const {
    const size_t at = distance(place);
    return at <= size_ && count <= size_ - at;
  }

  // text_size returns the bytes of the text at `place` with its terminator, 0 for one that does not end in the extent.
  [[nodiscard]] size_t text_size(const char *place) const {
    const size_t at = distance(place);
    if (at >= size_) return 0;
    const void *end = memchr(place, 0, size_ - at);
    return end == nullptr ? 0 : static_cast<size_t>(static_cast<const char *>(end) - place) + 1;
  }

  // distance is huge for a place before the extent.
  [[nodiscard]] size_t distance(const void *place) const {
    return reinterpret_cast<uintptr_t>(place) - reinterpret_cast<uintptr_t>(start_);
  }

 private:
  const char *start_;
  size_t size_;
};

// Names is the places of a block's two names in the source and in the copy, once both are known to fit.
struct Names {
  const char *cname = nullptr;
  const char *qname = nullptr;
  size_t cname_size = 0;  // with the terminator
  size_t qname_size = 0;  // 0 when the two names share one text
  size_t at = 0;          // the canonical name's distance from the block's first byte, the same in both blocks
};

// Packing is a copy under way. Entries and texts are placed between the record structure and the canonical name.
class Packing {
 public:
  Packing(const KAVO_RR &source, const KAVO_RR &target, size_t names_at)
      : extent_(source.rr_mem, source.rr_mem->dnsm_written),
        limit_(reinterpret_cast<char *>(target.rr_mem) + names_at),
        array_(reinterpret_cast<char *>(target.rr_mem) + kRecordSize),
        at_(array_),
        count_(source.rr_null->dnsn_nrr) {
    memcpy(&entries_, reinterpret_cast<const char *>(source.rr_mem) + sizeof(dns_rr_null), sizeof(entries_));
  }

  // open makes room for the array, which the texts follow. False for an array outside the source or too long.
  [[nodiscard]] bool open(size_t entry_size) {
    if (count_ < 0) return false;
    const size_t bytes = static_cast<size_t>(count_) * entry_size;
    if ((count_ > 0 && !extent_.holds(entries_, bytes)) || bytes > room()) return false;
    at_ += bytes;
    return true;
  }

  [[nodiscard]] size_t count() const { return static_cast<size_t>(count_); }
  [[nodiscard]] const char *entries() const { return entries_; }
  [[nodiscard]] char *array() const { return array_; }

  // place_name packs a zero-terminated text and points `*text` at the copy.
  [[nodiscard]] bool place_name(char **text) {
    const size_t size = extent_.text_size(*text);
    if (size == 0 || size > room()) return false;
    memcpy(at_, *text, size);
    *text = at_;
    at_ += size;
    return true;
  }

  // place_text packs `length` bytes, and a zero byte where `closed`.
  [[nodiscard]] bool place_text(dns_txt *text, bool closed) {
    if (text->len < 0) return false;
    const size_t size = static_cast<size_t>(text->len);
    if (size + closed > room() || (size > 0 && !extent_.holds(text->txt, size))) return false;
    if (size > 0) memcpy(at_, text->txt, size);
    text->txt = at_;
    at_ += size;
    if (closed) *at_++ = '\0';
    return true;
  }

 private:
  [[nodiscard]] size_t room() const { return static_cast<size_t>(limit_ - at_); }

  Extent extent_;
  char *limit_;
  char *array_;
  char *at_;
  const char *entries_ = nullptr;
  int32_t count_;
};

// place is how an entry's text is packed, by the kind of entry.
[[nodiscard]] bool place(Packing *packing, char **entry) {
  return packing->place_name(entry);
}
[[nodiscard]] bool place(Packing *packing, dns_mx *entry) {
  return packing->place_name(&entry->name);
}
[[nodiscard]] bool place(Packing *packing, dns_srv *entry) {
  return packing->place_name(&entry->name);
}

// copy_addresses copies entries that hold everything themselves.
template <typename Entry>
[[nodiscard]] bool copy_addresses(Packing *packing) {
  if (!packing->open(sizeof(Entry))) return false;
  if (packing->count() > 0) memcpy(packing->array(), packing->entries(), packing->count() * sizeof(Entry));
  return true;
}

// copy_entries copies the array entry by entry, each with its text. The source's array is foreign and may be at any
// address, so entries are copied whole and never read in place.
template <typename Entry, typename Place>
[[nodiscard]] bool copy_entries(Packing *packing, Place place_one) {
  if (!packing->open(sizeof(Entry))) return false;
  for (size_t i = 0; i < packing->count(); ++i) {
    Entry entry;
    memcpy(&entry, packing->entries() + i * sizeof(Entry), sizeof(Entry));
    if (!place_one(&entry)) return false;
    memcpy(packing->array() + i * sizeof(Entry), &entry, sizeof(Entry));
  }
  return true;
}

template <typename Entry>
[[nodiscard]] bool copy_named(Packing *packing) {
  return copy_entries<Entry>(packing, [packing](Entry *entry) { return place(packing, entry); });
}

[[nodiscard]] bool copy_texts(Packing *packing, bool closed) {
  return copy_entries<dns_txt>(packing, [=](dns_txt *entry) { return packing->place_text(entry, closed); });
}

[[nodiscard]] bool copy_layout(kavo_rr_layout layout, Packing *packing) {
  switch (layout) {
    case kavo_rr_layout::a4:
      return copy_addresses<struct in_addr>(packing);
    case kavo_rr_layout::a6:
      return copy_addresses<struct in6_addr>(packing);
    case kavo_rr_layout::txt:
      return copy_texts(packing, true);
    case kavo_rr_layout::etxt:
      return copy_texts(packing, false);
    case kavo_rr_layout::mx:
      return copy_named<dns_mx>(packing);
    case kavo_rr_layout::srv:
      return copy_named<dns_srv>(packing);
    case kavo_rr_layout::ptr:
    case kavo_rr_layout::cname:
    case kavo_rr_layout::ns:
      return copy_named<char *>(packing);
    case kavo_rr_layout::pkt:
    case kavo_rr_layout::none:
      break;
  }
  return false;
}

// fit_names finds the places of the two names. False, with the assertion logged, for a name that does not end inside
// the source or would not be inside the destination.
[[nodiscard]] bool fit_names(const KAVO_RR &source, const KAVO_RR &target, Names *names) {
  static constexpr char kStep[] = "kavo_rr_cpy_finish";
  const Extent extent(source.rr_mem, source.rr_mem->dnsm_written);
  const size_t size = target.rr_mem->dnsm_size;
  names->cname = source.rr_null->dnsn_cname;
  names->qname = source.rr_null->dnsn_qname;
  names->at = extent.distance(names->cname);
  names->cname_size = extent.text_size(names->cname);
  if (names->cname_size == 0 || names->at < kRecordSize || names->cname_size > size - names->at) {
    report(kStep,
           "dst->dnsn_cname < (char*)dst + dst->dnsn_size && "
           "dst->dnsn_cname + strlen(src->dnsn_cname) + 1 <= (char*)dst + dst->dnsn_size");
    return false;
  }
  names->qname_size = 0;
  if (names->qname == names->cname) return true;
  names->qname_size = extent.text_size(names->qname);
  if (names->qname_size == 0 || names->qname_size > size - names->at - names->cname_size) {
    report(kStep,
           "dst->dnsn_qname < (char*)dst + dst->dnsn_size && "
           "dst->dnsn_qname + strlen(src->dnsn_qname) + 1 <= (char*)dst + dst->dnsn_size");
    return false;
  }
  return true;
}

// finish places the names and the head. As many bytes are used as in the source, and at least up to the names' end.
void finish(const KAVO_RR &source, const KAVO_RR &target, const Names &names) {
  char *block = reinterpret_cast<char *>(target.rr_mem);
  char *entries = block + kRecordSize;
  memcpy(block + sizeof(dns_rr_null), &entries, sizeof(entries));

  char *cname = block + names.at;
  memcpy(cname, names.cname, names.cname_size);
  char *qname = names.qname_size == 0 ? cname : cname + names.cname_size;
  if (names.qname_size > 0) memcpy(qname, names.qname, names.qname_size);
  target.rr_null->dnsn_cname = cname;
  target.rr_null->dnsn_qname = qname;
  target.rr_null->dnsn_ttl = source.rr_null->dnsn_ttl;
  target.rr_null->dnsn_nrr = source.rr_null->dnsn_nrr;

  const auto end = static_cast<uint32_t>(names.at + names.cname_size + names.qname_size);
  target.rr_mem->dnsm_written = source.rr_mem->dnsm_written > end ? source.rr_mem->dnsm_written : end;
}

[[nodiscard]] bool copy_records(kavo_rr_layout layout, const KAVO_RR &source, const KAVO_RR &target) {
  if (source.rr_mem->dnsm_written < kRecordSize) {
    report("kavo_rr_cpy_start", "src->dnsm_written >= sizeof(*src)");
    return false;
  }
  Names names;
  if (!fit_names(source, target, &names)) return false;
  Packing packing(source, target, names.at);
  if (!copy_layout(layout, &packing)) {
    report("kavo_rr_cpy", "the entries lie inside src and fit before dst->dnsn_cname");
    return false;
  }
  finish(source, target, names);
  return true;
}

[[nodiscard]] bool copy_packet(const KAVO_RR &source, const KAVO_RR &target) {
  const size_t written = source.rr_mem->dnsm_written;
  if (written < kPacketAt || source.rr_pkt->dnspkt_psize > written - kPacketAt) {
    report("kavo_rr_cpy_pkt", "src->dnspkt_pkt + src->dnspkt_psize <= (char*)src + src->dnspkt_written");
    return false;
  }
  memcpy(target.rr_pkt->dnspkt_pkt, source.rr_pkt->dnspkt_pkt, source.rr_pkt->dnspkt_psize);
  target.rr_pkt->dnspkt_psize = source.rr_pkt->dnspkt_psize;
  target.rr_mem->dnsm_written = source.rr_mem->dnsm_written;
  return true;
}

// start refuses blocks that cannot be copied into one another at all.
[[nodiscard]] KAVO_ERR start(const KAVO_RR *source, const KAVO_RR *target) {
  if (source == nullptr || target == nullptr || source->rr_mem == nullptr || target->rr_mem == nullptr) {
    return KAVOE_BADPAR;
  }
  if (target->rr_mem->dnsm_size < source->rr_mem->dnsm_written) {
    PELK_INFO(kSource, "kavo_rr_cpy_start", "Not enough memory to copy RR (necessary: %d, avail: %d)",
              static_cast<int>(source->rr_mem->dnsm_written), static_cast<int>(target->rr_mem->dnsm_size));
    return KAVOE_NOMEM;
  }
  return KAVOE_OK;
}

[[nodiscard]] bool within_limit(const char *function, unsigned size) {
  if (size <= KAVO_RR_SIZE_MAX) return true;
  PELK_WARN(kSource, function, "Attempt to allocate too many memory for RR (requested: %d, limit: %d)",
            static_cast<int>(size), static_cast<int>(KAVO_RR_SIZE_MAX));
  return false;
}

[[nodiscard]] KAVO_ERR out_of_memory(const char *function, unsigned size) {
  PELK_ERROR(kSource, function, errno, KAVOE_NOMEM, "Unable to allocate %d bytes for RR", static_cast<int>(size));
  return KAVOE_NOMEM;
}

// replace gives a handle a fresh block, and releases an empty block that it held.
[[nodiscard]] KAVO_ERR replace(KAVO_RR *rr, unsigned size) {
  KAVO_RR fresh = {};
  const KAVO_ERR error = kavo_rr_alloc(&fresh, size);
  if (error != KAVOE_OK) return error;
  kavo_rr_free(rr);
  *rr = fresh;
  return KAVOE_OK;
}

}  // namespace

extern "C" {

KAVO_ERR kavo_rr_alloc(KAVO_RR *rr, unsigned int size) {
  if (rr == nullptr) return KAVOE_BADPAR;
  if (!within_limit(__func__, size)) return KAVOE_NOMEM;
  // A block of any size holds its own head.
  const size_t bytes = size < sizeof(dns_rr_mem) ? sizeof(dns_rr_mem) : size;
  rr->rr_mem = static_cast<dns_rr_mem *>(dns_calloc(1, bytes));
  if (rr->rr_mem == nullptr) return out_of_memory(__func__, size);
  rr->rr_mem->dnsm_size = size;
  return KAVOE_OK;
}

KAVO_ERR kavo_rr_realloc(KAVO_RR *rr, unsigned int size) {
  if (rr == nullptr) return KAVOE_BADPAR;
  if (!within_limit(__func__, size)) return KAVOE_NOMEM;
  if (rr->rr_mem == nullptr) return kavo_rr_alloc(rr, size);
  if (size <= rr->rr_mem->dnsm_size) return KAVOE_OK;
  const size_t bytes = size < sizeof(dns_rr_mem) ? sizeof(dns_rr_mem) : size;
  auto *grown = static_cast<dns_rr_mem *>(dns_realloc(rr->rr_mem, bytes));
  if (grown == nullptr) return out_of_memory(__func__, size);
  rr->rr_mem = grown;
  grown->dnsm_size = size;
  return KAVOE_OK;
}

KAVO_ERR kavo_rr_cpy(KAVO_TYPE type, const KAVO_RR *src_rr, KAVO_RR *dst_rr) {
  const kavo_rr_layout layout = kavo_rr_layout_of(type);
  if (layout == kavo_rr_layout::none) return KAVOE_FAIL;
  const KAVO_ERR error = start(src_rr, dst_rr);
  if (error != KAVOE_OK) return error;
  if (src_rr->rr_mem == dst_rr->rr_mem) return KAVOE_OK;
  const bool copied =
      layout == kavo_rr_layout::pkt ? copy_packet(*src_rr, *dst_rr) : copy_records(layout, *src_rr, *dst_rr);
  if (copied) return KAVOE_OK;
  dst_rr->rr_mem->dnsm_written = 0;
  return KAVOE_FAIL;
}

KAVO_ERR kavo_rr_dup(KAVO_TYPE type, const KAVO_RR *src_rr, KAVO_RR *dst_rr) {
  if (src_rr == nullptr || dst_rr == nullptr || src_rr->rr_mem == nullptr) return KAVOE_BADPAR;
  // Making room would release the source.
  if (src_rr->rr_mem == dst_rr->rr_mem) return kavo_rr_cpy(type, src_rr, dst_rr);
  KAVO_ERR error = KAVOE_OK;
  if (dst_rr->rr_mem == nullptr || dst_rr->rr_mem->dnsm_size == 0) {
    error = replace(dst_rr, src_rr->rr_mem->dnsm_size);
  } else if (dst_rr->rr_mem->dnsm_size < src_rr->rr_mem->dnsm_written) {
    error = kavo_rr_realloc(dst_rr, src_rr->rr_mem->dnsm_written);
  }
  return error == KAVOE_OK ? kavo_rr_cpy(type, src_rr, dst_rr) : error;
}

unsigned int kavo_rr_get_size(const KAVO_RR *rr) {
  return rr == nullptr || rr->rr_mem == nullptr ? 0 : rr->rr_mem->dnsm_written;
}

void kavo_rr_free(KAVO_RR *rr) {
  if (rr == nullptr || rr->rr_mem == nullptr) return;
  dns_free(rr->rr_mem);
  rr->rr_mem = nullptr;
}

}  // extern "C"
