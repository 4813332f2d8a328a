// fault.h - how commands tell of faults: in what the user gave, and of the library.
#ifndef KAVO_TOOLS_KAVO_FAULT_H
#define KAVO_TOOLS_KAVO_FAULT_H

#include <kavo.h>

#include <string>

namespace tool {

// Usage is a fault in what the user gave: one line, exit status 64.
struct Usage {
  std::string fault;
};

// must throws std::runtime_error if the library failed to do `what`.
void must(KAVO_ERR error, const std::string &what);

}  // namespace tool

#endif  // KAVO_TOOLS_KAVO_FAULT_H
