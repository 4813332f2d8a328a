// route.cc - see route.h.
#include "route.h"

#include <errno.h>

namespace dns {
namespace {

// What an error of the system says: that it cannot send to one server, or to none of the family.
enum class Lack { nothing, of_server, of_family };

Lack lack_of(int error) {
  switch (-error) {
    case ENETUNREACH:
    case EADDRNOTAVAIL:
    case EAFNOSUPPORT:
    case ENETDOWN:
      return Lack::of_family;
    case EHOSTUNREACH:
    case EACCES:
      return Lack::of_server;
    default:
      return Lack::nothing;
  }
}

// has_answered tells whether any server of a family in the network has ever answered: the host then has routes for some
// of its addresses.
bool has_answered(dns_ctx *ctx, Family family) {
  bool any = false;
  ctx->server_table.each([&any, family](const Server *server) {
    const Address &address = server->address;
    any = any || (address.family == family && server->heard_us != 0 && reach_of(address) == Reach::network);
  });
  return any;
}

}  // namespace

void note_refusal(dns_ctx *ctx, Server *server, int error) {
  const Lack lack = lack_of(error);
  if (lack == Lack::nothing) return;
  server->cut_off_until_us = ctx->now_us + kCutOffUs;
  const Family family = server->address.family;
  if (lack == Lack::of_family && reach_of(server->address) == Reach::network && !has_answered(ctx, family))
    ctx->cut_off_until_us[static_cast<size_t>(family)] = server->cut_off_until_us;
}

}  // namespace dns
