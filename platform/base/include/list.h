// list.h - intrusive doubly linked lists: a record is in exactly one at a time, and leaves it in constant time.
#ifndef DNS_ENGINE_LIST_H
#define DNS_ENGINE_LIST_H

#include <prefetch.h>

namespace base {

// Link is a record's place in a list, and a list's head. A link that is in no list points at itself.
struct Link {
  Link *prev = this;
  Link *next = this;

  Link() = default;
  Link(const Link &) = delete;
  Link &operator=(const Link &) = delete;

  [[nodiscard]] bool alone() const { return next == this; }

  void append(Link *link) {
    link->unlink();
    link->prev = prev;
    link->next = this;
    prev->next = link;
    prev = link;
  }

  void unlink() {
    prev->next = next;
    next->prev = prev;
    prev = next = this;
  }

  // take_all moves every record of `from` to this list's end, in order.
  void take_all(Link *from) {
    if (from->alone()) return;
    from->next->prev = prev;
    from->prev->next = this;
    prev->next = from->next;
    prev = from->prev;
    from->prev = from->next = from;
  }
};

// prefetch_after is for walks down a list that may be too long for the processor's caches: while the record at `link`
// is used, it prefetches the one after the next.
template <typename T>
inline void prefetch_after(const Link *link) {
  prefetch_all<T>(link->next->next);
}

}  // namespace base

#endif  // DNS_ENGINE_LIST_H
