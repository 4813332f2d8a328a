// kavo_cache_dump.cc - the context's own caches in a file, and back: which caches go in, in which order, and what for.
//
// Each cache of a dump carries one word, in network order, that says which uses it served. A cache that is loaded goes
// where the context has such a use. The file itself is the engine's (dns_cdump_*). Nothing is locked here: any thread
// may be using the caches.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <dns_engine.h>
#include <pelk_file.h>
#include <pelk_log.h>
#include <pelk_thread.h>

#include "kavo_state.h"
#include "kavo_t.h"

namespace {

constexpr char kSource[] = "kavo_cache_dump";
constexpr char kSave[] = "kavo_cachesave";
constexpr char kLoad[] = "kavo_cacheload";

constexpr mode_t kFileMode = 0644;

// is_of_call returns whether a status is that of a failed system call, whose reason is in errno.
constexpr bool is_of_call(dns_status status) {
  return status == DNS_E_WFILE || status == DNS_E_RFILE || status == DNS_E_NOMEM;
}

[[nodiscard]] KAVO_ERR failed(const char *function, dns_status status, const char *what) {
  PELK_ERROR(kSource, function, is_of_call(status) ? errno : 0, status, "%s", what);
  return kavo_convert_status(status);
}

// ---- saving -------------------------------------------------------------------------------------------------------

[[nodiscard]] dns_status save_cache(struct dns_cdump *dump, struct dns_cache *cache, uint32_t uses) {
  const uint32_t word = htonl(uses);
  return dns_cdump_save_cache(dump, cache, &word, sizeof word);
}

// save_caches saves the final answers first. The dump is left to its caller.
[[nodiscard]] KAVO_ERR save_caches(const kavo_t &ctx, struct dns_cdump *dump) {
  if (ctx.cache != nullptr) {
    const dns_status status = save_cache(dump, ctx.cache, ctx.rcache == ctx.cache ? KAVOCT_FULL : KAVOCT_ANS);
    if (status != DNS_E_NOERROR) return failed(kSave, status, "Unable to save final answers cache");
  }
  if (ctx.rcache != nullptr && ctx.rcache != ctx.cache) {
    const dns_status status = save_cache(dump, ctx.rcache, KAVOCT_REF);
    if (status != DNS_E_NOERROR) return failed(kSave, status, "Unable to save recursor cache");
  }
  return KAVOE_OK;
}

// ---- loading ------------------------------------------------------------------------------------------------------

// Pass is one walk over a dump: the caches whose word has all bits of `with` and none of `without` go into `cache`.
struct Pass {
  struct dns_cache *cache = nullptr;
  uint32_t with = 0;
  uint32_t without = 0;
  const char *load_fails = nullptr;  // the message of a failure
};

[[nodiscard]] KAVO_ERR load_current(struct dns_cdump *dump, const Pass &pass) {
  uint32_t word = 0;
  const int got = dns_cdump_get_udata(dump, &word, sizeof word, nullptr);
  if (got < 1) {
    const KAVO_ERR error = failed(kLoad, got, "Unable to read user-data for cache");
    return error == KAVOE_OK ? KAVOE_FILE : error;  // a cache without a word
  }
  const uint32_t uses = ntohl(word);
  if ((uses & pass.with) != pass.with || (uses & pass.without) != 0) return KAVOE_OK;
  const dns_status status = dns_cdump_load_cache(dump, pass.cache);
  return status == DNS_E_NOERROR || status == DNS_E_NODATA ? KAVOE_OK : failed(kLoad, status, pass.load_fails);
}

[[nodiscard]] KAVO_ERR run_pass(struct dns_cdump *dump, const Pass &pass) {
  int moved = dns_cdump_first_cache(dump);
  for (; moved > 0; moved = dns_cdump_next_cache(dump)) {
    const KAVO_ERR error = load_current(dump, pass);
    if (error != KAVOE_OK) return error;
  }
  return moved < 0 ? failed(kLoad, moved, "Error during caches enumeration in dump") : KAVOE_OK;
}

// load_caches fills the context's caches. A cache that serves both uses takes in the second pass what the first left.
[[nodiscard]] KAVO_ERR load_caches(const kavo_t &ctx, struct dns_cdump *dump) {
  if (ctx.cache != nullptr) {
    const KAVO_ERR error = run_pass(dump, {ctx.cache, KAVOCT_ANS, 0, "Unable to load final answers cache"});
    if (error != KAVOE_OK) return error;
  }
  if (ctx.rcache == nullptr) return KAVOE_OK;
  const uint32_t without = ctx.rcache == ctx.cache ? uint32_t{KAVOCT_ANS} : 0;
  return run_pass(dump, {ctx.rcache, KAVOCT_REF, without, "Unable to load recursor cache"});
}

[[nodiscard]] KAVO_ERR no_file(const char *function, const char *filename, const char *purpose) {
  PELK_ERROR(kSource, function, errno, KAVOE_FILE, "Unable to open file \"%s\" for %s", filename, purpose);
  return KAVOE_FILE;
}

[[nodiscard]] KAVO_ERR no_dump(const char *function) {
  PELK_ERROR(kSource, function, errno, KAVOE_DNS, "Unable to initialize dump context");
  return KAVOE_FAIL;
}

}  // namespace

extern "C" {

KAVO_ERR kavo_cachesave(KAVO kavo, const char *filename) {
  if (kavo == nullptr || filename == nullptr) return KAVOE_BADPAR;
  if (kavo_is_foreign(kavo)) return KAVOE_SRV;
  const pelk_no_cancel whole;
  const int fd = pelk_lift(open(filename, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kFileMode));
  if (fd < 0) return no_file(kSave, filename, "writing");
  errno = 0;  // what fails below may have no call's reason
  struct dns_cdump *dump = dns_cdump_save_init(fd, dns_gettime(nullptr));
  const KAVO_ERR begun = dump == nullptr ? no_dump(kSave) : KAVOE_OK;
  close(fd);
  if (begun != KAVOE_OK) return begun;
  const KAVO_ERR error = save_caches(*kavo, dump);
  const dns_status status = dns_cdump_save_finish(dump);
  if (error != KAVOE_OK) return error;
  return status == DNS_E_NOERROR ? KAVOE_OK : failed(kSave, status, "Unable to finalize dump saving");
}

KAVO_ERR kavo_cacheload(KAVO kavo, const char *filename) {
  if (kavo == nullptr || filename == nullptr) return KAVOE_BADPAR;
  if (kavo_is_foreign(kavo)) return KAVOE_SRV;
  const pelk_no_cancel whole;
  // O_NONBLOCK: a pipe without a writer is refused like any other file that is not regular, instead of waited for.
  const int fd = pelk_lift(open(filename, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (fd < 0) return no_file(kLoad, filename, "reading");
  errno = 0;
  struct dns_cdump *dump = dns_cdump_load_init(fd, dns_gettime(nullptr));
  const KAVO_ERR begun = dump == nullptr ? no_dump(kLoad) : KAVOE_OK;
  close(fd);
  if (begun != KAVOE_OK) return begun;
  const KAVO_ERR error = load_caches(*kavo, dump);
  const dns_status status = dns_cdump_load_finish(dump);
  if (error != KAVOE_OK) return error;
  return status == DNS_E_NOERROR ? KAVOE_OK : failed(kLoad, status, "Unable to finalize dump loading");
}

}  // extern "C"
