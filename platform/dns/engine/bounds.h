// bounds.h - every bound of the engine in one place. docs/engine.md documents them, and scripts/bounds compares the
// two.
#ifndef DNS_ENGINE_BOUNDS_H
#define DNS_ENGINE_BOUNDS_H

#include <stddef.h>
#include <stdint.h>

#include <dns_engine.h>

namespace dns {

inline constexpr int64_t kUsPerMs = 1000;
inline constexpr int64_t kUsPerSecond = 1'000'000;

// Servers. A query's sets of servers are 32-bit masks.
inline constexpr unsigned kServersMax = 32;  // of a context
inline constexpr unsigned kExpectedServersMax = 32;
inline constexpr unsigned kDelegatedMax = 13;            // of a zone
inline constexpr unsigned kGlueMax = 2 * kDelegatedMax;  // addresses of a zone's servers
inline constexpr int64_t kCutOffUs = 5 * kUsPerSecond;   // that a server to which there was no route is passed over
static_assert(DNS_MAXSERV <= kServersMax && kGlueMax <= kServersMax);

// Packets.
inline constexpr unsigned kAnswerRoom = 4096;          // the largest UDP answer that can be asked for
inline constexpr unsigned kQueryRoom = 340;            // a query: header, a name of 255 bytes, type, class, OPT
inline constexpr size_t kOptSize = 1 + 2 + 2 + 4 + 2;  // an OPT record without options
inline constexpr size_t kCookieMax = 4 + 8 + 32;       // a cookie option (RFC 7873, section 4)
static_assert(kQueryRoom >= DNS_HSIZE + DNS_MAXDN + 4 + kOptSize + kCookieMax);

// Windows: queries under way by UDP to one server; further ones are parked.
inline constexpr uint32_t kWindowFirst = 128;  // at first: no more bytes than RFC 6928 lets a connection begin with
inline constexpr uint32_t kWindowLeast = 2;
inline constexpr uint32_t kWindowMost = 4096;
inline constexpr int64_t kWindowIdleUs = 1 * kUsPerSecond;  // without queries, after which it is as at first
inline constexpr int64_t kGrowthUs = 10 * kUsPerMs;         // between two steps of its slow growth
inline constexpr int64_t kRoundMinUs = 1 * kUsPerMs;
inline constexpr unsigned kFlatRounds = 3;    // without more answers a second, which end its fast growth
inline constexpr unsigned kCalmRounds = 32;   // of slow growth without a queue, after which it is fast again
inline constexpr uint32_t kCohort = 64;       // queries by which the share of losses is judged
inline constexpr uint32_t kSample = 64;       // queries by whose round-trip times a queue is judged
inline constexpr int64_t kQueueingUs = 200;   // by which round-trip times vary without a queue
inline constexpr uint32_t kQueuedLeast = 64;  // queries in a queue, up to which a window grows slowly
inline constexpr uint32_t kQueuedMost = 96;   // and beyond which it shrinks
inline constexpr int64_t kLeastRttUs = 10 * kUsPerSecond;  // for which the least round-trip time is kept
inline constexpr int64_t kPaceBurst = 64;                  // queries that leave at once
inline constexpr int64_t kPacedFromUs = 2 * kUsPerMs;      // round-trip times over which queries are spread
inline constexpr int64_t kFirstPaceUs = 100;               // between queries before the first answer
inline constexpr uint32_t kRateMax = 1'000'000;            // the highest limit of queries a second
inline constexpr uint32_t kBurstsPerSecond = 20;           // that share a limit of queries a second

// TCP connections.
inline constexpr unsigned kConnectionsMax = 16;
inline constexpr unsigned kPerConnection = 100;           // queries under way on one
inline constexpr int64_t kTcpIdleUs = 10 * kUsPerSecond;  // after which a connection is closed
inline constexpr unsigned kTcpBreaksMax = 2;  // connections that break under a query before that costs an attempt
inline constexpr int64_t kTcpLimitUs = 60 * kUsPerSecond;  // for which a server's limit of queries is kept

// Attempts.
inline constexpr int64_t kRtoMinUs = 50 * kUsPerMs;
inline constexpr int64_t kRearmUs = 250 * kUsPerMs;  // a server without an estimate may have one by then
inline constexpr uint8_t kOverloadsMax = 8;          // lost attempts of a query that do not count
inline constexpr unsigned kPausesMax = 3;            // of a query none of whose servers was reached
inline constexpr int64_t kPauseUs = 100 * kUsPerMs;  // the first pause; each is twice as long as the last

// Servers that are marked down, losses, and the choice by cost.
inline constexpr int64_t kLossWhole = 1024;                // shares are counted in parts of this
inline constexpr uint32_t kHeavyLoss = 1024 / 8;           // the share that may shrink a window
inline constexpr unsigned kSilentMax = 2;                  // attempts without an answer that mark a server down
inline constexpr int64_t kProbeMinUs = 1 * kUsPerSecond;   // between probes of a server that is marked down: at first
inline constexpr int64_t kProbeMaxUs = 60 * kUsPerSecond;  // and at last
inline constexpr int64_t kStaleMinUs = 10 * kUsPerSecond;  // before a server that is not preferred is measured
inline constexpr unsigned kStaleEvery = 16;                // of so many queries one at most goes to measure it
inline constexpr int64_t kLossHalfLifeUs = 10 * kUsPerSecond;
inline constexpr unsigned kRatingsMax = 32;              // lookups of servers' costs at a time
inline constexpr int64_t kCostMinUs = 1 * kUsPerSecond;  // for which a cost is kept whatever its TTL
inline constexpr unsigned kIdleServersMax = 256;         // records of unused servers that are kept

// What is remembered of a server.
inline constexpr int64_t kNoEdnsUs = 900 * kUsPerSecond;     // that it is asked without EDNS0
inline constexpr int64_t kLowerUs = 900 * kUsPerSecond;      // that it is asked in lower case
inline constexpr int64_t kOtherCaseUs = 600 * kUsPerSecond;  // answers in another case alone, which end its name
inline constexpr int64_t kCookieUs = 600 * kUsPerSecond;     // that it must bring the cookie that it once gave

// Failures (RFC 9520, section 3.2: at least 1 s, at most 5 minutes).
inline constexpr int64_t kFailureUs = 5 * kUsPerSecond;
inline constexpr unsigned kFailuresMax = 1024;

// Resolutions.
inline constexpr unsigned kTargetsMax = 4;  // servers of a zone whose addresses are looked up
inline constexpr unsigned kDepthMax = 4;    // lookups of servers for lookups of servers
inline constexpr unsigned kLookupsMax = 8;  // lookups of servers for one query, whatever zones say

}  // namespace dns

#endif  // DNS_ENGINE_BOUNDS_H
