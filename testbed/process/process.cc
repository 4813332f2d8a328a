#include "process.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <system_error>

namespace testbed {
namespace {

constexpr int kNotStarted = 127;    // as a shell says it
constexpr int kSignalBase = 128;    // as a shell says it
constexpr int kPortAttempts = 100;  // a port free for UDP is nearly always free for TCP too
constexpr milliseconds kReapStep{5};

struct Pipe {
  int read_end = -1;
  int write_end = -1;
};

Pipe make_pipe() {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category(), "pipe2");
  return {ends[0], ends[1]};
}

void close_fd(int *fd) {
  if (*fd >= 0) close(*fd);
  *fd = -1;
}

// become turns the forked child into the program. Only calls that are safe between fork and exec.
[[noreturn]] void become(char *const *argv, const char *directory, int in_fd, int out_fd, int err_fd, pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(kNotStarted);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  bool ready = dup2(in_fd, STDIN_FILENO) >= 0 && dup2(out_fd, STDOUT_FILENO) >= 0 && dup2(err_fd, STDERR_FILENO) >= 0;
  if (ready && *directory != '\0') ready = chdir(directory) == 0;
  if (ready) execvp(argv[0], argv);
  _exit(kNotStarted);
}

// Takes what is there from a descriptor; closes it at its end.
void take(int *fd, std::string *text) {
  std::array<char, 65536> block;
  const ssize_t got = read(*fd, block.data(), block.size());
  if (got > 0) text->append(block.data(), static_cast<size_t>(got));
  if (got == 0 || (got < 0 && errno != EINTR && errno != EAGAIN)) close_fd(fd);
}

// Gives the child what its standard input takes; closes it when all is given or no process reads.
void give(int *fd, std::string *text) {
  const ssize_t written = write(*fd, text->data(), text->size());
  if (written > 0) text->erase(0, static_cast<size_t>(written));
  if (text->empty() || (written < 0 && errno != EINTR && errno != EAGAIN)) close_fd(fd);
}

std::optional<std::string> line_with(const std::string &all, std::string_view text) {
  for (size_t begin = 0; begin < all.size();) {
    const size_t end = all.find('\n', begin);
    if (end == std::string::npos) return std::nullopt;  // a line counts once it is whole
    std::string line = all.substr(begin, end - begin);
    if (line.find(text) != std::string::npos) return line;
    begin = end + 1;
  }
  return std::nullopt;
}

// Binds a socket of 127.0.0.1 to `port` (0: any) and returns the port, 0 when it is taken. The socket goes to `fd`.
uint16_t bind_port(int kind, uint16_t port, int *fd) {
  *fd = socket(AF_INET, kind | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  socklen_t size = sizeof(address);
  auto *generic = reinterpret_cast<sockaddr *>(&address);
  if (*fd < 0 || bind(*fd, generic, size) != 0 || getsockname(*fd, generic, &size) != 0) return 0;
  return ntohs(address.sin_port);
}

}  // namespace

Process::Process(std::vector<std::string> argv, std::string input, std::string directory) : input_(std::move(input)) {
  // A child that stops reading must not end the test program.
  ::signal(SIGPIPE, SIG_IGN);
  std::vector<char *> words;
  for (std::string &word : argv)
    words.push_back(word.data());
  words.push_back(nullptr);
  Pipe in = make_pipe(), out = make_pipe(), err = make_pipe();
  const pid_t parent = getpid();
  pid_ = fork();
  if (pid_ < 0) throw std::system_error(errno, std::generic_category(), "fork");
  if (pid_ == 0) {
    ::signal(SIGPIPE, SIG_DFL);
    become(words.data(), directory.c_str(), in.read_end, out.write_end, err.write_end, parent);
  }
  close_fd(&in.read_end);
  close_fd(&out.write_end);
  close_fd(&err.write_end);
  if (input_.empty()) close_fd(&in.write_end);
  if (in.write_end >= 0) fcntl(in.write_end, F_SETFL, O_NONBLOCK);
  reader_ = std::thread(&Process::collect, this, in.write_end, out.read_end, err.read_end);
}

Process::~Process() {
  stop();
}

// The reader thread: ends when both streams have ended, which the child's death brings about.
void Process::collect(int in_fd, int out_fd, int err_fd) {
  while (out_fd >= 0 || err_fd >= 0) {
    std::array<pollfd, 3> watched{{{out_fd, POLLIN, 0}, {err_fd, POLLIN, 0}, {in_fd, POLLOUT, 0}}};
    if (poll(watched.data(), watched.size(), -1) < 0) continue;
    if (watched[2].revents != 0) give(&in_fd, &input_);
    const std::lock_guard<std::mutex> lock(mutex_);
    if (watched[0].revents != 0) take(&out_fd, &output_.out);
    if (watched[1].revents != 0) take(&err_fd, &output_.err);
    changed_.notify_all();
  }
  close_fd(&in_fd);
  const std::lock_guard<std::mutex> lock(mutex_);
  closed_ = true;
  changed_.notify_all();
}

bool Process::reap(bool block) {
  if (reaped_) return true;
  int status = 0;
  pid_t got;
  do {
    got = waitpid(pid_, &status, block ? 0 : WNOHANG);
  } while (got < 0 && errno == EINTR);
  if (got == 0) return false;
  reaped_ = true;
  status_ = WIFSIGNALED(status) ? kSignalBase + WTERMSIG(status) : WEXITSTATUS(status);
  return true;
}

bool Process::running() {
  return !reap(false);
}

std::optional<std::string> Process::wait_line(std::string_view text, milliseconds bound) {
  const auto deadline = std::chrono::steady_clock::now() + bound;
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    std::optional<std::string> line = line_with(output_.out, text);
    if (!line) line = line_with(output_.err, text);
    if (line || closed_) return line;
    if (changed_.wait_until(lock, deadline) == std::cv_status::timeout) return std::nullopt;
  }
}

std::optional<int> Process::wait_exit(milliseconds bound) {
  const auto deadline = std::chrono::steady_clock::now() + bound;
  {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_until(lock, deadline, [this] { return closed_; })) return std::nullopt;
  }
  while (!reap(false)) {
    if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
    std::this_thread::sleep_for(kReapStep);
  }
  return status_;
}

void Process::signal(int number) {
  if (running()) kill(pid_, number);  // not reaped, so the id is still the child's
}

int Process::stop(milliseconds bound) {
  signal(SIGTERM);
  if (!wait_exit(bound)) {
    signal(SIGKILL);
    reap(true);
  }
  if (reader_.joinable()) reader_.join();
  return status_;
}

Output Process::output() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return output_;
}

Result run(std::vector<std::string> argv, std::string input, milliseconds bound) {
  Process process(std::move(argv), std::move(input));
  if (!process.wait_exit(bound)) process.signal(SIGKILL);
  const int status = process.stop();
  Output output = process.output();
  return {status, std::move(output.out), std::move(output.err)};
}

uint16_t port_in(std::string_view line) {
  const size_t colon = line.rfind(':');
  uint16_t port = 0;
  if (colon != std::string_view::npos) std::from_chars(line.data() + colon + 1, line.data() + line.size(), port);
  return port;
}

uint16_t free_udp_port() {
  for (int attempt = 0; attempt < kPortAttempts; ++attempt) {
    int udp = -1, tcp = -1;
    const uint16_t port = bind_port(SOCK_DGRAM, 0, &udp);
    const bool both = port != 0 && bind_port(SOCK_STREAM, port, &tcp) == port;
    close_fd(&udp);
    close_fd(&tcp);
    if (both) return port;
  }
  return 0;
}

}  // namespace testbed
