// resolver_file.cc - servers and options from the system's resolver configuration file (resolv.conf's format).
#include "resolver_file.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <memory>

#include <pelk_file.h>
#include <socket_address.h>

#include "bounds.h"

namespace dns {
namespace {

constexpr uint32_t kTimeoutMaxS = 30;  // usual bounds on the file's numbers
constexpr uint32_t kAttemptsMax = 5;
constexpr uint32_t kNdotsMax = 15;
constexpr const char *kBlanks = " \t\r\n";

// figure reads the number after `prefix` ("timeout:") when the word begins so, clamped to least..most.
bool figure(const char *word, const char *prefix, uint32_t least, uint32_t most, uint32_t *value) {
  const size_t length = strlen(prefix);
  if (strncmp(word, prefix, length) != 0 || word[length] < '0' || word[length] > '9') return false;
  const unsigned long number = strtoul(word + length, nullptr, 10);
  *value = static_cast<uint32_t>(std::clamp<unsigned long>(number, least, most));
  return true;
}

void take_option(const char *word, Options *options) {
  uint32_t value = 0;
  if (figure(word, "timeout:", 1, kTimeoutMaxS, &value)) options->timeout_us = value * kUsPerSecond;
  if (figure(word, "attempts:", 1, kAttemptsMax, &value)) options->ntries = value;
  if (figure(word, "ndots:", 0, kNdotsMax, &value)) options->ndots = value;
  if (strcmp(word, "rotate") == 0) options->flags |= DNS_SERVRRB;
}

struct FileCloser {
  void operator()(FILE *file) const { fclose(file); }
};

}  // namespace

unsigned read_resolver_file(const char *path, Options *options, Address *servers, unsigned capacity) {
  const std::unique_ptr<FILE, FileCloser> file(pelk_fopen(path, pelk_file_mode::read));
  if (file == nullptr) return 0;
  unsigned count = 0;
  char line[512];
  bool whole = true;  // false while the rest of a line that was too long is skipped
  while (fgets(line, sizeof line, file.get()) != nullptr) {
    const bool begins = whole;
    whole = strchr(line, '\n') != nullptr;
    if (!begins) continue;
    char *state = nullptr;
    const char *keyword = strtok_r(line, kBlanks, &state);
    if (keyword == nullptr) continue;
    const char *word = strtok_r(nullptr, kBlanks, &state);
    if (strcmp(keyword, "nameserver") == 0 && word != nullptr && count < capacity) {
      const Address server = as_server(read_address(word, 0), static_cast<uint16_t>(options->port));
      if (server.family != Family::none) servers[count++] = server;
    } else if (strcmp(keyword, "options") == 0) {
      for (; word != nullptr; word = strtok_r(nullptr, kBlanks, &state))
        take_option(word, options);
    }
  }
  return count;
}

}  // namespace dns
