// Volume copy: voctl copy starts one and follows it to its end with a progress
// bar; copy-progress, copy-pause, copy-resume and copy-cancel act on a copy
// that runs. A copy is named by its source (VFS id, LP) and its sink (VFS id,
// LP), the four values vod finds it by.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "voctl/admin_common.h"
#include "voctl/command.h"
#include "voctl/copy_report.h"
#include "voctl/lpid.h"
#include "voctl/number.h"

namespace voctl {
namespace {

// vod keeps at most this many characters of a volume name.
constexpr size_t kMaxVolumeName = 128;

// How long a waiting copy keeps trying to reach a vod that stopped answering:
// long enough for vod to be restarted and to rebuild the copy from its records.
constexpr double kReconnectWindowSec = 180;
// And how often it tries meanwhile, whatever the poll interval.
constexpr double kReconnectStepSec = 0.5;

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

LpId lpOf(const u_char* bytes) {
    LpId id{};
    std::copy(bytes, bytes + id.size(), id.begin());
    return id;
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

// vod's "(module) procedure: message" without the empty procedure name that
// codes carrying only a low half have: "module: message".
std::string decodedText(VoClient* c, unsigned code) {
    std::string s = decodeCode(c, code);
    if (s.size() > 2 && s[0] == '(') {
        size_t close = s.find(") : ");
        if (close != std::string::npos) return s.substr(1, close - 1) + ": " + s.substr(close + 4);
    }
    return s;
}

// "func=403 voErrDbladeVolCreate, funcrc=28 (TarnFS: ...)".
std::string funcText(VoClient* c, unsigned func, unsigned funcrc) {
    char buf[160];
    std::snprintf(buf, sizeof buf, "func=%u %s, funcrc=%u", func, funcName(func), funcrc);
    std::string s = buf;
    if (unsigned code = decodableFuncrc(func, funcrc)) s += " (" + decodedText(c, code) + ")";
    return s;
}

// "rc=3 voErrRollBackOp, func=403 voErrDbladeVolCreate, funcrc=28 (TarnFS: ...)".
std::string tripleText(VoClient* c, unsigned rc, unsigned func, unsigned funcrc) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "rc=%u %s", rc, rcName(rc));
    std::string s = buf;
    if (func != 0 || funcrc != 0) s += ", " + funcText(c, func, funcrc);
    return s;
}

Progress progressOf(const VoCopyPgrsOut& r) {
    Progress p;
    p.megs = r.src.megsProcessed;
    p.vnodesDone = r.src.vnodesProcessed;
    p.vnodesTotal = r.src.vnodesTotal;
    return p;
}

nlohmann::json reportJson(const VoCopyPgrsOut& r, CopyPhase phase) {
    return {{"opid", r.voOpid},
            {"phase", copyPhaseName(phase)},
            {"rc", r.rc},
            {"rcName", rcName(r.rc)},
            {"func", r.func},
            {"funcName", funcName(r.func)},
            {"funcrc", r.funcrc},
            {"src",
             {{"vfsid", r.src.vfsId},
              {"lp", formatLpId(lpOf(r.src.uuid))},
              {"status", r.src.status},
              {"completionCode", r.src.completionCode},
              {"vnodesTotal", r.src.vnodesTotal},
              {"vnodesProcessed", r.src.vnodesProcessed},
              {"megs", r.src.megsProcessed}}},
            {"sink",
             {{"isDone", r.sink.isDone != 0},
              {"completionCode", r.sink.completionCode},
              {"vfsid", r.sink.vfsId},
              {"lp", formatLpId(lpOf(r.sink.uuid))},
              {"megs", r.sink.megsProcessed}}}};
}

// Why a final report counts as a failure, in words: the error triple and the
// stream's completion codes, each decoded.
std::string failureReasons(VoClient* c, const VoCopyPgrsOut& r) {
    std::vector<std::string> reasons;
    if (r.rc != voErrRcSuccess) reasons.push_back(tripleText(c, r.rc, r.func, r.funcrc));
    if (hasStreamCounters(r)) {
        char buf[96];
        if (r.src.completionCode != 0) {
            std::snprintf(buf, sizeof buf, "source side of the stream ended with %u",
                          r.src.completionCode);
            reasons.push_back(buf + (" (" + decodedText(c, r.src.completionCode) + ")"));
        }
        if (r.sink.completionCode != 0 && r.sink.completionCode != kSinkUpToDate) {
            std::snprintf(buf, sizeof buf, "sink side of the stream ended with %u",
                          r.sink.completionCode);
            reasons.push_back(buf + (" (" + decodedText(c, r.sink.completionCode) + ")"));
        }
        if (r.src.status != VoDone)
            reasons.push_back("the stream did not finish");
        else if (r.sink.isDone == 0)
            reasons.push_back("the sink was not finished");
    }
    // A step that failed without turning the whole operation's rc still says
    // what went wrong last.
    if (r.rc == voErrRcSuccess && r.func != voErrFuncSuccess)
        reasons.push_back("last error " + funcText(c, r.func, r.funcrc));
    if (reasons.empty()) return "no reason given";
    std::string s = reasons[0];
    for (size_t i = 1; i < reasons.size(); ++i) s += "; " + reasons[i];
    return s;
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

// One poll: false when vod could not be asked (why says so).
bool pollCopy(VoClient& c, const CopyKey& key, XdrResult<VoCopyPgrsOut>* out, std::string* why) {
    VoVidLidIn in = wireKey(key);
    if (c.call(vocopypgrs_1, &in, out->get()) != RPC_SUCCESS) {
        *why = c.callError();
        return false;
    }
    return true;
}

// Lines between progress-bar redraws: on a terminal the bar's line is erased
// first so the note does not end up glued to it.
class Notes {
  public:
    explicit Notes(bool terminal) : _terminal(terminal) {}
    void say(const std::string& text) const {
        std::fprintf(stdout, "%s%s\n", _terminal ? "\r\x1b[K" : "", text.c_str());
        std::fflush(stdout);
    }

  private:
    bool _terminal;
};

std::string phaseNote(CopyPhase phase, bool streamed) {
    switch (phase) {
        case CopyPhase::Initialising:
            return "waiting for a worker thread of vod";
        case CopyPhase::Streaming:
            return streamed ? "streaming" : "";
        case CopyPhase::Paused:
            return "paused";
        case CopyPhase::StreamEnded:
            return "stream finished; vod is concluding the copy";
        case CopyPhase::RollingForward:
            return "committing the copy";
        case CopyPhase::RollingBack:
            // vod says the same while it makes the clone and the sink.
            return streamed ? "rolling back" : "preparing the source and the sink";
        default:
            return "";
    }
}

struct FollowOptions {
    std::string name;
    double intervalSec = 1;
};

void sleepFor(double sec) { std::this_thread::sleep_for(std::chrono::duration<double>(sec)); }

// Follows one copy from its start to its final report: polls, shows the
// progress, rides out a vod that stops answering for a while, and reports how
// the copy ended.
class CopyFollower {
  public:
    CopyFollower(Context& ctx, std::unique_ptr<VoClient> c, const CopyKey& key, FollowOptions fo)
        : _ctx(ctx),
          _c(std::move(c)),
          _key(key),
          _fo(std::move(fo)),
          _json(ctx.out.json()),
          _notes(!_json && isatty(STDOUT_FILENO) != 0),
          _bar(stdout, !_json && isatty(STDOUT_FILENO) != 0, "copy"),
          _endReport(xdr_VoCopyPgrsOut) {}

    // 0 copied, 1 failed or unknown, 3 when vod stayed out of reach.
    int run() {
        const double startSec = ProgressBar::now();
        if (int rc = waitForEnd(); rc != kExitOk) return rc;
        std::string detail;
        CopyOutcome outcome = decideOutcome(&detail);
        report(outcome, detail, ProgressBar::now() - startSec);
        return outcome == CopyOutcome::Copied ? kExitOk : kExitVodFailure;
    }

  private:
    // Polls until the final report, or until vod no longer knows the copy.
    int waitForEnd() {
        double lostSince = -1;
        std::string lastNote;
        for (;;) {
            std::string why;
            XdrResult<VoCopyPgrsOut> r(xdr_VoCopyPgrsOut);
            if (!poll(&r, &why)) {
                double now = ProgressBar::now();
                if (lostSince < 0) {
                    lostSince = now;
                    if (!_json) _notes.say("lost contact with vod (" + why + "); retrying");
                } else if (now - lostSince > kReconnectWindowSec) {
                    return _ctx.out.failure(kExitUnreachable,
                                            "gave up waiting for vod to answer: " + why +
                                                "; the copy may still be running");
                }
                sleepFor(std::max(_fo.intervalSec, kReconnectStepSec));
                continue;
            }
            if (lostSince >= 0) {
                lostSince = -1;
                if (!_json) _notes.say("vod answers again");
            }

            CopyPhase phase = classifyCopyReport(*r);
            if (phase == CopyPhase::Final || phase == CopyPhase::Gone) {
                _endPhase = phase;
                std::swap(*_endReport, *r);
                return kExitOk;
            }
            if (hasStreamCounters(*r)) {
                _streamed = true;
                _last = *r;  // plain values only: the record owns no heap memory
            }
            if (_json) {
                nlohmann::json obj = reportJson(*r, phase);
                obj["event"] = "progress";
                _ctx.out.result(obj, "");
            } else {
                std::string note = phase == CopyPhase::PollFailed
                                       ? "vod could not poll the stream: " +
                                             tripleText(_c.get(), r->rc, r->func, r->funcrc)
                                       : phaseNote(phase, _streamed);
                if (!note.empty() && note != lastNote) _notes.say(note);
                lastNote = note;
                if (hasStreamCounters(*r)) {
                    _bar.update(progressOf(*r));
                    _barShown = true;
                }
            }
            sleepFor(_fo.intervalSec);
        }
    }

    // One poll on the current connection, made anew when there is none.
    bool poll(XdrResult<VoCopyPgrsOut>* r, std::string* why) {
        if (!_c) {
            _c = std::make_unique<VoClient>(_ctx.opts.host, _ctx.opts.timeoutSec);
            if (!_c->connected()) {
                *why = _c->createError();
                _c.reset();
                return false;
            }
        }
        if (pollCopy(*_c, _key, r, why)) return true;
        _c.reset();
        return false;
    }

    CopyOutcome decideOutcome(std::string* detail) {
        CopyOutcome outcome = CopyOutcome::Unknown;
        if (_endPhase == CopyPhase::Final) {
            outcome = outcomeOfFinalReport(*_endReport);
            if (hasStreamCounters(*_endReport)) _last = *_endReport;
            if (outcome == CopyOutcome::RolledBack) *detail = failureReasons(_c.get(), *_endReport);
        }
        // Rebuilt after a restart, or its last report went to someone else.
        if (outcome == CopyOutcome::Unknown)
            outcome = outcomeByName(_c.get(), _fo.name, _key.sinkVid, detail);
        return outcome;
    }

    void report(CopyOutcome outcome, const std::string& detail, double elapsed) {
        if (!_json && _barShown) {
            if (_streamed) _bar.update(progressOf(_last));
            _bar.finish(outcome == CopyOutcome::Copied ? "done" : "failed");
        }
        const std::string name = _fo.name.substr(0, kMaxVolumeName);
        char buf[256];
        std::string text;
        if (outcome == CopyOutcome::Copied) {
            std::snprintf(buf, sizeof buf, " as '%s' in %.1f s", name.c_str(), elapsed);
            text = "copied " + keyText(_key) + buf;
            if (_streamed) {
                std::snprintf(buf, sizeof buf, ": %" PRIu64 " MB, %u vnodes",
                              _last.src.megsProcessed, _last.src.vnodesProcessed);
                text += buf;
            }
            if (!detail.empty()) text += " (" + detail + ")";
        } else if (outcome == CopyOutcome::RolledBack) {
            text = "copy of " + keyText(_key) + " failed and was rolled back: " + detail;
        } else {
            text = "copy of " + keyText(_key) + ": outcome unknown: " + detail;
        }

        if (_json) {
            nlohmann::json obj = _endPhase == CopyPhase::Final ? reportJson(*_endReport, _endPhase)
                                                               : nlohmann::json::object();
            obj["event"] = "final";
            obj["phase"] = copyPhaseName(_endPhase);
            obj["outcome"] = copyOutcomeName(outcome);
            obj["copy"] = keyJson(_key);
            obj["name"] = name;
            obj["elapsedSec"] = elapsed;
            obj["message"] = text;
            _ctx.out.result(obj, "");
        } else if (outcome == CopyOutcome::Copied) {
            std::printf("%s\n", text.c_str());
            std::fflush(stdout);
        } else {
            std::fprintf(stderr, "voctl: %s\n", text.c_str());
        }
    }

    Context& _ctx;
    std::unique_ptr<VoClient> _c;  // null while vod cannot be reached
    const CopyKey _key;
    const FollowOptions _fo;
    const bool _json;
    Notes _notes;
    ProgressBar _bar;
    bool _barShown = false;
    bool _streamed = false;  // a report with stream counters was seen
    VoCopyPgrsOut _last{};   // the last report with stream counters
    XdrResult<VoCopyPgrsOut> _endReport;
    CopyPhase _endPhase = CopyPhase::Gone;
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
    if (res->rc != voErrRcSuccess) {
        VoOut out{res->rc, res->func, res->funcrc};
        std::string msg = "copy of vfs " + std::to_string(key.srcVid) +
                          " refused: " + tripleText(c.get(), res->rc, res->func, res->funcrc);
        if (ctx.out.json()) {
            nlohmann::json obj = voOutJson(out);
            obj["event"] = "refused";
            obj["error"] = msg;
            obj["status"] = kExitVodFailure;
            ctx.out.result(obj, "");
        }
        std::fprintf(stderr, "voctl: %s\n", msg.c_str());
        return kExitVodFailure;
    }
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
    return CopyFollower(ctx, std::move(c), key, {a.name, a.intervalSec}).run();
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
    auto c = ctx.connect();
    if (!c) return kExitUnreachable;
    XdrResult<VoCopyPgrsOut> r(xdr_VoCopyPgrsOut);
    std::string why;
    if (!pollCopy(*c, key, &r, &why)) return ctx.callFailed(*c);

    CopyPhase phase = classifyCopyReport(*r);
    if (phase == CopyPhase::Gone)
        return ctx.out.failure(kExitVodFailure, "vod knows no copy of " + keyText(key));
    bool failed = phase == CopyPhase::Final && outcomeOfFinalReport(*r) == CopyOutcome::RolledBack;

    char buf[160];
    std::vector<std::pair<std::string, std::string>> rows;
    std::snprintf(buf, sizeof buf, "%" PRIu64, static_cast<uint64_t>(r->voOpid));
    rows.push_back({"operation", buf});
    std::string state = copyPhaseName(phase);
    if (phase == CopyPhase::Final)
        state += std::string(", ") + copyOutcomeName(outcomeOfFinalReport(*r));
    rows.push_back({"state", state});
    if (r->rc != voErrRcSuccess)
        rows.push_back({"result", tripleText(c.get(), r->rc, r->func, r->funcrc)});
    if (hasStreamCounters(*r)) {
        static const char* const kStatus[] = {"running", "paused", "done"};
        const char* status = r->src.status <= VoDone ? kStatus[r->src.status] : "?";
        std::snprintf(buf, sizeof buf, "vfs %u, stream %s, completion %u", r->src.vfsId, status,
                      r->src.completionCode);
        rows.push_back({"source", buf});
        std::snprintf(buf, sizeof buf, "vfs %u, %s, completion %u", r->sink.vfsId,
                      r->sink.isDone ? "done" : "not done", r->sink.completionCode);
        rows.push_back({"sink", buf});
        std::snprintf(buf, sizeof buf, "%" PRIu64 " MB, %u/%u vnodes", r->src.megsProcessed,
                      r->src.vnodesProcessed, r->src.vnodesTotal);
        rows.push_back({"progress", buf});
    }
    if (failed) rows.push_back({"why", failureReasons(c.get(), *r)});

    nlohmann::json obj = reportJson(*r, phase);
    obj["copy"] = keyJson(key);
    if (phase == CopyPhase::Final) obj["outcome"] = copyOutcomeName(outcomeOfFinalReport(*r));
    ctx.out.result(obj, "copy of " + keyText(key) + "\n" + formatTable(rows, "  "));
    return failed ? kExitVodFailure : kExitOk;
}

// copy-pause, copy-resume and copy-cancel differ only in the call and the words.
struct Control {
    const char* verb;  // for messages: "pause"
    const char* done;  // "paused"
    clnt_stat (*stub)(VoVidLidIn*, VoOut*, CLIENT*);
};

int copyControl(Context& ctx, const Control& what, const KeyArgs& a) {
    CopyKey key;
    if (int rc = resolveKey(ctx, a, &key); rc != kExitOk) return rc;
    auto c = ctx.connect();
    if (!c) return kExitUnreachable;
    VoVidLidIn in = wireKey(key);
    XdrResult<VoOut> out(xdr_VoOut);
    if (c->call(what.stub, &in, out.get()) != RPC_SUCCESS) return ctx.callFailed(*c);

    nlohmann::json obj = voOutJson(*out);
    obj["copy"] = keyJson(key);
    obj["action"] = what.verb;
    if (out->rc == voErrRcSuccess) {
        ctx.out.result(obj, std::string(what.done) + " copy of " + keyText(key));
        return kExitOk;
    }
    std::string msg = std::string(what.verb) + " of copy " + keyText(key) +
                      " failed: " + tripleText(c.get(), out->rc, out->func, out->funcrc);
    if (out->rc == VoJobInit) msg += "; the copy has not started yet, try again in a moment";
    if (ctx.out.json()) {
        obj["error"] = msg;
        obj["status"] = kExitVodFailure;
        ctx.out.result(obj, "");
    }
    std::fprintf(stderr, "voctl: %s\n", msg.c_str());
    return kExitVodFailure;
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
        sub.add_flag("--no-wait", a->noWait,
                     "start the copy, print the new volume's id and return");
        sub.add_option("--interval", a->intervalSec, "seconds between progress polls")
            ->capture_default_str()
            ->check(CLI::Range(0.01, 3600.0));
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
    return [a](Context& ctx) { return copyControl(ctx, {"pause", "paused", vocopypause_1}, *a); };
});

const CommandRegistrar resumeReg(
    "copy-resume", "Resume a paused copy", [](CLI::App& sub) -> Action {
        auto a = std::make_shared<KeyArgs>();
        addKeyArgs(sub, *a);
        return [a](Context& ctx) {
            return copyControl(ctx, {"resume", "resumed", vocopyresume_1}, *a);
        };
    });

const CommandRegistrar cancelReg(
    "copy-cancel", "Cancel a copy: its stream stops and vod removes what it made",
    [](CLI::App& sub) -> Action {
        auto a = std::make_shared<KeyArgs>();
        addKeyArgs(sub, *a);
        return [a](Context& ctx) {
            return copyControl(ctx, {"cancel", "cancelled", vocopycancel_1}, *a);
        };
    });

}  // namespace
}  // namespace voctl
