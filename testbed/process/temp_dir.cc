#include "temp_dir.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace testbed {

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "kavo-test-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::system_error(errno, std::generic_category(), "mkdtemp");
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::write(std::string_view name, std::string_view content) const {
  std::string path = file(name);
  std::ofstream stream(path, std::ios::binary | std::ios::trunc);
  stream.write(content.data(), static_cast<std::streamsize>(content.size()));
  if (!stream.flush()) throw std::runtime_error("cannot write " + path);
  return path;
}

}  // namespace testbed
