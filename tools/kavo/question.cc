#include "question.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <optional>
#include <stdexcept>
#include <string_view>

#include "output.h"
#include "session.h"
#include "subject.h"

namespace tool {
namespace {

constexpr std::string_view kPrefix = "DNS_";
constexpr std::string_view kNumbered = "TYPE";
constexpr unsigned kTypeMax = 65535;

std::string upper(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char letter) { return static_cast<char>(std::toupper(letter)); });
  return text;
}

KAVO_TYPE numbered_type(const std::string &name) {
  unsigned number = 0;
  const char *begin = name.data() + kNumbered.size(), *end = name.data() + name.size();
  const auto [stop, error] = std::from_chars(begin, end, number);
  const bool good = error == std::errc() && stop == end && number >= KAVOT_DNS_MIN && number <= kTypeMax;
  return good ? static_cast<KAVO_TYPE>(number) : KAVOT_INVALID;
}

// The name of an address (RFC 1035, 3.5; RFC 3596, 2.5).
std::string reverse_name(const Subject &address) {
  return text_of_dn(address.dn.data()) + (address.kind == Kind::ip4 ? "in-addr.arpa" : "ip6.arpa");
}

}  // namespace

KAVO_TYPE parse_type(const std::string &text) {
  std::string name = upper(text);
  if (name.starts_with(kNumbered)) {
    const KAVO_TYPE type = numbered_type(name);
    if (type == KAVOT_INVALID) throw Usage{"type " + quoted(text) + ": its number must be from 1 to 65535"};
    return type;
  }
  std::replace(name.begin(), name.end(), '-', '_');
  KAVO_TYPE type = kavo_name2type((std::string(kPrefix) + name).c_str());
  if (type == KAVOT_INVALID) type = kavo_name2type(name.c_str());
  if (type == KAVOT_INVALID || text.find('\0') != std::string::npos) {
    throw Usage{"type " + quoted(text) + " is not known by name; any type can be given by its number, as TYPE257"};
  }
  if (type >= KAVOT_BL_MIN && type <= KAVOT_BL_MAX)
    throw Usage{"type " + quoted(text) + " is a question to lists: ask it with kavo check"};
  return type;
}

std::string type_text(KAVO_TYPE type) {
  const char *name = kavo_typename(type);
  if (name == nullptr) return std::string(kNumbered) + std::to_string(type);
  const std::string_view text = name;
  return std::string(text.starts_with(kPrefix) ? text.substr(kPrefix.size()) : text);
}

std::string text_of_dn(const unsigned char *dn) {
  constexpr std::string_view kSpecial = ".\\\"();@$";
  std::string text = *dn == 0 ? "." : "";
  for (; *dn != 0; dn += 1 + *dn) {
    for (const unsigned char byte : std::basic_string_view<unsigned char>(dn + 1, *dn)) {
      const bool special = kSpecial.find(static_cast<char>(byte)) != std::string_view::npos;
      text +=
          byte > ' ' && byte <= '~' ? (special ? "\\" : "") + std::string(1, static_cast<char>(byte)) : escaped(byte);
    }
    text += '.';
  }
  return text;
}

Name parse_name(const std::string &text, KAVO_TYPE type) {
  Name name{text, text, {}};
  if (text.empty()) throw std::runtime_error("an empty text is no domain name");
  const std::optional<Subject> address = parse_address(text);
  if (address && type != KAVOT_DNS_PTR)
    throw std::runtime_error(quoted(text) + " is an address: ask for its name with --type PTR");
  if (address) name.name = reverse_name(*address);
  const auto stray = [](unsigned char byte) { return byte <= ' ' || byte == 0x7f; };
  if (std::any_of(text.begin(), text.end(), stray))
    throw std::runtime_error(quoted(text) + " is no domain name: it holds a blank or control character");
  const int size =
      kavo_dns_ptodn(name.name.c_str(), static_cast<unsigned>(name.name.size()), name.dn.data(), DNS_MAXDN);
  if (size == 0) throw std::runtime_error(quoted(text) + " is no domain name: it is longer than 255 bytes");
  if (size < 0) {
    throw std::runtime_error(quoted(text) +
                             " is no domain name: a label is empty or longer than 63 bytes, or an escape is wrong");
  }
  return name;
}

bool is_negative(KAVO_ERR error) {
  return error == KAVOE_NXDOM || error == KAVOE_NODATA;
}

const char *status_word(KAVO_ERR error) {
  return error == KAVOE_OK ? "ok" : error == KAVOE_NXDOM ? "nxdomain" : "nodata";
}

std::string explain(KAVO_ERR error) {
  switch (error) {
    case KAVOE_TIMEOUT:
      return "no answer in time";
    case KAVOE_DNS:
      return "the server refused, or answered with an error or an answer that cannot be used";
    case KAVOE_BADPAR:
      return "the question is no valid name in this zone";
    default:
      return kavo_strerror(error);
  }
}

std::string explain_negative(KAVO_ERR error, KAVO_TYPE type) {
  return error == KAVOE_NXDOM ? "no such name" : "no " + type_text(type) + " records";
}

}  // namespace tool
