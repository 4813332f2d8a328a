// responder.h - the clients' server: a process of this program that only turns queries into answers, and costs less
// than the bare loop that asks it; or the list server rbldnsd of the distribution.
//
// Either comes in two kinds. One has the socket buffers that the system gives; kavo asks it. The other has room for ten
// thousand packets: clients that bound nothing but the number of their questions would lose some of them otherwise.
#ifndef KAVO_BENCH_COMPARE_RESPONDER_H
#define KAVO_BENCH_COMPARE_RESPONDER_H

#include <name_daemons.h>
#include <process.h>

#include <cstdint>
#include <memory>
#include <string>

namespace compare {

// respond answers queries about any zone until the process is ended: an A record for listed addresses, for all others a
// negative answer with the zone's SOA. It prints "listening on ADDRESS:PORT" first. With `hold` it answers the first
// queries, those of kHeldUs, only afterwards.
enum class Buffers { of_the_system, large };
[[noreturn]] void respond(const std::string &address, Buffers buffers, bool hold);

// self returns the path of this program, which runs itself again for each of its processes.
[[nodiscard]] std::string self();

// Responder is such a process, or rbldnsd; it ends with this object.
class Responder {
 public:
  virtual ~Responder() = default;
  [[nodiscard]] virtual std::string address() const { return "127.0.0.1"; }
  [[nodiscard]] virtual uint16_t port() const = 0;
  [[nodiscard]] virtual pid_t process() const = 0;
};

// They keep the process on one core and throw std::runtime_error when it does not start.
[[nodiscard]] std::unique_ptr<Responder> start_own(unsigned core, Buffers buffers, bool hold = false,
                                                   const std::string &address = "127.0.0.1");
[[nodiscard]] std::unique_ptr<Responder> start_rbldnsd(unsigned core, Buffers buffers);

// buffers_for returns which kind of responder a client asks.
[[nodiscard]] Buffers buffers_for(const std::string &client);

// Responders are one of each kind; a client gets the one that it asks.
struct Responders {
  std::unique_ptr<Responder> plain, large;

  [[nodiscard]] const Responder &of(const std::string &client) const {
    return buffers_for(client) == Buffers::large ? *large : *plain;
  }
};
[[nodiscard]] Responders start_both(unsigned core);
[[nodiscard]] Responders start_both_rbldnsd(unsigned core);

}  // namespace compare

#endif  // KAVO_BENCH_COMPARE_RESPONDER_H
