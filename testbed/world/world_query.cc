#include "world_query.h"

#include <arpa/inet.h>
#include <check.h>

namespace sim {

using testbed::check;

Query::Query(const std::string &text) : dn(testbed::dn(text)) {}

void answered(dns_ctx *ctx, dns_query *q, void *result, unsigned size, void *data) {
  auto *query = static_cast<Query *>(data);
  check(q == query->handle && dns_dnequal(dns_qdn(q), query->dn.data()) != 0, "a callback has its own query");
  ++query->calls;
  if (query->look) query->look(result, size);
  query->status = dns_get_status(ctx);
  query->sflags = dns_get_sflags(ctx);
  query->took_us = query->world->now_us - query->took_us;
  if (result == nullptr) return;
  const auto *block = static_cast<const dns_rr_a4 *>(result);
  check(block->dnsa4_size == size && block->dnsa4_written == size, "a block says its size");
  if (query->parser != dns_parse_a4) return;
  query->canonical = block->dnsa4_cname;
  for (int i = 0; i < block->dnsa4_nrr; ++i)
    query->addresses.push_back(ntohl(block->dnsa4_addr[i].s_addr));
}

void submit(World *world, Query *query, const std::vector<std::string> &servers, unsigned flags) {
  query->world = world;
  query->took_us = world->now_us;  // until the callback, the moment of submission
  std::vector<dns::Address> addresses;
  for (const std::string &server : servers)
    addresses.push_back(address_of(server));
  query->handle = dns_submit_dn_serv(world->ctx, query->dn.data(), DNS_C_IN, query->type, flags, addresses.data(),
                                     static_cast<unsigned>(addresses.size()), query->parser, answered, query);
  check(query->handle != nullptr, "a query can be submitted");
  check(query->calls == 0, "no callback runs inside a submission");
}

}  // namespace sim
