// voctl: the management tool of vod. Global options, then one subcommand.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <string>

#include "voctl/command.h"
#include "votrace.h"

// Sanitizer builds only: libtirpc keeps a few bytes it never frees when the
// port-mapper lookup of clnt_create fails. The library has no frame pointers,
// so the precise suppression needs the slow unwinder; a short-lived tool can
// afford it, and every other leak is still reported.
extern "C" const char* __asan_default_options() { return "fast_unwind_on_malloc=0"; }
extern "C" const char* __lsan_default_suppressions() { return "leak:clnt_tp_create_timed\n"; }
extern "C" const char* __lsan_default_options() { return "print_suppressions=0"; }

int main(int argc, char** argv) {
    using namespace voctl;

    CLI::App app{"voctl: manage the volume-operations daemon (vod) of a node"};
    app.name("voctl");
    GlobalOptions opts;
    app.add_option("-H,--host", opts.host, "node whose vod to talk to")->capture_default_str();
    app.add_option("--timeout", opts.timeoutSec, "seconds to wait for vod on each call")
        ->capture_default_str()
        ->check(CLI::Range(1u, 3600u));
    app.add_flag("--json", opts.json, "machine output: one JSON object on stdout");
    app.require_subcommand(1);
    app.footer(
        "Exit status: 0 success, 1 vod reported a failure, 2 usage error, 3 vod not reachable.");

    std::vector<CommandEntry> commands = registeredCommands();
    std::sort(commands.begin(), commands.end(),
              [](const CommandEntry& a, const CommandEntry& b) { return a.name < b.name; });
    Action chosen;
    for (const CommandEntry& c : commands) {
        CLI::App* sub = app.add_subcommand(c.name, c.description);
        Action action = c.setup(*sub);
        sub->callback([&chosen, action] { chosen = action; });
    }

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        int rc = app.exit(e);
        return rc == 0 ? kExitOk : kExitUsage;
    }

    // The daemon's remote-call helpers that some subcommands borrow trace to
    // standard output; voctl reports their failures itself.
    VoTrace::setMask(0);
    Context ctx{opts, Output(opts.json)};
    return chosen(ctx);
}
