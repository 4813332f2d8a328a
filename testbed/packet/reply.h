// reply.h - a server's answer, built step by step.
#ifndef KAVO_TESTBED_REPLY_H
#define KAVO_TESTBED_REPLY_H

#include <arpa/inet.h>
#include <packet.h>

#include <string>

namespace testbed {

// Reply repeats its query. It is authoritative once it has a record in its answer section.
struct Reply : Packet {
  explicit Reply(const Bytes &query) : Packet(Packet::reply(query, 0, false)), name(Packet::name()) {}
  Reply &a(const std::string &owner, const Bytes &address, uint32_t ttl = 300) {
    bytes[kFlagsAt] |= kAa;
    add(owner, DNS_T_A, address, ttl);
    return *this;
  }
  Reply &cname(const std::string &owner, const std::string &target) {
    bytes[kFlagsAt] |= kAa;
    add(owner, DNS_T_CNAME, dn(target));
    return *this;
  }
  Reply &ns(const std::string &zone, const std::string &server, uint32_t ttl = 300) {
    add(zone, DNS_T_NS, dn(server), ttl, DNS_S_NS);
    return *this;
  }
  Reply &glue(const std::string &server, const std::string &address, uint32_t ttl = 300) {
    add(server, DNS_T_A, u32(ntohl(inet_addr(address.c_str()))), ttl, DNS_S_AR);
    return *this;
  }
  Reply &code(unsigned rcode) {
    bytes[kRcodeAt] = static_cast<uint8_t>(rcode);
    return *this;
  }
  [[nodiscard]] bool under(const std::string &zone) const { return name == zone || name.ends_with("." + zone); }

  std::string name;  // the query name, in lower case
};

}  // namespace testbed

#endif  // KAVO_TESTBED_REPLY_H
