// zone_file.h - reads the list server's zones file, a plain text file of one statement a line.
#ifndef KAVO_TOOLS_LISTSERVER_ZONE_FILE_H
#define KAVO_TOOLS_LISTSERVER_ZONE_FILE_H

#include <istream>
#include <string>

#include "faults.h"
#include "zones.h"

namespace listserver {

// The statements and what they do, for --help.
extern const char *const kZoneFileHelp;

// Config is everything that the server is told.
struct Config {
  ZoneSet zones;
  Faults faults;  // of the whole server
};

// read_zone_file adds a file's statements to `config`. Throws std::runtime_error whose text names the file, the line
// and the fault.
void read_zone_file(const std::string &path, Config *config);
void read_zone_stream(std::istream &stream, const std::string &name, Config *config);

// add_fault_option takes "[ZONE:]WORD[,WORD...]" from the command line; throws std::runtime_error.
void add_fault_option(const std::string &option, Config *config);

// settle_faults gives every zone the whole server's faults where it has none of its own: the last step before serving.
void settle_faults(Config *config);

}  // namespace listserver

#endif  // KAVO_TOOLS_LISTSERVER_ZONE_FILE_H
