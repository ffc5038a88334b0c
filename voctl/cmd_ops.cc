// Recorded operations: voctl ops lists the VODB as the VLDB holds it (what is
// in flight, whether or not vod runs); voctl purge drops one operation's
// records through vod.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <string>

#include "vldb_server.h"
#include "voctl/admin_common.h"
#include "voctl/command.h"
#include "voctl/lpid.h"
#include "voctl/number.h"
#include "voerrors.h"
#include "vorec.h"

namespace voctl {
namespace {

// The VODB answers this for an empty table.
constexpr int kVodbEmpty = 135;

int ops(Context& ctx, const std::string& vldbHost) {
    std::string err;
    ServiceClient vldb = connectService(vldbHost, VLDB_PROG, VLDB_VERS, ctx.opts.timeoutSec, &err);
    if (!vldb) return ctx.out.failure(kExitUnreachable, "VLDB: " + err);
    XdrResult<vodb_lookup_result> res(xdr_vodb_lookup_result);
    if (vodb_lookup_3(nullptr, res.get(), vldb.get()) != RPC_SUCCESS)
        return ctx.out.failure(kExitUnreachable,
                               "VLDB: " + std::string(clnt_sperror(vldb.get(), vldbHost.c_str())));
    if (res->result != 0 && res->result != kVodbEmpty)
        return codeFailure(ctx, nullptr, "VODB lookup on " + vldbHost,
                           VO_ERR_VLDB_BASE + static_cast<unsigned>(res->result));

    nlohmann::json list = nlohmann::json::array();
    std::string text;
    char line[256];
    std::snprintf(line, sizeof line, "%-10s %-10s %-10s %-34s %s\n", "OPID", "TYPE", "VFSID", "LP",
                  "ROLE");
    text += line;
    const u_int n = res->result == 0 ? res->rec.rec_len : 0;
    for (u_int i = 0; i < n; ++i) {
        const vodbRec& r = res->rec.rec_val[i];
        LpId lp;
        std::copy(std::begin(r.lp_uuid), std::end(r.lp_uuid), lp.begin());
        std::string type = VoRec::opType2str(static_cast<unsigned>(r.optype));
        std::string role = VoRec::role2str(static_cast<unsigned>(r.vfsrole));
        std::snprintf(line, sizeof line, "%-10llu %-10s %-10u %-34s %s\n",
                      static_cast<unsigned long long>(r.opid), type.c_str(), r.vfsid,
                      formatLpId(lp).c_str(), role.c_str());
        text += line;
        list.push_back({{"opid", r.opid},
                        {"type", r.optype},
                        {"typeName", type},
                        {"vfsid", r.vfsid},
                        {"lp", formatLpId(lp)},
                        {"role", r.vfsrole},
                        {"roleName", role}});
    }
    if (n == 0) text = "no operations recorded in the VODB";
    ctx.out.result({{"vldbHost", vldbHost},
                    {"lastCreatedOpid", res->last_create_opid},
                    {"lastDeletedOpid", res->last_delete_opid},
                    {"ops", list}},
                   text);
    return kExitOk;
}

int purge(Context& ctx, const std::string& opidText) {
    uint64_t opid = *parseU64(opidText);
    auto c = ctx.connect();
    if (!c) return kExitUnreachable;
    u_quad_t arg = opid;
    if (c->call(vopurgeop_1, &arg, static_cast<void*>(nullptr)) != RPC_SUCCESS)
        return ctx.callFailed(*c);
    // vod answers nothing: whether the records went shows in voctl ops.
    ctx.out.result({{"opid", opid}, {"requested", true}},
                   "purge of opid " + std::to_string(opid) + " requested");
    return kExitOk;
}

const CommandRegistrar opsReg(
    "ops", "List the operations recorded in the VODB: opid, type, vfsid, LP, role",
    [](CLI::App& sub) -> Action {
        auto host = std::make_shared<std::string>("localhost");
        sub.add_option("--vldb-host", *host, "node whose VLDB to read")->capture_default_str();
        return [=](Context& ctx) { return ops(ctx, *host); };
    });

const CommandRegistrar purgeReg(
    "purge", "Drop an operation's VODB records (its volumes are left as they are)",
    [](CLI::App& sub) -> Action {
        auto opid = std::make_shared<std::string>();
        sub.add_option("OPID", *opid, "the operation id")->required()->check(u64Check());
        return [=](Context& ctx) { return purge(ctx, *opid); };
    });

}  // namespace
}  // namespace voctl
