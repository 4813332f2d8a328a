// resolution_record.h - the record of a resolution, which a query has from its first CNAME target, referral or cached
// delegation on. A lookup of a server has one at once.
//
// It is data of the thread that drives the context, from the context's pool, and nothing guards it. end_resolution
// (resolving.h) releases what it holds.
#ifndef DNS_ENGINE_RESOLUTION_RECORD_H
#define DNS_ENGINE_RESOLUTION_RECORD_H

#include <stdint.h>

#include <cdata.h>

#include "bounds.h"

namespace dns {

struct Server;

// Target is a server whose addresses may have to be looked up: those of IPv4, of IPv6, or both.
struct Target {
  uint8_t dn[DNS_MAXDN];
  bool ipv4 = true;
  bool ipv6 = true;
  bool known = false;  // it has an address in one family, or was looked up in it
};

struct Resolution {
  uint8_t ask[DNS_MAXDN];
  uint8_t zone[DNS_MAXDN];    // the zone that `servers` answer for
  uint8_t coming[DNS_MAXDN];  // the zone of the last delegation
  int32_t coming_ttl = 0;
  Target targets[kTargetsMax];  // that zone's servers without glue in both families
  unsigned ntargets = 0;
  bool same_target = false;   // the last of them has no address in the family that was looked up last
  bool out_of_reach = false;  // the host has no route to the zone's servers that are known
  unsigned nserv = 0;         // 0: the context's servers, or the query's own
  Server *servers[kGlueMax];
  bool remembered = false;      // the servers are those of a cached delegation
  bool names_others = false;    // that delegation has servers without IPv4 glue too
  dns_cdata *passed = nullptr;  // the CNAMEs that were followed, under the query's own key
  CdataEnd passed_end;          // the end of those CNAMEs in `passed`
  int32_t ttl = INT32_MAX;      // the least TTL of those CNAMEs
  unsigned cnames = 0;
  unsigned steps = 0;           // referrals followed, by lookups too
  unsigned lookups = 0;         // lookups made for this query
  unsigned depth = 0;           // of a lookup: how many queries wait for it, directly or through other lookups
  Resolution *top = nullptr;    // of a lookup: the resolution of the host's query
  dns_query *lookup = nullptr;  // the lookup that it waits for
};

}  // namespace dns

#endif  // DNS_ENGINE_RESOLUTION_RECORD_H
