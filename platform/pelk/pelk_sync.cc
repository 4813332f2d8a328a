// pelk_sync.cc - mutexes and counting semaphores on POSIX threads, conditions on the kernel's futex.
//
// Any thread may call anything here. Conditions wait by CLOCK_REALTIME, the clock that deadlines are made from.
#include <errno.h>
#include <limits.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "pelk_sync.h"

namespace {

constexpr int64_t kUsecPerSec = 1000000;
constexpr int64_t kNsecPerUsec = 1000;
constexpr int64_t kNsecPerSec = kUsecPerSec * kNsecPerUsec;

// The earliest and the latest moment that a wait takes. The kernel counts moments in nanoseconds of 64 bits, which end
// in the year 2262.
constexpr timespec kLongAgo = {0, 0};
constexpr timespec kFarAhead = {INT64_MAX / kNsecPerSec - 1, 0};

// to_timespec returns `moment` as the kernel takes it. Microseconds of any size and sign are carried into the seconds;
// a moment before the epoch gives kLongAgo, one beyond the kernel's clock kFarAhead.
timespec to_timespec(const timeval &moment) {
  int64_t carry = moment.tv_usec / kUsecPerSec;
  int64_t micros = moment.tv_usec % kUsecPerSec;
  if (micros < 0) {
    micros += kUsecPerSec;
    carry -= 1;
  }
  int64_t whole = 0;
  const bool beyond = __builtin_add_overflow(int64_t{moment.tv_sec}, carry, &whole);
  if (beyond ? carry < 0 : whole < 0) return kLongAgo;
  if (beyond || whole >= kFarAhead.tv_sec) return kFarAhead;
  return {whole, micros * kNsecPerUsec};
}

// mark returns a value that no other live thread has: the address of the calling thread's control block.
const void *mark() {
  return __builtin_thread_pointer();
}

// futex_wait sleeps until a wake for one of `bits`, unless `wakes` no longer counts `seen`. 0 or an error number.
int futex_wait(std::atomic<uint32_t> *wakes, uint32_t seen, const timespec *moment, uint32_t bits) {
  constexpr int kOperation = FUTEX_WAIT_BITSET | FUTEX_PRIVATE_FLAG | FUTEX_CLOCK_REALTIME;
  if (syscall(SYS_futex, wakes, kOperation, seen, moment, nullptr, bits) == 0) return 0;
  return errno == EAGAIN || errno == EINTR ? 0 : errno;
}

int futex_wake(std::atomic<uint32_t> *wakes, int count, uint32_t bits) {
  constexpr int kOperation = FUTEX_WAKE_BITSET | FUTEX_PRIVATE_FLAG;
  return syscall(SYS_futex, wakes, kOperation, count, nullptr, nullptr, bits) >= 0 ? 0 : errno;
}

// wait sleeps on a condition with the mutex unlocked, until `moment` unless that is null. A thread that changes
// something with the mutex held finds this waiter counted; a wake that it counts before the sleep begins prevents the
// sleep. 0 or an error number. The analysis cannot follow a mutex whose unlocking and locking may fail.
int wait(pelk_cond_t *cond, pelk_mutex_t *mutex, const timespec *moment, uint32_t bits)
    PELK_REQUIRES(*mutex) PELK_NO_ANALYSIS {
  if (mutex->owner.load(std::memory_order_relaxed) != mark()) return EPERM;
  cond->waiters.fetch_add(1);
  const uint32_t seen = cond->wakes.load();
  int error = pelk_mutex_unlock(mutex);
  if (error == 0) {
    error = futex_wait(&cond->wakes, seen, moment, bits);
    const int locked = pelk_mutex_lock(mutex);
    if (locked != 0) error = locked;
  }
  cond->waiters.fetch_sub(1);
  return error == ETIMEDOUT ? PELK_TIMEDOUT : error;
}

// wake wakes up to `count` waiters for any of `bits`.
int wake(pelk_cond_t *cond, int count, uint32_t bits) {
  if (cond->waiters.load() == 0) return 0;
  cond->wakes.fetch_add(1);
  return futex_wake(&cond->wakes, count, bits);
}

// try_permit takes one permit if there is one.
bool try_permit(pelk_sem_t *sem) {
  unsigned value = sem->value.load();
  while (value > 0)
    if (sem->value.compare_exchange_weak(value, value - 1)) return true;
  return false;
}

bool is_over(const pelk_sem_t *sem, const uint32_t *epoch) {
  return epoch != nullptr && sem->epoch.load() != *epoch;
}

// wait_for_permit takes one permit. It waits at most until `deadline`, unless that is null, and as long as `epoch`
// lasts, unless that is null. 0 or an error number; a permit that came together with the timeout counts. A thread that
// returns a permit raises the value before it looks for waiters, and a waiter counts itself before it looks at the
// value: one of the two sees the other. A permit is not lost when the waiter that it woke leaves because its epoch has
// ended: the end of the epoch wakes all other waiters after the permit is there.
int wait_for_permit(pelk_sem_t *sem, const timeval *deadline, const uint32_t *epoch) {
  const pelk_lock guard(&sem->mutex);
  if (guard.error != 0) return guard.error;
  int error = 0;
  sem->waiters += 1;
  while (true) {
    if (is_over(sem, epoch)) {
      error = ECANCELED;
      break;
    }
    if (try_permit(sem)) {
      error = 0;
      break;
    }
    if (error != 0) break;
    error = deadline == nullptr ? pelk_cond_wait(&sem->nonzero, &sem->mutex)
                                : pelk_cond_wait_deadline(&sem->nonzero, &sem->mutex, deadline);
  }
  sem->waiters -= 1;
  return error;
}

int take_permit(pelk_sem_t *sem, const timeval *deadline) {
  return try_permit(sem) ? 0 : wait_for_permit(sem, deadline, nullptr);
}

}  // namespace

int pelk_mutex_init(pelk_mutex_t *mutex) {
  mutex->owner.store(nullptr, std::memory_order_relaxed);
  return pthread_mutex_init(&mutex->handle, nullptr);
}

// The analysis cannot see into POSIX. It checks the promises of the two declarations at their callers.
int pelk_mutex_lock(pelk_mutex_t *mutex) PELK_NO_ANALYSIS {
  const void *self = mark();
  if (mutex->owner.load(std::memory_order_relaxed) == self) return EDEADLK;
  const int error = pthread_mutex_lock(&mutex->handle);
  if (error == 0) mutex->owner.store(self, std::memory_order_relaxed);
  return error;
}

int pelk_mutex_unlock(pelk_mutex_t *mutex) PELK_NO_ANALYSIS {
  if (mutex->owner.load(std::memory_order_relaxed) != mark()) return EPERM;
  mutex->owner.store(nullptr, std::memory_order_relaxed);
  return pthread_mutex_unlock(&mutex->handle);
}

int pelk_mutex_destroy(pelk_mutex_t *mutex) {
  return pthread_mutex_destroy(&mutex->handle);
}

int pelk_cond_init(pelk_cond_t *cond) {
  cond->wakes = 0;
  cond->waiters = 0;
  return 0;
}

int pelk_cond_wait(pelk_cond_t *cond, pelk_mutex_t *mutex, uint32_t bits) {
  return wait(cond, mutex, nullptr, bits);
}

int pelk_cond_wait_deadline(pelk_cond_t *cond, pelk_mutex_t *mutex, const struct timeval *deadline, uint32_t bits) {
  const timespec moment = to_timespec(*deadline);
  return wait(cond, mutex, &moment, bits);
}

int pelk_cond_signal(pelk_cond_t *cond) {
  return wake(cond, 1, PELK_ALL_BITS);
}

int pelk_cond_broadcast(pelk_cond_t *cond, uint32_t bits) {
  return wake(cond, INT_MAX, bits);
}

int pelk_cond_destroy(pelk_cond_t *cond) {
  return cond->waiters.load() > 0 ? EBUSY : 0;
}

// pelk_sem_init returns EINVAL for a maximum of 0 and for more permits than the maximum.
int pelk_sem_init(pelk_sem_t *sem, unsigned value, unsigned maximum) {
  if (maximum == 0 || value > maximum) return EINVAL;
  int error = pelk_mutex_init(&sem->mutex);
  if (error != 0) return error;
  error = pelk_cond_init(&sem->nonzero);
  if (error != 0) {
    pelk_mutex_destroy(&sem->mutex);
    return error;
  }
  const pelk_lock guard(&sem->mutex);
  sem->value = value;
  sem->waiters = 0;
  sem->epoch = 0;
  sem->maximum = maximum;
  return guard.error;
}

int pelk_sem_wait(pelk_sem_t *sem) {
  return take_permit(sem, nullptr);
}

int pelk_sem_wait_deadline(pelk_sem_t *sem, const struct timeval *deadline) {
  return take_permit(sem, deadline);
}

int pelk_sem_wait_epoch(pelk_sem_t *sem, const struct timeval *deadline, uint32_t epoch) {
  return wait_for_permit(sem, deadline, &epoch);
}

int pelk_sem_interrupt(pelk_sem_t *sem) {
  const pelk_lock guard(&sem->mutex);
  if (guard.error != 0) return guard.error;
  sem->epoch += 1;
  return pelk_cond_broadcast(&sem->nonzero);
}

// pelk_sem_post returns EOVERFLOW, and changes nothing, when no permit is taken.
int pelk_sem_post(pelk_sem_t *sem) {
  unsigned value = sem->value.load();
  do {
    if (value >= sem->maximum) return EOVERFLOW;
  } while (!sem->value.compare_exchange_weak(value, value + 1));
  if (sem->waiters.load() == 0) return 0;
  const pelk_lock guard(&sem->mutex);
  return guard.error != 0 ? guard.error : pelk_cond_signal(&sem->nonzero);
}

// pelk_sem_destroy returns EBUSY, and destroys nothing, while a thread waits for a permit.
int pelk_sem_destroy(pelk_sem_t *sem) {
  {
    const pelk_lock guard(&sem->mutex);
    if (guard.error != 0) return guard.error;
    if (sem->waiters > 0) return EBUSY;
  }
  const int error = pelk_cond_destroy(&sem->nonzero);
  return error != 0 ? error : pelk_mutex_destroy(&sem->mutex);
}
