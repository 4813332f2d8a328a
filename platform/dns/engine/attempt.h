// attempt.h - from one attempt of a query to the next: which comes after one that failed, and what a query holds while
// it is on its way.
#ifndef DNS_ENGINE_ATTEMPT_H
#define DNS_ENGINE_ATTEMPT_H

#include "query.h"

namespace dns {

// enqueue puts a query at the end of those that are to be sent.
void enqueue(dns_query *q);

// prepare_for has the next attempt go to the server at `place`: by UDP, with EDNS0, and with nothing known of how that
// server answers.
inline void prepare_for(dns_query *q, unsigned place) {
  Attempt &attempt = q->attempt;
  attempt.server = static_cast<uint8_t>(place);
  attempt.probes = attempt.over_tcp = attempt.plain = attempt.fresh_cookie = false;
  attempt.tcp_breaks = 0;
  attempt.doubt = Doubt::none;
}

// ask_again moves a query on to its next server and queues it for sending; one without a further attempt or server is
// given up: it begins anew where it can, and ends with the last error that a server answered with where it cannot.
void ask_again(dns_query *q);
void give_up(dns_query *q);

// ask_otherwise asks the present server again at once, as the attempt's fields now say; ask_over_tcp over TCP.
void ask_otherwise(dns_query *q);
inline void ask_over_tcp(dns_query *q) {
  q->attempt.over_tcp = true;
  ask_otherwise(q);
}

// not_reached moves a query on whose present attempt could not leave, for want of a route or a socket, turned_back one
// whose attempt came back at once, because nothing listens there. Another server is asked at once. Where there is none
// the query pauses, since servers may be starting, a few times within a second in all. end_pause has it asked again.
void not_reached(dns_query *q);
inline void turned_back(dns_query *q) {
  q->attempt.turned_back = true;
  not_reached(q);
}
void end_pause(dns_query *q);

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

#endif  // DNS_ENGINE_ATTEMPT_H
