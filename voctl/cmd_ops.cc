// Recorded operations: voctl ops lists the VODB as the VLDB holds it (what is
// in flight, whether or not vod runs), and names each destination of a
// recorded mirror; voctl purge drops one operation's records through vod.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "dblade_lpm.h"
#include "dldb_server.h"
#include "vldb_server.h"
#include "voctl/admin_common.h"
#include "voctl/command.h"
#include "voctl/lp_names.h"
#include "voctl/lpid.h"
#include "voctl/mirror_report.h"
#include "voctl/number.h"
#include "voctl/output.h"
#include "voerrors.h"
#include "vorec.h"

namespace voctl {
namespace {

// The VODB answers this for an empty table.
constexpr int kVodbEmpty = 135;

// ---- recorded mirrors ---------------------------------------------------------

// One destination of a recorded mirror: an op sink record.
struct MirrorDest {
    LpId lp{};
    uint32_t opSink = 0;
    // The local mirror: the frozen op src itself becomes the mirror on the
    // source's LP, so its op sink is the op src.
    bool local = false;
    // What vod's recovery made of it, after a restart ("" when vod was not
    // asked or runs the mirror as usual): see recoveryOf.
    std::string recovery;
};

// A mirror's records, grouped: its source, op src and destinations. A role
// not recorded (a half-written or half-removed operation) stays 0.
struct RecordedMirror {
    uint64_t opid = 0;
    uint32_t src = 0, opSrc = 0;
    LpId srcLp{};
    std::vector<MirrorDest> dests;
};

std::vector<RecordedMirror> recordedMirrors(const vodbRec* recs, u_int n) {
    std::map<uint64_t, RecordedMirror> byOpid;
    for (u_int i = 0; i < n; ++i) {
        const vodbRec& r = recs[i];
        if (r.optype != VoRec::VODB_VOLOP_MIRROR) continue;
        RecordedMirror& m = byOpid[r.opid];
        m.opid = r.opid;
        if (r.vfsrole == VoRec::VODB_ROLE_SRC) {
            m.src = r.vfsid;
            m.srcLp = lpIdOf(r.lp_uuid);
        } else if (r.vfsrole == VoRec::VODB_ROLE_OPSRC) {
            m.opSrc = r.vfsid;
            if (m.src == 0) m.srcLp = lpIdOf(r.lp_uuid);  // the op src is on the source's LP
        } else if (r.vfsrole == VoRec::VODB_ROLE_OPSINK) {
            m.dests.push_back({lpIdOf(r.lp_uuid), r.vfsid, false, ""});
        }
    }
    std::vector<RecordedMirror> out;
    for (auto& [opid, m] : byOpid) {
        for (MirrorDest& d : m.dests)
            d.local = m.opSrc != 0 && d.opSink == m.opSrc && d.lp == m.srcLp;
        out.push_back(std::move(m));
    }
    return out;
}

// How vod's crash recovery left each destination of m, as its mirror
// progress answer says: after a restart vod answers that it is concluding
// (voErrRollForwardOp / voErrRollBackOp, or the final triple once recovered)
// and marks each destination it has settled done, with 0 or 5005 (the
// local mirror) for rolled forward and anything else for rolled back.
// Destinations of a mirror that streams as usual are left blank.
void recoveryOf(VoClient* c, RecordedMirror* m) {
    if (c == nullptr || m->src == 0) return;
    VoIn in{};
    in.vidSrc = m->src;
    std::copy(m->srcLp.begin(), m->srcLp.end(), in.lidSrc);
    XdrResult<VoMirrorPgrsOut> res(xdr_VoMirrorPgrsOut);
    if (c->call(vomirrorpgrs_1, &in, res.get()) != RPC_SUCCESS) return;
    if (res->voOpid != m->opid) {
        // Recorded but unknown to vod: it has not rebuilt the mirror yet.
        if (res->rc == voErrNoSuchOp)
            for (MirrorDest& d : m->dests) d.recovery = "not rebuilt yet";
        return;
    }
    if (res->rc != voErrRollForwardOp && res->rc != voErrRollBackOp && res->rc != voErrRcSuccess &&
        res->rc != voErrCrashRecovery)
        return;
    if (res->rc == voErrRcSuccess && res->src.status != VoDone) return;  // still streaming
    for (MirrorDest& d : m->dests) {
        d.recovery = "not settled yet";
        for (u_int i = 0; i < res->sinks.sinks_len; ++i) {
            const VoSinkPgrs& p = res->sinks.sinks_val[i];
            if (lpIdOf(p.uuid) != d.lp || !p.isDone) continue;
            const bool forward = p.completionCode == 0 || p.completionCode == VOD_ERR_LOCAL_MIRROR;
            d.recovery = forward ? "rolled forward" : "rolled back";
        }
    }
}

// The mirrors as JSON and as one block of text each.
void describeMirrors(const std::vector<RecordedMirror>& mirrors,
                     const std::map<LpId, std::string>& names, nlohmann::json* list,
                     std::string* text) {
    auto nameOf = [&](const LpId& lp) {
        auto it = names.find(lp);
        return it != names.end() ? nlohmann::json(it->second) : nlohmann::json(nullptr);
    };
    auto labelOf = [&](const LpId& lp) {
        auto it = names.find(lp);
        return it != names.end() ? it->second : formatLpId(lp);
    };
    for (const RecordedMirror& m : mirrors) {
        nlohmann::json dests = nlohmann::json::array();
        std::vector<std::vector<std::string>> rows = {
            {"destination", "LP", "op sink", "local mirror", "recovery"}};
        for (const MirrorDest& d : m.dests) {
            dests.push_back({{"lp", formatLpId(d.lp)},
                             {"lpName", nameOf(d.lp)},
                             {"opSinkVfsid", d.opSink},
                             {"local", d.local},
                             {"recovery", d.recovery.empty() ? nlohmann::json(nullptr)
                                                             : nlohmann::json(d.recovery)}});
            rows.push_back({labelOf(d.lp), formatLpId(d.lp), std::to_string(d.opSink),
                            d.local ? "yes" : "no", d.recovery.empty() ? "-" : d.recovery});
        }
        list->push_back({{"opid", m.opid},
                         {"vfsid", m.src},
                         {"lp", formatLpId(m.srcLp)},
                         {"lpName", nameOf(m.srcLp)},
                         {"opSrcVfsid", m.opSrc},
                         {"mirrorVfsid",
                          m.src != 0 ? nlohmann::json(mirrorIdOf(m.src)) : nlohmann::json(nullptr)},
                         {"destinations", dests}});
        *text += "\nmirror opid " + std::to_string(m.opid) + ": vfs " + std::to_string(m.src) +
                 " on LP " + labelOf(m.srcLp) + ", op src vfs " + std::to_string(m.opSrc) + ", " +
                 std::to_string(m.dests.size()) + " destination" +
                 (m.dests.size() == 1 ? "" : "s") + "\n";
        if (!m.dests.empty()) *text += formatColumns(rows, "  ");
    }
}

// ---- the subcommands ----------------------------------------------------------

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
        const LpId lp = lpIdOf(r.lp_uuid);
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

    // The node that holds the VLDB knows the LPs' names too.
    std::vector<RecordedMirror> mirrors = recordedMirrors(res->rec.rec_val, n);
    nlohmann::json mirrorList = nlohmann::json::array();
    if (!mirrors.empty()) {
        // vod, when it answers, tells what its recovery made of each.
        auto c = std::make_unique<VoClient>(ctx.opts.host, ctx.opts.timeoutSec);
        for (RecordedMirror& m : mirrors) recoveryOf(c->connected() ? c.get() : nullptr, &m);
        std::string why;
        const auto names = lpNames(vldbHost, ctx.opts.timeoutSec, &why);
        if (!why.empty()) ctx.out.note("some LPs are shown without their names: " + why);
        describeMirrors(mirrors, names, &mirrorList, &text);
    }
    ctx.out.result({{"vldbHost", vldbHost},
                    {"lastCreatedOpid", res->last_create_opid},
                    {"lastDeletedOpid", res->last_delete_opid},
                    {"ops", list},
                    {"mirrors", mirrorList}},
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
    "ops",
    "List the operations recorded in the VODB: opid, type, vfsid, LP, role; and each "
    "recorded mirror's destinations",
    [](CLI::App& sub) -> Action {
        auto host = std::make_shared<std::string>("localhost");
        sub.add_option("--vldb-host", *host, "node whose VLDB to read")->capture_default_str();
        sub.footer(
            "Under the records, each recorded mirror: its source and op src, and each\n"
            "destination (an op sink record) with its LP's name, the op sink's VFS id and whether\n"
            "it is the local mirror (on the source's LP, where the op src itself becomes the\n"
            "mirror). LP names come from the D-blades of the --vldb-host node. After a restart,\n"
            "vod (-H) says what its crash recovery made of each destination: rolled forward,\n"
            "rolled back, not settled yet (a step failed; it tries again), or not rebuilt yet.\n"
            "With --json: \"ops\" (one object per record) and \"mirrors\" (opid, vfsid, lp,\n"
            "lpName, opSrcVfsid, mirrorVfsid, destinations: lp, lpName, opSinkVfsid, local,\n"
            "recovery).");
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
