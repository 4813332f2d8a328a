// open.h - making, opening, closing and releasing contexts.
#ifndef DNS_ENGINE_OPEN_H
#define DNS_ENGINE_OPEN_H

#include <dns_engine.h>
#include <dns_io.h>

namespace dns {

// context_new makes a context over any Io, without servers and with default options.
[[nodiscard]] dns_ctx *context_new(const Io *io);

}  // namespace dns

#endif  // DNS_ENGINE_OPEN_H
