// dimensions.cc - the ways in which the library's work may grow, from the smallest size to the largest.
#include <list_server.h>
#include <questions.h>

#include <algorithm>
#include <stdexcept>

#include "asker.h"
#include "bare_reads.h"
#include "dimension.h"
#include "filled_cache.h"
#include "kept_zones.h"

namespace growth {
namespace {

constexpr unsigned kZonesMost = 64;
constexpr unsigned kServersMost = 16;
constexpr unsigned kQuestions = 20'000;    // of a round, where they are cheap
constexpr unsigned kFewQuestions = 4'000;  // where each is waited for alone
constexpr unsigned kLookups = 50'000;
constexpr unsigned kReads = 1'000'000;
constexpr unsigned kInFlight = 1024;   // packets, where zones or threads grow
constexpr unsigned kFewInFlight = 64;  // as many as the smallest table has nodes
constexpr unsigned kTableMost = 100'000;

// Servers are list servers on loopback, all with the same zones.
class Servers {
 public:
  Servers() {
    for (unsigned i = 0; i < kServersMost; ++i) {
      servers_.push_back(std::make_unique<testbed::ListServer>(bench::listserver_zones(kZonesMost)));
      ports_.push_back(servers_.back()->port());
    }
  }
  // first returns the ports of the first `count` of them.
  [[nodiscard]] std::vector<uint16_t> first(unsigned count) const {
    return {ports_.begin(), ports_.begin() + static_cast<long>(count)};
  }

 private:
  std::vector<std::unique_ptr<testbed::ListServer>> servers_;
  std::vector<uint16_t> ports_;
};

using Shape = std::function<void(unsigned size, const Servers &servers, Host *host)>;

// asking makes the Work of a dimension: questions of a host that `shape` has changed from the usual one.
std::function<std::unique_ptr<Work>(unsigned)> asking(const std::shared_ptr<Servers> &servers, const Shape &shape) {
  return [servers, shape](unsigned size) {
    Host host;
    host.servers = servers->first(1);
    shape(size, *servers, &host);
    return std::make_unique<Asker>(host);
  };
}

std::function<unsigned(unsigned)> always(unsigned count) {
  return [count](unsigned) { return count; };
}

std::vector<Dimension> of_table(const std::shared_ptr<Servers> &servers) {
  return {{"table",
           "nodes",
           "question",
           "A table of so many nodes, all of which have been in use; 64 questions open.",
           {64, 1000, 10'000, kTableMost},
           asking(servers,
                  [](unsigned size, const Servers &, Host *host) {
                    host->table = size;
                    host->outstanding = kFewInFlight;
                  }),
           always(kQuestions),
           [](unsigned size) { return std::max(size, kQuestions); }},
          {"outstanding",
           "questions",
           "question",
           "So many questions open, in a table of 100,000 nodes.",
           {64, 1000, 10'000, kTableMost},
           asking(servers,
                  [](unsigned size, const Servers &, Host *host) {
                    host->table = kTableMost;
                    host->outstanding = size;
                  }),
           [](unsigned size) { return std::max(kQuestions, 4 * size); },
           always(kTableMost)}};
}

std::vector<Dimension> of_cache(const std::shared_ptr<Servers> &servers) {
  const std::vector<unsigned> sizes = {1000, 10'000, 100'000, 1'000'000};
  Dimension memory = {
      "bare memory",
      "entries",
      "read",
      "For comparison, without the library: one read in as much memory as a cache of so many entries takes. A lookup\n"
      "waits for two of these, one after the other: a line of the index, which says where the entry is, and the entry.",
      sizes,
      [](unsigned size) { return std::make_unique<BareReads>(size); },
      always(kReads),
      always(kReads)};
  memory.judged = false;
  return {memory,
          {"cache", "entries", "question", "Questions that the cache answers, through nodes; 64 open.", sizes,
           asking(servers,
                  [](unsigned size, const Servers &, Host *host) {
                    host->outstanding = host->table = kFewInFlight;
                    host->cache = std::make_shared<FilledCache>(size);
                  }),
           always(kQuestions), always(kQuestions)},
          {"cache_get", "entries", "lookup", "`kavo_cache_get`, a hit.", sizes,
           [](unsigned size) { return std::make_unique<Lookups>(size); }, always(kLookups), always(kLookups)}};
}

std::vector<Dimension> of_threads(const std::shared_ptr<Servers> &servers) {
  const std::vector<unsigned> sizes = {1, 2, 4, 8, 16, 32};
  return {
      {"threads", "host threads", "question", "1,024 questions open, shared among the host's threads.", sizes,
       asking(servers, [](unsigned size, const Servers &, Host *host) { host->threads = size; }), always(kQuestions),
       always(kQuestions)},
      {"lone threads", "host threads", "question", "Each host thread has one question open, and waits for it.", sizes,
       asking(servers, [](unsigned size, const Servers &, Host *host) { host->threads = host->outstanding = size; }),
       always(kFewQuestions), always(kFewQuestions)},
      {"idle threads", "host threads", "question",
       "One host thread has 64 questions open; the others wait for something that does not come.", sizes,
       asking(servers,
              [](unsigned size, const Servers &, Host *host) {
                host->outstanding = kFewInFlight;
                host->waiters = size - 1;
              }),
       always(kQuestions), always(kQuestions)}};
}

std::vector<Dimension> of_zones_and_servers(const std::shared_ptr<Servers> &servers) {
  const auto questions = [](unsigned zones) { return kQuestions / zones; };
  const auto many_servers = [](bool best) {
    return [best](unsigned size, const Servers &all, Host *host) {
      host->servers = all.first(size);
      host->best_server = best;
    };
  };
  const std::vector<unsigned> server_counts = {1, 2, 4, 8, kServersMost};
  Dimension zones = {"zones",
                     "zones",
                     "packet pair",
                     "Questions that are asked in so many zones, a packet each; 1,024 packets under way.",
                     {1, 2, 4, 8, 16, 32, kZonesMost},
                     asking(servers,
                            [](unsigned size, const Servers &, Host *host) {
                              host->zones = size;
                              host->outstanding = kInFlight / size;
                            }),
                     questions,
                     questions};
  zones.per_size = true;
  return {zones,
          {"servers", "servers", "question", "Servers asked in turn; 1,024 questions open.", server_counts,
           asking(servers, many_servers(false)), always(kQuestions), always(kQuestions)},
          {"best server", "servers", "question", "The best of the servers asked; 1,024 questions open.", server_counts,
           asking(servers, many_servers(true)), always(kQuestions), always(kQuestions)}};
}

}  // namespace

std::vector<Dimension> dimensions() {
  const auto servers = std::make_shared<Servers>();
  std::vector<Dimension> all;
  for (const auto &some :
       {of_table(servers), of_cache(servers), of_threads(servers), of_zones_and_servers(servers), of_kept_zones()})
    all.insert(all.end(), some.begin(), some.end());
  return all;
}

}  // namespace growth
