// zones.h - the command "kavo zones": says what is wrong with a zones file, or what is in it.
#ifndef KAVO_TOOLS_KAVO_ZONES_H
#define KAVO_TOOLS_KAVO_ZONES_H

#include <string>

#include "session.h"

namespace tool {

inline constexpr int kZonesMax = 8;         // zones that a type may have: what kavo_init makes a context for
inline constexpr int kZonesMaxMax = 10000;  // bounds the memory and the time that --max-zones takes

struct ZonesArguments {
  int zones_max = kZonesMax;
  bool json = false;
  std::string file;
};

// zones returns the exit status. Throws Usage, and std::exception where the library or the system fails.
int zones(const ZonesArguments &arguments);

}  // namespace tool

#endif  // KAVO_TOOLS_KAVO_ZONES_H
