// places.h - what a query holds while it is under way: a list or a timer, a place among the queries of its server, an
// entry in the index of ids, a socket or a connection.
//
// These functions run on the thread that drives the context, and nothing is locked. They neither send nor call back;
// `leave` gives all of it back before a query ends.
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

// prepare_for makes the next attempt one to the server at `place`, as to a new server: by UDP, with EDNS0, without
// doubts about its answers. Whether the attempt is a probe is the choice's business.
inline void prepare_for(dns_query *q, unsigned place) {
  Attempt &attempt = q->attempt;
  attempt.server = static_cast<uint8_t>(place);
  attempt.over_tcp = attempt.plain = attempt.fresh_cookie = false;
  attempt.tcp_breaks = 0;
  attempt.doubt = Doubt::none;
}

// is_present tells whether the query waits for an answer to its present attempt, from the server at `place`.
[[nodiscard]] inline bool is_present(const dns_query *q, unsigned place) {
  return q->state == State::waiting && place == q->attempt.server;
}

// take_place gives a query a place among those under way to its present server, if the server's window lets it leave
// now. park has it wait until then. give_up_place gives the place up. unpark moves all of a server's parked queries
// back to those that are to be sent.
[[nodiscard]] bool take_place(dns_query *q);
void park(dns_query *q);
void give_up_place(dns_query *q);
void unpark(dns_ctx *ctx, Server *server);

// release_later notes that a server may have room for parked queries. release_parked then lets them leave, once all
// that is due in this turn is parked too: those that were sent before go first. next_pace_us is when more may leave, so
// far as that hangs on time alone; base::TimerWheel::kNever if it does not.
inline void release_later(dns_ctx *ctx, Server *server) {
  if (server->has_parked()) ctx->pacing.append(server);
}
void release_parked(dns_ctx *ctx);
[[nodiscard]] int64_t next_pace_us(const dns_ctx *ctx);

// leave takes a query out of its list, the timers, the index and its connection, and gives its socket back.
void leave(dns_query *q);

// has_id tells whether a query has an id, and so is in the index. give_up_slot takes it out of the index and off its
// sockets or connection. change_socket makes its next attempt leave from another socket, under the same id; answers at
// the first socket still count. new_id gives it a fresh id and letter case; false without random bytes.
[[nodiscard]] inline bool has_id(const dns_query *q) {
  return q->attempt.slot != UdpPool::kNone || q->attempt.former_slot != UdpPool::kNone;
}
void give_up_slot(dns_query *q);
void change_socket(dns_query *q);
[[nodiscard]] bool new_id(dns_query *q);

}  // namespace dns

#endif  // DNS_ENGINE_PLACES_H
