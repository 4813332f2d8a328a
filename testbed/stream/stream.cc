#include "stream.h"

#include <sys/mman.h>

#include <cstdlib>

#include "check.h"

namespace testbed {

MemoryFile::MemoryFile(std::span<const uint8_t> bytes) : fd_(memfd_create("testbed", MFD_CLOEXEC)) {
  check(fd_ >= 0 && write(fd_, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()), "memory for a file");
  lseek(fd_, 0, SEEK_SET);
}

std::vector<uint8_t> MemoryFile::content() const {
  std::vector<uint8_t> bytes(static_cast<size_t>(lseek(fd_, 0, SEEK_END)));
  check(pread(fd_, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()), "a file can be read");
  return bytes;
}

Stream reading(std::span<const uint8_t> bytes) {
  static uint8_t nothing = 0;
  void *place = bytes.empty() ? &nothing : const_cast<uint8_t *>(bytes.data());
  Stream stream(fmemopen(place, std::max<size_t>(bytes.size(), 1), "r"), fclose);
  if (bytes.empty()) (void)fgetc(stream.get());
  return stream;
}

Stream reading(std::string_view text) {
  Stream stream(fmemopen(nullptr, text.size() + 1, "w+"), fclose);
  fwrite(text.data(), 1, text.size(), stream.get());
  rewind(stream.get());
  return stream;
}

std::string written(const std::function<void(FILE *)> &write) {
  char *text = nullptr;
  size_t size = 0;
  FILE *stream = open_memstream(&text, &size);
  write(stream);
  fclose(stream);
  const std::string result(text, size);
  free(text);
  return result;
}

void expect_printable(std::string_view text) {
  check(std::all_of(text.begin(), text.end(), [](char c) { return (c >= ' ' && c <= '~') || c == '\n' || c == '\t'; }),
        "a printed text holds printable characters, tabs and ends of lines only");
}

}  // namespace testbed
