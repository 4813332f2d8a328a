// query.h - the record of a query, from dns_submit_dn_serv to its callback.
#ifndef DNS_ENGINE_QUERY_H
#define DNS_ENGINE_QUERY_H

#include <stdint.h>

#include <dns_engine.h>
#include <list.h>
#include <timer_wheel.h>
#include <udp_pool.h>

#include "state.h"

namespace dns {

struct Resolution;
struct Server;

inline constexpr unsigned kInlineName = 40;   // names up to here are in the query's own record: an address in a list
inline constexpr unsigned kMediumName = 104;  // names up to here take a smaller block than the longest

// Doubt is the one fault of an otherwise right answer. The query then goes over TCP, where no off-path forger can
// answer, to learn whether the server really answers so.
enum class Doubt : uint8_t { none, letter_case, cookie };

// bit is the set that holds one server, by its place.
[[nodiscard]] constexpr uint32_t bit(unsigned place) {
  return 1U << place;
}

// OwnServers are the servers of a query that does not go to the context's.
struct OwnServers {
  Server *servers[DNS_MAXSERV];
  unsigned count = 0;
};

// Question is what the host asked.
struct Question {
  dns_query_fn *callback = nullptr;
  void *data = nullptr;
  dns_parse_fn *parse = nullptr;
  const uint8_t *dn = nullptr;
  const uint8_t *ask = nullptr;  // the name in queries: `dn`, or what its CNAME chain led to
  OwnServers *own = nullptr;     // null: the context's servers
  uint32_t flags = 0;
  uint16_t typ = 0;
  uint16_t cls = 0;
};

// Attempt is how the query is sent now. Sets of servers are masks of their places.
struct Attempt {
  Server *under_way = nullptr;  // the server that counts it among its queries under way by UDP
  uint64_t case_bits = 0;       // the letter case of its name as it was sent
  int64_t first_sent_us = 0;
  int64_t sent_us = 0;    // when the present attempt left, or when it was due
  uint32_t asked = 0;     // servers that were sent it under its present id, and may answer it
  uint32_t lowered = 0;   // of them those that were sent it in lower case
  uint32_t with_opt = 0;  // and those that were sent an OPT record
  uint16_t id = 0;
  int16_t slot = UdpPool::kNone;         // the socket or connection that it left from, kNone before
  int16_t former_slot = UdpPool::kNone;  // the socket that its first attempts left from, if they met with silence there
  uint16_t round = 0;                    // how often it has been to all its servers
  uint8_t place = 0;                     // its place among the queries of its connection
  uint8_t server = 0;                    // the place of the server that it goes to
  uint8_t pauses : 4 = 0;                // made because no server was reached
  bool turned_back : 1 = false;          // ICMP, or a TCP reset, has said that nothing listens there
  bool probes : 1 = false;               // it probes a server that is marked down
  bool over_tcp : 1 = false;
  bool plain : 1 = false;         // without EDNS0
  bool fresh_cookie : 1 = false;  // the server has given a new cookie for it
  uint8_t tcp_breaks : 4 = 0;     // connections that were opened or used to ask the present server
  Doubt doubt : 2 = Doubt::none;  // of an answer of the present server
};

// Progress is what the servers have answered so far, and how often the query was sent.
struct Progress {
  uint32_t refused = 0;        // servers that answered with an error, and are not sent it again
  uint32_t unreached = 0;      // where nothing listened at the last attempt
  uint32_t tried = 0;          // which it has been to in the present round
  int16_t error = 0;           // the status of the last error that a server answered with
  uint16_t attempts : 11 = 0;  // how often it was sent, without probes, and without what was lost by overload
  uint16_t overloads : 5 = 0;  // attempts that were lost so
};

}  // namespace dns

struct dns_query : base::Timer {
  dns_ctx *ctx = nullptr;
  dns_query *index_next = nullptr;   // the next query in its bucket of the index
  dns_query *leader_next = nullptr;  // the next query in its bucket of leaders
  base::Link coalesced;              // queries that share its outcome
  dns::Resolution *resolution = nullptr;
  uint64_t hash = 0;  // of its name, type and class; while `looks_ahead`, that of its key in the answer cache
  dns::Question question;
  dns::Attempt attempt;
  dns::Progress progress;
  dns::State state = dns::State::queued;
  uint8_t dn_size = 0;
  uint8_t ask_size = 0;
  uint8_t rating = 0;            // of a lookup of a server's cost: its place among them and 1, else 0
  uint8_t cache_number = 0;      // of the answer cache in which it looks ahead
  bool leads : 1 = false;        // it is in the table of leaders
  bool uncached : 1 = false;     // it neither reads nor fills the cache
  bool looks_ahead : 1 = false;  // it has yet to be looked up in the answer cache
  uint8_t inline_dn[dns::kInlineName];
};

namespace dns {

// said_opt tells whether the server at `place` was sent an OPT record, was_lowered whether it was sent lower case, so
// that it may answer in any case.
[[nodiscard]] inline bool said_opt(const dns_query *q, unsigned place) {
  return (q->attempt.with_opt & bit(place)) != 0;
}
[[nodiscard]] inline bool was_lowered(const dns_query *q, unsigned place) {
  return (q->attempt.lowered & bit(place)) != 0;
}

// was_sent tells whether a query has left at all.
[[nodiscard]] inline bool was_sent(const dns_query *q) {
  return q->progress.attempts + q->progress.overloads > 0;
}

// The keys of the tables that queries are in.
[[nodiscard]] inline uint16_t id_of(const dns_query &q) {
  return q.attempt.id;
}
[[nodiscard]] inline uint64_t hash_of(const dns_query &q) {
  return q.hash;
}

}  // namespace dns

static_assert(sizeof(dns_query) <= 256, "hosts are promised the size of an open query");

#endif  // DNS_ENGINE_QUERY_H
