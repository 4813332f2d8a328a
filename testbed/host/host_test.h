// host_test.h - tests of the library from outside: a watch over the log, and the servers that most of them need.
#ifndef KAVO_TESTBED_HOST_TEST_H
#define KAVO_TESTBED_HOST_TEST_H

#include <gtest/gtest.h>
#include <hand_server.h>
#include <list_server.h>

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "answers.h"
#include "host.h"

namespace testbed {

// expect_all checks that all calls returned `expected`; a failure names the call, the first as number 0.
template <typename Result>
void expect_all(Result expected, std::initializer_list<Result> results) {
  for (const Result &result : results)
    EXPECT_EQ(result, expected) << "call " << &result - results.begin();
}

// HostTest fails a test in which the library logged a failed assertion.
class HostTest : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  // complaints_about returns the log lines of warnings and errors that contain a text.
  [[nodiscard]] static std::vector<std::string> complaints_about(std::string_view text);
};

// LiveAndDeadTest has a server with a list that answers and one that never does.
class LiveAndDeadTest : public HostTest {
 protected:
  ListServer server_{"zone live.list\nlist 192.0.2.0/24\nzone dead.list\nfault dead\n"};
};

[[nodiscard]] std::string address_bytes(const char *dotted);
[[nodiscard]] size_t open_descriptors();

}  // namespace testbed

#endif  // KAVO_TESTBED_HOST_TEST_H
