// connection.h - the one TCP connection to a server, with the queries that are under way on it.
#ifndef DNS_ENGINE_CONNECTION_H
#define DNS_ENGINE_CONNECTION_H

#include <stdint.h>

#include <tcp_link.h>
#include <udp_pool.h>

#include "bounds.h"

struct dns_query;

namespace dns {

struct Server;

inline constexpr int kTcpSlot = UdpPool::kSocketsMax;  // the slot of the first connection, after the sockets

struct Connection {
  struct Posted {
    dns_query *query;
    uint32_t answered;  // what `answered` of the connection was when the query was posted
  };

  TcpLink link;
  Server *server = nullptr;
  int64_t heard_us = 0;   // when something last arrived on it, or it was opened
  int64_t used_us = 0;    // when a query or an answer last went over it
  uint32_t answered = 0;  // queries that it has answered
  uint32_t posted = 0;    // queries that were ever posted on it
  unsigned count = 0;     // of those, the ones under way
  Posted under_way[kPerConnection];
};

}  // namespace dns

#endif  // DNS_ENGINE_CONNECTION_H
