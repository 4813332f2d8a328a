// random_source.cc - see random_source.h.
#include <random_source.h>

namespace dns {

bool RandomSource::fill() {
  if (!io_->random(io_->self, bytes_, sizeof bytes_)) return false;
  left_ = sizeof bytes_;
  process_ = pelk_process();
  return true;
}

}  // namespace dns
