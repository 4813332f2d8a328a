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

#include <list.h>

namespace dns {

inline constexpr unsigned kServerCookieMax = 32;  // RFC 7873, section 4

inline constexpr unsigned kSilentMax = 2;  // tries without an answer after which a server is set aside
inline constexpr int64_t kLossWhole = 1024;

// Letters that must have come back in the case that they were sent in, before a server counts as one that keeps it: one
// that has a case of its own matches so many by chance once in four thousand million times.
inline constexpr unsigned kLettersKnown = 32;

// Server is one address that questions go to. `link` is its place in the list of records that nobody holds.
struct Server : base::Link {
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
  uint8_t letters_kept;     // in its answers, up to kLettersKnown
  int64_t other_case_us;    // since when nothing but answers in another case has come, though it kept it; else 0
  int64_t cookie_until_us;  // until when an answer without a cookie is none of its
  int64_t tcp_until_us;     // until when it is posted no more than `tcp_limit` queries on one connection
  uint32_t tcp_limit;
  unsigned under_way;  // questions that wait for its answer by UDP
  base::Link parked;   // questions that wait until it has fewer of them

  // Whether it is there, and what it costs to ask it; of the driving thread too.
  int64_t heard_us;      // when it last answered
  int64_t measured_us;   // when it last answered a question that was sent to it once
  unsigned silent;       // tries in a row during which nothing was heard of it
  uint32_t loss;         // how many of kLossWhole recent tries timed out
  int64_t loss_us;       // when that was last made less for the time gone by
  int64_t try_at_us;     // when a question may next go to it though others are better
  int64_t try_wait_us;   // and how long after the last such question that is
  int64_t rated_us;      // when its cost was last worked out; 0 to have that done
  int64_t cost_us;       // as it was then
  int64_t zone_cost_us;  // what the cost zone says, until `zone_until_us`
  int64_t zone_until_us;

  std::atomic<int> average_ms;
  std::atomic<int> last_ms;
  std::atomic<dns_time> last_check;
  std::atomic<uint64_t> sent;
  std::atomic<uint64_t> used;
  std::atomic<uint64_t> timed_out;

  // keeps_case tells whether it is known to bring the case of letters back: another case is then a forgery.
  [[nodiscard]] bool keeps_case() const { return letters_kept >= kLettersKnown; }
  // gives_cookies tells whether it has lately answered with a cookie.
  [[nodiscard]] bool gives_cookies(int64_t now_us) const { return now_us < cookie_until_us; }

  // sample takes one measured round trip into the estimate.
  void sample(int64_t rtt_us, dns_time now);
  // heard notes an answer, missed that a try has had none: true when that sets the server aside.
  void heard(int64_t now_us);
  [[nodiscard]] bool missed(int64_t sent_us, int64_t now_us);
  [[nodiscard]] bool set_aside() const { return silent >= kSilentMax; }
  // forget_losses halves the losses for every `half_life_us` gone by, forget_cost what the cost zone has said.
  void forget_losses(int64_t now_us, int64_t half_life_us);
  void forget_cost() { zone_cost_us = zone_until_us = rated_us = 0; }
  // patience_us is how long a try of the given round waits for this server, between kPatienceMinUs and `longest_us`.
  [[nodiscard]] int64_t patience_us(unsigned round, int64_t longest_us) const;
};

inline constexpr int64_t kPatienceMinUs = 50'000;

inline bool same_address(const sockaddr_in &a, const sockaddr_in &b) {
  return a.sin_addr.s_addr == b.sin_addr.s_addr && a.sin_port == b.sin_port;
}

class ServerTable {
 public:
  // Records that nobody holds are kept for their estimates, this many where nobody says otherwise; past them the one
  // let go longest ago is forgotten.
  static constexpr unsigned kIdleMax = 256;

  ServerTable();
  ~ServerTable();
  ServerTable(const ServerTable &) = delete;
  ServerTable &operator=(const ServerTable &) = delete;

  // hold returns the record of an address and counts a holder, or null without memory; release drops one.
  [[nodiscard]] Server *hold(const sockaddr_in &address);
  void hold_again(Server *server) { ++server->holders; }
  void release(Server *server);

  // keep_idle sets how many records that nobody holds are kept; 0 for kIdleMax.
  void keep_idle(unsigned most) { idle_max_ = most > 0 ? most : kIdleMax; }

  template <typename Use>
  void each(Use use) {
    pelk_lock lock(&mutex_);
    for (Server *server : buckets_)
      for (; server != nullptr; server = server->bucket_next)
        use(server);
  }

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
  static constexpr unsigned kBuckets = 4096;
  [[nodiscard]] Server *find(const sockaddr_in &address) PELK_REQUIRES(mutex_);
  void forget(Server *server) PELK_REQUIRES(mutex_);

  pelk_mutex_t mutex_;
  Server *buckets_[kBuckets] PELK_GUARDED_BY(mutex_) = {};
  base::Link idle_;
  unsigned idle_count_ = 0;
  unsigned idle_max_ = kIdleMax;
};

}  // namespace dns

#endif  // DNS_ENGINE_SERVERS_H
