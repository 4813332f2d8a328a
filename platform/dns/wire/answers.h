// answers.h - the walk over the records of one name in an answer section.
#ifndef DNS_WIRE_ANSWERS_H
#define DNS_WIRE_ANSWERS_H

#include <span>

#include <cursor.h>
#include <record.h>

namespace dns {

// Answers walks an answer section and stops at the records of one name and class. It ends with the header's count or
// with the packet, whichever is first. An owner that is a pointer to the question's name is compared without being
// read, and the question's name is only read where its bytes are not those of the name that is looked for.
class Answers {
 public:
  Answers(std::span<const uint8_t> packet, size_t answers_at, unsigned count, dns_class cls);

  // set_name says whose records next stops at, from here on; `dn`, a whole DN, stays the caller's and must not change
  // meanwhile.
  void set_name(std::span<const uint8_t> dn);

  // next reads the next record of the name; its `owner` is not filled in. 1, 0 behind the last one, DNS_E_PROTOCOL.
  [[nodiscard]] int next(Record *record);

  [[nodiscard]] std::span<const uint8_t> packet() const { return reader_.packet(); }

 private:
  [[nodiscard]] bool owner_is_ours(Record *record, bool *ours);
  [[nodiscard]] bool is_question(std::span<const uint8_t> dn) const;

  Reader reader_;
  unsigned left_;
  dns_class cls_;
  const uint8_t *name_ = nullptr;
  bool at_question_ = false;  // the name looked for is the question's
};

}  // namespace dns

#endif  // DNS_WIRE_ANSWERS_H
