// Read-only mirrors: voctl mirror registers the destination LPs that hold no
// mirror yet, starts the mirror and follows it to its end with one progress
// bar per destination; mirror-progress, mirror-pause, mirror-resume and
// mirror-cancel act on a mirror that runs; mirrors lists a volume's mirrors;
// mirror-join and mirror-leave add an empty member to a mirror group or take
// one out of it.
//
// vod finds a mirror by its source (VFS id, LP), and is told nothing about
// destinations: it mirrors to every LP on which the VLDB holds a record of
// the mirror id. A destination therefore joins the mirror group first: vod
// registers it read-only at data version 0 (nothing mirrored yet), with the
// source's family and virtual server; voctl mirror names it "SOURCE@LP".
// Asking vod rather than writing the record here lets vod refuse an LP that
// another operation is using. When vod refuses the mirror, voctl mirror takes
// the members it registered out of the group again, so that a refused mirror
// leaves the VLDB as it was.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "dblade_vol.h"
#include "vldb_server.h"
#include "voctl/admin_common.h"
#include "voctl/client.h"
#include "voctl/command.h"
#include "voctl/lpid.h"
#include "voctl/mirror_report.h"
#include "voctl/number.h"
#include "voctl/stream_follow.h"
#include "vorpccalls.h"

namespace voctl {
namespace {

// dstLp: mirror-cancel's destination.
using MirrorKey = SourceKey;

nlohmann::json mirrorKeyJson(const MirrorKey& k) {
    nlohmann::json j = k.json();
    j["mirrorVfsid"] = mirrorIdOf(k.vid);
    return j;
}

// LPs by the names the command line gave them; the others by their ids.
class LpNames {
  public:
    void add(const LpId& lp, const std::string& text) {
        if (!parseLpId(text)) _names[lp] = text;
    }
    std::string label(const LpId& lp) const {
        auto it = _names.find(lp);
        return it != _names.end() ? it->second : formatLpId(lp);
    }

  private:
    std::map<LpId, std::string> _names;
};

// ---- the VLDB's view of a volume and its mirrors ------------------------------

// One VLDB record, copied out of the reply.
struct VolumeRecord {
    uint32_t vfsid = 0;
    LpId lp{};
    std::string name, family;
    unsigned vserver = 0, vfstype = 0, appId = 0;
    uint64_t dataVer = 0;
    unsigned short exportRuleset = 0;
};

// The records matching (vfsid, lp) into *out, none when there are none; lp
// null matches every LP. 0 or the composite code of the failed look-up.
unsigned lookupRecords(CLIENT* vldb, uint32_t vfsid, const LpId* lp,
                       std::vector<VolumeRecord>* out) {
    out->clear();
    vldb_record_lookup_input in{};
    in.input_mask = VFS_ID;
    in.r.vfsid = vfsid;
    if (lp != nullptr) {
        in.input_mask |= VFS_LP;
        std::copy(lp->begin(), lp->end(), in.r.lp_uuid);
    }
    XdrResult<vldb_record_lookup_result> res(xdr_vldb_record_lookup_result);
    unsigned code = VoRpcCalls::vldbFindVfs(vldb, in, *res);
    if (code == VO_RC_VFS_NOT_FOUND) return 0;
    if (code != 0) return code;
    for (u_int i = 0; i < res->r.r_len; ++i) {
        const Rec& r = res->r.r_val[i];
        VolumeRecord v;
        v.vfsid = r.vfsid;
        v.lp = lpIdOf(r.lp_uuid);
        v.name = r.vfsname != nullptr ? r.vfsname : "";
        v.family = r.family != nullptr ? r.family : "";
        v.vserver = r.vserver;
        v.vfstype = r.vfstype;
        v.appId = r.appId;
        v.dataVer = r.dataVer;
        v.exportRuleset = r.exportRuleset;
        out->push_back(std::move(v));
    }
    return 0;
}

// The VLDB client of the node, reported when it cannot be made.
ServiceClient connectVldb(const GlobalOptions& opts, std::string* err) {
    std::string why;
    ServiceClient c = connectService(opts.host, VLDB_PROG, VLDB_VERS, opts.timeoutSec, &why);
    if (!c) *err = "VLDB: " + why;
    return c;
}

// ---- mirror groups: vod's join and leave -------------------------------------------

// vomirrorjoingroup: an empty member of key.vid's mirror group on key.dstLp,
// named name. False when vod could not be asked.
bool callJoin(VoClient& c, const MirrorKey& key, const std::string& name, VoVidOut* out) {
    VoLidVnameIn in{};
    in.vidSrc = key.vid;
    std::copy(key.srcLp.begin(), key.srcLp.end(), in.lidSrc);
    std::copy(key.dstLp.begin(), key.dstLp.end(), in.lidSink);
    in.vnameSink = const_cast<char*>(name.c_str());
    *out = VoVidOut{};
    return c.call(vomirrorjoingroup_1, &in, out) == RPC_SUCCESS;
}

// vomirrorleavegroup: the member (mirrorVid, lp) leaves as a volume of its
// own named name; a member never filled only loses its record (out->vid 0).
bool callLeave(VoClient& c, uint32_t mirrorVid, const LpId& lp, const std::string& name,
               VoVidOut* out) {
    VoVnameIn in{};
    in.vid = mirrorVid;
    std::copy(lp.begin(), lp.end(), in.lid);
    in.vname = const_cast<char*>(name.c_str());
    *out = VoVidOut{};
    return c.call(vomirrorleavegroup_1, &in, out) == RPC_SUCCESS;
}

VoOut voOutOf(const VoVidOut& o) { return {o.rc, o.func, o.funcrc}; }

// What a refused join means, in words; "" when the triple says it all.
std::string joinRefusalWhy(const VoVidOut& o, const MirrorKey& key, const LpNames& names) {
    if (o.rc == voErrSinkVFSExist)
        return "LP " + names.label(key.dstLp) + " holds a member of the group already";
    if (o.rc == voErrSrcVFSNotExist)
        return "the VLDB does not hold vfs " + std::to_string(key.vid) + " on LP " +
               names.label(key.srcLp) + " as one volume";
    if (o.rc == voErrValidate && o.func == voErrVodValidate)
        return "a recorded operation uses the mirror id (voctl ops shows it)";
    return "";
}

std::string leaveRefusalWhy(const VoVidOut& o, const std::string& lpLabel,
                            const std::string& name) {
    if (o.rc == voErrSinkVFSNotExist) return "LP " + lpLabel + " holds no member of the group";
    if (o.rc == voErrSinkVFSExist) return "a volume named '" + name + "' exists already";
    if (o.rc == voErrValidate && o.func == voErrVodValidate)
        return "a recorded operation uses the member (voctl ops shows it)";
    return "";
}

// The name a member registered by voctl mirror is given when it is taken out
// again: any name no volume has, as vod renames a member that leaves.
std::string unjoinedName(const std::string& srcName, const std::string& lpLabel) {
    return mirrorRecordName(srcName, lpLabel + ".unjoined");
}

// ---- registering destinations ----------------------------------------------------

// A destination as vod will see it: an LP with a record of the mirror id.
struct Member {
    LpId lp{};
    uint64_t dataVer = 0;
    bool named = false;       // given on the command line
    bool createdNow = false;  // registered by this command
};

class Registration {
  public:
    Registration(Context& ctx, VoClient& vod, CLIENT* vldb, const MirrorKey& key,
                 const LpNames& names)
        : _ctx(ctx), _vod(vod), _vldb(vldb), _key(key), _names(names) {}

    // Reads the source and the registered mirrors, and has vod register each
    // of named that has none. On failure nothing stays registered.
    int run(const std::vector<LpId>& named) {
        std::vector<VolumeRecord> recs;
        const std::string src = "vfs " + std::to_string(_key.vid);
        if (unsigned code = lookupRecords(_vldb, _key.vid, &_key.srcLp, &recs))
            return lookupFailed(_ctx, "VLDB look-up of " + src, code);
        if (recs.empty())
            return _ctx.out.failure(
                kExitVodFailure, "the VLDB holds no " + src + " on LP " + formatLpId(_key.srcLp));
        _src = recs[0];
        if (unsigned code = lookupRecords(_vldb, mirrorIdOf(_key.vid), nullptr, &recs))
            return lookupFailed(_ctx, "VLDB look-up of the mirrors of " + src, code);

        for (const LpId& lp : named) {
            auto it = std::find_if(recs.begin(), recs.end(),
                                   [&](const VolumeRecord& r) { return r.lp == lp; });
            Member m;
            m.lp = lp;
            m.named = true;
            if (it != recs.end()) {
                m.dataVer = it->dataVer;
            } else if (int rc = add(lp); rc != kExitOk) {
                std::string left = rollBack();
                if (!left.empty())
                    _ctx.out.note("could not take the members registered now out again: " + left);
                return rc;
            } else {
                m.createdNow = true;
            }
            _members.push_back(m);
        }
        for (const VolumeRecord& r : recs)
            if (std::find(named.begin(), named.end(), r.lp) == named.end())
                _members.push_back({r.lp, r.dataVer, false, false});
        return kExitOk;
    }

    // Takes the members this command registered out of the group again.
    // Returns the LPs it could not clean up, in words ("" when none).
    std::string rollBack() {
        std::string left;
        for (Member& m : _members) {
            if (!m.createdNow) continue;
            const std::string label = _names.label(m.lp);
            const std::string name = unjoinedName(_src.name, label);
            VoVidOut out{};
            std::string why;
            if (!callLeave(_vod, mirrorIdOf(_key.vid), m.lp, name, &out))
                why = trimTrailing(_vod.callError());
            else if (out.rc != voErrRcSuccess)
                why = tripleText(&_vod, out.rc, out.func, out.funcrc);
            else if (out.vid != 0)
                // A volume held the mirror id there after all: it left as one of its own.
                why = "a volume held the mirror id; it is now vfs " + std::to_string(out.vid) +
                      " '" + name + "'";
            if (why.empty())
                m.createdNow = false;
            else
                left += (left.empty() ? "" : ", ") + label + " (" + why + ")";
        }
        return left;
    }

    size_t createdCount() const {
        return static_cast<size_t>(std::count_if(_members.begin(), _members.end(),
                                                 [](const Member& m) { return m.createdNow; }));
    }
    const std::vector<Member>& members() const { return _members; }
    const VolumeRecord& source() const { return _src; }

    // The members as a report line group and as JSON.
    void report() const {
        nlohmann::json obj = {{"event", "registered"}, {"mirror", mirrorKeyJson(_key)}};
        nlohmann::json dests = nlohmann::json::array();
        std::vector<std::vector<std::string>> rows;
        for (const Member& m : _members) {
            const char* how = m.createdNow ? "new" : m.named ? "existing" : "unnamed";
            dests.push_back({{"lp", formatLpId(m.lp)},
                             {"label", _names.label(m.lp)},
                             {"registered", how},
                             {"dataVer", m.dataVer}});
            std::string words =
                m.createdNow ? "registered now: read-only, data version 0"
                : m.named    ? "registered already, data version " + std::to_string(m.dataVer)
                             : "registered earlier, not named here: mirrored too, data version " +
                                std::to_string(m.dataVer);
            rows.push_back({_names.label(m.lp), words});
        }
        obj["sourceDataVer"] = _src.dataVer;
        obj["destinations"] = dests;
        char head[160];
        std::snprintf(head, sizeof head, "mirror id %u of vfs %u '%s' (data version %" PRIu64 "):",
                      mirrorIdOf(_key.vid), _key.vid, _src.name.c_str(), _src.dataVer);
        _ctx.out.result(obj, std::string(head) + "\n" + formatColumns(rows, "  "));
    }

  private:
    // Has vod register the mirror on lp, as an empty member of the group.
    int add(const LpId& lp) {
        MirrorKey k = _key;
        k.dstLp = lp;
        const std::string what = "registering the mirror on LP " + _names.label(lp);
        VoVidOut out{};
        if (!callJoin(_vod, k, mirrorRecordName(_src.name, _names.label(lp)), &out))
            return _ctx.callFailed(_vod);
        if (out.rc == voErrRcSuccess) return kExitOk;
        return reportRefusal(_ctx, &_vod, what + " refused", voOutOf(out),
                             joinRefusalWhy(out, k, _names));
    }

    Context& _ctx;
    VoClient& _vod;
    CLIENT* _vldb;
    const MirrorKey _key;
    const LpNames& _names;
    VolumeRecord _src;
    std::vector<Member> _members;  // named ones in command-line order, then the rest
};

// ---- following a mirror ----------------------------------------------------------

// Whether every mirror the VLDB lists is at the source's data version: what
// decides a mirror's outcome when vod's reports cannot.
CopyOutcome outcomeByDataVersions(const GlobalOptions& opts, const MirrorKey& k,
                                  const LpNames& names, std::string* why) {
    ServiceClient vldb = connectVldb(opts, why);
    if (!vldb) return CopyOutcome::Unknown;
    std::vector<VolumeRecord> src, mirrors;
    unsigned code = lookupRecords(vldb.get(), k.vid, &k.srcLp, &src);
    if (code == 0) code = lookupRecords(vldb.get(), mirrorIdOf(k.vid), nullptr, &mirrors);
    if (code != 0) {
        *why = "looking up the mirrors in the VLDB: " + decodedText(nullptr, code);
        return CopyOutcome::Unknown;
    }
    if (src.empty() || mirrors.empty()) {
        *why = "the VLDB no longer holds the source or its mirrors";
        return CopyOutcome::Unknown;
    }
    std::string behind;
    for (const VolumeRecord& m : mirrors)
        if (m.dataVer != src[0].dataVer)
            behind += (behind.empty() ? "" : ", ") + names.label(m.lp) + " " +
                      lagText(src[0].dataVer, m.dataVer);
    if (behind.empty()) {
        *why = "every mirror is at the source's data version " + std::to_string(src[0].dataVer);
        return CopyOutcome::Copied;
    }
    *why = "not every mirror is at the source's data version: " + behind;
    return CopyOutcome::Unknown;
}

// A mirror as the follower sees it: one bar per destination.
class MirrorOp : public StreamOp {
  public:
    MirrorOp(const GlobalOptions& opts, const MirrorKey& key, LpNames names)
        : _opts(opts), _key(key), _names(std::move(names)) {}

    const char* noun() const override { return "mirror"; }
    const char* doneWord() const override { return "mirrored"; }
    std::string keyText() const override { return _key.text(); }
    nlohmann::json keyJson() const override { return mirrorKeyJson(_key); }
    std::string doneText() const override { return "mirrored " + keyText(); }
    bool poll(VoClient& c, StreamReport* r, std::string* why) const override {
        return pollStream(c, vomirrorpgrs_1, _key.wire(), xdr_VoMirrorPgrsOut, r, why);
    }

    // All destinations share the source's one stream, so its vnode counts
    // stand for each destination that is being streamed to.
    std::vector<BarReading> readings(const StreamReport& r) const override {
        std::vector<BarReading> out;
        for (const VoSinkPgrs& s : r.sinks) {
            const DestState st = classifyDest(r, s);
            BarReading b;
            b.label = _names.label(lpIdOf(s.uuid));
            b.progress.megs = s.megsProcessed;
            if (st == DestState::Streaming || st == DestState::Paused || st == DestState::Done) {
                b.progress.vnodesTotal = r.src.vnodesTotal;
                b.progress.vnodesDone =
                    st == DestState::Done ? r.src.vnodesTotal : r.src.vnodesProcessed;
            }
            b.status = destStateName(st);
            out.push_back(b);
        }
        return out;
    }

    CopyOutcome outcomeOf(const StreamReport& r) const override {
        if (r.sinks.empty())
            return r.rc == voErrRcSuccess ? CopyOutcome::Unknown : CopyOutcome::RolledBack;
        for (const VoSinkPgrs& s : r.sinks)
            if (!endedWell(classifyDest(r, s))) return CopyOutcome::RolledBack;
        return CopyOutcome::Copied;
    }

    std::string failureDetail(VoClient* c, const StreamReport& r) const override {
        size_t bad = 0;
        for (const VoSinkPgrs& s : r.sinks)
            if (!endedWell(classifyDest(r, s))) ++bad;
        std::string s = std::to_string(bad) + " of " + std::to_string(r.sinks.size()) +
                        " destinations did not end up current";
        if (r.rc != voErrRcSuccess) s += "; " + tripleText(c, r.rc, r.func, r.funcrc);
        return s;
    }
    const char* failedWords() const override { return "did not reach every destination"; }
    const char* outcomeName(CopyOutcome o) const override {
        return o == CopyOutcome::RolledBack ? "failed" : StreamOp::outcomeName(o);
    }

    std::string sinksTable(VoClient* c, const StreamReport& r) const override {
        if (r.sinks.empty()) return "";
        return formatDestTable(outcomes(c, r), "  ");
    }
    CopyOutcome outcomeFromCluster(VoClient* /*c*/, std::string* why) const override {
        return outcomeByDataVersions(_opts, _key, _names, why);
    }
    void addFinalJson(nlohmann::json& obj, VoClient* c, const StreamReport* end) const override {
        if (end == nullptr) return;
        nlohmann::json dests = nlohmann::json::array();
        for (const DestOutcome& d : outcomes(c, *end)) dests.push_back(destJson(d));
        obj["destinations"] = dests;
    }

  private:
    std::vector<DestOutcome> outcomes(VoClient* c, const StreamReport& r) const {
        const std::string opError =
            r.rc != voErrRcSuccess ? tripleText(c, r.rc, r.func, r.funcrc) : "";
        return destOutcomes(
            r, [this](const LpId& lp) { return _names.label(lp); },
            [c](unsigned code) { return decodedText(c, code); }, opError);
    }

    const GlobalOptions _opts;
    const MirrorKey _key;
    const LpNames _names;
};

// ---- the subcommands ----------------------------------------------------------------

struct MirrorArgs {
    std::string vid, srcLp;
    std::vector<std::string> dstLps;
    bool registerOnly = false;
    bool noWait = false;
    double intervalSec = 1;
};

int resolveSource(Context& ctx, const std::string& vid, const std::string& srcLp, MirrorKey* key,
                  LpNames* names) {
    key->vid = *parseU32(vid);  // checked at parse time
    if (int rc = resolveLp(ctx, srcLp, &key->srcLp); rc != kExitOk) return rc;
    names->add(key->srcLp, srcLp);
    return kExitOk;
}

// All the destinations were already at the source's data version: vod
// refuses the mirror for that, and there is nothing left to do.
int reportUpToDate(Context& ctx, const MirrorKey& key, const Registration& reg,
                   const LpNames& names) {
    nlohmann::json dests = nlohmann::json::array();
    std::vector<DestOutcome> table;
    for (const Member& m : reg.members()) {
        DestOutcome d;
        d.lp = m.lp;
        d.label = names.label(m.lp);
        d.state = DestState::UpToDate;
        d.code = kDestUpToDate;
        d.why = "already at the source's data version";
        dests.push_back(destJson(d));
        table.push_back(d);
    }
    nlohmann::json obj = {{"event", "final"},
                          {"phase", "final"},
                          {"outcome", "up-to-date"},
                          {"mirror", mirrorKeyJson(key)},
                          {"destinations", dests}};
    ctx.out.result(obj, "every mirror of " + key.text() +
                            " is at the source's data version already\n" +
                            formatDestTable(table, "  "));
    return kExitOk;
}

int mirrorStart(Context& ctx, const MirrorArgs& a) {
    MirrorKey key;
    LpNames names;
    if (int rc = resolveSource(ctx, a.vid, a.srcLp, &key, &names); rc != kExitOk) return rc;
    std::vector<LpId> named;
    for (const std::string& text : a.dstLps) {
        LpId lp{};
        if (int rc = resolveLp(ctx, text, &lp); rc != kExitOk) return rc;
        if (std::find(named.begin(), named.end(), lp) != named.end())
            return ctx.out.failure(kExitUsage, "LP " + text + " is named twice");
        names.add(lp, text);
        named.push_back(lp);
    }

    // vod registers the destinations, --register-only or not.
    std::unique_ptr<VoClient> c = ctx.connect();
    if (!c) return kExitUnreachable;
    std::string err;
    ServiceClient vldb = connectVldb(ctx.opts, &err);
    if (!vldb) return ctx.out.failure(kExitUnreachable, err);
    Registration reg(ctx, *c, vldb.get(), key, names);
    if (int rc = reg.run(named); rc != kExitOk) return rc;
    reg.report();
    if (a.registerOnly) return kExitOk;

    VoIn in = key.wire();
    XdrResult<VoOut> res(xdr_VoOut);
    if (c->call(vomirror_1, &in, res.get()) != RPC_SUCCESS) {
        int rc = ctx.callFailed(*c);
        // vod may have started the mirror, so its destinations stay.
        if (reg.createdCount() > 0)
            ctx.out.note("the mirror records registered for it stay: vod may have started it");
        return rc;
    }
    // 5005, a mirror on the source's own LP only, counts as started.
    const bool started = res->rc == voErrRcSuccess || res->funcrc == kDestLocal;
    if (!started && res->rc == voErrValidate && res->func == voErrVodValidate &&
        res->funcrc == kDestUpToDate)
        return reportUpToDate(ctx, key, reg, names);
    if (!started) {
        const size_t made = reg.createdCount();
        int rc = reportRefusal(ctx, c.get(), "mirror of " + key.text() + " refused", *res);
        if (made > 0) {
            std::string left = reg.rollBack();
            ctx.out.note(left.empty()
                             ? "the destinations registered for it left the mirror group again"
                             : "could not take the destinations registered for it out again: " +
                                   left);
        }
        return rc;
    }

    nlohmann::json startedObj = {{"event", "started"}, {"mirror", mirrorKeyJson(key)}};
    std::string startedText = "mirroring " + key.text() + " to " +
                              std::to_string(reg.members().size()) + " LP" +
                              (reg.members().size() == 1 ? "" : "s");
    if (a.noWait) {
        ctx.out.result(startedObj, startedText + "\nfollow it with: voctl mirror-progress " +
                                       std::to_string(key.vid) + " " + formatLpId(key.srcLp));
        return kExitOk;
    }
    ctx.out.result(startedObj, startedText);
    return followStream(ctx, std::move(c), MirrorOp(ctx.opts, key, names), a.intervalSec);
}

struct KeyArgs {
    std::string vid, srcLp, dstLp;
};

int mirrorProgress(Context& ctx, const KeyArgs& a) {
    MirrorKey key;
    LpNames names;
    if (int rc = resolveSource(ctx, a.vid, a.srcLp, &key, &names); rc != kExitOk) return rc;
    return showStreamState(ctx, MirrorOp(ctx.opts, key, names));
}

// One call on a running mirror that answers a VoOut: pause, resume, cancel.
template <typename In>
int mirrorControl(Context& ctx, const ControlWords& words, clnt_stat (*stub)(In*, VoOut*, CLIENT*),
                  const MirrorKey& key, In in) {
    auto c = ctx.connect();
    if (!c) return kExitUnreachable;
    XdrResult<VoOut> out(xdr_VoOut);
    if (c->call(stub, &in, out.get()) != RPC_SUCCESS) return ctx.callFailed(*c);
    return reportControl(ctx, c.get(), words, "mirror", key.text(), mirrorKeyJson(key), *out);
}

int mirrorPauseResume(Context& ctx, const ControlWords& words,
                      clnt_stat (*stub)(VoIn*, VoOut*, CLIENT*), const KeyArgs& a) {
    MirrorKey key;
    LpNames names;
    if (int rc = resolveSource(ctx, a.vid, a.srcLp, &key, &names); rc != kExitOk) return rc;
    return mirrorControl(ctx, words, stub, key, key.wire());
}

int mirrorCancel(Context& ctx, const KeyArgs& a) {
    MirrorKey key;
    LpNames names;
    if (int rc = resolveSource(ctx, a.vid, a.srcLp, &key, &names); rc != kExitOk) return rc;
    if (int rc = resolveLp(ctx, a.dstLp, &key.dstLp); rc != kExitOk) return rc;
    VoLidIn in{};
    in.vidSrc = key.vid;
    std::copy(key.srcLp.begin(), key.srcLp.end(), in.lidSrc);
    std::copy(key.dstLp.begin(), key.dstLp.end(), in.lidSink);
    return mirrorControl(ctx, {"cancel", "cancelled"}, vomirrorcancel_1, key, in);
}

// voctl mirrors: the VLDB's records of the mirror id, each with its D-blade
// and its lag behind the source's VLDB record.
int listMirrors(Context& ctx, const std::string& vidText) {
    const uint32_t vid = *parseU32(vidText);  // checked at parse time
    if (vid & kMirrorIdBit)
        return ctx.out.failure(kExitUsage,
                               "vfs " + vidText + " is a mirror id; give the source's VFS id");
    std::string err;
    ServiceClient vldb = connectVldb(ctx.opts, &err);
    if (!vldb) return ctx.out.failure(kExitUnreachable, err);

    std::vector<VolumeRecord> srcs, mirrors;
    const std::string src = "vfs " + std::to_string(vid);
    if (unsigned code = lookupRecords(vldb.get(), vid, nullptr, &srcs))
        return lookupFailed(ctx, "VLDB look-up of " + src, code);
    if (srcs.empty()) return ctx.out.failure(kExitVodFailure, "the VLDB holds no " + src);
    if (unsigned code = lookupRecords(vldb.get(), mirrorIdOf(vid), nullptr, &mirrors))
        return lookupFailed(ctx, "VLDB look-up of the mirrors of " + src, code);
    // A volume has one record, but for a moment during a move two: the
    // read-write one is the source.
    auto s = std::find_if(srcs.begin(), srcs.end(),
                          [](const VolumeRecord& r) { return r.vfstype == RW_VFS; });
    VolumeRecord source = s != srcs.end() ? *s : srcs[0];
    // The VLDB learns a read-write volume's data version only now and then;
    // its D-blade, the node's own, knows it now. Data versions only rise, so
    // the larger of the two is the current one; without an answer the
    // record's stands.
    {
        std::string why;
        ServiceClient vol = connectService(ctx.opts.host, DBLADE_VOL_PROG, DBLADE_VOL_VERS,
                                           ctx.opts.timeoutSec, &why);
        XdrResult<VolGetattrOut_t> attrs(xdr_VolGetattrOut_t);
        if (vol &&
            VoRpcCalls::dbladeGetAttrs(vol.get(), source.vfsid, source.lp.data(), *attrs) == 0)
            source.dataVer = std::max<uint64_t>(source.dataVer, attrs->return_volattrs.dataVersion);
    }

    nlohmann::json list = nlohmann::json::array();
    std::vector<std::vector<std::string>> rows = {{"LP", "D-blade", "data version", "lag", "name"}};
    for (const VolumeRecord& m : mirrors) {
        unsigned short did = 0;
        const bool known = VoRpcCalls::findDbladeByLpId(vldb.get(), m.lp.data(), did) == 0;
        list.push_back({{"lp", formatLpId(m.lp)},
                        {"dblade", known ? nlohmann::json(did) : nlohmann::json(nullptr)},
                        {"dataVer", m.dataVer},
                        {"lag", mirrorLag(source.dataVer, m.dataVer)},
                        {"name", m.name}});
        rows.push_back({formatLpId(m.lp), known ? std::to_string(did) : "?",
                        std::to_string(m.dataVer), lagText(source.dataVer, m.dataVer), m.name});
    }
    nlohmann::json obj = {{"vfsid", vid},
                          {"name", source.name},
                          {"lp", formatLpId(source.lp)},
                          {"dataVer", source.dataVer},
                          {"mirrorVfsid", mirrorIdOf(vid)},
                          {"mirrors", list}};
    char head[192];
    std::snprintf(head, sizeof head, "vfs %u '%s' on LP %s, data version %" PRIu64, vid,
                  source.name.c_str(), formatLpId(source.lp).c_str(), source.dataVer);
    std::string text = head;
    if (mirrors.empty())
        text += ": no mirrors\n";
    else
        text += ": mirrors as vfs " + std::to_string(mirrorIdOf(vid)) + "\n" +
                formatColumns(rows, "  ");
    ctx.out.result(obj, text);
    return kExitOk;
}

// The volume names the VO records carry: a longer one vod cannot decode.
int checkMemberName(Context& ctx, const std::string& name) {
    if (name.empty() || name.size() > kMaxMirrorName)
        return ctx.out.failure(
            kExitUsage, "NAME must have 1 to " + std::to_string(kMaxMirrorName) + " characters");
    return kExitOk;
}

struct JoinArgs {
    KeyArgs key;
    std::string name;
};

int mirrorJoin(Context& ctx, const JoinArgs& a) {
    if (int rc = checkMemberName(ctx, a.name); rc != kExitOk) return rc;
    MirrorKey key;
    LpNames names;
    if (int rc = resolveSource(ctx, a.key.vid, a.key.srcLp, &key, &names); rc != kExitOk) return rc;
    if (key.vid & kMirrorIdBit)
        return ctx.out.failure(kExitUsage,
                               "vfs " + a.key.vid + " is a mirror id; give the source's VFS id");
    if (int rc = resolveLp(ctx, a.key.dstLp, &key.dstLp); rc != kExitOk) return rc;
    names.add(key.dstLp, a.key.dstLp);
    auto c = ctx.connect();
    if (!c) return kExitUnreachable;
    VoVidOut out{};
    if (!callJoin(*c, key, a.name, &out)) return ctx.callFailed(*c);
    const std::string what = "join of LP " + names.label(key.dstLp) +
                             " to the mirror group of vfs " + std::to_string(key.vid) + " on LP " +
                             names.label(key.srcLp);
    if (out.rc != voErrRcSuccess)
        return reportRefusal(ctx, c.get(), what + " refused", voOutOf(out),
                             joinRefusalWhy(out, key, names));
    nlohmann::json obj = voOutJson(voOutOf(out));
    obj["action"] = "join";
    obj["mirror"] = mirrorKeyJson(key);
    obj["name"] = a.name;
    obj["vfsid"] = out.vid;
    ctx.out.result(obj, "LP " + names.label(key.dstLp) + " joined the mirror group of vfs " +
                            std::to_string(key.vid) + ": vfs " + std::to_string(out.vid) + " '" +
                            a.name + "', read-only and empty until the volume is next mirrored");
    return kExitOk;
}

struct LeaveArgs {
    std::string vid, lp, name;
};

int mirrorLeave(Context& ctx, const LeaveArgs& a) {
    if (int rc = checkMemberName(ctx, a.name); rc != kExitOk) return rc;
    const uint32_t mirrorVid = mirrorIdOf(*parseU32(a.vid));  // checked at parse time
    LpId lp{};
    if (int rc = resolveLp(ctx, a.lp, &lp); rc != kExitOk) return rc;
    LpNames names;
    names.add(lp, a.lp);
    auto c = ctx.connect();
    if (!c) return kExitUnreachable;
    VoVidOut out{};
    if (!callLeave(*c, mirrorVid, lp, a.name, &out)) return ctx.callFailed(*c);
    const std::string member =
        "mirror vfs " + std::to_string(mirrorVid) + " on LP " + names.label(lp);
    if (out.rc != voErrRcSuccess)
        return reportRefusal(ctx, c.get(), "leave of " + member + " refused", voOutOf(out),
                             leaveRefusalWhy(out, names.label(lp), a.name));
    nlohmann::json obj = voOutJson(voOutOf(out));
    obj["action"] = "leave";
    obj["mirrorVfsid"] = mirrorVid;
    obj["lp"] = formatLpId(lp);
    obj["vfsid"] = out.vid;
    obj["dropped"] = out.vid == 0;
    if (out.vid != 0) obj["name"] = a.name;
    ctx.out.result(obj, out.vid == 0
                            ? member +
                                  " had never been filled: its VLDB record is gone and no "
                                  "volume is left"
                            : member + " left its mirror group: now vfs " +
                                  std::to_string(out.vid) + " '" + a.name + "', read-only");
    return kExitOk;
}

void addSourceArgs(CLI::App& sub, KeyArgs& a) {
    sub.add_option("VFS", a.vid, "VFS id of the mirrored volume")->required()->check(u32Check());
    sub.add_option("SRC-LP", a.srcLp, "its LP: name or 32 hex digits")->required();
}

Setup pauseResumeSetup(ControlWords words, clnt_stat (*stub)(VoIn*, VoOut*, CLIENT*)) {
    return [words, stub](CLI::App& sub) -> Action {
        auto a = std::make_shared<KeyArgs>();
        addSourceArgs(sub, *a);
        return [a, words, stub](Context& ctx) { return mirrorPauseResume(ctx, words, stub, *a); };
    };
}

const CommandRegistrar mirrorReg(
    "mirror",
    "Create or refresh read-only mirrors of a volume on other LPs and follow the mirror to its end",
    [](CLI::App& sub) -> Action {
        auto a = std::make_shared<MirrorArgs>();
        sub.add_option("VFS", a->vid, "VFS id of the volume to mirror")
            ->required()
            ->check(u32Check());
        sub.add_option("SRC-LP", a->srcLp, "its LP: name or 32 hex digits")->required();
        sub.add_option("DST-LP", a->dstLps, "LPs to mirror it to: names or 32 hex digits")
            ->required();
        sub.add_flag("--register-only", a->registerOnly,
                     "have vod register the LPs as mirrors and start nothing");
        addFollowOptions(sub, "start the mirror and return", &a->noWait, &a->intervalSec);
        sub.footer(
            "vod mirrors to every LP the VLDB lists for the volume's mirror id (VFS | "
            "0x40000000).\n"
            "A DST-LP that has no mirror yet joins the mirror group first (as mirror-join does):\n"
            "vod registers a read-only VLDB record of the mirror id with data version 0, named\n"
            "SOURCE@LP. LPs registered earlier are refreshed too, named or not. When vod refuses\n"
            "the mirror, the LPs this command registered leave the group again.\n"
            "One progress bar per destination shows its megabytes and state (streaming, up to\n"
            "date, offending, done, failed); at the end a table gives each destination's\n"
            "outcome and why. Interrupting voctl does not stop the mirror: use mirror-cancel.\n"
            "With --json: one object per line, event \"registered\", \"started\", \"progress\"\n"
            "per poll (with sinks) and \"final\" with the outcome (mirrored, failed, unknown,\n"
            "or up-to-date when vod had nothing to do) and destinations.\n"
            "Exit status 0 only when every destination ended up at the source's data version.");
        return [a](Context& ctx) { return mirrorStart(ctx, *a); };
    });

const CommandRegistrar progressReg(
    "mirror-progress", "Show the state of a mirror once, with each destination",
    [](CLI::App& sub) -> Action {
        auto a = std::make_shared<KeyArgs>();
        addSourceArgs(sub, *a);
        sub.footer(
            "Exit status 1 when vod knows no such mirror or its last report shows that a\n"
            "destination failed.");
        return [a](Context& ctx) { return mirrorProgress(ctx, *a); };
    });

const CommandRegistrar pauseReg("mirror-pause", "Pause a mirror's stream",
                                pauseResumeSetup({"pause", "paused"}, vomirrorpause_1));
const CommandRegistrar resumeReg("mirror-resume", "Resume a paused mirror",
                                 pauseResumeSetup({"resume", "resumed"}, vomirrorresume_1));

const CommandRegistrar cancelReg(
    "mirror-cancel", "Cancel a mirror's stream to one destination", [](CLI::App& sub) -> Action {
        auto a = std::make_shared<KeyArgs>();
        addSourceArgs(sub, *a);
        sub.add_option("DST-LP", a->dstLp,
                       "the destination to drop: name or 32 hex digits (32 zeros: all)")
            ->required();
        sub.footer("The other destinations go on; the old mirror on DST-LP stays as it was.");
        return [a](Context& ctx) { return mirrorCancel(ctx, *a); };
    });

const CommandRegistrar listReg(
    "mirrors", "List a volume's mirrors and how far each lags it", [](CLI::App& sub) -> Action {
        auto vid = std::make_shared<std::string>();
        sub.add_option("VFS", *vid, "VFS id of the mirrored volume")->required()->check(u32Check());
        sub.footer(
            "Read from the node's VLDB: each mirror's LP, D-blade, data version and lag, the\n"
            "source's data version minus the mirror's (0: up to date; a mirror registered\n"
            "but never filled is at 0).");
        return [vid](Context& ctx) { return listMirrors(ctx, *vid); };
    });

const CommandRegistrar joinReg(
    "mirror-join", "Have vod register an empty mirror of a volume on an LP, to be filled later",
    [](CLI::App& sub) -> Action {
        auto a = std::make_shared<JoinArgs>();
        addSourceArgs(sub, a->key);
        sub.add_option("DST-LP", a->key.dstLp, "the LP to join: name or 32 hex digits")->required();
        sub.add_option("NAME", a->name, "the member's volume name (at most 128 characters)")
            ->required();
        sub.footer(
            "vod registers the mirror id (VFS | 0x40000000) on DST-LP: a read-only VLDB record\n"
            "with data version 0 and the source's family and virtual server. Nothing is copied\n"
            "until the volume is next mirrored (voctl mirror). vod refuses an LP that holds a\n"
            "member already and a mirror id that a recorded operation uses.\n"
            "Exit status 1 when vod refuses, with its error decoded.");
        return [a](Context& ctx) { return mirrorJoin(ctx, *a); };
    });

const CommandRegistrar leaveReg(
    "mirror-leave", "Take a mirror out of its group: it becomes a volume of its own",
    [](CLI::App& sub) -> Action {
        auto a = std::make_shared<LeaveArgs>();
        sub.add_option("MIRROR-VFS", a->vid,
                       "the mirror id, or the source's VFS id (0x40000000 is added)")
            ->required()
            ->check(u32Check());
        sub.add_option("LP", a->lp, "the member's LP: name or 32 hex digits")->required();
        sub.add_option("NEWNAME", a->name, "its new volume name (at most 128 characters)")
            ->required();
        sub.footer(
            "The member gets a VFS id and the name NEWNAME of its own and stays read-only\n"
            "(make it writable with set-rw); the other mirrors stay in the group. A member that\n"
            "was never filled has no volume: vod only drops its VLDB record, and vfsid 0 is\n"
            "reported. vod refuses while a recorded operation uses the member.\n"
            "Exit status 1 when vod refuses, with its error decoded.");
        return [a](Context& ctx) { return mirrorLeave(ctx, *a); };
    });

}  // namespace
}  // namespace voctl
