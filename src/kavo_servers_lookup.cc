// kavo_servers_lookup.cc - a context's servers by address, by a host's name, or by the names of a zone's name servers.
//
// Runs on the host's thread while the context is at rest. Names are looked up synchronously, through the servers
// configured so far: this thread opens the engine's transport and drives it itself.
#include <errno.h>
#include <stdint.h>

#include <memory>
#include <span>

#include <dns_engine.h>
#include <dns_wire.h>
#include <pelk_log.h>
#include <pelk_thread.h>

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

// Hosts is the answers to the lookups of a zone's name servers, in the order of their names, without the servers that
// have no address.
class Hosts {
 public:
  Hosts() = default;
  Hosts(const Hosts &) = delete;
  Hosts &operator=(const Hosts &) = delete;
  ~Hosts() {
    for (unsigned i = 0; i < count_; ++i)
      kavo_rr_free(&answers_[i]);
  }

  [[nodiscard]] bool reserve(size_t count) {
    answers_.reset(static_cast<KAVO_RR *>(dns_calloc(count, sizeof(KAVO_RR))));
    return answers_ != nullptr;
  }
  // add keeps a copy of an answer with addresses, unless it cannot be copied.
  void add(dns_rr_a4 *answer) {
    KAVO_RR source = {};
    source.rr_a = answer;
    if (kavo_rr_dup(KAVOT_DNS_A, &source, &answers_[count_]) == KAVOE_OK)
      ++count_;
    else
      kavo_rr_free(&answers_[count_]);
  }
  [[nodiscard]] std::span<const KAVO_RR> all() const { return {answers_.get(), count_}; }

 private:
  Owned<KAVO_RR[]> answers_;
  unsigned count_ = 0;
};

std::span<const struct in_addr> addresses_of(const dns_rr_a4 *answer) {
  return {answer->dnsa4_addr, static_cast<size_t>(answer->dnsa4_nrr)};
}

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
[[nodiscard]] int append(KAVO kavo, in_port_t port, const struct in_addr &address) {
  struct sockaddr_in server = {};
  server.sin_family = AF_INET;
  server.sin_port = port;
  server.sin_addr = address;
  return dns_add_serv_s(kavo->udns_ctx, reinterpret_cast<const struct sockaddr *>(&server));
}

// replace_list makes these addresses the servers. An address that cannot be added ends the list with those before it.
[[nodiscard]] KAVO_ERR replace_list(KAVO kavo, in_port_t port, std::span<const struct in_addr> addresses) {
  const KAVO_ERR error = empty_list(kavo);
  if (error != KAVOE_OK) return error;
  int count = 0;
  for (const struct in_addr &address : addresses) {
    if (append(kavo, port, address) == ++count) continue;
    PELK_INFO(kSource, kFunction, "Unable to add new server to the list");
    return KAVOE_DNS;
  }
  return KAVOE_OK;
}

// replace_list_by_hosts makes the addresses of several hosts the servers, without those that cannot be added.
[[nodiscard]] KAVO_ERR replace_list_by_hosts(KAVO kavo, in_port_t port, const Hosts &hosts) {
  const KAVO_ERR error = empty_list(kavo);
  if (error != KAVOE_OK) return error;
  int count = 0;
  for (const KAVO_RR &host : hosts.all()) {
    for (const struct in_addr &address : addresses_of(host.rr_a)) {
      if (append(kavo, port, address) == count + 1)
        ++count;
      else
        PELK_INFO(kSource, kFunction, "Unable to add server to the list");
    }
  }
  if (count > 0) return KAVOE_OK;
  PELK_INFO(kSource, kFunction, "No servers added to the servers list");
  return KAVOE_DNS;
}

[[nodiscard]] KAVO_ERR set_by_host(KAVO kavo, in_port_t port, const char *host, Transport *transport) {
  const Owned<dns_rr_a4> answer(dns_resolve_a4(kavo->udns_ctx, host, 0));
  if (answer == nullptr || answer->dnsa4_nrr <= 0) return lookup_error(kavo);
  transport->close();
  return replace_list(kavo, port, addresses_of(answer.get()));
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
  for (const char *name : std::span(names.dnsns_ns, count)) {
    const Owned<dns_rr_a4> answer(dns_resolve_a4(kavo->udns_ctx, name, 0));
    if (answer != nullptr && answer->dnsa4_nrr > 0) hosts->add(answer.get());
  }
  return KAVOE_OK;
}

[[nodiscard]] KAVO_ERR set_by_zone(KAVO kavo, in_port_t port, const char *zone, Transport *transport) {
  KAVO_RR names = {};
  KAVO_ERR error = look_up_zone(kavo, zone, &names);
  const Owned<void> names_block(names.rr_mem);
  if (error != KAVOE_OK) return error;
  Hosts hosts;
  error = look_up_hosts(kavo, *names.rr_ns, &hosts);
  if (error != KAVOE_OK) return error;
  transport->close();
  if (!hosts.all().empty()) return replace_list_by_hosts(kavo, port, hosts);
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
  const in_port_t port_n = htons(static_cast<uint16_t>(port == 0 ? kavo->dns_port : port));
  struct in_addr address = {};
  if (dns_pton(AF_INET, server_domain, &address) > 0) return replace_list(kavo, port_n, {&address, 1});
  errno = 0;  // what fails below may have no call's reason
  Transport transport(kavo->udns_ctx);
  if (!transport.opened()) {
    PELK_ERROR(kSource, __func__, errno, KAVOE_DNS, "Unable to open DNS transport");
    return KAVOE_DNS;
  }
  return direct != 0 ? set_by_host(kavo, port_n, server_domain, &transport)
                     : set_by_zone(kavo, port_n, server_domain, &transport);
}

}  // extern "C"
