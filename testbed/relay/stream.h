// stream.h - one TCP connection through the relay, its bytes passed on as they come, both ways.
#ifndef KAVO_BENCH_RELAY_STREAM_H
#define KAVO_BENCH_RELAY_STREAM_H

#include <array>
#include <cstddef>
#include <cstdint>

#include "descriptor.h"

namespace relay {

class Stream {
 public:
  // Takes over a connection from a client and one, perhaps still being made, to the server; both do not block.
  Stream(Descriptor client, Descriptor server);

  // pass_on moves what can be moved; false when the connection is over.
  [[nodiscard]] bool pass_on();
  [[nodiscard]] int client() const { return client_.get(); }
  [[nodiscard]] int server() const { return server_.get(); }
  // What to watch a side for, as epoll's bits.
  [[nodiscard]] uint32_t wanted_of_client() const { return wanted(out_, back_); }
  [[nodiscard]] uint32_t wanted_of_server() const { return wanted(back_, out_); }

 private:
  // Lane is one way: the bytes that were read and are not yet written. It continues to read when all are written.
  struct Lane {
    std::array<char, 65536> bytes;
    size_t begin = 0;
    size_t end = 0;
    bool ended = false;  // the reader's side has closed its end

    [[nodiscard]] bool empty() const { return begin == end; }
    [[nodiscard]] bool pass_on(int from, int to);
    [[nodiscard]] bool fill(int from);
    [[nodiscard]] bool drain(int to);
  };
  static uint32_t wanted(const Lane &from_here, const Lane &to_here);

  Descriptor client_;
  Descriptor server_;
  Lane out_;
  Lane back_;
};

}  // namespace relay

#endif  // KAVO_BENCH_RELAY_STREAM_H
