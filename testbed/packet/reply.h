// reply.h - a server's answer, built step by step.
#ifndef KAVO_TESTBED_REPLY_H
#define KAVO_TESTBED_REPLY_H

#include <arpa/inet.h>
#include <packet.h>

#include <string>

namespace testbed {

// data_of returns the data of an A or AAAA record.
inline Bytes data_of(const std::string &address) {
  const bool six = address.find(':') != std::string::npos;
  Bytes data(six ? sizeof(in6_addr) : sizeof(in_addr));
  inet_pton(six ? AF_INET6 : AF_INET, address.c_str(), data.data());
  return data;
}

// Reply repeats its query. It is authoritative once it has a record in its answer section.
struct Reply : Packet {
  explicit Reply(const Bytes &query)
      : Packet(Packet::reply(query, 0, false)), name(Packet::name()), type(bytes[answers_at - 3]) {}
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
    const Bytes data = data_of(address);
    add(server, data.size() == sizeof(in_addr) ? DNS_T_A : DNS_T_AAAA, data, ttl, DNS_S_AR);
    return *this;
  }
  // a6 answers with an IPv6 address, no_data with an SOA record alone.
  Reply &a6(const std::string &owner, const std::string &address, uint32_t ttl = 300) {
    bytes[kFlagsAt] |= kAa;
    add(owner, DNS_T_AAAA, data_of(address), ttl);
    return *this;
  }
  Reply &no_data(const std::string &zone) {
    add(zone, DNS_T_SOA, soa(60, dn("ns." + zone), dn("a." + zone)), 60, DNS_S_NS);
    return *this;
  }
  Reply &code(unsigned rcode) {
    bytes[kRcodeAt] = static_cast<uint8_t>(rcode);
    return *this;
  }
  [[nodiscard]] bool under(const std::string &zone) const { return name == zone || name.ends_with("." + zone); }

  std::string name;  // the query name, in lower case
  dns_type type;     // the query type, of those below 256
};

}  // namespace testbed

#endif  // KAVO_TESTBED_REPLY_H
