// places.h - what a query holds while it is on its way: its place in a list, among the queries of its server, in the
// index, on a socket or a connection.
#ifndef DNS_ENGINE_PLACES_H
#define DNS_ENGINE_PLACES_H

#include "context.h"
#include "move.h"

namespace dns {

// enqueue puts a query at the end of those that are to be sent.
inline void enqueue(dns_query *q) {
  q->attempt.sent_us = q->ctx->now_us;
  move(q, State::sending, &q->ctx->sending);
}

// prepare_for has a query, as a server is new to it, ask the server at `place`: by UDP, with EDNS0, and with nothing
// known of how that server answers.
inline void prepare_for(dns_query *q, unsigned place) {
  Attempt &attempt = q->attempt;
  attempt.server = static_cast<uint8_t>(place);
  attempt.over_tcp = attempt.plain = attempt.fresh_cookie = false;
  attempt.tcp_breaks = 0;
  attempt.doubt = Doubt::none;
}

// is_present tells whether the server at `place` is that of the present attempt, while that is waited for.
[[nodiscard]] inline bool is_present(const dns_query *q, unsigned place) {
  return q->state == State::waiting && place == q->attempt.server;
}

// give_up_place ends a query's being under way to a server, and hands its place to the next that is parked there,
// which so keeps it until it has left for another server.
void give_up_place(dns_query *q);

// leave takes a query out of its list, the timers, the index and its connection, and gives its socket back.
void leave(dns_query *q);

// has_id tells whether a query has an id under which its answers are expected, and so is in the index. give_up_slot
// takes it out, and from its sockets or connection. change_socket has its next attempt leave from another socket, under
// the same id; what comes to the first one still counts. new_id gives it an id and a letter case, under which no server
// has been asked yet; false without random bytes.
[[nodiscard]] inline bool has_id(const dns_query *q) {
  return q->attempt.slot != UdpPool::kNone || q->attempt.former_slot != UdpPool::kNone;
}
void give_up_slot(dns_query *q);
void change_socket(dns_query *q);
[[nodiscard]] bool new_id(dns_query *q);

}  // namespace dns

#endif  // DNS_ENGINE_PLACES_H
