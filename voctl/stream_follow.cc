#include "voctl/stream_follow.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <thread>
#include <utility>
#include <vector>

#include "voctl/admin_common.h"
#include "voctl/lpid.h"
#include "voctl/mirror_report.h"

namespace voctl {

namespace {

// How long a follower keeps trying to reach a vod that stopped answering:
// long enough for vod to be restarted and to rebuild the operation from its
// records.
constexpr double kReconnectWindowSec = 180;
// And how often it tries meanwhile, whatever the poll interval.
constexpr double kReconnectStepSec = 0.5;

// "func=403 voErrDbladeVolCreate, funcrc=28 (TarnFS: ...)".
std::string funcText(VoClient* c, unsigned func, unsigned funcrc) {
    char buf[160];
    std::snprintf(buf, sizeof buf, "func=%u %s, funcrc=%u", func, funcName(func), funcrc);
    std::string s = buf;
    if (unsigned code = decodableFuncrc(func, funcrc)) s += " (" + decodedText(c, code) + ")";
    return s;
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

std::string phaseNote(const StreamOp& op, CopyPhase phase, bool streamed) {
    switch (phase) {
        case CopyPhase::Initialising:
            return "waiting for a worker thread of vod";
        case CopyPhase::Streaming:
            return streamed ? "streaming" : "";
        case CopyPhase::Paused:
            return "paused";
        case CopyPhase::StreamEnded:
            return std::string("stream finished; vod is concluding the ") + op.noun();
        case CopyPhase::RollingForward:
            return std::string("committing the ") + op.noun();
        case CopyPhase::RollingBack:
            // vod says the same while it makes the clone and the sink.
            return streamed ? "rolling back" : "preparing the source and the sink";
        default:
            return "";
    }
}

void sleepFor(double sec) { std::this_thread::sleep_for(std::chrono::duration<double>(sec)); }

class StreamFollower {
  public:
    StreamFollower(Context& ctx, std::unique_ptr<VoClient> c, const StreamOp& op,
                   double intervalSec)
        : _ctx(ctx),
          _c(std::move(c)),
          _op(op),
          _interval(intervalSec),
          _json(ctx.out.json()),
          _terminal(!_json && isatty(STDOUT_FILENO) != 0),
          _notes(_terminal),
          _board(stdout, _terminal) {}

    int run() {
        const double startSec = ProgressBar::now();
        if (int rc = waitForEnd(); rc != kExitOk) return rc;
        std::string detail;
        CopyOutcome outcome = decideOutcome(&detail);
        report(outcome, detail, ProgressBar::now() - startSec);
        return outcome == CopyOutcome::Copied ? kExitOk : kExitVodFailure;
    }

  private:
    // Polls until the final report, or until vod no longer knows the operation.
    int waitForEnd() {
        double lostSince = -1;
        std::string lastNote;
        for (;;) {
            std::string why;
            StreamReport r;
            if (!poll(&r, &why)) {
                double now = ProgressBar::now();
                if (lostSince < 0) {
                    lostSince = now;
                    if (!_json) say("lost contact with vod (" + why + "); retrying");
                } else if (now - lostSince > kReconnectWindowSec) {
                    return _ctx.out.failure(kExitUnreachable,
                                            "gave up waiting for vod to answer: " + why + "; the " +
                                                _op.noun() + " may still be running");
                }
                sleepFor(std::max(_interval, kReconnectStepSec));
                continue;
            }
            if (lostSince >= 0) {
                lostSince = -1;
                if (!_json) say("vod answers again");
            }

            CopyPhase phase = classifyCopyReport(r);
            if (phase == CopyPhase::Final || phase == CopyPhase::Gone) {
                _endPhase = phase;
                _endReport = r;
                return kExitOk;
            }
            if (hasStreamCounters(r)) {
                _streamed = true;
                _last = r;
            }
            if (_json) {
                nlohmann::json obj = reportJson(r, phase);
                obj["event"] = "progress";
                _ctx.out.result(obj, "");
            } else {
                std::string note = phase == CopyPhase::PollFailed
                                       ? "vod could not poll the stream: " +
                                             tripleText(_c.get(), r.rc, r.func, r.funcrc)
                                       : phaseNote(_op, phase, _streamed);
                if (!note.empty() && note != lastNote) say(note);
                lastNote = note;
                if (hasStreamCounters(r)) showProgress(r, "done");
            }
            sleepFor(_interval);
        }
    }

    // Draws r on the bars of its streams; a report of another stream (a
    // move's next pass) first closes the bar of the one before with closing.
    void showProgress(const StreamReport& r, const char* closing) {
        _board.update(_op.readings(r), closing);
    }

    void say(const std::string& text) {
        _board.interrupt();
        _notes.say(text);
    }

    // One poll on the current connection, made anew when there is none.
    bool poll(StreamReport* r, std::string* why) {
        if (!_c) {
            _c = std::make_unique<VoClient>(_ctx.opts.host, _ctx.opts.timeoutSec);
            if (!_c->connected()) {
                *why = _c->createError();
                _c.reset();
                return false;
            }
        }
        if (_op.poll(*_c, r, why)) return true;
        _c.reset();
        return false;
    }

    CopyOutcome decideOutcome(std::string* detail) {
        CopyOutcome outcome = CopyOutcome::Unknown;
        if (_endPhase == CopyPhase::Final) {
            outcome = _op.outcomeOf(_endReport);
            if (hasStreamCounters(_endReport)) {
                _streamed = true;
                _last = _endReport;
                _lastIsEnd = true;
            }
            if (outcome == CopyOutcome::RolledBack)
                *detail = _op.failureDetail(_c.get(), _endReport);
        }
        if (outcome == CopyOutcome::Unknown) outcome = _op.outcomeFromCluster(_c.get(), detail);
        return outcome;
    }

    void report(CopyOutcome outcome, const std::string& detail, double elapsed) {
        if (!_json && !_board.empty()) {
            std::vector<BarReading> last;
            if (_streamed) last = _op.readings(_last);
            // What an earlier report said of a stream is no final state.
            if (!_lastIsEnd)
                for (BarReading& b : last) b.status.clear();
            _board.finish(last, outcome == CopyOutcome::Copied ? "done" : "failed");
        }
        char buf[256];
        std::string text;
        if (outcome == CopyOutcome::Copied) {
            std::snprintf(buf, sizeof buf, " in %.1f s", elapsed);
            text = _op.doneText() + buf;
            if (_streamed) {
                Progress p = _op.progressOf(_last);
                std::snprintf(buf, sizeof buf, ": %" PRIu64 " MB, %u vnodes", p.megs, p.vnodesDone);
                text += buf;
            }
            if (!detail.empty()) text += " (" + detail + ")";
        } else if (outcome == CopyOutcome::RolledBack) {
            text = std::string(_op.noun()) + " of " + _op.keyText() + " " + _op.failedWords() +
                   ": " + detail;
        } else {
            text =
                std::string(_op.noun()) + " of " + _op.keyText() + ": outcome unknown: " + detail;
        }

        if (_json) {
            nlohmann::json obj = _endPhase == CopyPhase::Final ? reportJson(_endReport, _endPhase)
                                                               : nlohmann::json::object();
            obj["event"] = "final";
            obj["phase"] = copyPhaseName(_endPhase);
            obj["outcome"] = _op.outcomeName(outcome);
            obj[_op.noun()] = _op.keyJson();
            _op.addFinalJson(obj, _c.get(), _endPhase == CopyPhase::Final ? &_endReport : nullptr);
            obj["elapsedSec"] = elapsed;
            obj["message"] = text;
            _ctx.out.result(obj, "");
            return;
        }
        if (outcome == CopyOutcome::Copied) {
            std::printf("%s\n", text.c_str());
        } else {
            std::fprintf(stderr, "voctl: %s\n", text.c_str());
        }
        if (_endPhase == CopyPhase::Final)
            std::fputs(_op.sinksTable(_c.get(), _endReport).c_str(), stdout);
        std::fflush(stdout);
    }

    Context& _ctx;
    std::unique_ptr<VoClient> _c;  // null while vod cannot be reached
    const StreamOp& _op;
    const double _interval;
    const bool _json;
    const bool _terminal;
    Notes _notes;
    ProgressBoard _board;
    bool _streamed = false;   // a report with stream counters was seen
    StreamReport _last;       // the last report with stream counters
    bool _lastIsEnd = false;  // _last is the final report
    StreamReport _endReport;
    CopyPhase _endPhase = CopyPhase::Gone;
};

}  // namespace

VoIn SourceKey::wire() const {
    VoIn in{};
    in.vidSrc = vid;
    std::copy(srcLp.begin(), srcLp.end(), in.lidSrc);
    return in;
}

std::string SourceKey::text() const {
    std::string s = "vfs " + std::to_string(vid) + " on LP " + formatLpId(srcLp);
    if (!isLidZero(dstLp)) s += " to LP " + formatLpId(dstLp);
    return s;
}

nlohmann::json SourceKey::json() const {
    nlohmann::json j = {{"vfsid", vid}, {"srcLp", formatLpId(srcLp)}};
    if (!isLidZero(dstLp)) j["dstLp"] = formatLpId(dstLp);
    return j;
}

std::string decodedText(VoClient* c, unsigned code) {
    std::string s = decodeCode(c, code);
    if (s.size() > 2 && s[0] == '(') {
        size_t close = s.find(") : ");
        if (close != std::string::npos) return s.substr(1, close - 1) + ": " + s.substr(close + 4);
    }
    return s;
}

std::string tripleText(VoClient* c, unsigned rc, unsigned func, unsigned funcrc) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "rc=%u %s", rc, rcName(rc));
    std::string s = buf;
    if (func != 0 || funcrc != 0) s += ", " + funcText(c, func, funcrc);
    return s;
}

std::string failureReasons(VoClient* c, const StreamReport& r) {
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

nlohmann::json reportJson(const StreamReport& r, CopyPhase phase) {
    nlohmann::json obj = {{"opid", r.voOpid},
                          {"phase", copyPhaseName(phase)},
                          {"rc", r.rc},
                          {"rcName", rcName(r.rc)},
                          {"func", r.func},
                          {"funcName", funcName(r.func)},
                          {"funcrc", r.funcrc},
                          {"src",
                           {{"vfsid", r.src.vfsId},
                            {"lp", formatLpId(lpIdOf(r.src.uuid))},
                            {"status", r.src.status},
                            {"completionCode", r.src.completionCode},
                            {"vnodesTotal", r.src.vnodesTotal},
                            {"vnodesProcessed", r.src.vnodesProcessed},
                            {"megs", r.src.megsProcessed}}},
                          {"sink",
                           {{"isDone", r.sink.isDone != 0},
                            {"completionCode", r.sink.completionCode},
                            {"vfsid", r.sink.vfsId},
                            {"lp", formatLpId(lpIdOf(r.sink.uuid))},
                            {"megs", r.sink.megsProcessed}}}};
    if (r.pass >= 0) {
        obj["pass"] = r.pass;
        obj["finalPass"] = r.finalPass;
    }
    if (r.multiSink) {
        obj.erase("sink");
        nlohmann::json sinks = nlohmann::json::array();
        for (const VoSinkPgrs& s : r.sinks)
            sinks.push_back({{"isDone", s.isDone != 0},
                             {"completionCode", s.completionCode},
                             {"vfsid", s.vfsId},
                             {"lp", formatLpId(lpIdOf(s.uuid))},
                             {"megs", s.megsProcessed},
                             {"state", destStateName(classifyDest(r, s))}});
        obj["sinks"] = sinks;
    }
    return obj;
}

int reportRefusal(Context& ctx, VoClient* c, const std::string& what, const VoOut& out,
                  const std::string& reason) {
    const std::string triple = tripleText(c, out.rc, out.func, out.funcrc);
    std::string msg = what + ": " + (reason.empty() ? triple : reason + " (" + triple + ")");
    if (ctx.out.json()) {
        nlohmann::json obj = voOutJson(out);
        obj["event"] = "refused";
        if (!reason.empty()) obj["reason"] = reason;
        if (unsigned code = decodableFuncrc(out.func, out.funcrc))
            obj["decoded"] = decodedText(c, code);
        obj["error"] = msg;
        obj["status"] = kExitVodFailure;
        ctx.out.result(obj, "");
    }
    std::fprintf(stderr, "voctl: %s\n", msg.c_str());
    return kExitVodFailure;
}

int reportControl(Context& ctx, VoClient* c, const ControlWords& words, const char* noun,
                  const std::string& keyText, const nlohmann::json& keyJson, const VoOut& out) {
    nlohmann::json obj = voOutJson(out);
    obj[noun] = keyJson;
    obj["action"] = words.verb;
    if (out.rc == voErrRcSuccess) {
        ctx.out.result(obj, std::string(words.done) + " " + noun + " of " + keyText);
        return kExitOk;
    }
    std::string msg = std::string(words.verb) + " of " + noun + " " + keyText +
                      " failed: " + tripleText(c, out.rc, out.func, out.funcrc);
    if (out.rc == VoJobInit)
        msg += std::string("; the ") + noun + " has not started yet, try again in a moment";
    if (ctx.out.json()) {
        obj["error"] = msg;
        obj["status"] = kExitVodFailure;
        ctx.out.result(obj, "");
    }
    std::fprintf(stderr, "voctl: %s\n", msg.c_str());
    return kExitVodFailure;
}

Progress StreamOp::progressOf(const StreamReport& r) const {
    Progress p;
    p.megs = r.src.megsProcessed;
    p.vnodesDone = r.src.vnodesProcessed;
    p.vnodesTotal = r.src.vnodesTotal;
    return p;
}

std::string StreamOp::barLabel(const StreamReport& /*r*/) const { return noun(); }

std::vector<BarReading> StreamOp::readings(const StreamReport& r) const {
    return {{barLabel(r), progressOf(r), ""}};
}

int showStreamState(Context& ctx, const StreamOp& op) {
    auto c = ctx.connect();
    if (!c) return kExitUnreachable;
    StreamReport r;
    std::string why;
    if (!op.poll(*c, &r, &why)) return ctx.callFailed(*c);

    CopyPhase phase = classifyCopyReport(r);
    if (phase == CopyPhase::Gone)
        return ctx.out.failure(kExitVodFailure,
                               std::string("vod knows no ") + op.noun() + " of " + op.keyText());
    bool final = phase == CopyPhase::Final;
    CopyOutcome outcome = final ? op.outcomeOf(r) : CopyOutcome::Unknown;

    char buf[160];
    std::vector<std::pair<std::string, std::string>> rows;
    if (r.voOpid != 0) {
        std::snprintf(buf, sizeof buf, "%" PRIu64, static_cast<uint64_t>(r.voOpid));
        rows.push_back({"operation", buf});
    }
    std::string state = copyPhaseName(phase);
    if (final) state += std::string(", ") + op.outcomeName(outcome);
    const std::string sinks = op.sinksTable(c.get(), r);
    rows.push_back({"state", state});
    if (r.pass >= 0) {
        std::snprintf(buf, sizeof buf, "%d%s", r.pass, r.finalPass ? " (final pass)" : "");
        rows.push_back({"pass", buf});
    }
    if (r.rc != voErrRcSuccess)
        rows.push_back({"result", tripleText(c.get(), r.rc, r.func, r.funcrc)});
    if (hasStreamCounters(r)) {
        static const char* const kStatus[] = {"running", "paused", "done"};
        const char* status = r.src.status <= VoDone ? kStatus[r.src.status] : "?";
        std::snprintf(buf, sizeof buf, "vfs %u, stream %s, completion %u", r.src.vfsId, status,
                      r.src.completionCode);
        rows.push_back({"source", buf});
        if (sinks.empty()) {
            std::snprintf(buf, sizeof buf, "vfs %u, %s, completion %u", r.sink.vfsId,
                          r.sink.isDone ? "done" : "not done", r.sink.completionCode);
            rows.push_back({"sink", buf});
        }
        Progress p = op.progressOf(r);
        std::snprintf(buf, sizeof buf, "%" PRIu64 " MB, %u/%u vnodes", p.megs, p.vnodesDone,
                      p.vnodesTotal);
        rows.push_back({"progress", buf});
    }
    bool failed = final && outcome == CopyOutcome::RolledBack;
    if (failed) rows.push_back({"why", op.failureDetail(c.get(), r)});

    nlohmann::json obj = reportJson(r, phase);
    obj[op.noun()] = op.keyJson();
    if (final) obj["outcome"] = op.outcomeName(outcome);
    ctx.out.result(obj, std::string(op.noun()) + " of " + op.keyText() + "\n" +
                            formatTable(rows, "  ") + sinks);
    return failed ? kExitVodFailure : kExitOk;
}

void addFollowOptions(CLI::App& sub, const std::string& noWaitHelp, bool* noWait,
                      double* intervalSec) {
    sub.add_flag("--no-wait", *noWait, noWaitHelp);
    sub.add_option("--interval", *intervalSec, "seconds between progress polls")
        ->capture_default_str()
        ->check(CLI::Range(0.01, 3600.0));
}

int followStream(Context& ctx, std::unique_ptr<VoClient> c, const StreamOp& op,
                 double intervalSec) {
    return StreamFollower(ctx, std::move(c), op, intervalSec).run();
}

}  // namespace voctl
