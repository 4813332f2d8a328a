// subject.h - what is asked about: an address or a domain name, as text and in the wire form that lists are asked in.
#ifndef KAVO_TOOLS_KAVO_SUBJECT_H
#define KAVO_TOOLS_KAVO_SUBJECT_H

#include <kavo.h>

#include <array>
#include <optional>
#include <string>

namespace tool {

enum class Kind { ip4, ip6, domain };

struct Subject {
  std::string text;  // as the user gave it
  Kind kind;
  std::array<unsigned char, DNS_MAXDN> dn;  // reversed for addresses (RFC 5782), without a zone
};

// parse_subject throws std::runtime_error, with a text that names the fault, for what is neither address nor name.
Subject parse_subject(const std::string &text);

// parse_address returns nothing for a text that is no address. An IPv6 address that maps an IPv4 one is that.
std::optional<Subject> parse_address(const std::string &text);

// stray_byte returns the first byte of a text that belongs into no name that is asked about, if there is one: a blank,
// a control character, or a mark of a network, a URL, a mail address or a list. Asked as they stand, those would come
// back as "not listed". An escape (\DDD) still says any byte.
std::optional<char> stray_byte(const std::string &text);

// quoted returns a text as a message shows it: in quotation marks, for_terminal, and cut where it is very long.
std::string quoted(const std::string &text);

// for_terminal returns a text whose control characters and bytes that are no UTF-8 are written as \DDD, so that what
// strangers put into their records cannot steer the terminal.
std::string for_terminal(const std::string &text);

}  // namespace tool

#endif  // KAVO_TOOLS_KAVO_SUBJECT_H
