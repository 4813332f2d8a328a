// pelk_thread.h - threads: starting and joining them, and scopes in which a thread is not cancelled.
//
// Operations return 0 on success and an error number otherwise.
#ifndef PELK_THREAD_H
#define PELK_THREAD_H

#include <pthread.h>

using pelk_thread_t = pthread_t;
using pelk_thread_fn = void *(void *);

// pelk_thread_create starts a thread, which must be joined. Signals are blocked on it, so that no handler of the host
// runs there, except for those that report a fault of the thread itself.
int pelk_thread_create(pelk_thread_t *thread, pelk_thread_fn *routine, void *argument);
int pelk_thread_join(pelk_thread_t thread);
inline bool pelk_thread_is_self(pelk_thread_t thread) {
  return pthread_equal(thread, pthread_self()) != 0;
}

// pelk_no_cancel keeps the calling thread from being cancelled (pthread_cancel) for a scope. The library is compiled
// without exceptions: a thread that ended inside would run no destructor and would keep every lock that it holds.
class pelk_no_cancel {
 public:
  pelk_no_cancel() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
  ~pelk_no_cancel() { pthread_setcancelstate(before_, nullptr); }
  pelk_no_cancel(const pelk_no_cancel &) = delete;
  pelk_no_cancel &operator=(const pelk_no_cancel &) = delete;

 private:
  int before_ = PTHREAD_CANCEL_ENABLE;
};

#endif  // PELK_THREAD_H
