#include "subject.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string_view>

#include "output.h"

namespace tool {
namespace {

constexpr std::string_view kMarks = "!\"#$%&'()*+,/:;<=>?@[]^`{|}~";
constexpr size_t kQuotedMax = 300;  // bytes of a text that a message repeats: every name, and no endless line
constexpr size_t kMappedAt = 12;    // where the IPv4 address is in a mapped one (RFC 4291, 2.5.5.2)

[[noreturn]] void refuse(const std::string &text, const std::string &fault) {
  throw std::runtime_error(quoted(text) + " " + fault);
}

void set_ip4(const in_addr &address, Subject *subject) {
  subject->kind = Kind::ip4;
  if (kavo_dns_a4todn(&address, subject->dn.data(), DNS_MAXDN) <= 0) refuse(subject->text, "cannot be reversed");
}

void set_ip6(const in6_addr &address, Subject *subject) {
  subject->kind = Kind::ip6;
  if (kavo_dns_a6todn(&address, subject->dn.data(), DNS_MAXDN) <= 0) refuse(subject->text, "cannot be reversed");
}

void set_domain(Subject *subject) {
  subject->kind = Kind::domain;
  const std::string &text = subject->text;
  if (const std::optional<char> stray = stray_byte(text)) {
    const bool mark = kMarks.find(*stray) != std::string_view::npos;
    refuse(text, mark ? std::string("is neither an address nor a domain name: it holds a ") + *stray
                      : "is no domain name: it holds a blank or control character");
  }
  const int size = kavo_dns_ptodn(text.c_str(), static_cast<unsigned>(text.size()), subject->dn.data(), DNS_MAXDN);
  if (size == 0) refuse(text, "is no domain name: it is longer than 255 bytes");
  if (size < 0) refuse(text, "is no domain name: a label is empty or longer than 63 bytes, or an escape is wrong");
  if (size == 1) refuse(text, "is the root and in no list");
  // No top-level domain is a number, so this is an address with a fault.
  const size_t end = text.back() == '.' ? text.size() - 1 : text.size();
  const size_t dot = text.rfind('.', end - 1);
  const std::string last =
      text.substr(dot == std::string::npos ? 0 : dot + 1, end - (dot == std::string::npos ? 0 : dot + 1));
  if (last.find_first_not_of("0123456789") == std::string::npos)
    refuse(text, "is neither an address nor a domain name");
}

// The number of bytes that a well-formed UTF-8 character takes here; 0 for a byte that begins none.
size_t utf8_size(const std::string &text, size_t at) {
  const auto byte = [&](size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U; };
  const unsigned lead = byte(at);
  const size_t size = lead < 0x80                   ? 1
                      : lead >= 0xc2 && lead < 0xe0 ? 2
                      : lead >= 0xe0 && lead < 0xf0 ? 3
                      : lead >= 0xf0 && lead < 0xf5 ? 4
                                                    : 0;
  for (size_t i = 1; i < size; ++i) {
    if ((byte(at + i) & 0xc0) != 0x80) return 0;
  }
  const unsigned second = byte(at + 1);
  const bool overlong = (lead == 0xe0 && second < 0xa0) || (lead == 0xf0 && second < 0x90);
  const bool outside = (lead == 0xed && second > 0x9f) || (lead == 0xf4 && second > 0x8f);
  return overlong || outside ? 0 : size;
}

// Control characters of both sets: below 32 and 127, and U+0080 to U+009F.
bool is_control(const std::string &text, size_t at, size_t size) {
  const auto lead = static_cast<unsigned char>(text[at]);
  if (size == 1) return lead < ' ' || lead == 0x7f;
  return size == 2 && lead == 0xc2 && static_cast<unsigned char>(text[at + 1]) < 0xa0;
}

}  // namespace

std::optional<char> stray_byte(const std::string &text) {
  const auto stray = [](char byte) {
    const auto value = static_cast<unsigned char>(byte);
    return value <= ' ' || value == 0x7f || kMarks.find(byte) != std::string_view::npos;
  };
  const auto found = std::find_if(text.begin(), text.end(), stray);
  return found == text.end() ? std::nullopt : std::optional<char>(*found);
}

std::string quoted(const std::string &text) {
  const bool whole = text.size() <= kQuotedMax;
  return "\"" + for_terminal(whole ? text : text.substr(0, kQuotedMax) + "...") + "\"";
}

std::string for_terminal(const std::string &text) {
  std::string result;
  for (size_t at = 0; at < text.size();) {
    const size_t size = utf8_size(text, at);
    if (size != 0 && !is_control(text, at, size)) {
      result.append(text, at, size);
      at += size;
      continue;
    }
    result += escaped(static_cast<unsigned char>(text[at++]));
  }
  return result;
}

std::optional<Subject> parse_address(const std::string &text) {
  Subject subject{text, Kind::domain, {}};
  in_addr ip4;
  in6_addr ip6;
  if (text.find('\0') != std::string::npos) return std::nullopt;
  if (inet_pton(AF_INET, text.c_str(), &ip4) == 1) {
    set_ip4(ip4, &subject);
  } else if (inet_pton(AF_INET6, text.c_str(), &ip6) != 1) {
    return std::nullopt;
  } else if (IN6_IS_ADDR_V4MAPPED(&ip6)) {
    std::memcpy(&ip4, &ip6.s6_addr[kMappedAt], sizeof(ip4));
    set_ip4(ip4, &subject);
  } else {
    set_ip6(ip6, &subject);
  }
  return subject;
}

Subject parse_subject(const std::string &text) {
  if (text.empty()) throw std::runtime_error("an empty text is neither an address nor a domain name");
  if (const std::optional<Subject> address = parse_address(text)) return *address;
  if (text.find(':') != std::string::npos) {
    const bool address = text.find_first_not_of("0123456789abcdefABCDEF:.") == std::string::npos;
    refuse(text, address ? "is no IPv6 address" : "is neither an address nor a domain name");
  }
  Subject subject{text, Kind::domain, {}};
  set_domain(&subject);
  return subject;
}

}  // namespace tool
