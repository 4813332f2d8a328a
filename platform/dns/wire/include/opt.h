// opt.h - the OPT record of EDNS0 (RFC 6891), and the cookie option in it (RFC 7873).
//
// Stateless; any thread. These functions write and read bytes only: the caller decides which queries carry an OPT
// record, and checks cookies. Nothing here allocates.
#ifndef OPT_H
#define OPT_H

#include <stddef.h>
#include <stdint.h>

#include <span>

#include <message.h>

namespace dns {

// write_opt appends an OPT record to the query of `size` bytes in `packet`. The record allows UDP answers of `udp_size`
// bytes, and carries a cookie option where `cookie` is not empty. Returns the packet's new length; 0 when it does not
// fit.
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
