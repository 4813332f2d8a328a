// set_opt.cc - dns_set_opt and dns_get_opt.
#include <string.h>

#include <algorithm>
#include <iterator>

#include "context.h"
#include "server_list.h"

namespace dns {
namespace {

// A number among the options, with the range that it may take.
struct Figure {
  int opt;
  uint32_t Options::*field;
  uint32_t least;
  uint32_t most;
};

constexpr uint32_t kAny = UINT32_MAX;
constexpr Figure kFigures[] = {
    {DNS_OPT_FLAGS, &Options::flags, 0, kAny},
    {DNS_OPT_NTRIES, &Options::ntries, 1, 255},
    {DNS_OPT_NDOTS, &Options::ndots, 0, kAny},
    {DNS_OPT_UDPSIZE, &Options::udp_size, 512, kAnswerRoom},
    {DNS_OPT_PORT, &Options::port, 1, 65535},
    {DNS_OPT_MAXLOOP, &Options::maxloop, 1, kAny},
    {DNS_OPT_MAXALIAS, &Options::maxalias, 1, kAny},
    {DNS_OPT_BSC_SIZE, &Options::bsc_size, 0, kAny},
    {DNS_OPT_BSC_UPDTIME, &Options::bsc_update_s, 0, kAny},
    {DNS_OPT_BSC_NBEST, &Options::bsc_nbest, 1, kAny},
    {DNS_OPT_MINTTL, &Options::minttl, 0, INT32_MAX},
    {DNS_OPT_WINDOW, &Options::window, 1, kWindowMost},
    {DNS_OPT_RATE, &Options::rate, 0, kRateMax},
};

const Figure *figure_of(int opt) {
  const auto *found =
      std::find_if(std::begin(kFigures), std::end(kFigures), [opt](const Figure &f) { return f.opt == opt; });
  return found == std::end(kFigures) ? nullptr : found;
}

}  // namespace
}  // namespace dns

using namespace dns;

extern "C" {

dns_status dns_set_opt(dns_ctx *ctx, int opt, const void *value, unsigned size) {
  if (ctx == nullptr || value == nullptr) return DNS_E_INVAL;
  if (opt == DNS_OPT_TIMEOUT) {
    dns_timeval timeout;
    if (size != sizeof timeout) return DNS_E_INVAL;
    memcpy(&timeout, value, sizeof timeout);
    const int64_t us = int64_t{timeout.dnstv_sec} * kUsPerSecond + timeout.dnstv_usec;
    if (us <= 0 || timeout.dnstv_usec < 0 || timeout.dnstv_usec >= kUsPerSecond) return DNS_E_INVAL;
    ctx->options.timeout_us = us;
    return DNS_E_NOERROR;
  }
  const Figure *figure = figure_of(opt);
  uint32_t number = 0;
  if (figure == nullptr || size != sizeof number) return DNS_E_INVAL;
  memcpy(&number, value, sizeof number);
  if (number < figure->least || number > figure->most) return DNS_E_INVAL;
  const dns_status moved = opt == DNS_OPT_PORT ? move_portless(ctx, number) : dns_status{DNS_E_NOERROR};
  if (moved == DNS_E_NOERROR) ctx->options.*figure->field = number;
  ctx->server_table.keep_idle(ctx->options.bsc_size);
  return moved;
}

dns_status dns_get_opt(const dns_ctx *ctx, int opt, void *value, unsigned size) {
  if (ctx == nullptr || value == nullptr) return DNS_E_INVAL;
  if (opt == DNS_OPT_TIMEOUT) {
    const dns_timeval timeout = {static_cast<int32_t>(ctx->options.timeout_us / kUsPerSecond),
                                 static_cast<int32_t>(ctx->options.timeout_us % kUsPerSecond)};
    if (size != sizeof timeout) return DNS_E_INVAL;
    memcpy(value, &timeout, sizeof timeout);
    return DNS_E_NOERROR;
  }
  const Figure *figure = figure_of(opt);
  if (figure == nullptr || size != sizeof(uint32_t)) return DNS_E_INVAL;
  memcpy(value, &(ctx->options.*figure->field), sizeof(uint32_t));
  return DNS_E_NOERROR;
}

}  // extern "C"
