// pelk.h - threads, locks, semaphores, deadlines, logging, processes and descriptors: the thin layer between the
// project and POSIX.
//
// Every operation returns 0 on success and an error number otherwise (PELK_TIMEDOUT when a deadline passed). Deadlines
// are absolute wall-clock moments. Mutexes carry clang's thread-safety attributes: a field marked
// PELK_GUARDED_BY(mutex) that is touched without the mutex does not compile under clang.
#ifndef PELK_H
#define PELK_H

#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/time.h>

#include <atomic>

#if defined(__clang__)
#define PELK_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define PELK_THREAD_ATTRIBUTE(x)
#endif
#define PELK_CAPABILITY(x) PELK_THREAD_ATTRIBUTE(capability(x))
#define PELK_SCOPED_CAPABILITY PELK_THREAD_ATTRIBUTE(scoped_lockable)
#define PELK_GUARDED_BY(x) PELK_THREAD_ATTRIBUTE(guarded_by(x))
#define PELK_REQUIRES(...) PELK_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define PELK_EXCLUDES(...) PELK_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define PELK_ACQUIRE(...) PELK_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define PELK_RELEASE(...) PELK_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define PELK_TRY_ACQUIRE(...) PELK_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define PELK_NO_ANALYSIS PELK_THREAD_ATTRIBUTE(no_thread_safety_analysis)

enum { PELK_OK = 0, PELK_TIMEDOUT = 12 };

// Under AddressSanitizer, of either compiler, blocks are not kept for reuse, so that it sees the use of a released one.
#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool PELK_ADDRESS_SANITIZER = true;
#elif defined(__has_feature)
inline constexpr bool PELK_ADDRESS_SANITIZER = __has_feature(address_sanitizer);
#else
inline constexpr bool PELK_ADDRESS_SANITIZER = false;
#endif

// The seconds of a valid time value lie between these two.
inline constexpr int64_t PELK_TIME_MIN = INT32_MIN;
inline constexpr int64_t PELK_TIME_MAX = INT32_MAX;

// ---- mutexes and conditions ---------------------------------------------------------------------------------------

// A mutex knows who holds it: a thread that takes one it holds gets EDEADLK, and one that releases a mutex it does not
// hold gets EPERM, so a callback that calls back where it must not is an error result and never a hang. POSIX has such
// a kind of mutex, at twice the price of the plain one.
struct PELK_CAPABILITY("mutex") pelk_mutex_t {
  pthread_mutex_t handle;
  std::atomic<const void *> owner = nullptr;  // who holds it; only the owner itself finds its own mark there
};

int pelk_mutex_init(pelk_mutex_t *mutex);
int pelk_mutex_lock(pelk_mutex_t *mutex) PELK_ACQUIRE(*mutex);
int pelk_mutex_unlock(pelk_mutex_t *mutex) PELK_RELEASE(*mutex);
int pelk_mutex_destroy(pelk_mutex_t *mutex);

// pelk_lock holds a mutex for a scope. `error` is what taking it returned; the analysis takes it for held either way,
// so a holder that can go on without the lock asks first.
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

// A condition, on the kernel's futex: a thread that wakes takes its mutex as anybody does, where that of POSIX leaves
// every such mutex marked as fought over, for a system call at its next release. Each waiter says which of 32 bits it
// waits for, so that one condition serves waiters of many kinds and need not wake them all. A wait may end without
// cause.
struct pelk_cond_t {
  std::atomic<uint32_t> wakes;    // counts them
  std::atomic<uint32_t> waiters;  // threads in a wait, which counts them before it gives up the mutex
};
inline constexpr uint32_t PELK_ALL_BITS = UINT32_MAX;

int pelk_cond_init(pelk_cond_t *cond);
// pelk_cond_wait waits for any of `bits`, which has at least one.
int pelk_cond_wait(pelk_cond_t *cond, pelk_mutex_t *mutex, uint32_t bits = PELK_ALL_BITS) PELK_REQUIRES(*mutex);
// pelk_cond_wait_deadline returns PELK_TIMEDOUT once the wall clock has reached `deadline`, at once when it lies in the
// past.
int pelk_cond_wait_deadline(pelk_cond_t *cond, pelk_mutex_t *mutex, const struct timeval *deadline,
                            uint32_t bits = PELK_ALL_BITS) PELK_REQUIRES(*mutex);
// pelk_cond_signal wakes one waiter, pelk_cond_broadcast everyone who waits for any of `bits`.
int pelk_cond_signal(pelk_cond_t *cond);
int pelk_cond_broadcast(pelk_cond_t *cond, uint32_t bits = PELK_ALL_BITS);
// pelk_cond_destroy returns EBUSY, and destroys nothing, while a thread waits.
int pelk_cond_destroy(pelk_cond_t *cond);

// ---- counting semaphores ------------------------------------------------------------------------------------------

// A semaphore of `value` permits, never more than `maximum`: a post beyond it is refused. Taking a free permit and
// giving one back takes the mutex only when there is somebody to wait or to wake. Its life is cut into epochs: a wait
// that belongs to one ends with it.
struct pelk_sem_t {
  pelk_mutex_t mutex;
  pelk_cond_t nonzero;
  std::atomic<unsigned> value;
  std::atomic<unsigned> waiters;  // changed with the mutex held
  std::atomic<uint32_t> epoch;    // changed with the mutex held
  unsigned maximum;
};

int pelk_sem_init(pelk_sem_t *sem, unsigned value, unsigned maximum);
int pelk_sem_wait(pelk_sem_t *sem);
// pelk_sem_wait_deadline takes a free permit even when `deadline` has passed; only a wait ends with PELK_TIMEDOUT.
int pelk_sem_wait_deadline(pelk_sem_t *sem, const struct timeval *deadline);
// pelk_sem_wait_epoch does what both do (null: no deadline) as long as the semaphore's epoch is `epoch`, one that
// pelk_sem_epoch has returned before; ECANCELED, without a permit, once it is not. pelk_sem_interrupt ends the epoch.
int pelk_sem_wait_epoch(pelk_sem_t *sem, const struct timeval *deadline, uint32_t epoch);
inline uint32_t pelk_sem_epoch(const pelk_sem_t *sem) {
  return sem->epoch.load();
}
int pelk_sem_interrupt(pelk_sem_t *sem);
int pelk_sem_post(pelk_sem_t *sem);
int pelk_sem_destroy(pelk_sem_t *sem);

// ---- threads ------------------------------------------------------------------------------------------------------

using pelk_thread_t = pthread_t;
using pelk_thread_fn = void *(void *);

// pelk_thread_create starts a thread with signals blocked, so that the host's handlers never run on it, except for
// those that report a fault of the thread itself.
int pelk_thread_create(pelk_thread_t *thread, pelk_thread_fn *routine, void *argument);
int pelk_thread_join(pelk_thread_t thread);
inline bool pelk_thread_is_self(pelk_thread_t thread) {
  return pthread_equal(thread, pthread_self()) != 0;
}

// pelk_no_cancel keeps the calling thread from being cancelled (pthread_cancel) for a scope. The library is compiled
// without exceptions: a thread that ended inside would run no destructor, and keep every lock that it holds.
class pelk_no_cancel {
 public:
  pelk_no_cancel() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
  ~pelk_no_cancel() { pthread_setcancelstate(before_, nullptr); }
  pelk_no_cancel(const pelk_no_cancel &) = delete;
  pelk_no_cancel &operator=(const pelk_no_cancel &) = delete;

 private:
  int before_ = PTHREAD_CANCEL_ENABLE;
};

// ---- processes ----------------------------------------------------------------------------------------------------

// pelk_process returns this process's number, never 0: another one than that of every process that it was forked from.
// It is read from a page that the kernel clears in a forked child, hence costs no system call.
extern constinit std::atomic<std::atomic<uint64_t> *> pelk_process_number;
uint64_t pelk_process_begin();
// pelk_process_noted returns the number if pelk_process has assigned one, else 0.
inline uint64_t pelk_process_noted() {
  return pelk_process_number.load(std::memory_order_acquire)->load(std::memory_order_relaxed);
}
inline uint64_t pelk_process() {
  const uint64_t number = pelk_process_noted();
  return number != 0 ? number : pelk_process_begin();
}

// ---- descriptors --------------------------------------------------------------------------------------------------

// The descriptors of the standard streams are the host's, closed ones too: what it or the log writes to them must never
// arrive in a pipe, a socket or a file of the library's.
inline constexpr int PELK_DESCRIPTOR_MIN = 3;

// pelk_lift moves a new descriptor up to PELK_DESCRIPTOR_MIN or above, closed on exec, if it is below. Returns where it
// is now, or -1 with errno set: then it is closed. A negative one is handed back, for what open has returned.
int pelk_lift(int descriptor);

// pelk_fopen opens a file for reading, or creates or empties it for writing; its descriptor is lifted. Null with errno
// set.
enum class pelk_file_mode { read, write };
FILE *pelk_fopen(const char *path, pelk_file_mode mode);

// ---- logging ------------------------------------------------------------------------------------------------------

enum pelk_log_level {
  PELK_LOG_CRIT = 1,
  PELK_LOG_ERR = 2,
  PELK_LOG_WARNING = 3,
  PELK_LOG_INFO = 4,
  PELK_LOG_DEBUG = 5
};

// A sink receives one line without its newline; any thread may call it, several at a time. The text is valid during the
// call only.
using pelk_log_sink = void(int level, const char *line, void *udata);

// pelk_set_log_sink sends every line to `sink` from now on, in children that are forked too. A pair of sink and data
// that is new takes a few bytes for good; without memory the default is restored. Null restores the default:
// PELK_LOG_WARNING and above go to standard error, the rest is dropped before it is formatted.
void pelk_set_log_sink(pelk_log_sink *sink, void *udata);

[[gnu::format(printf, 2, 3)]] void pelk_syslog(int level, const char *format, ...);

// What the PELK_ERROR, PELK_WARN and PELK_INFO macros call. `error_number` is an errno, `code` the result that is
// returned.
[[gnu::format(printf, 6, 7)]] void pelk_log_error(const char *file, const char *function, int line, int error_number,
                                                  int code, const char *format, ...);
[[gnu::format(printf, 5, 6)]] void pelk_log_note(int level, const char *file, const char *function, int line,
                                                 const char *format, ...);

// The line is the caller's, hence macros. `file` is the source's name without its ending.
#define PELK_ERROR(file, function, error_number, code, ...) \
  pelk_log_error(file, function, __LINE__, error_number, code, __VA_ARGS__)
#define PELK_WARN(file, function, ...) pelk_log_note(PELK_LOG_WARNING, file, function, __LINE__, __VA_ARGS__)
#define PELK_INFO(file, function, ...) pelk_log_note(PELK_LOG_INFO, file, function, __LINE__, __VA_ARGS__)

// PELK_ASSERT reports an expression that is false and goes on. It is never compiled out.
#define PELK_ASSERT(expression, file)                                                                          \
  do {                                                                                                         \
    if (!(expression)) [[unlikely]]                                                                            \
      pelk_syslog(PELK_LOG_CRIT, "[assertion at %s:%s():%d] for '%s'", file, __func__, __LINE__, #expression); \
  } while (0)

#endif  // PELK_H
