// resolver_file.h - the system's resolver configuration file (resolv.conf's format).
#ifndef DNS_ENGINE_RESOLVER_FILE_H
#define DNS_ENGINE_RESOLVER_FILE_H

#include <address.h>

#include "options.h"

namespace dns {

// read_resolver_file takes servers and options from the file. A file that cannot be read, and lines that make no sense,
// change nothing. Returns how many of the `capacity` addresses it filled.
unsigned read_resolver_file(const char *path, Options *options, Address *servers, unsigned capacity);

}  // namespace dns

#endif  // DNS_ENGINE_RESOLVER_FILE_H
