// The command "kavo cache show": walks a dump without a cache, so that it shows all that is in it, also what has
// expired.
#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <vector>

#include "cache.h"
#include "file.h"
#include "log.h"
#include "output.h"
#include "question.h"

namespace tool {
namespace {

using nlohmann::ordered_json;

constexpr time_t kEpoch = 946684800;  // 2000-01-01 00:00:00 UTC, from which dns_time counts

using Dump = std::unique_ptr<dns_cdump, int (*)(dns_cdump *)>;
using Entry = std::unique_ptr<dns_cdata, void (*)(dns_cdata *)>;

// The data of a record as a zone file has it.
std::string data_text(const dns_rr &record) {
  char *text = nullptr;
  size_t size = 0;
  FILE *stream = open_memstream(&text, &size);
  if (stream == nullptr) throw std::bad_alloc();
  (void)dns_printrr(stream, 0, &record);
  std::fclose(stream);
  const std::unique_ptr<char, void (*)(void *)> owner(text, std::free);
  return {text, size};
}

// Shown is an entry as it is shown.
struct Shown {
  std::string name;
  std::string type;
  std::string status;    // "ok", "nxdomain", "nodata"
  std::string negative;  // in words; empty for an entry with answers
  int32_t ttl;
};

Shown read_entry(const dns_cdata *entry) {
  std::array<unsigned char, DNS_MAXDN> dn{};
  unsigned size = DNS_MAXDN;
  if (dns_cdata_dn(entry, dn.data(), &size) != 0) throw std::runtime_error("an entry without a name");
  const auto type = static_cast<KAVO_TYPE>(dns_cdata_typ(entry));
  const bool answers = dns_cdata_nrr(entry) > dns_cdata_nalias(entry);
  const KAVO_ERR outcome = answers ? KAVOE_OK : dns_cdata_rcode(entry) == DNS_R_NXDOMAIN ? KAVOE_NXDOM : KAVOE_NODATA;
  return {text_of_dn(dn.data()), type_text(type), status_word(outcome), answers ? "" : explain_negative(outcome, type),
          dns_cdata_ttl(entry)};
}

class Shower {
 public:
  explicit Shower(bool json) : json_(json) {}

  void show(dns_cdata *entry) {
    const Shown shown = read_entry(entry);
    (shown.ttl < 0 ? expired_ : alive_) += 1;
    if (json_) return show_object(shown, entry);
    const std::string age = shown.ttl < 0 ? "expired " + std::to_string(-int64_t{shown.ttl}) + " s ago"
                                          : "alive for " + std::to_string(shown.ttl) + " s";
    print_line("; " + shown.name + " " + shown.type + ": " + (shown.negative.empty() ? "" : shown.negative + ", ") +
               age);
    for_each_record(entry, [](const dns_rr &record) { (void)dns_printrr(stdout, 1, &record); });
  }

  // The count, behind objects on standard error.
  void finish() const {
    const size_t all = alive_ + expired_;
    const std::string count = (all == 1 ? "1 entry: " : std::to_string(all) + " entries: ") + std::to_string(alive_) +
                              " alive, " + std::to_string(expired_) + " expired";
    if (!json_) return print_line("; " + count);
    std::fprintf(stderr, "%s\n", count.c_str());
  }

 private:
  template <typename Each>
  void for_each_record(dns_cdata *entry, Each each) {
    dns_cdata_rewind(entry);
    for (;;) {
      dns_rr record;
      record.dnsrr_dptr = data_.data();
      record.dnsrr_dsz = static_cast<unsigned>(data_.size());
      const int found = dns_cdata_nextrr(entry, &record);
      if (found < 0) throw std::runtime_error("an entry whose records cannot be read");
      if (found == 0) return;
      each(record);
    }
  }

  void show_object(const Shown &shown, dns_cdata *entry) {
    ordered_json records = ordered_json::array();
    for_each_record(entry, [&](const dns_rr &record) {
      records.push_back({{"name", text_of_dn(record.dnsrr_dn)},
                         {"type", type_text(static_cast<KAVO_TYPE>(record.dnsrr_typ))},
                         {"ttl", record.dnsrr_ttl},
                         {"data", data_text(record)}});
    });
    print_json({{"name", shown.name},
                {"type", shown.type},
                {"state", shown.ttl < 0 ? "expired" : "alive"},
                {"status", shown.status},
                {"ttl", shown.ttl},
                {"records", std::move(records)}});
  }

  bool json_;
  std::vector<unsigned char> data_ = std::vector<unsigned char>(DNS_MAXPACKET);
  size_t alive_ = 0;
  size_t expired_ = 0;
};

// Shows the entries of the dump's current cache.
void show_cache(dns_cdump *dump, dns_cdata *entry, const std::string &path, Shower *shower) {
  int found;
  while ((found = dns_cdump_next_entry(dump, entry)) > 0)
    shower->show(entry);
  if (found < 0) throw std::runtime_error(no_dump(path));
}

}  // namespace

int cache_show(const CacheArguments &arguments) {
  const File file = open_dump(arguments.file);
  const Dump dump(dns_cdump_load_init(file.fd(), std::time(nullptr) - kEpoch), dns_cdump_load_finish);
  const Entry entry(dns_cdata_init(0), dns_cdata_free);
  if (dump == nullptr || entry == nullptr) throw std::bad_alloc();
  LogKeeper log;
  Shower shower(arguments.json);
  int moved = dns_cdump_first_cache(dump.get());
  for (; moved > 0; moved = dns_cdump_next_cache(dump.get()))
    show_cache(dump.get(), entry.get(), arguments.file, &shower);
  if (moved < 0) throw std::runtime_error(no_dump(arguments.file));
  shower.finish();
  finish_output();
  return kExitClear;
}

}  // namespace tool
