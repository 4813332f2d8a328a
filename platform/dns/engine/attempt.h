// attempt.h - from one attempt of a query to the next.
#ifndef DNS_ENGINE_ATTEMPT_H
#define DNS_ENGINE_ATTEMPT_H

#include "context.h"

namespace dns {

// ask_again moves a query to its next server and queues it for sending, or gives it up when no attempt or server is
// left. give_up begins the query anew where it can; otherwise it ends the query with the last error from a server.
void ask_again(dns_query *q);
void give_up(dns_query *q);

// ask_otherwise sends the query to the present server again at once, in the way that the attempt's fields now say;
// ask_over_tcp does so over TCP.
void ask_otherwise(dns_query *q);
inline void ask_over_tcp(dns_query *q) {
  q->attempt.over_tcp = true;
  ask_otherwise(q);
}

// not_reached is for a query whose present attempt could not leave, without a route or a socket; turned_back for one
// whose attempt came back at once, because nothing listens there. The query goes to another server at once. If there is
// none it pauses, up to kPausesMax times, as the servers may be starting; it does not wait for servers of a zone to
// which the host has no route if there are others, or none in their family. end_pause sends it again.
void not_reached(dns_query *q);
inline void turned_back(dns_query *q) {
  q->attempt.turned_back = true;
  not_reached(q);
}
void end_pause(dns_query *q);

}  // namespace dns

#endif  // DNS_ENGINE_ATTEMPT_H
