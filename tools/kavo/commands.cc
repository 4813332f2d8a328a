#include "commands.h"

#include <memory>

#include "cache.h"
#include "check.h"
#include "query.h"
#include "zones.h"

namespace tool {
namespace {

constexpr const char *kCheckFooter =
    "Exit status: 0 nothing is listed; 1 something is listed; 2 a query failed or a list refused, whatever else was\n"
    "learned; 64 the command line, or a file that it names, is wrong.\n"
    "\n"
    "Addresses outside 127.0.0.0/8, 127.0.0.1, and the operators' codes 127.255.255.252 to 127.255.255.255 are no\n"
    "listings: the list refuses or is broken, and is shown so.\n";

constexpr const char *kQueryFooter =
    "Prints one record a line. If several names are asked, or standard input is read, the name comes first.\n"
    "\n"
    "Exit status: 0 every name has an answer; 1 a name has none; 2 a query failed, whatever else was learned;\n"
    "64 the command line is wrong.\n";

constexpr const char *kZonesFooter =
    "The library itself decides: a file that it refuses has faults, one that it accepts has warnings at most.\n"
    "\n"
    "Exit status: 0 the library accepts the file; 1 it refuses the file; 64 the file cannot be read, or the\n"
    "command line is wrong.\n";

constexpr const char *kCacheSaveFooter =
    "Exit status: 0 every name has an answer; 1 a name has a negative answer, which is saved too; 2 a query failed,\n"
    "its answer may not be kept, or the file cannot be written; 64 the command line is wrong, or the file cannot be\n"
    "created.\n";

constexpr const char *kCacheLoadFooter =
    "No server is asked. The TTL of an expired answer is below 0: the seconds since it expired.\n"
    "\n"
    "Exit status: 0 every name has a live answer; 1 a name has none, or an expired one; 2 the file is no dump, cut\n"
    "off or altered; 64 the file cannot be read, or the command line is wrong.\n";

constexpr const char *kCacheShowFooter =
    "Exit status: 0 all is shown; 2 the file is no dump, cut off or altered; 64 the file cannot be read, or the\n"
    "command line is wrong.\n";

void describe_network(CLI::App *command, Network *network) {
  command
      ->add_option(
          "--server", network->servers,
          "a DNS server to ask, ADDRESS[:PORT], or [ADDRESS]:PORT for IPv6; may be repeated; without it the system's "
          "servers are asked")
      ->allow_extra_args(false);
  command
      ->add_option("--timeout", network->timeout_ms,
                   "milliseconds that one attempt may take; a query has three attempts, or one for each server")
      ->check(CLI::Range(1U, kTimeoutMsMax))
      ->capture_default_str();
  command
      ->add_option("--window", network->window,
                   "the most queries under way to one server by UDP; fewer are while the server or the network cannot "
                   "take so many")
      ->check(CLI::Range(1U, kWindowMax))
      ->capture_default_str();
  command
      ->add_option("--rate", network->rate,
                   "the most queries a second to one server by UDP, retransmissions included; 0 for no limit")
      ->check(CLI::Range(0U, kRateMax))
      ->capture_default_str();
}

void describe_trace(CLI::App *command, Network *network, CLI::Option *json) {
  command->add_flag("--trace", network->trace, "show every packet that is sent and received")->excludes(json);
}

void describe_type(CLI::App *command, std::string *type) {
  command->add_option("--type", *type, "record type: A, MX, ... or by its number, TYPE257")->capture_default_str();
}

void describe_check(CLI::App *check, CheckArguments *arguments) {
  check->add_option("--zones", arguments->zones_file, "zones file: sections #IP, #IP_TXT, #DOMAIN and #DOMAIN_TXT");
  check->add_option("--zone", arguments->zones, "a list to ask about addresses and domains; may be repeated")
      ->allow_extra_args(false);
  describe_network(check, &arguments->network);
  describe_trace(check, &arguments->network,
                 check->add_flag("--json", arguments->json, "one JSON object a line for each subject"));
  check->add_option("SUBJECT", arguments->subjects,
                    "IPv4 or IPv6 addresses and domain names; - reads more from standard input, one a line");
  check->footer(kCheckFooter);
}

constexpr const char *kNamesHelp =
    "domain names, and for type PTR addresses; - reads more from standard input, one a line";

void describe_query(CLI::App *query, QueryArguments *arguments) {
  describe_type(query, &arguments->type);
  describe_network(query, &arguments->network);
  query->add_flag("--raw", arguments->raw,
                  "show the whole answer packet, laid out as by dig; any type can be asked so");
  describe_trace(query, &arguments->network,
                 query->add_flag("--json", arguments->json, "one JSON object a line for each name"));
  query->add_option("NAME", arguments->names, kNamesHelp);
  query->footer(kQueryFooter);
}

void describe_zones(CLI::App *zones, ZonesArguments *arguments) {
  zones
      ->add_option("--max-zones", arguments->zones_max,
                   "zones that a section may have: as many as the program that reads the file has room for")
      ->check(CLI::Range(1, kZonesMaxMax))
      ->capture_default_str();
  zones->add_flag("--json", arguments->json, "one JSON object");
  zones->add_option("FILE", arguments->file, "the zones file")->required();
  zones->footer(kZonesFooter);
}

void describe_cache_save(CLI::App *save, CacheArguments *arguments) {
  describe_type(save, &arguments->type);
  describe_network(save, &arguments->network);
  save->add_option("FILE", arguments->file, "the dump, which is created or overwritten")->required();
  save->add_option("NAME", arguments->names, kNamesHelp);
  save->footer(kCacheSaveFooter);
}

void describe_cache_load(CLI::App *load, CacheArguments *arguments) {
  describe_type(load, &arguments->type);
  load->add_flag("--json", arguments->json, "one JSON object a line for each name");
  load->add_option("FILE", arguments->file, "the dump")->required();
  load->add_option("NAME", arguments->names, kNamesHelp);
  load->footer(kCacheLoadFooter);
}

void describe_cache_show(CLI::App *show, CacheArguments *arguments) {
  show->add_flag("--json", arguments->json, "one JSON object a line for each entry");
  show->add_option("FILE", arguments->file, "the dump")->required();
  show->footer(kCacheShowFooter);
}

// Adds a command whose words go into arguments of its own.
template <typename Arguments>
void add_command(CLI::App *parent, const std::string &name, const char *about, Chosen *chosen,
                 void (*describe)(CLI::App *, Arguments *), int (*body)(const Arguments &)) {
  const auto arguments = std::make_shared<Arguments>();
  CLI::App *command = parent->add_subcommand(name, about);
  describe(command, arguments.get());
  const std::string whole = parent->get_name() + " " + name;
  command->callback([=] {
    const std::string before = whole.starts_with("kavo") ? "" : "kavo ";
    *chosen = {before + whole, [=] { return body(*arguments); }};
  });
}

}  // namespace

void describe_commands(CLI::App *app, Chosen *chosen) {
  app->require_subcommand(1);
  add_command(app, "check", "ask lists about addresses and domain names", chosen, describe_check, check);
  add_command(app, "query", "ask ordinary DNS about names", chosen, describe_query, query);
  add_command(app, "zones", "check a zones file", chosen, describe_zones, zones);
  CLI::App *caches = app->add_subcommand("cache", "save answers to a file, use them, show them");
  caches->require_subcommand(1);
  add_command(caches, "save", "ask about names and save the answers", chosen, describe_cache_save, cache_save);
  add_command(caches, "load", "answer from a saved cache alone", chosen, describe_cache_load, cache_load);
  add_command(caches, "show", "show all that a saved cache holds", chosen, describe_cache_show, cache_show);
}

}  // namespace tool
