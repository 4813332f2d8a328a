// queries.h - many queries in the simulated world, and what a test checks of them.
#ifndef KAVO_TESTBED_QUERIES_H
#define KAVO_TESTBED_QUERIES_H

#include <context.h>
#include <gtest/gtest.h>
#include <world_query.h>

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

// Engine is a world for one test.
class Engine : public ::testing::Test {
 protected:
  World world{42};
  Queries queries{&world};

  // resolve submits a query, runs the world and checks that the answer is the truth.
  Query &resolve(const std::string &text, const std::vector<std::string> &servers = {}, unsigned flags = 0) {
    Query &query = queries.ask(text, servers, flags);
    EXPECT_TRUE(world.run());
    expect_truth(query);
    return query;
  }
};

}  // namespace sim

#endif  // KAVO_TESTBED_QUERIES_H
