// cases.h - what bench_compare can measure; each case adds its part to the report and the targets it decides.
#ifndef KAVO_BENCH_COMPARE_CASES_H
#define KAVO_BENCH_COMPARE_CASES_H

#include <memory>

#include "report.h"
#include "responder.h"

namespace compare {

// Plan is how much is measured, and where: the clients on one core, the responder on another.
struct Plan {
  unsigned rounds = 5;
  unsigned count = 30'000;  // questions of one measurement
  unsigned client_core = 0;
  unsigned responder_core = 0;

  // task returns a task of so many questions at once, to be asked of a responder.
  [[nodiscard]] Task task(const char *client, const Responder &responder, unsigned outstanding) const;
  [[nodiscard]] Task task(const char *client, const Responders &responders, unsigned outstanding) const {
    return task(client, responders.of(client), outstanding);
  }
};

inline constexpr unsigned kUsual = 1000;  // outstanding questions, where nothing else is said

struct Case {
  const char *name;
  const char *shows;
  void (*measure)(const Plan &plan, Report *report);
};

void measure_table(const Plan &plan, Report *report);
void measure_counts(const Plan &plan, Report *report);
void measure_zones(const Plan &plan, Report *report);
void measure_large(const Plan &plan, Report *report);
void measure_single(const Plan &plan, Report *report);
void measure_cached(const Plan &plan, Report *report);
void measure_memory(const Plan &plan, Report *report);
void measure_cores(const Plan &plan, Report *report);
void measure_ipv6(const Plan &plan, Report *report);

inline constexpr Case kCases[] = {
    {"table", "every client, 1 to 10,000 questions at once, two responders", measure_table},
    {"counts", "instructions and system calls of a question", measure_counts},
    {"zones", "questions over eight zones", measure_zones},
    {"large", "10,000 questions at once in a table of 100,000", measure_large},
    {"single", "one question at a time", measure_single},
    {"cached", "answers from the cache", measure_cached},
    {"memory", "memory of a question", measure_memory},
    {"cores", "two contexts on two cores", measure_cores},
    {"ipv6", "::1 beside 127.0.0.1", measure_ipv6},
};

}  // namespace compare

#endif  // KAVO_BENCH_COMPARE_CASES_H
