// print.h - what print.cc and print_data.cc share: a stream with columns, and the pieces of a record's text. Any
// thread.
#ifndef DNS_WIRE_PRINT_H
#define DNS_WIRE_PRINT_H

#include <stdint.h>
#include <stdio.h>

#include <span>
#include <string_view>

#include <record.h>

namespace dns {

inline constexpr unsigned kTabWidth = 8;

// Text writes to a stream and knows its column; without a stream it only counts.
class Text {
 public:
  explicit Text(FILE *stream) : stream_(stream) {}

  void put(char c) {
    if (stream_ != nullptr) putc(c, stream_);
    column_ = c == '\n' ? 0 : c == '\t' ? (column_ / kTabWidth + 1) * kTabWidth : column_ + 1;
  }
  void put(std::string_view text) {
    for (const char c : text)
      put(c);
  }
  void number(uint32_t value) {
    char digits[sizeof "4294967295"];
    snprintf(digits, sizeof digits, "%u", value);
    put(digits);
  }
  // byte writes a byte of a name or of a string: as it is, after a backslash if it is one of `special`, or as "\DDD".
  void byte(uint8_t value, std::string_view special, uint8_t least) {
    const char c = static_cast<char>(value);
    if (value >= least && value <= '~') {
      if (special.find(c) != std::string_view::npos) put('\\');
      put(c);
      return;
    }
    char escape[sizeof "\\255"];
    snprintf(escape, sizeof escape, "\\%03u", static_cast<unsigned>(value));
    put(escape);
  }
  // column fills up to a column with tabs; a line that is past the column gets one space.
  void column(unsigned column) {
    if (column_ >= column) put(' ');
    while (column_ < column)
      put('\t');
  }

 private:
  FILE *stream_;
  unsigned column_ = 0;
};

// put_type and put_class write mnemonics, "TYPE" or "CLASS" and the number for those without one (RFC 3597).
void put_type(uint16_t typ, Text *out);
void put_class(uint16_t cls, Text *out);

// put_name writes a DN as a whole name, its closing dot included.
void put_name(const uint8_t *dn, Text *out);

void put_hex(std::span<const uint8_t> bytes, Text *out);

// put_data writes the data of a record of the packet.
void put_data(std::span<const uint8_t> packet, const Record &record, Text *out);

}  // namespace dns

#endif  // DNS_WIRE_PRINT_H
