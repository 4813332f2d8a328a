// kavo_servers_lookup.cc - a context's servers by address, by a host's name, or by the names of a zone's name servers.
//
// Runs on the host's thread while the context is at rest. Names are looked up synchronously, through the servers
// configured so far: this thread opens the engine's transport and drives it itself.
#include <errno.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <memory>
#include <span>

#include <dns_engine.h>
#include <pelk_log.h>
#include <pelk_thread.h>
#include <socket_address.h>

#include "kavo_rest.h"
#include "kavo_t.h"

namespace {

constexpr char kSource[] = "kavo_set_server";
constexpr char kFunction[] = "kavo_set_dns_server";

// The highest port that a server may be given.
constexpr unsigned kPortMax = 65534;

struct Freed {
  void operator()(void *block) const { dns_free(block); }
};
template <typename Block>
using Owned = std::unique_ptr<Block, Freed>;

// Transport is the engine's transport, open for as long as names are looked up.
class Transport {
 public:
  explicit Transport(struct dns_ctx *ctx) : ctx_(ctx), opened_(dns_open(ctx) >= 0) {}
  ~Transport() { close(); }
  Transport(const Transport &) = delete;
  Transport &operator=(const Transport &) = delete;

  [[nodiscard]] bool opened() const { return opened_; }
  void close() {
    if (opened_) dns_close(ctx_);
    opened_ = false;
  }

 private:
  struct dns_ctx *ctx_;
  bool opened_;
};

// Hosts is the answers to the lookups of hosts, in the order of their names and for each IPv4 first, without those that
// have no address.
class Hosts {
 public:
  Hosts() = default;
  Hosts(const Hosts &) = delete;
  Hosts &operator=(const Hosts &) = delete;
  ~Hosts() {
    for (Answer &answer : std::span(answers_.get(), count_))
      kavo_rr_free(&answer.block);
  }

  // reserve makes room for the answers of so many hosts. False without memory.
  [[nodiscard]] bool reserve(size_t hosts) {
    answers_.reset(static_cast<Answer *>(dns_calloc(2 * hosts, sizeof(Answer))));
    return answers_ != nullptr;
  }
  // look_up looks up the addresses of a host, those of IPv6 only of a host that exists.
  void look_up(struct dns_ctx *ctx, const char *host) {
    const Owned<dns_rr_a4> ip4(dns_resolve_a4(ctx, host, 0));
    const dns_status status = dns_get_status(ctx);
    if (ip4 != nullptr && ip4->dnsa4_nrr > 0) add(KAVOT_DNS_A, {.rr_a = ip4.get()});
    if (status != DNS_E_NOERROR && status != DNS_E_NODATA) return;
    const Owned<dns_rr_a6> ip6(
        static_cast<dns_rr_a6 *>(dns_resolve_p(ctx, host, DNS_C_IN, DNS_T_AAAA, 0, dns_parse_a6)));
    if (ip6 != nullptr && any_server(*ip6)) add(KAVOT_DNS_AAAA, {.rr_a6 = ip6.get()});
    if (status == DNS_E_NOERROR || dns_get_status(ctx) == DNS_E_NOERROR) dns_set_status(ctx, status);
  }
  [[nodiscard]] bool empty() const { return count_ == 0; }
  // lacks_memory tells whether an answer with addresses could not be kept.
  [[nodiscard]] bool lacks_memory() const { return lacks_memory_; }

  // each calls `use` with each address that a server can have, on a port.
  template <typename Use>
  void each(uint16_t port, Use use) const {
    for (const Answer &answer : std::span(answers_.get(), count_)) {
      const dns_rr_a4 *ip4 = answer.block.rr_a;
      const dns_rr_a6 *ip6 = answer.block.rr_a6;
      const bool six = answer.type == KAVOT_DNS_AAAA;
      for (int i = 0; i < (six ? ip6->dnsa6_nrr : ip4->dnsa4_nrr); ++i) {
        const dns::Address address =
            six ? dns::ipv6(ip6->dnsa6_addr[i].s6_addr, port) : dns::ipv4(octets_of(&ip4->dnsa4_addr[i]), port);
        if (dns::as_server(address, port).family != dns::Family::none) use(address);
      }
    }
  }

 private:
  struct Answer {
    KAVO_TYPE type;
    KAVO_RR block;
  };

  static std::span<const uint8_t, dns::kIpv4Size> octets_of(const struct in_addr *address) {
    return std::span<const uint8_t, dns::kIpv4Size>(reinterpret_cast<const uint8_t *>(address), dns::kIpv4Size);
  }

  // any_server tells whether one of the addresses can be a server's.
  static bool any_server(const dns_rr_a6 &answer) {
    return std::ranges::any_of(std::span(answer.dnsa6_addr, static_cast<size_t>(answer.dnsa6_nrr)),
                               [](const struct in6_addr &address) {
                                 return dns::as_server(dns::ipv6(address.s6_addr, 0), 0).family != dns::Family::none;
                               });
  }

  // add keeps a copy of an answer with addresses, unless it cannot be copied.
  void add(KAVO_TYPE type, KAVO_RR source) {
    Answer &answer = answers_[count_];
    answer.type = type;
    if (kavo_rr_dup(type, &source, &answer.block) == KAVOE_OK) {
      ++count_;
    } else {
      lacks_memory_ = true;
      kavo_rr_free(&answer.block);
    }
  }

  Owned<Answer[]> answers_;
  unsigned count_ = 0;
  bool lacks_memory_ = false;
};

// lookup_error returns why a lookup has no result.
[[nodiscard]] KAVO_ERR lookup_error(KAVO kavo) {
  const KAVO_ERR error = kavo_dns_status(kavo);
  return error != KAVOE_OK ? error : KAVOE_NODATA;
}

[[nodiscard]] KAVO_ERR empty_list(KAVO kavo) {
  if (dns_add_serv(kavo->udns_ctx, nullptr) == 0) return KAVOE_OK;
  PELK_ERROR(kSource, kFunction, 0, KAVOE_DNS, "Unable to reset DNS servers list");
  return KAVOE_DNS;
}

// append appends a server. Returns the engine's new count of servers, or a negative status.
[[nodiscard]] int append(KAVO kavo, const dns::Address &address) {
  return dns_add_serv_s(kavo->udns_ctx, dns::SocketAddress(address).generic());
}

// replace_list makes a server the only one.
[[nodiscard]] KAVO_ERR replace_list(KAVO kavo, const dns::Address &server) {
  const KAVO_ERR error = empty_list(kavo);
  if (error != KAVOE_OK) return error;
  if (append(kavo, server) == 1) return KAVOE_OK;
  PELK_INFO(kSource, kFunction, "Unable to add new server to the list");
  return KAVOE_DNS;
}

// replace_list_by_host makes a host's addresses the servers. An IPv4 address that cannot be added ends the list with
// those before it. IPv6 addresses after others may be left out.
[[nodiscard]] KAVO_ERR replace_list_by_host(KAVO kavo, uint16_t port, const Hosts &host) {
  KAVO_ERR error = empty_list(kavo);
  int count = 0;
  host.each(port, [&](const dns::Address &address) {
    if (error != KAVOE_OK || append(kavo, address) == ++count) return;
    PELK_INFO(kSource, kFunction, "Unable to add new server to the list");
    if (address.family == dns::Family::ipv4 || --count == 0) error = KAVOE_DNS;
  });
  return error;
}

// replace_list_by_hosts makes the addresses of several hosts the servers, without those that cannot be added.
[[nodiscard]] KAVO_ERR replace_list_by_hosts(KAVO kavo, uint16_t port, const Hosts &hosts) {
  const KAVO_ERR error = empty_list(kavo);
  if (error != KAVOE_OK) return error;
  int count = 0;
  hosts.each(port, [&](const dns::Address &address) {
    if (append(kavo, address) == count + 1)
      ++count;
    else
      PELK_INFO(kSource, kFunction, "Unable to add server to the list");
  });
  if (count > 0) return KAVOE_OK;
  PELK_INFO(kSource, kFunction, "No servers added to the servers list");
  return KAVOE_DNS;
}

[[nodiscard]] KAVO_ERR set_by_host(KAVO kavo, uint16_t port, const char *name, Transport *transport) {
  Hosts host;
  if (!host.reserve(1)) return KAVOE_NOMEM;
  host.look_up(kavo->udns_ctx, name);
  if (host.empty()) return host.lacks_memory() ? KAVOE_NOMEM : lookup_error(kavo);
  transport->close();
  return replace_list_by_host(kavo, port, host);
}

// look_up_zone stores the names of a zone's name servers in a block of the caller's.
[[nodiscard]] KAVO_ERR look_up_zone(KAVO kavo, const char *zone, KAVO_RR *names) {
  KAVO_RR answer = {};
  const Owned<void> block(dns_resolve_p(kavo->udns_ctx, zone, DNS_C_IN, DNS_T_NS, 0, dns_parse_ns));
  answer.rr_ns = static_cast<dns_rr_ns *>(block.get());
  if (block == nullptr || answer.rr_ns->dnsns_nrr <= 0) {
    PELK_INFO(kSource, kFunction, "Unable to resolve zone name (NS)");
    return lookup_error(kavo);
  }
  const KAVO_ERR error = kavo_rr_dup(KAVOT_DNS_NS, &answer, names);
  if (error != KAVOE_OK) PELK_INFO(kSource, kFunction, "Unable to copy NS lookup response, err code %d", error);
  return error;
}

[[nodiscard]] KAVO_ERR look_up_hosts(KAVO kavo, const dns_rr_ns &names, Hosts *hosts) {
  const auto count = static_cast<size_t>(names.dnsns_nrr);
  if (!hosts->reserve(count)) {
    PELK_ERROR(kSource, kFunction, errno, KAVOE_NOMEM, "Unable to allocate %d bytes to store list of NS servers names",
               static_cast<int>(count * sizeof(KAVO_RR)));
    return KAVOE_NOMEM;
  }
  for (const char *name : std::span(names.dnsns_ns, count))
    hosts->look_up(kavo->udns_ctx, name);
  return KAVOE_OK;
}

[[nodiscard]] KAVO_ERR set_by_zone(KAVO kavo, uint16_t port, const char *zone, Transport *transport) {
  KAVO_RR names = {};
  KAVO_ERR error = look_up_zone(kavo, zone, &names);
  const Owned<void> names_block(names.rr_mem);
  if (error != KAVOE_OK) return error;
  Hosts hosts;
  error = look_up_hosts(kavo, *names.rr_ns, &hosts);
  if (error != KAVOE_OK) return error;
  transport->close();
  if (!hosts.empty()) return replace_list_by_hosts(kavo, port, hosts);
  PELK_INFO(kSource, kFunction, "No DNS servers addresses resolved for specified zone");
  return lookup_error(kavo);
}

}  // namespace

extern "C" {

KAVO_ERR kavo_set_dns_server(KAVO kavo, const char *server_domain, unsigned port, int direct) {
  if (server_domain == nullptr || direct < 0 || port > kPortMax) return KAVOE_BADPAR;
  const KAVO_ERR refused =
      kavo_check_at_rest(kavo, kSource, __func__, "Cannot set DNS server because KAVO is already opened");
  if (refused != KAVOE_OK) return refused;
  const pelk_no_cancel whole;
  const auto port_used = static_cast<uint16_t>(port == 0 ? kavo->dns_port : port);
  const dns::Address address = dns::read_address(server_domain, port_used);
  if (address.family != dns::Family::none) return replace_list(kavo, address);
  // No name in use has a colon: this is an IPv6 address that is none.
  if (strchr(server_domain, ':') != nullptr) return KAVOE_BADPAR;
  errno = 0;  // what fails below may have no call's reason
  Transport transport(kavo->udns_ctx);
  if (!transport.opened()) {
    PELK_ERROR(kSource, __func__, errno, KAVOE_DNS, "Unable to open DNS transport");
    return KAVOE_DNS;
  }
  return direct != 0 ? set_by_host(kavo, port_used, server_domain, &transport)
                     : set_by_zone(kavo, port_used, server_domain, &transport);
}

}  // extern "C"
