// timer_wheel.cc - see timer_wheel.h.
#include <timer_wheel.h>

#include <bit>

namespace base {
namespace {

unsigned slot_of(int64_t tick) {
  return static_cast<unsigned>(tick & (TimerWheel::kSlots - 1));
}

}  // namespace

void TimerWheel::add(Timer *timer, int64_t deadline_us) {
  const int64_t tick = (deadline_us + kTickUs - 1) / kTickUs;
  timer->tick = tick > hand_ ? tick : hand_ + 1;
  const unsigned slot = slot_of(timer->tick);
  slots_[slot].append(timer);
  used_[slot / kWordBits] |= uint64_t{1} << (slot % kWordBits);
}

void TimerWheel::remove(Timer *timer) {
  timer->unlink();
  const unsigned slot = slot_of(timer->tick);
  if (slots_[slot].alone()) used_[slot / kWordBits] &= ~(uint64_t{1} << (slot % kWordBits));
}

void TimerWheel::expire(int64_t now_us, Link *due) {
  const int64_t tick = now_us / kTickUs;
  if (tick <= hand_) return;
  // More than a lap has passed: every slot is looked at once.
  int64_t at = tick - hand_ >= kSlots ? tick - kSlots : hand_;
  hand_ = tick;
  while (at < tick) {
    const unsigned slot = slot_of(at + 1);
    const unsigned skip = (next_used(slot) - slot) & (kSlots - 1);
    at += 1 + skip;
    if (at > tick || slots_[slot_of(at)].alone()) break;
    expire_slot(slot_of(at), tick, due);
  }
}

void TimerWheel::expire_slot(unsigned slot, int64_t tick, Link *due) {
  Link *head = &slots_[slot];
  for (Link *link = head->next; link != head;) {
    auto *timer = static_cast<Timer *>(link);
    link = link->next;
    if (timer->tick <= tick) due->append(timer);
  }
  if (head->alone()) used_[slot / kWordBits] &= ~(uint64_t{1} << (slot % kWordBits));
}

Timer *TimerWheel::any() {
  Link *head = &slots_[next_used(0)];
  return head->alone() ? nullptr : static_cast<Timer *>(head->next);
}

int64_t TimerWheel::next_us() const {
  const unsigned from = slot_of(hand_ + 1);
  const unsigned slot = next_used(from);
  if (slots_[slot].alone()) return kNever;
  return (hand_ + 1 + ((slot - from) & (kSlots - 1))) * kTickUs;
}

// next_used returns the first slot at or after `from`, going round, that holds a timer; `from` itself when none does.
unsigned TimerWheel::next_used(unsigned from) const {
  const unsigned first = from / kWordBits;
  const uint64_t head = used_[first] >> (from % kWordBits);
  if (head != 0) return from + static_cast<unsigned>(std::countr_zero(head));
  for (unsigned i = 1; i <= kSlots / kWordBits; ++i) {
    const unsigned word = (first + i) % (kSlots / kWordBits);
    if (used_[word] != 0) return word * kWordBits + static_cast<unsigned>(std::countr_zero(used_[word]));
  }
  return from;
}

}  // namespace base
