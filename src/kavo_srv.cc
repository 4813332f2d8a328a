// kavo_srv.cc - the server thread: it submits new nodes and drives the engine's sockets and timers.
//
// One thread for each open context, and nobody else calls the engine while it runs. It sleeps in select until a socket
// is ready, a timer is due or a byte in the event pipe says that there are new nodes or that it must stop. mx_srvstate
// is taken to change the state only, mx_table to submit; neither is held in select.
#include "kavo_srv.h"

#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

#include "kavo_dns.h"
#include "kavo_query_table.h"

namespace {

// The bit of a context's `wake` that tells of a byte in the pipe.
constexpr uint64_t kInPipe = 1;

// Bytes of the event pipe that are read and forgotten at once.
constexpr size_t kEventsAtOnce = 1024;

// FdSets is the two descriptor sets of select, as long as the highest descriptor needs: a process may have more
// descriptors open than fd_set has bits for. The kernel takes sets of any length as arrays of words.
class FdSets {
 public:
  FdSets() = default;
  FdSets(const FdSets &) = delete;
  FdSets &operator=(const FdSets &) = delete;
  ~FdSets() { free(words_); }

  // start empties both sets and makes room for descriptors up to `fd_max`; false without memory.
  [[nodiscard]] bool start(int fd_max) {
    const size_t needed = static_cast<size_t>(fd_max) / kBits + 1;
    if (needed > room_) {
      void *grown = realloc(words_, 2 * needed * sizeof(Word));
      if (grown == nullptr) return false;
      words_ = static_cast<Word *>(grown);
      room_ = needed;
    }
    used_ = needed;
    memset(words_, 0, 2 * needed * sizeof(Word));
    return true;
  }

  void add_read(int fd) { words_[index(fd)] |= bit(fd); }
  void add_write(int fd) { words_[used_ + index(fd)] |= bit(fd); }
  [[nodiscard]] bool can_read(int fd) const { return (words_[index(fd)] & bit(fd)) != 0; }
  [[nodiscard]] bool can_write(int fd) const { return (words_[used_ + index(fd)] & bit(fd)) != 0; }
  [[nodiscard]] fd_set *reads() { return as_set(words_); }
  [[nodiscard]] fd_set *writes() { return as_set(words_ + used_); }

 private:
  using Word = unsigned long;
  static constexpr size_t kBits = sizeof(Word) * CHAR_BIT;

  static size_t index(int fd) { return static_cast<size_t>(fd) / kBits; }
  static Word bit(int fd) { return Word{1} << (static_cast<size_t>(fd) % kBits); }
  static fd_set *as_set(void *words) { return static_cast<fd_set *>(words); }

  Word *words_ = nullptr;  // the read set, then the write set
  size_t room_ = 0;        // words that each may have
  size_t used_ = 0;        // words that each has now
};

// How long the loop runs: until the event pipe was read, or until the engine has nothing left to do.
enum class Mode { normal, closing };

// What one pass of the loop came to.
enum class Pass { again, done, no_memory };

// IoLoop drives the engine. It lives as long as its thread, so that its descriptor sets do.
class IoLoop {
 public:
  explicit IoLoop(KAVO ctx) : ctx_(ctx) { look_at_clock(); }

  // run returns 0, or KAVOE_NOMEM when the sockets cannot be listed.
  [[nodiscard]] KAVO_ERR run(Mode mode) {
    look_at_clock();
    for (;;) {
      const Pass result = pass(mode);
      if (result == Pass::done) return KAVOE_OK;
      if (result == Pass::no_memory) return no_memory();
    }
  }

 private:
  // look_at_clock takes the moment that the engine and the questions' delays go by: before new questions are sent, and
  // when something has arrived.
  void look_at_clock() {
    dns_gettimeofday(&now_);
    ctx_->now = kavo_time_milli({static_cast<uint32_t>(now_.dnstv_sec), now_.dnstv_usec});
  }

  static KAVO_ERR no_memory() {
    PELK_ERROR(KAVO_SRV_SOURCE, "kavo_ioprocess", errno, KAVOE_NOMEM, "Unable to allocate memory for IO processing");
    return KAVOE_NOMEM;
  }

  Pass pass(Mode mode) {
    const dns_timeval wait = dns_timeouts(ctx_->udns_ctx, dns_tv_infinite, now_);
    kavo_table_broadcast(ctx_);
    if (mode == Mode::closing && wait == dns_tv_infinite) return Pass::done;
    unsigned sockets = 0;
    const Pass listed = list_sockets(&sockets);
    if (listed != Pass::done) return listed;
    int fd_max = 0;
    if (!fill_sets(sockets, &fd_max)) return Pass::no_memory;
    const int ready = sleep(fd_max, wait);
    look_at_clock();
    if (ready < 0) {
      PELK_ASSERT(EBADF != errno && ENOMEM != errno, KAVO_SRV_SOURCE);
      return Pass::again;
    }
    if (serve_sockets(sockets, ready) == 0 || !sets_.can_read(ctx_->qa_pipe.read_end)) return Pass::again;
    drain_pipe();
    return mode == Mode::normal ? Pass::done : Pass::again;
  }

  // list_sockets has the engine list its sockets, in a list that grows until they fit. `done` when they stand there.
  Pass list_sockets(unsigned *count) {
    for (;;) {
      const int found = dns_sockio(ctx_->udns_ctx, ctx_->ios, ctx_->nios);
      if (found < 0) {
        look_at_clock();
        return Pass::again;
      }
      *count = static_cast<unsigned>(found);
      if (*count <= ctx_->nios) return Pass::done;
      void *grown = realloc(ctx_->ios, *count * sizeof *ctx_->ios);
      if (grown == nullptr) return Pass::no_memory;
      ctx_->ios = static_cast<struct dns_ios *>(grown);
      ctx_->nios = *count;
    }
  }

  bool fill_sets(unsigned sockets, int *fd_max) {
    const KAVO ctx = ctx_;
    *fd_max = ctx->qa_pipe.read_end;
    for (unsigned i = 0; i < sockets; i++)
      *fd_max = std::max(*fd_max, ctx->ios[i].dnsio_sock);
    if (!sets_.start(*fd_max)) return false;
    sets_.add_read(ctx->qa_pipe.read_end);
    for (unsigned i = 0; i < sockets; i++) {
      const struct dns_ios &socket = ctx->ios[i];
      PELK_ASSERT(ctx->ios[i].dnsio_events, KAVO_SRV_SOURCE);
      if ((socket.dnsio_events & DNS_IO_IN) != 0) sets_.add_read(socket.dnsio_sock);
      if ((socket.dnsio_events & DNS_IO_OUT) != 0) sets_.add_write(socket.dnsio_sock);
    }
    return true;
  }

  int sleep(int fd_max, const dns_timeval &wait) {
    if (wait == dns_tv_infinite) {
      const KAVO ctx = ctx_;
      PELK_ASSERT(!dns_active(ctx->udns_ctx), KAVO_SRV_SOURCE);
      return select(fd_max + 1, sets_.reads(), sets_.writes(), nullptr, nullptr);
    }
    struct timeval timeout = {wait.dnstv_sec, wait.dnstv_usec};
    return select(fd_max + 1, sets_.reads(), sets_.writes(), nullptr, &timeout);
  }

  // serve_sockets hands the engine its sockets that are ready. Returns how many of `ready` are left for the pipe.
  int serve_sockets(unsigned sockets, int ready) {
    for (unsigned i = 0; i < sockets && ready != 0; i++) {
      struct dns_ios &socket = ctx_->ios[i];
      socket.dnsio_events = 0;
      if (sets_.can_read(socket.dnsio_sock)) socket.dnsio_events |= DNS_IO_IN;
      if (sets_.can_write(socket.dnsio_sock)) socket.dnsio_events |= DNS_IO_OUT;
      if (socket.dnsio_events == 0) continue;
      ready--;
      dns_ioevent(ctx_->udns_ctx, &socket, now_);
      kavo_table_broadcast(ctx_);
    }
    return ready;
  }

  // drain_pipe empties the pipe, then advances the word that callers mark (see kavo_wake_server).
  void drain_pipe() {
    uint8_t events[kEventsAtOnce];
    if (read(ctx_->qa_pipe.read_end, events, sizeof events) < 0)
      PELK_WARN(KAVO_SRV_SOURCE, "kavo_ioprocess", "Events pipe reading error.");
    ctx_->wake.store((ctx_->wake.load() | kInPipe) + 1);
    look_at_clock();  // new questions begin now, whatever the answers before them took
  }

  KAVO ctx_;
  dns_timeval now_ = {};
  FdSets sets_;
};

// submit_node submits a new node's questions and moves the node on; one that cannot be submitted has failed.
KAVO_ERR submit_node(KAVO ctx, kavo_query_node_t *node) PELK_REQUIRES(ctx->mx_table) {
  node->first_count = 0;
  node->qh_count = 0;
  memset(node->first_answers, 0, kavo_answer_map_size(ctx->max_zones));
  const KAVO_ERR submitted = kavo_submit_query(ctx, node, kavo_srv_cb);
  if (submitted != KAVOE_OK) PELK_WARN(KAVO_SRV_SOURCE, "kavo_srv_add", "Unable to submit query, error %d", submitted);
  const kavo_query_state target = submitted == KAVOE_OK ? KAVOQS_SUBMITTED : KAVOQS_ERROR;
  PELK_ASSERT(node->args_count && node->cb_args, KAVO_SRV_SOURCE);
  const KAVO_ERR moved = kavo_table_change_state(ctx, node, target);
  if (moved != KAVOE_OK) {
    PELK_ERROR(KAVO_SRV_SOURCE, "kavo_srv_add", 0, moved, "Unable to change node state, target state %d", target);
    return moved;
  }
  if (target == KAVOQS_ERROR) kavo_table_unsubscribe_node(ctx, node);
  return KAVOE_OK;
}

KAVO_ERR submit_new_nodes(KAVO ctx) {
  kavo_table_guard guard(ctx);
  if (guard.error != KAVOE_OK)
    return kavo_table_no_lock(KAVO_SRV_SOURCE, "kavo_srv_add", guard.error, "Unable to lock table");
  STAT_RANGEITEM cursor = {};
  PSTAT_RANGEITEM list = kavo_table_state_list(ctx, KAVOQS_NEW, &cursor);
  while (kavo_query_node_t *node = kavo_table_list_item(ctx, list)) {
    const KAVO_ERR error = submit_node(ctx, node);
    if (error != KAVOE_OK) return error;
  }
  return KAVOE_OK;
}

// kavo_srv_add takes every new node; false after a failure that ends the thread's loop.
bool kavo_srv_add(KAVO ctx) {
  if (submit_new_nodes(ctx) == KAVOE_OK) return true;
  PELK_ERROR(KAVO_SRV_SOURCE, __func__, 0, KAVOE_SRV, "Error occured during new queries addition, terminating");
  return false;
}

void invalid_state(KAVO ctx) PELK_REQUIRES(ctx->mx_srvstate) {
  PELK_ERROR(KAVO_SRV_SOURCE, "kavo_srv", 0, KAVOE_SRV, "Invalid starting state");
  kavo_srv_set_state(ctx, KAVOSS_ERROR);
}

// begin answers kavo_open; false when the context is not starting.
bool begin(KAVO ctx) {
  pelk_lock lock(&ctx->mx_srvstate);
  const bool starting = ctx->srvstate.load() == KAVOSS_STARTING;
  if (starting)
    kavo_srv_set_state(ctx, KAVOSS_RUNNING);
  else
    invalid_state(ctx);
  pelk_cond_broadcast(&ctx->cond_srvstate);
  return starting;
}

// serve does the thread's work until the context is to be closed; false after a failure.
bool serve(KAVO ctx, IoLoop *loop) {
  while (ctx->srvstate.load() == KAVOSS_RUNNING) {
    if (!kavo_srv_add(ctx)) return false;
    kavo_table_broadcast(ctx);
    if (loop->run(Mode::normal) != KAVOE_OK) return false;
  }
  return true;
}

void set_failed(KAVO ctx) {
  pelk_lock lock(&ctx->mx_srvstate);
  kavo_srv_set_state(ctx, KAVOSS_ERROR);
}

// fail_rest fails what a thread that has failed itself leaves in flight, so that nobody waits for it any more.
void fail_rest(KAVO ctx) {
  kavo_table_guard guard(ctx);
  if (guard.error == KAVOE_OK) static_cast<void>(kavo_table_fail_nodes(ctx));
}

// finish answers kavo_close.
void finish(KAVO ctx) {
  pelk_lock lock(&ctx->mx_srvstate);
  if (ctx->srvstate.load() == KAVOSS_STOPPING)
    kavo_srv_set_state(ctx, KAVOSS_STOPPED);
  else
    invalid_state(ctx);
  pelk_cond_broadcast(&ctx->cond_srvstate);
}

}  // namespace

// A run is over for subscribers when it leaves RUNNING: those who wait for a permit are sent away then.
void kavo_srv_set_state(KAVO ctx, KAVO_SRV_STATE state) {
  const KAVO_SRV_STATE before = ctx->srvstate.load();
  if (ctx->srvstate_chg_cb != nullptr) ctx->srvstate_chg_cb(ctx, before, state, ctx->srvstate_chg_cb_uctx);
  ctx->srvstate.store(state);
  if (before == KAVOSS_RUNNING) pelk_sem_interrupt(&ctx->sem_free_node);
}

int kavo_srv_is_running(KAVO kavo) {
  return kavo != nullptr && kavo_is_running(kavo) ? 1 : 0;
}

KAVO_ERR kavo_not_running(KAVO kavo, const char *source, const char *function, const char *message, int line) {
  if (!kavo_is_foreign(kavo)) pelk_log_note(PELK_LOG_INFO, source, function, line, "%s", message);
  return KAVOE_SRV;
}

bool kavo_send_event(KAVO ctx) {
  const uint8_t event = 0;
  long written = 0;
  do {
    // The call itself: write is a cancellation point.
    written = syscall(SYS_write, ctx->qa_pipe.write_end, &event, sizeof event);
  } while (written < 0 && errno == EINTR);
  return written == sizeof event;
}

// kavo_wake_server writes a byte to the event pipe, unless one is there. The server empties the pipe, then advances
// `wake` to the next even value, then looks for new nodes with mx_table held.
//
// A mark is set after its byte was written, and only on the value that was there before: who finds one relies on a byte
// that really is, or was, in the pipe, whatever has become of the thread that wrote it. If it is there, the server will
// wake. If the server has taken it out, it has yet to advance the word, since that takes the mark away; so it has yet
// to look for nodes too, and the caller's is filed: had the server looked before that, the caller, who took mx_table
// after it, would have seen the word advanced. A mark that cannot be set, since the server has advanced the word
// meanwhile, leaves a byte without one: a spare wake-up.
bool kavo_wake_server(KAVO ctx) {
  uint64_t seen = ctx->wake.load();
  if ((seen & kInPipe) != 0) return true;
  if (!kavo_send_event(ctx)) return false;
  ctx->wake.compare_exchange_strong(seen, seen | kInPipe);
  return true;
}

void *kavo_srv(void *context) {
  KAVO ctx = static_cast<KAVO>(context);
  if (!begin(ctx)) return nullptr;
  IoLoop loop(ctx);
  const bool served = serve(ctx, &loop);
  if (!served) set_failed(ctx);
  // The questions in flight still get their answers; a failure here has been logged and changes nothing.
  if (ctx->close_fast == 0) static_cast<void>(loop.run(Mode::closing));
  if (!served) fail_rest(ctx);
  kavo_table_broadcast(ctx);
  finish(ctx);
  return nullptr;
}
