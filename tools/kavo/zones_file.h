// zones_file.h - a zones file read as the library reads it, with every fault and every oddity in words.
#ifndef KAVO_TOOLS_KAVO_ZONES_FILE_H
#define KAVO_TOOLS_KAVO_ZONES_FILE_H

#include <kavo.h>

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace tool {

enum class Gravity {
  fault,     // the library refuses the file
  unusable,  // the library takes the file, and cannot ask about this zone
  odd,       // taken, but hardly what was meant
};

struct Finding {
  unsigned line;
  Gravity gravity;
  std::string text;
};

struct ZonesFile {
  std::map<KAVO_TYPE, std::vector<std::string>> sections;  // those that have a header, each with the zones that hold
  std::vector<Finding> findings;                           // in the order of their lines
};

// read_file returns a file's bytes. Throws std::runtime_error, with a text that names the fault.
std::string read_file(const std::string &path);

// scan_zones reads the text of a zones file for contexts whose types may have `zones_max` zones each.
ZonesFile scan_zones(const std::string &text, size_t zones_max);

// section_name returns the header of a list type, such as "#IP_TXT".
std::string section_name(KAVO_TYPE type);

// zone_fault says why a text cannot be asked as a zone; empty for one that can.
std::string zone_fault(const std::string &zone);

}  // namespace tool

#endif  // KAVO_TOOLS_KAVO_ZONES_FILE_H
