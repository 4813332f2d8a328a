// check.h - the command "kavo check": asks every configured list about every subject and shows what the lists say.
#ifndef KAVO_TOOLS_KAVO_CHECK_H
#define KAVO_TOOLS_KAVO_CHECK_H

#include <string>
#include <vector>

namespace tool {

// Exit statuses of every command.
inline constexpr int kExitClear = 0;   // nothing is listed
inline constexpr int kExitListed = 1;  // something is listed
inline constexpr int kExitFailed = 2;  // a question failed, whatever else was learned
inline constexpr int kExitUsage = 64;  // EX_USAGE of sysexits.h

inline constexpr unsigned kTimeoutMs = 2000;
inline constexpr unsigned kTimeoutMsMax = 300000;  // the library's own bound
inline constexpr unsigned kTries = 3;
inline constexpr unsigned kTriesMax = 50;  // the library's own bound

struct CheckArguments {
  std::string zones_file;  // empty: none
  std::vector<std::string> zones;
  std::vector<std::string> servers;
  unsigned timeout_ms = kTimeoutMs;
  bool json = false;
  bool trace = false;
  std::vector<std::string> subjects;
};

// Usage is a fault in what the user gave: one line, exit status 64.
struct Usage {
  std::string fault;
};

// check returns the exit status. Throws Usage, and std::exception where the library or the system fails.
int check(const CheckArguments &arguments);

}  // namespace tool

#endif  // KAVO_TOOLS_KAVO_CHECK_H
