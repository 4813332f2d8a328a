// faults.h - how the list server misbehaves on request.
//
// Faults are named by words, the same ones in the zones file and on the command line. Each fault of a zone overrides
// the same fault of the whole server. All chance comes from one seeded generator, so that a run can be repeated.
#ifndef KAVO_TOOLS_LISTSERVER_FAULTS_H
#define KAVO_TOOLS_LISTSERVER_FAULTS_H

#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <string_view>

namespace listserver {

// Wrong is a kind of wrong answer.
enum class Wrong { none, id, question, address, servfail, refused, notimpl, formerr, tc, garbage, cut, loop };

struct Faults {
  std::optional<bool> dead;           // never answers
  std::optional<bool> swap_case;      // echoes the query name with the case of its letters changed
  std::optional<unsigned> drop;       // answers in 100 that are not sent
  std::optional<unsigned> duplicate;  // answers in 100 that are sent twice
  std::optional<unsigned> delay_ms;
  std::optional<unsigned> jitter_ms;   // the delay is off by up to this, either way
  std::optional<unsigned> reorder_ms;  // each answer waits for a time of its own, up to this
  std::optional<Wrong> wrong;
  std::optional<unsigned> wrong_in_100;

  // add takes one word ("drop=2", "dead" ...); throws std::runtime_error for a word that it does not know.
  void add(std::string_view word);
  // over returns these faults, with those of `base` for the ones not set.
  [[nodiscard]] Faults over(const Faults &base) const;
};

// The words and what they do, one line each, for --help.
extern const char *const kFaultsHelp;

// Chance is the random numbers of the faults.
class Chance {
 public:
  explicit Chance(uint64_t seed) : engine_(seed) {}
  [[nodiscard]] bool hits(unsigned in_100) { return in_100 != 0 && below(100) < in_100; }
  [[nodiscard]] uint64_t below(uint64_t bound) {
    return std::uniform_int_distribution<uint64_t>(0, bound - 1)(engine_);
  }

 private:
  std::mt19937_64 engine_;
};

// delay_us returns how long an answer is held back, in microseconds.
[[nodiscard]] uint64_t delay_us(const Faults &faults, Chance *chance);

}  // namespace listserver

#endif  // KAVO_TOOLS_LISTSERVER_FAULTS_H
