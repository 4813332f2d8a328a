// failures.cc - see failures.h.
#include "failures.h"

#include "bounds.h"

namespace dns {

void Failures::remember(uint64_t key, int64_t now_us, dns_status status) {
  until_us_ = now_us + kFailureUs;
  cells_[key % kFailuresMax] = {key, until_us_, status};
}

dns_status Failures::recall(uint64_t key, int64_t now_us) const {
  const Cell &cell = cells_[key % kFailuresMax];
  return cell.key == key && now_us < cell.until_us ? cell.status : dns_status{DNS_E_NOERROR};
}

}  // namespace dns
