// case_0x20.h - 0x20: the letters of a query's name leave in random case, which its answer must bring back; and what is
// done with servers that do not keep it.
#ifndef DNS_ENGINE_CASE_0X20_H
#define DNS_ENGINE_CASE_0X20_H

#include <stdint.h>

#include <span>

#include <dns_engine.h>

#include "arrival.h"
#include "context.h"

namespace dns {

// set_case gives the name in a query to its present server the case that it is sent in, and notes lower case.
void set_case(dns_query *q, std::span<uint8_t> name);

// take_other_case deals with an answer of the server at `place` that is right but for the case of its question's
// letters. True when it counts. note_case counts the letters that have come back as they were sent.
[[nodiscard]] bool take_other_case(dns_query *q, unsigned place, const Arrival &arrival);
void count_letters(const dns_query *q, Server *server);
inline void note_case(const dns_query *q, unsigned place, const Arrival &arrival) {
  // Over TCP letters may come back as they were sent where they do not by UDP.
  if (!arrival.by_udp() || was_lowered(q, place)) return;
  Server *server = servers_of(q)[place];
  server->other_case_us = 0;
  if (!server->keeps_case()) count_letters(q, server);
}

// doubts_case tells whether TCP was to tell whether the present server keeps the case, and note_no_tcp that the server
// has none: one that was never seen to keep the case is then taken for one that does not, and asked in lower case.
[[nodiscard]] bool doubts_case(const dns_query *q);
void note_no_tcp(const dns_query *q);

}  // namespace dns

#endif  // DNS_ENGINE_CASE_0X20_H
