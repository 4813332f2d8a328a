// print_data.cc - the data of records as text, in master-file form (RFC 1035, section 5).
//
// Data of a type without a form here, and data that its type does not allow, is written as "\# LENGTH HEX" (RFC 3597,
// section 5), so that every record can be shown and read back. A record's data is therefore walked twice: first without
// a stream, to check it. The packet is untrusted and read through Reader only. Stateless; any thread.
#include <arpa/inet.h>
#include <time.h>

#include <algorithm>

#include <cursor.h>
#include <dns_wire.h>
#include <record.h>

#include "print.h"

namespace dns {
namespace {

// Kind is a record type: its mnemonic, and what its data is made of, one letter a piece (put_piece); without a form,
// its data is shown as bytes.
struct Kind {
  uint16_t typ;
  const char *name;
  const char *form;
};

// clang-format off
constexpr Kind kKinds[] = {
    {1, "A", "4"}, {2, "NS", "n"}, {3, "MD", "n"}, {4, "MF", "n"}, {5, "CNAME", "n"}, {6, "SOA", "nnLLLLL"},
    {7, "MB", "n"}, {8, "MG", "n"}, {9, "MR", "n"}, {10, "NULL", nullptr}, {11, "WKS", nullptr}, {12, "PTR", "n"},
    {13, "HINFO", "ss"}, {14, "MINFO", "nn"}, {15, "MX", "Wn"}, {16, "TXT", "S"}, {17, "RP", "nn"},
    {18, "AFSDB", "Wn"}, {19, "X25", "s"}, {20, "ISDN", "S"}, {21, "RT", "Wn"}, {22, "NSAP", "0"},
    {23, "NSAP-PTR", "N"}, {24, "SIG", "TBBLDDWnb"}, {25, "KEY", "WBBb"}, {26, "PX", "Wnn"}, {27, "GPOS", "sss"},
    {28, "AAAA", "6"}, {29, "LOC", nullptr}, {30, "NXT", nullptr}, {31, "EID", nullptr}, {32, "NIMLOC", nullptr},
    {33, "SRV", "WWWn"}, {34, "ATMA", nullptr}, {35, "NAPTR", "WWsssn"}, {36, "KX", "Wn"}, {37, "CERT", "WWBb"},
    {38, "A6", nullptr}, {39, "DNAME", "n"}, {40, "SINK", nullptr}, {41, "OPT", nullptr}, {42, "APL", nullptr},
    {43, "DS", "WBBx"}, {44, "SSHFP", "BBx"}, {45, "IPSECKEY", nullptr}, {46, "RRSIG", "TBBLDDWNb"},
    {47, "NSEC", "Nm"}, {48, "DNSKEY", "WBBb"}, {49, "DHCID", "b"}, {50, "NSEC3", "BBWhom"},
    {51, "NSEC3PARAM", "BBWh"}, {52, "TLSA", "BBBx"}, {55, "HIP", nullptr}, {56, "NINFO", "S"}, {57, "RKEY", "WBBb"},
    {58, "TALINK", "NN"}, {59, "CDS", "WBBx"}, {60, "CDNSKEY", "WBBb"}, {64, "SVCB", nullptr}, {65, "HTTPS", nullptr},
    {99, "SPF", "S"}, {100, "UINFO", nullptr}, {101, "UID", "L"}, {102, "GID", "L"}, {103, "UNSPEC", nullptr},
    {249, "TKEY", nullptr}, {250, "TSIG", nullptr}, {251, "IXFR", nullptr}, {252, "AXFR", nullptr},
    {253, "MAILB", nullptr}, {254, "MAILA", nullptr}, {255, "ANY", nullptr}, {256, "URI", "WWq"}, {257, "CAA", "Bgq"},
    {32768, "TA", "WBBx"}, {32769, "DLV", "WBBx"},
};
// clang-format on

const Kind *kind_of(uint16_t typ) {
  const auto *found = std::ranges::find(kKinds, typ, &Kind::typ);
  return found != std::end(kKinds) ? found : nullptr;
}

}  // namespace

void put_type(uint16_t typ, Text *out) {
  const Kind *kind = kind_of(typ);
  if (kind != nullptr) {
    out->put(kind->name);
    return;
  }
  out->put("TYPE");
  out->number(typ);
}

void put_class(uint16_t cls, Text *out) {
  constexpr uint16_t kChaos = 3, kHesiod = 4, kNone = 254;
  switch (cls) {
    case DNS_C_IN:
      return out->put("IN");
    case kChaos:
      return out->put("CH");
    case kHesiod:
      return out->put("HS");
    case kNone:
      return out->put("NONE");
    case DNS_C_ANY:
      return out->put("ANY");
    default:
      out->put("CLASS");
      out->number(cls);
  }
}

void put_name(const uint8_t *dn, Text *out) {
  if (*dn == 0) out->put('.');
  for (; *dn != 0; dn += 1 + *dn) {
    for (unsigned i = 1; i <= *dn; ++i)
      out->byte(dn[i], ".\\\"();@$", '!');
    out->put('.');
  }
}

void put_hex(std::span<const uint8_t> bytes, Text *out) {
  constexpr char kHex[] = "0123456789ABCDEF";
  constexpr unsigned kNibbleBits = 4;
  constexpr unsigned kNibbleMask = 0x0F;
  for (const uint8_t byte : bytes) {
    out->put(kHex[byte >> kNibbleBits]);
    out->put(kHex[byte & kNibbleMask]);
  }
}

namespace {

// ---- pieces of data

void put_quoted(std::span<const uint8_t> bytes, Text *out) {
  out->put('"');
  for (const uint8_t byte : bytes)
    out->byte(byte, "\\\"", ' ');
  out->put('"');
}

// put_digits writes bytes in groups of `bits` bits, each a digit of `alphabet` (RFC 4648). Returns how many digits.
size_t put_digits(std::span<const uint8_t> bytes, const char *alphabet, unsigned bits, Text *out) {
  constexpr unsigned kByteBits = 8;
  const unsigned mask = (1U << bits) - 1;
  uint32_t held = 0;
  unsigned held_bits = 0;
  size_t digits = 0;
  for (const uint8_t byte : bytes) {
    held = held << kByteBits | byte;
    for (held_bits += kByteBits; held_bits >= bits; held_bits -= bits, ++digits)
      out->put(alphabet[held >> (held_bits - bits) & mask]);
  }
  if (held_bits == 0) return digits;
  out->put(alphabet[held << (bits - held_bits) & mask]);
  return digits + 1;
}

void put_base64(std::span<const uint8_t> bytes, Text *out) {
  constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  constexpr unsigned kBits = 6;
  constexpr size_t kGroup = 4;
  for (size_t digits = put_digits(bytes, kDigits, kBits, out); digits % kGroup != 0; ++digits)
    out->put('=');
}

void put_base32(std::span<const uint8_t> bytes, Text *out) {
  constexpr char kDigits[] = "0123456789ABCDEFGHIJKLMNOPQRSTUV";
  constexpr unsigned kBits = 5;
  put_digits(bytes, kDigits, kBits, out);
}

void put_date(uint32_t seconds, Text *out) {
  const time_t moment = seconds;
  struct tm parts = {};
  char text[sizeof "20380119031407"];
  gmtime_r(&moment, &parts);
  if (strftime(text, sizeof text, "%Y%m%d%H%M%S", &parts) > 0) out->put(text);
}

// read_string reads a character-string.
bool read_string(Reader *data, std::span<const uint8_t> *string) {
  uint8_t size = 0;
  return data->u8(&size) && data->bytes(size, string);
}

bool put_strings(Reader *data, Text *out) {
  for (bool first = true; first || data->left() > 0; first = false) {
    std::span<const uint8_t> string;
    if (!read_string(data, &string)) return false;
    if (!first) out->put(' ');
    put_quoted(string, out);
  }
  return true;
}

// put_type_map writes the types of a type bit map (RFC 4034, section 4.1.2).
bool put_type_map(Reader *data, Text *out) {
  constexpr unsigned kByteBits = 8;
  constexpr unsigned kTopBit = 0x80;
  constexpr unsigned kMapBytesMax = 32;
  bool first = true;
  while (data->left() > 0) {
    uint8_t window = 0;
    std::span<const uint8_t> map;
    if (!data->u8(&window) || !read_string(data, &map) || map.empty() || map.size() > kMapBytesMax) return false;
    for (unsigned bit = 0; bit < map.size() * kByteBits; ++bit) {
      if ((map[bit / kByteBits] & kTopBit >> bit % kByteBits) == 0) continue;
      if (!first) out->put(' ');
      first = false;
      put_type(static_cast<uint16_t>(window << kByteBits | bit), out);
    }
  }
  return true;
}

bool put_address(int family, size_t size, Reader *data, Text *out) {
  std::span<const uint8_t> bytes;
  char text[INET6_ADDRSTRLEN];
  if (!data->bytes(size, &bytes) || dns_ntop(family, bytes.data(), text, sizeof text) == nullptr) return false;
  out->put(text);
  return true;
}

bool put_domain(Reader *data, Text *out) {
  uint8_t dn[DNS_MAXDN];
  if (!data->name(dn)) return false;
  put_name(dn, out);
  return true;
}

// put_whole_domain writes a name that must not be compressed (RFC 3597, section 4): its bytes then mean the same in any
// packet.
bool put_whole_domain(Reader *data, Text *out) {
  const size_t at = data->position();
  uint8_t dn[DNS_MAXDN];
  if (!data->name(dn) || data->position() - at != dns_dnlen(dn)) return false;
  put_name(dn, out);
  return true;
}

// put_number writes a number of one, two or four bytes, by `put`.
template <typename Number, typename Put>
bool put_number(bool (Reader::*read)(Number *), Reader *data, Put put) {
  Number value = 0;
  if (!(data->*read)(&value)) return false;
  put(value);
  return true;
}

// put_sized writes the bytes that a length byte counts, by `put`.
template <typename Put>
bool put_sized(Reader *data, Put put) {
  std::span<const uint8_t> bytes;
  if (!read_string(data, &bytes)) return false;
  put(bytes);
  return true;
}

// put_rest writes all that is left, by `put`.
template <typename Put>
bool put_rest(Reader *data, Put put) {
  std::span<const uint8_t> bytes;
  if (!data->bytes(data->left(), &bytes)) return false;
  put(bytes);
  return true;
}

// put_piece writes one piece of a form; false for data that has none such.
bool put_piece(char piece, Reader *data, Text *out) {
  const auto number = [out](uint32_t value) { out->number(value); };
  switch (piece) {
    case '4':
      return put_address(AF_INET, sizeof(in_addr), data, out);
    case '6':
      return put_address(AF_INET6, sizeof(in6_addr), data, out);
    case 'n':
      return put_domain(data, out);
    case 'N':
      return put_whole_domain(data, out);
    case 'B':
      return put_number(&Reader::u8, data, number);
    case 'W':
      return put_number(&Reader::u16, data, number);
    case 'L':
      return put_number(&Reader::u32, data, number);
    case 'T':
      return put_number(&Reader::u16, data, [out](uint16_t typ) { put_type(typ, out); });
    case 'D':
      return put_number(&Reader::u32, data, [out](uint32_t seconds) { put_date(seconds, out); });
    case 's':
      return put_sized(data, [out](auto bytes) { put_quoted(bytes, out); });
    case 'g':  // a string that is a word
      return put_sized(data, [out](auto bytes) {
        for (const uint8_t byte : bytes)
          out->byte(byte, "\\\"();", '!');
      });
    case 'h':  // bytes after a length byte, as hexadecimal digits
      return put_sized(data, [out](auto bytes) { bytes.empty() ? out->put('-') : put_hex(bytes, out); });
    case 'o':
      return put_sized(data, [out](auto bytes) { put_base32(bytes, out); });
    case 'S':
      return put_strings(data, out);
    case 'm':
      return put_type_map(data, out);
    case '0':
      out->put("0x");
      [[fallthrough]];
    case 'x':
      return data->left() > 0 && put_rest(data, [out](auto bytes) { put_hex(bytes, out); });
    case 'b':
      return data->left() > 0 && put_rest(data, [out](auto bytes) { put_base64(bytes, out); });
    case 'q':  // the rest as one quoted string
      return put_rest(data, [out](auto bytes) { put_quoted(bytes, out); });
    default:
      return false;
  }
}

// put_form writes data by its type's form; false for data that the form does not fit to the last byte.
bool put_form(const char *form, Reader data, Text *out) {
  for (const char *piece = form; *piece != '\0'; ++piece) {
    // A bit map without types prints nothing, so no space comes before it.
    if (piece != form && (*piece != 'm' || data.left() > 0)) out->put(' ');
    if (!put_piece(*piece, &data, out)) return false;
  }
  return data.left() == 0;
}

}  // namespace

void put_data(std::span<const uint8_t> packet, const Record &record, Text *out) {
  const Kind *kind = kind_of(record.typ);
  const Reader data = data_reader(packet, record.data_at, record.data.size());
  Text nowhere(nullptr);
  if (kind != nullptr && kind->form != nullptr && put_form(kind->form, data, &nowhere)) {
    (void)put_form(kind->form, data, out);
    return;
  }
  out->put("\\# ");
  out->number(static_cast<uint32_t>(record.data.size()));
  if (!record.data.empty()) out->put(' ');
  put_hex(record.data, out);
}

}  // namespace dns
