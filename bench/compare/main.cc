// bench_compare: kavo beside a bare loop and beside other resolver libraries, in ratios of one run.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <iostream>

#include "responder.h"
#include "run.h"

int main(int argc, char **argv) {
  CLI::App app("kavo beside a bare sendmmsg/recvmmsg loop, c-ares and libunbound.", "bench_compare");
  compare::Task task;
  unsigned hold = 0;
  CLI::App *ask = app.add_subcommand("ask", "one measurement: a client asks a responder; prints what it took");
  compare::describe(ask, &task);
  CLI::App *respond = app.add_subcommand("respond", "the responder, until it is ended");
  respond->add_option("--hold", hold, "answer the first so many questions when all of them have come");
  CLI11_PARSE(app, argc, argv);
  try {
    if (respond->parsed()) compare::respond(hold);
    if (ask->parsed()) std::cout << compare::to_text(compare::perform(task));
  } catch (const std::exception &error) {
    std::fprintf(stderr, "bench_compare: %s\n", error.what());
    return 1;
  }
  return 0;
}
