// engine_paths.cc - the engine in one thread: a query from submission to callback without a system, and the parts that
// every packet passes through. Nothing here depends on threads, sockets or the clock, so the figures
// repeat almost to the instruction.
#include <arpa/inet.h>
#include <block.h>
#include <dns_engine.h>
#include <dns_io.h>
#include <dns_wire.h>
#include <letter_case.h>
#include <message.h>
#include <opt.h>

#include <array>
#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <deque>
#include <map>
#include <random>
#include <stdexcept>
#include <string>

#include "paths.h"

namespace dns {
dns_ctx *context_new(const Io *io);  // the engine's context, over another Io
}

namespace guard {
namespace {

constexpr const char *kZone = ".list.example";
constexpr uint16_t kUdpSize = 1232;
constexpr uint64_t kCaseBits = 0x5A5A'1234'9876'C3C3;
constexpr uint8_t kAnswerRecord[] = {0xC0, DNS_HSIZE, 0, DNS_T_A, 0, DNS_C_IN, 0, 0, 1, 44, 0, 4, 127, 0, 0, 2};
constexpr size_t kTypeAndClass = 4;  // type and class, after the name
constexpr size_t kPacketMax = 512;

using Name = std::vector<uint8_t>;

// name_of is the query name for the n-th address.
Name name_of(uint32_t n) {
  std::string text;
  for (unsigned shift = 0; shift < 32; shift += 8)
    text += std::to_string(n * 0x9E3779B1U >> shift & 255) + (shift < 24 ? "." : kZone);
  Name dn(DNS_MAXDN);
  const int size = dns_ptodn(text.c_str(), 0, dn.data(), DNS_MAXDN, nullptr);
  if (size <= 0) throw std::runtime_error("no name: " + text);
  dn.resize(static_cast<size_t>(size));
  return dn;
}

// answer_to turns a query into its answer, in place, and returns the answer's size.
size_t answer_to(uint8_t *packet) {
  const size_t end = DNS_HSIZE + dns_dnlen(packet + DNS_HSIZE) + kTypeAndClass;
  packet[2] |= 0x80;  // QR
  packet[7] = 1;      // an answer record
  packet[11] = 0;     // and no OPT record
  memcpy(packet + end, kAnswerRecord, sizeof kAnswerRecord);
  return end + sizeof kAnswerRecord;
}

// Mirror is an Io that answers every query as soon as it is sent, with the same time and the same chance in every run.
class Mirror {
 public:
  [[nodiscard]] const dns::Io *io() const { return &io_; }

 private:
  struct Packet {
    std::array<uint8_t, kPacketMax> bytes;
    uint32_t size;
    dns::Address peer;
  };
  static Mirror *of(void *self) { return static_cast<Mirror *>(self); }

  static dns_time wall(void *) { return 800'000'000; }
  static bool random(void *self, void *bytes, size_t size) {
    for (size_t at = 0; at < size; ++at)
      static_cast<uint8_t *>(bytes)[at] = static_cast<uint8_t>(of(self)->random_() >> 8);
    return true;
  }
  static int udp_open(void *self, dns::Family, uint16_t, const dns::Address *) { return of(self)->next_socket_++; }
  static void udp_close(void *self, int socket) { of(self)->inboxes_.erase(socket); }
  static int udp_send(void *self, int socket, const dns::Datagram *datagrams, unsigned count, bool) {
    std::deque<Packet> &inbox = of(self)->inboxes_[socket];
    for (unsigned i = 0; i < count; ++i) {
      Packet &packet = inbox.emplace_back();
      memcpy(packet.bytes.data(), datagrams[i].data, datagrams[i].size);
      packet.size = static_cast<uint32_t>(answer_to(packet.bytes.data()));
      packet.peer = datagrams[i].peer;
    }
    return static_cast<int>(count);
  }
  static int udp_receive(void *self, int socket, dns::Datagram *datagrams, unsigned count, bool connected) {
    std::deque<Packet> &inbox = of(self)->inboxes_[socket];
    unsigned given = 0;
    for (; given < count && !inbox.empty(); ++given, inbox.pop_front()) {
      memcpy(datagrams[given].data, inbox.front().bytes.data(), inbox.front().size);
      datagrams[given].size = inbox.front().size;
      if (!connected) datagrams[given].peer = inbox.front().peer;
    }
    return static_cast<int>(given);
  }
  static int nothing_returned(void *, int, dns::Datagram *) { return 0; }
  static int nothing_dropped(void *, int) { return 0; }
  static int no_tcp(void *, const dns::Address &) { return -ECONNREFUSED; }
  static int no_tcp_send(void *, int, const uint8_t *, size_t) { return -ECONNRESET; }
  static int no_tcp_receive(void *, int, uint8_t *, size_t) { return -ECONNRESET; }

  dns::Io io_ = {this,      wall,        random,           udp_open,        udp_close,
                 udp_send,  udp_receive, nothing_returned, nothing_dropped, no_tcp,
                 udp_close, no_tcp_send, no_tcp_receive};
  std::mt19937 random_;
  std::map<int, std::deque<Packet>> inboxes_;
  int next_socket_ = 100;
};

class EngineQueries final : public Work {
 public:
  EngineQueries() : ctx_(dns::context_new(mirror_.io())) {
    if (ctx_ == nullptr || dns_add_serv(ctx_, nullptr) < 0 || dns_add_serv(ctx_, "192.0.2.1") <= 0 ||
        dns_open(ctx_) != DNS_E_NOERROR)
      throw std::runtime_error("no engine context");
  }
  ~EngineQueries() override { dns_destroy(ctx_); }

  void run(unsigned count) override {
    for (unsigned asked = 0; asked < count; asked += kAtOnce) {
      const unsigned before = answered_;
      for (unsigned i = 0; i < kAtOnce; ++i)
        if (dns_submit_dn_serv(ctx_, names_[i].data(), DNS_C_IN, DNS_T_A, DNS_RCRS, nullptr, 0, dns_parse_a4, answered,
                               this) == nullptr)
          throw std::runtime_error("a query was refused");
      while (dns_active(ctx_) > 0)
        turn();
      if (answered_ != before + kAtOnce) throw std::runtime_error("a wrong answer");
    }
  }

 private:
  static constexpr unsigned kAtOnce = 1000;

  static void answered(dns_ctx *ctx, dns_query *, void *result, unsigned, void *data) {
    const auto *block = static_cast<const dns_rr_a4 *>(result);
    if (dns_get_status(ctx) == DNS_E_NOERROR && block != nullptr && block->dnsa4_nrr == 1)
      ++static_cast<EngineQueries *>(data)->answered_;
  }

  void turn() {
    now_.dnstv_usec = (now_.dnstv_usec + 100) % 1'000'000;
    now_.dnstv_sec += now_.dnstv_usec == 0 ? 1 : 0;
    (void)dns_timeouts(ctx_, dns_tv_infinite, now_);
    std::array<dns_ios, 96> sockets;
    const int count = dns_sockio(ctx_, sockets.data(), static_cast<unsigned>(sockets.size()));
    for (int i = 0; i < count; ++i) {
      sockets[static_cast<size_t>(i)].dnsio_events = DNS_IO_IN;
      dns_ioevent(ctx_, &sockets[static_cast<size_t>(i)], now_);
    }
  }

  Mirror mirror_;
  dns_ctx *ctx_;
  dns_timeval now_ = {1000, 0};
  unsigned answered_ = 0;
  std::vector<Name> names_ = [] {
    std::vector<Name> names;
    for (uint32_t n = 0; n < kAtOnce; ++n)
      names.push_back(name_of(n));
    return names;
  }();
};

// Compose writes queries as the engine does: with 0x20 and an OPT record.
class Compose final : public Work {
 public:
  void run(unsigned count) override {
    for (unsigned i = 0; i < count; ++i) {
      const size_t size = dns::write_query(packet_, static_cast<uint16_t>(i), true, dn_, DNS_T_A, DNS_C_IN);
      dns::apply_case(std::span(packet_).subspan(DNS_HSIZE, dn_.size()),
                      std::rotl(kCaseBits, static_cast<int>(i % 64)));
      if (dns::write_opt(packet_, size, kUdpSize, {}) == 0) throw std::runtime_error("no packet");
    }
  }

 private:
  Name dn_ = name_of(1);
  std::array<uint8_t, kPacketMax> packet_{};
};

// Parse reads an answer as the engine does: header, question section with its 0x20 case, OPT record, records.
class Parse final : public Work {
 public:
  Parse() {
    packet_.resize(dns::write_query(packet_, 1, true, dn_, DNS_T_A, DNS_C_IN) + sizeof kAnswerRecord);
    const size_t size = answer_to(packet_.data());
    packet_.resize(kPacketMax);
    packet_.resize(dns::write_opt(packet_, size, kUdpSize, {}));
    dns::apply_case(asked_, kCaseBits);
  }

  void run(unsigned count) override {
    for (unsigned i = 0; i < count; ++i)
      if (!parse(packet_)) throw std::runtime_error("the answer was refused");
  }

 private:
  bool parse(std::span<const uint8_t> packet) {
    dns::Header header;
    if (!dns::read_header(packet, &header) || !dns::has_case(asked_, dn_.data(), kCaseBits)) return false;
    dns::Sections sections(packet, header);
    dns::Opt opt;
    size_t answers_at = 0;
    return dns::read_opt(&sections, &opt) && opt.present && sections.find(DNS_S_AN, &answers_at) &&
           dns::lay_block(dns::Block::a4, packet, answers_at, dn_.data(), block_, nullptr) >= 0;
  }

  Name dn_ = name_of(1);
  Name asked_ = dn_;  // as the packet brings it back, before the engine puts the host's own letters there
  std::vector<uint8_t> packet_ = std::vector<uint8_t>(kPacketMax);
  alignas(8) std::array<uint8_t, 1024> block_{};
};

template <typename Kind>
std::unique_ptr<Work> make() {
  return std::make_unique<Kind>();
}

}  // namespace

std::vector<Path> paths() {
  return {{"engine-query", "query", 20'000, 2'000, make<EngineQueries>},
          {"packet-compose", "packet", 20'000, 100, make<Compose>},
          {"packet-parse", "packet", 20'000, 100, make<Parse>}};
}

}  // namespace guard
