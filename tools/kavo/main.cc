// kavo: asks DNS-based lists and ordinary DNS from a shell.
#include <fcntl.h>
#include <kavo.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <string>

#include "commands.h"
#include "session.h"
#include "subject.h"

namespace {

std::string version() {
  const uint32_t version = kavo_version();
  return "kavo " + std::to_string(version >> 24) + "." + std::to_string(version >> 16 & 0xff) + "." +
         std::to_string(version >> 8 & 0xff);
}

int fail(int status, const char *command, const std::string &fault) {
  std::fprintf(stderr, "%s: %s\n", command, fault.c_str());
  return status;
}

// Runs a command and tells its faults in a line.
int run(const tool::Chosen &chosen) {
  try {
    return chosen.body();
  } catch (const tool::Usage &usage) {
    return fail(tool::kExitUsage, chosen.name.c_str(), usage.fault);
  } catch (const std::exception &error) {
    return fail(tool::kExitFailed, chosen.name.c_str(), error.what());
  }
}

// Opens the null device in place of every standard stream that the caller has closed, the wrong way round: no file or
// socket gets its number, and using it fails.
void hold_standard_streams() {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(fd, F_GETFD) < 0) (void)open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
  }
}

}  // namespace

int main(int argc, char **argv) {
  hold_standard_streams();
  CLI::App app("Asks DNS-based lists and ordinary DNS, many questions at once.", "kavo");
  app.set_version_flag("--version", version());
  tool::Chosen chosen;
  tool::describe_commands(&app, &chosen);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &error) {
    if (error.get_exit_code() == 0) return app.exit(error);
    return fail(tool::kExitUsage, "kavo", tool::for_terminal(error.what()));
  }
  return run(chosen);
}
