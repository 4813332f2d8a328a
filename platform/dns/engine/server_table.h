// server_table.h - the records of servers, by address. The thread that drives the context makes, finds and releases
// them. The table's lock guards its structure, so that any thread may read a server's statistics meanwhile.
#ifndef DNS_ENGINE_SERVER_TABLE_H
#define DNS_ENGINE_SERVER_TABLE_H

#include <address.h>
#include <chained_table.h>
#include <list.h>
#include <pelk_annotations.h>
#include <pelk_sync.h>

#include "bounds.h"
#include "server.h"

namespace dns {

class ServerTable {
 public:
  ServerTable();
  ~ServerTable();
  ServerTable(const ServerTable &) = delete;
  ServerTable &operator=(const ServerTable &) = delete;

  // hold returns the record of an address and counts a holder, or null without memory; release drops one.
  [[nodiscard]] Server *hold(const Address &address);
  void hold_again(Server *server) { ++server->holders; }
  void release(Server *server);

  // keep_idle sets how many records without a holder are kept for their estimates; 0 for kIdleServersMax. Beyond that
  // the one released longest ago is deleted.
  void keep_idle(unsigned most) { idle_max_ = most > 0 ? most : kIdleServersMax; }

  template <typename Use>
  void each(Use use) {
    pelk_lock lock(&mutex_);
    servers_.each(use);
  }

  // read calls `use` with the address's record while the table's lock is held; false when there is none. Any thread.
  template <typename Use>
  bool read(const Address &address, Use use) {
    pelk_lock lock(&mutex_);
    Server *server = find(address);
    if (server == nullptr) return false;
    use(*server);
    return true;
  }

 private:
  [[nodiscard]] Server *find(const Address &address) PELK_REQUIRES(mutex_);
  void forget(Server *server) PELK_REQUIRES(mutex_);

  pelk_mutex_t mutex_;
  base::ChainedTable<Server, &Server::bucket_next, &Server::hash> servers_ PELK_GUARDED_BY(mutex_);
  base::Link idle_;
  unsigned idle_count_ = 0;
  unsigned idle_max_ = kIdleServersMax;
};

}  // namespace dns

#endif  // DNS_ENGINE_SERVER_TABLE_H
