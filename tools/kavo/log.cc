#include "log.h"

#include <kavo.h>

namespace tool {

LogKeeper::LogKeeper() {
  kavo_set_log_cb(keep, this);
}

LogKeeper::~LogKeeper() {
  kavo_set_log_cb(nullptr, nullptr);
}

void LogKeeper::keep(int, const char *line, void *self) {
  auto *keeper = static_cast<LogKeeper *>(self);
  const std::lock_guard guard(keeper->mutex_);
  keeper->last_ = line;
}

std::string LogKeeper::last() {
  const std::lock_guard guard(mutex_);
  return last_;
}

}  // namespace tool
