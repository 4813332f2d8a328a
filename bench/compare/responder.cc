#include "responder.h"

#include <measure.h>
#include <poll.h>
#include <questions.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <vector>

#include "client.h"
#include "packet.h"
#include "runs.h"
#include "socket.h"

namespace compare {
namespace {

constexpr useconds_t kHeldPauseUs = 500;  // between two batches of answers that were held back
constexpr size_t kFlagsAt = 2, kRcodeAt = 3, kAnswersAt = 7, kAuthorityAt = 9, kAdditionalAt = 11;
constexpr uint8_t kQr = 0x80, kAa = 0x04, kRd = 0x01, kNxDomain = 3;
constexpr unsigned kSecondByteLabel = 2;  // a name has the last byte of its address first
constexpr unsigned kZoneLabel = 4;

// The parts of answers. Owners are pointers into the question section: the query name, and its zone.
constexpr std::array<uint8_t, 16> kAddress = {0xc0, kHeaderSize, 0, 1, 0, 1, 0, 1, 0x51, 0x80, 0, 4, 127, 0, 0, 2};
constexpr std::array<uint8_t, 34> kSoa = {0xc0, 0, 0, 6,    0, 1, 0, 0,    0x01, 0x2c, 0, 22,     // 22 bytes of data:
                                          0,    0, 0, 0,    0, 1, 0, 0,    0x01, 0x2c,            // two root names, and
                                          0,    0, 1, 0x2c, 0, 0, 1, 0x2c, 0,    0,    1, 0x2c};  // five numbers
constexpr std::array<uint8_t, 11> kOpt = {0, 0, 41, 0x04, 0xd0, 0, 0, 0, 0, 0, 0};

size_t append(uint8_t *at, std::span<const uint8_t> part) {
  memcpy(at, part.data(), part.size());
  return part.size();
}

// make_answer turns a query into its answer, in place, and returns its size; 0 for an invalid query.
size_t make_answer(std::span<uint8_t, kPacketMax> packet, size_t size) {
  const size_t end = question_end(std::span<const uint8_t>(packet).first(size));
  if (end == 0) return 0;
  size_t at = kHeaderSize, zone_at = 0;
  bool found = false;
  for (unsigned label = 0; packet[at] != 0 && label < kZoneLabel; ++label) {
    at += packet[at] + size_t{1};
    if (label == kSecondByteLabel) found = (packet[at - 1] & 1) != 0;  // its last digit
    zone_at = at;
  }
  const bool edns = packet[kAdditionalAt] != 0;
  packet[kFlagsAt] = kQr | kAa | (packet[kFlagsAt] & kRd);
  packet[kRcodeAt] = found ? 0 : kNxDomain;
  packet[kAnswersAt] = found ? 1 : 0;
  packet[kAuthorityAt] = found ? 0 : 1;
  size = end;
  if (found) {
    size += append(&packet[size], kAddress);
  } else {
    const size_t record = size;
    size += append(&packet[size], kSoa);
    packet[record + 1] = static_cast<uint8_t>(zone_at);
  }
  if (edns) size += append(&packet[size], kOpt);
  return size;
}

// Batch is the packets of one system call each way. Answers leave in runs, so that this process costs less than its
// clients.
class Batch {
 public:
  Batch() : queries_{} {
    for (unsigned i = 0; i < kBatch; ++i) {
      msghdr &query = queries_[i].msg_hdr;
      query.msg_iov = &parts_[i];
      query.msg_iovlen = 1;
      query.msg_name = &peers_[i];
    }
  }

  // Waits for at least one query, makes the answers to those received, and returns their number.
  unsigned receive(int fd) {
    for (unsigned i = 0; i < kBatch; ++i) {
      parts_[i] = {packets_[i].data(), packets_[i].size()};
      queries_[i].msg_hdr.msg_namelen = sizeof peers_[i];
    }
    const int got = recvmmsg(fd, queries_.data(), kBatch, MSG_WAITFORONE, nullptr);
    count_ = got > 0 ? static_cast<unsigned>(got) : 0;
    for (unsigned i = 0; i < count_; ++i)
      parts_[i].iov_len = make_answer(packets_[i], queries_[i].msg_len);
    return count_;
  }

  // An answer is refused when its peer is gone.
  void send(int fd) {
    answers_.lay_out(std::span<const iovec>(parts_).first(count_), peers_.data());
    (void)answers_.send(fd);
  }

 private:
  unsigned count_ = 0;
  std::array<std::array<uint8_t, kPacketMax>, kBatch> packets_;
  std::array<iovec, kBatch> parts_;
  std::array<sockaddr_in6, kBatch> peers_;  // of either family
  std::array<mmsghdr, kBatch> queries_;
  Runs answers_;
};

uint16_t port_of(testbed::Process *process) {
  const uint16_t port = testbed::port_in(process->wait_line("listening on").value_or(""));
  if (port == 0) throw std::runtime_error("the responder did not start: " + process->output().err);
  return port;
}

class Own : public Responder {
 public:
  Own(unsigned core, Buffers buffers, bool hold, const std::string &address)
      : address_(address),
        pinned_(std::make_unique<bench::Pinned>(core)),
        process_({self(), "respond", "--address", address, "--large", std::to_string(buffers == Buffers::large),
                  "--hold", std::to_string(hold)}),
        port_(port_of(&process_)) {
    pinned_.reset();
  }
  [[nodiscard]] std::string address() const override { return address_; }
  [[nodiscard]] uint16_t port() const override { return port_; }
  [[nodiscard]] pid_t process() const override { return process_.pid(); }

 private:
  std::string address_;
  std::unique_ptr<bench::Pinned> pinned_;  // while the process starts
  testbed::Process process_;
  uint16_t port_;
};

// give_room enlarges the receive buffers of another process's sockets: rbldnsd leaves its own at what the system gives.
void give_room(pid_t process) {
  constexpr int kDescriptors = 64;
  const int handle = static_cast<int>(syscall(SYS_pidfd_open, process, 0));
  bool found = false;
  for (int fd = 0; handle >= 0 && fd < kDescriptors; ++fd) {
    const int copy = static_cast<int>(syscall(SYS_pidfd_getfd, handle, fd, 0));
    int kind = 0;
    socklen_t size = sizeof kind;
    if (copy >= 0 && getsockopt(copy, SOL_SOCKET, SO_TYPE, &kind, &size) == 0 && kind == SOCK_DGRAM) {
      grow_buffer(copy);
      found = true;
    }
    if (copy >= 0) close(copy);
  }
  if (handle >= 0) close(handle);
  if (!found) throw std::runtime_error("cannot enlarge the socket buffer of rbldnsd");
}

class Rbldnsd : public Responder {
 public:
  Rbldnsd(unsigned core, Buffers buffers) {
    const bench::Pinned pinned(core);
    daemon_ = testbed::start_rbldnsd({{bench::zone(0), "ip4set", bench::rbldnsd_zone()}});
    if (buffers == Buffers::large) give_room(daemon_->pid());
  }
  [[nodiscard]] uint16_t port() const override { return daemon_->port(); }
  [[nodiscard]] pid_t process() const override { return daemon_->pid(); }

 private:
  std::unique_ptr<testbed::NameDaemon> daemon_;
};

// take_for_a_while receives queries for kHeldUs from the first one on, and returns them with their answers.
std::vector<std::unique_ptr<Batch>> take_for_a_while(int fd) {
  using Clock = std::chrono::steady_clock;
  std::vector<std::unique_ptr<Batch>> taken;
  taken.push_back(std::make_unique<Batch>());
  (void)taken.back()->receive(fd);
  const Clock::time_point end = Clock::now() + std::chrono::microseconds(kHeldUs);
  for (pollfd readable{fd, POLLIN, 0};;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
    if (left <= 0 || poll(&readable, 1, static_cast<int>(left)) <= 0) return taken;
    taken.push_back(std::make_unique<Batch>());
    (void)taken.back()->receive(fd);
  }
}

}  // namespace

std::string self() {
  return std::filesystem::read_symlink("/proc/self/exe");
}

void respond(const std::string &address, Buffers buffers, bool hold) {
  UdpSocket socket(address);
  if (buffers == Buffers::large) grow_buffer(socket.fd());
  std::printf("listening on %s:%u\n", address.c_str(), socket.port());
  std::fflush(stdout);
  if (hold) {
    for (const auto &batch : take_for_a_while(socket.fd())) {
      batch->send(socket.fd());
      usleep(kHeldPauseUs);
    }
  }
  for (Batch batch;; batch.send(socket.fd()))
    (void)batch.receive(socket.fd());
}

std::unique_ptr<Responder> start_own(unsigned core, Buffers buffers, bool hold, const std::string &address) {
  return std::make_unique<Own>(core, buffers, hold, address);
}

std::unique_ptr<Responder> start_rbldnsd(unsigned core, Buffers buffers) {
  return std::make_unique<Rbldnsd>(core, buffers);
}

Buffers buffers_for(const std::string &client) {
  return client.starts_with("kavo") ? Buffers::of_the_system : Buffers::large;
}

Responders start_both(unsigned core) {
  return {start_own(core, Buffers::of_the_system), start_own(core, Buffers::large)};
}

Responders start_both_rbldnsd(unsigned core) {
  return {start_rbldnsd(core, Buffers::of_the_system), start_rbldnsd(core, Buffers::large)};
}

}  // namespace compare
