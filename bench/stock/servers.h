// servers.h - name servers as Debian ships them, each with the lists that the benchmarks ask about. Nothing is
// configured but the address, the port and the zones: buffers, threads and priority are what the packages and the
// system give. One exception is nsd's limit on answers a second, which is off: no burst would pass it.
#ifndef KAVO_BENCH_STOCK_SERVERS_H
#define KAVO_BENCH_STOCK_SERVERS_H

#include <name_daemons.h>

#include <memory>
#include <string>

namespace stock {

// start_server starts "rbldnsd", "nsd" or "unbound"; the latter answers from its local zones. Throws
// std::runtime_error.
[[nodiscard]] std::unique_ptr<testbed::NameDaemon> start_server(const std::string &name, unsigned zones = 1);

}  // namespace stock

#endif  // KAVO_BENCH_STOCK_SERVERS_H
