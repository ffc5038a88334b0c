// Volume move: voctl move starts one and follows it pass by pass to its end;
// move-progress, move-pause, move-resume and move-cancel act on a move that
// runs. vod finds a move by its source (VFS id, LP). voctl move --dry-run
// asks the cluster what vod would make of a move, without starting it.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "dblade_lpm.h"
#include "dldb_server.h"
#include "voctl/admin_common.h"
#include "voctl/command.h"
#include "voctl/lpid.h"
#include "voctl/move_plan.h"
#include "voctl/number.h"
#include "voctl/stream_follow.h"
#include "vorec.h"
#include "vorpccalls.h"
#include "vostate.h"

namespace voctl {
namespace {

// The VODB answers this for an empty table.
constexpr int kVodbEmpty = 135;

using MoveKey = SourceKey;

// Where the VLDB holds the volume now: what decides a move's outcome when
// vod's reports cannot (a move rebuilt after a restart, or one whose last
// report another client took).
CopyOutcome outcomeByLocation(const GlobalOptions& opts, const MoveKey& k, std::string* why) {
    std::string err;
    ServiceClient vldb = connectService(opts.host, VLDB_PROG, VLDB_VERS, opts.timeoutSec, &err);
    if (!vldb) {
        *why = "the VLDB cannot be asked where the volume is: " + err;
        return CopyOutcome::Unknown;
    }
    LpId lp{};
    unsigned type = 0;
    std::string vfs = "vfs " + std::to_string(k.vid);
    if (unsigned code = VoRpcCalls::findLpByVfsId(vldb.get(), k.vid, lp.data(), type)) {
        *why = "looking up " + vfs + " in the VLDB: " + decodedText(nullptr, code);
        return CopyOutcome::Unknown;
    }
    if (lp == k.dstLp) {
        *why = "the VLDB holds " + vfs + " on LP " + formatLpId(lp);
        return CopyOutcome::Copied;
    }
    *why = "the VLDB " + std::string(lp == k.srcLp ? "still " : "") + "holds " + vfs + " on LP " +
           formatLpId(lp);
    return lp == k.srcLp ? CopyOutcome::RolledBack : CopyOutcome::Unknown;
}

// A move as the follower sees it: one progress bar per pass.
class MoveOp : public StreamOp {
  public:
    MoveOp(const GlobalOptions& opts, const MoveKey& key) : _opts(opts), _key(key) {}

    const char* noun() const override { return "move"; }
    const char* doneWord() const override { return "moved"; }
    std::string keyText() const override { return _key.text(); }
    nlohmann::json keyJson() const override { return _key.json(); }
    std::string doneText() const override { return "moved " + keyText(); }
    bool poll(VoClient& c, StreamReport* r, std::string* why) const override {
        return pollStream(c, vomovepgrs_1, _key.wire(), xdr_VoMovePgrsOut, r, why);
    }
    // A pass's megabytes are what its sink received.
    Progress progressOf(const StreamReport& r) const override {
        Progress p = StreamOp::progressOf(r);
        p.megs = r.sink.megsProcessed;
        return p;
    }
    std::string barLabel(const StreamReport& r) const override { return passLabel(r); }
    CopyOutcome outcomeFromCluster(VoClient* /*c*/, std::string* why) const override {
        return outcomeByLocation(_opts, _key, why);
    }

  private:
    const GlobalOptions _opts;
    const MoveKey _key;
};

// ---- the dry run --------------------------------------------------------------

// Gathers what vod would look at before it accepts a move, asking the node's
// VLDB and DLDB and then the D-blades they name, and reports vod's verdict.
// Nothing is recorded and vod is not asked.
class MoveDryRun {
  public:
    MoveDryRun(Context& ctx, const MoveKey& key) : _ctx(ctx), _key(key) {
        _f.vfsid = key.vid;
        _f.srcLp = key.srcLp;
        _f.dstLp = key.dstLp;
    }

    int run() {
        std::string err;
        _vldb = connectService(_ctx.opts.host, VLDB_PROG, VLDB_VERS, _ctx.opts.timeoutSec, &err);
        if (!_vldb) return _ctx.out.failure(kExitUnreachable, "VLDB: " + err);
        if (int rc = findSource(); rc != kExitOk) return rc;
        if (int rc = findConflict(); rc != kExitOk) return rc;
        if (int rc = findDblades(); rc != kExitOk) return rc;
        // The space check reads the source's attributes: without a source, or
        // with nowhere else to go, vod refuses before it.
        if (_f.sourceFound && !_f.sameLp()) {
            if (int rc = readVolumeSize(); rc != kExitOk) return rc;
            if (int rc = readTargetSpace(); rc != kExitOk) return rc;
        }
        return report();
    }

  private:
    // The source as vod's first check sees it: the VLDB record of the VFS id
    // on the source LP.
    int findSource() {
        vldb_record_lookup_input in{};
        in.input_mask = VFS_ID | VFS_LP;
        in.r.vfsid = _key.vid;
        std::copy(_key.srcLp.begin(), _key.srcLp.end(), in.r.lp_uuid);
        XdrResult<vldb_record_lookup_result> res(xdr_vldb_record_lookup_result);
        unsigned code = VoRpcCalls::vldbFindVfs(_vldb.get(), in, *res);
        if (code == VO_RC_VFS_NOT_FOUND) return kExitOk;
        if (code != 0)
            return lookupFailed(_ctx, "VLDB look-up of vfs " + std::to_string(_key.vid), code);
        _f.sourceFound = res->r.r_len > 0;
        if (_f.sourceFound) _f.vfsType = res->r.r_val[0].vfstype;
        return kExitOk;
    }

    int findConflict() {
        XdrResult<vodb_lookup_result> res(xdr_vodb_lookup_result);
        if (vodb_lookup_3(nullptr, res.get(), _vldb.get()) != RPC_SUCCESS)
            return _ctx.out.failure(kExitUnreachable, "VODB: " + serviceError(_vldb.get()));
        if (res->result == kVodbEmpty) return kExitOk;
        if (res->result != 0)
            return codeFailure(_ctx, nullptr, "VODB lookup",
                               VO_ERR_VLDB_BASE + static_cast<unsigned>(res->result));
        const vodbRec* recs = res->rec.rec_val;
        const size_t n = res->rec.rec_len;
        size_t i = findMoveConflict(recs, n, _key.vid, _key.srcLp, _key.dstLp);
        if (i == n) return kExitOk;
        MoveConflict c;
        c.opid = recs[i].opid;
        c.opType = recs[i].optype;
        c.vfsid = recs[i].vfsid;
        c.lp = lpIdOf(recs[i].lp_uuid);
        c.role = recs[i].vfsrole;
        c.busyCode = VoState::getErrorCodeForOpType(c.opType);
        _f.conflict = c;
        return kExitOk;
    }

    // Which D-blade serves each LP, and the target D-blade's host.
    int findDblades() {
        if (unsigned code =
                VoRpcCalls::findDbladeByLpId(_vldb.get(), _key.srcLp.data(), _f.srcDblade))
            return lookupFailed(_ctx, "D-blade of LP " + formatLpId(_key.srcLp), code);
        if (unsigned code =
                VoRpcCalls::findDbladeByLpId(_vldb.get(), _key.dstLp.data(), _f.dstDblade))
            return lookupFailed(_ctx, "D-blade of LP " + formatLpId(_key.dstLp), code);

        std::string err;
        ServiceClient dldb =
            connectService(_ctx.opts.host, DLDB_PROG, DLDB_VERS, _ctx.opts.timeoutSec, &err);
        if (!dldb) return _ctx.out.failure(kExitUnreachable, "DLDB: " + err);
        XdrResult<DldbIterateRes> res(xdr_DldbIterateRes);
        if (iterate_1(nullptr, res.get(), dldb.get()) != RPC_SUCCESS)
            return _ctx.out.failure(kExitUnreachable, "DLDB: " + serviceError(dldb.get()));
        for (u_int i = 0; i < res->rec.rec_len; ++i) {
            const DldbRec& r = res->rec.rec_val[i];
            if (r.did == _f.srcDblade && r.host.name != nullptr) _srcHost = r.host.name;
            if (r.did == _f.dstDblade && r.host.name != nullptr) _f.dstHost = r.host.name;
        }
        if (res->status != DLDB_STATUS_OK || _srcHost.empty() || _f.dstHost.empty())
            return codeFailure(
                _ctx, nullptr,
                "DLDB host of D-blades " + std::to_string(_f.srcDblade) + " and " +
                    std::to_string(_f.dstDblade),
                voCompositeCode(VoProcDldbGetHostByDid, VOD_ERR_BASE + VOD_ERR_NO_HOST));
        return kExitOk;
    }

    int readVolumeSize() {
        std::string where = "attributes of vfs " + std::to_string(_key.vid) + " on D-blade " +
                            std::to_string(_f.srcDblade) + " (" + _srcHost + ")";
        std::string err;
        ServiceClient vol =
            connectService(_srcHost, DBLADE_VOL_PROG, DBLADE_VOL_VERS, _ctx.opts.timeoutSec, &err);
        if (!vol) return _ctx.out.failure(kExitUnreachable, where + ": " + err);
        XdrResult<VolGetattrOut_t> attrs(xdr_VolGetattrOut_t);
        unsigned code = VoRpcCalls::dbladeGetAttrs(vol.get(), _key.vid, _key.srcLp.data(), *attrs);
        if (code >= 30300 && code < 30400) return lookupFailed(_ctx, where, code);
        if (code != 0) return codeFailure(_ctx, nullptr, where, code);
        _f.minQuota = attrs->return_volattrs.minQuota;
        _f.blocksUsed = attrs->return_volattrs.blocksUsed;
        return kExitOk;
    }

    // vod asks the target D-blade's LP management, as here.
    int readTargetSpace() {
        std::string where = "LP " + formatLpId(_key.dstLp) + " on D-blade " +
                            std::to_string(_f.dstDblade) + " (" + _f.dstHost + ")";
        std::string err;
        ServiceClient lpm = connectService(_f.dstHost, DBLADE_LPM_PROG, DBLADE_LPM_VERS,
                                           _ctx.opts.timeoutSec, &err);
        if (!lpm) return _ctx.out.failure(kExitUnreachable, where + ": " + err);
        XdrResult<LPGetAttrsOut> res(xdr_LPGetAttrsOut);
        u_char uuid[16];
        std::copy(_key.dstLp.begin(), _key.dstLp.end(), uuid);
        if (lp_get_attrs_by_uuid_1(uuid, res.get(), lpm.get()) != RPC_SUCCESS)
            return _ctx.out.failure(kExitUnreachable, where + ": " + serviceError(lpm.get()));
        if (res->status != 0)
            return _ctx.out.failure(kExitVodFailure, where + ": LP management answered status " +
                                                         std::to_string(res->status));
        _f.unreservedFree = res->attr.unreservedSpaceAvailableInBlocks;
        _f.blockSize = res->attr.blockSize;
        return kExitOk;
    }

    std::string serviceError(CLIENT* c) const { return clnt_sperror(c, _ctx.opts.host.c_str()); }

    std::string blocksText(uint64_t blocks) const {
        char buf[96];
        if (_f.blockSize != 0)
            std::snprintf(buf, sizeof buf, "%" PRIu64 " blocks (%.1f MB)", blocks,
                          double(blocks) * _f.blockSize / (1024 * 1024));
        else
            std::snprintf(buf, sizeof buf, "%" PRIu64 " blocks", blocks);
        return buf;
    }

    int report() {
        const VoOut verdict = moveVerdict(_f);
        const bool accepted = verdict.rc == voErrRcSuccess;
        std::string verdictText =
            accepted ? "vod would accept the move"
                     : "vod would refuse the move: " +
                           tripleText(nullptr, verdict.rc, verdict.func, verdict.funcrc);

        nlohmann::json obj = voOutJson(verdict);
        obj["event"] = "dry-run";
        obj["move"] = _key.json();
        obj["accepted"] = accepted;
        obj["sourceFound"] = _f.sourceFound;
        obj["sameLp"] = _f.sameLp();
        obj["target"] = {{"dblade", _f.dstDblade}, {"host", _f.dstHost}};
        obj["srcDblade"] = _f.srcDblade;
        obj["local"] = _f.local();
        obj["conflict"] = nullptr;
        obj["message"] = verdictText;

        std::vector<std::pair<std::string, std::string>> rows;
        rows.push_back({"target D-blade", std::to_string(_f.dstDblade) + " (" + _f.dstHost + ")"});
        rows.push_back({"local move", _f.local()
                                          ? "yes, the same D-blade serves both LPs"
                                          : "no, from D-blade " + std::to_string(_f.srcDblade)});
        if (!_f.sourceFound) {
            rows.push_back({"source", "no VLDB record of the volume on the source LP"});
        } else {
            obj["vfsType"] = _f.vfsType;
            obj["regularPasses"] = _f.readWrite();
            rows.push_back({"passes", _f.readWrite()
                                          ? "read-write source: regular passes from clones, "
                                            "then a final pass"
                                          : "read-only source: one final pass"});
        }
        if (_f.spaceKnown()) {
            uint64_t need = _f.needed(), free = *_f.unreservedFree;
            obj["space"] = {
                {"minQuota", *_f.minQuota}, {"blocksUsed", *_f.blocksUsed},
                {"neededBlocks", need},     {"blockSize", _f.blockSize},
                {"freeBlocksBefore", free}, {"freeBlocksAfter", _f.fits() ? free - need : 0},
                {"fits", _f.fits()}};
            char buf[96];
            std::snprintf(buf, sizeof buf,
                          ": the larger of minQuota %" PRIu64 " and blocksUsed %" PRIu64,
                          *_f.minQuota, *_f.blocksUsed);
            rows.push_back({"volume size", blocksText(need) + buf});
            rows.push_back({"free before", blocksText(free) + " unreserved on the target LP"});
            if (_f.fits()) {
                rows.push_back({"free after", blocksText(free - need)});
                rows.push_back({"fits", "yes"});
            } else {
                rows.push_back({"fits", "no: " + blocksText(need - free) + " short"});
            }
        }
        if (_f.conflict) {
            const MoveConflict& c = *_f.conflict;
            obj["conflict"] = {{"opid", c.opid},
                               {"type", c.opType},
                               {"typeName", VoRec::opType2str(static_cast<unsigned>(c.opType))},
                               {"vfsid", c.vfsid},
                               {"lp", formatLpId(c.lp)},
                               {"role", c.role},
                               {"roleName", VoRec::role2str(static_cast<unsigned>(c.role))},
                               {"busyCode", c.busyCode}};
            char buf[256];
            std::snprintf(buf, sizeof buf, "opid %" PRIu64 " (%s) holds vfs %u on LP %s as %s",
                          c.opid, VoRec::opType2str(static_cast<unsigned>(c.opType)), c.vfsid,
                          formatLpId(c.lp).c_str(), VoRec::role2str(static_cast<unsigned>(c.role)));
            rows.push_back({"conflict", buf});
        } else {
            rows.push_back({"conflict", "none recorded in the VODB"});
        }
        rows.push_back({"verdict", accepted ? "accepted" : "refused"});

        _ctx.out.result(obj, "dry run of the move of " + _key.text() + ": " + verdictText + "\n" +
                                 formatTable(rows, "  "));
        return accepted ? kExitOk : kExitVodFailure;
    }

    Context& _ctx;
    const MoveKey _key;
    MoveFacts _f;
    ServiceClient _vldb;
    std::string _srcHost;
};

// ---- the subcommands ------------------------------------------------------------

struct MoveArgs {
    std::string vid, srcLp, dstLp;
    bool dryRun = false;
    bool noWait = false;
    double intervalSec = 1;
};

int resolveMoveKey(Context& ctx, const std::string& vid, const std::string& srcLp,
                   const std::string* dstLp, MoveKey* key) {
    key->vid = *parseU32(vid);  // checked at parse time
    if (int rc = resolveLp(ctx, srcLp, &key->srcLp); rc != kExitOk) return rc;
    return dstLp != nullptr ? resolveLp(ctx, *dstLp, &key->dstLp) : kExitOk;
}

int moveStart(Context& ctx, const MoveArgs& a) {
    MoveKey key;
    if (int rc = resolveMoveKey(ctx, a.vid, a.srcLp, &a.dstLp, &key); rc != kExitOk) return rc;
    if (a.dryRun) return MoveDryRun(ctx, key).run();

    auto c = ctx.connect();
    if (!c) return kExitUnreachable;
    VoLidIn in{};
    in.vidSrc = key.vid;
    std::copy(key.srcLp.begin(), key.srcLp.end(), in.lidSrc);
    std::copy(key.dstLp.begin(), key.dstLp.end(), in.lidSink);
    XdrResult<VoOut> res(xdr_VoOut);
    if (c->call(vomove_1, &in, res.get()) != RPC_SUCCESS) return ctx.callFailed(*c);
    if (res->rc != voErrRcSuccess)
        return reportRefusal(ctx, c.get(), "move of " + key.text() + " refused", *res);

    nlohmann::json started = {{"event", "started"}, {"move", key.json()}};
    std::string startedText = "moving " + key.text();
    if (a.noWait) {
        ctx.out.result(started, startedText + "\nfollow it with: voctl move-progress " +
                                    std::to_string(key.vid) + " " + formatLpId(key.srcLp));
        return kExitOk;
    }
    ctx.out.result(started, startedText);
    return followStream(ctx, std::move(c), MoveOp(ctx.opts, key), a.intervalSec);
}

struct KeyArgs {
    std::string vid, srcLp;
};

int moveProgress(Context& ctx, const KeyArgs& a) {
    MoveKey key;
    if (int rc = resolveMoveKey(ctx, a.vid, a.srcLp, nullptr, &key); rc != kExitOk) return rc;
    return showStreamState(ctx, MoveOp(ctx.opts, key));
}

using MoveStub = clnt_stat (*)(VoIn*, VoOut*, CLIENT*);

// move-pause, move-resume and move-cancel differ only in the call and the words.
int moveControl(Context& ctx, const ControlWords& words, MoveStub stub, const KeyArgs& a) {
    MoveKey key;
    if (int rc = resolveMoveKey(ctx, a.vid, a.srcLp, nullptr, &key); rc != kExitOk) return rc;
    auto c = ctx.connect();
    if (!c) return kExitUnreachable;
    VoIn in = key.wire();
    XdrResult<VoOut> out(xdr_VoOut);
    if (c->call(stub, &in, out.get()) != RPC_SUCCESS) return ctx.callFailed(*c);
    return reportControl(ctx, c.get(), words, "move", key.text(), key.json(), *out);
}

void addKeyArgs(CLI::App& sub, KeyArgs& a) {
    sub.add_option("VFS", a.vid, "VFS id of the volume being moved")->required()->check(u32Check());
    sub.add_option("SRC-LP", a.srcLp, "the LP it is moved from: name or 32 hex digits")->required();
}

// The pause, resume and cancel subcommands.
Setup controlSetup(ControlWords words, MoveStub stub) {
    return [words, stub](CLI::App& sub) -> Action {
        auto a = std::make_shared<KeyArgs>();
        addKeyArgs(sub, *a);
        return [a, words, stub](Context& ctx) { return moveControl(ctx, words, stub, *a); };
    };
}

const CommandRegistrar moveReg(
    "move", "Move a volume to another LP, keeping its VFS id, and follow the move to its end",
    [](CLI::App& sub) -> Action {
        auto a = std::make_shared<MoveArgs>();
        sub.add_option("VFS", a->vid, "VFS id of the volume to move")
            ->required()
            ->check(u32Check());
        sub.add_option("SRC-LP", a->srcLp, "its LP: name or 32 hex digits")->required();
        sub.add_option("DST-LP", a->dstLp, "the LP to move it to: name or 32 hex digits")
            ->required();
        sub.add_flag("--dry-run", a->dryRun,
                     "check the move as vod would (conflicts, space) and say what it would do; "
                     "start nothing");
        addFollowOptions(sub, "start the move and return", &a->noWait, &a->intervalSec);
        sub.footer(
            "A read-write volume stays on line: it is moved in regular passes, each from a\n"
            "fresh clone, until few enough changes are left for the final pass, which stops\n"
            "the source briefly. A read-only volume is moved in one final pass. One progress\n"
            "bar per pass shows megabytes, vnodes, rate and time left.\n"
            "Interrupting voctl does not stop the move: use move-cancel.\n"
            "With --json: one object per line, event \"started\", \"progress\" per poll (with\n"
            "pass and finalPass) and \"final\" with the outcome (moved, rolled-back, unknown);\n"
            "with --dry-run one object, event \"dry-run\".\n"
            "Exit status 0 only when the move completed (with --dry-run: when vod would\n"
            "accept it).");
        return [a](Context& ctx) { return moveStart(ctx, *a); };
    });

const CommandRegistrar progressReg(
    "move-progress", "Show the state of a move once", [](CLI::App& sub) -> Action {
        auto a = std::make_shared<KeyArgs>();
        addKeyArgs(sub, *a);
        sub.footer(
            "Exit status 1 when vod knows no such move or its last report shows that it\n"
            "failed.");
        return [a](Context& ctx) { return moveProgress(ctx, *a); };
    });

const CommandRegistrar pauseReg("move-pause", "Pause a move's stream",
                                controlSetup({"pause", "paused"}, vomovepause_1));
const CommandRegistrar resumeReg("move-resume", "Resume a paused move",
                                 controlSetup({"resume", "resumed"}, vomoveresume_1));
const CommandRegistrar cancelReg("move-cancel",
                                 "Cancel a move: its stream stops and vod removes what it made",
                                 controlSetup({"cancel", "cancelled"}, vomovecancel_1));

}  // namespace
}  // namespace voctl
