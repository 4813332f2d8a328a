// world_io.cc - the table of functions through which the engine reaches the simulated world.
#include <check.h>

#include <algorithm>
#include <cerrno>

#include "world.h"

namespace sim {
namespace {

constexpr int64_t kUsPerSecond = 1'000'000;

void fill(const Bytes &bytes, const dns::Address &peer, dns::Datagram *datagram) {
  datagram->size = static_cast<uint32_t>(bytes.size());
  datagram->peer = peer;
  std::copy_n(bytes.begin(), std::min<size_t>(bytes.size(), datagram->capacity), datagram->data);
}

}  // namespace

dns_time World::wall(void *self) {
  return static_cast<World *>(self)->now_us / kUsPerSecond;
}

bool World::random_bytes(void *self, void *bytes, size_t size) {
  auto *world = static_cast<World *>(self);
  std::generate_n(static_cast<uint8_t *>(bytes), size, [world] { return static_cast<uint8_t>(world->random(256)); });
  return true;
}

bool World::refuses(dns::Family family) {
  const bool lacks = routeless.contains(family);
  refused += lacks ? 1 : 0;
  return lacks;
}

int World::udp_open(void *self, dns::Family family, uint16_t, const dns::Address *peer) {
  auto *world = static_cast<World *>(self);
  if (peer != nullptr && world->refuses(family)) return -ENETUNREACH;
  world->families_[world->next_socket_] = family;
  if (peer != nullptr) world->connected_[world->next_socket_] = *peer;
  world->inboxes_[world->next_socket_];
  ++world->sockets_open;
  return world->next_socket_++;
}

void World::udp_close(void *self, int socket) {
  auto *world = static_cast<World *>(self);
  world->inboxes_.erase(socket);
  world->connected_.erase(socket);
  world->returned_.erase(socket);
  world->drops_.erase(socket);
  --world->sockets_open;
}

int World::udp_send(void *self, int socket, const dns::Datagram *datagrams, unsigned count, bool) {
  auto *world = static_cast<World *>(self);
  if (world->send_buffers_full) return -EAGAIN;
  if (world->refuses(world->families_.at(socket))) return -ENETUNREACH;
  for (unsigned i = 0; i < count; ++i) {
    testbed::check(datagrams[i].peer.family == world->families_.at(socket), "a packet leaves by its family's socket");
    world->send(socket, datagrams[i]);
  }
  return static_cast<int>(count);
}

int World::udp_receive(void *self, int socket, dns::Datagram *datagrams, unsigned count, bool connected) {
  auto &inbox = static_cast<World *>(self)->inboxes_.at(socket);
  unsigned got = 0;
  for (; got < count && !inbox.empty(); ++got, inbox.pop_front())
    fill(inbox.front().bytes, connected ? dns::Address{} : inbox.front().from, &datagrams[got]);
  return got == 0 ? -EAGAIN : static_cast<int>(got);
}

int World::udp_returned(void *self, int socket, dns::Datagram *datagram) {
  auto &returned = static_cast<World *>(self)->returned_[socket];
  if (returned.empty()) return 0;
  fill(returned.front().bytes, returned.front().from, datagram);
  returned.pop_front();
  return 1;
}

int World::udp_dropped(void *self, int socket) {
  auto *world = static_cast<World *>(self);
  const auto drops = world->drops_.find(socket);
  return drops == world->drops_.end() ? 0 : drops->second;
}

int World::tcp_open(void *self, const dns::Address &peer) {
  auto *world = static_cast<World *>(self);
  const std::string text = name_of(peer);
  if (world->refuses(peer.family)) return -ENETUNREACH;
  const Temper temper = world->script ? Temper::good : world->tempers_.at(text);
  if (world->tcp_errors > 0 && world->tcp_errors-- > 0) return world->tcp_error;
  if (temper == Temper::refuses_tcp || temper == Temper::lowers_case) return -ECONNREFUSED;
  world->streams_[world->next_socket_] = {text, temper, {}, {}, 0, world->answers_per_connection == 0};
  ++world->connections_made;
  ++world->sockets_open;
  return world->next_socket_++;
}

void World::tcp_close(void *self, int socket) {
  auto *world = static_cast<World *>(self);
  world->streams_.erase(socket);
  --world->sockets_open;
}

// A connection's server takes a part of what it is sent, and answers whole queries, the last first of those that have
// come together.
int World::tcp_send(void *self, int socket, const uint8_t *bytes, size_t size) {
  auto *world = static_cast<World *>(self);
  Stream &stream = world->streams_.at(socket);
  if (world->chance(world->weather.breaks_percent)) return -ECONNRESET;
  if (stream.closed) return -EPIPE;
  const size_t taken = 1 + world->random(size);
  stream.in.insert(stream.in.end(), bytes, bytes + taken);
  std::vector<Bytes> queries;
  while (stream.in.size() >= 2) {
    const size_t length = stream.in[0] * 256U + stream.in[1];
    if (stream.in.size() < 2 + length) break;
    queries.emplace_back(stream.in.begin() + 2, stream.in.begin() + 2 + static_cast<long>(length));
    stream.in.erase(stream.in.begin(), stream.in.begin() + 2 + static_cast<long>(length));
  }
  for (auto query = queries.rbegin(); query != queries.rend() && !stream.closed; ++query)
    world->answer_stream(&stream, *query);
  return static_cast<int>(taken);
}

int World::tcp_receive(void *self, int socket, uint8_t *bytes, size_t size) {
  auto *world = static_cast<World *>(self);
  Stream &stream = world->streams_.at(socket);
  if (stream.out.empty() && stream.closed) return 0;
  if (stream.out.empty()) return world->chance(world->weather.breaks_percent) ? 0 : -EAGAIN;
  const size_t taken = std::min<size_t>(size, 1 + world->random(stream.out.size()));
  std::copy_n(stream.out.begin(), taken, bytes);
  stream.out.erase(stream.out.begin(), stream.out.begin() + static_cast<long>(taken));
  return static_cast<int>(taken);
}

}  // namespace sim
