// server_table.cc - see server_table.h.
#include "server_table.h"

#include <stdlib.h>
#include <string.h>

#include <new>

namespace dns {
namespace {

uint32_t hash_of(const Address &address) {
  // Zones choose the addresses of their servers, but the table holds too few records for long chains.
  constexpr uint64_t kGolden = 0x9E3779B97F4A7C15;
  uint64_t words[sizeof address / sizeof(uint64_t)];
  memcpy(words, &address, sizeof words);
  uint64_t hash = 0;
  for (const uint64_t word : words) {
    hash = (hash ^ word) * kGolden;
    hash ^= hash >> 32;
  }
  return static_cast<uint32_t>(hash);
}

}  // namespace

ServerTable::ServerTable() {
  (void)pelk_mutex_init(&mutex_);
}

ServerTable::~ServerTable() {
  {
    pelk_lock lock(&mutex_);
    // The analysis cannot see into the function that the lock is held around.
    servers_.drain([this](Server *server) PELK_NO_ANALYSIS { forget(server); });
  }
  (void)pelk_mutex_destroy(&mutex_);
}

Server *ServerTable::find(const Address &address) {
  Server *server = servers_.first(hash_of(address));
  while (server != nullptr && !(server->address == address))
    server = server->bucket_next;
  return server;
}

Server *ServerTable::hold(const Address &address) {
  pelk_lock lock(&mutex_);
  Server *server = find(address);
  if (server == nullptr) {
    void *block = servers_.ready() ? malloc(sizeof(Server)) : nullptr;
    if (block == nullptr) return nullptr;
    server = new (block) Server;
    server->address = address;
    server->hash = hash_of(address);
    servers_.add(server);
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
  servers_.remove(server);
  server->unlink();
  server->~Server();
  free(server);
}

}  // namespace dns
