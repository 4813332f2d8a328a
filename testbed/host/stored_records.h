// stored_records.h - records as a stream holds them, one of every layout, and the blocks that they read back as:
// what the tests of streams and of the cache store.
#ifndef KAVO_TESTBED_STORED_RECORDS_H
#define KAVO_TESTBED_STORED_RECORDS_H

#include <kavo.h>
#include <stream.h>

#include <string>
#include <utility>
#include <vector>

namespace testbed {

// Rr is a record block of the test's own.
struct Rr {
  KAVO_RR rr = {};
  Rr() = default;
  Rr(Rr &&other) noexcept : rr(std::exchange(other.rr, {})) {}
  ~Rr() { kavo_rr_free(&rr); }
  operator KAVO_RR *() { return &rr; }
};

// The parts of a record in a stream: a number, a name and a text, the latter two after their lengths.
std::string u32(uint32_t value);
std::string name(const std::string &text);
std::string text(const std::string &bytes);

inline constexpr uint32_t kTtl = 300;

// Stored is a record in a stream: what it holds in memory is `size` bytes and reads as `shows`.
struct Stored {
  KAVO_TYPE type;
  std::string bytes;
  std::string shows;
};
// stored is a record with the names c.example and q.example.
Stored stored(KAVO_TYPE type, uint32_t size, uint32_t count, const std::string &entries, const std::string &shows);
std::vector<Stored> every_layout();

// shown says what a block holds; read reads it from a stream of exactly these bytes.
std::string shown(KAVO_TYPE type, const KAVO_RR &rr);
Rr read(KAVO_TYPE type, const std::string &bytes);

}  // namespace testbed

#endif  // KAVO_TESTBED_STORED_RECORDS_H
