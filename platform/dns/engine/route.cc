// route.cc - see route.h.
#include "route.h"

#include <errno.h>

namespace dns {
namespace {

// lacks_route tells whether an error of the system means that the host has no route, or no address to send from.
bool lacks_route(int error) {
  return error == -ENETUNREACH || error == -EHOSTUNREACH || error == -EADDRNOTAVAIL || error == -EAFNOSUPPORT ||
         error == -ENETDOWN;
}

}  // namespace

void note_refusal(dns_ctx *ctx, Server *server, int error) {
  if (!lacks_route(error)) return;
  server->cut_off_until_us = ctx->now_us + kCutOffUs;
  // One unreachable host says nothing about the others, nor does a fault on this host or its link.
  if (error != -EHOSTUNREACH && reach_of(server->address) == Reach::network)
    ctx->cut_off_until_us[static_cast<size_t>(server->address.family)] = server->cut_off_until_us;
}

}  // namespace dns
