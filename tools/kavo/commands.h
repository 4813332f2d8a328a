// commands.h - the words of the command line.
#ifndef KAVO_TOOLS_KAVO_COMMANDS_H
#define KAVO_TOOLS_KAVO_COMMANDS_H

#include <CLI/CLI.hpp>
#include <functional>
#include <string>

namespace tool {

// Chosen is the command that was given; `body` runs it with its arguments and returns its exit status.
struct Chosen {
  std::string name;  // "kavo check"
  std::function<int()> body;
};

// describe_commands gives `app` all commands. Parsing then fills `chosen`, which must live as long.
void describe_commands(CLI::App *app, Chosen *chosen);

}  // namespace tool

#endif  // KAVO_TOOLS_KAVO_COMMANDS_H
