// kavo_event_pipe.h - the pipe through which any thread wakes the server thread.
//
// The read end does not block. A forked child that opens the context makes a pipe of its own. Opening and closing need
// a context at rest; everything else is for any thread.
#ifndef KAVO_EVENT_PIPE_H
#define KAVO_EVENT_PIPE_H

#include <stdint.h>

#include <atomic>

struct kavo_event_pipe {
  int read_end = -1;
  int write_end = -1;
  uint64_t process = 0;            // the process that made the pipe
  std::atomic<uint64_t> wake = 0;  // bit 0: a byte is in the pipe; the rest counts how often the server has emptied it
};

// kavo_event_pipe_open gives this process a fresh pipe in the place of any other; false, with errno set, without one.
[[nodiscard]] bool kavo_event_pipe_open(kavo_event_pipe *pipe);
void kavo_event_pipe_close(kavo_event_pipe *pipe);
// kavo_event_pipe_hang_up closes the write end: the server thread wakes for the pipe's end.
void kavo_event_pipe_hang_up(kavo_event_pipe *pipe);

// kavo_event_pipe_send writes a byte; false, with errno set, when it cannot.
[[nodiscard]] bool kavo_event_pipe_send(const kavo_event_pipe *pipe);

// kavo_event_pipe_wake has the server look for new nodes and at its state, with a byte only where none is in the pipe;
// false, with errno set, when it cannot.
[[nodiscard]] bool kavo_event_pipe_wake(kavo_event_pipe *pipe);

// kavo_event_pipe_drain empties the pipe, on the server thread; false when the pipe cannot be read.
[[nodiscard]] bool kavo_event_pipe_drain(kavo_event_pipe *pipe);

#endif  // KAVO_EVENT_PIPE_H
