// packet.h - queries and answers as bytes, for the clients that handle them themselves: the bare loop, and the answers
// that libunbound hands out unread.
#ifndef KAVO_BENCH_COMPARE_PACKET_H
#define KAVO_BENCH_COMPARE_PACKET_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace compare {

inline constexpr size_t kHeaderSize = 12;
inline constexpr size_t kPacketMax = 512;

// Names writes the names of questions, as text and into queries. It prepares once what it can, as a host that cares for
// its speed does.
class Names {
 public:
  explicit Names(unsigned zones);
  // text_of returns the name that asks about an address in a zone; it is valid until the next call.
  [[nodiscard]] const char *text_of(uint32_t address, unsigned zone);
  // put_query writes the query for the name's A record and returns its size.
  [[nodiscard]] size_t put_query(std::span<uint8_t, kPacketMax> packet, uint16_t id, uint32_t address,
                                 unsigned zone) const;

 private:
  std::string zone_texts_;  // of one length each, with their zero bytes
  std::string zone_tails_;  // of one length each: the name in wire form, type and class
  size_t text_size_, tail_size_;
  char text_[kPacketMax];
};

// Says is the content of an answer about an address.
enum class Says { nothing, listed, not_listed };

// read_answer reads an answer whose question section ends at `question_end`; an unclear packet says nothing.
[[nodiscard]] Says read_answer(std::span<const uint8_t> packet, size_t question_end);
// question_end returns the end of a packet's question section; 0 for a packet without a whole one.
[[nodiscard]] size_t question_end(std::span<const uint8_t> packet);

}  // namespace compare

#endif  // KAVO_BENCH_COMPARE_PACKET_H
