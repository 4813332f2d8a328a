#include "output.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <stdexcept>

namespace tool {

size_t columns_of(const std::string &text) {
  const auto begins = [](char byte) { return (static_cast<unsigned char>(byte) & 0xc0U) != 0x80U; };
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), begins));
}

std::string padded(const std::string &text, size_t width) {
  const size_t columns = columns_of(text);
  return columns < width ? text + std::string(width - columns, ' ') : text;
}

std::string escaped(unsigned char byte) {
  std::array<char, sizeof("\\DDD")> text;
  std::snprintf(text.data(), text.size(), "\\%03u", byte & 0xffU);
  return text.data();
}

std::string plural(size_t number, const std::string &what) {
  return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}

void print_line(std::string line) {
  while (!line.empty() && line.back() == ' ')
    line.pop_back();
  line += '\n';
  std::fwrite(line.data(), 1, line.size(), stdout);
}

void print_json(const nlohmann::ordered_json &object) {
  print_line(object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
}

void finish_output() {
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) throw std::runtime_error("cannot write the result");
}

}  // namespace tool
