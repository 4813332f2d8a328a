// resolution_record.h - what a query remembers once an answer has sent it on.
#ifndef DNS_ENGINE_RESOLUTION_RECORD_H
#define DNS_ENGINE_RESOLUTION_RECORD_H

#include <stdint.h>

#include <cdata.h>

#include "bounds.h"

namespace dns {

struct Server;

// Resolution is what a query remembers once an answer has sent it on.
struct Resolution {
  uint8_t ask[DNS_MAXDN];
  uint8_t zone[DNS_MAXDN];    // which `servers` answer for
  uint8_t coming[DNS_MAXDN];  // the zone that was last referred to
  int32_t coming_ttl = 0;
  uint8_t targets[kTargetsMax][DNS_MAXDN];  // its servers whose addresses may still be looked up
  unsigned ntargets = 0;
  unsigned nserv = 0;  // 0: the context's servers, or the query's own
  Server *servers[kDelegatedMax];
  bool remembered = false;      // the servers are those of a cached delegation
  bool names_others = false;    // which names servers without an address too
  dns_cdata *passed = nullptr;  // the CNAMEs that were passed, under the query's own key
  CdataEnd passed_end;          // where they end in it
  int32_t ttl = INT32_MAX;      // the least of theirs
  unsigned cnames = 0;
  unsigned steps = 0;           // referrals followed, by lookups too
  unsigned lookups = 0;         // made for its sake
  unsigned depth = 0;           // of a lookup: how many queries wait for it, one for the other
  Resolution *top = nullptr;    // of a lookup: the resolution of the first of them
  dns_query *lookup = nullptr;  // that it waits for
};

}  // namespace dns

#endif  // DNS_ENGINE_RESOLUTION_RECORD_H
