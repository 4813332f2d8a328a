#include "fault.h"

#include <stdexcept>

namespace tool {

void must(KAVO_ERR error, const std::string &what) {
  if (error != KAVOE_OK) throw std::runtime_error(what + ": " + kavo_strerror(error));
}

}  // namespace tool
