// queries.h - many queries in the simulated world, and what a test checks of them.
#ifndef KAVO_TESTBED_QUERIES_H
#define KAVO_TESTBED_QUERIES_H

#include <context.h>
#include <gtest/gtest.h>
#include <world_query.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace sim {

// some_name is a random name that the servers answer about, now and then a very long one.
std::string some_name(World *world);

// Queries keeps each query at one place. In `meddling` of a hundred callbacks it submits and cancels queries; so it
// does in the debug function, if that is `told`.
class Queries {
 public:
  explicit Queries(World *world) : world_(world) {}
  int meddling = 0;

  Query &ask(const std::string &text, const std::vector<std::string> &servers = {}, unsigned flags = 0);
  // ask_listed asks for the first `count` names that are listed, expect_truths checks the answers of all queries.
  void ask_listed(unsigned count);
  void expect_truths() const;
  void cancel(Query *asked);
  void meddle();
  // told may also cancel a query of the engine's own, and parses a packet that takes more memory than any answer.
  static void told(dns_ctx *ctx, dns_query *q, int code, void *data, void *udata);

  [[nodiscard]] const std::vector<std::unique_ptr<Query>> &all() const { return queries_; }

 private:
  World *world_;
  std::vector<std::unique_ptr<Query>> queries_;
};

void expect_truth(const Query &asked);
// expect_rest checks that nothing is left of any query.
void expect_rest(World *world);
void set(World *world, int option, uint32_t value);

// Scene is a world and the queries in it.
struct Scene {
  explicit Scene(uint64_t seed) : world(seed) {}

  // run submits a query and runs the world; resolve also checks that the answer is the truth.
  Query &run(const std::string &text, const std::vector<std::string> &servers = {}, unsigned flags = 0) {
    Query &query = queries.ask(text, servers, flags);
    EXPECT_TRUE(world.run());
    return query;
  }
  Query &resolve(const std::string &text, const std::vector<std::string> &servers = {}, unsigned flags = 0) {
    Query &query = run(text, servers, flags);
    expect_truth(query);
    return query;
  }
  // send lets the engine do what is due; hear lets it read a forged packet.
  void send() { (void)dns_timeouts(world.ctx, dns_tv_infinite, world.now()); }
  void hear(const std::string &server, const Bytes &packet, uint16_t port = 53) {
    world.forge(server, packet, port);
    world.read_sockets();
  }

  World world;
  Queries queries{&world};
};

// Engine is a scene for one test.
class Engine : public ::testing::Test, protected Scene {
 protected:
  Engine() : Scene(42) {}
};

}  // namespace sim

#endif  // KAVO_TESTBED_QUERIES_H
