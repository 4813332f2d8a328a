// kavo_event_pipe.cc - making, writing and emptying the event pipe.
//
// Any number of threads write and the server thread reads, all without a lock: the word `wake` tells a writer that a
// byte is in the pipe already.
#include "kavo_event_pipe.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>

#include <pelk_file.h>
#include <pelk_process.h>

namespace {

// The bit of `wake` that tells of a byte in the pipe.
constexpr uint64_t kInPipe = 1;

// Bytes that are read at once.
constexpr size_t kEventsAtOnce = 1024;

void close_end(int *descriptor) {
  if (*descriptor != -1) close(*descriptor);
  *descriptor = -1;
}

}  // namespace

bool kavo_event_pipe_open(kavo_event_pipe *pipe) {
  std::array<int, 2> ends = {};
  kavo_event_pipe_close(pipe);
  if (pipe2(ends.data(), O_CLOEXEC) != 0) return false;
  pipe->read_end = pelk_lift(ends[0]);
  pipe->write_end = pelk_lift(ends[1]);
  pipe->process = 0;
  if (pipe->read_end < 0 || pipe->write_end < 0) return false;
  const int flags = fcntl(pipe->read_end, F_GETFL);
  static_cast<void>(fcntl(pipe->read_end, F_SETFL, flags | O_NONBLOCK));
  pipe->process = pelk_process();
  pipe->wake.store(0);
  return true;
}

void kavo_event_pipe_close(kavo_event_pipe *pipe) {
  close_end(&pipe->read_end);
  close_end(&pipe->write_end);
}

void kavo_event_pipe_hang_up(kavo_event_pipe *pipe) {
  close_end(&pipe->write_end);
}

bool kavo_event_pipe_send(const kavo_event_pipe *pipe) {
  const uint8_t event = 0;
  long written = 0;
  do {
    // The system call itself, since write is a cancellation point.
    written = syscall(SYS_write, pipe->write_end, &event, sizeof event);
  } while (written < 0 && errno == EINTR);
  return written == sizeof event;
}

// The server empties the pipe, then advances `wake` to the next even value, then looks for new nodes with mx_table
// held.
//
// A mark is set after its byte was written, and only on the value that was there before. A caller that finds a mark
// relies on a byte that is, or was, in the pipe, whatever has become of the thread that wrote the byte. A byte that is
// still there wakes the server. If the server has taken the byte out, it has not yet advanced the word, since that
// would have removed the mark; so it has not yet looked for nodes, and will find the caller's node. A server that had
// looked earlier would have advanced the word before the caller, who took mx_table later, read it. A mark cannot be set
// once the server has advanced the word; the byte without a mark then costs one spare wake-up.
bool kavo_event_pipe_wake(kavo_event_pipe *pipe) {
  uint64_t seen = pipe->wake.load();
  if ((seen & kInPipe) != 0) return true;
  if (!kavo_event_pipe_send(pipe)) return false;
  pipe->wake.compare_exchange_strong(seen, seen | kInPipe);
  return true;
}

bool kavo_event_pipe_drain(kavo_event_pipe *pipe) {
  std::array<uint8_t, kEventsAtOnce> events;
  const bool drained = read(pipe->read_end, events.data(), events.size()) >= 0;
  pipe->wake.store((pipe->wake.load() | kInPipe) + 1);
  return drained;
}
