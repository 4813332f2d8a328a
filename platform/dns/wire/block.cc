// block.cc - record blocks: an answer packet laid out in one piece of memory, in the order that kavo/dns_rr.h
// describes.
//
// A block is laid out in one walk over the answer. Layer keeps counting past the end of the buffer, so that the same
// walk tells how much a block needs.
#include <block.h>

#include <stddef.h>
#include <string.h>

#include <chain.h>
#include <cursor.h>
#include <dns_wire.h>
#include <message.h>
#include <name.h>
#include <record.h>

#include "answers.h"

namespace dns {
namespace {

constexpr size_t kBlockAlign = 8;

// Head is what every layout but the packet's begins with, the pointer to its entries included.
struct Head {
  dns_rr_null common;
  void *entries;
};
static_assert(sizeof(Head) == sizeof(dns_rr_a4) && offsetof(Head, entries) == offsetof(dns_rr_a4, dnsa4_addr));
static_assert(sizeof(Head) == sizeof(dns_rr_srv) && offsetof(Head, entries) == offsetof(dns_rr_srv, dnssrv_srv));
static_assert(sizeof(Head) % kBlockAlign == 0, "entries follow the record structure and hold pointers");

// Layer fills a buffer from front to back. What does not fit is counted but not written, and its address is null.
class Layer {
 public:
  explicit Layer(std::span<uint8_t> buffer) : buffer_(buffer) {}

  // reserve takes `count` bytes and returns where they begin.
  size_t reserve(size_t count) {
    const size_t at = needed_;
    needed_ += count;
    return at;
  }

  void put(size_t at, const void *bytes, size_t count) {
    if (fits(at, count) && count > 0) memcpy(buffer_.data() + at, bytes, count);
  }

  char *append(const void *bytes, size_t count) {
    const size_t at = reserve(count);
    put(at, bytes, count);
    return address(at);
  }

  // append_name appends a whole DN as text; returns the text.
  char *append_name(const uint8_t *dn) {
    char text[DNS_MAXNAME];
    const char *end = put_name(dn, text);
    return append(text, static_cast<size_t>(end - text) + 1);
  }

  char *address(size_t at) { return at <= buffer_.size() ? reinterpret_cast<char *>(buffer_.data()) + at : nullptr; }

  [[nodiscard]] size_t needed() const { return needed_; }

 private:
  [[nodiscard]] bool fits(size_t at, size_t count) const {
    return at <= buffer_.size() && count <= buffer_.size() - at;
  }

  std::span<uint8_t> buffer_;
  size_t needed_ = 0;
};

// Each type's function lays out one entry: `data` reads the record's data, `at` is the entry's place. False for
// malformed data. The caller checks that no data is left over.
using LayEntry = bool(Reader *data, Layer *layer, size_t at);

template <typename Address>
bool lay_address(Reader *data, Layer *layer, size_t at) {
  std::span<const uint8_t> bytes;
  if (!data->bytes(sizeof(Address), &bytes)) return false;
  layer->put(at, bytes.data(), bytes.size());
  return true;
}

// join_strings appends the character-strings of a TXT record, joined, to the block.
bool join_strings(Reader *data, Layer *layer, dns_txt *entry) {
  entry->txt = layer->append(nullptr, 0);
  do {
    uint8_t size = 0;
    std::span<const uint8_t> string;
    if (!data->u8(&size) || !data->bytes(size, &string)) return false;
    layer->append(string.data(), string.size());
    entry->len += size;
  } while (data->left() > 0);
  return true;
}

bool lay_etxt(Reader *data, Layer *layer, size_t at) {
  dns_txt entry = {};
  if (!join_strings(data, layer, &entry)) return false;
  layer->put(at, &entry, sizeof entry);
  return true;
}

bool lay_txt(Reader *data, Layer *layer, size_t at) {
  if (!lay_etxt(data, layer, at)) return false;
  layer->append("", 1);
  return true;
}

bool lay_name(Reader *data, Layer *layer, size_t at) {
  uint8_t dn[DNS_MAXDN];
  if (!data->name(dn)) return false;
  const char *text = layer->append_name(dn);
  layer->put(at, &text, sizeof text);
  return true;
}

bool lay_mx(Reader *data, Layer *layer, size_t at) {
  uint8_t dn[DNS_MAXDN];
  uint16_t priority = 0;
  if (!data->u16(&priority) || !data->name(dn)) return false;
  const dns_mx entry = {priority, layer->append_name(dn)};
  layer->put(at, &entry, sizeof entry);
  return true;
}

bool lay_srv(Reader *data, Layer *layer, size_t at) {
  uint8_t dn[DNS_MAXDN];
  uint16_t priority = 0;
  uint16_t weight = 0;
  uint16_t port = 0;
  if (!data->u16(&priority) || !data->u16(&weight) || !data->u16(&port) || !data->name(dn)) return false;
  const dns_srv entry = {priority, weight, port, layer->append_name(dn)};
  layer->put(at, &entry, sizeof entry);
  return true;
}

// Layout is how the entries of one kind of block are made.
struct Layout {
  dns_type typ = DNS_T_INVALID;
  size_t entry_bytes = 0;
  LayEntry *lay = nullptr;
};

Layout layout_of(Block kind) {
  switch (kind) {
    case Block::a4:
      return {DNS_T_A, sizeof(in_addr), lay_address<in_addr>};
    case Block::a6:
      return {DNS_T_AAAA, sizeof(in6_addr), lay_address<in6_addr>};
    case Block::txt:
      return {DNS_T_TXT, sizeof(dns_txt), lay_txt};
    case Block::etxt:
      return {DNS_T_TXT, sizeof(dns_txt), lay_etxt};
    case Block::mx:
      return {DNS_T_MX, sizeof(dns_mx), lay_mx};
    case Block::ptr:
      return {DNS_T_PTR, sizeof(char *), lay_name};
    case Block::cname:
      return {DNS_T_CNAME, sizeof(char *), lay_name};
    case Block::ns:
      return {DNS_T_NS, sizeof(char *), lay_name};
    case Block::srv:
      return {DNS_T_SRV, sizeof(dns_srv), lay_srv};
    case Block::pkt:
      break;
  }
  return {};
}

// lay_entries lays out the records at the chain's end from `entries_at` on, their texts after what the block has
// already.
dns_status lay_entries(const Layout &layout, Answers answers, size_t entries_at, Layer *layer) {
  for (Record record;;) {
    const int step = answers.next(&record);
    if (step <= 0) return step;
    if (record.typ != layout.typ) continue;
    Reader data = data_reader(answers.packet(), record.data_at, record.data.size());
    if (!layout.lay(&data, layer, entries_at) || data.left() != 0) return DNS_E_PROTOCOL;
    entries_at += layout.entry_bytes;
  }
}

bool same_text(std::span<const uint8_t> dn1, std::span<const uint8_t> dn2) {
  return dn1.size() == dn2.size() && memcmp(dn1.data(), dn2.data(), dn1.size()) == 0;
}

// class_of returns the class of a packet's question, which is most likely about `dn`; IN for a packet without a
// question.
dns_class class_of(std::span<const uint8_t> packet, std::span<const uint8_t> dn) {
  Reader reader(packet, DNS_HSIZE);
  uint16_t typ = 0;
  uint16_t cls = DNS_C_IN;
  const bool asked = records_in(packet, DNS_S_QD) > 0 && (reader.passes(dn) || reader.skip_name()) &&
                     reader.u16(&typ) && reader.u16(&cls);
  return asked ? dns_class{cls} : dns_class{DNS_C_IN};
}

// lay_records lays a whole block of records; its size is then what `layer` needed.
dns_status lay_records(const Layout &layout, std::span<const uint8_t> packet, size_t answers_at,
                       std::span<const uint8_t> dn, unsigned cnames_max, Layer *layer) {
  const dns_class cls = class_of(packet, dn);
  Chain chain;
  const dns_status found = follow_chain(packet, answers_at, dn, layout.typ, cls, cnames_max, &chain);
  if (found != DNS_E_NOERROR) return found;
  Answers answers(packet, answers_at, records_in(packet, DNS_S_AN), cls);
  answers.set_name({chain.end, chain.end_size});

  Head head = {};
  const size_t head_at = layer->reserve(sizeof head);
  const size_t entries_at = layer->reserve(chain.records * layout.entry_bytes);
  const dns_status laid = lay_entries(layout, answers, entries_at, layer);
  if (laid != DNS_E_NOERROR) return laid;
  head.common.dnsn_cname = layer->append_name(chain.end);
  head.common.dnsn_qname = chain.cnames == 0 || same_text({chain.end, chain.end_size}, dn)
                               ? head.common.dnsn_cname
                               : layer->append_name(dn.data());
  head.common.dnsn_ttl = chain.cnames + chain.records > 0 ? chain.ttl : 0;
  head.common.dnsn_nrr = static_cast<int32_t>(chain.records);
  head.common.dnsn_size = head.common.dnsn_written = static_cast<uint32_t>(layer->needed());
  head.entries = layer->address(entries_at);
  layer->put(head_at, &head, sizeof head);
  return DNS_E_NOERROR;
}

dns_status lay_packet(std::span<const uint8_t> packet, Layer *layer) {
  if (packet.size() < DNS_HSIZE) return DNS_E_PROTOCOL;
  constexpr size_t kHeadBytes = offsetof(dns_rr_pkt, dnspkt_pkt);
  const auto packet_size = static_cast<uint32_t>(packet.size());
  const uint32_t size = kHeadBytes + packet_size;
  const uint32_t head[] = {size, size, packet_size};
  static_assert(sizeof head == kHeadBytes);
  layer->append(head, sizeof head);
  layer->append(packet.data(), packet.size());
  return DNS_E_NOERROR;
}

}  // namespace

int lay_block(Block kind, std::span<const uint8_t> packet, size_t answers_at, const uint8_t *dn,
              std::span<uint8_t> buffer, size_t *needed, unsigned cnames_max) {
  const unsigned dn_size = dns_dnlen(dn);
  if (reinterpret_cast<uintptr_t>(buffer.data()) % kBlockAlign != 0 || dn_size == 0) return DNS_E_INVAL;
  if (packet.size() > DNS_MAXPACKET) return DNS_E_PROTOCOL;
  Layer layer(buffer);
  const Layout layout = layout_of(kind);
  const dns_status status = layout.lay != nullptr
                                ? lay_records(layout, packet, answers_at, {dn, dn_size}, cnames_max, &layer)
                                : lay_packet(packet, &layer);
  if (status != DNS_E_NOERROR) return status;
  if (needed != nullptr) *needed = layer.needed();
  return layer.needed() <= buffer.size() ? static_cast<int>(layer.needed()) : DNS_E_NOBUFS;
}

}  // namespace dns
