#include "voctl/command.h"

#include <CLI/CLI.hpp>

#include "voctl/lpid.h"
#include "voctl/number.h"

namespace voctl {

namespace {
// A function-local static, so registrars in other files may run first.
std::vector<CommandEntry>& registry() {
    static std::vector<CommandEntry> commands;
    return commands;
}
}  // namespace

CommandRegistrar::CommandRegistrar(std::string name, std::string description, Setup setup) {
    registry().push_back({std::move(name), std::move(description), std::move(setup)});
}

const std::vector<CommandEntry>& registeredCommands() { return registry(); }

std::unique_ptr<VoClient> Context::connect() {
    auto c = std::make_unique<VoClient>(opts.host, opts.timeoutSec);
    if (!c->connected()) {
        out.failure(kExitUnreachable, c->createError());
        return nullptr;
    }
    return c;
}

int Context::callFailed(const VoClient& c) { return out.failure(kExitUnreachable, c.callError()); }

CLI::Validator u32Check() {
    return CLI::Validator(
        [](std::string& s) -> std::string {
            return parseU32(s) ? "" : "not a 32-bit number (decimal or 0x hex): " + s;
        },
        "U32");
}

CLI::Validator u64Check() {
    return CLI::Validator(
        [](std::string& s) -> std::string {
            return parseU64(s) ? "" : "not a 64-bit number (decimal or 0x hex): " + s;
        },
        "U64");
}

CLI::Validator lpIdCheck() {
    return CLI::Validator(
        [](std::string& s) -> std::string {
            return parseLpId(s) ? "" : "not an LP id (32 hex digits, optional 0x): " + s;
        },
        "LPID");
}

}  // namespace voctl
