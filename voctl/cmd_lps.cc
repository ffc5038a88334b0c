// voctl lps: the node's LPs with their names, for people choosing an LP
// argument and for shell completion, which offers the names.
#include <CLI/CLI.hpp>
#include <memory>
#include <string>
#include <vector>

#include "voctl/command.h"
#include "voctl/lp_names.h"
#include "voctl/output.h"

namespace voctl {
namespace {

int lps(Context& ctx) {
    std::string why;
    const std::vector<NamedLp> all = listLps(ctx.opts.host, ctx.opts.timeoutSec, &why);
    // Nothing at all means the node could not be asked; a partial list is a
    // result with a note.
    if (all.empty() && !why.empty()) return ctx.out.failure(kExitUnreachable, why);
    if (!why.empty()) ctx.out.note("some LPs are missing: " + why);

    nlohmann::json list = nlohmann::json::array();
    std::vector<std::vector<std::string>> rows = {{"NAME", "LP", "DBLADE"}};
    for (const NamedLp& l : all) {
        list.push_back({{"name", l.name}, {"lp", formatLpId(l.lp)}, {"dblade", l.dblade}});
        rows.push_back({l.name, formatLpId(l.lp), std::to_string(l.dblade)});
    }
    ctx.out.result({{"host", ctx.opts.host}, {"lps", list}}, formatColumns(rows));
    return kExitOk;
}

const CommandRegistrar reg("lps", "List the node's LPs: name, id and D-blade",
                           [](CLI::App&) -> Action { return lps; });

}  // namespace
}  // namespace voctl
