#include "temper.h"

#include <dns_wire.h>

#include <algorithm>
#include <cctype>
#include <string>
#include <utility>

namespace sim {
namespace {

using testbed::dn;
using testbed::kQuestionPointer;
using testbed::Packet;
using testbed::question_end;
using testbed::u16;
using testbed::u32;
using testbed::operator+;

Bytes bare(const Bytes &query, unsigned rcode) {
  return Packet::reply(query, rcode).bytes;
}

Bytes honest(const Bytes &query) {
  const Truth truth = truth_of(query.data() + DNS_HSIZE);
  if (truth.status == DNS_E_NOERROR)
    return Packet::reply(query).add(kQuestionPointer, DNS_T_A, u32(truth.address)).bytes;
  // The root's own SOA covers every name.
  return Packet::reply(query, truth.status == DNS_E_NXDOMAIN ? DNS_R_NXDOMAIN : DNS_R_NOERROR)
      .add("", DNS_T_SOA, testbed::soa(60, dn("ns.test"), dn("admin.test")), 300, DNS_S_NS)
      .bytes;
}

// chained answers with a chain of two CNAME records that come after their targets, or point at each other.
Bytes chained(const Bytes &query, bool loop) {
  const Truth truth = truth_of(query.data() + DNS_HSIZE);
  if (truth.status != DNS_E_NOERROR && !loop) return honest(query);
  Packet packet = Packet::reply(query);
  if (!loop) packet.add("end.test", DNS_T_A, u32(truth.address));
  packet.add("middle.test", DNS_T_CNAME, dn(loop ? "end.test" : "END.test"));
  packet.add(kQuestionPointer, DNS_T_CNAME, dn("middle.test"));
  if (loop) packet.add("end.test", DNS_T_CNAME, dn("middle.test"));
  return packet.bytes;
}

// with_cookie answers with the server's cookie, and with BADCOOKIE to a query that lacks it.
Bytes with_cookie(const Bytes &query, const Bytes &answer) {
  constexpr size_t kClient = 8, kServer = 16, kOptHead = 11, kOptionHead = 4;
  const size_t at = question_end(query) + kOptHead + kOptionHead;
  if (query.size() < at + kClient) return answer;  // the client sends no cookies
  const bool knows = query.size() == at + kClient + kServer && query[at + kClient] == 'S';
  const Bytes client(query.begin() + static_cast<long>(at), query.begin() + static_cast<long>(at + kClient));
  const Bytes option = u16(10) + u16(kClient + kServer) + client + Bytes(kServer, 'S');
  // BADCOOKIE is 23: its upper bits are in the OPT record.
  Bytes packet = (knows ? answer : bare(query, 7)) + Bytes{0} + u16(DNS_T_OPT) + u16(1232) + u32(knows ? 0 : 1U << 24) +
                 u16(static_cast<unsigned>(option.size())) + option;
  packet[testbed::kAdditionalAt] = 1;
  return packet;
}

Bytes wrongly(Bytes answer, size_t byte) {
  answer.at(byte) ^= 0x21;
  return answer;
}

}  // namespace

Truth truth_of(const uint8_t *dn) {
  std::string label(reinterpret_cast<const char *>(dn) + 1, dn[0]);
  std::transform(label.begin(), label.end(), label.begin(), [](char c) { return static_cast<char>(tolower(c)); });
  const Bytes cost_zone = testbed::dn("cost.test");
  const uint8_t *zone = dn;
  for (int labels = 0; *zone != 0; ++labels, zone += 1 + *zone)
    if ((labels == 4 || labels == 32) && dns_dnequal(zone, cost_zone.data()) != 0)
      return {DNS_E_NOERROR, 0x7F000000U | static_cast<in_addr_t>(stoul(label, nullptr, labels == 4 ? 10 : 16)) * 257};
  if (label.starts_with("gone-")) return {DNS_E_NXDOMAIN, 0};
  if (label.starts_with("empty-")) return {DNS_E_NODATA, 0};
  return {DNS_E_NOERROR, 0x0A000000U | (static_cast<uint32_t>(std::hash<std::string>{}(label)) & 0xFFFFFF)};
}

Bytes answer_to(const Bytes &query, Temper temper, bool by_tcp) {
  Bytes answer = honest(query);
  switch (temper) {
    case Temper::good:
      return answer;
    case Temper::dead:
    case Temper::absent:
      return {};
    case Temper::refuses:
      return bare(query, DNS_R_REFUSED);
    case Temper::fails:
      return bare(query, DNS_R_SERVFAIL);
    case Temper::knows_no_opt:
      return query[testbed::kAdditionalAt] == 0 ? answer : bare(query, DNS_R_FORMERR);
    case Temper::lowers_case:
    case Temper::lowers_case_by_tcp:
      std::transform(answer.begin() + DNS_HSIZE, answer.begin() + static_cast<long>(question_end(query)) - 4,
                     answer.begin() + DNS_HSIZE, [](uint8_t c) { return static_cast<uint8_t>(tolower(c)); });
      return answer;
    case Temper::bakes_cookies:
      return with_cookie(query, answer);
    case Temper::truncates:
    case Temper::refuses_tcp:
      if (by_tcp) return answer;
      answer = bare(query, DNS_R_NOERROR);
      answer[testbed::kFlagsAt] |= testbed::kTc;
      return answer;
    case Temper::garbles:
      answer.erase(answer.end() - 3, answer.end());
      return answer;
    case Temper::wrong_name:
      return wrongly(answer, DNS_HSIZE + 2);
    case Temper::wrong_id:
      return wrongly(answer, 1);
    case Temper::wrong_type:
      return wrongly(answer, question_end(query) - 3);
    case Temper::request:
      answer[testbed::kFlagsAt] &= static_cast<uint8_t>(~testbed::kQr);
      return answer;
    case Temper::chains:
    case Temper::loops:
      return chained(query, temper == Temper::loops);
    case Temper::refers:
      return Packet::reply(query, DNS_R_NOERROR, false).add("test", DNS_T_NS, dn("ns.test"), 300, DNS_S_NS).bytes;
  }
  return {};
}

}  // namespace sim
