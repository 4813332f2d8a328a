// attempt.h - from one attempt of a query to the next: which comes after one that failed.
#ifndef DNS_ENGINE_ATTEMPT_H
#define DNS_ENGINE_ATTEMPT_H

#include "context.h"

namespace dns {

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

}  // namespace dns

#endif  // DNS_ENGINE_ATTEMPT_H
