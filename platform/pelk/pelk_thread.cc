// pelk_thread.cc - starting and joining threads.
//
// A thread of the library runs inside a host that may have signal handlers of any kind. New threads inherit the mask of
// the thread that creates them, so signals are blocked around the creation and the creator's mask is put back after.
// Those that a thread raises by what it does itself stay as the creator has them: a host's crash handler must see a
// fault in here as one of its own.
#include <signal.h>

#include "pelk.h"

namespace {

constexpr int kOwnFaults[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT};

}  // namespace

// pelk_thread_create returns 0 with a thread that must be joined, or an error number without one.
int pelk_thread_create(pelk_thread_t *thread, pelk_thread_fn *routine, void *argument) {
  sigset_t blocked;
  sigset_t mask_before;
  sigfillset(&blocked);
  for (const int fault : kOwnFaults)
    sigdelset(&blocked, fault);
  int error = pthread_sigmask(SIG_BLOCK, &blocked, &mask_before);
  if (error != 0) return error;
  error = pthread_create(thread, nullptr, routine, argument);
  pthread_sigmask(SIG_SETMASK, &mask_before, nullptr);
  return error;
}

int pelk_thread_join(pelk_thread_t thread) {
  return pthread_join(thread, nullptr);
}
