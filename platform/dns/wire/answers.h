// answers.h - the walk over the records of one name in an answer section. An Answers belongs to one thread; the packet
// is untrusted.
#ifndef DNS_WIRE_ANSWERS_H
#define DNS_WIRE_ANSWERS_H

#include <span>

#include <cursor.h>
#include <dns_wire.h>
#include <record.h>

namespace dns {

// Answers walks an answer section and stops at the records of one name and class. It reads `count` records at most. An
// owner that is a pointer to the question's name is compared without being read.
class Answers {
 public:
  Answers(std::span<const uint8_t> packet, size_t answers_at, unsigned count, dns_class cls);

  // set_name sets the owner whose records next returns from here on. `dn` is a whole DN; the caller keeps it,
  // unchanged.
  void set_name(std::span<const uint8_t> dn);

  // next reads the next record of the name; its `owner` is not filled in. 1, 0 after the last one, DNS_E_PROTOCOL.
  [[nodiscard]] int next(Record *record);

  [[nodiscard]] std::span<const uint8_t> packet() const { return reader_.packet(); }

 private:
  [[nodiscard]] bool owner_is_ours(Record *record, bool *ours);
  [[nodiscard]] bool is_question(std::span<const uint8_t> dn) const;

  Reader reader_;
  unsigned left_;
  dns_class cls_;
  const uint8_t *name_ = nullptr;
  bool at_question_ = false;  // the name of set_name is the question's
};

inline Answers::Answers(std::span<const uint8_t> packet, size_t answers_at, unsigned count, dns_class cls)
    : reader_(packet, answers_at), left_(count), cls_(cls) {}

inline void Answers::set_name(std::span<const uint8_t> dn) {
  name_ = dn.data();
  at_question_ = is_question(dn);
}

// is_question tells whether `dn` is the name in the question section. Equal bytes are compared first, as they need no
// parsing.
inline bool Answers::is_question(std::span<const uint8_t> dn) const {
  uint8_t question[DNS_MAXDN];
  Reader reader(packet(), DNS_HSIZE);
  return reader.passes(dn) || (reader.name(question) && dns_dnequal(question, dn.data()) != 0);
}

inline int Answers::next(Record *record) {
  while (left_ > 0) {
    --left_;
    bool ours = false;
    if (!owner_is_ours(record, &ours) || !read_body(&reader_, record)) return DNS_E_PROTOCOL;
    if (ours && (cls_ == DNS_C_ANY || record->cls == cls_)) return 1;
  }
  return 0;
}

inline bool Answers::owner_is_ours(Record *record, bool *ours) {
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

#endif  // DNS_WIRE_ANSWERS_H
