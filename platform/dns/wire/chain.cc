// chain.cc - what an answer says: where its aliases lead, and what its authority section denies. Stateless; any thread.
#include <string.h>

#include <algorithm>

#include <dns_wire.h>

#include "chain.h"
#include "wire.h"

namespace dns {
namespace {

constexpr size_t kSoaNumbers = 4;  // SERIAL, REFRESH, RETRY and EXPIRE stand before MINIMUM

// Finder looks for the end of a chain of aliases, pass by pass over the answer section.
class Finder {
 public:
  Finder(const Answers &answers, dns_type typ, const uint8_t *within, Chain *chain)
      : start_(answers), typ_(typ), within_(within), chain_(chain) {}

  // pass walks the section once; `moved` tells that an alias was followed, so that what the section holds in front of
  // it must be looked at again. `aliases_max` bounds the aliases of all passes.
  [[nodiscard]] dns_status pass(unsigned aliases_max, bool *moved) {
    Answers answers = start_;
    answers.set_name({chain_->end, chain_->end_size});
    *moved = false;
    chain_->records = 0;
    ttl_ = INT32_MAX;
    for (Record record;;) {
      const int step = answers.next(&record);
      if (step <= 0) return step;
      if (typ_ == DNS_T_ANY || record.typ == typ_) {
        ++chain_->records;
        ttl_ = std::min(ttl_, record.ttl);
      } else if (record.typ == DNS_T_CNAME) {
        if (chain_->aliases == aliases_max) return DNS_E_CNLOOP;
        if (!follow(answers, record)) return DNS_E_PROTOCOL;
        answers.set_name({chain_->end, chain_->end_size});
        *moved = true;
        chain_->left = within_ != nullptr && !covers({within_, dns_dnlen(within_)}, {chain_->end, chain_->end_size});
        if (chain_->left) return DNS_E_NOERROR;
      }
    }
  }

  [[nodiscard]] int32_t records_ttl() const { return ttl_; }

 private:
  bool follow(const Answers &answers, const Record &record) {
    Reader data = data_reader(answers.packet(), record.data_at, record.data.size());
    if (!data.name(chain_->end, &chain_->end_size) || data.left() != 0) return false;
    ++chain_->aliases;
    chain_->ttl = std::min(chain_->ttl, record.ttl);
    return true;
  }

  const Answers start_;
  dns_type typ_;
  const uint8_t *within_;
  int32_t ttl_ = INT32_MAX;  // of the records at the end
  Chain *chain_;
};

// soa_ttl reads how long a SOA record lets a denial be kept. False for malformed data.
bool soa_ttl(std::span<const uint8_t> packet, const Record &record, int32_t *ttl) {
  Reader data = data_reader(packet, record.data_at, record.data.size());
  uint32_t minimum = 0;
  if (!data.check_name() || !data.check_name() || !data.skip(kSoaNumbers * sizeof minimum)) return false;
  if (!data.u32(&minimum) || data.left() != 0) return false;
  *ttl = minimum <= INT32_MAX ? std::min(record.ttl, static_cast<int32_t>(minimum)) : 0;
  return true;
}

}  // namespace

bool covers(std::span<const uint8_t> zone, std::span<const uint8_t> dn) {
  while (dn.size() > zone.size() && dn.front() < dn.size())
    dn = dn.subspan(1U + dn.front());
  if (dn.empty() || dn.size() != zone.size()) return false;
  return memcmp(zone.data(), dn.data(), dn.size()) == 0 || dns_dnequal(zone.data(), dn.data()) != 0;
}

Answers::Answers(std::span<const uint8_t> packet, size_t answers_at, unsigned count, dns_class cls)
    : reader_(packet, answers_at), left_(count), cls_(cls) {}

void Answers::set_name(std::span<const uint8_t> dn) {
  name_ = dn.data();
  at_question_ = is_question(dn);
}

// is_question tells whether the name behind the packet's header is `dn`. The same bytes are the same name.
bool Answers::is_question(std::span<const uint8_t> dn) const {
  uint8_t question[DNS_MAXDN];
  Reader reader(packet(), DNS_HSIZE);
  return reader.passes(dn) || (reader.name(question) && dns_dnequal(question, dn.data()) != 0);
}

int Answers::next(Record *record) {
  while (left_ > 0) {
    --left_;
    bool ours = false;
    if (!owner_is_ours(record, &ours) || !read_body(&reader_, record)) return DNS_E_PROTOCOL;
    if (ours && (cls_ == DNS_C_ANY || record->cls == cls_)) return 1;
  }
  return 0;
}

bool Answers::owner_is_ours(Record *record, bool *ours) {
  uint16_t start = 0;
  Reader ahead = reader_;
  if (at_question_ && ahead.u16(&start) && start == kToQuestion) {
    reader_ = ahead;
    *ours = true;
    return true;
  }
  if (!reader_.name(record->owner)) return false;
  *ours = dns_dnequal(record->owner, name_) != 0;
  return true;
}

dns_status follow_chain(std::span<const uint8_t> packet, size_t answers_at, std::span<const uint8_t> dn, dns_type typ,
                        dns_class cls, unsigned aliases_max, Chain *chain, const uint8_t *within) {
  chain->aliases = chain->records = 0;
  chain->ttl = INT32_MAX;
  chain->left = false;
  if (dn.empty() || dn.size() > sizeof chain->end) return DNS_E_INVAL;
  std::copy(dn.begin(), dn.end(), chain->end);
  chain->end_size = static_cast<unsigned>(dn.size());
  if (answers_at > packet.size() || packet.size() < DNS_HSIZE) return DNS_E_PROTOCOL;
  const unsigned count = records_in(packet, DNS_S_AN);
  // A chain that takes more steps than there are records has taken one of them twice.
  const unsigned steps_max = std::min(aliases_max, count);
  Finder finder(Answers(packet, answers_at, count, cls), typ, within, chain);
  dns_status status = DNS_E_NOERROR;
  for (bool moved = true; moved && !chain->left && status == DNS_E_NOERROR;)
    status = finder.pass(steps_max, &moved);
  if (chain->left) chain->records = 0;
  chain->ttl = std::min(chain->ttl, chain->left ? INT32_MAX : finder.records_ttl());
  return status;
}

dns_status read_denial(std::span<const uint8_t> packet, size_t authority_at, std::span<const uint8_t> dn,
                       Denial *denial) {
  denial->soa = denial->stray_soa = denial->ns = false;
  denial->ttl = 0;
  denial->zone[0] = 0;
  if (dn.empty()) return DNS_E_INVAL;
  if (authority_at > packet.size() || packet.size() < DNS_HSIZE) return DNS_E_PROTOCOL;
  Reader reader(packet, authority_at);
  Record record;
  for (unsigned left = records_in(packet, DNS_S_NS); left > 0; --left) {
    if (!read_record(&reader, &record)) return DNS_E_PROTOCOL;
    const bool first_ns = record.typ == DNS_T_NS && !denial->ns;
    const bool covering = record.typ == DNS_T_SOA && covers({record.owner, record.owner_size}, dn);
    const bool first_soa = covering && !denial->soa;
    denial->stray_soa = denial->stray_soa || (record.typ == DNS_T_SOA && !covering);
    if (first_soa && !soa_ttl(packet, record, &denial->ttl)) return DNS_E_PROTOCOL;
    if (first_soa || (first_ns && !denial->soa)) memcpy(denial->zone, record.owner, record.owner_size);
    denial->ns = denial->ns || first_ns;
    denial->soa = denial->soa || first_soa;
  }
  return DNS_E_NOERROR;
}

}  // namespace dns
