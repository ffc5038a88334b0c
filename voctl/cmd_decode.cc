// voctl decode CODE: what vod makes of a 32-bit error code; when vod cannot
// be asked, what its tables, linked into voctl, make of it.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>
#include <string>

#include "voctl/admin_common.h"
#include "voctl/command.h"
#include "voctl/number.h"

namespace voctl {
namespace {

// vod's text reads "(MODULE) PROCNAME: MESSAGE"; PROCNAME may be empty.
struct DecodedText {
    bool parsed = false;
    std::string module, procName, message;
};

DecodedText splitDecodedText(const std::string& s) {
    DecodedText d;
    size_t close = s.find(") ");
    if (s.empty() || s[0] != '(' || close == std::string::npos) return d;
    size_t colon = s.find(": ", close + 2);
    if (colon == std::string::npos) return d;
    d.parsed = true;
    d.module = s.substr(1, close - 1);
    d.procName = s.substr(close + 2, colon - close - 2);
    d.message = s.substr(colon + 2);
    return d;
}

int decode(Context& ctx, const std::string& codeText) {
    uint32_t code = *parseU32(codeText);  // checked at parse time
    // No connection is no failure here: voctl carries the same tables, so a
    // code can be read on a node whose vod is down.
    VoClient c(ctx.opts.host, ctx.opts.timeoutSec);
    DecodedCode dc = decodeCodeVia(&c, code);
    if (!dc.byVod) ctx.out.note(dc.whyLocal + "; decoded by voctl's own tables");

    DecodedText d = splitDecodedText(dc.message);
    nlohmann::json obj = {{"code", code},
                          {"proc", dc.proc},
                          {"low", dc.low},
                          {"message", dc.message},
                          {"decodedBy", dc.byVod ? "vod" : "voctl"}};
    if (!dc.byVod) obj["vodError"] = dc.whyLocal;
    if (d.parsed) {
        obj["module"] = d.module;
        obj["procName"] = d.procName;
        obj["text"] = d.message;
    }

    char hex[32], num[64];
    std::snprintf(hex, sizeof hex, "0x%08X = %u", code, code);
    std::vector<std::pair<std::string, std::string>> rows = {{"code", hex}};
    std::snprintf(num, sizeof num, "%u", dc.proc);
    rows.push_back({"procedure", d.parsed && !d.procName.empty() ? std::string(num) + " " + d.procName
                                                                 : std::string(num)});
    std::snprintf(num, sizeof num, "%u", dc.low);
    rows.push_back({"low half", num});
    if (d.parsed) {
        rows.push_back({"module", d.module});
        rows.push_back({"message", d.message});
    }
    std::string text = dc.message + "\n" + formatTable(rows, "  ");
    ctx.out.result(obj, text);
    return kExitOk;
}

const CommandRegistrar reg(
    "decode",
    "Explain an error code: procedure, module and message, as vod decodes it (decoded by "
    "voctl itself, with a note, when vod cannot be asked)",
    [](CLI::App& sub) -> Action {
        auto code = std::make_shared<std::string>();
        sub.add_option("CODE", *code,
                       "32-bit code, decimal or 0x hex: procedure number in the high 16 bits, "
                       "the code proper in the low 16")
            ->required()
            ->check(u32Check());
        return [code](Context& ctx) { return decode(ctx, *code); };
    });

}  // namespace
}  // namespace voctl
