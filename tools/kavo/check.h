// check.h - the command "kavo check": asks every configured list about every subject and shows what the lists say.
#ifndef KAVO_TOOLS_KAVO_CHECK_H
#define KAVO_TOOLS_KAVO_CHECK_H

#include <string>
#include <vector>

#include "session.h"

namespace tool {

struct CheckArguments {
  std::string zones_file;  // empty: none
  std::vector<std::string> zones;
  Network network;
  bool json = false;
  std::vector<std::string> subjects;
};

// check returns the exit status. Throws Usage, and std::exception where the library or the system fails.
int check(const CheckArguments &arguments);

}  // namespace tool

#endif  // KAVO_TOOLS_KAVO_CHECK_H
