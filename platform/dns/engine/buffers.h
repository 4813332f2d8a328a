// buffers.h - the memory that packets and long names of queries are in.
//
// A context allocates its Buffers when its transport is first opened; names come from its pools. The thread that drives
// the context uses them alone, so nothing guards them. They hold no state from one turn of the loop to the next.
#ifndef DNS_ENGINE_BUFFERS_H
#define DNS_ENGINE_BUFFERS_H

#include <stdint.h>

#include <dns_io.h>

#include "bounds.h"
#include "query.h"

namespace dns {

// Buffers are packets on their way out and in.
struct Buffers {
  Datagram out[kBatch];
  Datagram in[kBatch];
  dns_query *leaving[kBatch];
  uint8_t queries[kBatch][kQueryRoom];
  uint8_t answers[kBatch][kAnswerRoom];
  uint8_t rebuilt[DNS_MAXPACKET];  // an answer packet put together from a cache entry
};

struct MediumName {
  uint8_t dn[kMediumName];
};
struct LongName {
  uint8_t dn[DNS_MAXDN];
};

}  // namespace dns

#endif  // DNS_ENGINE_BUFFERS_H
