// simulation.cc - see simulation.h.
#include "simulation.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "../../platform/dns/engine/state.h"

namespace dns {
dns_ctx *context_new(const Io *io);  // the engine's, over a world of one's own
}

namespace sim {
namespace {

constexpr int64_t kUsPerSecond = 1'000'000;
constexpr uint32_t kTtl = 300;
constexpr size_t kUdpMax = 1232;

// A packet being written with the writer of the library under test would hide its faults, so this one is the test's
// own.
struct Packet {
  Bytes bytes;
  void u8(unsigned value) { bytes.push_back(static_cast<uint8_t>(value)); }
  void u16(unsigned value) {
    u8(value >> 8);
    u8(value & 255);
  }
  void u32(uint32_t value) {
    u16(value >> 16);
    u16(value & 65535);
  }
  void name(const std::string &dotted) {
    size_t at = 0;
    while (at < dotted.size()) {
      const size_t dot = std::min(dotted.find('.', at), dotted.size());
      u8(static_cast<unsigned>(dot - at));
      bytes.insert(bytes.end(), dotted.begin() + static_cast<long>(at), dotted.begin() + static_cast<long>(dot));
      at = dot + 1;
    }
    u8(0);
  }
  void record(unsigned type, const Bytes &data) {
    u16(type);
    u16(DNS_C_IN);
    u32(kTtl);
    u16(static_cast<unsigned>(data.size()));
    bytes.insert(bytes.end(), data.begin(), data.end());
  }
};

Bytes name_data(const std::string &dotted) {
  Packet data;
  data.name(dotted);
  return data.bytes;
}

Bytes address_data(in_addr_t address) {
  Packet data;
  data.u32(address);
  return data.bytes;
}

Bytes soa_data() {
  Packet data{name_data("ns.test")};
  data.name("admin.test");
  for (const uint32_t figure : {1U, 3600U, 600U, 86400U, 60U})
    data.u32(figure);
  return data.bytes;
}

size_t question_end(const Bytes &packet) {
  size_t at = DNS_HSIZE;
  while (packet.at(at) != 0)
    at += packet[at] + 1U;
  return at + 5;
}

void set_counts(Bytes *packet, unsigned answers, unsigned authority, unsigned rcode, bool authoritative = true) {
  (*packet)[2] = static_cast<uint8_t>(0x80 | ((*packet)[2] & 1) | (authoritative ? 4 : 0));
  (*packet)[3] = static_cast<uint8_t>(rcode);
  (*packet)[7] = static_cast<uint8_t>(answers);
  (*packet)[9] = static_cast<uint8_t>(authority);
  (*packet)[11] = 0;
}

// echo is the header and the question, where every answer starts.
Packet echo(const Bytes &question) {
  return {Bytes(question.begin(), question.begin() + static_cast<long>(question_end(question)))};
}

Bytes bare(const Bytes &question, unsigned rcode) {
  Packet packet = echo(question);
  set_counts(&packet.bytes, 0, 0, rcode);
  return packet.bytes;
}

Bytes honest(const Bytes &question) {
  const Truth truth = truth_of(question.data() + DNS_HSIZE);
  Packet packet = echo(question);
  if (truth.status == DNS_E_NOERROR) {
    packet.u16(0xC00C);
    packet.record(DNS_T_A, address_data(truth.address));
    set_counts(&packet.bytes, 1, 0, DNS_R_NOERROR);
  } else {
    packet.u8(0);  // the root's own SOA covers every name
    packet.record(DNS_T_SOA, soa_data());
    set_counts(&packet.bytes, 0, 1, truth.status == DNS_E_NXDOMAIN ? DNS_R_NXDOMAIN : DNS_R_NOERROR);
  }
  return packet.bytes;
}

// aliased answers through two aliases that stand behind their targets, or through two that point at each other.
Bytes aliased(const Bytes &question, bool loop) {
  const Truth truth = truth_of(question.data() + DNS_HSIZE);
  if (truth.status != DNS_E_NOERROR && !loop) return honest(question);
  Packet packet = echo(question);
  if (!loop) {
    packet.name("end.test");
    packet.record(DNS_T_A, address_data(truth.address));
  }
  packet.name("middle.test");
  packet.record(DNS_T_CNAME, name_data(loop ? "end.test" : "END.test"));
  packet.u16(0xC00C);
  packet.record(DNS_T_CNAME, name_data("middle.test"));
  if (loop) {
    packet.name("end.test");
    packet.record(DNS_T_CNAME, name_data("middle.test"));
  }
  set_counts(&packet.bytes, 3, 0, DNS_R_NOERROR);
  return packet.bytes;
}

Bytes referral(const Bytes &question) {
  Packet packet = echo(question);
  packet.name("test");
  packet.record(DNS_T_NS, name_data("ns.test"));
  set_counts(&packet.bytes, 0, 1, DNS_R_NOERROR, false);
  return packet.bytes;
}

// with_cookie answers with the server's cookie, or with BADCOOKIE a question that lacks it.
Bytes with_cookie(const Bytes &question, Bytes answer) {
  constexpr size_t kClient = 8, kServer = 16, kOptHead = 11, kOptionHead = 4;
  const size_t at = question_end(question) + kOptHead + kOptionHead;
  if (question.size() < at + kClient) return answer;  // no cookie, no terms
  const bool knows = question.size() == at + kClient + kServer && question[at + kClient] == 'S';
  Packet packet{knows ? answer : bare(question, 7)};
  packet.u8(0);
  packet.u16(DNS_T_OPT);
  packet.u16(1232);
  packet.u32(knows ? 0 : 1U << 24);  // BADCOOKIE is 23: the upper bits stand here
  packet.u16(kOptionHead + kClient + kServer);
  packet.u16(10);
  packet.u16(kClient + kServer);
  packet.bytes.insert(packet.bytes.end(), question.begin() + static_cast<long>(at),
                      question.begin() + static_cast<long>(at + kClient));
  packet.bytes.insert(packet.bytes.end(), kServer, 'S');
  packet.bytes[11] = 1;
  return packet.bytes;
}

Bytes wrongly(Bytes answer, size_t byte) {
  answer.at(byte) ^= 0x21;
  return answer;
}

}  // namespace

std::array<uint8_t, DNS_MAXDN> name(const std::string &text) {
  std::array<uint8_t, DNS_MAXDN> dn{};
  if (dns_ptodn(text.data(), static_cast<unsigned>(text.size()), dn.data(), DNS_MAXDN, nullptr) <= 0)
    throw std::invalid_argument(text);
  return dn;
}

Truth truth_of(const uint8_t *dn) {
  std::string label(reinterpret_cast<const char *>(dn) + 1, dn[0]);
  std::transform(label.begin(), label.end(), label.begin(), [](char c) { return static_cast<char>(tolower(c)); });
  const auto cost_zone = name("cost.test");
  const uint8_t *zone = dn;
  for (int i = 0; i < 4 && *zone != 0; ++i)
    zone += 1 + *zone;
  if (dns_dnequal(zone, cost_zone.data()) != 0)
    return {DNS_E_NOERROR, 0x7F000000U | static_cast<in_addr_t>(stoul(label)) * 257};
  if (label.starts_with("gone-")) return {DNS_E_NXDOMAIN, 0};
  if (label.starts_with("empty-")) return {DNS_E_NODATA, 0};
  return {DNS_E_NOERROR, 0x0A000000U | (static_cast<uint32_t>(std::hash<std::string>{}(label)) & 0xFFFFFF)};
}

Bytes answer_to(const Bytes &question, Temper temper, bool by_tcp) {
  Bytes answer = honest(question);
  switch (temper) {
    case Temper::good:
      return answer;
    case Temper::dead:
    case Temper::absent:
      return {};
    case Temper::refuses:
      return bare(question, DNS_R_REFUSED);
    case Temper::fails:
      return bare(question, DNS_R_SERVFAIL);
    case Temper::knows_no_opt:
      return question[11] == 0 ? answer : bare(question, DNS_R_FORMERR);
    case Temper::lowers_case:
    case Temper::lowers_case_by_tcp:
      std::transform(answer.begin() + DNS_HSIZE, answer.begin() + static_cast<long>(question_end(question)) - 4,
                     answer.begin() + DNS_HSIZE, [](uint8_t c) { return static_cast<uint8_t>(tolower(c)); });
      return answer;
    case Temper::bakes_cookies:
      return with_cookie(question, answer);
    case Temper::truncates:
    case Temper::refuses_tcp:
      if (by_tcp) return answer;
      answer = bare(question, DNS_R_NOERROR);
      answer[2] |= 2;
      return answer;
    case Temper::garbles:
      answer.erase(answer.end() - 3, answer.end());
      return answer;
    case Temper::wrong_name:
      return wrongly(answer, DNS_HSIZE + 2);
    case Temper::wrong_id:
      return wrongly(answer, 1);
    case Temper::wrong_type:
      return wrongly(answer, question_end(question) - 3);
    case Temper::request:
      answer[2] &= 0x7F;
      return answer;
    case Temper::chains:
    case Temper::loops:
      return aliased(question, temper == Temper::loops);
    case Temper::refers:
      return referral(question);
  }
  return {};
}

World::World(uint64_t seed)
    : random_(seed), io_{this,        wall,         random_bytes, udp_open,  udp_close, udp_send,
                         udp_receive, udp_returned, tcp_open,     tcp_close, tcp_send,  tcp_receive} {
  ctx = dns::context_new(&io_);
  if (ctx == nullptr || dns_open(ctx) != DNS_E_NOERROR) throw std::runtime_error("no engine context");
}

World::~World() {
  dns_destroy(ctx);
}

sockaddr_in World::address_of(const std::string &address, uint16_t port) {
  sockaddr_in result{};
  result.sin_family = AF_INET;
  result.sin_port = htons(port);
  if (inet_pton(AF_INET, address.c_str(), &result.sin_addr) != 1) throw std::invalid_argument(address);
  return result;
}

void World::add_server(const std::string &address, Temper temper) {
  tempers_[address] = temper;
  if (dns_add_serv(ctx, address.c_str()) <= 0) throw std::runtime_error("server refused");
}

dns_timeval World::now() const {
  return {static_cast<int32_t>(now_us / kUsPerSecond), static_cast<int32_t>(now_us % kUsPerSecond)};
}

bool World::turn() {
  const dns_timeval wait = dns_timeouts(ctx, dns_tv_infinite, now());
  if (wait == dns_tv_infinite) return false;
  int64_t next = now_us + int64_t{wait.dnstv_sec} * kUsPerSecond + wait.dnstv_usec;
  if (!under_way_.empty()) next = std::min(next, under_way_.begin()->first);
  const bool talks = std::any_of(streams_.begin(), streams_.end(), [this](const auto &stream) {
    return !stream.second.out.empty() || stream.second.answers >= answers_per_connection;
  });
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
  std::vector<dns_ios> sockets(96);
  const int count = dns_sockio(ctx, sockets.data(), static_cast<unsigned>(sockets.size()));
  sockets.resize(static_cast<size_t>(std::min(count, 96)));
  for (dns_ios socket : sockets) {
    const bool writable = (socket.dnsio_events & DNS_IO_OUT) != 0 && !send_buffers_full;
    const bool stream = streams_.count(socket.dnsio_sock) != 0;
    const int id = socket.dnsio_sock;
    const bool closes = stream && streams_[id].answers >= answers_per_connection;
    const bool readable =
        stream ? closes || !streams_[id].out.empty() : !inboxes_[id].empty() || !returned_[id].empty();
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
    if (inbox != inboxes_.end()) inbox->second.push_back(std::move(parcel));
  }
}

void World::mail(int socket, const sockaddr_in &from, Bytes bytes) {
  if (bytes.empty() || chance(weather.loss_percent)) return;
  const auto only = connected_.find(socket);
  if (only != connected_.end() && memcmp(&only->second, &from, sizeof from) != 0) return;
  char text[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, &from.sin_addr, text, sizeof text);
  const auto delay = delays_us.find(text);
  const int64_t delay_us = delay != delays_us.end() ? delay->second : 0;
  const int copies = chance(weather.duplicate_percent) ? 2 : 1;
  for (int i = 0; i < copies; ++i) {
    const int64_t jitter =
        weather.jitter_us > 0 ? static_cast<int64_t>(random(static_cast<uint64_t>(weather.jitter_us))) : 0;
    under_way_.emplace(now_us + weather.delay_us + delay_us + jitter, Parcel{socket, from, bytes});
  }
}

void World::forge(const std::string &server, const Bytes &packet, uint16_t port) {
  for (auto &[socket, inbox] : inboxes_)
    inbox.push_back({socket, address_of(server, port), packet});
}

void World::send(int socket, const dns::Datagram &datagram) {
  ++packets_sent;
  const Bytes question(datagram.data, datagram.data + datagram.size);
  last_question_ = question;
  char text[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, &datagram.peer.sin_addr, text, sizeof text);
  ++asked[text];
  std::set<int> &homes = homes_[{question[0], question[1]}];
  homes.insert(socket);
  if (chance(weather.forged_percent)) {
    // A forger knows the question and the server's address; the id and the socket it has to guess.
    Bytes forged = answer_to(question, Temper::good);
    forged[0] = static_cast<uint8_t>(random(256));
    forged[1] = static_cast<uint8_t>(random(256));
    forged.back() ^= 0xFF;
    const bool guessed = forged[0] == question[0] && forged[1] == question[1];
    if (!guessed) mail(socket, datagram.peer, forged);
    auto other = std::next(inboxes_.begin(), static_cast<long>(random(inboxes_.size())));
    Bytes right_id = answer_to(question, Temper::good);
    right_id.back() ^= 0xFF;
    if (homes.count(other->first) == 0) mail(other->first, datagram.peer, right_id);
    sockaddr_in stranger = datagram.peer;
    stranger.sin_addr.s_addr ^= htonl(0xFF);
    mail(socket, stranger, right_id);
  }
  if (chance(weather.loss_percent)) return;
  const int returns = script || tempers_.at(text) != Temper::absent ? 0 : chance(weather.duplicate_percent) ? 2 : 1;
  for (int i = 0; i < returns; ++i)
    returned_[socket].push_back({socket, datagram.peer, question});
  Bytes answer = script ? script(question, text) : answer_to(question, tempers_.at(text));
  if (answer.size() > kUdpMax) {
    answer = bare(question, DNS_R_NOERROR);
    answer[2] |= 2;
  }
  mail(socket, datagram.peer, std::move(answer));
}

dns_time World::wall(void *self) {
  return static_cast<World *>(self)->now_us / kUsPerSecond;
}

bool World::random_bytes(void *self, void *bytes, size_t size) {
  auto *world = static_cast<World *>(self);
  std::generate_n(static_cast<uint8_t *>(bytes), size, [world] { return static_cast<uint8_t>(world->random(256)); });
  return true;
}

int World::udp_open(void *self, uint16_t, const sockaddr_in *peer) {
  auto *world = static_cast<World *>(self);
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
  --world->sockets_open;
}

int World::udp_send(void *self, int socket, const dns::Datagram *datagrams, unsigned count, bool) {
  auto *world = static_cast<World *>(self);
  if (world->send_buffers_full) return -EAGAIN;
  for (unsigned i = 0; i < count; ++i)
    world->send(socket, datagrams[i]);
  return static_cast<int>(count);
}

int World::udp_receive(void *self, int socket, dns::Datagram *datagrams, unsigned count) {
  auto &inbox = static_cast<World *>(self)->inboxes_.at(socket);
  unsigned got = 0;
  for (; got < count && !inbox.empty(); ++got, inbox.pop_front()) {
    const Parcel &parcel = inbox.front();
    datagrams[got].size = static_cast<uint32_t>(parcel.bytes.size());
    datagrams[got].peer = parcel.from;
    memcpy(datagrams[got].data, parcel.bytes.data(), std::min<size_t>(parcel.bytes.size(), datagrams[got].capacity));
  }
  return got == 0 ? -EAGAIN : static_cast<int>(got);
}

int World::udp_returned(void *self, int socket, dns::Datagram *datagram) {
  auto &returned = static_cast<World *>(self)->returned_[socket];
  if (returned.empty()) return 0;
  const Parcel parcel = std::move(returned.front());
  returned.pop_front();
  datagram->size = static_cast<uint32_t>(parcel.bytes.size());
  datagram->peer = parcel.from;
  memcpy(datagram->data, parcel.bytes.data(), std::min<size_t>(parcel.bytes.size(), datagram->capacity));
  return 1;
}

int World::tcp_open(void *self, const sockaddr_in &peer) {
  auto *world = static_cast<World *>(self);
  char text[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, &peer.sin_addr, text, sizeof text);
  const Temper temper = world->script ? Temper::good : world->tempers_.at(text);
  if (world->tcp_errors > 0 && world->tcp_errors-- > 0) return world->tcp_error;
  if (temper == Temper::refuses_tcp || temper == Temper::lowers_case) return -ECONNREFUSED;
  world->streams_[world->next_socket_] = {text, temper, {}, {}, 0};
  ++world->connections_made;
  ++world->sockets_open;
  return world->next_socket_++;
}

void World::tcp_close(void *self, int socket) {
  auto *world = static_cast<World *>(self);
  world->streams_.erase(socket);
  --world->sockets_open;
}

// A stream's server answers whole messages, the last first where several arrived together, and lets go of every third
// piece that it is sent when the weather is bad.
int World::tcp_send(void *self, int socket, const uint8_t *bytes, size_t size) {
  auto *world = static_cast<World *>(self);
  Stream &stream = world->streams_.at(socket);
  if (world->chance(world->weather.breaks_percent)) return -ECONNRESET;
  if (stream.answers >= world->answers_per_connection) return -EPIPE;
  const size_t taken = 1 + world->random(size);
  stream.in.insert(stream.in.end(), bytes, bytes + taken);
  std::vector<Bytes> questions;
  while (stream.in.size() >= 2) {
    const size_t length = stream.in[0] * 256U + stream.in[1];
    if (stream.in.size() < 2 + length) break;
    questions.emplace_back(stream.in.begin() + 2, stream.in.begin() + 2 + static_cast<long>(length));
    stream.in.erase(stream.in.begin(), stream.in.begin() + 2 + static_cast<long>(length));
  }
  for (auto question = questions.rbegin(); question != questions.rend(); ++question) {
    if (stream.answers >= world->answers_per_connection) break;
    world->by_tcp = true;
    const Bytes answer =
        world->script ? world->script(*question, stream.server) : answer_to(*question, stream.temper, true);
    world->by_tcp = false;
    if (answer.empty()) continue;
    ++stream.answers;
    stream.out.push_back(static_cast<uint8_t>(answer.size() >> 8));
    stream.out.push_back(static_cast<uint8_t>(answer.size()));
    stream.out.insert(stream.out.end(), answer.begin(), answer.end());
  }
  return static_cast<int>(taken);
}

int World::tcp_receive(void *self, int socket, uint8_t *bytes, size_t size) {
  auto *world = static_cast<World *>(self);
  Stream &stream = world->streams_.at(socket);
  if (stream.out.empty() && stream.answers >= world->answers_per_connection) return 0;
  if (stream.out.empty()) return world->chance(world->weather.breaks_percent) ? 0 : -EAGAIN;
  const size_t taken = std::min<size_t>(size, 1 + world->random(stream.out.size()));
  std::copy_n(stream.out.begin(), taken, bytes);
  stream.out.erase(stream.out.begin(), stream.out.begin() + static_cast<long>(taken));
  return static_cast<int>(taken);
}

}  // namespace sim
