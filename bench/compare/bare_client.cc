// bare_client.cc - the least that asking can cost: packets written and read in place, one system call for up to 64 of
// them each way, one connected socket. In runs, packets of one size leave as one message.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "client.h"
#include "packet.h"
#include "runs.h"
#include "socket.h"

namespace compare {
namespace {

constexpr const char *kName = "bare loop";
constexpr unsigned kIds = 65536;
constexpr unsigned kBits = 8;

class Bare : public Client {
 public:
  Bare(const Task &task, uint16_t port, bool in_runs)
      : task_(task),
        in_runs_(in_runs),
        window_(task.window() * task.zones),
        names_(task.zones),
        socket_(task.server_address, port),
        asked_(kIds) {
    for (unsigned i = 0; i < kBatch; ++i) {
      parts_[i] = {packets_[i].data(), packets_[i].size()};
      messages_[i] = {};
      messages_[i].msg_hdr.msg_iov = &parts_[i];
      messages_[i].msg_hdr.msg_iovlen = 1;
    }
  }

  unsigned ask(unsigned first, unsigned count) override {
    const unsigned packets = count * task_.zones;
    Packets next(task_, first);
    unsigned sent = 0, done = 0;
    while (done < packets) {
      const unsigned room = std::min(window_ - (sent - done), packets - sent);
      if (room > 0) sent += send(sent, std::min(kBatch, room), &next);
      // The answers that have come make room for the next batch; only with all questions outstanding is there a wait
      // for them.
      const bool full = sent - done == window_ || sent == packets;
      const unsigned got = receive(full);
      if (got == 0 && full) return packets - done;
      done += got;
    }
    return 0;
  }

 private:
  struct Asked {
    uint32_t address = 0;
    uint32_t size = 0;  // of the query; 0: not under way
  };

  unsigned send(unsigned id, unsigned count, Packets *next) {
    for (unsigned i = 0; i < count; ++i, ++id, next->next()) {
      const auto id16 = static_cast<uint16_t>(id);
      const size_t size = names_.put_query(packets_[i], id16, next->address(), next->zone());
      asked_[id16] = {next->address(), static_cast<uint32_t>(size)};
      parts_[i].iov_len = size;
    }
    if (in_runs_) {
      runs_.lay_out(std::span<const iovec>(parts_).first(count), nullptr);
      if (runs_.send(socket_.fd()) > 0) throw std::runtime_error("bare loop: packets refused");
      return count;
    }
    for (unsigned sent = 0; sent < count;) {
      const int now = sendmmsg(socket_.fd(), &messages_[sent], count - sent, 0);
      if (now <= 0) throw std::runtime_error("bare loop: sendmmsg failed");
      sent += static_cast<unsigned>(now);
    }
    return count;
  }

  // Takes up to a batch of answers; `wait`: waits for the first of them, for the socket's own time at most.
  unsigned receive(bool wait) {
    for (unsigned i = 0; i < kBatch; ++i)
      parts_[i].iov_len = kPacketMax;
    const int got = recvmmsg(socket_.fd(), messages_.data(), kBatch, wait ? MSG_WAITFORONE : MSG_DONTWAIT, nullptr);
    for (int i = 0; i < got; ++i)
      check(
          std::span<const uint8_t>(packets_[static_cast<size_t>(i)]).first(messages_[static_cast<size_t>(i)].msg_len));
    return got > 0 ? static_cast<unsigned>(got) : 0;
  }

  void check(std::span<const uint8_t> packet) {
    Asked &asked = asked_[static_cast<size_t>(packet[0] << kBits | packet[1])];
    const Says right = bench::listed(asked.address) ? Says::listed : Says::not_listed;
    if (asked.size == 0 || read_answer(packet, asked.size) != right) wrong(kName, asked.address);
    asked.size = 0;
  }

  Task task_;
  bool in_runs_;
  unsigned window_;
  Names names_;
  UdpSocket socket_;
  std::vector<Asked> asked_;  // by id
  std::array<std::array<uint8_t, kPacketMax>, kBatch> packets_;
  std::array<iovec, kBatch> parts_;
  std::array<mmsghdr, kBatch> messages_;
  Runs runs_;
};

Team make(const Task &task, bool in_runs) {
  if (task.window() * task.zones > kIds / 2) throw std::runtime_error("bare loop: more outstanding than ids");
  Team team;
  for (unsigned t = 0; t < task.threads; ++t)
    team.push_back(std::make_unique<Bare>(task, task.port_of(t), in_runs));
  return team;
}

}  // namespace

Team make_bare(const Task &task) {
  return make(task, false);
}

Team make_bare_runs(const Task &task) {
  return make(task, true);
}

}  // namespace compare
