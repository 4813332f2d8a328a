// pelk_thread.cc - starting and joining threads.
//
// A thread of the library runs inside a host that may have signal handlers of any kind. A new thread inherits the mask
// of its creator, so the creator blocks signals around the creation and restores its mask after. Signals that a thread
// raises by its own fault keep the creator's mask: a host's crash handler must see a fault of the library too.
#include <signal.h>

#include "pelk_thread.h"

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
