// log.h - what the library logs, kept for a message of the tool's own instead of written among its output.
#ifndef KAVO_TOOLS_KAVO_LOG_H
#define KAVO_TOOLS_KAVO_LOG_H

#include <mutex>
#include <string>

namespace tool {

// LogKeeper takes the whole process's log for as long as it lives; one at a time. It outlives every session that is
// opened meanwhile, as the server thread logs too.
class LogKeeper {
 public:
  LogKeeper();
  ~LogKeeper();
  LogKeeper(const LogKeeper &) = delete;
  LogKeeper &operator=(const LogKeeper &) = delete;

  // last returns the latest line; empty without one.
  std::string last();

 private:
  static void keep(int level, const char *line, void *self);

  std::mutex mutex_;
  std::string last_;  // guarded by mutex_
};

}  // namespace tool

#endif  // KAVO_TOOLS_KAVO_LOG_H
