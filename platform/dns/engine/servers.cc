// servers.cc - the table of server records; see servers.h.
#include "servers.h"

#include <stdlib.h>

#include <algorithm>
#include <new>

namespace dns {
namespace {

unsigned bucket_of(const sockaddr_in &address, unsigned buckets) {
  // Addresses come from the host's own configuration, so a plain multiplicative hash will do.
  constexpr uint64_t kGolden = 0x9E3779B97F4A7C15;
  const uint64_t key = uint64_t{address.sin_addr.s_addr} << 16 | address.sin_port;
  return static_cast<unsigned>((key * kGolden) >> 32) % buckets;
}

constexpr int64_t kUsPerMs = 1000;
constexpr int64_t kCrowdMax = 64;
constexpr unsigned kLossWeight = 8;  // one try is an eighth of what is remembered

}  // namespace

void Server::sample(int64_t rtt_us, dns_time now) {
  const int64_t rtt = std::max<int64_t>(rtt_us, 1);
  if (srtt_us == 0) {
    srtt_us = rtt;
    deviation_us = rtt / 2;
  } else {
    // Many samples within one round trip, the fastest first, must not wear the deviation down (RFC 7323, appendix G).
    const int64_t crowd = std::clamp<int64_t>((int64_t{under_way} + 1) / 2, 1, kCrowdMax);
    const int64_t error = rtt > srtt_us ? rtt - srtt_us : srtt_us - rtt;
    deviation_us += (error - deviation_us) / (4 * crowd);
    srtt_us = std::max<int64_t>(srtt_us + (rtt - srtt_us) / (8 * crowd), 1);
  }
  average_ms.store(static_cast<int>((srtt_us + kUsPerMs / 2) / kUsPerMs), std::memory_order_relaxed);
  last_ms.store(static_cast<int>((rtt + kUsPerMs / 2) / kUsPerMs), std::memory_order_relaxed);
  last_check.store(now, std::memory_order_relaxed);
}

void Server::heard(int64_t now_us) {
  heard_us = now_us;
  silent = 0;
  loss -= loss / kLossWeight;
}

bool Server::missed(int64_t sent_us, int64_t now_us) {
  if (loss == 0) loss_us = now_us;
  loss += static_cast<uint32_t>(kLossWhole - loss) / kLossWeight;
  // One that answers others meanwhile is there, whatever became of this try.
  return heard_us <= sent_us && ++silent == kSilentMax;
}

void Server::forget_losses(int64_t now_us, int64_t half_life_us) {
  const int64_t halves = (now_us - loss_us) / half_life_us;
  constexpr int64_t kBits = 31;
  loss >>= std::min(halves, kBits);
  loss_us += halves * half_life_us;
}

int64_t Server::patience_us(unsigned round, int64_t longest_us) const {
  if (srtt_us == 0) return longest_us;
  constexpr unsigned kRoundsMax = 16;  // keeps the doubling within 64 bits
  const int64_t estimate = std::max(kPatienceMinUs, srtt_us + 4 * deviation_us);
  return std::min(longest_us, estimate << std::min(round, kRoundsMax));
}

ServerTable::ServerTable() {
  (void)pelk_mutex_init(&mutex_);
}

ServerTable::~ServerTable() {
  {
    pelk_lock lock(&mutex_);
    for (Server *&bucket : buckets_)
      while (bucket != nullptr) {
        Server *server = bucket;
        bucket = server->bucket_next;
        server->unlink();
        server->~Server();
        free(server);
      }
  }
  (void)pelk_mutex_destroy(&mutex_);
}

Server *ServerTable::find(const sockaddr_in &address) {
  Server *server = buckets_[bucket_of(address, kBuckets)];
  while (server != nullptr && !same_address(server->address, address))
    server = server->bucket_next;
  return server;
}

Server *ServerTable::hold(const sockaddr_in &address) {
  pelk_lock lock(&mutex_);
  Server *server = find(address);
  if (server == nullptr) {
    void *block = calloc(1, sizeof(Server));
    if (block == nullptr) return nullptr;
    server = new (block) Server();
    server->address = address;
    Server *&bucket = buckets_[bucket_of(address, kBuckets)];
    server->bucket_next = bucket;
    bucket = server;
  } else if (server->holders == 0) {
    server->unlink();
    --idle_count_;
  }
  ++server->holders;
  return server;
}

void ServerTable::release(Server *server) {
  if (--server->holders > 0) return;
  pelk_lock lock(&mutex_);
  idle_.append(server);
  for (++idle_count_; idle_count_ > idle_max_; --idle_count_)
    forget(static_cast<Server *>(idle_.next));
}

void ServerTable::forget(Server *server) {
  Server **at = &buckets_[bucket_of(server->address, kBuckets)];
  while (*at != server)
    at = &(*at)->bucket_next;
  *at = server->bucket_next;
  server->unlink();
  server->~Server();
  free(server);
}

}  // namespace dns
