// server_table.cc - see server_table.h.
#include "server_table.h"

#include <stdlib.h>

#include <new>

namespace dns {
namespace {

unsigned bucket_of(const sockaddr_in &address, unsigned buckets) {
  // Addresses come from the host's own configuration, so a plain multiplicative hash will do.
  constexpr uint64_t kGolden = 0x9E3779B97F4A7C15;
  const uint64_t key = uint64_t{address.sin_addr.s_addr} << 16 | address.sin_port;
  return static_cast<unsigned>((key * kGolden) >> 32) % buckets;
}

}  // namespace

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
