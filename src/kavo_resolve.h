// kavo_resolve.h - what subscribing, waiting and reading answers share.
//
// Everything here runs on the host's threads. Subscribing is in kavo_resolve.cc, waiting in kavo_wait.cc, answers and
// the one-call query in kavo_answer.cc; all three log as "kavo_resolve".
#ifndef KAVO_RESOLVE_H
#define KAVO_RESOLVE_H

#include <kavo.h>

#include "kavo_query_table.h"

// The source name that the three files' log lines carry.
inline constexpr char KAVO_RESOLVE_SOURCE[] = "kavo_resolve";

// What every subscription says that is refused because the context is not running.
inline constexpr char KAVO_SUBSCRIBE_STOPPED[] = "Attempt to subscribe query node when server is stopped";

// kavo_answer_iterator_t: a reader's place in a node's answers. It belongs to one thread at a time.
struct kavo_answer_iterator_t {
  KAVO_QUERY_NODE node;            // the node being read; null while the iterator is not set
  kavo_cb_arg *current;            // the next argument to look at
  kavo_query_state initial_state;  // PRESOLVED or RESOLVED, as the node was when the iterator was set; READY otherwise
  int max_zones;                   // zones that `first_answers` has room for
  unsigned char *first_answers;    // the iterator's own copy of the node's bit map of delivered answers
};

// kavo_subscribe_node_ is the core of every subscription: the checks, then the table. `flags` are taken as given, the
// internal ones included, but that a question with servers of its own is never recursive. The node is handed out with
// one hold, the caller's.
[[nodiscard]] KAVO_ERR kavo_subscribe_node_(KAVO kavo, KAVO_TYPE query_type, const unsigned char *dn,
                                            const struct sockaddr *serv, unsigned nserv, unsigned flags,
                                            const struct timeval *deadline, KAVO_QUERY_NODE *node);

#endif  // KAVO_RESOLVE_H
