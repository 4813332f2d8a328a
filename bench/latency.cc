// bench_latency: what one thread waits for an answer that is already here. A bare UDP round trip over loopback
// (blocking send and recv on connected sockets, an echo at the other end), a cache hit through kavo_query, and a cache
// hit through kavo_cache_get take turns within one run, so that the ratios between them say something on a noisy
// machine.
//
// The echo does nothing but send back: no server that makes an answer is faster. A hit through the server thread has to
// cost less than that, or a host would do as well to ask the network; a hit without it, a twentieth.
#include <arpa/inet.h>
#include <kavo.h>
#include <sys/socket.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

constexpr const char *kZone = "bench.test";
constexpr uint32_t kListedAnswer = 0x7F000002;
constexpr int kTtl = 86'400;  // outlives every run
constexpr int kCacheBytes = 1 << 20;
constexpr int kTableSize = 16;
constexpr unsigned kTimeoutMs = 10'000;
constexpr size_t kPacketBytes = 44;  // of the question about an address in the zone, whose answer is a little longer

// One operation's seconds, `count` times in a row.
template <typename Operation>
double time_of(unsigned count, Operation &&operation) {
  const auto start = std::chrono::steady_clock::now();
  for (unsigned i = 0; i < count; ++i)
    operation(i);
  const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - start;
  return wall.count() / count;
}

// ---- the bare round trip

class Socket {
 public:
  Socket() : fd_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in any = {};
    any.sin_family = AF_INET;
    any.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const timeval patience = {kTimeoutMs / 1000, 0};
    if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr *>(&any), sizeof any) != 0 ||
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience) != 0)
      throw std::runtime_error("no socket");
  }
  ~Socket() { close(fd_); }
  Socket(const Socket &) = delete;
  Socket &operator=(const Socket &) = delete;

  void connect_to(const Socket &other) const {
    sockaddr_in place = {};
    socklen_t size = sizeof place;
    if (getsockname(other.fd_, reinterpret_cast<sockaddr *>(&place), &size) != 0 ||
        connect(fd_, reinterpret_cast<sockaddr *>(&place), size) != 0)
      throw std::runtime_error("connect");
  }
  [[nodiscard]] ssize_t send(const void *data, size_t size) const { return ::send(fd_, data, size, 0); }
  [[nodiscard]] ssize_t receive(void *data, size_t size) const { return ::recv(fd_, data, size, 0); }

 private:
  int fd_;
};

// RoundTrip has a thread at the far end that sends every packet back, until an empty one comes.
class RoundTrip {
 public:
  RoundTrip() {
    near_.connect_to(far_);
    far_.connect_to(near_);
    echo_ = std::thread([this] {
      std::array<char, 512> packet;
      for (;;) {
        const ssize_t size = far_.receive(packet.data(), packet.size());
        if (size == 0) return;
        if (size > 0 && far_.send(packet.data(), static_cast<size_t>(size)) != size) return;
      }
    });
  }
  ~RoundTrip() {
    if (near_.send("", 0) != 0) std::terminate();
    echo_.join();
  }
  RoundTrip(const RoundTrip &) = delete;
  RoundTrip &operator=(const RoundTrip &) = delete;

  void operator()(unsigned i) {
    std::array<char, kPacketBytes> packet{};
    packet[0] = static_cast<char>(i);
    if (near_.send(packet.data(), packet.size()) != ssize_t{kPacketBytes} ||
        near_.receive(packet.data(), packet.size()) != ssize_t{kPacketBytes} || packet[0] != static_cast<char>(i))
      throw std::runtime_error("the packet did not come back");
  }

 private:
  Socket near_, far_;
  std::thread echo_;
};

// ---- kavo

void must(KAVO_ERR code, const char *what) {
  if (code != KAVOE_OK) throw std::runtime_error(std::string(what) + ": " + kavo_strerror(code));
}

// Library has a context whose cache knows the answers about `subjects` addresses, and no server to ask for another.
class Library {
 public:
  explicit Library(unsigned subjects) : subjects_(subjects) {
    must(kavo_init(&kavo_, kTableSize, kCacheBytes, 0), "kavo_init");
    must(kavo_add_zone(kavo_, KAVOT_BL_IP, kZone), "kavo_add_zone");
    must(kavo_add_dns_server(kavo_, nullptr, 0), "kavo_add_dns_server");
    cache_ = kavo_get_ext_cache(kavo_, KAVOCT_ANS);
    fill();
    must(kavo_open(kavo_), "kavo_open");
  }
  ~Library() {
    for (int i = 0; i < length_; ++i)
      kavo_rr_free(&answers_[i].rr);
    free(answers_);
    kavo_rr_free(&found_.rr);
    kavo_close(kavo_);
    kavo_free(kavo_);
  }
  Library(const Library &) = delete;
  Library &operator=(const Library &) = delete;

  // One question from subscribing to unsubscribing, its answer copied.
  void ask(unsigned i) {
    const in_addr subject = {htonl(address(i))};
    int written = 0;
    must(kavo_query(kavo_, KAVOT_BL_IP, &subject, sizeof subject, &answers_, length_, &written, kTimeoutMs, KAVOWT_FULL,
                    0),
         "kavo_query");
    length_ = std::max(length_, written);
    check(answers_[0]);
  }

  // The same entry from the cache itself.
  void fetch(unsigned i) {
    const std::string &name = names_[i % subjects_];
    must(kavo_cache_get(cache_, KAVOT_BL_IP, name.c_str(), static_cast<int>(name.size()), &found_, 0),
         "kavo_cache_get");
    check(found_);
  }

 private:
  [[nodiscard]] uint32_t address(unsigned i) const { return 0x0A000000U + i % subjects_; }

  static void check(const KAVO_ANSWER &answer) {
    if (answer.err_code != KAVOE_OK || answer.cache_code != KAVOCC_EXISTS || answer.rr.rr_a->dnsa4_nrr != 1 ||
        ntohl(answer.rr.rr_a->dnsa4_addr[0].s_addr) != kListedAnswer)
      throw std::runtime_error("wrong answer");
  }

  void fill() {
    in_addr listed = {htonl(kListedAnswer)};
    dns_rr_a4 block = {};
    block.dnsa4_size = block.dnsa4_written = sizeof block;
    block.dnsa4_ttl = kTtl;
    block.dnsa4_nrr = 1;
    block.dnsa4_addr = &listed;
    KAVO_RR rr;
    rr.rr_a = &block;
    for (unsigned i = 0; i < subjects_; ++i) {
      std::string name;
      for (unsigned shift = 0; shift < 32; shift += 8)
        name += std::to_string((address(i) >> shift) & 255) + ".";
      name += kZone;
      must(kavo_cache_put(cache_, KAVOT_BL_IP, name.c_str(), static_cast<int>(name.size()), &rr), "kavo_cache_put");
      names_.push_back(std::move(name));
    }
  }

  unsigned subjects_;
  std::vector<std::string> names_;
  KAVO kavo_ = nullptr;
  KAVO_CACHE cache_ = nullptr;
  KAVO_ANSWER *answers_ = nullptr;
  int length_ = 0;
  KAVO_ANSWER found_ = {};
};

// ---- the table

struct Contender {
  const char *name;
  std::vector<double> seconds, ratio;
};

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

void compare(unsigned count, unsigned rounds, unsigned subjects) {
  RoundTrip trip;
  Library library(subjects);
  std::array<Contender, 3> contenders = {
      {{"bare UDP round trip", {}, {}}, {"kavo_query, cache hit", {}, {}}, {"kavo_cache_get, hit", {}, {}}}};
  for (unsigned round = 0; round <= rounds; ++round) {
    const std::array<double, 3> seconds = {time_of(count, trip),
                                           time_of(count, [&library](unsigned i) { library.ask(i); }),
                                           time_of(count, [&library](unsigned i) { library.fetch(i); })};
    for (size_t i = 0; round > 0 && i < contenders.size(); ++i) {  // the first round warms up
      contenders[i].seconds.push_back(seconds[i]);
      contenders[i].ratio.push_back(seconds[i] / seconds[0]);
    }
  }
  std::printf("| operation             | µs each | ratio | at most |\n");
  std::printf("| --- | ---: | ---: | ---: |\n");
  const std::array<double, 3> bounds = {1.0, 1.0, 0.05};
  for (size_t i = 0; i < contenders.size(); ++i)
    std::printf("| %-21s | %7.2f | %5.3f | %7.2f |\n", contenders[i].name, median(contenders[i].seconds) * 1e6,
                median(contenders[i].ratio), bounds[i]);
}

}  // namespace

int main(int argc, char **argv) {
  CLI::App app("What a thread waits for a cache hit, beside a bare UDP round trip over loopback.");
  unsigned count = 5'000, rounds = 31, subjects = 1'000;
  app.add_option("--count", count, "operations of each kind a round")
      ->check(CLI::Range(1, 10'000'000))
      ->capture_default_str();
  app.add_option("--rounds", rounds, "rounds of each; medians are printed")
      ->check(CLI::Range(1, 999))
      ->capture_default_str();
  app.add_option("--subjects", subjects, "addresses in the cache")->check(CLI::Range(1, 5'000))->capture_default_str();
  CLI11_PARSE(app, argc, argv);
  try {
    compare(count, rounds, subjects);
  } catch (const std::exception &error) {
    std::fprintf(stderr, "bench_latency: %s\n", error.what());
    return 1;
  }
  return 0;
}
