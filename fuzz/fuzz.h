// fuzz.h - what the fuzz targets share: a cursor over the fuzzer's bytes, files and streams in memory, the properties
// that every record block and every printed text must have.
//
// A target is deterministic: the same bytes take the same way. A property that fails ends the process, as a fault that
// a sanitizer finds does; libFuzzer then keeps the input.
#ifndef KAVO_FUZZ_FUZZ_H
#define KAVO_FUZZ_FUZZ_H

#include <kavo.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "kavo_rr.h"

namespace fuzz {

using Bytes = std::vector<uint8_t>;

inline void check(bool holds, const char *property, const char *file = __builtin_FILE(), int line = __builtin_LINE()) {
  if (holds) return;
  fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, property);
  abort();
}

// Input hands out the fuzzer's bytes; behind their end everything is 0 or empty.
class Input {
 public:
  Input(const uint8_t *data, size_t size) : left_(data, size) {}

  [[nodiscard]] bool empty() const { return left_.empty(); }
  uint8_t u8() {
    const std::span<const uint8_t> byte = bytes(1);
    return byte.empty() ? 0 : byte[0];
  }
  size_t u16() { return u8() + 256U * u8(); }
  std::span<const uint8_t> bytes(size_t most) {
    const std::span<const uint8_t> taken = left_.first(std::min(most, left_.size()));
    left_ = left_.subspan(taken.size());
    return taken;
  }
  std::span<const uint8_t> rest() { return bytes(left_.size()); }

 private:
  std::span<const uint8_t> left_;
};

// Exact is a copy of bytes in memory of exactly their size, so that a read past their end is seen.
class Exact {
 public:
  explicit Exact(std::span<const uint8_t> bytes) : memory_(new uint8_t[bytes.size()]), size_(bytes.size()) {
    std::copy(bytes.begin(), bytes.end(), memory_.get());
  }
  [[nodiscard]] const uint8_t *begin() const { return memory_.get(); }
  [[nodiscard]] const uint8_t *end() const { return memory_.get() + size_; }
  [[nodiscard]] std::span<const uint8_t> span() const { return {begin(), size_}; }

 private:
  std::unique_ptr<uint8_t[]> memory_;
  size_t size_;
};

// MemoryFile is a file without a disk, by its path and its descriptor.
class MemoryFile {
 public:
  explicit MemoryFile(std::span<const uint8_t> bytes = {}) : fd_(memfd_create("fuzz", MFD_CLOEXEC)) {
    check(fd_ >= 0 && write(fd_, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()),
          "memory for a file");
    rewind();
  }
  MemoryFile(const MemoryFile &) = delete;
  MemoryFile &operator=(const MemoryFile &) = delete;
  ~MemoryFile() { close(fd_); }

  [[nodiscard]] int fd() const { return fd_; }
  [[nodiscard]] std::string path() const { return "/proc/self/fd/" + std::to_string(fd_); }
  void rewind() const { lseek(fd_, 0, SEEK_SET); }
  [[nodiscard]] Bytes content() const {
    Bytes bytes(static_cast<size_t>(lseek(fd_, 0, SEEK_END)));
    check(pread(fd_, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()), "a file can be read");
    return bytes;
  }

 private:
  int fd_;
};

using Stream = std::unique_ptr<FILE, decltype(&fclose)>;

inline Stream reading(std::span<const uint8_t> bytes) {
  static uint8_t nothing = 0;
  void *place = bytes.empty() ? &nothing : const_cast<uint8_t *>(bytes.data());
  Stream stream(fmemopen(place, std::max<size_t>(bytes.size(), 1), "r"), fclose);
  if (bytes.empty()) (void)fgetc(stream.get());
  return stream;
}

// written returns what `write` writes to the stream that it is given.
template <typename Write>
std::string written(Write write) {
  char *text = nullptr;
  size_t size = 0;
  FILE *stream = open_memstream(&text, &size);
  write(stream);
  fclose(stream);
  const std::string result(text, size);
  free(text);
  return result;
}

// expect_printable checks that a text can be shown on a terminal and be read line by line.
inline void expect_printable(const std::string &text) {
  check(std::all_of(text.begin(), text.end(), [](char c) { return (c >= ' ' && c <= '~') || c == '\n' || c == '\t'; }),
        "a printed text holds printable characters, tabs and ends of lines only");
}

// BlockText checks that every pointer of a record block is null or leads into the block, and says what it holds, its
// TTL left out.
class BlockText {
 public:
  BlockText(KAVO_TYPE type, const KAVO_RR &rr) : rr_(rr) {
    check(rr.rr_mem->dnsm_written <= rr.rr_mem->dnsm_size, "a block's used bytes lie within it");
    const kavo_rr_layout layout = kavo_rr_layout_of(type);
    if (layout == kavo_rr_layout::pkt) {
      packet();
      return;
    }
    name(rr.rr_null->dnsn_cname);
    name(rr.rr_null->dnsn_qname);
    check(rr.rr_null->dnsn_nrr >= 0, "a count is not negative");
    entries(layout);
  }
  [[nodiscard]] const std::string &text() const { return text_; }

 private:
  void inside(const void *place, size_t size) {
    const auto at = reinterpret_cast<uintptr_t>(place) - reinterpret_cast<uintptr_t>(rr_.rr_mem);
    check(at <= rr_.rr_mem->dnsm_written && size <= rr_.rr_mem->dnsm_written - at, "what a block points to lies in it");
  }
  void raw(const void *place, size_t size) {
    if (size == 0) return;
    inside(place, size);
    text_.append(static_cast<const char *>(place), size);
    text_ += '|';
  }
  void name(const char *place) {
    if (place != nullptr) raw(place, strlen(place) + 1);
  }
  void packet() {
    check(rr_.rr_pkt->dnspkt_written >= sizeof(dns_rr_pkt), "a packet's block has a head");
    raw(rr_.rr_pkt->dnspkt_pkt, rr_.rr_pkt->dnspkt_psize);
  }
  template <typename Entry, typename Show>
  void each(const Entry *entry, Show show) {
    for (int32_t i = 0; i < rr_.rr_null->dnsn_nrr; ++i)
      show(entry[i]);
  }
  void entries(kavo_rr_layout layout) {
    const auto names = [this](const char *entry) { name(entry); };
    const auto texts = [&](const dns_txt &entry) {
      check(entry.len >= 0, "a length is not negative");
      raw(entry.txt, static_cast<size_t>(entry.len));
      if (layout == kavo_rr_layout::txt && entry.txt != nullptr) {
        inside(entry.txt + entry.len, 1);
        check(entry.txt[entry.len] == '\0', "a text is terminated");
      }
      text_ += ';';
    };
    const auto mx = [this](const dns_mx &entry) {
      text_ += std::to_string(entry.priority) + " ";
      name(entry.name);
    };
    const auto srv = [this](const dns_srv &entry) {
      text_ += std::to_string(entry.priority) + " " + std::to_string(entry.weight) + " " + std::to_string(entry.port);
      name(entry.name);
    };
    switch (layout) {
      case kavo_rr_layout::a4:
        return each(rr_.rr_a->dnsa4_addr, [this](const in_addr &entry) { raw(&entry, sizeof entry); });
      case kavo_rr_layout::a6:
        return each(rr_.rr_a6->dnsa6_addr, [this](const in6_addr &entry) { raw(&entry, sizeof entry); });
      case kavo_rr_layout::txt:
      case kavo_rr_layout::etxt:
        return each(rr_.rr_txt->dnstxt_txt, texts);
      case kavo_rr_layout::mx:
        return each(rr_.rr_mx->dnsmx_mx, mx);
      case kavo_rr_layout::srv:
        return each(rr_.rr_srv->dnssrv_srv, srv);
      case kavo_rr_layout::ptr:
      case kavo_rr_layout::cname:
      case kavo_rr_layout::ns:
        return each(rr_.rr_ptr->dnsptr_ptr, names);
      case kavo_rr_layout::pkt:
      case kavo_rr_layout::none:
        return;
    }
  }

  const KAVO_RR rr_;
  std::string text_;
};

inline std::string text_of(KAVO_TYPE type, const KAVO_RR &rr) {
  return BlockText(type, rr).text();
}

// expect_copies checks that a block can be copied, to a block that holds the same.
inline void expect_copies(KAVO_TYPE type, const KAVO_RR &rr) {
  KAVO_RR copy = {};
  check(kavo_rr_dup(type, &rr, &copy) == KAVOE_OK, "a block can be copied");
  check(text_of(type, copy) == text_of(type, rr), "a copy holds what its block holds");
  kavo_rr_free(&copy);
}

// The types of which there are blocks, one for each layout.
inline constexpr KAVO_TYPE kBlockTypes[] = {KAVOT_DNS_A,   KAVOT_DNS_AAAA,  KAVOT_DNS_TXT, KAVOT_DNS_ETXT, KAVOT_DNS_MX,
                                            KAVOT_DNS_PTR, KAVOT_DNS_CNAME, KAVOT_DNS_NS,  KAVOT_DNS_SRV,  KAVOT_PKT};

// quiet drops the library's log lines once it has looked at them.
inline void quiet() {
  kavo_set_log_cb(
      [](int, const char *line, void *) {
        check(std::none_of(line, line + strlen(line), [](char c) { return (c >= 0 && c < ' ') || c == 0x7f; }),
              "a log line holds no control characters");
      },
      nullptr);
}

}  // namespace fuzz

#endif  // KAVO_FUZZ_FUZZ_H
