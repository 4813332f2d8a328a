// kavo_rr_io.cc - record blocks in files of the host's own: writing one block to a stream and reading one back.
//
// A record holds integers of 32 bits in the machine's byte order and nothing that tells its type or its version: the
// caller knows the type. One table says how the entries of each layout are stored. What is read is foreign: every
// length is compared with the bytes that the record itself claims for its block, and at every moment the pointers of a
// block that is being read are null or lead into the block. No state: any thread may run this, one at a time on a
// stream and on a block.
#include <errno.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include <array>

#include <dns_engine.h>
#include <pelk_log.h>
#include <pelk_thread.h>

#include "kavo_rr.h"

namespace {

constexpr char kSource[] = "kavo_rr";

// Every layout but the packet's is the common head and one pointer to the entries, which follow it.
constexpr size_t kArrayAt = sizeof(dns_rr_null);
constexpr size_t kRecordSize = kArrayAt + sizeof(void *);
constexpr size_t kPacketAt = offsetof(dns_rr_pkt, dnspkt_pkt);
static_assert(sizeof(dns_rr_a4) == kRecordSize && sizeof(dns_rr_srv) == kRecordSize);

// Text is what follows the fixed bytes of a stored entry: nothing; a name after its length; or a text whose length is
// in the fixed bytes, and which has a terminator in the block (closed) or has none (open).
enum class Text { none, name, closed, open };

// Form is how the entries of one layout are stored: `fixed` bytes from the entry's first one on, then its text.
struct Form {
  size_t entry_size = 0;
  size_t fixed = 0;
  Text text = Text::none;
  size_t text_at = 0;          // of the pointer to the text, in the entry
  const char *what = nullptr;  // the layout in messages
  const char *write_step = nullptr;
  const char *read_step = nullptr;
};

constexpr std::array<Form, static_cast<size_t>(kavo_rr_layout::pkt) + 1> kForms = {{
    {},  // no layout
    {sizeof(in_addr), sizeof(in_addr), Text::none, 0, "A", "kavo_rr_write_a4", "kavo_rr_read_a4"},
    {sizeof(in6_addr), sizeof(in6_addr), Text::none, 0, "A6", "kavo_rr_write_a6", "kavo_rr_read_a6"},
    {sizeof(dns_txt), sizeof(dns_txt::len), Text::closed, offsetof(dns_txt, txt), "TXT", "kavo_rr_write_txt",
     "kavo_rr_read_txt"},
    {sizeof(dns_txt), sizeof(dns_txt::len), Text::open, offsetof(dns_txt, txt), "TXT", "kavo_rr_write_etxt",
     "kavo_rr_read_etxt"},
    {sizeof(dns_mx), sizeof(dns_mx::priority), Text::name, offsetof(dns_mx, name), "MX", "kavo_rr_write_mx",
     "kavo_rr_read_mx"},
    {sizeof(char *), 0, Text::name, 0, "PTR", "kavo_rr_write_ptr", "kavo_rr_read_ptr"},
    {sizeof(char *), 0, Text::name, 0, "CNAME", "kavo_rr_write_cname", "kavo_rr_read_cname"},
    {sizeof(char *), 0, Text::name, 0, "NS", "kavo_rr_write_ns", "kavo_rr_read_ns"},
    {sizeof(dns_srv), 3 * sizeof(int32_t), Text::name, offsetof(dns_srv, name), "SRV", "kavo_rr_write_srv",
     "kavo_rr_read_srv"},
    {0, 0, Text::none, 0, "PKT", "kavo_rr_write_pkt", "kavo_rr_read_pkt"},
}};
static_assert(offsetof(dns_txt, len) == 0 && offsetof(dns_mx, priority) == 0 && offsetof(dns_srv, priority) == 0);
static_assert(offsetof(dns_srv, weight) == 4 && offsetof(dns_srv, port) == 8);

constexpr size_t kEntryMax = sizeof(dns_srv);
static_assert(kEntryMax >= sizeof(in6_addr) && kEntryMax >= sizeof(dns_txt));

// Step is what a failure is reported as.
struct Step {
  const char *name = nullptr;
  const char *what = nullptr;
};

[[nodiscard]] KAVO_ERR write_failed(const Step &step) {
  PELK_ERROR(kSource, step.name, errno, KAVOE_FILE, "Unable to write %s RR data to the file", step.what);
  return KAVOE_FILE;
}

// read_failed reports a record that cannot be read or contradicts itself. Only a failed call leaves an errno.
[[nodiscard]] KAVO_ERR read_failed(FILE *file, const Step &step) {
  PELK_ERROR(kSource, step.name, ferror(file) != 0 ? errno : 0, KAVOE_FILE, "Unable to read %s RR data from file",
             step.what);
  return KAVOE_FILE;
}

// ---- writing ------------------------------------------------------------------------------------------------------

[[nodiscard]] bool put(FILE *file, const void *bytes, size_t size) {
  return size == 0 || fwrite(bytes, size, 1, file) == 1;
}

[[nodiscard]] bool put_u32(FILE *file, uint32_t value) {
  return put(file, &value, sizeof(value));
}

// put_name writes a text and its terminator after their length, 0 for no text.
[[nodiscard]] bool put_name(FILE *file, const char *name) {
  const size_t size = name == nullptr ? 0 : strlen(name) + 1;
  return put_u32(file, static_cast<uint32_t>(size)) && put(file, name, size);
}

// writable_text returns whether an entry's text and its length agree.
[[nodiscard]] bool writable_text(int32_t length, const char *text) {
  return length >= 0 && (text != nullptr || length == 0);
}

[[nodiscard]] KAVO_ERR write_entry(FILE *file, const Form &form, const char *entry) {
  const char *text = nullptr;
  int32_t length = 0;
  if (form.text != Text::none) memcpy(&text, entry + form.text_at, sizeof(text));
  const bool counted = form.text == Text::closed || form.text == Text::open;
  if (counted) memcpy(&length, entry, sizeof(length));
  if (counted && !writable_text(length, text)) return KAVOE_BADPAR;

  bool written = put(file, entry, form.fixed);
  if (form.text == Text::name) written = written && put_name(file, text);
  if (counted) written = written && put(file, text, static_cast<size_t>(length));
  return written ? KAVOE_OK : write_failed({form.write_step, form.what});
}

// entries_of returns the address of a block's array.
[[nodiscard]] const char *entries_of(const KAVO_RR &rr) {
  const char *entries;
  memcpy(&entries, reinterpret_cast<const char *>(rr.rr_mem) + kArrayAt, sizeof(entries));
  return entries;
}

[[nodiscard]] KAVO_ERR write_entries(FILE *file, const Form &form, const KAVO_RR &rr) {
  const char *entries = entries_of(rr);
  const auto count = static_cast<size_t>(rr.rr_null->dnsn_nrr);
  for (size_t i = 0; i < count; ++i) {
    const KAVO_ERR error = write_entry(file, form, entries + i * form.entry_size);
    if (error != KAVOE_OK) return error;
  }
  return KAVOE_OK;
}

[[nodiscard]] KAVO_ERR write_header(FILE *file, uint32_t written) {
  return put_u32(file, written) ? KAVOE_OK : write_failed({"kavo_rr_write_header", "common"});
}

[[nodiscard]] KAVO_ERR write_records(FILE *file, const Form &form, const KAVO_RR &rr) {
  const dns_rr_null *head = rr.rr_null;
  if (head->dnsn_written < kRecordSize) return KAVOE_BADPAR;
  if (head->dnsn_nrr < 0 || (head->dnsn_nrr > 0 && entries_of(rr) == nullptr)) return KAVOE_BADPAR;
  KAVO_ERR error = write_header(file, head->dnsn_written);
  if (error != KAVOE_OK) return error;
  if (!put(file, &head->dnsn_nrr, sizeof(head->dnsn_nrr)) || !put(file, &head->dnsn_ttl, sizeof(head->dnsn_ttl)))
    return write_failed({"kavo_rr_write_start", "common"});
  error = write_entries(file, form, rr);
  if (error != KAVOE_OK) return error;
  const bool named = put_name(file, head->dnsn_cname) && put_name(file, head->dnsn_qname);
  return named ? KAVOE_OK : write_failed({"kavo_rr_write_finish", "common"});
}

// write_packet writes as many bytes as the block's used size says, which is all that the reader will know.
[[nodiscard]] KAVO_ERR write_packet(FILE *file, const Form &form, const dns_rr_pkt *block) {
  const uint32_t written = block->dnspkt_written;
  if (written < kPacketAt || block->dnspkt_psize > written - kPacketAt) return KAVOE_BADPAR;
  const KAVO_ERR error = write_header(file, written);
  if (error != KAVOE_OK) return error;
  return put(file, block->dnspkt_pkt, written - kPacketAt) ? KAVOE_OK : write_failed({form.write_step, form.what});
}

// ---- reading ------------------------------------------------------------------------------------------------------

// RecordReader builds the block of one record in a handle's block. `at_` and `limit_` are distances from the block's
// first byte: what is placed next goes to `at_`, and the record's own used size is `limit_`.
class RecordReader {
 public:
  RecordReader(FILE *file, const Form &form, KAVO_RR *rr) : file_(file), form_(form), rr_(rr) {}

  [[nodiscard]] KAVO_ERR records() {
    KAVO_ERR error = header(kRecordSize);
    if (error != KAVOE_OK) return error;
    if (!start()) return read_failed(file_, {"kavo_rr_read_start", "common"});
    if (!entries()) return read_failed(file_, {form_.read_step, form_.what});
    return finish();
  }

  [[nodiscard]] KAVO_ERR packet() {
    const KAVO_ERR error = header(kPacketAt);
    if (error != KAVOE_OK) return error;
    dns_rr_pkt *block = rr_->rr_pkt;
    const size_t size = limit_ - kPacketAt;
    if (!get(block->dnspkt_pkt, size)) return read_failed(file_, {form_.read_step, form_.what});
    block->dnspkt_psize = static_cast<uint32_t>(size);
    return KAVOE_OK;
  }

 private:
  [[nodiscard]] char *block() const { return reinterpret_cast<char *>(rr_->rr_mem); }
  [[nodiscard]] size_t room() const { return limit_ - at_; }
  [[nodiscard]] bool get(void *place, size_t size) { return size == 0 || fread(place, size, 1, file_) == 1; }

  // header makes the block, empty, of the size that the record claims. A block smaller than `least`, which its layout
  // begins with, holds no record.
  [[nodiscard]] KAVO_ERR header(size_t least) {
    static constexpr Step kStep = {"kavo_rr_read_header", "common"};
    uint32_t written = 0;
    if (!get(&written, sizeof(written)) || written < least) return read_failed(file_, kStep);
    const KAVO_ERR error = kavo_rr_realloc(rr_, written);
    if (error != KAVOE_OK) return error;
    memset(block() + sizeof(dns_rr_mem), 0, written - sizeof(dns_rr_mem));
    rr_->rr_mem->dnsm_written = written;
    limit_ = written;
    at_ = least;
    return KAVOE_OK;
  }

  // start reads the count and makes room for the array.
  [[nodiscard]] bool start() {
    int32_t count = 0;
    dns_rr_null *head = rr_->rr_null;
    if (!get(&count, sizeof(count)) || !get(&head->dnsn_ttl, sizeof(head->dnsn_ttl))) return false;
    if (count < 0 || static_cast<size_t>(count) > room() / form_.entry_size) return false;
    point(kArrayAt, kRecordSize);
    head->dnsn_nrr = count;
    at_ += static_cast<size_t>(count) * form_.entry_size;
    return true;
  }

  // point stores, at a place in the block, the address of another.
  void point(size_t at, size_t target) {
    const char *address = block() + target;
    memcpy(block() + at, &address, sizeof(address));
  }

  [[nodiscard]] bool entries() {
    for (int32_t i = 0; i < rr_->rr_null->dnsn_nrr; ++i) {
      if (!entry(kRecordSize + static_cast<size_t>(i) * form_.entry_size)) return false;
    }
    return true;
  }

  [[nodiscard]] bool entry(size_t entry_at) {
    std::array<char, kEntryMax> fixed;
    if (!get(fixed.data(), form_.fixed)) return false;
    if (form_.text == Text::closed || form_.text == Text::open) {
      int32_t length;
      memcpy(&length, fixed.data(), sizeof(length));
      if (!text(entry_at, length)) return false;
    }
    if (form_.text == Text::name && !name(entry_at)) return false;
    memcpy(block() + entry_at, fixed.data(), form_.fixed);
    return true;
  }

  // text reads an entry's text. The pointer of an entry without a text is null already.
  [[nodiscard]] bool text(size_t entry_at, int32_t length) {
    const size_t closing = form_.text == Text::closed ? 1 : 0;
    const auto size = static_cast<size_t>(length);
    if (length <= 0) {
      unclosed_ += closing;
      return length == 0;
    }
    if (size + closing > room() || !get(block() + at_, size)) return false;
    point(entry_at + form_.text_at, at_);
    at_ += size + closing;
    return true;
  }

  [[nodiscard]] bool name(size_t entry_at) {
    uint32_t size = 0;
    return get(&size, sizeof(size)) && size <= room() && name_at(entry_at + form_.text_at, size);
  }

  // name_at reads a name of `size` bytes, for which there is room, and sets the pointer at `pointer_at` to it; false
  // for a name that does not end where its length says.
  [[nodiscard]] bool name_at(size_t pointer_at, size_t size) {
    if (size == 0) return true;
    char *place = block() + at_;
    if (!get(place, size) || memchr(place, 0, size) != place + size - 1) return false;
    point(pointer_at, at_);
    at_ += size;
    return true;
  }

  // finish reads the names. A block may have held both in one text; read back it has two, and may have to grow.
  [[nodiscard]] KAVO_ERR finish() {
    static constexpr Step kStep = {"kavo_rr_read_finish", "common"};
    uint32_t cname_size = 0;
    uint32_t qname_size = 0;
    if (!get(&cname_size, sizeof(cname_size)) || cname_size > room()) return read_failed(file_, kStep);
    if (!name_at(offsetof(dns_rr_null, dnsn_cname), cname_size)) return read_failed(file_, kStep);
    if (!get(&qname_size, sizeof(qname_size)) || qname_size > limit_) return read_failed(file_, kStep);
    // A block with one text for both names has room for the terminators alone, which the query name must not take.
    if (qname_size > room() || (qname_size > 0 && room() == unclosed_)) {
      const KAVO_ERR error = widen(at_ + unclosed_ + qname_size);
      if (error != KAVOE_OK) return error;
    }
    if (unclosed_ + qname_size <= room()) leave_room(cname_size);
    return name_at(offsetof(dns_rr_null, dnsn_qname), qname_size) ? KAVOE_OK : read_failed(file_, kStep);
  }

  // leave_room moves the canonical name up by the terminators of the texts that are null. A copy of the block gives
  // each of these texts a terminator, and keeps the name where it is.
  void leave_room(size_t cname_size) {
    if (cname_size > 0 && unclosed_ > 0) {
      const size_t cname_at = at_ - cname_size;
      memmove(block() + cname_at + unclosed_, block() + cname_at, cname_size);
      memset(block() + cname_at, 0, unclosed_);
      point(offsetof(dns_rr_null, dnsn_cname), cname_at + unclosed_);
    }
    at_ += unclosed_;
  }

  // widen gives the block `size` used bytes, keeping what it holds.
  [[nodiscard]] KAVO_ERR widen(size_t size) {
    if (size > rr_->rr_mem->dnsm_size) {
      const auto old = reinterpret_cast<uintptr_t>(block());
      const KAVO_ERR error = kavo_rr_realloc(rr_, static_cast<unsigned>(size));
      if (error != KAVOE_OK) return error;
      rebase(old);
    }
    memset(block() + limit_, 0, size - limit_);
    rr_->rr_mem->dnsm_written = static_cast<uint32_t>(size);
    limit_ = size;
    return KAVOE_OK;
  }

  // rebase mends the pointers of a block that has moved from `old`.
  void rebase(uintptr_t old) {
    move_pointer(kArrayAt, old);
    move_pointer(offsetof(dns_rr_null, dnsn_cname), old);
    if (form_.text == Text::none) return;
    for (int32_t i = 0; i < rr_->rr_null->dnsn_nrr; ++i)
      move_pointer(kRecordSize + static_cast<size_t>(i) * form_.entry_size + form_.text_at, old);
  }

  void move_pointer(size_t at, uintptr_t old) {
    uintptr_t address;
    memcpy(&address, block() + at, sizeof(address));
    if (address != 0) point(at, address - old);
  }

  FILE *file_;
  const Form &form_;
  KAVO_RR *rr_;
  size_t at_ = 0;
  size_t limit_ = 0;
  size_t unclosed_ = 0;  // texts that are null and would else have a terminator
};

}  // namespace

extern "C" {

KAVO_ERR kavo_rr_write(KAVO_TYPE type, const KAVO_RR *rr, FILE *f) {
  const kavo_rr_layout layout = kavo_rr_layout_of(type);
  if (layout == kavo_rr_layout::none) return KAVOE_FAIL;
  if (f == nullptr || rr == nullptr || rr->rr_mem == nullptr) return KAVOE_BADPAR;
  const pelk_no_cancel whole;
  const Form &form = kForms[static_cast<size_t>(layout)];
  errno = 0;  // a stream of the host's own may fail without a reason
  return layout == kavo_rr_layout::pkt ? write_packet(f, form, rr->rr_pkt) : write_records(f, form, *rr);
}

KAVO_ERR kavo_rr_read(KAVO_TYPE type, KAVO_RR *rr, FILE *f) {
  const kavo_rr_layout layout = kavo_rr_layout_of(type);
  if (layout == kavo_rr_layout::none) return KAVOE_FAIL;
  if (f == nullptr || rr == nullptr) return KAVOE_BADPAR;
  const pelk_no_cancel whole;
  errno = 0;
  RecordReader reader(f, kForms[static_cast<size_t>(layout)], rr);
  return layout == kavo_rr_layout::pkt ? reader.packet() : reader.records();
}

}  // extern "C"
