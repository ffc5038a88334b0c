// voctl ping: one null call, timed.
#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdio>

#include "voctl/command.h"

namespace voctl {
namespace {

int ping(Context& ctx) {
    auto c = ctx.connect();
    if (!c) return kExitUnreachable;
    auto t0 = std::chrono::steady_clock::now();
    if (Context::callVoid(*c, vonull_1) != RPC_SUCCESS) return ctx.callFailed(*c);
    double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();

    char text[256];
    std::snprintf(text, sizeof text, "vod on %s answered in %.3f ms", ctx.opts.host.c_str(), ms);
    ctx.out.result({{"host", ctx.opts.host}, {"rtt_ms", ms}}, text);
    return kExitOk;
}

const CommandRegistrar reg("ping", "Check that vod answers: one null call, with its round-trip time",
                           [](CLI::App&) -> Action { return ping; });

}  // namespace
}  // namespace voctl
