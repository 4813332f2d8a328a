// temper.h - what the servers of the simulated world answer: the truth, and ways to get it wrong.
#ifndef KAVO_TESTBED_TEMPER_H
#define KAVO_TESTBED_TEMPER_H

#include <netinet/in.h>
#include <packet.h>

#include <cstdint>

namespace sim {

using testbed::Bytes;

// How a server answers a query.
enum class Temper {
  good,
  dead,
  absent,  // no socket there, and its host sends ICMP errors
  refuses,
  fails,
  truncates,
  refuses_tcp,
  knows_no_opt,
  lowers_case,         // and has no TCP
  lowers_case_by_tcp,  // there too
  bakes_cookies,       // BADCOOKIE to a query without its cookie
  garbles,
  wrong_name,
  wrong_id,
  wrong_type,
  request,
  chains,
  loops,
  refers
};

// The truth about a name, as every honest server tells it: names are "listed-N", "gone-N" or "empty-N" under any zone.
// In cost.test a server's last octet N, or last nibble, costs 127.0.N.N.
struct Truth {
  dns_status status;
  in_addr_t address;  // host byte order
};
Truth truth_of(const uint8_t *dn);

// answer_to builds what a server of some temper sends back; empty for silence.
Bytes answer_to(const Bytes &query, Temper temper, bool by_tcp = false);

}  // namespace sim

#endif  // KAVO_TESTBED_TEMPER_H
