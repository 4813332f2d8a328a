#include "queries.h"

#include <utility>

namespace sim {
namespace {

void parse(dns_ctx *ctx) {
  Bytes text(30'208);
  for (size_t at = 0; at < text.size(); at += 256)
    text[at] = 255;
  const auto answer = testbed::Packet("other.test", DNS_T_TXT).add("other.test", DNS_T_TXT, text);
  const uint8_t *packet = answer.bytes.data();
  void *block = nullptr;
  EXPECT_GT(dns_parse_txt(ctx, nullptr, testbed::dn("other.test").data(), packet, packet + answer.answers_at,
                          packet + answer.bytes.size(), &block, 0),
            0);
}

}  // namespace

std::string some_name(World *world) {
  static const char *const kinds[] = {"listed-", "listed-", "gone-", "empty-"};
  std::string text = kinds[world->random(4)] + std::to_string(world->random(1000)) + ".List.test";
  // Some names are too long for a query's own record.
  if (world->chance(20)) text += "." + std::string(60, 'x') + "." + std::string(61, 'y');
  return text;
}

Query &Queries::ask(const std::string &text, const std::vector<std::string> &servers, unsigned flags) {
  Query &query = *queries_.emplace_back(std::make_unique<Query>(text));
  query.look = [this](void *, unsigned) { meddle(); };
  submit(world_, &query, servers, flags);
  return query;
}

void Queries::ask_listed(unsigned count) {
  for (unsigned i = 0; i < count; ++i)
    ask("listed-" + std::to_string(i) + ".list.test");
}

void Queries::expect_truths() const {
  for (const auto &asked : queries_)
    expect_truth(*asked);
}

void Queries::cancel(Query *asked) {
  if (asked->calls == 0 && !std::exchange(asked->cancelled, true)) dns_cancel(world_->ctx, asked->handle);
}

void Queries::meddle() {
  constexpr size_t kMost = 300;
  if (!world_->chance(meddling) || queries_.size() > kMost) return;
  const size_t some = world_->random(queries_.size());
  if (world_->chance(50)) {
    cancel(queries_[some].get());
  } else {
    ask(world_->chance(50) ? some_name(world_) : queries_[some]->text());
  }
}

void Queries::told(dns_ctx *ctx, dns_query *q, int, void *, void *udata) {
  auto *self = static_cast<Queries *>(udata);
  if (self->world_->chance(5)) parse(ctx);
  self->meddle();
  if (q == nullptr || !self->world_->chance(self->meddling)) return;
  if (dns_qcbck(q) == answered) {
    self->cancel(static_cast<Query *>(dns_qudata(q)));
  } else {
    dns_cancel(ctx, q);
  }
}

void expect_truth(const Query &asked) {
  const Truth truth = truth_of(asked.dn.data());
  EXPECT_EQ(asked.calls, 1);
  EXPECT_EQ(asked.status, truth.status);
  EXPECT_EQ(asked.address(), truth.address);
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
