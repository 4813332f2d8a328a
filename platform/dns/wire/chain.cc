// chain.cc - see chain.h.
#include <chain.h>

#include <string.h>

#include <algorithm>

#include <cursor.h>
#include <dns_wire.h>
#include <message.h>
#include <name.h>
#include <record.h>

#include "answers.h"

namespace dns {
namespace {

// Finder finds the end of a CNAME chain in one or more passes over the answer section.
class Finder {
 public:
  Finder(const Answers &answers, dns_type typ, const uint8_t *within, Chain *chain)
      : start_(answers), typ_(typ), within_(within), chain_(chain) {}

  // pass walks the section once; `moved` tells that a CNAME was followed, so that the records before it need another
  // pass. `cnames_max` bounds the CNAMEs of all passes.
  [[nodiscard]] dns_status pass(unsigned cnames_max, bool *moved) {
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
        if (chain_->cnames == cnames_max) return DNS_E_CNLOOP;
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
    ++chain_->cnames;
    chain_->ttl = std::min(chain_->ttl, record.ttl);
    return true;
  }

  const Answers start_;
  dns_type typ_;
  const uint8_t *within_;
  int32_t ttl_ = INT32_MAX;  // of the records at the end
  Chain *chain_;
};

}  // namespace

dns_status follow_chain(std::span<const uint8_t> packet, size_t answers_at, std::span<const uint8_t> dn, dns_type typ,
                        dns_class cls, unsigned cnames_max, Chain *chain, const uint8_t *within) {
  chain->cnames = chain->records = 0;
  chain->ttl = INT32_MAX;
  chain->left = false;
  if (dn.empty() || dn.size() > sizeof chain->end) return DNS_E_INVAL;
  std::copy(dn.begin(), dn.end(), chain->end);
  chain->end_size = static_cast<unsigned>(dn.size());
  if (answers_at > packet.size() || packet.size() < DNS_HSIZE) return DNS_E_PROTOCOL;
  const unsigned count = records_in(packet, DNS_S_AN);
  // A chain that takes more steps than there are records has taken one of them twice.
  const unsigned steps_max = std::min(cnames_max, count);
  Finder finder(Answers(packet, answers_at, count, cls), typ, within, chain);
  dns_status status = DNS_E_NOERROR;
  for (bool moved = true; moved && !chain->left && status == DNS_E_NOERROR;)
    status = finder.pass(steps_max, &moved);
  if (chain->left) chain->records = 0;
  chain->ttl = std::min(chain->ttl, chain->left ? INT32_MAX : finder.records_ttl());
  return status;
}

}  // namespace dns
