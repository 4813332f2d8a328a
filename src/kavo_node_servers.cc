// kavo_node_servers.cc - a question's own servers, into a node's key and out of it.
#include "kavo_node_servers.h"

#include <string.h>

#include <algorithm>

#include <pelk_log.h>

namespace {

void assert_failed(const char *expression, int line = __builtin_LINE()) {
  pelk_syslog(PELK_LOG_CRIT, "[assertion at %s:%s():%d] for '%s'", "kavo_dns", "kavo_submit_key", line, expression);
}

}  // namespace

KAVO_ERR kavo_node_servers_pack(kavo_sa *entries, const struct sockaddr *servers, unsigned count) {
  for (unsigned i = 0; i < count; ++i) {
    struct sockaddr_in server;
    memcpy(&server, servers + i, sizeof(server));
    if (server.sin_family != AF_INET) {
      PELK_INFO("kavo_resolve", "kavo_subscribe_node_", "Only IPv4 addresses are supported in servers list for node");
      return KAVOE_BADPAR;
    }
    entries[i] = {.addr = server.sin_addr.s_addr, .port = server.sin_port, .unused = 0};
  }
  return KAVOE_OK;
}

unsigned kavo_node_servers_unpack(std::array<struct sockaddr_in, KAVO_MAX_SERV> *servers,
                                  std::span<const uint8_t> bytes) {
  if (bytes.empty()) return 0;
  if (bytes.size() % sizeof(kavo_sa) != 0)
    assert_failed("servsiz >= sizeof(kavo_sa) && servsiz % sizeof(kavo_sa) == 0");
  const size_t nserv = bytes.size() / sizeof(kavo_sa);
  if (nserv > KAVO_MAX_SERV) assert_failed("nserv <= KAVO_MAX_SERV");
  const size_t taken = std::min(nserv, servers->size());
  for (size_t i = 0; i < taken; ++i) {
    kavo_sa entry;
    memcpy(&entry, bytes.data() + i * sizeof(entry), sizeof(entry));
    struct sockaddr_in &server = (*servers)[i];
    server = {};
    server.sin_family = AF_INET;
    server.sin_port = entry.port;
    server.sin_addr.s_addr = entry.addr;
  }
  return static_cast<unsigned>(taken);
}
