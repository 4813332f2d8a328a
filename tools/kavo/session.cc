#include "session.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <string_view>

#include "subject.h"

namespace tool {
namespace {

constexpr unsigned kAttempts = 3;
constexpr unsigned kAttemptsMax = 50;  // the library's own bound
constexpr unsigned kSlackMs = 5000;    // beyond all attempts, before the tool gives up
constexpr unsigned kAliasesMax = 16;   // CNAMEs that the library follows
constexpr unsigned kPortMax = 65534;   // the library's own bound
constexpr unsigned kMsPerSecond = 1000;

struct ServerAddress {
  std::string address;
  unsigned port;  // 0: the library's default
};

// parse_port returns the port that follows a server's address, with its colon; 0 where nothing does.
unsigned parse_port(std::string_view rest, const std::string &name) {
  if (rest.empty()) return 0;
  const char *begin = rest.data() + 1, *end = rest.data() + rest.size();
  unsigned port = 0;
  const auto [stop, error] = std::from_chars(begin, end, port);
  if (rest[0] != ':' || error != std::errc() || stop != end || port < 1 || port > kPortMax)
    throw Usage{name + ": the port must be a number from 1 to " + std::to_string(kPortMax)};
  return port;
}

// parse_server reads ADDRESS[:PORT]. An IPv6 address with a port is in brackets.
ServerAddress parse_server(const std::string &text) {
  const std::string name = "server " + quoted(text);
  const size_t colon = text.find(':');
  if (text.starts_with('[')) {
    const size_t bracket = text.find(']');
    if (bracket == std::string::npos || colon > bracket) throw Usage{name + ": brackets must hold an IPv6 address"};
    return {text.substr(1, bracket - 1), parse_port(std::string_view(text).substr(bracket + 1), name)};
  }
  if (colon == std::string::npos || colon != text.rfind(':')) return {text, 0};
  return {text.substr(0, colon), parse_port(std::string_view(text).substr(colon), name)};
}

// fault_of returns what is wrong with an address that the library takes for none.
std::string fault_of(const std::string &address) {
  const size_t percent = address.find('%');
  in6_addr bare;
  if (inet_pton(AF_INET6, address.substr(0, percent).c_str(), &bare) != 1) return "is no IP address";
  if (!IN6_IS_ADDR_LINKLOCAL(&bare)) return "names an interface, which only a link-local address does";
  return percent == std::string::npos ? "is link-local and needs its interface, as in fe80::1%eth0"
                                      : "names an interface that does not exist";
}

// attempts_of returns how many attempts a query has: each server gets one at least.
unsigned attempts_of(const Network &network) {
  return std::clamp(static_cast<unsigned>(network.servers.size()), kAttempts, kAttemptsMax);
}

void set_servers(const Network &network, KAVO kavo) {
  if (network.servers.empty()) return;
  must(kavo_add_dns_server(kavo, nullptr, 0), "cannot replace the servers");
  for (const std::string &text : network.servers) {
    const ServerAddress server = parse_server(text);
    const KAVO_ERR error = kavo_add_dns_server(kavo, server.address.c_str(), server.port);
    if (error == KAVOE_BADPAR)
      throw Usage{"server " + quoted(text) + ": " + quoted(server.address) + " " + fault_of(server.address)};
    must(error, "cannot add a server");
  }
}

}  // namespace

Context::Context(const Room &room) {
  must(kavo_init_ext(&kavo_, room.nodes, room.cache_bytes, room.zones, 0), "cannot create the library's context");
}

Context::~Context() {
  kavo_close(kavo_);
  kavo_free(kavo_);
}

Session::Session(const Network &network, const Room &room) : context_(room), network_(network) {
  set_servers(network, kavo());
  must(kavo_set_opt(kavo(), KAVOOPT_TIMEOUT_MSEC, network.timeout_ms), "cannot set the timeout");
  must(kavo_set_opt(kavo(), KAVOOPT_NTRIES, attempts_of(network)), "cannot set the number of attempts");
  must(kavo_set_opt(kavo(), KAVOOPT_WINDOW, network.window), "cannot set the window");
  must(kavo_set_opt(kavo(), KAVOOPT_RATE, network.rate), "cannot set the rate");
  must(kavo_set_opt(kavo(), KAVOOPT_CLOSE_FAST, 1), "cannot set the manner of closing");
  if (!network.trace) return;
  must(kavo_set_trace(kavo(), kavo_dbgcb, nullptr), "cannot set the trace");
  // The trace goes to both streams: a whole line at a time keeps them in step where they end up in one place.
  (void)std::setvbuf(stdout, nullptr, _IOLBF, 0);
}

void Session::keep_large() {
  large_ = std::make_unique<LargeAnswers>();
  large_->observe(kavo(), network_.trace);
}

unsigned Session::wait_ms(size_t outstanding) const {
  const uint64_t attempts = attempts_of(network_);
  uint64_t wait = (attempts + 1) * network_.timeout_ms + kSlackMs;
  // The other queries may come first: each with all its attempts, and those for a CNAME chain.
  const uint64_t packets = outstanding * (attempts + kAliasesMax);
  if (network_.rate != 0) wait += packets * kMsPerSecond / network_.rate;
  if (network_.window != kWindowMax) wait += packets / network_.window * network_.timeout_ms;
  return static_cast<unsigned>(std::min<uint64_t>(wait, std::numeric_limits<unsigned>::max()));
}

void Session::open() {
  must(kavo_open(kavo()), "cannot open the library's context");
}

}  // namespace tool
