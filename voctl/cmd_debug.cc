// Diagnostics: voctl trace-mask MASK, voctl dbgdump.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>

#include "voctl/command.h"
#include "voctl/number.h"
#include "voctl/trace_mask_arg.h"
#include "votrace.h"

namespace voctl {
namespace {

// The one mask value that vod reads as "open the private log files".
constexpr uint32_t kOpenPrivateLog = 0xFFFFFFFF;

// The mask word to send: a preset's, or the one maskText names (checked at
// parse time).
int traceMask(Context& ctx, const std::string& maskText, std::optional<int> preset) {
    std::string why;
    const uint32_t mask = preset ? voTracePresetMask(*preset) : *parseTraceMaskArg(maskText, &why);
    auto c = ctx.connect();
    if (!c) return kExitUnreachable;
    u_int arg = mask;
    if (c->call(vosettracemask_1, &arg, static_cast<void*>(nullptr)) != RPC_SUCCESS)
        return ctx.callFailed(*c);

    char text[256];
    if (mask == kOpenPrivateLog)
        std::snprintf(text, sizeof text,
                      "vod on %s: private log opened (/var/log/vod.log, /var/log/vod.cnt); "
                      "trace mask unchanged",
                      ctx.opts.host.c_str());
    else
        std::snprintf(text, sizeof text, "vod on %s: private log closed; trace mask set to 0x%08X",
                      ctx.opts.host.c_str(), mask);
    ctx.out.result({{"host", ctx.opts.host},
                    {"mask", mask},
                    {"privateLog", mask == kOpenPrivateLog ? "opened" : "closed"}},
                   text);
    return kExitOk;
}

int dbgDump(Context& ctx) {
    auto c = ctx.connect();
    if (!c) return kExitUnreachable;
    if (Context::callVoid(*c, vodbgdump_1) != RPC_SUCCESS) return ctx.callFailed(*c);
    ctx.out.result({{"host", ctx.opts.host}, {"requested", true}}, "requested");
    return kExitOk;
}

const CommandRegistrar traceMaskReg(
    "trace-mask", "Set vod's trace mask, or open its private log files",
    [](CLI::App& sub) -> Action {
        auto mask = std::make_shared<std::string>();
        auto preset = std::make_shared<int>(-1);
        CLI::Option* maskOpt =
            sub.add_option("MASK", *mask,
                           "the new mask word (decimal or 0x hex), or module and level names "
                           "separated by commas")
                ->check(CLI::Validator(
                    [](std::string& text) {
                        std::string why;
                        return parseTraceMaskArg(text, &why) ? std::string() : why;
                    },
                    "MASK|NAMES"));
        CLI::Option* presetOpt =
            sub.add_option("--preset", *preset, "one of vod's trace presets instead of a mask")
                ->check(CLI::Range(0, 5));
        maskOpt->excludes(presetOpt);
        sub.require_option(1);
        sub.footer(
            "MASK 0xFFFFFFFF opens the private ring log /var/log/vod.log and its line counter\n"
            "/var/log/vod.cnt on vod's node and leaves the mask as it is. Any other value\n"
            "closes those files and replaces the whole mask word.\n"
            "Module bits: 0x1000 VOD, 0x2000 VLDB, 0x4000 VOSC, 0x8000 VOSK, 0x10000 INCP,\n"
            "0x20000 RPC. Level bits: 0x01 detail, 0x02 debug, 0x04 entry, 0x08 exit,\n"
            "0x10 event, 0x20 audit, 0x40 warn, 0x80 fatal. A line is traced when both its\n"
            "module bit and its level bit are set.\n"
            "NAMES, e.g. vod,vldb,audit,warn,fatal: a list without modules means every\n"
            "module, one without levels means audit,warn,fatal.\n"
            "Presets: 0 VOD warn+fatal; 1 all but RPC, warn+fatal; 2 as 1 plus audit;\n"
            "3 all but RPC, all levels but detail; 4 all modules, all but detail; 5 all.");
        return [mask, preset, presetOpt](Context& ctx) {
            return traceMask(ctx, *mask,
                             presetOpt->count() ? std::optional<int>(*preset) : std::nullopt);
        };
    });

const CommandRegistrar dbgDumpReg(
    "dbgdump", "Ask vod to trace its live operations and cached operation records",
    [](CLI::App&) -> Action { return dbgDump; });

}  // namespace
}  // namespace voctl
