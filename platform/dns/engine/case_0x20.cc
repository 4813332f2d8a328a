// case_0x20.cc - see case_0x20.h.
#include "case_0x20.h"

#include <algorithm>

#include <letter_case.h>

#include "arrival.h"
#include "attempt.h"
#include "context.h"
#include "places.h"

namespace dns {

void set_case(dns_query *q, std::span<uint8_t> name) {
  const uint32_t place = bit(q->attempt.server);
  const bool lower = present_server(q)->lower_until_us > q->ctx->now_us;
  apply_case(name, lower ? kLowerCase : q->attempt.case_bits);
  q->attempt.lowered = lower ? q->attempt.lowered | place : q->attempt.lowered & ~place;
}

bool take_other_case(dns_query *q, unsigned place, const Arrival &arrival) {
  Server *server = servers_of(q)[place];
  const int64_t now_us = q->ctx->now_us;
  // Over TCP no forger answers: the server itself changes the case.
  if (!arrival.by_udp()) {
    server->letters_kept = 0;
    server->lower_until_us = now_us + kLowerUs;
    return true;
  }
  // By UDP the answer may be forged. From a server that is known to keep the case it is forged, and the query waits for
  // the true one. Otherwise the query goes over TCP to find out.
  if (!is_present(q, place)) return false;
  q->attempt.doubt = Doubt::letter_case;
  if (server->other_case_us == 0) server->other_case_us = now_us;
  // After minutes of such answers alone, another machine may have replaced the server.
  if (now_us - server->other_case_us >= kOtherCaseUs) server->letters_kept = 0;
  if (!server->keeps_case()) ask_over_tcp(q);
  return false;
}

void count_letters(const dns_query *q, Server *server) {
  const auto is_letter = [](uint8_t byte) {
    const unsigned lower = byte | 0x20U;
    return lower >= 'a' && lower <= 'z';
  };
  const uint8_t *name = q->question.ask;
  const auto letters = static_cast<unsigned>(std::count_if(name, name + q->ask_size, is_letter));
  server->letters_kept = static_cast<uint8_t>(std::min(server->letters_kept + letters, kLettersKnown));
}

bool doubts_case(const dns_query *q) {
  return q->attempt.doubt == Doubt::letter_case && !present_server(q)->keeps_case();
}

void note_no_tcp(const dns_query *q) {
  Server *server = present_server(q);
  server->lower_until_us = q->ctx->now_us + kLowerUs;
  server->letters_kept = 0;  // the letters that were kept were kept by chance
}

}  // namespace dns
