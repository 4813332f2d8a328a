// questions.cc - see questions.h.
#include "questions.h"

#include <arpa/inet.h>

#include <utility>

#include "packets.h"

namespace sim {
namespace {

void parse(dns_ctx *ctx) {
  sim::Bytes text(30'208);
  for (size_t at = 0; at < text.size(); at += 256)
    text[at] = 255;
  const packets::Answer answer = packets::Answer("other.test", DNS_T_TXT).add("other.test", DNS_T_TXT, text);
  const uint8_t *packet = answer.packet.data();
  void *block = nullptr;
  EXPECT_GT(dns_parse_txt(ctx, nullptr, sim::name("other.test").data(), packet, packet + answer.answers_at,
                          packet + answer.packet.size(), &block, 0),
            0);
}

}  // namespace

void answered(dns_ctx *ctx, dns_query *q, void *result, unsigned size, void *data) {
  auto *asked = static_cast<Asked *>(data);
  EXPECT_EQ(q, asked->handle);
  EXPECT_NE(dns_dnequal(dns_qdn(q), asked->dn.data()), 0U);
  ++asked->calls;
  asked->asker->meddle();
  asked->status = dns_get_status(ctx);
  asked->sflags = dns_get_sflags(ctx);
  asked->took_us = asked->world->now_us - asked->took_us;
  if (result == nullptr) return;
  const auto *block = static_cast<const dns_rr_a4 *>(result);
  EXPECT_EQ(block->dnsa4_size, size);
  EXPECT_EQ(block->dnsa4_written, size);
  asked->canonical = block->dnsa4_cname;
  if (block->dnsa4_nrr == 1) asked->address = ntohl(block->dnsa4_addr[0].s_addr);
}

std::string some_name(World *world) {
  static const char *const kinds[] = {"listed-", "listed-", "gone-", "empty-"};
  std::string text = kinds[world->random(4)] + std::to_string(world->random(1000)) + ".List.test";
  // Some names are too long to lie in a question's own record.
  if (world->chance(20)) text += "." + std::string(60, 'x') + "." + std::string(61, 'y');
  return text;
}

Asked &Questions::ask(const std::string &text, const std::vector<std::string> &servers, unsigned flags) {
  asked_.push_back(std::make_unique<Asked>());
  Asked &asked = *asked_.back();
  asked.dn = sim::name(text);
  asked.world = world_;
  asked.asker = this;
  asked.took_us = world_->now_us;
  std::vector<sockaddr_in> addresses;
  for (const std::string &server : servers)
    addresses.push_back(World::address_of(server));
  asked.handle = dns_submit_dn_serv(world_->ctx, asked.dn.data(), DNS_C_IN, DNS_T_A, flags,
                                    addresses.empty() ? nullptr : reinterpret_cast<const sockaddr *>(addresses.data()),
                                    static_cast<unsigned>(addresses.size()), dns_parse_a4, answered, &asked);
  EXPECT_NE(asked.handle, nullptr);
  EXPECT_EQ(asked.calls, 0) << "no callback runs inside a submission";
  return asked;
}

void Questions::cancel(Asked *asked) {
  if (asked->calls == 0 && !std::exchange(asked->cancelled, true)) dns_cancel(world_->ctx, asked->handle);
}

void Questions::meddle() {
  constexpr size_t kMost = 300;
  if (!world_->chance(meddling) || asked_.size() > kMost) return;
  const size_t some = world_->random(asked_.size());
  if (world_->chance(50)) {
    cancel(asked_[some].get());
  } else {
    ask(world_->chance(50) ? some_name(world_) : dns_dntosp(asked_[some]->dn.data()));
  }
}

void Questions::told(dns_ctx *ctx, dns_query *q, int, void *, void *udata) {
  auto *self = static_cast<Questions *>(udata);
  if (self->world_->chance(5)) parse(ctx);
  self->meddle();
  if (q == nullptr || !self->world_->chance(self->meddling)) return;
  if (dns_qcbck(q) == answered) {
    self->cancel(static_cast<Asked *>(dns_qudata(q)));
  } else {
    dns_cancel(ctx, q);
  }
}

void expect_truth(const Asked &asked) {
  const sim::Truth truth = sim::truth_of(asked.dn.data());
  EXPECT_EQ(asked.calls, 1);
  EXPECT_EQ(asked.status, truth.status);
  EXPECT_EQ(asked.address, truth.address);
}

void set(World *world, int option, uint32_t value) {
  ASSERT_EQ(dns_set_opt(world->ctx, option, &value, sizeof value), DNS_E_NOERROR);
}

void expect_rest(World *world) {
  dns_ctx *ctx = world->ctx;
  EXPECT_EQ(dns_active(ctx), 0);
  EXPECT_TRUE(ctx->leaders.count() == 0 && ctx->resolving.alone() && ctx->cancelled.alone());
  if (ctx->costs.open > 0) return;
  EXPECT_TRUE(ctx->index.count() == 0 && ctx->sending.alone() && ctx->tcp_waiting.alone());
  ctx->server_table.each([](dns::Server *s) { EXPECT_TRUE(s->under_way == 0 && s->parked.alone()); });
}

}  // namespace sim
