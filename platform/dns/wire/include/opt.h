// opt.h - the OPT record of EDNS0 (RFC 6891), with the cookie in it (RFC 7873).
#ifndef OPT_H
#define OPT_H

#include <stddef.h>
#include <stdint.h>

#include <span>

#include <message.h>

namespace dns {

// write_opt appends an OPT record (RFC 6891) to the question packet of `size` bytes in `packet`: it tells the server
// that UDP answers may be `udp_size` bytes, and carries a cookie option (RFC 7873) where `cookie` is not empty. The
// packet's length, 0 when it does not fit.
[[nodiscard]] size_t write_opt(std::span<uint8_t> packet, size_t size, uint16_t udp_size,
                               std::span<const uint8_t> cookie);

// Opt is what an answer's OPT record says. `cookie` points into the packet.
struct Opt {
  bool present;
  uint8_t rcode_high;  // the upper eight bits of the response code, above the header's four
  uint8_t version;
  uint16_t udp_size;
  std::span<const uint8_t> cookie;
};
// read_opt looks for an OPT record. False for a packet that is malformed or has two.
[[nodiscard]] bool read_opt(Sections *sections, Opt *opt);

}  // namespace dns

#endif  // OPT_H
