// The frame every subcommand plugs into. A subcommand is one cmd_*.cc file
// holding a static CommandRegistrar; main.cc needs no change to gain one.
#ifndef VOCTL_COMMAND_H
#define VOCTL_COMMAND_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "voctl/client.h"
#include "voctl/output.h"

namespace CLI {
class App;
class Validator;
}

namespace voctl {

// Exit statuses of the tool.
enum ExitStatus {
    kExitOk = 0,
    kExitVodFailure = 1,  // vod answered and reported a failure
    kExitUsage = 2,       // bad command line
    kExitUnreachable = 3  // no answer: connection or RPC failure
};

struct GlobalOptions {
    std::string host = "localhost";
    unsigned timeoutSec = 25;
    bool json = false;
};

// What a running subcommand gets: the global options and where to report.
struct Context {
    GlobalOptions opts;
    Output out;

    // Connects to vod as the options say. On failure reports it and returns
    // null; the command then returns kExitUnreachable.
    std::unique_ptr<VoClient> connect();

    // Reports a failed call on c (the RPC library's text) and returns
    // kExitUnreachable.
    int callFailed(const VoClient& c);

    // Calls a generated stub with no argument or no result (vonull_1, ...).
    template <typename Stub>
    static clnt_stat callVoid(VoClient& c, Stub stub) {
        return c.call(stub, static_cast<void*>(nullptr), static_cast<void*>(nullptr));
    }
};

// Runs the chosen subcommand after parsing; returns the exit status.
using Action = std::function<int(Context&)>;

// Declares the subcommand's arguments on sub and returns its action. The
// action may capture storage that the declared options write into.
using Setup = std::function<Action(CLI::App& sub)>;

struct CommandEntry {
    std::string name;
    std::string description;
    Setup setup;
};

// Adds a subcommand to the tool; meant for a namespace-scope static.
struct CommandRegistrar {
    CommandRegistrar(std::string name, std::string description, Setup setup);
};

// Every registered subcommand, in registration order.
const std::vector<CommandEntry>& registeredCommands();

// Argument checks, so that a malformed value is a usage error at parse time:
// a 32-bit or 64-bit number (decimal or 0x hex), an LP id (32 hex digits).
CLI::Validator u32Check();
CLI::Validator u64Check();
CLI::Validator lpIdCheck();

}  // namespace voctl

#endif  // VOCTL_COMMAND_H
