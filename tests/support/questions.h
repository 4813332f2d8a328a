// questions.h - questions asked in the simulated world, and what came of each.
#ifndef KAVO_TESTS_QUESTIONS_H
#define KAVO_TESTS_QUESTIONS_H

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <string>
#include <vector>

#include "../../platform/dns/engine/context.h"
#include "simulation.h"

namespace sim {

class Questions;

struct Asked {
  std::array<uint8_t, DNS_MAXDN> dn;
  dns_query *handle = nullptr;
  bool cancelled = false;
  Questions *asker = nullptr;
  int calls = 0;
  dns_status status = 1;
  unsigned sflags = 0;
  in_addr_t address = 0;
  std::string canonical;
  const World *world = nullptr;
  int64_t took_us = 0;  // until then the moment that it was asked at
};

// answered is the callback of every question, whose data is its Asked.
void answered(dns_ctx *ctx, dns_query *q, void *result, unsigned size, void *data);

// some_name is a name that the servers have something to say about, now and then a very long one.
std::string some_name(World *world);

// Questions keeps what was asked at one place, for the callbacks point at it. From a callback, and from the debug
// function where told is that, it asks and cancels in `meddling` of a hundred cases.
class Questions {
 public:
  explicit Questions(World *world) : world_(world) {}
  int meddling = 0;

  Asked &ask(const std::string &text, const std::vector<std::string> &servers = {}, unsigned flags = 0);
  void cancel(Asked *asked);
  void meddle();
  // told may also cancel what the engine itself asks, and parses a packet that takes more memory than any answer.
  static void told(dns_ctx *ctx, dns_query *q, int code, void *data, void *udata);

  [[nodiscard]] const std::vector<std::unique_ptr<Asked>> &all() const { return asked_; }

 private:
  World *world_;
  std::vector<std::unique_ptr<Asked>> asked_;
};

void expect_truth(const Asked &asked);
// expect_rest checks that nothing is left of any question.
void expect_rest(World *world);
void set(World *world, int option, uint32_t value);

// Engine is a world for one test.
class Engine : public testing::Test {
 protected:
  World world{42};
  Questions questions{&world};
};

}  // namespace sim

#endif  // KAVO_TESTS_QUESTIONS_H
