// negative.cc - see negative.h.
#include <negative.h>

#include <string.h>

#include <algorithm>

#include <cursor.h>
#include <message.h>
#include <name.h>
#include <record.h>

namespace dns {
namespace {

constexpr size_t kSoaNumbers = 4;  // SERIAL, REFRESH, RETRY and EXPIRE, which precede MINIMUM

// soa_ttl reads how long a SOA record allows a negative answer to be kept. False for malformed data.
bool soa_ttl(std::span<const uint8_t> packet, const Record &record, int32_t *ttl) {
  Reader data = data_reader(packet, record.data_at, record.data.size());
  uint32_t minimum = 0;
  if (!data.check_name() || !data.check_name() || !data.skip(kSoaNumbers * sizeof minimum)) return false;
  if (!data.u32(&minimum) || data.left() != 0) return false;
  *ttl = minimum <= INT32_MAX ? std::min(record.ttl, static_cast<int32_t>(minimum)) : 0;
  return true;
}

}  // namespace

dns_status read_negative(std::span<const uint8_t> packet, size_t authority_at, std::span<const uint8_t> dn,
                         NegativeAnswer *negative) {
  negative->soa = negative->stray_soa = negative->ns = false;
  negative->ttl = 0;
  negative->zone[0] = 0;
  if (dn.empty()) return DNS_E_INVAL;
  if (authority_at > packet.size() || packet.size() < DNS_HSIZE) return DNS_E_PROTOCOL;
  Reader reader(packet, authority_at);
  Record record;
  for (unsigned left = records_in(packet, DNS_S_NS); left > 0; --left) {
    if (!read_record(&reader, &record)) return DNS_E_PROTOCOL;
    const bool first_ns = record.typ == DNS_T_NS && !negative->ns;
    const bool covering = record.typ == DNS_T_SOA && covers({record.owner, record.owner_size}, dn);
    const bool first_soa = covering && !negative->soa;
    negative->stray_soa = negative->stray_soa || (record.typ == DNS_T_SOA && !covering);
    if (first_soa && !soa_ttl(packet, record, &negative->ttl)) return DNS_E_PROTOCOL;
    if (first_soa || (first_ns && !negative->soa)) memcpy(negative->zone, record.owner, record.owner_size);
    negative->ns = negative->ns || first_ns;
    negative->soa = negative->soa || first_soa;
  }
  return DNS_E_NOERROR;
}

}  // namespace dns
