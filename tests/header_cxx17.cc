// header_cxx17.cc - <kavo.h> on its own, as a host in strict C++17 sees it. Nothing here runs: it compiles without a
// warning, or the build fails.
#include <kavo.h>

// Nothing is included above, so the header brings what it needs; a second inclusion changes nothing.
#include <kavo.h>
#include <type_traits>

static_assert(std::is_trivially_copyable_v<KAVO_ANSWER> && std::is_standard_layout_v<KAVO_ANSWER>);
static_assert(sizeof(KAVO_RR) == sizeof(void *), "one pointer, whatever the records");
static_assert(std::is_same_v<decltype(kavo_strerror(KAVOE_OK)), const char *>);
static_assert(std::is_same_v<decltype(kavo_query), KAVO_ERR(KAVO, KAVO_TYPE, const void *, int, KAVO_ANSWER **, int,
                                                            int *, unsigned int, KAVO_WAIT_LEVEL, unsigned)>);
static_assert(std::is_same_v<KAVO_CACHE, dns_cacher *>);
