// verdict.h - what the answers of one list mean for one subject.
//
// A list says "listed" with addresses of 127.0.0.0/8 (RFC 5782, 2.1). Other addresses come from a list that is shut
// down, misconfigured or does not serve this resolver, or from a resolver that rewrites answers; they are never a
// listing (RFC 6471, 3.3 and 3.4).
#ifndef KAVO_TOOLS_KAVO_VERDICT_H
#define KAVO_TOOLS_KAVO_VERDICT_H

#include <kavo.h>

#include <cstdint>
#include <string>
#include <vector>

namespace tool {

enum class Status { not_listed, listed, refused, failed };
const char *status_name(Status status);  // "not-listed" ...

// Answer is one zone's answer to one query: the addresses, or the reasons.
struct Answer {
  bool asked = false;
  KAVO_ERR error = KAVOE_TIMEOUT;  // until an answer arrives
  std::vector<in_addr> addresses;
  std::vector<std::string> reasons;
  uint32_t query_time_ms = 0;
  bool from_cache = false;
};

struct Verdict {
  Status status = Status::failed;
  std::vector<std::string> addresses;
  std::vector<std::string> reasons;
  std::string error;          // why the list refused, or which query failed and why; empty when all went well
  bool query_failed = false;  // also if only the query for the reason failed
  uint32_t query_time_ms = 0;
  bool from_cache = false;
};

// judge returns what a list says, from its answers to the query for return addresses and to that for the reason.
Verdict judge(const Answer &address, const Answer &reason);

// read_answer takes what the library delivered for one zone.
Answer read_answer(const KAVO_ANSWER &answer);

}  // namespace tool

#endif  // KAVO_TOOLS_KAVO_VERDICT_H
