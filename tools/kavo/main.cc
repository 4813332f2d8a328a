// kavo: asks DNS-based lists from a shell.
#include <fcntl.h>
#include <kavo.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <string>

#include "check.h"
#include "subject.h"

namespace {

std::string version() {
  const uint32_t version = kavo_version();
  return "kavo " + std::to_string(version >> 24) + "." + std::to_string(version >> 16 & 0xff) + "." +
         std::to_string(version >> 8 & 0xff);
}

constexpr const char *kCheckFooter =
    "Exit status: 0 nothing is listed; 1 something is listed; 2 a question failed or a list refused, whatever else "
    "was\n"
    "learned; 64 the command line or a file that it names is wrong.\n"
    "\n"
    "An address outside 127.0.0.0/8, 127.0.0.1, and the operators' codes 127.255.255.252 to 127.255.255.255 are no\n"
    "listings: the list refuses or is broken, and is shown so.\n";

void describe_check(CLI::App *check, tool::CheckArguments *arguments) {
  check->add_option("--zones", arguments->zones_file, "zones file: sections #IP, #IP_TXT, #DOMAIN and #DOMAIN_TXT");
  check->add_option("--zone", arguments->zones, "a list to ask about addresses and domains; may be given again")
      ->allow_extra_args(false);
  check
      ->add_option("--server", arguments->servers,
                   "a DNS server to ask, ADDRESS[:PORT]; may be given again. Otherwise the system's")
      ->allow_extra_args(false);
  check
      ->add_option("--timeout", arguments->timeout_ms,
                   "milliseconds that one try of a question may take; three are made, or one for each server")
      ->check(CLI::Range(1U, tool::kTimeoutMsMax))
      ->capture_default_str();
  CLI::Option *json = check->add_flag("--json", arguments->json, "one JSON object a line for each subject");
  check->add_flag("--trace", arguments->trace, "show every packet that is sent and received")->excludes(json);
  check->add_option("SUBJECT", arguments->subjects,
                    "IPv4 or IPv6 addresses and domain names; - reads more from standard input, one a line");
  check->footer(kCheckFooter);
}

int fail(int status, const char *command, const std::string &fault) {
  std::fprintf(stderr, "%s: %s\n", command, fault.c_str());
  return status;
}

int run_check(const tool::CheckArguments &arguments) {
  try {
    return tool::check(arguments);
  } catch (const tool::Usage &usage) {
    return fail(tool::kExitUsage, "kavo check", usage.fault);
  } catch (const std::exception &error) {
    return fail(tool::kExitFailed, "kavo check", error.what());
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
  CLI::App app("Asks DNS-based lists, many questions at once.", "kavo");
  app.set_version_flag("--version", version());
  app.require_subcommand(1);
  tool::CheckArguments arguments;
  CLI::App *check = app.add_subcommand("check", "ask lists about addresses and domain names");
  describe_check(check, &arguments);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &error) {
    if (error.get_exit_code() == 0) return app.exit(error);
    return fail(tool::kExitUsage, "kavo", tool::for_terminal(error.what()));
  }
  return run_check(arguments);
}
