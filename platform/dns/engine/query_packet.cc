// query_packet.cc - see query_packet.h.
#include "query_packet.h"

#include <message.h>

#include "case_0x20.h"
#include "context.h"
#include "edns.h"

namespace dns {

size_t build(dns_query *q, std::span<uint8_t> packet) {
  const Question &question = q->question;
  const std::span<const uint8_t> name(question.ask, q->ask_size);
  const size_t size = write_query(packet, q->attempt.id, recursive(q), name, question.typ, question.cls);
  set_case(q, packet.subspan(DNS_HSIZE, q->ask_size));
  return add_opt(q, packet, size);
}

}  // namespace dns
