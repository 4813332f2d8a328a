#include "world.h"

#include <check.h>
#include <invariants.h>
#include <open.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace sim {
namespace {

constexpr int64_t kUsPerSecond = 1'000'000;
constexpr size_t kUdpMax = 1232;

}  // namespace

World::World(uint64_t seed)
    : random_(seed), io_{this,         wall,        random_bytes, udp_open,  udp_close, udp_send,   udp_receive,
                         udp_returned, udp_dropped, tcp_open,     tcp_close, tcp_send,  tcp_receive} {
  ctx = dns::context_new(&io_);
  if (ctx == nullptr || dns_open(ctx) != DNS_E_NOERROR) throw std::runtime_error("no engine context");
}

World::~World() {
  dns_destroy(ctx);
  testbed::check(sockets_open == 0, "a context that is destroyed closes every socket");
}

void World::add_server(const std::string &address, Temper temper) {
  tempers_[address] = temper;
  if (dns_add_serv(ctx, address.c_str()) <= 0) throw std::runtime_error("server refused");
}

void World::worsen(int forged_percent_max) {
  const auto draw = [this](int below) { return static_cast<int>(random(static_cast<uint64_t>(below))); };
  weather.loss_percent = draw(30);
  weather.duplicate_percent = draw(20);
  weather.delay_us = 200;
  weather.jitter_us = draw(80'000);
  weather.forged_percent = forged_percent_max > 0 ? draw(forged_percent_max) : 0;
  weather.breaks_percent = draw(20);
}

dns_timeval World::now() const {
  return {static_cast<int32_t>(now_us / kUsPerSecond), static_cast<int32_t>(now_us % kUsPerSecond)};
}

bool World::turn() {
  const dns_timeval wait = dns_timeouts(ctx, dns_tv_infinite, now());
  if (wait == dns_tv_infinite) return false;
  int64_t next = now_us + int64_t{wait.dnstv_sec} * kUsPerSecond + wait.dnstv_usec;
  if (!under_way_.empty()) next = std::min(next, under_way_.begin()->first);
  const bool talks = std::any_of(streams_.begin(), streams_.end(),
                                 [](const auto &stream) { return !stream.second.out.empty() || stream.second.closed; });
  const bool returns =
      std::any_of(returned_.begin(), returned_.end(), [](const auto &returned) { return !returned.second.empty(); });
  if (talks || returns) next = std::min(next, now_us + weather.delay_us);
  now_us = std::max(now_us, next);
  deliver_due();
  read_sockets();
  dns::check_all(ctx);
  return true;
}

void World::read_sockets() {
  std::array<dns_ios, 96> sockets;
  const int count = dns_sockio(ctx, sockets.data(), sockets.size());
  testbed::check(count >= 0, "sockets can be listed");
  for (dns_ios socket : std::span(sockets).first(std::min(static_cast<size_t>(count), sockets.size()))) {
    const int id = socket.dnsio_sock;
    const auto stream = streams_.find(id);
    if (stream == streams_.end() && inboxes_.count(id) == 0) continue;  // the event before has closed it
    const bool writable = (socket.dnsio_events & DNS_IO_OUT) != 0 && !send_buffers_full;
    const bool readable = stream != streams_.end() ? stream->second.closed || !stream->second.out.empty()
                                                   : !inboxes_[id].empty() || !returned_[id].empty();
    socket.dnsio_events = (readable ? unsigned{DNS_IO_IN} : 0U) | (writable ? unsigned{DNS_IO_OUT} : 0U);
    if (socket.dnsio_events != 0) dns_ioevent(ctx, &socket, now());
  }
}

bool World::run(unsigned turns_max) {
  for (unsigned i = 0; i < turns_max; ++i)
    if (!turn()) return true;
  return false;
}

void World::deliver_due() {
  while (!under_way_.empty() && under_way_.begin()->first <= now_us) {
    Parcel parcel = std::move(under_way_.begin()->second);
    under_way_.erase(under_way_.begin());
    const auto inbox = inboxes_.find(parcel.socket);
    if (inbox == inboxes_.end()) continue;
    if (inbox->second.size() < inbox_room)
      inbox->second.push_back(std::move(parcel));
    else
      ++drops_[parcel.socket];
  }
}

// hears tells whether the system lets a socket have packets from an address.
bool World::hears(int socket, const dns::Address &from) const {
  const auto only = connected_.find(socket);
  return only != connected_.end() ? only->second == from : families_.at(socket) == from.family;
}

bool World::take(const std::string &server, Temper *temper, int64_t *wait_us) {
  const auto found = capacities.find(server);
  if (found == capacities.end()) return true;
  Capacity &capacity = found->second;
  const int64_t begins_us = std::max(capacity.busy_until_us, now_us);
  if (begins_us - now_us > capacity.queue * capacity.service_us) {
    ++capacity.dropped;
    return false;
  }
  capacity.busy_until_us = begins_us + capacity.service_us;
  *wait_us = capacity.busy_until_us - now_us;
  constexpr int64_t kPeriodUs = 20'000;
  const int64_t period = now_us / kPeriodUs;
  if (std::exchange(capacity.period, period) != period) capacity.in_period = 0;
  if (++capacity.in_period > capacity.per_second * kPeriodUs / kUsPerSecond) *temper = capacity.above;
  return true;
}

void World::mail(int socket, const dns::Address &from, Bytes bytes, int64_t wait_us) {
  if (bytes.empty() || !hears(socket, from) || chance(weather.loss_percent)) return;
  const auto delay = delays_us.find(name_of(from));
  const int64_t delay_us = delay != delays_us.end() ? delay->second : 0;
  const int copies = chance(weather.duplicate_percent) ? 2 : 1;
  for (int i = 0; i < copies; ++i) {
    const int64_t jitter =
        weather.jitter_us > 0 ? static_cast<int64_t>(random(static_cast<uint64_t>(weather.jitter_us))) : 0;
    under_way_.emplace(now_us + wait_us + weather.delay_us + delay_us + jitter, Parcel{socket, from, bytes});
  }
}

void World::forge(const std::string &server, const Bytes &packet, uint16_t port) {
  for (auto &[socket, inbox] : inboxes_)
    if (hears(socket, address_of(server, port))) inbox.push_back({socket, address_of(server, port), packet});
}

// forge_answers sends the answers of a forger that knows the query and the server's address, and guesses the id and the
// socket.
void World::forge_answers(int socket, const dns::Address &peer, const Bytes &query) {
  Bytes forged = answer_to(query, Temper::good);
  forged[0] = static_cast<uint8_t>(random(256));
  forged[1] = static_cast<uint8_t>(random(256));
  forged.back() ^= 0xFF;
  const bool guessed = forged[0] == query[0] && forged[1] == query[1];
  if (!guessed) mail(socket, peer, forged);
  auto other = std::next(inboxes_.begin(), static_cast<long>(random(inboxes_.size())));
  Bytes right_id = answer_to(query, Temper::good);
  right_id.back() ^= 0xFF;
  if (homes_[{query[0], query[1]}].count(other->first) == 0) mail(other->first, peer, right_id);
  dns::Address stranger = peer;
  stranger.octets[peer.ip().size() - 1] ^= 0xFF;
  mail(socket, stranger, right_id);
}

void World::send(int socket, const dns::Datagram &datagram) {
  ++packets_sent;
  const Bytes query(datagram.data, datagram.data + datagram.size);
  last_query_ = query;
  const std::string server = name_of(datagram.peer);
  ++asked[server];
  homes_[{query[0], query[1]}].insert(socket);
  if (chance(weather.forged_percent)) forge_answers(socket, datagram.peer, query);
  if (chance(weather.loss_percent)) return;
  Temper temper = script ? Temper::good : tempers_.at(server);
  int64_t wait_us = 0;
  if (!take(server, &temper, &wait_us)) return;
  const bool absent = !script && temper == Temper::absent;
  Reply reply = script ? script(query, server) : answer_to(query, temper);
  const int returns = absent && chance(weather.duplicate_percent) ? 2 : absent || reply.returned ? 1 : 0;
  for (int i = 0; i < returns; ++i)
    returned_[socket].push_back({socket, datagram.peer, query});
  if (reply.bytes.size() > kUdpMax && !reply.whole) {
    reply.bytes = testbed::Packet::reply(query).bytes;
    reply.bytes[testbed::kFlagsAt] |= testbed::kTc;
  }
  for (unsigned i = 0; i < reply.copies; ++i)
    mail(socket, reply.from.empty() ? datagram.peer : address_of(reply.from), reply.bytes, wait_us);
}

// answer_stream has the server at a connection's other end answer one query.
void World::answer_stream(Stream *stream, const Bytes &query) {
  by_tcp = true;
  const Reply reply = script ? script(query, stream->server) : answer_to(query, stream->temper, true);
  by_tcp = false;
  for (unsigned i = 0; i < reply.copies && (!reply.bytes.empty() || reply.closes); ++i) {
    const Bytes length = reply.framed ? testbed::u16(static_cast<unsigned>(reply.bytes.size())) : Bytes{};
    stream->out.insert(stream->out.end(), length.begin(), length.end());
    stream->out.insert(stream->out.end(), reply.bytes.begin(), reply.bytes.end());
  }
  if (!reply.bytes.empty()) ++stream->answers;
  stream->closed = stream->closed || reply.closes || stream->answers >= answers_per_connection;
}

}  // namespace sim
