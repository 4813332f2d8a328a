// pelk_sync.h - mutexes, conditions and counting semaphores.
//
// Every operation returns 0 on success and an error number otherwise (PELK_TIMEDOUT when a deadline passed). Deadlines
// are moments of the wall clock. Any thread may call everything here.
#ifndef PELK_SYNC_H
#define PELK_SYNC_H

#include <pthread.h>
#include <stdint.h>
#include <sys/time.h>

#include <atomic>

#include "pelk_annotations.h"

enum { PELK_OK = 0, PELK_TIMEDOUT = 12 };

// The seconds of a valid time value are between these two.
inline constexpr int64_t PELK_TIME_MIN = INT32_MIN;
inline constexpr int64_t PELK_TIME_MAX = INT32_MAX;

// ---- mutexes and conditions ---------------------------------------------------------------------------------------

// A mutex knows its owner: a thread that locks it twice gets EDEADLK, and a thread that unlocks another's mutex gets
// EPERM. A callback that calls back where it must not thus gets an error result and never hangs. POSIX has such a kind
// of mutex at twice the price of its plain one.
struct PELK_CAPABILITY("mutex") pelk_mutex_t {
  pthread_mutex_t handle = {};
  std::atomic<const void *> owner = nullptr;  // a thread that compares it with its own mark needs no lock
};

int pelk_mutex_init(pelk_mutex_t *mutex);
int pelk_mutex_lock(pelk_mutex_t *mutex) PELK_ACQUIRE(*mutex);
int pelk_mutex_unlock(pelk_mutex_t *mutex) PELK_RELEASE(*mutex);
int pelk_mutex_destroy(pelk_mutex_t *mutex);

// pelk_lock holds a mutex for a scope. `error` is the result of locking it. The analysis takes the mutex for held
// either way, so a caller that can do without the lock checks `error` first.
class PELK_SCOPED_CAPABILITY pelk_lock {
 public:
  explicit pelk_lock(pelk_mutex_t *mutex) PELK_ACQUIRE(*mutex) : mutex_(mutex), error(pelk_mutex_lock(mutex)) {}
  ~pelk_lock() PELK_RELEASE() {
    if (error == 0) pelk_mutex_unlock(mutex_);
  }
  pelk_lock(const pelk_lock &) = delete;
  pelk_lock &operator=(const pelk_lock &) = delete;

 private:
  pelk_mutex_t *mutex_;

 public:
  const int error;
};

// A condition on the kernel's futex. A thread that wakes locks its mutex like any other thread; the condition of POSIX
// would mark the mutex as contended, which costs a system call at the next unlock. Each waiter names those of 32 bits
// that it waits for, so that one condition serves many kinds of waiters without waking them all. A wait may end without
// cause.
struct pelk_cond_t {
  std::atomic<uint32_t> wakes = 0;    // counts the wakes
  std::atomic<uint32_t> waiters = 0;  // threads in a wait, each counted before it unlocks the mutex
};
inline constexpr uint32_t PELK_ALL_BITS = UINT32_MAX;

int pelk_cond_init(pelk_cond_t *cond);
// pelk_cond_wait waits for any of `bits`, which has at least one.
int pelk_cond_wait(pelk_cond_t *cond, pelk_mutex_t *mutex, uint32_t bits = PELK_ALL_BITS) PELK_REQUIRES(*mutex);
// pelk_cond_wait_deadline returns PELK_TIMEDOUT once the wall clock has reached `deadline`, at once for a past one.
int pelk_cond_wait_deadline(pelk_cond_t *cond, pelk_mutex_t *mutex, const struct timeval *deadline,
                            uint32_t bits = PELK_ALL_BITS) PELK_REQUIRES(*mutex);
// pelk_cond_signal wakes one waiter, pelk_cond_broadcast every waiter for any of `bits`.
int pelk_cond_signal(pelk_cond_t *cond);
int pelk_cond_broadcast(pelk_cond_t *cond, uint32_t bits = PELK_ALL_BITS);
// pelk_cond_destroy returns EBUSY, and destroys nothing, while a thread waits.
int pelk_cond_destroy(pelk_cond_t *cond);

// ---- counting semaphores ------------------------------------------------------------------------------------------

// A semaphore of `value` permits, never more than `maximum`: a post beyond the maximum is refused. Taking or returning
// a permit locks the mutex only where a thread must wait or be woken. The semaphore's life is cut into epochs: a wait
// that belongs to an epoch ends with the epoch.
struct pelk_sem_t {
  pelk_mutex_t mutex = {};
  pelk_cond_t nonzero = {};
  std::atomic<unsigned> value = 0;
  std::atomic<unsigned> waiters = 0;  // changed with the mutex held
  std::atomic<uint32_t> epoch = 0;    // changed with the mutex held
  unsigned maximum = 0;
};

int pelk_sem_init(pelk_sem_t *sem, unsigned value, unsigned maximum);
int pelk_sem_wait(pelk_sem_t *sem);
// pelk_sem_wait_deadline takes a free permit even when `deadline` has passed; only a wait ends with PELK_TIMEDOUT.
int pelk_sem_wait_deadline(pelk_sem_t *sem, const struct timeval *deadline);
// pelk_sem_wait_epoch takes a permit, waiting until `deadline` (null: without one) while the semaphore's epoch is
// `epoch`, a value that pelk_sem_epoch has returned before; ECANCELED, without a permit, in another epoch.
// pelk_sem_interrupt ends the epoch.
int pelk_sem_wait_epoch(pelk_sem_t *sem, const struct timeval *deadline, uint32_t epoch);
inline uint32_t pelk_sem_epoch(const pelk_sem_t *sem) {
  return sem->epoch.load();
}
int pelk_sem_interrupt(pelk_sem_t *sem);
int pelk_sem_post(pelk_sem_t *sem);
int pelk_sem_destroy(pelk_sem_t *sem);

#endif  // PELK_SYNC_H
