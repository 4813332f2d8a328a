// engine.h - the engine's two records, the context and the question, and how their sources divide the work:
//
//   context.cc   making, opening and releasing contexts, options, servers, caches
//   query.cc     submitting and cancelling, the pools, the index of questions in flight, delivery
//   drive.cc     the loop: time-outs, the cache's turn, what to wait for
//   follow.cc    identical questions, of which only one is asked
//   choice.cc    which server a question goes to
//   send.cc      packets out
//   receive.cc   packets in, and which question each of them answers
//   tcp.cc       connections to servers, and the questions that go over them
//   outcome.cc   what an answer packet means for its question
//   journey.cc   aliases that lead out of an answer, referrals, the direct cache
//   parsers.cc   the record parsers over the context's result memory
//   resolve.cc   synchronous lookups, which drive the loop themselves
//
// A question is in exactly one list, and is taken out of it, of the timers and of the index before anyone is called:
//
//   dns_submit_dn_serv -> queued -> (cache) -> sending -> waiting -> delivering -> gone
//                           |                    ^           |            ^
//                           +--- live entry -----|-----------|------------+
//                           +--- following ------|-----------|------------+
//                                                +-- again --+
//   A question that needs the address of a server first rests until its look-up, a question of the engine's own, is
//   over. dns_cancel takes it from any of queued, sending, waiting and resting straight to gone.
#ifndef DNS_ENGINE_ENGINE_H
#define DNS_ENGINE_ENGINE_H

#include <dns_engine.h>
#include <dns_io.h>
#include <dns_wire.h>
#include <stdint.h>

#include <span>

#include <cdata.h>
#include <chained_table.h>
#include <list.h>
#include <pool.h>
#include <timer_wheel.h>
#include "failures.h"
#include "servers.h"

namespace dns {

inline constexpr unsigned kServersMax = 32;  // servers of a context: a question's sets of servers are 32-bit masks
inline constexpr unsigned kExpectedServersMax = 32;
inline constexpr unsigned kQueryRoom = 340;    // a question packet: header, a name of 255 bytes, type, class, OPT
inline constexpr unsigned kAnswerRoom = 4096;  // the largest UDP answer that can be asked for
inline constexpr unsigned kInlineName = 40;   // names up to here lie in the question's own record: an address in a list
inline constexpr unsigned kMediumName = 104;  // names up to here take a smaller block than the longest
inline constexpr int64_t kUsPerSecond = 1'000'000;

inline constexpr unsigned kPerServer = 4096;  // questions under way by UDP to one server; more wait for room
inline constexpr unsigned kConnectionsMax = 16;
inline constexpr unsigned kPerConnection = 100;        // questions under way on one connection
inline constexpr int kTcpSlot = UdpPool::kSocketsMax;  // the slot of the first connection, behind the sockets
inline constexpr int64_t kLookAgainUs = 250'000;       // at a try whose server has no estimate: it may have one by then
inline constexpr int64_t kTcpIdleUs = 10 * kUsPerSecond;  // after which a connection is closed
inline constexpr unsigned kRatingsMax = 32;               // look-ups of servers' costs at a time; others come later
inline constexpr unsigned kTcpTriesMax = 2;  // connections that may break under a query before that costs an attempt
inline constexpr int64_t kTcpLimitUs = 60 * kUsPerSecond;  // for which a server's limit of queries a connection is kept
inline constexpr unsigned kPausesMax = 3;                  // pauses of a query whose every server refuses
inline constexpr int64_t kPauseUs = 100'000;               // the first of them; each is twice as long as the last
inline constexpr int64_t kNoEdnsUs = 900 * kUsPerSecond;   // for which a server is asked without EDNS0
inline constexpr int64_t kLowerUs = 900 * kUsPerSecond;    // for which a server is asked in lower case
inline constexpr int64_t kOtherCaseUs =
    600 * kUsPerSecond;                                   // of answers in another case alone that end a server's name
inline constexpr int64_t kCookieUs = 600 * kUsPerSecond;  // for which a server must bring the cookie that it once gave
inline constexpr size_t kOptSize = 1 + 2 + 2 + 4 + 2;     // an OPT record without options
inline constexpr size_t kCookieMax = 4 + 8 + 32;          // a cookie option (RFC 7873, section 4)

static_assert(DNS_MAXSERV <= kServersMax);
static_assert(kQueryRoom >= DNS_HSIZE + DNS_MAXDN + 4 + kOptSize + kCookieMax);

enum class State : uint8_t { queued, following, sending, waiting, resting, delivering, cancelled };

// Doubt is what was wrong with an answer that was right in all else: the server is asked over TCP, where no off-path
// forger reaches, whether that is its way.
enum class Doubt : uint8_t { none, letter_case, cookie };

struct OwnServers {
  Server *servers[DNS_MAXSERV];
};

struct MediumName {
  uint8_t dn[kMediumName];
};
struct LongName {
  uint8_t dn[DNS_MAXDN];
};

inline constexpr unsigned kDelegatedMax = 13;  // servers of a zone that are asked
inline constexpr unsigned kTargetsMax = 4;     // servers of a zone whose addresses are looked up

// Journey is what a question remembers once an answer has sent it on.
struct Journey {
  uint8_t ask[DNS_MAXDN];
  uint8_t zone[DNS_MAXDN];    // which `servers` answer for
  uint8_t coming[DNS_MAXDN];  // the zone that was last referred to
  int32_t coming_ttl = 0;
  uint8_t targets[kTargetsMax][DNS_MAXDN];  // its servers whose addresses may still be looked up
  unsigned ntargets = 0;
  unsigned nserv = 0;  // 0: the context's servers, or the question's own
  Server *servers[kDelegatedMax];
  bool remembered = false;      // the servers are those of a cached delegation
  bool names_others = false;    // which names servers without an address too
  dns_cdata *passed = nullptr;  // the aliases that were passed, under the question's own key
  CdataEnd passed_end;          // where they end in it
  int32_t ttl = INT32_MAX;      // the least of theirs
  unsigned aliases = 0;
  unsigned steps = 0;           // referrals followed, by look-ups too
  unsigned lookups = 0;         // made for its sake
  unsigned depth = 0;           // of a look-up: how many questions wait for it, one for the other
  Journey *top = nullptr;       // of a look-up: the journey of the first of them
  dns_query *lookup = nullptr;  // that it waits for
};

// Connection is the one TCP connection to a server, with the queries that are under way on it.
struct Connection {
  struct Posted {
    dns_query *query;
    uint32_t answered;  // what `answered` of the connection was when the query was posted
  };

  TcpLink link;
  Server *server = nullptr;
  int64_t heard_us = 0;   // when something last arrived on it, or it was opened
  int64_t used_us = 0;    // when a query or an answer last went over it
  uint32_t answered = 0;  // queries that it has answered
  uint32_t posted = 0;    // queries that were ever posted on it
  unsigned count = 0;     // of them those under way
  Posted under_way[kPerConnection];
};

// Options as dns_set_opt takes them.
struct Options {
  uint32_t flags = 0;
  int64_t timeout_us = 3 * kUsPerSecond;
  uint32_t ntries = 4;
  uint32_t ndots = 1;
  uint32_t udp_size = 1232;
  uint32_t port = 53;
  uint32_t maxloop = 100;
  uint32_t maxalias = 16;
  uint32_t bsc_size = 0;
  uint32_t bsc_update_s = 60;
  uint32_t bsc_nbest = 1;
  uint32_t minttl = 0;
};

// read_resolver_file takes servers and options from a resolver configuration file (resolv.conf's format). A file that
// cannot be read, and lines that make no sense, change nothing. Returns how many of the `capacity` addresses it filled.
unsigned read_resolver_file(const char *path, Options *options, sockaddr_in *servers, unsigned capacity);

}  // namespace dns

struct dns_query : base::Timer {
  dns_ctx *ctx;
  dns_query *index_next;   // the next question in its bucket of the index
  dns_query *leader_next;  // the next question in its bucket of leaders
  base::Link followers;    // questions that share its outcome
  dns_query_fn *callback;
  void *data;
  dns_parse_fn *parse;
  const uint8_t *dn;
  const uint8_t *ask;    // the name that servers are asked for
  dns::OwnServers *own;  // null: the context's servers
  dns::Journey *journey;
  dns::Server *under_way;  // the server among whose questions under way by UDP it has a place, else null
  uint64_t hash;           // of its name, type and class; while `looks_ahead`, that of its key in the answer cache
  uint64_t case_bits;      // the case in which the letters of its name were sent
  int64_t first_sent_us;
  int64_t sent_us;  // when the present try left, or when it was due
  // Sets of its servers, by their places.
  uint32_t asked;      // were sent it under its present id, and may answer it
  uint32_t lowered;    // of them those that were sent it in lower case
  uint32_t with_opt;   // and those that were sent an OPT record
  uint32_t refused;    // answered with an error, and are not asked again
  uint32_t unreached;  // at which nothing listened when it last came there
  uint32_t tried;      // which it has left in the present round
  uint32_t flags;
  uint16_t id;
  uint16_t typ;
  uint16_t cls;
  int16_t slot;         // the slot of the socket or connection it was sent from, UdpPool::kNone before
  int16_t former_slot;  // the socket that its first attempts left from, if they met with silence there, else kNone
  int16_t error;        // the status of the last error that a server answered with, or 0
  uint8_t nserv;        // servers in `own`
  uint8_t dn_size;
  uint8_t ask_size;
  uint8_t server;         // the server of the present try
  uint16_t tries;         // how often it was sent, but for a probe
  uint16_t round;         // how often it has been to all the servers that it goes to
  uint8_t rating;         // of a lookup of a server's cost: its place among them and 1, else 0
  uint8_t tcp_tries;      // connections that were opened or used to ask the present server
  uint8_t place;          // its place among those of its connection
  dns::Doubt doubt;       // of an answer of the present server
  uint8_t pauses : 4;     // which it has made because every server was unreached
  bool turned_back : 1;   // the network, or a server's host, has said that nothing listens there
  bool probes : 1;        // the present attempt finds out whether a server that was marked down has recovered
  bool over_tcp : 1;      // the present try goes over TCP
  bool plain : 1;         // the present server is asked without EDNS0
  bool fresh_cookie : 1;  // the server has given a new cookie for it
  bool leads : 1;         // it is in the table of leaders
  bool uncached : 1;      // it neither reads nor fills the cache
  bool looks_ahead : 1;   // it has yet to be looked up in the answer cache of `cache_number`
  bool pausing : 1;       // it waits for the end of a pause, not for an answer
  uint8_t cache_number;
  dns::State state;
  uint8_t inline_dn[dns::kInlineName];
};

struct dns_ctx {
  explicit dns_ctx(const dns::Io *the_io) : io(the_io), random(the_io), sockets(the_io, &random) {}
  dns_ctx(const dns_ctx &) = delete;
  dns_ctx &operator=(const dns_ctx &) = delete;

  const dns::Io *io;
  dns::RandomSource random;
  dns::UdpPool sockets;
  dns::ServerTable server_table;
  dns::Options options;
  bool opened = false;

  dns::Server *servers[dns::kServersMax] = {};
  unsigned nserv = 0;
  uint32_t portless = 0;    // the servers, by their places, that were named without a port and follow DNS_OPT_PORT
  unsigned next_first = 0;  // where DNS_SERVRRB started the last question; a count of questions where servers are rated
  sockaddr_in expected[dns::kExpectedServersMax] = {};
  unsigned nexpected = 0;
  uint8_t cost_zone[DNS_MAXDN] = {};

  // Look-ups of servers' costs, free where there is no server. They do not count as open questions.
  struct Rating {
    dns_query *lookup;
    dns::Server *server;
  };
  Rating ratings[dns::kRatingsMax] = {};
  unsigned ratings_open = 0;

  [[nodiscard]] unsigned open_questions() const { return active - ratings_open; }

  dns_cacher *answer_cache = nullptr;
  uint8_t cache_number = 0;  // of the answer cache among those that were installed, modulo 256
  dns_cacher *referral_cache = nullptr;
  dns_cdata *entry = nullptr;  // the entry on its way in or out of the cache

  dns_dbg_fn *dbg = nullptr;
  void *dbg_data = nullptr;
  unsigned dbg_events = DNS_DE_CACHE | DNS_DE_PKT;
  [[nodiscard]] bool tells(unsigned event) const { return dbg != nullptr && (dbg_events & event) != 0; }
  dns_dc_fn *dc = nullptr;

  dns_status status = DNS_E_NOERROR;
  unsigned sflags = 0;

  // The moment that the loop was last given, and the wall clock read at most once in each of its turns.
  int64_t now_us = 0;
  dns_time wall = 0;
  bool wall_read = false;

  unsigned active = 0;
  unsigned holds = 0;  // Hold objects in force; meanwhile a question that is dropped stays in `cancelled`
  base::Link cancelled;
  base::Link queued;
  base::Link sending;
  base::Link resting;
  base::Link tcp_waiting;  // questions for which no connection has room
  base::TimerWheel waiting;
  // Questions that were sent, until they are over, by id.
  base::ChainedTable<dns_query, &dns_query::index_next, &dns_query::id> index;

  uint8_t secret[16] = {};  // of this context's hashes
  uint8_t cookie_secret[16] = {};
  // Questions that others may follow.
  base::ChainedTable<dns_query, &dns_query::leader_next, &dns_query::hash> leaders;
  dns::Failures failures;

  dns::Connection connections[dns::kConnectionsMax];
  unsigned connections_open = 0;

  base::Pool<dns_query, 32> queries;
  base::Pool<dns::OwnServers, 16> own_servers;
  base::Pool<dns::MediumName, 16> medium_names;
  base::Pool<dns::LongName, 16> long_names;
  base::Pool<dns::Journey, 8> journeys;

  uint8_t *result = nullptr;  // the block that the last parse laid out
  size_t result_size = 0;

  // Packets on their way out and in; allocated when the transport is first opened.
  struct Buffers {
    dns::Datagram out[dns::kBatch];
    dns::Datagram in[dns::kBatch];
    dns_query *leaving[dns::kBatch];
    uint8_t queries[dns::kBatch][dns::kQueryRoom];
    uint8_t answers[dns::kBatch][dns::kAnswerRoom];
    uint8_t rebuilt[DNS_MAXPACKET];  // an answer packet put together from a cache entry
  };
  Buffers *buffers = nullptr;
};

namespace dns {

// ---- context.cc

// context_new makes a context over another world than the operating system's: without servers, with default options.
[[nodiscard]] dns_ctx *context_new(const Io *io);
[[nodiscard]] dns_time wall(dns_ctx *ctx);

// read_server takes an IPv4 socket address out of the 16-byte form of the interface, on `port` where it names none.
// False for another family.
[[nodiscard]] bool read_server(const sockaddr *address, uint32_t port, sockaddr_in *server);

// ---- query.cc

[[nodiscard]] inline std::span<Server *const> servers_of(const dns_query *q) {
  if (q->journey != nullptr || q->own != nullptr) [[unlikely]] {
    if (q->journey != nullptr && q->journey->nserv > 0) return {q->journey->servers, q->journey->nserv};
    if (q->own != nullptr) return {q->own->servers, q->nserv};
  }
  return {q->ctx->servers, q->ctx->nserv};
}

// recursive tells whether the question's present servers are asked for recursion, iterates whether the engine goes from
// zone to zone itself.
[[nodiscard]] inline bool recursive(const dns_query *q) {
  return (q->flags & (DNS_RCRS | DNS_DCACHE)) == DNS_RCRS;
}
[[nodiscard]] inline bool iterates(const dns_query *q) {
  return (q->flags & (DNS_RCRS | DNS_DCACHE)) == 0 && q->own == nullptr && q->cls == DNS_C_IN;
}

// release_own_servers has a question ask the context's servers from now on.
void release_own_servers(dns_query *q);

// recall_failures passes over servers that failed at the question a moment ago, if any did. False when that ended it.
[[nodiscard]] bool recall_any_failures(dns_query *q);
[[nodiscard]] inline bool recall_failures(dns_query *q) {
  // A cache may have learned meanwhile what its server was asked for in vain.
  if (!q->ctx->failures.fresh(q->ctx->now_us) || (q->flags & DNS_DCACHE) != 0) return true;
  return recall_any_failures(q);
}

// give_up_place ends a question's being under way to a server, and hands its place to the next that is parked there,
// which so keeps it until it has left for somewhere else.
void give_up_place(dns_query *q);

// leave takes a question out of its list, the timers, the index and its connection, and gives its socket back.
void leave(dns_query *q);

// has_id tells whether a query has an id under which its answers are expected, and so is in the index. give_up_slot
// takes it out, and from its sockets or connection. change_socket has its next attempt leave from another socket, under
// the same id; what comes to the first one still counts. new_id gives it an id and a letter case, under which no server
// has been asked yet; false without random bytes.
[[nodiscard]] inline bool has_id(const dns_query *q) {
  return q->slot != UdpPool::kNone || q->former_slot != UdpPool::kNone;
}
void give_up_slot(dns_query *q);
void change_socket(dns_query *q);
[[nodiscard]] bool new_id(dns_query *q);

// enqueue puts a question that is in no list, or in a plain one, at the end of those that are to be sent.
void enqueue(dns_query *q);

// deliver ends a question: takes it out of every list, calls back, releases it.
void deliver(dns_query *q, dns_status status, void *result, unsigned size, unsigned sflags);

// drop ends a question without calling back.
void drop(dns_query *q);

// Hold keeps the records of questions and the memory of the last result while a debug function runs: it may cancel any
// question, the one it is told of too, and may parse packets of its own.
class Hold {
 public:
  explicit Hold(dns_ctx *ctx);
  ~Hold();
  Hold(const Hold &) = delete;
  Hold &operator=(const Hold &) = delete;

 private:
  dns_ctx *ctx_;
  uint8_t *result_;
  size_t result_size_;
};

// ask_again moves a question on to its next server and queues it for sending; when it has no try or no server left,
// ends it with `error`, or with the last error that a server answered with.
void ask_again(dns_query *q);

// give_up ends a query that has no attempt or no server left, or has it begin anew where it can.
void give_up(dns_query *q);

// ask_otherwise asks the present server again at once, without EDNS0 or over TCP as the query's fields now say;
// ask_over_tcp over TCP. forget_manner forgets how the present server was to be asked.
void ask_otherwise(dns_query *q);
inline void ask_over_tcp(dns_query *q) {
  q->over_tcp = true;
  ask_otherwise(q);
}
void forget_manner(dns_query *q);

// not_reached moves a query on whose present attempt could not leave, for want of a route or a socket, turned_back one
// whose attempt came back at once, because nothing listens there. Another server is asked at once. Where there is none
// the query pauses, since servers may be starting, a few times within a second in all. end_pause has it asked again.
void not_reached(dns_query *q);
inline void turned_back(dns_query *q) {
  q->turned_back = true;
  not_reached(q);
}
void end_pause(dns_query *q);

// ---- follow.cc

// follow has a question wait for an identical one that is open: true. Else it may be followed itself from now on.
[[nodiscard]] bool follow(dns_query *q);
// stop_leading takes a question out of the table and moves those that follow it to `followers`; hand_over makes the
// first of them the leader of the others, and has it sent.
void stop_leading(dns_query *q, base::Link *followers);
void hand_over(base::Link *followers);

// ---- choice.cc

// choose_first turns a question that is to be asked as if it were new to the server that it is asked of first,
// choose_next to its next one: false when every one has refused it. turn_away turns one that is to be sent away from a
// server that has been set aside meanwhile.
void choose_first(dns_query *q);
[[nodiscard]] bool choose_next(dns_query *q);
void turn_away(dns_query *q);

// is_unreached tells whether none of the servers that are left could be reached.
[[nodiscard]] bool is_unreached(const dns_query *q);

// try_patience_us is how long the present try is waited for.
[[nodiscard]] int64_t try_patience_us(const dns_query *q);

// missed notes that nothing has come back from the server of the present try.
void missed(dns_query *q);

// end_rating releases what a look-up of a server's cost, which is over, has held. drop_ratings drops all of them.
void end_rating(dns_query *q);
void drop_ratings(dns_ctx *ctx);

// ---- send.cc

// build writes the packet that asks `q` of its present server; its length.
[[nodiscard]] size_t build(dns_query *q, std::span<uint8_t> packet);

// client_cookie is this side's cookie for a server (RFC 7873, section 4.1).
inline constexpr size_t kClientCookieSize = 8;
void client_cookie(const dns_ctx *ctx, const Server *server, uint8_t *cookie);

// sent notes that a try of a question is on its way, and for how long it is waited for.
void sent(dns_query *q, int64_t patience_us);

// flush sends every question that is due. Questions whose socket is full stay until it drains.
void flush(dns_ctx *ctx);

// ---- receive.cc

// Arrival is a packet that came in, from where and by which road.
struct Arrival {
  std::span<const uint8_t> packet;
  const sockaddr_in *peer;
  int slot;

  [[nodiscard]] int protocol() const { return slot >= kTcpSlot ? IPPROTO_TCP : IPPROTO_UDP; }
};

// take_packet gives a packet to the query that it answers; false when there is none.
bool take_packet(dns_ctx *ctx, std::span<uint8_t> packet, const sockaddr_in &peer, int slot);

// receive reads what has arrived on a UDP socket.
void receive(dns_ctx *ctx, int slot);

// take_returned reads which queries the network has sent back as undeliverable on a UDP socket, and moves them on.
// False when there was none.
bool take_returned(dns_ctx *ctx, int slot);

void tell_packet(dns_ctx *ctx, dns_query *q, int code, const Arrival &arrival, int rtt_ms);

// ---- tcp.cc

// send_over_tcp sends a question on the connection to its server, or has it wait for one.
void send_over_tcp(dns_query *q);
// tcp_flush writes what is to be written on every connection. True when one broke, and left questions to be sent.
[[nodiscard]] bool tcp_flush(dns_ctx *ctx);
// tcp_receive reads what has arrived on every connection.
void tcp_receive(dns_ctx *ctx);
// tcp_forget takes a question off its connection.
void tcp_forget(dns_query *q);
// tcp_timed_out gives up the try of a question that is under way on a connection.
void tcp_timed_out(dns_query *q);
// tcp_event reads and writes the connection of a descriptor; false when there is none.
[[nodiscard]] bool tcp_event(dns_ctx *ctx, const dns_ios &socket);
// tcp_tidy closes connections that have been idle, tcp_close all.
void tcp_tidy(dns_ctx *ctx);
void tcp_close(dns_ctx *ctx);

// ---- outcome.cc

// take_answer decides what a packet that passed every check on its origin means for its query. `place` is that of the
// server that it answers for.
void take_answer(dns_query *q, const Arrival &arrival, const Header &header, unsigned place);

// take_cached answers a question from the entry in `ctx->entry`; false when the entry turns out to be of no use.
[[nodiscard]] bool take_cached(dns_query *q);

// set_key makes `ctx->entry` the entry of this question, with the flags of dns_cdata_setflags.
void set_key(dns_query *q, unsigned flags);

// parsed runs the question's parser over a packet, whose answers begin at `answers_at`. The block's size, 0 without a
// parser, or a negative status.
[[nodiscard]] int parsed(dns_query *q, std::span<const uint8_t> packet, size_t answers_at, void **result);

// ---- journey.cc

// zone_of is the zone that the question's present servers speak for; null for the root.
[[nodiscard]] const uint8_t *zone_of(const dns_query *q);
[[nodiscard]] unsigned aliases_left(const dns_query *q);

// begin_at_delegation makes the servers of the nearest zone above its name that is remembered those of a question that
// is in no list but `queued`. begin_anew goes on when a question's servers were of no use: forgets remembered ones and
// asks the context's servers, or looks up those of the zone's servers that came without an address. False when there is
// nothing of either.
// has_other_servers tells whether the zone of the query's servers has further ones, whose addresses are not known.
void begin_at_delegation(dns_query *q);
[[nodiscard]] bool begin_anew(dns_query *q);
[[nodiscard]] bool has_other_servers(const dns_query *q);

// ask_on asks for the name that a chain of aliases led to. follow_referral asks the servers of `zone`, which the packet
// refers to. False when the question cannot go on so: then nothing has changed.
[[nodiscard]] bool ask_on(dns_query *q, std::span<const uint8_t> packet, size_t answers_at, const Chain &chain);
[[nodiscard]] bool follow_referral(dns_query *q, std::span<const uint8_t> packet, const uint8_t *zone);

// complete adds the last answer to the aliases that were passed, in the journey's entry, and makes one packet of all.
[[nodiscard]] dns_status complete(dns_query *q, std::span<const uint8_t> packet, size_t answers_at, const Chain &chain,
                                  int rcode, int32_t ttl, std::span<const uint8_t> *whole);

// abandon_lookup cancels the look-up that a question waits for; end_journey releases all that it has remembered.
void abandon_lookup(dns_query *q);
void end_journey(dns_query *q);

// end_direct ends the asking of servers for what they hold, and has the context's servers asked for recursion.
void end_direct(dns_query *q);

}  // namespace dns

#endif  // DNS_ENGINE_ENGINE_H
