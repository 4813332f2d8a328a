// bench_throughput: questions a second and processor time a question, for 1, 64 and 1,000 outstanding questions, beside
// a bare sendmmsg/recvmmsg loop that sends the same packets to the same server. The two take turns within one run, so
// that the ratio between them says something on a noisy machine; the figures of one round alone do not.
//
// Both ask kavo-listserver about addresses of 10.0.0.0/8 in one zone, every other one listed, and check every answer.
#include <arpa/inet.h>
#include <kavo.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/process.h"

namespace {

constexpr const char *kZone = "bench.test";
constexpr uint32_t kListedAnswer = 0x7F000002;
constexpr unsigned kBatch = 64;
constexpr int kPatienceMs = 1000;

struct Cost {
  double wall_s;
  double cpu_s;
  unsigned lost;
};

double cpu_now() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval &t) {
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

class Stopwatch {
 public:
  [[nodiscard]] Cost stop(unsigned lost) const {
    const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - wall_;
    return {wall.count(), cpu_now() - cpu_, lost};
  }

 private:
  std::chrono::steady_clock::time_point wall_ = std::chrono::steady_clock::now();
  double cpu_ = cpu_now();
};

// The n-th address asked about; odd ones are listed (see zone_text).
uint32_t subject(uint32_t n) {
  return 0x0A000000U | (n & 0xFFFFFFU);
}
bool listed(uint32_t address) {
  return ((address >> 16) & 1U) != 0;
}

std::string zone_text() {
  std::string text = std::string("zone ") + kZone + "\n";
  for (unsigned i = 1; i < 256; i += 2)
    text += "list 10." + std::to_string(i) + ".0.0/16 127.0.0.2\n";
  return text;
}

// Question i of round r: the sequence spreads over the second octet, so that about half of any stretch is listed.
uint32_t question(uint32_t i) {
  return subject(i * 0x9E3779U);
}

// ---- the bare loop

size_t put_label(uint8_t *at, const std::string &label) {
  *at = static_cast<uint8_t>(label.size());
  memcpy(at + 1, label.data(), label.size());
  return label.size() + 1;
}

size_t put_question(uint8_t *packet, uint16_t id, uint32_t address) {
  const uint8_t header[12] = {static_cast<uint8_t>(id >> 8), static_cast<uint8_t>(id), 0, 0, 0, 1, 0, 0, 0, 0, 0, 0};
  memcpy(packet, header, sizeof header);
  size_t at = sizeof header;
  for (unsigned shift = 0; shift < 32; shift += 8)
    at += put_label(packet + at, std::to_string((address >> shift) & 255));
  at += put_label(packet + at, "bench");
  at += put_label(packet + at, "test");
  const uint8_t tail[5] = {0, 0, 1, 0, 1};
  memcpy(packet + at, tail, sizeof tail);
  return at + sizeof tail;
}

class BareLoop {
 public:
  explicit BareLoop(uint16_t port) : socket_(::socket(AF_INET, SOCK_DGRAM, 0)), slots_(65536) {
    sockaddr_in server{};
    server.sin_family = AF_INET;
    server.sin_port = htons(port);
    server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (socket_ < 0 || connect(socket_, reinterpret_cast<sockaddr *>(&server), sizeof server) != 0)
      throw std::runtime_error("no socket");
    const int bytes = 8 << 20;
    if (setsockopt(socket_, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) != 0)
      setsockopt(socket_, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
    for (unsigned i = 0; i < kBatch; ++i) {
      vectors_[i] = {buffers_[i], sizeof buffers_[i]};
      messages_[i] = {};
      messages_[i].msg_hdr.msg_iov = &vectors_[i];
      messages_[i].msg_hdr.msg_iovlen = 1;
    }
  }
  ~BareLoop() { close(socket_); }
  BareLoop(const BareLoop &) = delete;
  BareLoop &operator=(const BareLoop &) = delete;

  Cost run(unsigned window, unsigned count) {
    Stopwatch watch;
    unsigned sent = 0, done = 0, lost = 0;
    while (done < count) {
      while (sent < count && sent - done < window)
        sent += send(sent, std::min({kBatch, window - (sent - done), count - sent}));
      const unsigned got = receive();
      if (got == 0) {
        lost += sent - done;
        done = sent;
      }
      done += got;
    }
    return watch.stop(lost);
  }

 private:
  unsigned send(unsigned first, unsigned count) {
    for (unsigned i = 0; i < count; ++i) {
      const uint32_t address = question(first + i);
      slots_[(first + i) & 65535] = address;
      vectors_[i].iov_len = put_question(buffers_[i], static_cast<uint16_t>(first + i), address);
    }
    const int sent = sendmmsg(socket_, messages_, count, 0);
    if (sent <= 0) throw std::runtime_error("sendmmsg");
    return static_cast<unsigned>(sent);
  }

  unsigned receive() {
    pollfd ready = {socket_, POLLIN, 0};
    if (poll(&ready, 1, kPatienceMs) <= 0) return 0;
    for (unsigned i = 0; i < kBatch; ++i)
      vectors_[i].iov_len = sizeof buffers_[i];
    const int got = recvmmsg(socket_, messages_, kBatch, MSG_DONTWAIT, nullptr);
    for (int i = 0; i < got; ++i)
      check(buffers_[i], messages_[i].msg_len);
    return got > 0 ? static_cast<unsigned>(got) : 0;
  }

  void check(const uint8_t *packet, size_t size) const {
    const uint32_t address = slots_[static_cast<size_t>(packet[0] << 8 | packet[1])];
    const bool found = size > 12 && packet[7] == 1 && packet[size - 1] == 2;
    if (found != listed(address)) throw std::runtime_error("bare loop: wrong answer");
  }

  int socket_;
  std::vector<uint32_t> slots_;
  uint8_t buffers_[kBatch][512];
  iovec vectors_[kBatch];
  mmsghdr messages_[kBatch];
};

// ---- kavo

void must(KAVO_ERR code, const char *what) {
  if (code != KAVOE_OK) throw std::runtime_error(std::string(what) + ": " + kavo_strerror(code));
}

class Library {
 public:
  Library(uint16_t port, unsigned window) : nodes_(window), subjects_(window) {
    must(kavo_init(&kavo_, static_cast<int>(window), 0, 0), "kavo_init");
    must(kavo_add_zone(kavo_, KAVOT_BL_IP, kZone), "kavo_add_zone");
    must(kavo_add_dns_server(kavo_, nullptr, 0), "kavo_add_dns_server");
    must(kavo_add_dns_server(kavo_, "127.0.0.1", port), "kavo_add_dns_server");
    must(kavo_open(kavo_), "kavo_open");
    iterator_ = kavo_alloc_answer_iterator();
  }
  ~Library() {
    kavo_free_answer_iterator(iterator_);
    kavo_close(kavo_);
    kavo_free(kavo_);
  }
  Library(const Library &) = delete;
  Library &operator=(const Library &) = delete;

  Cost run(unsigned count) {
    const unsigned window = static_cast<unsigned>(nodes_.size());
    Stopwatch watch;
    unsigned lost = 0;
    for (unsigned i = 0; i < count + window; ++i) {
      const unsigned slot = i % window;
      if (i >= window) lost += finish(slot) ? 0 : 1;
      if (i < count) start(slot, question(i));
    }
    return watch.stop(lost);
  }

 private:
  void start(unsigned slot, uint32_t address) {
    const in_addr query = {htonl(address)};
    subjects_[slot] = address;
    must(kavo_subscribe_node(kavo_, KAVOT_BL_IP, &query, sizeof query, 0, nullptr, &nodes_[slot]),
         "kavo_subscribe_node");
  }

  bool finish(unsigned slot) {
    must(kavo_wait_node(kavo_, nodes_[slot], KAVOWT_FULL, nullptr), "kavo_wait_node");
    must(kavo_set_answer_iterator(kavo_, nodes_[slot], iterator_), "kavo_set_answer_iterator");
    const KAVO_ANSWER *answer = kavo_get_answer(kavo_, iterator_);
    const bool answered = answer != nullptr && (answer->err_code == KAVOE_OK || answer->err_code == KAVOE_NXDOM);
    const bool found = answered && answer->err_code == KAVOE_OK && answer->rr.rr_a->dnsa4_nrr == 1 &&
                       ntohl(answer->rr.rr_a->dnsa4_addr[0].s_addr) == kListedAnswer;
    if (answered && found != listed(subjects_[slot])) throw std::runtime_error("kavo: wrong answer");
    must(kavo_unsubscribe_node(kavo_, nodes_[slot]), "kavo_unsubscribe_node");
    return answered;
  }

  KAVO kavo_ = nullptr;
  KAVO_ANSWER_ITERATOR iterator_ = nullptr;
  std::vector<KAVO_QUERY_NODE> nodes_;
  std::vector<uint32_t> subjects_;
};

// ---- the table

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

void compare(uint16_t port, unsigned window, unsigned count, unsigned rounds) {
  BareLoop bare(port);
  Library library(port, window);
  (void)bare.run(window, count / 10);
  (void)library.run(count / 10);
  std::vector<double> rate[2], cpu[2], ratio;
  unsigned lost[2] = {};
  for (unsigned round = 0; round < rounds; ++round) {
    const Cost costs[2] = {bare.run(window, count), library.run(count)};
    for (unsigned i = 0; i < 2; ++i) {
      rate[i].push_back(count / costs[i].wall_s);
      cpu[i].push_back(costs[i].cpu_s / count * 1e6);
      lost[i] += costs[i].lost;
    }
    ratio.push_back(costs[1].cpu_s / costs[0].cpu_s);
  }
  for (unsigned i = 0; i < 2; ++i)
    std::printf("| %5u | %-9s | %9.0f | %6.2f | %5.2f | %4u |\n", window, i == 0 ? "bare loop" : "kavo",
                median(rate[i]), median(cpu[i]), i == 0 ? 1.0 : median(ratio), lost[i]);
}

}  // namespace

int main(int argc, char **argv) {
  CLI::App app("Questions a second and processor time a question, beside a bare loop that sends the same packets.");
  unsigned count = 100'000, rounds = 5;
  std::vector<unsigned> windows = {1, 64, 1000};
  app.add_option("--count", count, "questions a round")->capture_default_str();
  app.add_option("--rounds", rounds, "rounds of each; medians are printed")
      ->check(CLI::Range(1, 99))
      ->capture_default_str();
  app.add_option("--outstanding", windows, "outstanding questions")->check(CLI::Range(1, 60000))->capture_default_str();
  CLI11_PARSE(app, argc, argv);
  try {
    const support::TempDir dir;
    support::Process server({std::string(KAVO_TOOLS_DIR) + "/kavo-listserver", dir.write("zones", zone_text())});
    const uint16_t port = support::port_in(server.wait_line("listening on").value_or(""));
    if (port == 0) throw std::runtime_error("the list server did not start: " + server.output().err);
    std::printf("| outstanding | client | questions/s | processor µs a question | ratio | lost |\n");
    std::printf("| ---: | --- | ---: | ---: | ---: | ---: |\n");
    for (const unsigned window : windows)
      compare(port, window, window == 1 ? count / 4 : count, rounds);
  } catch (const std::exception &error) {
    std::fprintf(stderr, "bench_throughput: %s\n", error.what());
    return 1;
  }
  return 0;
}
