// question.h - an ordinary DNS question: a record type and a name, as the user writes them and as they are asked; and
// what became of one.
#ifndef KAVO_TOOLS_KAVO_QUESTION_H
#define KAVO_TOOLS_KAVO_QUESTION_H

#include <kavo.h>

#include <array>
#include <string>

namespace tool {

// parse_type reads "MX", "DNS_MX" or "TYPE15", in any letter case. Throws Usage for a text that is no type, and for the
// types of lists, which are asked by kavo check.
KAVO_TYPE parse_type(const std::string &text);

// type_text returns a type as parse_type reads it: the shortest form.
std::string type_text(KAVO_TYPE type);

struct Name {
  std::string text;  // as the user gave it
  std::string name;  // as it is queried: of an address, its name under in-addr.arpa or ip6.arpa
  std::array<unsigned char, DNS_MAXDN> dn;
};

// parse_name throws std::runtime_error, with a text that names the fault. An address is a name for the type PTR only.
Name parse_name(const std::string &text, KAVO_TYPE type);

// text_of_dn writes a name as a zone file has it, with its closing dot.
std::string text_of_dn(const unsigned char *dn);

// is_negative tells whether an outcome is a negative answer.
bool is_negative(KAVO_ERR error);

// status_word names an outcome that is no failure for programs: "ok", "nxdomain" or "nodata".
const char *status_word(KAVO_ERR error);

// explain says in a few words what an outcome without records means; explain_negative in DNS terms, for a type.
std::string explain(KAVO_ERR error);
std::string explain_negative(KAVO_ERR error, KAVO_TYPE type);

}  // namespace tool

#endif  // KAVO_TOOLS_KAVO_QUESTION_H
