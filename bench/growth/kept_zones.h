// kept_zones.h - a context's zones, as they come from a zones file, one by one, and from a binary record.
#ifndef KAVO_BENCH_GROWTH_KEPT_ZONES_H
#define KAVO_BENCH_GROWTH_KEPT_ZONES_H

#include <vector>

#include "dimension.h"

namespace growth {

[[nodiscard]] std::vector<Dimension> of_kept_zones();

}  // namespace growth

#endif  // KAVO_BENCH_GROWTH_KEPT_ZONES_H
