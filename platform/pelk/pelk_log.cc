// pelk_log.cc - one line of text to one sink.
//
// Any thread may log and any thread may change the sink. A sink and its data are one record that is never changed and
// never released, and one pointer tells which record is in force. No lock is held while a line is written: a sink may
// take the host's own locks, log, or set another sink, and a child forked meanwhile finds no lock taken. A line that is
// being delivered while the sink changes still goes to the old sink, so a host keeps its data alive until the threads
// that log have ended. What a sink itself logs goes to standard error; sent to the sink it would never end. No thread
// is cancelled while it writes a line, whatever the sink calls.
#include <errno.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <new>
#include <span>

#include "pelk_log.h"
#include "pelk_thread.h"

namespace {

// Bytes of a line, its newline or closing zero included: room for two names in their longest printed form (1020 bytes).
// A longer line is cut and ends in kCutMark.
constexpr size_t kLineMax = 2048;
constexpr char kCutMark[] = "...";
constexpr char kUnprintable[] = "(a message that cannot be printed)";
static_assert(sizeof kUnprintable < kLineMax && sizeof kCutMark < kLineMax);

// Room for the longest text of an error number.
constexpr size_t kErrorTextMax = 128;

// sink_choice is a sink with its data.
struct sink_choice {
  pelk_log_sink *sink = nullptr;  // null: standard error
  void *udata = nullptr;
  sink_choice *next = nullptr;  // the record made before this one
};

constinit sink_choice standard_error = {};
constinit std::atomic<sink_choice *> choices = &standard_error;  // every record, the newest first
constinit std::atomic<const sink_choice *> installed_sink = &standard_error;
constinit thread_local bool inside_sink = false;

// errno_keeper keeps errno over a logging call, whose caller still needs it.
class errno_keeper {
 public:
  errno_keeper() : saved_(errno) {}
  ~errno_keeper() { errno = saved_; }
  errno_keeper(const errno_keeper &) = delete;
  errno_keeper &operator=(const errno_keeper &) = delete;

 private:
  int saved_;
};

// log_line gathers one line on the stack. It always holds a closing zero. It never holds a line break: foreign text (a
// name, a line of a file) must not be able to begin a line of its own.
class log_line {
 public:
  [[gnu::format(printf, 2, 0)]] void add(const char *format, va_list arguments) {
    const size_t room = sizeof text_ - size_;
    const int wanted = vsnprintf(text_ + size_, room, format, arguments);
    if (wanted < 0) {
      add("%s", kUnprintable);
    } else if (static_cast<size_t>(wanted) < room) {
      size_ += static_cast<size_t>(wanted);
    } else {
      size_ = sizeof text_ - 1;
      memcpy(text_ + sizeof text_ - sizeof kCutMark, kCutMark, sizeof kCutMark);
    }
  }

  [[gnu::format(printf, 2, 3)]] void add(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    add(format, arguments);
    va_end(arguments);
  }

  void deliver(const sink_choice &choice, int level) {
    flatten();
    if (choice.sink == nullptr) return write_out();
    inside_sink = true;
    choice.sink(level, text_, choice.udata);
    inside_sink = false;
  }

 private:
  void flatten() {
    constexpr unsigned char kDelete = 0x7f;
    while (size_ > 0 && text_[size_ - 1] == '\n')
      text_[--size_] = '\0';
    for (char &character : std::span(text_).first(size_)) {
      const auto value = static_cast<unsigned char>(character);
      if (value < ' ' || value == kDelete) character = ' ';
    }
  }

  // One write for each line keeps the lines of several threads and processes apart. A line that standard error does not
  // take is lost.
  void write_out() {
    text_[size_] = '\n';
    ssize_t written = -1;
    do {
      written = write(STDERR_FILENO, text_, size_ + 1);
    } while (written < 0 && errno == EINTR);
  }

  char text_[kLineMax] = "";
  size_t size_ = 0;
};

// choose_sink returns where this thread's next line goes.
const sink_choice &choose_sink() {
  return inside_sink ? standard_error : *installed_sink.load(std::memory_order_acquire);
}

// choice_of returns the record of a sink and its data, a new one where there is none; null without memory.
sink_choice *choice_of(pelk_log_sink *sink, void *udata) {
  sink_choice *last = choices.load(std::memory_order_acquire);
  for (sink_choice *choice = last; choice != nullptr; choice = choice->next)
    if (choice->sink == sink && choice->udata == udata) return choice;
  void *memory = malloc(sizeof(sink_choice));
  if (memory == nullptr) return nullptr;
  auto *fresh = new (memory) sink_choice{sink, udata, last};
  while (!choices.compare_exchange_weak(fresh->next, fresh, std::memory_order_acq_rel)) {
  }
  return fresh;
}

bool is_wanted(const sink_choice &choice, int level) {
  return choice.sink != nullptr || level <= PELK_LOG_WARNING;
}

const char *level_name(int level) {
  switch (level) {
    case PELK_LOG_CRIT:
      return "critical";
    case PELK_LOG_ERR:
      return "error";
    case PELK_LOG_WARNING:
      return "warning";
    case PELK_LOG_INFO:
      return "info";
    default:
      return "debug";
  }
}

}  // namespace

void pelk_set_log_sink(pelk_log_sink *sink, void *udata) {
  const sink_choice *choice = sink == nullptr ? nullptr : choice_of(sink, udata);
  installed_sink.store(choice == nullptr ? &standard_error : choice, std::memory_order_release);
}

void pelk_syslog(int level, const char *format, ...) {
  const errno_keeper keeper;
  const sink_choice &choice = choose_sink();
  if (!is_wanted(choice, level)) return;
  const pelk_no_cancel whole;
  log_line line;
  va_list arguments;
  va_start(arguments, format);
  line.add(format, arguments);
  va_end(arguments);
  line.deliver(choice, level);
}

// The error number and the code come before the message, where a cut cannot reach them.
void pelk_log_error(const char *file, const char *function, int line_number, int error_number, int code,
                    const char *format, ...) {
  const errno_keeper keeper;
  const sink_choice &choice = choose_sink();
  if (!is_wanted(choice, PELK_LOG_ERR)) return;
  const pelk_no_cancel whole;
  char error_text[kErrorTextMax];
  log_line line;
  line.add("[%s] %s:%s():%d errno %d (%s) code %d: ", level_name(PELK_LOG_ERR), file, function, line_number,
           error_number, strerror_r(error_number, error_text, sizeof error_text), code);
  va_list arguments;
  va_start(arguments, format);
  line.add(format, arguments);
  va_end(arguments);
  line.deliver(choice, PELK_LOG_ERR);
}

void pelk_log_note(int level, const char *file, const char *function, int line_number, const char *format, ...) {
  const errno_keeper keeper;
  const sink_choice &choice = choose_sink();
  if (!is_wanted(choice, level)) return;
  const pelk_no_cancel whole;
  log_line line;
  line.add("[%s] %s:%s():%d: ", level_name(level), file, function, line_number);
  va_list arguments;
  va_start(arguments, format);
  line.add(format, arguments);
  va_end(arguments);
  line.deliver(choice, level);
}
