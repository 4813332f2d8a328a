// context.cc - making, opening and releasing engine contexts; their options, servers and caches; memory and time. See
// engine.h.
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <new>
#include <utility>

#include <cdata.h>
#include "engine.h"

namespace dns {
namespace {

constexpr const char *kResolverFile = "/etc/resolv.conf";
constexpr unsigned kEntryRoom = 512;  // bytes of records that the context's cache entry begins with
constexpr dns_time kEpoch2000 = 946684800;
constexpr int64_t kNsPerUs = 1000;

int64_t clock_us(clockid_t clock) {
  timespec now;
  clock_gettime(clock, &now);
  return int64_t{now.tv_sec} * kUsPerSecond + now.tv_nsec / kNsPerUs;
}

void drop_servers(dns_ctx *ctx) {
  for (unsigned i = 0; i < ctx->nserv; ++i)
    ctx->server_table.release(ctx->servers[i]);
  ctx->nserv = 0;
  ctx->portless = 0;
}

int add_server(dns_ctx *ctx, const sockaddr_in &address, bool portless) {
  if (ctx->nserv == kServersMax) return DNS_E_NOBUFS;
  Server *server = ctx->server_table.hold(address);
  if (server == nullptr) return DNS_E_NOMEM;
  if (portless) ctx->portless |= 1U << ctx->nserv;
  ctx->servers[ctx->nserv++] = server;
  return static_cast<int>(ctx->nserv);
}

// move_portless gives the servers that were named without a port a new one. Without memory some may have moved.
dns_status move_portless(dns_ctx *ctx, uint32_t port) {
  if (ctx->open_questions() > 0 && ctx->portless != 0)
    return DNS_E_BUSY;  // open questions know their servers by their addresses
  drop_ratings(ctx);
  for (unsigned i = 0; i < ctx->nserv; ++i) {
    if ((ctx->portless & 1U << i) == 0) continue;
    sockaddr_in address = ctx->servers[i]->address;
    address.sin_port = htons(static_cast<uint16_t>(port));
    Server *server = ctx->server_table.hold(address);
    if (server == nullptr) return DNS_E_NOMEM;
    ctx->server_table.release(ctx->servers[i]);
    ctx->servers[i] = server;
  }
  return DNS_E_NOERROR;
}

// A number among the options, with the range that it may take.
struct Figure {
  int opt;
  uint32_t Options::*field;
  uint32_t least;
  uint32_t most;
};

constexpr uint32_t kAny = UINT32_MAX;
constexpr Figure kFigures[] = {
    {DNS_OPT_FLAGS, &Options::flags, 0, kAny},
    {DNS_OPT_NTRIES, &Options::ntries, 1, 255},
    {DNS_OPT_NDOTS, &Options::ndots, 0, kAny},
    {DNS_OPT_UDPSIZE, &Options::udp_size, 512, kAnswerRoom},
    {DNS_OPT_PORT, &Options::port, 1, 65535},
    {DNS_OPT_MAXLOOP, &Options::maxloop, 1, kAny},
    {DNS_OPT_MAXALIAS, &Options::maxalias, 1, kAny},
    {DNS_OPT_BSC_SIZE, &Options::bsc_size, 0, kAny},
    {DNS_OPT_BSC_UPDTIME, &Options::bsc_update_s, 0, kAny},
    {DNS_OPT_BSC_NBEST, &Options::bsc_nbest, 1, kAny},
    {DNS_OPT_MINTTL, &Options::minttl, 0, INT32_MAX},
};

const Figure *figure_of(int opt) {
  const auto *found =
      std::find_if(std::begin(kFigures), std::end(kFigures), [opt](const Figure &f) { return f.opt == opt; });
  return found == std::end(kFigures) ? nullptr : found;
}

template <typename Use>
dns_status statistic(dns_ctx *ctx, const sockaddr *server, const void *value, Use use) {
  if (ctx == nullptr || server == nullptr || value == nullptr) return DNS_E_INVAL;
  sockaddr_in address;
  if (!read_server(server, ctx->options.port, &address)) return DNS_E_INVAL;
  bool asked = false;
  const bool found = ctx->server_table.read(address, [&](const Server &s) {
    asked = s.sent.load(std::memory_order_relaxed) > 0;
    use(s);
  });
  return found && asked ? DNS_E_NOERROR : DNS_E_INVAL;
}

}  // namespace

dns_ctx *context_new(const Io *io) {
  void *block = malloc(sizeof(dns_ctx));
  if (block == nullptr) return nullptr;
  auto *ctx = new (block) dns_ctx(io);
  ctx->entry = dns_cdata_init(kEntryRoom);
  if (ctx->entry != nullptr && io->random(io->self, ctx->secret, sizeof ctx->secret) &&
      io->random(io->self, ctx->cookie_secret, sizeof ctx->cookie_secret))
    return ctx;
  dns_destroy(ctx);
  return nullptr;
}

dns_time wall(dns_ctx *ctx) {
  if (!ctx->wall_read) {
    ctx->wall = ctx->io->wall(ctx->io->self);
    ctx->wall_read = true;
  }
  return ctx->wall;
}

bool read_server(const sockaddr *address, uint32_t port, sockaddr_in *server) {
  memcpy(server, address, sizeof *server);
  if (server->sin_family != AF_INET) return false;
  // The address that means "this host" answers from loopback.
  if (server->sin_addr.s_addr == htonl(INADDR_ANY)) server->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (server->sin_port == 0) server->sin_port = htons(static_cast<uint16_t>(port));
  memset(server->sin_zero, 0, sizeof server->sin_zero);
  return true;
}

}  // namespace dns

using namespace dns;

extern "C" {

const dns_timeval dns_tv_infinite = {INT32_MAX, 999999};
const dns_timeval dns_tv_zero = {0, 0};

void *dns_calloc(size_t count, size_t size) {
  return calloc(count, size);
}
void *dns_realloc(void *block, size_t size) {
  return realloc(block, size);
}
void dns_free(void *block) {
  free(block);
}

void dns_gettimeofday(dns_timeval *now) {
  // No guarded initialiser: a child that is forked meanwhile would wait for its end for ever.
  static constinit std::atomic<int64_t> noted = 0;
  int64_t start = noted.load(std::memory_order_relaxed);
  if (start == 0) {
    const int64_t fresh = clock_us(CLOCK_REALTIME) - clock_us(CLOCK_MONOTONIC);
    if (noted.compare_exchange_strong(start, fresh)) start = fresh;
  }
  const int64_t us = start + clock_us(CLOCK_MONOTONIC);
  *now = {static_cast<int32_t>(us / kUsPerSecond), static_cast<int32_t>(us % kUsPerSecond)};
}

dns_time dns_gettime(dns_time *now) {
  const dns_time moment = static_cast<dns_time>(time(nullptr)) - kEpoch2000;
  if (now != nullptr) *now = moment;
  return moment;
}

dns_ctx *dns_new(const dns_ctx *from) {
  const pelk_no_cancel whole;
  dns_ctx *ctx = context_new(from != nullptr ? from->io : system_io());
  if (ctx == nullptr) return nullptr;
  sockaddr_in servers[kServersMax];
  unsigned count = 0;
  uint32_t portless = UINT32_MAX;
  if (from != nullptr) {
    ctx->options = from->options;
    ctx->server_table.keep_idle(ctx->options.bsc_size);
    portless = from->portless;
    for (; count < from->nserv; ++count)
      servers[count] = from->servers[count]->address;
  } else {
    count = read_resolver_file(kResolverFile, &ctx->options, servers, kServersMax);
    if (count == 0) {
      servers[0] = {};
      servers[0].sin_family = AF_INET;
      servers[0].sin_port = htons(static_cast<uint16_t>(ctx->options.port));
      servers[0].sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      count = 1;
    }
  }
  for (unsigned i = 0; i < count; ++i)
    if (add_server(ctx, servers[i], (portless & 1U << i) != 0) < 0) {
      dns_destroy(ctx);
      return nullptr;
    }
  return ctx;
}

dns_status dns_init(dns_ctx *ctx, int do_open) {
  if (ctx == nullptr) return do_open != 0 ? DNS_E_INVAL : DNS_E_NOERROR;
  return do_open != 0 ? dns_open(ctx) : DNS_E_NOERROR;
}

dns_status dns_open(dns_ctx *ctx) {
  if (ctx == nullptr) return DNS_E_INVAL;
  if (ctx->opened) return DNS_E_NOERROR;
  const pelk_no_cancel whole;
  ctx->random.discard();
  // So large a block comes cleared from the system, as a rule untouched: what is never used takes no memory.
  if (ctx->buffers == nullptr) ctx->buffers = static_cast<dns_ctx::Buffers *>(calloc(1, sizeof(dns_ctx::Buffers)));
  if (ctx->buffers == nullptr || !ctx->index.ready()) return DNS_E_NOMEM;
  if (ctx->sockets.open() != 0) return DNS_E_FAIL;
  ctx->opened = true;
  return DNS_E_NOERROR;
}

void dns_close(dns_ctx *ctx) {
  if (ctx == nullptr || !ctx->opened) return;
  const pelk_no_cancel whole;
  // What has been sent is in the index, what pauses among the timers. Dropping one query may have another sent that
  // followed it.
  while (ctx->active > 0) {
    ctx->server_table.each([ctx](Server *server) { ctx->sending.take_all(&server->parked); });
    for (base::Link *list : {&ctx->resting, &ctx->queued, &ctx->sending, &ctx->tcp_waiting})
      while (!list->alone())
        drop(static_cast<dns_query *>(list->next));
    ctx->index.drain(drop);
    while (base::Timer *timer = ctx->waiting.any())
      drop(static_cast<dns_query *>(timer));
  }
  tcp_close(ctx);
  ctx->sockets.close();
  ctx->opened = false;
}

void dns_abandon(dns_ctx *ctx) {
  if (ctx == nullptr) return;
  const pelk_no_cancel whole;
  ctx->sockets.close();
  for (Connection &connection : ctx->connections)
    connection.link.abandon();
  free(std::exchange(ctx->buffers, nullptr));
}

void dns_destroy(dns_ctx *ctx) {
  if (ctx == nullptr) return;
  dns_close(ctx);
  drop_servers(ctx);
  dns_cdata_free(ctx->entry);
  free(ctx->result);
  free(ctx->buffers);
  ctx->~dns_ctx();
  free(ctx);
}

void dns_set_dbgfn(dns_ctx *ctx, dns_dbg_fn *fn, void *udata) {
  if (ctx == nullptr) return;
  ctx->dbg = fn;
  ctx->dbg_data = udata;
}

void dns_set_dbgev(dns_ctx *ctx, unsigned events) {
  ctx->dbg_events = events;
}

void dns_set_dcfn(dns_ctx *ctx, dns_dc_fn *fn) {
  ctx->dc = fn;
}

dns_status dns_set_opt(dns_ctx *ctx, int opt, const void *value, unsigned size) {
  if (ctx == nullptr || value == nullptr) return DNS_E_INVAL;
  if (opt == DNS_OPT_TIMEOUT) {
    dns_timeval timeout;
    if (size != sizeof timeout) return DNS_E_INVAL;
    memcpy(&timeout, value, sizeof timeout);
    const int64_t us = int64_t{timeout.dnstv_sec} * kUsPerSecond + timeout.dnstv_usec;
    if (us <= 0 || timeout.dnstv_usec < 0 || timeout.dnstv_usec >= kUsPerSecond) return DNS_E_INVAL;
    ctx->options.timeout_us = us;
    return DNS_E_NOERROR;
  }
  const Figure *figure = figure_of(opt);
  uint32_t number = 0;
  if (figure == nullptr || size != sizeof number) return DNS_E_INVAL;
  memcpy(&number, value, sizeof number);
  if (number < figure->least || number > figure->most) return DNS_E_INVAL;
  const dns_status moved = opt == DNS_OPT_PORT ? move_portless(ctx, number) : dns_status{DNS_E_NOERROR};
  if (moved == DNS_E_NOERROR) ctx->options.*figure->field = number;
  ctx->server_table.keep_idle(ctx->options.bsc_size);
  return moved;
}

dns_status dns_get_opt(const dns_ctx *ctx, int opt, void *value, unsigned size) {
  if (ctx == nullptr || value == nullptr) return DNS_E_INVAL;
  if (opt == DNS_OPT_TIMEOUT) {
    const dns_timeval timeout = {static_cast<int32_t>(ctx->options.timeout_us / kUsPerSecond),
                                 static_cast<int32_t>(ctx->options.timeout_us % kUsPerSecond)};
    if (size != sizeof timeout) return DNS_E_INVAL;
    memcpy(value, &timeout, sizeof timeout);
    return DNS_E_NOERROR;
  }
  const Figure *figure = figure_of(opt);
  if (figure == nullptr || size != sizeof(uint32_t)) return DNS_E_INVAL;
  memcpy(value, &(ctx->options.*figure->field), sizeof(uint32_t));
  return DNS_E_NOERROR;
}

dns_status dns_set_cache(dns_ctx *ctx, unsigned use, dns_cacher *cacher) {
  if (ctx == nullptr || (use & (DNS_CU_ANS | DNS_CU_REF)) == 0) return DNS_E_INVAL;
  if ((use & DNS_CU_ANS) != 0) {
    ctx->answer_cache = cacher;
    ++ctx->cache_number;
  }
  if ((use & DNS_CU_REF) != 0) ctx->referral_cache = cacher;
  return DNS_E_NOERROR;
}

dns_cacher *dns_get_cache(const dns_ctx *ctx, unsigned use) {
  if (ctx == nullptr) return nullptr;
  if ((use & DNS_CU_ANS) != 0) return ctx->answer_cache;
  return (use & DNS_CU_REF) != 0 ? ctx->referral_cache : nullptr;
}

int dns_add_serv_s(dns_ctx *ctx, const sockaddr *address) {
  if (ctx == nullptr) return DNS_E_INVAL;
  if (ctx->open_questions() > 0) return DNS_E_BUSY;  // they remember servers by their place in the list
  drop_ratings(ctx);
  if (address == nullptr) {
    drop_servers(ctx);
    return 0;
  }
  sockaddr_in server;
  memcpy(&server, address, sizeof server);
  const bool portless = server.sin_port == 0;
  if (!read_server(address, ctx->options.port, &server)) return DNS_E_INVAL;
  return add_server(ctx, server, portless);
}

int dns_add_serv(dns_ctx *ctx, const char *address) {
  if (address == nullptr) return dns_add_serv_s(ctx, nullptr);
  sockaddr_in server{};
  server.sin_family = AF_INET;
  if (dns_pton(AF_INET, address, &server.sin_addr) <= 0) return DNS_E_INVAL;
  return dns_add_serv_s(ctx, reinterpret_cast<const sockaddr *>(&server));
}

int dns_get_serv(const dns_ctx *ctx, sockaddr *addresses, unsigned *size) {
  if (ctx == nullptr || size == nullptr) return DNS_E_INVAL;
  const unsigned needed = ctx->nserv * static_cast<unsigned>(sizeof(sockaddr_in));
  const bool fits = *size >= needed && (addresses != nullptr || needed == 0);
  *size = needed;
  if (!fits) return DNS_E_NOBUFS;
  for (unsigned i = 0; i < ctx->nserv; ++i)
    memcpy(addresses + i, &ctx->servers[i]->address, sizeof(sockaddr_in));
  return static_cast<int>(ctx->nserv);
}

int dns_add_expserv_s(dns_ctx *ctx, const sockaddr *address) {
  if (ctx == nullptr) return DNS_E_INVAL;
  if (address == nullptr) {
    ctx->nexpected = 0;
    return 0;
  }
  sockaddr_in server;
  memcpy(&server, address, sizeof server);
  if (server.sin_family != AF_INET) return DNS_E_INVAL;
  if (ctx->nexpected == kExpectedServersMax) return DNS_E_NOBUFS;
  ctx->expected[ctx->nexpected++] = server;
  return static_cast<int>(ctx->nexpected);
}

dns_status dns_set_cost_zone(dns_ctx *ctx, const char *zone) {
  if (ctx == nullptr) return DNS_E_INVAL;
  uint8_t dn[DNS_MAXDN] = {};
  if (zone != nullptr && dns_ptodn(zone, 0, dn, sizeof dn, nullptr) <= 0) return DNS_E_BADQUERY;
  drop_ratings(ctx);
  memcpy(ctx->cost_zone, dn, sizeof dn);
  ctx->server_table.each([](Server *server) { server->forget_cost(); });
  return DNS_E_NOERROR;
}

dns_status dns_get_serv_avgrtt(dns_ctx *ctx, const sockaddr *server, int *value) {
  return statistic(ctx, server, value, [=](const Server &s) { *value = s.average_ms.load(std::memory_order_relaxed); });
}

dns_status dns_get_serv_lastrtt(dns_ctx *ctx, const sockaddr *server, int *value) {
  return statistic(ctx, server, value, [=](const Server &s) { *value = s.last_ms.load(std::memory_order_relaxed); });
}

dns_status dns_get_serv_last_check(dns_ctx *ctx, const sockaddr *server, int *value) {
  return statistic(ctx, server, value,
                   [=](const Server &s) { *value = static_cast<int>(s.last_check.load(std::memory_order_relaxed)); });
}

dns_status dns_get_serv_nqsent(dns_ctx *ctx, const sockaddr *server, uint64_t *value) {
  return statistic(ctx, server, value, [=](const Server &s) { *value = s.sent.load(std::memory_order_relaxed); });
}

dns_status dns_get_serv_nused(dns_ctx *ctx, const sockaddr *server, uint64_t *value) {
  return statistic(ctx, server, value, [=](const Server &s) { *value = s.used.load(std::memory_order_relaxed); });
}

dns_status dns_get_serv_ntimeout(dns_ctx *ctx, const sockaddr *server, uint64_t *value) {
  return statistic(ctx, server, value, [=](const Server &s) { *value = s.timed_out.load(std::memory_order_relaxed); });
}

dns_status dns_get_status(const dns_ctx *ctx) {
  return ctx->status;
}
void dns_set_status(dns_ctx *ctx, dns_status status) {
  ctx->status = status;
}
void dns_set_sflags(dns_ctx *ctx, unsigned flags) {
  ctx->sflags = flags;
}
unsigned dns_get_sflags(const dns_ctx *ctx) {
  return ctx->sflags;
}

}  // extern "C"
