// answers.cc - see answers.h.
#include "answers.h"

#include <cursor.h>
#include <dns_wire.h>
#include <record.h>

namespace dns {

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

}  // namespace dns
