// world_query.h - a query submitted to the engine in the simulated world, and its outcome.
#ifndef KAVO_TESTBED_WORLD_QUERY_H
#define KAVO_TESTBED_WORLD_QUERY_H

#include <world.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace sim {

// Query is at one place from its submission to its callback, for the engine keeps its address.
struct Query {
  Query() = default;
  explicit Query(const std::string &text);
  Query(const Query &) = delete;
  Query &operator=(const Query &) = delete;

  // The query.
  Bytes dn;
  dns_type type = DNS_T_A;
  dns_parse_fn *parser = dns_parse_a4;
  std::function<void(void *block, unsigned size)> look;  // called in the callback, with a block or null

  // Its outcome.
  dns_query *handle = nullptr;
  bool cancelled = false;
  int calls = 0;
  dns_status status = 1;
  unsigned sflags = 0;
  std::vector<in_addr_t> addresses;  // of a block of parser dns_parse_a4, in host byte order
  std::string canonical;
  int64_t took_us = 0;

  // address returns the only address, 0 if there is another number of them.
  [[nodiscard]] in_addr_t address() const { return addresses.size() == 1 ? addresses[0] : 0; }
  [[nodiscard]] std::string text() const { return dns_dntosp(dn.data()); }

  const World *world = nullptr;
};

// submit hands a query to the engine, for servers of its own if there are any.
void submit(World *world, Query *query, const std::vector<std::string> &servers = {}, unsigned flags = 0);
// answered is the callback of every query that submit has submitted, which is its data.
void answered(dns_ctx *ctx, dns_query *q, void *result, unsigned size, void *data);

}  // namespace sim

#endif  // KAVO_TESTBED_WORLD_QUERY_H
