// case_0x20.h - 0x20: queries leave with their names' letters in random case, which answers must repeat; and the
// servers that do not repeat it.
#ifndef DNS_ENGINE_CASE_0X20_H
#define DNS_ENGINE_CASE_0X20_H

#include <stdint.h>

#include <span>

#include <dns_engine.h>

#include "arrival.h"
#include "context.h"

namespace dns {

// set_case sets the letter case of the name in a query's packet to its present server, and notes when that is lower
// case.
void set_case(dns_query *q, std::span<uint8_t> name);

// take_other_case handles an answer of the server at `place` that is right except for the letter case of its question
// section; true when the answer counts. note_case counts the letters that came back in the case that they were sent in.
[[nodiscard]] bool take_other_case(dns_query *q, unsigned place, const Arrival &arrival);
void count_letters(const dns_query *q, Server *server);
inline void note_case(const dns_query *q, unsigned place, const Arrival &arrival) {
  // A server may keep the letter case over TCP and not by UDP.
  if (!arrival.by_udp() || was_lowered(q, place)) return;
  Server *server = servers_of(q)[place];
  server->other_case_us = 0;
  if (!server->keeps_case()) count_letters(q, server);
}

// doubts_case tells whether a query went over TCP to find out whether the present server keeps the case. note_no_tcp
// notes that this server has no TCP: if it was never seen to keep the case, it is from now on sent lower case.
[[nodiscard]] bool doubts_case(const dns_query *q);
void note_no_tcp(const dns_query *q);

}  // namespace dns

#endif  // DNS_ENGINE_CASE_0X20_H
