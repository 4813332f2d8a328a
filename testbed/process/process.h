// process.h - child processes and free ports.
//
// A Process is a program that a test starts, reads from and stops by its process id: never by name, and never without a
// timeout. One reader thread of its own collects what the child writes, so a child that writes much is never
// held up; everything else is called by the thread that owns the Process. A child is killed with the test program even
// when the test program itself dies.
#ifndef KAVO_TESTBED_PROCESS_H
#define KAVO_TESTBED_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace testbed {

using std::chrono::milliseconds;

inline constexpr milliseconds kStartTime{10'000};  // a program that has not said its line by then never will
inline constexpr milliseconds kRunTime{60'000};    // a program that should have ended by itself
inline constexpr milliseconds kStopTime{5'000};    // from SIGTERM to SIGKILL

// Output is what a child has written so far.
struct Output {
  std::string out;
  std::string err;
};

class Process {
 public:
  // Starts argv[0] (looked up in PATH when it holds no slash) with `input` on its standard input, in `directory` when
  // one is given. A program that cannot be started shows as an exit status of 127.
  explicit Process(std::vector<std::string> argv, std::string input = "", std::string directory = "");
  // Stops the child as stop() does.
  ~Process();
  Process(const Process &) = delete;
  Process &operator=(const Process &) = delete;

  [[nodiscard]] pid_t pid() const { return pid_; }
  [[nodiscard]] bool running();

  // wait_line waits for a line on standard output or standard error that holds `text` and returns it without its end;
  // nothing when the child ended or the time ran out without one. The two streams are searched from the beginning.
  [[nodiscard]] std::optional<std::string> wait_line(std::string_view text, milliseconds bound = kStartTime);

  // wait_exit waits for the child to end by itself and returns its exit status (128 + signal when a signal ended it),
  // all its output collected; nothing when the time ran out.
  [[nodiscard]] std::optional<int> wait_exit(milliseconds bound = kRunTime);

  void signal(int number);
  // stop sends SIGTERM, after `bound` SIGKILL, and returns the exit status as wait_exit does. A child that has ended
  // already is only reaped.
  int stop(milliseconds bound = kStopTime);

  [[nodiscard]] Output output();

 private:
  void collect(int in_fd, int out_fd, int err_fd);
  bool reap(bool block);
  std::optional<std::string> find_line(std::string_view text);

  pid_t pid_ = -1;
  bool reaped_ = false;
  int status_ = 0;
  std::string input_;
  std::thread reader_;
  std::mutex mutex_;
  std::condition_variable changed_;
  Output output_;        // guarded by mutex_
  bool closed_ = false;  // both streams have ended; guarded by mutex_
};

// run starts a program, waits for its end and returns its exit status and output; a program that does not end in time
// is killed and shows as 137.
struct Result {
  int status;
  std::string out;
  std::string err;
};
[[nodiscard]] Result run(std::vector<std::string> argv, std::string input = "", milliseconds bound = kRunTime);

// port_in returns the number that ends a line such as "listening on 127.0.0.1:5300"; 0 for a line without one.
[[nodiscard]] uint16_t port_in(std::string_view line);

// free_udp_port returns a port of 127.0.0.1 that nothing is bound to, neither UDP nor TCP; 0 when none was found.
[[nodiscard]] uint16_t free_udp_port();

}  // namespace testbed

#endif  // KAVO_TESTBED_PROCESS_H
