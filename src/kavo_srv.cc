// kavo_srv.cc - the server thread: it submits new nodes and drives the engine's sockets and timers.
//
// Each open context has one such thread, and no other thread calls the engine while it runs. It sleeps in select until
// a socket is ready, a timer is due, or a byte in the event pipe tells of new nodes or of the end. It takes mx_srvstate
// to change the state and mx_table to submit; it holds neither in select.
#include "kavo_srv.h"

#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>

#include <algorithm>

#include <dns_engine.h>
#include <pelk_log.h>

#include "kavo_dns.h"
#include "kavo_query_table.h"
#include "kavo_srv_cb.h"
#include "kavo_state.h"
#include "kavo_t.h"
#include "kavo_table_lock.h"
#include "kavo_table_wait.h"
#include "kavo_time.h"

namespace {

// FdSets is the two descriptor sets of select, as long as the highest descriptor needs, since a process may have more
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

// Mode is how long the loop runs: until the event pipe was read, or until the engine has nothing left to do.
enum class Mode { normal, closing };

// Pass is the outcome of one pass of the loop.
enum class Pass { again, done, no_memory };

// IoLoop drives the engine. It lives as long as its thread, which thus keeps one pair of descriptor sets.
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
  // look_at_clock notes the moment for the engine and for the answers' delays: before new queries are sent, and after
  // anything has arrived.
  void look_at_clock() {
    dns_gettimeofday(&now_);
    ctx_->now = kavo_time_milli({static_cast<uint32_t>(now_.dnstv_sec), now_.dnstv_usec});
  }

  [[nodiscard]] static KAVO_ERR no_memory() {
    PELK_ERROR(KAVO_SRV_SOURCE, "kavo_ioprocess", errno, KAVOE_NOMEM, "Unable to allocate memory for IO processing");
    return KAVOE_NOMEM;
  }

  [[nodiscard]] Pass pass(Mode mode) {
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

  // list_sockets has the engine list its sockets, in a list that grows until they fit; `done` when they do.
  [[nodiscard]] Pass list_sockets(unsigned *count) {
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

  [[nodiscard]] bool fill_sets(unsigned sockets, int *fd_max) {
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

  [[nodiscard]] int sleep(int fd_max, const dns_timeval &wait) {
    if (wait == dns_tv_infinite) {
      const KAVO ctx = ctx_;
      PELK_ASSERT(!dns_active(ctx->udns_ctx), KAVO_SRV_SOURCE);
      return select(fd_max + 1, sets_.reads(), sets_.writes(), nullptr, nullptr);
    }
    struct timeval timeout = {wait.dnstv_sec, wait.dnstv_usec};
    return select(fd_max + 1, sets_.reads(), sets_.writes(), nullptr, &timeout);
  }

  // serve_sockets hands the engine its sockets that are ready. Returns how many of `ready` are left for the pipe.
  [[nodiscard]] int serve_sockets(unsigned sockets, int ready) {
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

  void drain_pipe() {
    if (!kavo_event_pipe_drain(&ctx_->qa_pipe))
      PELK_WARN(KAVO_SRV_SOURCE, "kavo_ioprocess", "Events pipe reading error.");
    look_at_clock();  // new queries begin now, however long the answers before them took
  }

  KAVO ctx_;
  dns_timeval now_ = {};
  FdSets sets_;
};

// submit_node submits a new node's queries and moves the node on; a node that cannot be submitted has failed.
[[nodiscard]] KAVO_ERR submit_node(KAVO ctx, kavo_query_node_t *node) PELK_REQUIRES(ctx->mx_table) {
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

[[nodiscard]] KAVO_ERR submit_new_nodes(KAVO ctx) {
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
[[nodiscard]] bool kavo_srv_add(KAVO ctx) {
  if (submit_new_nodes(ctx) == KAVOE_OK) return true;
  PELK_ERROR(KAVO_SRV_SOURCE, __func__, 0, KAVOE_SRV, "Error occured during new queries addition, terminating");
  return false;
}

void invalid_state(KAVO ctx) PELK_REQUIRES(ctx->mx_srvstate) {
  PELK_ERROR(KAVO_SRV_SOURCE, "kavo_srv", 0, KAVOE_SRV, "Invalid starting state");
  kavo_set_state(ctx, KAVOSS_ERROR);
}

// begin answers kavo_open; false when the context is not starting.
[[nodiscard]] bool begin(KAVO ctx) {
  pelk_lock lock(&ctx->mx_srvstate);
  const bool starting = ctx->srvstate.load() == KAVOSS_STARTING;
  if (starting)
    kavo_set_state(ctx, KAVOSS_RUNNING);
  else
    invalid_state(ctx);
  pelk_cond_broadcast(&ctx->cond_srvstate);
  return starting;
}

// serve does the thread's work until the context is to be closed; false after a failure.
[[nodiscard]] bool serve(KAVO ctx, IoLoop *loop) {
  while (ctx->srvstate.load() == KAVOSS_RUNNING) {
    if (!kavo_srv_add(ctx)) return false;
    kavo_table_broadcast(ctx);
    if (loop->run(Mode::normal) != KAVOE_OK) return false;
  }
  return true;
}

void set_failed(KAVO ctx) {
  pelk_lock lock(&ctx->mx_srvstate);
  kavo_set_state(ctx, KAVOSS_ERROR);
}

// fail_rest fails the nodes that a failed thread leaves in flight, so that no caller waits for them any longer.
void fail_rest(KAVO ctx) {
  kavo_table_guard guard(ctx);
  if (guard.error == KAVOE_OK) static_cast<void>(kavo_table_fail_nodes(ctx));
}

// finish answers kavo_close.
void finish(KAVO ctx) {
  pelk_lock lock(&ctx->mx_srvstate);
  if (ctx->srvstate.load() == KAVOSS_STOPPING)
    kavo_set_state(ctx, KAVOSS_STOPPED);
  else
    invalid_state(ctx);
  pelk_cond_broadcast(&ctx->cond_srvstate);
}

}  // namespace

void *kavo_srv(void *context) {
  KAVO ctx = static_cast<KAVO>(context);
  if (!begin(ctx)) return nullptr;
  IoLoop loop(ctx);
  const bool served = serve(ctx, &loop);
  if (!served) set_failed(ctx);
  // The queries in flight still get their answers; a failure here has been logged and changes nothing.
  if (ctx->close_fast == 0) static_cast<void>(loop.run(Mode::closing));
  if (!served) fail_rest(ctx);
  kavo_table_broadcast(ctx);
  finish(ctx);
  return nullptr;
}
