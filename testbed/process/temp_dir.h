// temp_dir.h - scratch directories.
#ifndef KAVO_TESTBED_TEMP_DIR_H
#define KAVO_TESTBED_TEMP_DIR_H

#include <string>
#include <string_view>

namespace testbed {

// TempDir is a directory of the caller's own, removed with everything in it at the end.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir &) = delete;
  TempDir &operator=(const TempDir &) = delete;

  [[nodiscard]] const std::string &path() const { return path_; }
  [[nodiscard]] std::string file(std::string_view name) const { return path_ + "/" + std::string(name); }
  // write creates a file with `content` and returns its path.
  std::string write(std::string_view name, std::string_view content) const;

 private:
  std::string path_;
};

}  // namespace testbed

#endif  // KAVO_TESTBED_TEMP_DIR_H
