// name.h - domain names as C++ takes them; their C form is in dns_wire.h.
//
// Stateless; any thread. The functions take whole DNs, which Reader::name or dns_dnlen has checked, and allocate
// nothing.
#ifndef NAME_H
#define NAME_H

#include <stddef.h>
#include <stdint.h>

#include <span>

#include <dns_wire.h>

namespace dns {

// covers tells whether a zone holds a name: whether it is the name itself or one above it. Both are whole DNs.
[[nodiscard]] bool covers(std::span<const uint8_t> zone, std::span<const uint8_t> dn);
[[nodiscard]] inline bool covers(const uint8_t *zone, const uint8_t *dn) {
  return covers({zone, dns_dnlen(zone)}, {dn, dns_dnlen(dn)});
}

// put_name writes a whole DN as text, which takes up to DNS_MAXNAME bytes with its terminator; returns where that is.
char *put_name(const uint8_t *dn, char *text);

}  // namespace dns

#endif  // NAME_H
