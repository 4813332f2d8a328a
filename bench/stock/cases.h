// cases.h - what bench_stock can measure; each case adds its part to the report and the targets it decides.
#ifndef KAVO_BENCH_STOCK_CASES_H
#define KAVO_BENCH_STOCK_CASES_H

#include "report.h"

namespace stock {

// Plan is how much is measured.
struct Plan {
  unsigned rounds = 3;
  unsigned count = 100'000;  // questions of a burst
};

struct Case {
  const char *name;
  const char *shows;
  void (*measure)(const Plan &plan, Report *report);
};

void measure_rbldnsd(const Plan &plan, Report *report);
void measure_nsd(const Plan &plan, Report *report);
void measure_unbound(const Plan &plan, Report *report);
void measure_hosts(const Plan &plan, Report *report);
void measure_share(const Plan &plan, Report *report);

inline constexpr Case kCases[] = {
    {"rbldnsd", "a burst at a list server", measure_rbldnsd},
    {"nsd", "a burst at an authoritative server", measure_nsd},
    {"unbound", "a burst at a resolver that knows the answers", measure_unbound},
    {"hosts", "1,000 questions about eight lists at one rbldnsd", measure_hosts},
    {"share", "two contexts at one rbldnsd at the same time", measure_share},
};

}  // namespace stock

#endif  // KAVO_BENCH_STOCK_CASES_H
