#include "faults.h"

#include <array>
#include <charconv>
#include <stdexcept>
#include <utility>

namespace listserver {
namespace {

constexpr unsigned kAll = 100;            // in 100
constexpr unsigned kDelayMaxMs = 600000;  // ten minutes: longer than any client waits
constexpr uint64_t kUsPerMs = 1000;

constexpr std::array<std::pair<std::string_view, Wrong>, 11> kWrongNames{{{"id", Wrong::id},
                                                                          {"question", Wrong::question},
                                                                          {"address", Wrong::address},
                                                                          {"servfail", Wrong::servfail},
                                                                          {"refused", Wrong::refused},
                                                                          {"notimpl", Wrong::notimpl},
                                                                          {"formerr", Wrong::formerr},
                                                                          {"tc", Wrong::tc},
                                                                          {"garbage", Wrong::garbage},
                                                                          {"cut", Wrong::cut},
                                                                          {"loop", Wrong::loop}}};

unsigned number(std::string_view word, std::string_view text, unsigned maximum) {
  unsigned value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value > maximum) {
    throw std::runtime_error("fault \"" + std::string(word) + "\": \"" + std::string(text) +
                             "\" is no number from 0 to " + std::to_string(maximum));
  }
  return value;
}

Wrong wrong_kind(std::string_view word, std::string_view name) {
  for (const auto &[known, kind] : kWrongNames) {
    if (known == name) return kind;
  }
  throw std::runtime_error("fault \"" + std::string(word) + "\": no kind of wrong answer \"" + std::string(name) +
                           "\"");
}

// Splits "a<mark>b"; the second part is empty without the mark.
std::pair<std::string_view, std::string_view> halves(std::string_view text, char mark) {
  const size_t at = text.find(mark);
  if (at == std::string_view::npos) return {text, {}};
  return {text.substr(0, at), text.substr(at + 1)};
}

template <typename Value>
std::optional<Value> first(const std::optional<Value> &own, const std::optional<Value> &other) {
  return own ? own : other;
}

}  // namespace

const char *const kFaultsHelp =
    "  dead             never answers\n"
    "  drop=N           N answers in 100 are not sent\n"
    "  dup=N            N answers in 100 are sent twice\n"
    "  delay=MS[~MS]    every answer waits MS milliseconds, give or take the second number\n"
    "  reorder=MS       every answer waits a time of its own, up to MS milliseconds\n"
    "  case             the query name comes back with the case of its letters changed\n"
    "  wrong=KIND[/N]   N answers in 100 (all without /N) are wrong. Kinds: id (another id), question (another\n"
    "                   name), address (an A answer outside 127.0.0.0/8), servfail, refused, notimpl, formerr,\n"
    "                   tc (truncated, the TC bit set), garbage (random bytes after the id), cut (the packet ends\n"
    "                   early), loop (a CNAME that leads back to itself)\n"
    "  none             none of the above: undoes what the whole server does\n";

void Faults::add(std::string_view word) {
  const auto [name, value] = halves(word, '=');
  if (word == "dead") {
    dead = true;
  } else if (word == "case") {
    swap_case = true;
  } else if (word == "none") {
    *this = Faults{false, false, 0, 0, 0, 0, 0, Wrong::none, 0};
  } else if (name == "drop") {
    drop = number(word, value, kAll);
  } else if (name == "dup") {
    duplicate = number(word, value, kAll);
  } else if (name == "reorder") {
    reorder_ms = number(word, value, kDelayMaxMs);
  } else if (name == "delay") {
    const auto [delay, jitter] = halves(value, '~');
    delay_ms = number(word, delay, kDelayMaxMs);
    jitter_ms = jitter.empty() ? 0 : number(word, jitter, kDelayMaxMs);
  } else if (name == "wrong") {
    const auto [kind, in_100] = halves(value, '/');
    wrong = wrong_kind(word, kind);
    wrong_in_100 = in_100.empty() ? kAll : number(word, in_100, kAll);
  } else {
    throw std::runtime_error("no fault \"" + std::string(word) + "\" is known");
  }
}

Faults Faults::over(const Faults &base) const {
  return {first(dead, base.dead),
          first(swap_case, base.swap_case),
          first(drop, base.drop),
          first(duplicate, base.duplicate),
          first(delay_ms, base.delay_ms),
          first(jitter_ms, base.jitter_ms),
          first(reorder_ms, base.reorder_ms),
          first(wrong, base.wrong),
          first(wrong_in_100, base.wrong_in_100)};
}

uint64_t delay_us(const Faults &faults, Chance *chance) {
  const uint64_t middle = faults.delay_ms.value_or(0) * kUsPerMs;
  const uint64_t jitter = faults.jitter_ms.value_or(0) * kUsPerMs;
  const uint64_t reorder = faults.reorder_ms.value_or(0) * kUsPerMs;
  uint64_t delay = middle;
  if (jitter != 0) {
    const uint64_t shifted = middle + chance->below(2 * jitter + 1);
    delay = shifted > jitter ? shifted - jitter : 0;
  }
  if (reorder != 0) delay += chance->below(reorder + 1);
  return delay;
}

}  // namespace listserver
