// route.h - servers to which the host has no route.
//
// A host with one address family finds out when it first sends a packet to a server of the other: the system refuses at
// once. The server, and the others of its family if none has ever answered, are then passed over for kCutOffUs wherever
// a query has another server. These functions run on the thread that drives the context, and nothing is locked.
#ifndef DNS_ENGINE_ROUTE_H
#define DNS_ENGINE_ROUTE_H

#include "context.h"

namespace dns {

// Route is what the system said of a server a moment ago: it refused to send there; or to another of the family, when
// no server of the family in the network had ever answered.
enum class Route : uint8_t { there, doubtful, none };

// is_family_cut_off tells whether the host had no route to a server of a family in the network a moment ago.
[[nodiscard]] inline bool is_family_cut_off(const dns_ctx *ctx, Family family) {
  return ctx->now_us < ctx->cut_off_until_us[static_cast<size_t>(family)];
}

[[nodiscard]] inline Route route_to(const dns_ctx *ctx, const Server *server) {
  if (ctx->now_us < server->cut_off_until_us) return Route::none;
  const bool doubtful = server->heard_us == 0 && is_family_cut_off(ctx, server->address.family) &&
                        reach_of(server->address) == Reach::network;
  return doubtful ? Route::doubtful : Route::there;
}

// note_refusal notes that the system refused to send to a server with `error`, a negated errno.
void note_refusal(dns_ctx *ctx, Server *server, int error);

}  // namespace dns

#endif  // DNS_ENGINE_ROUTE_H
