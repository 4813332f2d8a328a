// bench_guard, bench_guard_inside: run a hot path for scripts/guard, which counts its instructions with callgrind.
//
// callgrind starts a new count when the path has been set up and warmed, and writes it out when the path has run, so
// that start-up and end are in no figure. The count holds all threads of the process. One process runs one path, so
// that no figure depends on the heap that another path left; and it runs on a thread of its own, whose stack begins
// at the same place for any environment and command line: the number of instructions that compare two texts depends on
// their place in a page. Without valgrind the programs only run: all threads, all checks, no count.
#include <valgrind/callgrind.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <future>
#include <string>
#include <vector>

#include "paths.h"

namespace {

void count(const guard::Path &path) {
  const std::unique_ptr<guard::Work> work = path.make();
  work->run(path.warmup);
  CALLGRIND_ZERO_STATS;
  work->run(path.count);
  CALLGRIND_DUMP_STATS;
}

// find returns the path of a name; its being there was checked with the command line.
guard::Path find(const std::string &name) {
  for (const guard::Path &path : guard::paths())
    if (name == path.name) return path;
  throw std::runtime_error("no path " + name);
}

}  // namespace

int main(int argc, char **argv) {
  CLI::App app(
      "Runs a hot path whose instructions scripts/guard counts. Without PATH: lists the paths, each with the\n"
      "number of units that it runs and what they are.");
  std::string name;
  app.add_option("PATH", name, "the path to run");
  CLI11_PARSE(app, argc, argv);
  try {
    if (name.empty()) {
      for (const guard::Path &path : guard::paths())
        std::printf("%s %u %s\n", path.name, path.count, path.unit);
    } else {
      std::async(std::launch::async, count, find(name)).get();
    }
  } catch (const std::exception &error) {
    std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
    return 1;
  }
  return 0;
}
