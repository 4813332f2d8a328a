// kavo_rest.h - how a run ends, and what only a context at rest allows.
#ifndef KAVO_REST_H
#define KAVO_REST_H

#include <kavo.h>

// kavo_caller marks the calling thread, for a scope, as one that opens or closes the context or ends a run that failed.
// The scope begins before the first look at the state. The last caller to leave finds the context at rest, unless a
// thread of the context's own is left. `error` is 0, or the error number of a lock that could not be taken.
class kavo_caller {
 public:
  explicit kavo_caller(KAVO ctx);
  ~kavo_caller();
  kavo_caller(const kavo_caller &) = delete;
  kavo_caller &operator=(const kavo_caller &) = delete;

 private:
  const KAVO ctx_;

 public:
  const int error;
};

// kavo_close_transport releases the socket list and closes the engine's sockets.
void kavo_close_transport(KAVO ctx);

// kavo_reap waits for the server thread's end, unless another thread has, and ends its run: what the thread left in
// flight fails. KAVOE_SRV when called on that thread itself. kavo_reap_failed does so for a run that has failed.
[[nodiscard]] KAVO_ERR kavo_reap(KAVO ctx);
void kavo_reap_failed(KAVO ctx);

// kavo_check_at_rest is what every configuration asks first. KAVOE_OK for a context at rest: the calling thread may
// change what a server thread works with. The run of a thread that has failed is ended first. KAVOE_BADPAR for null;
// else KAVOE_SRV, with `message` in the log as a warning.
[[nodiscard]] KAVO_ERR kavo_check_at_rest(KAVO kavo, const char *source, const char *function, const char *message,
                                          int line = __builtin_LINE());

#endif  // KAVO_REST_H
