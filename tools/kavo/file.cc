#include "file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "session.h"
#include "subject.h"

namespace tool {

File::~File() {
  if (fd_ >= 0) close(fd_);
}

File open_dump(const std::string &path) {
  File file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (file.fd() < 0) throw Usage{for_terminal(path) + ": " + std::strerror(errno)};
  struct stat info {};
  if (fstat(file.fd(), &info) != 0 || !S_ISREG(info.st_mode))
    throw Usage{for_terminal(path) + ": it is no regular file"};
  return file;
}

std::string no_dump(const std::string &path) {
  return for_terminal(path) + ": it is no cache dump, or one that was cut off or altered";
}

}  // namespace tool
