// engine.cc - a question on its way through the engine, in a world where every answer is the fuzzer's: with the right
// id and from the right server, so that it reaches parsers, alias chains, referrals, connections and the cache.
// Whatever comes, the question ends in one callback, its block is sound, and the cache gives back what went in.
//
// The input: the type's place in kTypes, flags (see Flag), the name's text behind its length, then the answers. An
// answer is a byte that says what becomes of it (see How), its length and its bytes.
#include <arpa/inet.h>
#include <dns_engine.h>
#include <dns_io.h>
#include <dns_wire.h>

#include <array>
#include <cerrno>
#include <deque>
#include <map>

#include "fuzz.h"

namespace dns {
dns_ctx *context_new(const Io *io);  // the engine's, over a world of one's own
}

namespace {

using fuzz::Bytes;
using fuzz::check;

constexpr int64_t kUsPerSecond = 1'000'000;
constexpr int64_t kDelayUs = 1000;
constexpr unsigned kTurnsMax = 20'000;

enum Flag : uint8_t {
  kRecursive = 1,
  kDirectCache = 2,
  kCookies = 4,
  kOwnServer = 8,
  kReferralCache = 16,
  kTwice = 32,  // asked by two at a time
  kNoTcp = 64,
  kExpired = 128  // the cache returns expired entries, and time passes before it is asked
};

// How an answer is delivered. Bits 0 and 1 are the layout; the others add to it.
enum How : uint8_t {
  kLayout = 3,      // 0: a header and what follows the question; 1: a packet, which gets the id; else a packet
  kReturned = 4,    // the question comes back undeliverable, by UDP
  kStranger = 8,    // from an address that was not asked
  kDouble = 16,     // twice
  kLost = 32,       // not at all
  kClosed = 64,     // and the connection is closed
  kUnframed = 128,  // on a connection: without its length in front
};

struct Type {
  dns_type number;
  KAVO_TYPE block;
};
constexpr Type kTypes[] = {{DNS_T_A, KAVOT_DNS_A},       {DNS_T_NS, KAVOT_DNS_NS},   {DNS_T_CNAME, KAVOT_DNS_CNAME},
                           {DNS_T_PTR, KAVOT_DNS_PTR},   {DNS_T_MX, KAVOT_DNS_MX},   {DNS_T_TXT, KAVOT_DNS_TXT},
                           {DNS_T_AAAA, KAVOT_DNS_AAAA}, {DNS_T_SRV, KAVOT_DNS_SRV}, {DNS_T_TXT, KAVOT_DNS_ETXT},
                           {DNS_T_A, KAVOT_PKT},         {DNS_T_ANY, KAVOT_PKT},     {DNS_T_SOA, KAVOT_PKT},
                           {DNS_T_NAPTR, KAVOT_PKT},     {DNS_T_DNAME, KAVOT_PKT}};

dns_parse_fn *parser_of(KAVO_TYPE type) {
  return type == KAVOT_PKT ? dns_parse_pkt : kavo_get_parser(type, 0);
}

size_t question_end(std::span<const uint8_t> packet) {
  size_t at = DNS_HSIZE;
  while (packet[at] != 0)
    at += packet[at] + 1U;
  return at + 5;
}

sockaddr_in address_of(uint32_t last) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(53);
  address.sin_addr.s_addr = htonl(0xC0000200U + last);
  return address;
}

// World is the engine's network and clock. Nothing in it is left to chance.
class World {
 public:
  World(fuzz::Input *input, bool tcp) : input_(input), tcp_(tcp) {}

  [[nodiscard]] const dns::Io *io() const { return &io_; }
  [[nodiscard]] size_t sockets() const { return sockets_.size(); }
  [[nodiscard]] dns_timeval now() const {
    return {static_cast<int32_t>(now_us_ / kUsPerSecond), static_cast<int32_t>(now_us_ % kUsPerSecond)};
  }
  void pass(int64_t seconds) { now_us_ += seconds * kUsPerSecond; }

  // run drives the engine until no question is open.
  void run(dns_ctx *ctx) {
    for (unsigned turn = 0; turn < kTurnsMax; ++turn) {
      const dns_timeval wait = dns_timeouts(ctx, dns_tv_infinite, now());
      if (wait == dns_tv_infinite) return check(dns_active(ctx) == 0, "idle means idle");
      now_us_ += anything_there() ? kDelayUs : wait.dnstv_sec * kUsPerSecond + wait.dnstv_usec;
      std::array<dns_ios, 96> ready;
      const int count = dns_sockio(ctx, ready.data(), ready.size());
      check(count >= 0 && static_cast<size_t>(count) <= ready.size(), "sockets are few");
      for (dns_ios socket : std::span(ready).first(static_cast<size_t>(count))) {
        const auto found = sockets_.find(socket.dnsio_sock);
        if (found == sockets_.end()) continue;  // closed by the one before
        if (!found->second.readable()) socket.dnsio_events &= ~unsigned{DNS_IO_IN};
        if (socket.dnsio_events != 0) dns_ioevent(ctx, &socket, now());
      }
    }
    check(false, "the engine comes to rest");
  }

 private:
  struct Parcel {
    sockaddr_in peer;
    Bytes bytes;
  };
  struct Socket {
    sockaddr_in peer{};
    std::deque<Parcel> inbox, returned;
    Bytes in, out;  // of a connection's server
    bool closed = false;
    [[nodiscard]] bool readable() const { return !inbox.empty() || !returned.empty() || !out.empty() || closed; }
  };

  static World *of(void *self) { return static_cast<World *>(self); }
  static Socket &socket_of(void *self, int number) { return of(self)->sockets_.at(number); }

  [[nodiscard]] bool anything_there() const {
    return std::any_of(sockets_.begin(), sockets_.end(), [](const auto &socket) { return socket.second.readable(); });
  }

  // answer takes the next answer from the input and lays it out for a question.
  Bytes answer(std::span<const uint8_t> question, uint8_t how) {
    const std::span<const uint8_t> bytes = input_->bytes(input_->u16());
    Bytes packet(bytes.begin(), bytes.end());
    if (packet.size() < DNS_HSIZE || (how & kLayout) > 1) return packet;
    std::copy_n(question.begin(), 2, packet.begin());
    if ((how & kLayout) == 1) return packet;
    packet[4] = 0;
    packet[5] = 1;
    packet.insert(packet.begin() + DNS_HSIZE, question.begin() + DNS_HSIZE,
                  question.begin() + static_cast<long>(question_end(question)));
    return packet;
  }

  void ask_udp(Socket *socket, const dns::Datagram &datagram) {
    if (input_->empty()) return;
    const uint8_t how = input_->u8();
    const std::span<const uint8_t> question(datagram.data, datagram.size);
    const Parcel parcel = {(how & kStranger) != 0 ? address_of(200) : datagram.peer, answer(question, how)};
    if ((how & kReturned) != 0) socket->returned.push_back({datagram.peer, {question.begin(), question.end()}});
    if ((how & kLost) != 0) return;
    socket->inbox.push_back(parcel);
    if ((how & kDouble) != 0) socket->inbox.push_back(parcel);
  }

  void ask_tcp(Socket *socket, std::span<const uint8_t> question) {
    if (input_->empty()) return;
    const uint8_t how = input_->u8();
    const Bytes packet = answer(question, how);
    for (int copies = (how & kLost) != 0 ? 0 : (how & kDouble) != 0 ? 2 : 1; copies > 0; --copies) {
      if ((how & kUnframed) == 0) {
        socket->out.push_back(static_cast<uint8_t>(packet.size() >> 8));
        socket->out.push_back(static_cast<uint8_t>(packet.size()));
      }
      socket->out.insert(socket->out.end(), packet.begin(), packet.end());
    }
    socket->closed = socket->closed || (how & kClosed) != 0;
  }

  static dns_time wall(void *self) { return of(self)->now_us_ / kUsPerSecond; }
  static bool random(void *self, void *bytes, size_t size) {
    std::generate_n(static_cast<uint8_t *>(bytes), size, [self] {
      return static_cast<uint8_t>((of(self)->random_ = of(self)->random_ * 6364136223846793005U + 1) >> 56);
    });
    return true;
  }
  static int udp_open(void *self, uint16_t, const sockaddr_in *) {
    of(self)->sockets_[of(self)->next_];
    return of(self)->next_++;
  }
  static void close(void *self, int number) {
    check(of(self)->sockets_.erase(number) == 1, "a socket that is closed was open");
  }
  static int udp_send(void *self, int number, const dns::Datagram *datagrams, unsigned count, bool) {
    for (unsigned i = 0; i < count; ++i)
      of(self)->ask_udp(&socket_of(self, number), datagrams[i]);
    return static_cast<int>(count);
  }
  static int udp_receive(void *self, int number, dns::Datagram *datagrams, unsigned count) {
    Socket &socket = socket_of(self, number);
    unsigned got = 0;
    for (; got < count && !socket.inbox.empty(); ++got, socket.inbox.pop_front())
      fill(socket.inbox.front(), &datagrams[got]);
    return got == 0 ? -EAGAIN : static_cast<int>(got);
  }
  static int udp_returned(void *self, int number, dns::Datagram *datagram) {
    Socket &socket = socket_of(self, number);
    if (socket.returned.empty()) return 0;
    fill(socket.returned.front(), datagram);
    socket.returned.pop_front();
    return 1;
  }
  static void fill(const Parcel &parcel, dns::Datagram *datagram) {
    datagram->size = static_cast<uint32_t>(parcel.bytes.size());
    datagram->peer = parcel.peer;
    std::copy_n(parcel.bytes.begin(), std::min<size_t>(parcel.bytes.size(), datagram->capacity), datagram->data);
  }
  static int tcp_open(void *self, const sockaddr_in &peer) {
    if (!of(self)->tcp_) return -ECONNREFUSED;
    of(self)->sockets_[of(self)->next_].peer = peer;
    return of(self)->next_++;
  }
  static int tcp_send(void *self, int number, const uint8_t *bytes, size_t size) {
    Socket &socket = socket_of(self, number);
    Bytes &in = socket.in;
    in.insert(in.end(), bytes, bytes + size);
    while (in.size() >= 2 && in.size() - 2 >= in[0] * 256U + in[1]) {
      const auto length = static_cast<long>(in[0] * 256U + in[1]);
      of(self)->ask_tcp(&socket, std::span<const uint8_t>(in).subspan(2, static_cast<size_t>(length)));
      in.erase(in.begin(), in.begin() + 2 + length);
    }
    return static_cast<int>(size);
  }
  static int tcp_receive(void *self, int number, uint8_t *bytes, size_t size) {
    Socket &socket = socket_of(self, number);
    if (socket.out.empty()) return socket.closed ? 0 : -EAGAIN;
    const size_t taken = std::min(size, socket.out.size());
    std::copy_n(socket.out.begin(), taken, bytes);
    socket.out.erase(socket.out.begin(), socket.out.begin() + static_cast<long>(taken));
    return static_cast<int>(taken);
  }

  fuzz::Input *input_;
  bool tcp_;
  int64_t now_us_ = 1'000'000'000;
  uint64_t random_ = 1;
  int next_ = 100;
  std::map<int, Socket> sockets_;
  dns::Io io_ = {.self = this,
                 .wall = wall,
                 .random = random,
                 .udp_open = udp_open,
                 .udp_close = close,
                 .udp_send = udp_send,
                 .udp_receive = udp_receive,
                 .udp_returned = udp_returned,
                 .tcp_open = tcp_open,
                 .tcp_close = close,
                 .tcp_send = tcp_send,
                 .tcp_receive = tcp_receive};
};

// print_entry shows a cache's entry, which the engine hands out with its event.
void print_entry(dns_cdata *entry, FILE *stream) {
  static Bytes data(DNS_MAXPACKET);
  dns_rr rr = {};
  do {
    rr.dnsrr_dptr = data.data();
    rr.dnsrr_dsz = DNS_MAXPACKET;
  } while (dns_cdata_nextrr(entry, &rr) == 1 && dns_printrr(stream, 1, &rr) == 0);
}

void trace(dns_ctx *, dns_query *, int code, void *data, void *) {
  if (code == DNS_D_CU_NOAN) return;
  fuzz::expect_printable(fuzz::written([&](FILE *stream) {
    if (code == DNS_D_CU_AN) {
      print_entry(static_cast<dns_dcache *>(data)->dnsd_cdata, stream);
    } else {
      const auto *packet = static_cast<dns_dpkt *>(data);
      (void)dns_printpkt(stream, packet->dnsd_pkt, packet->dnsd_plen);
    }
  }));
}

// Asked is a question and what came of it.
struct Asked {
  KAVO_TYPE block;
  int calls = 0;
  dns_status status = 0;
  bool cached = false;
  std::string text{};

  static void answered(dns_ctx *ctx, dns_query *, void *result, unsigned size, void *data) {
    auto *asked = static_cast<Asked *>(data);
    asked->calls += 1;
    asked->status = dns_get_status(ctx);
    asked->cached = (dns_get_sflags(ctx) & DNS_SF_CACHED) != 0;
    const bool denied = asked->status == DNS_E_NXDOMAIN || asked->status == DNS_E_NODATA;
    const bool has_block = asked->status >= 0 || (denied && asked->block == KAVOT_PKT);
    check((result != nullptr) == has_block, "what was answered has a block, a denial as a packet only");
    if (result == nullptr) return;
    const KAVO_RR rr = {static_cast<dns_rr_mem *>(result)};
    check(rr.rr_mem->dnsm_size == size && rr.rr_mem->dnsm_written == size, "a block says its size");
    asked->text = fuzz::text_of(asked->block, rr);
    if (size <= KAVO_RR_SIZE_MAX) fuzz::expect_copies(asked->block, rr);
  }
};

class Story {
 public:
  Story(const uint8_t *data, size_t size) : input_(data, size) {
    type_ = kTypes[input_.u8() % std::size(kTypes)];
    flags_ = input_.u8();
    const std::span<const uint8_t> text = input_.bytes(input_.u8());
    const auto size_of = static_cast<unsigned>(text.size());
    if (size_of == 0 || dns_ptodn(reinterpret_cast<const char *>(text.data()), size_of, dn_, DNS_MAXDN, nullptr) <= 0)
      check(dns_ptodn("www.example.org", 0, dn_, DNS_MAXDN, nullptr) > 0, "a name");
  }

  void tell() {
    World world(&input_, !has(kNoTcp));
    dns_ctx *ctx = dns::context_new(world.io());
    dns_cache *answers = dns_cache_init(1 << 20), *referrals = dns_cache_init(1 << 20);
    check(ctx != nullptr && answers != nullptr && referrals != nullptr && dns_open(ctx) == 0, "a context");
    configure(ctx, answers, referrals);
    Asked first{type_.block}, twin{type_.block}, second{type_.block}, packet{KAVOT_PKT};
    ask(ctx, &first);
    if (has(kTwice)) ask(ctx, &twin);
    world.run(ctx);
    if (has(kExpired)) world.pass(60);
    ask(ctx, &second);
    world.run(ctx);
    ask(ctx, &packet);
    world.run(ctx);
    check(first.calls == 1 && twin.calls == (has(kTwice) ? 1 : 0) && second.calls == 1 && packet.calls == 1,
          "one callback for each question");
    // A packet from the cache is laid out anew, which no other block shows.
    if (first.status == 0 && second.cached && type_.block != KAVOT_PKT)
      check(second.status == 0 && second.text == first.text, "the cache gives back what went in");
    dns_destroy(ctx);
    check(world.sockets() == 0, "every socket was closed");
    dns_cache_destroy(answers);
    dns_cache_destroy(referrals);
  }

 private:
  [[nodiscard]] bool has(Flag flag) const { return (flags_ & flag) != 0; }

  void configure(dns_ctx *ctx, dns_cache *answers, dns_cache *referrals) const {
    for (uint32_t server = 1; server <= 2; ++server) {
      const sockaddr_in address = address_of(server);
      check(dns_add_serv_s(ctx, reinterpret_cast<const sockaddr *>(&address)) > 0, "a server");
    }
    const uint32_t options = has(kCookies) ? DNS_COOKIES : 0, tries = 3, cached = has(kExpired) ? DNS_CR_EXPIRED : 0;
    check(dns_set_opt(ctx, DNS_OPT_FLAGS, &options, sizeof options) == 0, "flags");
    check(dns_set_opt(ctx, DNS_OPT_NTRIES, &tries, sizeof tries) == 0, "tries");
    const uint32_t cache_flags = cached | DNS_CR_NCACHE;
    check(dns_cacher_setopt(dns_cache_cacher(answers), DNS_CROPT_FLAGS, &cache_flags, sizeof cache_flags) == 0,
          "flags");
    check(dns_set_cache(ctx, DNS_CU_ANS, dns_cache_cacher(answers)) == 0, "a cache");
    if (has(kReferralCache)) check(dns_set_cache(ctx, DNS_CU_REF, dns_cache_cacher(referrals)) == 0, "another");
    dns_set_dbgfn(ctx, trace, nullptr);
  }

  void ask(dns_ctx *ctx, Asked *asked) const {
    const sockaddr_in own = address_of(3);
    const unsigned flags = (has(kRecursive) ? DNS_RCRS : 0) | (has(kDirectCache) ? DNS_DCACHE : 0);
    const auto *servers = has(kOwnServer) ? reinterpret_cast<const sockaddr *>(&own) : nullptr;
    check(dns_submit_dn_serv(ctx, dn_, DNS_C_IN, type_.number, flags, servers, has(kOwnServer) ? 1 : 0,
                             parser_of(asked->block), Asked::answered, asked) != nullptr,
          "a question can be asked");
    check(asked->calls == 0, "no callback runs inside a submission");
  }

  fuzz::Input input_;
  Type type_{};
  uint8_t flags_ = 0;
  uint8_t dn_[DNS_MAXDN] = {};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz::quiet();
  Story(data, size).tell();
  return 0;
}
