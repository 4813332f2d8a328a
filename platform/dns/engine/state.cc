// state.cc - see state.h.
#include "state.h"

#include <iterator>

namespace dns {
namespace {

constexpr uint16_t set_of(State state) {
  return static_cast<uint16_t>(1U << static_cast<unsigned>(state));
}
template <typename... More>
constexpr uint16_t set_of(State first, More... more) {
  return set_of(first) | set_of(more...);
}

// A state's name, and the states that may follow.
struct Row {
  const char *name;
  uint16_t next;
};

constexpr uint16_t kEnds = set_of(State::delivering, State::cancelled);
constexpr Row kRows[] = {
    {"queued", set_of(State::coalesced, State::sending, State::resolving) | kEnds},
    {"coalesced", set_of(State::sending) | kEnds},
    {"sending", set_of(State::sending, State::parked, State::waiting, State::pausing, State::resolving) | kEnds},
    {"parked", set_of(State::sending, State::resolving) | kEnds},
    {"waiting", set_of(State::sending, State::waiting, State::pausing, State::resolving) | kEnds},
    {"pausing", set_of(State::sending, State::resolving) | kEnds},
    {"resolving", set_of(State::sending, State::resolving) | kEnds},
    {"delivering", 0},
    {"cancelled", 0},
};
static_assert(std::size(kRows) == static_cast<size_t>(State::cancelled) + 1);

const Row &row_of(State state) {
  return kRows[static_cast<unsigned>(state)];
}

}  // namespace

const char *name_of(State state) {
  return row_of(state).name;
}

bool is_legal(State from, State to) {
  return (row_of(from).next & set_of(to)) != 0;
}

}  // namespace dns
