// kavo_resolve.h - what subscribing, waiting and reading answers share: the source name of their log lines.
#ifndef KAVO_RESOLVE_H
#define KAVO_RESOLVE_H

inline constexpr char KAVO_RESOLVE_SOURCE[] = "kavo_resolve";

#endif  // KAVO_RESOLVE_H
