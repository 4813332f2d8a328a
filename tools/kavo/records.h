// records.h - the records of an answer: in the form of a zone file for people, as objects for programs.
#ifndef KAVO_TOOLS_KAVO_RECORDS_H
#define KAVO_TOOLS_KAVO_RECORDS_H

#include <kavo.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace tool {

// Records is what one answer's block holds.
struct Records {
  std::string canonical;           // where the CNAME chain ends, with its closing dot
  int32_t ttl = 0;                 // below 0: seconds since it expired
  std::vector<std::string> lines;  // one a record, as dig +short has them
  nlohmann::ordered_json objects = nlohmann::ordered_json::array();
};

// read_records reads a block of a type that kavo_isparseable knows.
Records read_records(KAVO_TYPE type, const KAVO_RR &block);

}  // namespace tool

#endif  // KAVO_TOOLS_KAVO_RECORDS_H
