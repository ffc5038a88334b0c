// Volume copy: voctl copy starts one and follows it to its end with a progress
// bar; copy-progress, copy-pause, copy-resume and copy-cancel act on a copy
// that runs. A copy is named by its source (VFS id, LP) and its sink (VFS id,
// LP), the four values vod finds it by.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>

#include "voctl/admin_common.h"
#include "voctl/command.h"
#include "voctl/copy_report.h"
#include "voctl/lpid.h"
#include "voctl/number.h"
#include "voctl/stream_follow.h"

namespace voctl {
namespace {

// vod keeps at most this many characters of a volume name.
constexpr size_t kMaxVolumeName = 128;

// The low half of vod's code for a name the VLDB has no record of.
constexpr unsigned kVldbNoRecord = 30400 + 119;

struct CopyKey {
    uint32_t srcVid = 0;
    LpId srcLp{};
    uint32_t sinkVid = 0;
    LpId sinkLp{};
};

VoVidLidIn wireKey(const CopyKey& k) {
    VoVidLidIn in{};
    in.vidSrc = k.srcVid;
    std::copy(k.srcLp.begin(), k.srcLp.end(), in.lidSrc);
    in.vidSink = k.sinkVid;
    std::copy(k.sinkLp.begin(), k.sinkLp.end(), in.lidSink);
    return in;
}

std::string keyText(const CopyKey& k) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "vfs %u", k.srcVid);
    std::string s = std::string(buf) + " on LP " + formatLpId(k.srcLp);
    std::snprintf(buf, sizeof buf, " to vfs %u", k.sinkVid);
    return s + buf + " on LP " + formatLpId(k.sinkLp);
}

nlohmann::json keyJson(const CopyKey& k) {
    return {{"srcVfsid", k.srcVid},
            {"srcLp", formatLpId(k.srcLp)},
            {"sinkVfsid", k.sinkVid},
            {"sinkLp", formatLpId(k.sinkLp)}};
}

// Whether the sink ended up registered under its name: what decides the
// outcome when vod's report cannot (a copy rebuilt after a restart, or one
// whose last report another client took).
CopyOutcome outcomeByName(VoClient* c, const std::string& name, uint32_t sinkVid,
                          std::string* why) {
    if (c == nullptr || !c->connected()) {
        *why = "vod cannot be asked whether the sink exists";
        return CopyOutcome::Unknown;
    }
    std::string key = name.substr(0, kMaxVolumeName);
    vo_string arg = const_cast<char*>(key.c_str());
    XdrResult<FindVfsByNameOut> res(xdr_FindVfsByNameOut);
    if (c->call(findvfsbyname_1, &arg, res.get()) != RPC_SUCCESS) {
        *why = c->callError();
        return CopyOutcome::Unknown;
    }
    char buf[128];
    if (res->code == 0 && res->vfsId == sinkVid) {
        std::snprintf(buf, sizeof buf, "the sink vfs %u is registered as '%s'", sinkVid,
                      key.c_str());
        *why = buf;
        return CopyOutcome::Copied;
    }
    if (res->code == 0) {
        std::snprintf(buf, sizeof buf, "'%s' now names vfs %u, not the sink vfs %u", key.c_str(),
                      res->vfsId, sinkVid);
        *why = buf;
        return CopyOutcome::Unknown;
    }
    if ((res->code & 0xFFFF) == kVldbNoRecord) {
        std::snprintf(buf, sizeof buf, "no volume is registered as '%s'", key.c_str());
        *why = buf;
        return CopyOutcome::RolledBack;
    }
    *why = "looking up '" + key + "': " + decodedText(c, res->code);
    return CopyOutcome::Unknown;
}

// A copy as the follower sees it; name is empty when only its progress is shown.
class CopyOp : public StreamOp {
  public:
    CopyOp(const CopyKey& key, std::string name) : _key(key), _name(std::move(name)) {}

    const char* noun() const override { return "copy"; }
    const char* doneWord() const override { return "copied"; }
    std::string keyText() const override { return voctl::keyText(_key); }
    nlohmann::json keyJson() const override { return voctl::keyJson(_key); }
    std::string doneText() const override {
        return "copied " + keyText() + " as '" + _name.substr(0, kMaxVolumeName) + "'";
    }
    bool poll(VoClient& c, StreamReport* r, std::string* why) const override {
        return pollStream(c, vocopypgrs_1, wireKey(_key), xdr_VoCopyPgrsOut, r, why);
    }
    CopyOutcome outcomeFromCluster(VoClient* c, std::string* why) const override {
        return outcomeByName(c, _name, _key.sinkVid, why);
    }
    void addFinalJson(nlohmann::json& obj, VoClient* /*c*/,
                      const StreamReport* /*end*/) const override {
        obj["name"] = _name.substr(0, kMaxVolumeName);
    }

  private:
    const CopyKey _key;
    const std::string _name;
};

struct CopyArgs {
    std::string srcVid, srcLp, dstLp, name;
    bool noWait = false;
    double intervalSec = 1;
};

int copyStart(Context& ctx, const CopyArgs& a) {
    CopyKey key;
    key.srcVid = *parseU32(a.srcVid);  // checked at parse time
    if (int rc = resolveLp(ctx, a.srcLp, &key.srcLp); rc != kExitOk) return rc;
    if (int rc = resolveLp(ctx, a.dstLp, &key.sinkLp); rc != kExitOk) return rc;

    auto c = ctx.connect();
    if (!c) return kExitUnreachable;
    VoLidVnameIn in{};
    in.vidSrc = key.srcVid;
    std::copy(key.srcLp.begin(), key.srcLp.end(), in.lidSrc);
    std::copy(key.sinkLp.begin(), key.sinkLp.end(), in.lidSink);
    in.vnameSink = const_cast<char*>(a.name.c_str());
    XdrResult<VoVidOut> res(xdr_VoVidOut);
    if (c->call(vocopy_1, &in, res.get()) != RPC_SUCCESS) return ctx.callFailed(*c);
    if (res->rc != voErrRcSuccess)
        return reportRefusal(ctx, c.get(), "copy of vfs " + std::to_string(key.srcVid) + " refused",
                             {res->rc, res->func, res->funcrc});
    key.sinkVid = res->vid;

    nlohmann::json started = keyJson(key);
    started["event"] = "started";
    started["name"] = a.name;
    std::string startedText = "copying " + keyText(key) + " as '" + a.name + "'";
    if (a.noWait) {
        char follow[160];
        std::snprintf(follow, sizeof follow, "\nfollow it with: voctl copy-progress %u %s %u %s",
                      key.srcVid, formatLpId(key.srcLp).c_str(), key.sinkVid,
                      formatLpId(key.sinkLp).c_str());
        ctx.out.result(started, startedText + follow);
        return kExitOk;
    }
    ctx.out.result(started, startedText);
    return followStream(ctx, std::move(c), CopyOp(key, a.name), a.intervalSec);
}

struct KeyArgs {
    std::string srcVid, srcLp, sinkVid, sinkLp;
};

int resolveKey(Context& ctx, const KeyArgs& a, CopyKey* key) {
    key->srcVid = *parseU32(a.srcVid);  // both checked at parse time
    key->sinkVid = *parseU32(a.sinkVid);
    if (int rc = resolveLp(ctx, a.srcLp, &key->srcLp); rc != kExitOk) return rc;
    return resolveLp(ctx, a.sinkLp, &key->sinkLp);
}

int copyProgress(Context& ctx, const KeyArgs& a) {
    CopyKey key;
    if (int rc = resolveKey(ctx, a, &key); rc != kExitOk) return rc;
    return showStreamState(ctx, CopyOp(key, ""));
}

using CopyStub = clnt_stat (*)(VoVidLidIn*, VoOut*, CLIENT*);

// copy-pause, copy-resume and copy-cancel differ only in the call and the words.
int copyControl(Context& ctx, const ControlWords& words, CopyStub stub, const KeyArgs& a) {
    CopyKey key;
    if (int rc = resolveKey(ctx, a, &key); rc != kExitOk) return rc;
    auto c = ctx.connect();
    if (!c) return kExitUnreachable;
    VoVidLidIn in = wireKey(key);
    XdrResult<VoOut> out(xdr_VoOut);
    if (c->call(stub, &in, out.get()) != RPC_SUCCESS) return ctx.callFailed(*c);
    return reportControl(ctx, c.get(), words, "copy", keyText(key), keyJson(key), *out);
}

CLI::Validator volumeNameCheck() {
    return CLI::Validator(
        [](std::string& s) -> std::string {
            if (s.empty()) return "the volume name is empty";
            if (s.size() > kMaxVolumeName)
                return "the volume name is longer than " + std::to_string(kMaxVolumeName) +
                       " characters";
            return "";
        },
        "NAME");
}

void addKeyArgs(CLI::App& sub, KeyArgs& a) {
    sub.add_option("SRC-VFS", a.srcVid, "source VFS id")->required()->check(u32Check());
    sub.add_option("SRC-LP", a.srcLp, "source LP: name or 32 hex digits")->required();
    sub.add_option("SINK-VFS", a.sinkVid, "VFS id of the copy (printed by voctl copy)")
        ->required()
        ->check(u32Check());
    sub.add_option("SINK-LP", a.sinkLp, "LP of the copy: name or 32 hex digits")->required();
}

const CommandRegistrar copyReg(
    "copy", "Copy a volume to a new volume on another LP and follow the copy to its end",
    [](CLI::App& sub) -> Action {
        auto a = std::make_shared<CopyArgs>();
        sub.add_option("SRC-VFS", a->srcVid, "VFS id of the volume to copy")
            ->required()
            ->check(u32Check());
        sub.add_option("SRC-LP", a->srcLp, "its LP: name or 32 hex digits")->required();
        sub.add_option("DST-LP", a->dstLp, "LP of the new volume: name or 32 hex digits")
            ->required();
        sub.add_option("NAME", a->name, "name of the new volume (at most 128 characters)")
            ->required()
            ->check(volumeNameCheck());
        addFollowOptions(sub, "start the copy, print the new volume's id and return", &a->noWait,
                         &a->intervalSec);
        sub.footer(
            "The source stays on line: a read-write source is copied from a clone that is\n"
            "removed afterwards. Until the copy ends a progress bar shows megabytes, vnodes,\n"
            "rate and time left; the copy either completes or leaves nothing behind.\n"
            "Interrupting voctl does not stop the copy: use copy-cancel.\n"
            "With --json: one object per line, event \"started\", \"progress\" per poll and\n"
            "\"final\" with the outcome (copied, rolled-back, unknown).\n"
            "Exit status 0 only when the copy completed.");
        return [a](Context& ctx) { return copyStart(ctx, *a); };
    });

const CommandRegistrar progressReg(
    "copy-progress", "Show the state of a copy once", [](CLI::App& sub) -> Action {
        auto a = std::make_shared<KeyArgs>();
        addKeyArgs(sub, *a);
        sub.footer(
            "Exit status 1 when vod knows no such copy or its last report shows that it\n"
            "failed. vod forgets a finished copy soon after this last report was read.");
        return [a](Context& ctx) { return copyProgress(ctx, *a); };
    });

const CommandRegistrar pauseReg("copy-pause", "Pause a copy's stream", [](CLI::App& sub) -> Action {
    auto a = std::make_shared<KeyArgs>();
    addKeyArgs(sub, *a);
    return [a](Context& ctx) { return copyControl(ctx, {"pause", "paused"}, vocopypause_1, *a); };
});

const CommandRegistrar resumeReg(
    "copy-resume", "Resume a paused copy", [](CLI::App& sub) -> Action {
        auto a = std::make_shared<KeyArgs>();
        addKeyArgs(sub, *a);
        return [a](Context& ctx) {
            return copyControl(ctx, {"resume", "resumed"}, vocopyresume_1, *a);
        };
    });

const CommandRegistrar cancelReg(
    "copy-cancel", "Cancel a copy: its stream stops and vod removes what it made",
    [](CLI::App& sub) -> Action {
        auto a = std::make_shared<KeyArgs>();
        addKeyArgs(sub, *a);
        return [a](Context& ctx) {
            return copyControl(ctx, {"cancel", "cancelled"}, vocopycancel_1, *a);
        };
    });

}  // namespace
}  // namespace voctl
