// name.cc - domain names: their wire form (DN), their text form, and the ways between.
//
// The only state is one text buffer of each thread (dns_dntosp), so any thread may call anything here. A DN from a
// packet has been through Reader::name; these functions nevertheless check every length byte.
#include <name.h>

#include <string.h>

#include <algorithm>
#include <array>

#include <dns_wire.h>

namespace {

constexpr unsigned kDecimalDigits = 3;  // of an escape "\DDD"
constexpr int kMalformed = -1;

// kFold maps a byte to itself, upper-case ASCII letters to lower case (RFC 4343, section 3). Length bytes are below the
// letters, so the fold leaves them alone.
constexpr std::array<uint8_t, UINT8_MAX + 1> make_fold() {
  std::array<uint8_t, UINT8_MAX + 1> table{};
  for (unsigned byte = 0; byte < table.size(); ++byte) {
    const bool upper = byte >= 'A' && byte <= 'Z';
    table[byte] = static_cast<uint8_t>(upper ? byte - 'A' + 'a' : byte);
  }
  return table;
}
constexpr std::array<uint8_t, UINT8_MAX + 1> kFold = make_fold();

bool same_label(const unsigned char *label1, const unsigned char *label2, unsigned size) {
  for (unsigned i = 0; i < size; ++i) {
    if (kFold[label1[i]] != kFold[label2[i]]) return false;
  }
  return true;
}

// DnBuilder collects labels in a caller's buffer, one byte of which is always kept for the closing zero.
class DnBuilder {
 public:
  enum class Result { ok, full, malformed };

  DnBuilder(unsigned char *dn, int size) : dn_(dn), limit_(std::clamp(size, 0, int{DNS_MAXDN})) {}

  Result put(unsigned char byte) {
    if (at_ - label_ > DNS_MAXLABEL) return Result::malformed;
    if (at_ + 1 >= limit_) return Result::full;
    dn_[at_++] = byte;
    return Result::ok;
  }

  Result close_label() {
    const int size = at_ - label_ - 1;
    if (size == 0) return Result::malformed;
    dn_[label_] = static_cast<unsigned char>(size);
    label_ = at_++;
    return Result::ok;
  }

  // close writes the closing zero; returns the DN's length, 0 when not even that fits.
  int close() {
    if (label_ >= limit_) return 0;
    dn_[label_] = 0;
    return label_ + 1;
  }

  [[nodiscard]] bool label_open() const { return at_ - label_ > 1; }
  [[nodiscard]] bool empty() const { return label_ == 0; }

 private:
  unsigned char *dn_;
  int limit_;
  int label_ = 0;  // where the open label's length byte goes
  int at_ = 1;     // where its next byte goes
};

using Built = DnBuilder::Result;

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

// TextName reads a name's text, which is a caller's and may hold anything.
class TextName {
 public:
  TextName(const char *text, size_t length) : at_(text), end_(text + length) {}

  [[nodiscard]] bool done() const { return at_ == end_; }

  // byte reads one byte of a name; `dot` tells that it was a separator. False for text that is no name: an escape that
  // is cut off or above 255, or a zero byte (a zero inside a label can only be written "\000").
  [[nodiscard]] bool byte(unsigned char *value, bool *dot) {
    const char c = *at_++;
    *dot = c == '.';
    if (c == '\\') return escape(value);
    *value = static_cast<unsigned char>(c);
    return c != '\0';
  }

 private:
  bool escape(unsigned char *value) {
    if (done()) return false;
    if (is_digit(*at_)) return decimal(value);
    *value = static_cast<unsigned char>(*at_++);
    return *value != 0;
  }

  bool decimal(unsigned char *value) {
    unsigned number = 0;
    for (unsigned i = 0; i < kDecimalDigits; ++i) {
      if (done() || !is_digit(*at_)) return false;
      constexpr unsigned kBase = 10;
      number = number * kBase + static_cast<unsigned>(*at_++ - '0');
    }
    *value = static_cast<unsigned char>(number);
    return number <= UINT8_MAX;
  }

  const char *at_;
  const char *end_;
};

Built build_labels(TextName *text, DnBuilder *builder) {
  while (!text->done()) {
    unsigned char byte = 0;
    bool dot = false;
    if (!text->byte(&byte, &dot)) return Built::malformed;
    const Built result = dot ? builder->close_label() : builder->put(byte);
    if (result != Built::ok) return result;
  }
  return Built::ok;
}

// plain_dn writes the DN of a text without escapes, where `dn` has room for two bytes more than the text. Returns its
// length; 0 for any text that TextName has to read. `absolute` tells that it ended with a dot.
int plain_dn(const char *text, size_t bytes, unsigned char *dn, bool *absolute) {
  unsigned char *label = dn;
  unsigned char *out = dn + 1;
  for (const char *at = text; at != text + bytes; ++at) {
    const char c = *at;
    if (c == '.') {
      const auto size = static_cast<size_t>(out - label - 1);
      if (size == 0 || size > DNS_MAXLABEL) return 0;
      *label = static_cast<unsigned char>(size);
      label = out;
    } else if (c == '\\' || c == '\0') {
      return 0;
    }
    *out++ = static_cast<unsigned char>(c);
  }
  const auto size = static_cast<size_t>(out - label - 1);
  if (size > DNS_MAXLABEL) return 0;
  *absolute = size == 0;
  *label = static_cast<unsigned char>(size);
  if (size != 0) *out++ = 0;
  return static_cast<int>(out - dn);
}

// text_bytes is how many characters a byte of a label takes in a text: itself, "\X" or "\DDD".
constexpr unsigned text_bytes(unsigned char byte) {
  constexpr unsigned kPlain = 1;
  constexpr unsigned kQuoted = 2;
  if (byte == '.' || byte == '\\') return kQuoted;
  return byte > ' ' && byte <= '~' ? kPlain : 1 + kDecimalDigits;
}

// kPlainText tells of each byte whether a text has it unescaped.
constexpr std::array<bool, UINT8_MAX + 1> kPlainText = [] {
  std::array<bool, UINT8_MAX + 1> table{};
  for (unsigned byte = 0; byte < table.size(); ++byte)
    table[byte] = text_bytes(static_cast<unsigned char>(byte)) == 1;
  return table;
}();

char *put_escaped(unsigned char byte, char *out) {
  *out++ = '\\';
  if (text_bytes(byte) == 1 + kDecimalDigits) {
    constexpr unsigned kTen = 10;
    *out++ = static_cast<char>('0' + byte / (kTen * kTen));
    *out++ = static_cast<char>('0' + byte / kTen % kTen);
    *out++ = static_cast<char>('0' + byte % kTen);
    return out;
  }
  *out++ = static_cast<char>(byte);
  return out;
}

char *put_label(const unsigned char *label, char *out) {
  const unsigned char *end = label + 1 + *label;
  while (++label != end) {
    if (kPlainText[*label]) {
      *out++ = static_cast<char>(*label);
    } else {
      out = put_escaped(*label, out);
    }
  }
  return out;
}

}  // namespace

bool dns::covers(std::span<const uint8_t> zone, std::span<const uint8_t> dn) {
  while (dn.size() > zone.size() && dn.front() < dn.size())
    dn = dn.subspan(1U + dn.front());
  if (dn.empty() || dn.size() != zone.size()) return false;
  return memcmp(zone.data(), dn.data(), dn.size()) == 0 || dns_dnequal(zone.data(), dn.data()) != 0;
}

char *dns::put_name(const uint8_t *dn, char *text) {
  char *out = text;
  for (const uint8_t *label = dn; *label != 0; label += 1U + *label) {
    if (label != dn) *out++ = '.';
    out = put_label(label, out);
  }
  if (out == text) *out++ = '.';
  *out = '\0';
  return out;
}

unsigned dns_dnlen(const unsigned char *dn) {
  if (dn == nullptr) return 0;
  for (unsigned at = 0; at < DNS_MAXDN;) {
    const unsigned size = dn[at];
    if (size - 1 >= DNS_MAXLABEL) return size == 0 ? at + 1 : 0;  // 0 - 1 wraps to the largest number
    at += 1 + size;
  }
  return 0;
}

unsigned dns_dnequal(const unsigned char *dn1, const unsigned char *dn2) {
  if (dn1 == nullptr || dn2 == nullptr) return 0;
  for (unsigned at = 0; at < DNS_MAXDN;) {
    const unsigned size = dn1[at];
    if (size != dn2[at] || size > DNS_MAXLABEL) return 0;
    if (size == 0) return at + 1;
    if (at + 1 + size >= DNS_MAXDN || !same_label(dn1 + at + 1, dn2 + at + 1, size)) return 0;
    at += 1 + size;
  }
  return 0;
}

unsigned dns_dntodn(const unsigned char *sdn, unsigned char *ddn, unsigned size) {
  const unsigned length = dns_dnlen(sdn);
  if (length == 0 || length > size || ddn == nullptr) return 0;
  memmove(ddn, sdn, length);
  return length;
}

int dns_ptodn(const char *text, unsigned length, unsigned char *dn, int size, int *absolute) {
  if (text == nullptr || dn == nullptr) return kMalformed;
  const size_t bytes = length != 0 ? length : strlen(text);
  if (absolute != nullptr) *absolute = 0;
  const bool root = bytes == 1 && text[0] == '.';
  bool dot = false;
  const bool fits = bytes > 0 && size > 0 && bytes + 2 <= std::min<size_t>(static_cast<size_t>(size), DNS_MAXDN);
  const int plain = fits && !root ? plain_dn(text, bytes, dn, &dot) : 0;
  if (plain > 0) {
    if (absolute != nullptr) *absolute = dot ? 1 : 0;
    return plain;
  }
  DnBuilder builder(dn, size);
  if (!root) {
    TextName name(text, bytes);
    const Built built = build_labels(&name, &builder);
    if (built != Built::ok) return built == Built::full ? 0 : kMalformed;
    if (builder.empty() && !builder.label_open()) return kMalformed;
  }
  if (!builder.label_open()) {
    if (absolute != nullptr) *absolute = 1;
  } else if (builder.close_label() != Built::ok) {
    return kMalformed;
  }
  return builder.close();
}

unsigned dns_dntop_size(const unsigned char *dn) {
  const unsigned length = dns_dnlen(dn);
  if (length == 0) return 0;
  constexpr unsigned kRootText = 2;  // "." and its terminator
  if (length == 1) return kRootText;
  unsigned bytes = 0;
  for (unsigned at = 0; dn[at] != 0; at += 1U + dn[at]) {
    for (unsigned i = 1; i <= dn[at]; ++i)
      bytes += text_bytes(dn[at + i]);
    ++bytes;  // the dot after the label, or the terminator
  }
  return bytes;
}

int dns_dntop(const unsigned char *dn, char *text, int size) {
  if (dns_dnlen(dn) == 0) return kMalformed;
  if (text == nullptr || size < 0) return 0;
  if (size < DNS_MAXNAME && dns_dntop_size(dn) > static_cast<unsigned>(size)) return 0;
  return static_cast<int>(dns::put_name(dn, text) - text);
}

const char *dns_dntosp(const unsigned char *dn) {
  static thread_local char text[DNS_MAXNAME];
  if (dns_dntop(dn, text, sizeof text) <= 0) text[0] = '\0';
  return text;
}
