// output.h - lines on standard output: columns for people, one JSON object a line for programs.
#ifndef KAVO_TOOLS_KAVO_OUTPUT_H
#define KAVO_TOOLS_KAVO_OUTPUT_H

#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>

namespace tool {

// columns_of returns how many characters a text takes on a terminal, close enough for aligning. padded fills a text up
// with blanks.
size_t columns_of(const std::string &text);
std::string padded(const std::string &text, size_t width);

// escaped returns a byte as \DDD.
std::string escaped(unsigned char byte);

// plural returns "1 zone", "2 zones".
std::string plural(size_t number, const std::string &what);

// print_line writes a line, without blanks at its end.
void print_line(std::string line);

// print_json writes an object as one line. Strangers' bytes that are no UTF-8 become the replacement character, as JSON
// can hold no others.
void print_json(const nlohmann::ordered_json &object);

// finish_output throws std::runtime_error where not all of standard output could be written.
void finish_output();

}  // namespace tool

#endif  // KAVO_TOOLS_KAVO_OUTPUT_H
