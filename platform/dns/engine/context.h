// context.h - the record of an engine context. One thread drives it, and only that thread touches the record, except
// for the statistics of servers.
#ifndef DNS_ENGINE_CONTEXT_H
#define DNS_ENGINE_CONTEXT_H

#include <cdata.h>
#include <chained_table.h>
#include <dns_engine.h>
#include <dns_io.h>
#include <list.h>
#include <pool.h>
#include <timer_wheel.h>

#include "bounds.h"
#include "buffers.h"
#include "connection.h"
#include "failures.h"
#include "options.h"
#include "query.h"
#include "ratings.h"
#include "resolution_record.h"
#include "server_table.h"

struct dns_ctx {
  explicit dns_ctx(const dns::Io *the_io) : io(the_io), random(the_io), sockets(the_io, &random) {}
  dns_ctx(const dns_ctx &) = delete;
  dns_ctx &operator=(const dns_ctx &) = delete;

  const dns::Io *io;
  dns::RandomSource random;
  dns::UdpPool sockets;
  dns::ServerTable server_table;
  dns::Options options;
  bool opened = false;

  dns::Server *servers[dns::kServersMax] = {};
  unsigned nserv = 0;
  uint32_t portless = 0;    // the servers, by their places, that were named without a port and follow DNS_OPT_PORT
  unsigned next_first = 0;  // where DNS_SERVRRB started the last query; with costs, a count of queries
  dns::Address expected[dns::kExpectedServersMax];
  unsigned nexpected = 0;
  dns::CostZone costs;
  int64_t cut_off_until_us[dns::kFamilies] = {};  // families without a route (route.h)

  dns_cacher *answer_cache = nullptr;
  uint8_t cache_number = 0;  // of the answer cache among those that were installed, modulo 256
  dns_cacher *referral_cache = nullptr;
  dns_cdata *entry = nullptr;  // the entry that is being copied into or out of the cache

  dns_dbg_fn *dbg = nullptr;
  void *dbg_data = nullptr;
  unsigned dbg_events = DNS_DE_CACHE | DNS_DE_PKT;
  [[nodiscard]] bool tells(unsigned event) const { return dbg != nullptr && (dbg_events & event) != 0; }
  dns_dc_fn *dc = nullptr;

  dns_status status = DNS_E_NOERROR;
  unsigned sflags = 0;

  // The time that the loop was last given, and the wall clock, which is read once a turn at most.
  int64_t now_us = 0;
  dns_time wall = 0;
  bool wall_read = false;

  // Queries that are not over, and those of them that are the host's: lookups of costs do not count.
  unsigned active = 0;
  [[nodiscard]] unsigned open_queries() const { return active - costs.open; }
  unsigned turns_open = 0;  // turns of the loop that are under way, one in a callback of the other
  unsigned turns_unchecked = 0;

  unsigned holds = 0;  // Hold objects that exist; meanwhile a dropped query stays in `cancelled`
  base::Link cancelled;
  base::Link queued;
  base::Link sending;
  base::Link resolving;
  base::Link tcp_waiting;  // queries for which no connection has room
  base::Link pacing;       // servers that may have room for parked queries, now or when their pace lets them leave
  base::TimerWheel timers;

  // Queries that were sent, until they are over, by id; and those that others may be coalesced with.
  base::ChainedTable<dns_query, &dns_query::index_next, &dns::id_of> index;
  base::ChainedTable<dns_query, &dns_query::leader_next, &dns::hash_of> leaders;

  uint8_t secret[16] = {};  // of this context's hashes
  uint8_t cookie_secret[16] = {};
  dns::Failures failures;

  dns::Connection connections[dns::kConnectionsMax];
  unsigned connections_open = 0;

  base::Pool<dns_query, 32> queries;
  base::Pool<dns::OwnServers, 16> own_servers;
  base::Pool<dns::MediumName, 16> medium_names;
  base::Pool<dns::LongName, 16> long_names;
  base::Pool<dns::Resolution, 8> resolutions;

  uint8_t *result = nullptr;  // the block that the last parse laid out
  size_t result_size = 0;
  dns::Buffers *buffers = nullptr;  // allocated when the transport is first opened
};

namespace dns {

// wall returns the wall clock's time in this turn.
[[nodiscard]] inline dns_time wall(dns_ctx *ctx) {
  if (!ctx->wall_read) {
    ctx->wall = ctx->io->wall(ctx->io->self);
    ctx->wall_read = true;
  }
  return ctx->wall;
}

// servers_of returns the servers that a query goes to.
[[nodiscard]] inline std::span<Server *const> servers_of(const dns_query *q) {
  const Resolution *resolution = q->resolution;
  const OwnServers *own = q->question.own;
  if (resolution != nullptr || own != nullptr) [[unlikely]] {
    if (resolution != nullptr && resolution->nserv > 0) return {resolution->servers, resolution->nserv};
    if (own != nullptr) return {own->servers, own->count};
  }
  return {q->ctx->servers, q->ctx->nserv};
}
[[nodiscard]] inline Server *present_server(const dns_query *q) {
  return servers_of(q)[q->attempt.server];
}

// recursive tells whether the query's present servers are asked for recursion (RD), iterates whether the engine follows
// referrals itself.
[[nodiscard]] inline bool recursive(const dns_query *q) {
  return (q->question.flags & (DNS_RCRS | DNS_DCACHE)) == DNS_RCRS;
}
[[nodiscard]] inline bool iterates(const dns_query *q) {
  return (q->question.flags & (DNS_RCRS | DNS_DCACHE)) == 0 && q->question.own == nullptr &&
         q->question.cls == DNS_C_IN;
}

}  // namespace dns

#endif  // DNS_ENGINE_CONTEXT_H
