#include "host.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace testbed {

Host::Host(int table_size, int cache_size, int max_zones) {
  if (kavo_init_ext(&kavo_, table_size, cache_size, max_zones, 0) != KAVOE_OK)
    throw std::runtime_error("kavo_init_ext");
  EXPECT_EQ(kavo_add_dns_server(kavo_, nullptr, 0), KAVOE_OK);
}

Host::~Host() {
  EXPECT_EQ(kavo_close(kavo_), KAVOE_OK);
  EXPECT_EQ(kavo_free(kavo_), KAVOE_OK);
}

Host &Host::server(uint16_t port, const char *address) {
  EXPECT_EQ(kavo_add_dns_server(kavo_, address, port), KAVOE_OK);
  return *this;
}

Host &Host::zone(KAVO_TYPE type, const char *name) {
  EXPECT_EQ(kavo_add_zone(kavo_, type, name), KAVOE_OK);
  return *this;
}

Host &Host::option(KAVO_OPT option, uint32_t value) {
  EXPECT_EQ(kavo_set_opt(kavo_, option, value), KAVOE_OK) << kavo_opt_name(option);
  return *this;
}

Host &Host::long_timeout() {
  return option(KAVOOPT_CLOSE_FAST, 1).option(KAVOOPT_TIMEOUT_MSEC, kNeverMs);
}

Host &Host::open() {
  EXPECT_EQ(kavo_open(kavo_), KAVOE_OK);
  return *this;
}

Node::Node(KAVO kavo, KAVO_TYPE type, const std::string &subject, unsigned flags) : kavo_(kavo) {
  EXPECT_EQ(kavo_subscribe_node_p(kavo, type, subject.c_str(), flags, Deadline(kLongMs), &node_), KAVOE_OK) << subject;
}

Node::Node(KAVO kavo) : kavo_(kavo) {
  EXPECT_EQ(kavo_subscribe_syncnode(kavo, Deadline(kLongMs), &node_), KAVOE_OK);
}

void Node::drop() {
  if (node_ == nullptr) return;
  EXPECT_EQ(kavo_unsubscribe_node(kavo_, node_), KAVOE_OK);
  node_ = nullptr;
}

KAVO_ERR Node::wait(KAVO_WAIT_LEVEL level, unsigned ms) const {
  return kavo_wait_node(kavo_, node_, level, Deadline(ms));
}

}  // namespace testbed
