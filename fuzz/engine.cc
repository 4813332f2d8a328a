// engine.cc - a query resolved by the engine in a world where the fuzzer makes every answer: with the right id and from
// the right server, so that it reaches parsers, CNAME chains, referrals, connections and the cache. For any answers,
// the query ends in one callback, its block is sound, and the cache gives back what went in.
//
// The input: the type's place in kTypes, flags (see Flag), the name's text after its length, then the answers. An
// answer is a byte that says how it is delivered (see How), its length and its bytes.
#include <cache_entry.h>
#include <world_query.h>

#include <cerrno>

#include "fuzz.h"

namespace {

using fuzz::Bytes;
using fuzz::check;

constexpr unsigned kTurnsMax = 20'000;
constexpr int64_t kMinuteUs = 60'000'000;
const std::string kServers[] = {"192.0.2.1", "2001:db8::2"}, kOwn = "192.0.2.3", kStrange = "192.0.2.200";

enum Flag : uint8_t {
  kRecursive = 1,
  kDirectCache = 2,
  kCookies = 4,
  kOwnServer = 8,
  kReferralCache = 16,
  kTwice = 32,  // submitted twice at a time
  kNoTcp = 64,
  kExpired = 128  // the cache returns expired entries, and time passes before the second query
};

// How an answer is delivered. Bits 0 and 1 are the layout; the others add to it.
enum How : uint8_t {
  kLayout = 3,      // 0: a header and what follows the question section; 1: a packet, which gets the id; else a packet
  kReturned = 4,    // the query comes back undeliverable, by UDP
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

// lay_out makes an answer to a query of the input's bytes.
Bytes lay_out(std::span<const uint8_t> bytes, const Bytes &query, uint8_t how) {
  Bytes packet(bytes.begin(), bytes.end());
  if (packet.size() < DNS_HSIZE || (how & kLayout) > 1) return packet;
  std::copy_n(query.begin(), 2, packet.begin());
  if ((how & kLayout) == 1) return packet;
  packet[4] = 0;
  packet[5] = 1;
  packet.insert(packet.begin() + DNS_HSIZE, query.begin() + DNS_HSIZE,
                query.begin() + static_cast<long>(testbed::question_end(query)));
  return packet;
}

// next_reply takes the reply to a query from the input.
sim::Reply next_reply(fuzz::Input *input, const Bytes &query) {
  sim::Reply reply({});
  reply.copies = 0;
  if (input->empty()) return reply;
  const uint8_t how = input->u8();
  reply.bytes = lay_out(input->bytes(input->u16()), query, how);
  reply.copies = (how & kLost) != 0 ? 0 : (how & kDouble) != 0 ? 2 : 1;
  if ((how & kStranger) != 0) reply.from = kStrange;
  reply.returned = (how & kReturned) != 0;
  reply.whole = true;
  reply.framed = (how & kUnframed) == 0;
  reply.closes = (how & kClosed) != 0;
  return reply;
}

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

// CheckedQuery is a query whose block is checked.
struct CheckedQuery : sim::Query {
  CheckedQuery(KAVO_TYPE block_type, const Bytes &name, dns_type number, const dns_ctx *ctx) : block(block_type) {
    dn = name;
    type = number;
    parser = parser_of(block);
    look = [this, ctx](void *result, unsigned) { answered(dns_get_status(ctx), result); };
  }

  KAVO_TYPE block;
  std::string text{};

 private:
  void answered(dns_status outcome, void *result) {
    const bool negative = outcome == DNS_E_NXDOMAIN || outcome == DNS_E_NODATA;
    const bool has_block = outcome >= 0 || (negative && block == KAVOT_PKT);
    check((result != nullptr) == has_block, "an answer has a block, a negative answer as a packet only");
    if (result == nullptr) return;
    const KAVO_RR rr = {static_cast<dns_rr_mem *>(result)};
    text = fuzz::text_of(block, rr);
    fuzz::expect_copies(block, rr);
  }
};

class Story {
 public:
  Story(const uint8_t *data, size_t size) : input_(data, size) {
    type_ = kTypes[input_.u8() % std::size(kTypes)];
    flags_ = input_.u8();
    const std::span<const uint8_t> text = input_.bytes(input_.u8());
    const auto size_of = static_cast<unsigned>(text.size());
    dn_.resize(DNS_MAXDN);
    const auto *from = reinterpret_cast<const char *>(text.data());
    const int length = size_of == 0 ? 0 : dns_ptodn(from, size_of, dn_.data(), DNS_MAXDN, nullptr);
    if (length > 0)
      dn_.resize(static_cast<size_t>(length));
    else
      dn_ = testbed::dn("www.example.org");
  }

  void tell() {
    sim::World world(1);
    if (has(kNoTcp)) world.tcp_error = -ECONNREFUSED, world.tcp_errors = UINT32_MAX;
    world.script = [this](const Bytes &query, const std::string &) { return next_reply(&input_, query); };
    const testbed::Cache answers = testbed::cache_of(), referrals = testbed::cache_of();
    configure(&world, answers.get(), referrals.get());
    CheckedQuery first(query(type_.block, world)), twin(query(type_.block, world));
    CheckedQuery second(query(type_.block, world)), packet(query(KAVOT_PKT, world));
    ask(&world, &first);
    if (has(kTwice)) ask(&world, &twin);
    run(&world);
    if (has(kExpired)) world.now_us += kMinuteUs;
    ask(&world, &second);
    run(&world);
    ask(&world, &packet);
    run(&world);
    check(first.calls == 1 && twin.calls == (has(kTwice) ? 1 : 0) && second.calls == 1 && packet.calls == 1,
          "one callback for each query");
    // A packet from the cache is laid out anew, which no other block shows.
    if (first.status == 0 && (second.sflags & DNS_SF_CACHED) != 0 && type_.block != KAVOT_PKT)
      check(second.status == 0 && second.text == first.text, "the cache gives back what went in");
    dns_set_cache(world.ctx, DNS_CU_ANS, nullptr);
    dns_set_cache(world.ctx, DNS_CU_REF, nullptr);
  }

 private:
  [[nodiscard]] bool has(Flag flag) const { return (flags_ & flag) != 0; }

  [[nodiscard]] CheckedQuery query(KAVO_TYPE block, const sim::World &world) const {
    return CheckedQuery(block, dn_, type_.number, world.ctx);
  }

  static void run(sim::World *world) {
    check(world->run(kTurnsMax), "the engine comes to rest");
    check(dns_active(world->ctx) == 0, "idle means idle");
  }

  void configure(sim::World *world, dns_cache *answers, dns_cache *referrals) const {
    for (const std::string &server : kServers)
      world->add_server(server, sim::Temper::good);
    const uint32_t options = has(kCookies) ? DNS_COOKIES : 0, attempts = 3, cached = has(kExpired) ? DNS_CR_EXPIRED : 0;
    check(dns_set_opt(world->ctx, DNS_OPT_FLAGS, &options, sizeof options) == 0, "flags");
    check(dns_set_opt(world->ctx, DNS_OPT_NTRIES, &attempts, sizeof attempts) == 0, "attempts");
    const uint32_t cache_flags = cached | DNS_CR_NCACHE;
    check(dns_cacher_setopt(dns_cache_cacher(answers), DNS_CROPT_FLAGS, &cache_flags, sizeof cache_flags) == 0,
          "flags");
    check(dns_set_cache(world->ctx, DNS_CU_ANS, dns_cache_cacher(answers)) == 0, "a cache");
    if (has(kReferralCache)) check(dns_set_cache(world->ctx, DNS_CU_REF, dns_cache_cacher(referrals)) == 0, "another");
    dns_set_dbgfn(world->ctx, trace, nullptr);
  }

  void ask(sim::World *world, CheckedQuery *query) const {
    submit(world, query, has(kOwnServer) ? std::vector<std::string>{kOwn} : std::vector<std::string>{},
           (has(kRecursive) ? DNS_RCRS : 0) | (has(kDirectCache) ? DNS_DCACHE : 0));
  }

  fuzz::Input input_;
  Type type_{};
  uint8_t flags_ = 0;
  Bytes dn_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz::quiet();
  Story(data, size).tell();
  return 0;
}
