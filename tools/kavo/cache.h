// cache.h - the commands "kavo cache save", "load" and "show": answer caches in files.
#ifndef KAVO_TOOLS_KAVO_CACHE_H
#define KAVO_TOOLS_KAVO_CACHE_H

#include <string>
#include <vector>

#include "session.h"

namespace tool {

struct CacheArguments {
  std::string type = "A";
  Network network;
  bool json = false;
  std::string file;
  std::vector<std::string> names;
};

// Each returns the exit status. They throw Usage, and std::exception where the library or the system fails or the file
// is no dump.
int cache_save(const CacheArguments &arguments);  // ask the names and save what was learned
int cache_load(const CacheArguments &arguments);  // answer the names from a dump alone
int cache_show(const CacheArguments &arguments);  // show all that a dump holds

}  // namespace tool

#endif  // KAVO_TOOLS_KAVO_CACHE_H
