// large.h - answers that are larger than the library hands out (1024 bytes), taken from the packets that its trace
// shows.
//
// The trace runs on the library's server thread, the rest on the thread that asks; a mutex guards what they share.
#ifndef KAVO_TOOLS_KAVO_LARGE_H
#define KAVO_TOOLS_KAVO_LARGE_H

#include <kavo.h>

#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace tool {

// Block is memory for a record block of any size.
using Block = std::vector<uint64_t>;

class LargeAnswers {
 public:
  // observe takes the packets of a context, which must not be open yet and must not outlive this object. With `trace`
  // the user sees them too.
  void observe(KAVO kavo, bool trace);

  // expect keeps the packet that will answer a query for this name, until take is called, once for each expect.
  void expect(const unsigned char *dn);
  // take parses that packet into `block` for a type and flags, and makes `answer`, which the library had no room for,
  // point there. False if there is no such packet, or it cannot be read.
  bool take(const unsigned char *dn, KAVO_TYPE type, unsigned flags, Block *block, KAVO_ANSWER *answer);

 private:
  struct Kept {
    int waiting = 0;
    std::vector<unsigned char> packet;
  };
  static void note(dns_ctx *ctx, dns_query *query, int code, void *data, void *self);
  void keep(const dns_dpkt &event);

  bool trace_ = false;
  std::mutex mutex_;
  std::map<std::string, Kept> kept_;  // by the name, in lower case; guarded by mutex_
};

}  // namespace tool

#endif  // KAVO_TOOLS_KAVO_LARGE_H
