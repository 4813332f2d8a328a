// open.cc - see open.h; and the caches and functions that a host installs.
#include "open.h"

#include <stdlib.h>

#include <new>
#include <utility>

#include <pelk_thread.h>

#include "context.h"
#include "delivery.h"
#include "places.h"
#include "resolver_file.h"
#include "server_list.h"
#include "tcp.h"

namespace dns {
namespace {

constexpr const char *kResolverFile = "/etc/resolv.conf";
constexpr unsigned kEntryRoom = 512;  // bytes of records that the context's cache entry begins with

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

}  // namespace dns

using namespace dns;

extern "C" {

dns_ctx *dns_new(const dns_ctx *from) {
  const pelk_no_cancel whole;
  dns_ctx *ctx = context_new(from != nullptr ? from->io : system_io());
  if (ctx == nullptr) return nullptr;
  Address servers[kServersMax];
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
      servers[0] = loopback(Family::ipv4, static_cast<uint16_t>(ctx->options.port));
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
  // The system hands out so large a block cleared and unmapped, so what is never used takes no memory.
  if (ctx->buffers == nullptr) ctx->buffers = static_cast<Buffers *>(calloc(1, sizeof(Buffers)));
  if (ctx->buffers == nullptr || !ctx->index.ready()) return DNS_E_NOMEM;
  if (ctx->sockets.open() != 0) return DNS_E_FAIL;
  ctx->opened = true;
  return DNS_E_NOERROR;
}

void dns_close(dns_ctx *ctx) {
  if (ctx == nullptr || !ctx->opened) return;
  const pelk_no_cancel whole;
  // What has been sent is in the index, what pauses among the timers. Dropping a leader may move a query that was
  // coalesced with it to `sending`.
  while (ctx->active > 0) {
    ctx->server_table.each([ctx](Server *server) { unpark(ctx, server); });
    for (base::Link *list : {&ctx->resolving, &ctx->queued, &ctx->sending, &ctx->tcp_waiting})
      while (!list->alone())
        drop(static_cast<dns_query *>(list->next));
    ctx->index.drain(drop);
    while (base::Timer *timer = ctx->timers.any())
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
