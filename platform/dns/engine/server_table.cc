// server_table.cc - see server_table.h.
#include "server_table.h"

#include <stdlib.h>

#include <new>

namespace dns {
namespace {

uint32_t hash_of(const sockaddr_in &address) {
  // Addresses come from the host's own configuration, so a plain multiplicative hash will do.
  constexpr uint64_t kGolden = 0x9E3779B97F4A7C15;
  const uint64_t key = uint64_t{address.sin_addr.s_addr} << 16 | address.sin_port;
  return static_cast<uint32_t>((key * kGolden) >> 32);
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

Server *ServerTable::find(const sockaddr_in &address) {
  Server *server = servers_.first(hash_of(address));
  while (server != nullptr && !same_address(server->address, address))
    server = server->bucket_next;
  return server;
}

Server *ServerTable::hold(const sockaddr_in &address) {
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
