// c_host_launcher - starts the list server and runs c_host_test, the host program in C, against it.
#include <gtest/gtest.h>
#include <host_test.h>

namespace {

TEST(CHostTest, HostProgramInCAsksAndIsAnswered) {
  testbed::ListServer server(
      "zone a.list\nlist 192.0.2.0/24\nrecord @ MX 10 mail.a.list\nrecord ns A 127.0.0.1\n"
      "zone b.list\nlist bad.example 127.0.0.9\n"
      "zone mute.list\nfault dead\n");
  const testbed::TempDir directory;
  const testbed::Result result = testbed::run({KAVO_C_HOST, std::to_string(server.port()), directory.path()});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.out.find("ns.a.list"), std::string::npos) << "the packets that it traced: " << result.out;
}

}  // namespace
