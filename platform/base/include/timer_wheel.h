// timer_wheel.h - a timer wheel: the deadlines of queries in flight.
//
// Adding, removing and expiring a timer takes constant time, however many there are. Time is an argument: the wheel
// reads no clock. A timer is part of its owner's record, so the wheel allocates nothing. Nothing here locks.
#ifndef DNS_ENGINE_TIMER_WHEEL_H
#define DNS_ENGINE_TIMER_WHEEL_H

#include <stdint.h>

#include <bit>

#include <list.h>

namespace base {

// Timer is what a record embeds to have a deadline.
struct Timer : Link {
  int64_t tick = 0;
};

class TimerWheel {
 public:
  static constexpr int64_t kTickUs = 1000;  // deadlines are kept to the millisecond, rounded up
  static constexpr unsigned kSlots = 4096;  // one lap is 4 s; a later deadline stays in its slot for further laps
  static constexpr int64_t kNever = INT64_MAX;

  // add files a timer under its deadline (microseconds); a deadline in the past is due at the next tick.
  void add(Timer *timer, int64_t deadline_us);
  void remove(Timer *timer);

  // expire moves every timer that is due at `now_us` to `due`, in the order of their deadlines.
  void expire(int64_t now_us, Link *due);

  // any returns one of the timers, null when there is none.
  [[nodiscard]] Timer *any();

  // each hands every timer to `use`.
  template <typename Use>
  void each(Use use) const {
    for (unsigned word = 0; word < kSlots / kWordBits; ++word)
      for (uint64_t left = used_[word]; left != 0; left &= left - 1) {
        const Link *head = &slots_[word * kWordBits + static_cast<unsigned>(std::countr_zero(left))];
        for (const Link *link = head->next; link != head; link = link->next)
          use(static_cast<const Timer *>(link));
      }
  }

  // next_us returns when expire should be called next: never later than the earliest deadline. kNever when the wheel is
  // empty.
  [[nodiscard]] int64_t next_us() const;

 private:
  static constexpr unsigned kWordBits = 64;
  [[nodiscard]] unsigned next_used(unsigned from) const;
  void expire_slot(unsigned slot, int64_t tick, Link *due);

  Link slots_[kSlots];
  uint64_t used_[kSlots / kWordBits] = {};  // a bit for each slot that holds a timer
  int64_t hand_ = 0;                        // the last tick that was expired
};

}  // namespace base

#endif  // DNS_ENGINE_TIMER_WHEEL_H
