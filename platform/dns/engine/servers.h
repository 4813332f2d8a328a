// servers.h - what the engine knows of the servers it asks: estimates of their round-trip times and their statistics.
//
// Records are made, found and released by the thread that drives the context. Statistics are relaxed atomics, and the
// table's lock guards its structure alone, so that any thread may read a server's figures meanwhile.
#ifndef DNS_ENGINE_SERVERS_H
#define DNS_ENGINE_SERVERS_H

#include <netinet/in.h>
#include <pelk.h>
#include <stdint.h>

#include <atomic>

#include <kavo/dns_types.h>

#include "list.h"

namespace dns {

inline constexpr unsigned kServerCookieMax = 32;  // RFC 7873, section 4

// Server is one address that questions go to. `link` is its place in the list of records that nobody holds.
struct Server : Link {
  sockaddr_in address;
  unsigned holders;
  Server *bucket_next;

  // The smoothed round-trip time and its deviation (RFC 6298), in microseconds; 0 while there is no estimate. Only the
  // driving thread touches them.
  int64_t srtt_us;
  int64_t deviation_us;
  int64_t plain_until_us;  // until when it is asked without EDNS0
  int64_t lower_until_us;  // until when it is asked in lower case, because it does not keep the case of letters
  uint8_t cookie[kServerCookieMax];  // the server's own cookie (RFC 7873)
  uint8_t cookie_size;
  bool gives_cookies;  // it has answered with a cookie, and so always will
  unsigned under_way;  // questions that wait for its answer by UDP
  Link parked;         // questions that wait until it has fewer of them

  std::atomic<int> average_ms;
  std::atomic<int> last_ms;
  std::atomic<dns_time> last_check;
  std::atomic<uint64_t> sent;
  std::atomic<uint64_t> used;
  std::atomic<uint64_t> timed_out;

  // sample takes one measured round trip into the estimate.
  void sample(int64_t rtt_us, dns_time now);
  // patience_us is how long a try of the given round waits for this server, between kPatienceMinUs and `longest_us`.
  [[nodiscard]] int64_t patience_us(unsigned round, int64_t longest_us) const;
};

inline constexpr int64_t kPatienceMinUs = 50'000;

inline bool same_address(const sockaddr_in &a, const sockaddr_in &b) {
  return a.sin_addr.s_addr == b.sin_addr.s_addr && a.sin_port == b.sin_port;
}

class ServerTable {
 public:
  // Records that nobody holds are kept for their estimates, this many; past them the one let go longest ago is
  // forgotten.
  static constexpr unsigned kIdleMax = 256;

  ServerTable();
  ~ServerTable();
  ServerTable(const ServerTable &) = delete;
  ServerTable &operator=(const ServerTable &) = delete;

  // hold returns the record of an address and counts a holder, or null without memory; release drops one.
  [[nodiscard]] Server *hold(const sockaddr_in &address);
  void hold_again(Server *server) { ++server->holders; }
  void release(Server *server);

  // read calls `use` with the address's record while the table's lock is held; false when there is none. Any thread.
  template <typename Use>
  bool read(const sockaddr_in &address, Use use) {
    pelk_lock lock(&mutex_);
    Server *server = find(address);
    if (server == nullptr) return false;
    use(*server);
    return true;
  }

 private:
  static constexpr unsigned kBuckets = 256;
  [[nodiscard]] Server *find(const sockaddr_in &address) PELK_REQUIRES(mutex_);
  void forget(Server *server) PELK_REQUIRES(mutex_);

  pelk_mutex_t mutex_;
  Server *buckets_[kBuckets] PELK_GUARDED_BY(mutex_) = {};
  Link idle_;
  unsigned idle_count_ = 0;
};

}  // namespace dns

#endif  // DNS_ENGINE_SERVERS_H
