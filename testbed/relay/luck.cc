#include "luck.h"

#include <algorithm>
#include <functional>
#include <random>

namespace relay {
namespace {

constexpr size_t kHeader = 12;       // bytes before the question section
constexpr size_t kTypeAndClass = 4;  // bytes after the query name
constexpr unsigned kHundred = 100;

char lower(uint8_t byte) {
  return static_cast<char>(byte >= 'A' && byte <= 'Z' ? byte + ('a' - 'A') : byte);
}

// question_of returns the bytes of the question section in lower case, because clients use 0x20; the whole packet if it
// has no whole question section.
std::string question_of(std::span<const uint8_t> packet) {
  size_t at = kHeader;
  while (at < packet.size() && packet[at] != 0)
    at += 1U + packet[at];
  const size_t end = at + 1 + kTypeAndClass;
  const auto part = end <= packet.size() ? packet.subspan(kHeader, end - kHeader) : packet;
  std::string question(part.size(), '\0');
  std::transform(part.begin(), part.end(), question.begin(), lower);
  return question;
}

}  // namespace

Fate Luck::next(Way way, std::span<const uint8_t> packet) {
  if (packets_.size() >= kQuestionsMax) packets_.clear();
  const std::string question = static_cast<char>(way) + question_of(packet);
  const uint64_t turn = packets_[question]++;
  std::mt19937_64 chance(std::hash<std::string>{}(std::to_string(seed_) + ' ' + std::to_string(turn) + question));
  const auto hits = [&chance](unsigned in_100) {
    return std::uniform_int_distribution<unsigned>(0, kHundred - 1)(chance) < in_100;
  };
  Fate fate;
  const bool lost = hits(terms_.lost_in_100), twice = hits(terms_.twice_in_100);
  if (!lost) fate.copies = twice ? 2 : 1;
  const auto jitter = terms_.jitter.count();
  for (auto &delay : fate.delays)
    delay = std::max(terms_.delay + std::chrono::microseconds(std::uniform_int_distribution(-jitter, jitter)(chance)),
                     std::chrono::microseconds::zero());
  return fate;
}

}  // namespace relay
