#include "cache.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>

#include "asker.h"
#include "file.h"
#include "log.h"
#include "output.h"
#include "records.h"
#include "source.h"
#include "subject.h"

namespace tool {
namespace {

using nlohmann::ordered_json;

constexpr int kCacheBytes = 64 << 20;  // allocated as they are used
constexpr mode_t kFileMode = 0644;     // as the library creates dumps

// A file that cannot be written is told before anything is asked.
void examine_target(const std::string &file) {
  const File target(open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, kFileMode));
  if (target.fd() < 0) throw Usage{for_terminal(file) + ": " + std::strerror(errno)};
}

// Saver counts what the cache has kept, and tells of what it has not.
class Saver {
 public:
  Saver(const Session &session, KAVO_TYPE type) : cache_(kavo_get_ext_cache(session.kavo(), KAVOCT_ANS)), type_(type) {}

  void note(const NameResult &result) {
    const AskedName &asked = result.asked;
    ++names_;
    outcome_.without = outcome_.without || is_negative(result.outcome);
    // An answer that is too large to be handed out is kept like any other.
    if (asked.name && has(asked.name->name)) {
      ++kept_;
      return;
    }
    outcome_.failed = true;
    const std::string what = asked.name ? for_terminal(asked.text) + ": " : "";
    const std::string why =
        result.error.empty() ? "the answer may be kept for no time, and is not saved" : result.error;
    std::fprintf(stderr, "kavo cache save: %s%s\n", what.c_str(), why.c_str());
  }

  [[nodiscard]] std::string summary() const {
    return plural(names_, "name") + " asked, " + plural(kept_, "answer") + " saved";
  }
  [[nodiscard]] int status() const { return outcome_.status(); }

 private:
  [[nodiscard]] bool has(const std::string &name) const {
    return kavo_cache_has(cache_, type_, name.c_str(), static_cast<int>(name.size())) == KAVOE_OK;
  }

  KAVO_CACHE cache_;
  KAVO_TYPE type_;
  size_t names_ = 0;
  size_t kept_ = 0;
  NameOutcome outcome_;
};

// Found is what a loaded cache says about a name.
struct Found {
  const char *state = "absent";  // or "alive", "expired"
  const char *status = nullptr;  // "ok", "nxdomain", "nodata"; null without an entry
  std::string negative;          // what an entry without records says
  std::string error;             // why the name could not be looked up
  std::optional<int32_t> ttl;    // not told of a live negative answer
  Records records;
};

// Fetched owns an answer's block.
struct Fetched {
  KAVO_ANSWER answer{};
  Fetched() = default;
  ~Fetched() { kavo_rr_free(&answer.rr); }
  Fetched(const Fetched &) = delete;
  Fetched &operator=(const Fetched &) = delete;
};

Found look_up(KAVO_CACHE cache, KAVO_TYPE type, const std::string &text) {
  Found found;
  Fetched fetched;
  try {
    const std::string name = parse_name(text, type).name;
    const KAVO_ERR result =
        kavo_cache_get(cache, type, name.c_str(), static_cast<int>(name.size()), &fetched.answer, 1);
    if (result == KAVOE_NODATA) return found;
    must(result, quoted(text) + " is there, and cannot be shown so; kavo cache show does");
  } catch (const std::runtime_error &fault) {
    found.error = fault.what();
    found.state = "failed";
    return found;
  }
  const KAVO_ERR outcome = fetched.answer.err_code;
  found.state = fetched.answer.cache_code == KAVOCC_OLD ? "expired" : "alive";
  found.status = status_word(outcome);
  if (outcome != KAVOE_OK) found.negative = explain_negative(outcome, type);
  found.records = read_records(type, fetched.answer.rr);
  if (outcome == KAVOE_OK || found.records.ttl < 0) found.ttl = found.records.ttl;
  return found;
}

// Lookup shows what a dump says about names.
class Lookup {
 public:
  Lookup(const CacheArguments &arguments, KAVO_TYPE type, KAVO_CACHE cache)
      : json_(arguments.json), type_(type), cache_(cache) {}

  void show(const std::string &text) {
    const Found found = look_up(cache_, type_, text);
    const std::string state = found.state;
    failed_ = failed_ || !found.error.empty();
    lacking_ = lacking_ || state != "alive" || !found.negative.empty();
    json_ ? print_json(object_of(text, found)) : print_rows(text, found);
  }
  [[nodiscard]] int status() const { return failed_ ? kExitFailed : lacking_ ? kExitListed : kExitClear; }

 private:
  static constexpr size_t kNameWidth = 24;
  static constexpr size_t kStateWidth = 9;
  static constexpr size_t kTtlWidth = 8;

  static void print_row(const std::string &name, const std::string &state, const std::string &ttl,
                        const std::string &answer) {
    print_line(padded(name, kNameWidth) + " " + padded(state, kStateWidth) + " " + padded(ttl, kTtlWidth) + " " +
               answer);
  }

  void print_rows(const std::string &text, const Found &found) {
    if (rows_++ == 0) print_row("NAME", "STATE", "TTL", "ANSWER");
    std::string name = for_terminal(text);
    std::string state = found.state;
    std::string ttl = found.ttl ? std::to_string(*found.ttl) : "-";
    const std::string other = !found.error.empty() ? found.error : found.status == nullptr ? "-" : found.negative;
    if (!other.empty()) print_row(name, state, ttl, other);
    for (const std::string &line : found.records.lines) {
      print_row(name, state, ttl, line);
      name = state = ttl = "";  // said once, on the first of the rows
    }
  }

  [[nodiscard]] ordered_json object_of(const std::string &text, const Found &found) const {
    ordered_json object{{"name", text}, {"type", type_text(type_)}, {"state", found.state}};
    const bool there = found.status != nullptr;
    object["status"] = there ? ordered_json(found.status) : ordered_json();
    object["error"] = found.error.empty() ? ordered_json() : ordered_json(found.error);
    object["ttl"] = found.ttl ? ordered_json(*found.ttl) : ordered_json();
    object["canonical"] = there ? ordered_json(found.records.canonical) : ordered_json();
    object["answers"] = found.records.objects;
    return object;
  }

  bool json_;
  KAVO_TYPE type_;
  KAVO_CACHE cache_;
  size_t rows_ = 0;
  bool failed_ = false;
  bool lacking_ = false;
};

// Room for all that a dump of this size can hold: an entry in a cache takes more bytes than in the file.
int room_for(const File &dump) {
  constexpr off_t kGrowth = 8;
  struct stat info {};
  if (fstat(dump.fd(), &info) != 0) return kCacheBytes;
  const off_t most = std::numeric_limits<int>::max() / kGrowth;
  return std::max(kCacheBytes, static_cast<int>(std::min(info.st_size, most) * kGrowth));
}

}  // namespace

int cache_save(const CacheArguments &arguments) {
  const KAVO_TYPE type = parse_type(arguments.type);
  examine_names(arguments.names, type);
  LogKeeper log;  // answers without room, which are saved all the same, are warned of
  Session session(arguments.network, {static_cast<int>(kSubjects), kCacheBytes});
  examine_target(arguments.file);
  session.open();
  Saver saver(session, type);
  // What has no parser is kept all the same, and can be shown from the dump.
  const unsigned flags = kavo_isparseable(type) != 0 ? 0 : KAVOQF_PKT;
  ask_names(session, arguments.names, type, flags, [&](const NameResult &result) { saver.note(result); });
  if (kavo_cachesave(session.kavo(), arguments.file.c_str()) != KAVOE_OK)
    throw std::runtime_error(for_terminal(arguments.file) + " cannot be written: " + for_terminal(log.last()));
  print_line(for_terminal(arguments.file) + ": " + saver.summary());
  finish_output();
  return saver.status();
}

int cache_load(const CacheArguments &arguments) {
  const KAVO_TYPE type = parse_type(arguments.type);
  if (kavo_isparseable(type) == 0)
    throw Usage{"records of type " + type_text(type) + " can be shown by kavo cache show only"};
  examine_names(arguments.names, type);
  const File dump = open_dump(arguments.file);
  const Context context({1, room_for(dump)});
  must(kavo_set_opt(context.kavo(), KAVOOPT_CH_REXPRD, 1), "cannot have expired entries loaded");
  {
    LogKeeper log;
    const KAVO_ERR error = kavo_cacheload(context.kavo(), arguments.file.c_str());
    if (error == KAVOE_FILE || error == KAVOE_FAIL) throw std::runtime_error(no_dump(arguments.file));
    must(error, for_terminal(arguments.file));
  }
  Lookup lookup(arguments, type, kavo_get_ext_cache(context.kavo(), KAVOCT_ANS));
  SubjectSource source(arguments.names);
  bool starved = false;
  while (const std::optional<std::string> text = source.next(true, &starved))
    lookup.show(*text);
  finish_output();
  return lookup.status();
}

}  // namespace tool
