// pelk_process.cc - telling a forked child from its parent, and keeping off the descriptors of the standard streams.
//
// Any thread. The process's number is in a page that the kernel clears in a forked child (MADV_WIPEONFORK). The first
// thread that finds the page cleared gives the process a number of its own, above all numbers that its parent had seen.
#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <new>

#include "pelk_file.h"
#include "pelk_process.h"

namespace {

constinit std::atomic<uint64_t> no_number = 0;  // in the page's place until the page is there
constinit std::atomic<uint64_t> no_page = 0;    // in the page's place for good where the page cannot be had
constinit std::atomic<uint64_t> numbers_given = 0;

std::atomic<uint64_t> *make_page() {
  const auto size = static_cast<size_t>(getpagesize());
  void *page = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (page == MAP_FAILED) return nullptr;
  if (madvise(page, size, MADV_WIPEONFORK) == 0) return new (page) std::atomic<uint64_t>;
  munmap(page, size);
  return nullptr;
}

// the_page returns the one page, or `no_page` on a system without such pages, or without memory at the first call. The
// answer never changes again, since a number that changed within a process would look like another process.
std::atomic<uint64_t> *the_page() {
  std::atomic<uint64_t> *page = pelk_process_number.load(std::memory_order_acquire);
  if (page != &no_number) return page;
  std::atomic<uint64_t> *made = make_page();
  std::atomic<uint64_t> *chosen = made != nullptr ? made : &no_page;
  if (pelk_process_number.compare_exchange_strong(page, chosen)) return chosen;
  if (made != nullptr) munmap(made, static_cast<size_t>(getpagesize()));
  return page;
}

}  // namespace

constinit std::atomic<std::atomic<uint64_t> *> pelk_process_number = &no_number;

// pelk_process_begin gives the process its number. Without the page the number is the process id, which each call asks
// for.
uint64_t pelk_process_begin() {
  std::atomic<uint64_t> *page = the_page();
  if (page == &no_page) return static_cast<uint64_t>(getpid());
  const uint64_t fresh = numbers_given.fetch_add(1) + 1;
  uint64_t number = 0;
  return page->compare_exchange_strong(number, fresh) ? fresh : number;
}

int pelk_lift(int descriptor) {
  if (descriptor < 0 || descriptor >= PELK_DESCRIPTOR_MIN) return descriptor;
  const int lifted = fcntl(descriptor, F_DUPFD_CLOEXEC, PELK_DESCRIPTOR_MIN);
  const int error = errno;
  close(descriptor);
  errno = error;
  return lifted;
}

FILE *pelk_fopen(const char *path, pelk_file_mode mode) {
  constexpr mode_t kPermissions = 0666;  // the process's mask takes from it
  const bool reads = mode == pelk_file_mode::read;
  const int flags = O_CLOEXEC | (reads ? O_RDONLY : O_WRONLY | O_CREAT | O_TRUNC);
  const int descriptor = pelk_lift(open(path, flags, kPermissions));
  if (descriptor < 0) return nullptr;
  FILE *file = fdopen(descriptor, reads ? "r" : "w");
  if (file != nullptr) return file;
  const int error = errno;
  close(descriptor);
  errno = error;
  return nullptr;
}
