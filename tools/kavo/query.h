// query.h - the command "kavo query": ordinary DNS, many names at once.
#ifndef KAVO_TOOLS_KAVO_QUERY_H
#define KAVO_TOOLS_KAVO_QUERY_H

#include <string>
#include <vector>

#include "session.h"

namespace tool {

struct QueryArguments {
  std::string type = "A";
  Network network;
  bool raw = false;
  bool json = false;
  std::vector<std::string> names;
};

// query returns the exit status. Throws Usage, and std::exception where the library or the system fails.
int query(const QueryArguments &arguments);

}  // namespace tool

#endif  // KAVO_TOOLS_KAVO_QUERY_H
