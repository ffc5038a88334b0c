// What the stream operations' subcommands (copy, move, mirror) share: the
// error triple in words, a progress report as JSON, and the follower that
// polls one operation from its start to its end, draws its progress and
// reports how it ended. Each operation plugs in through StreamOp.
#ifndef VOCTL_STREAM_FOLLOW_H
#define VOCTL_STREAM_FOLLOW_H

#include <memory>
#include <string>
#include <vector>

#include "voctl/command.h"
#include "voctl/copy_report.h"
#include "voctl/lpid.h"

namespace voctl {

// A move or a mirror: vod finds either by its source (VFS id, LP).
struct SourceKey {
    uint32_t vid = 0;
    LpId srcLp{};
    LpId dstLp{};  // all zero when the command does not name it

    VoIn wire() const;
    // "vfs 7 on LP 0x..", then " to LP 0x.." when dstLp is named.
    std::string text() const;
    // vfsid, srcLp, and dstLp when named.
    nlohmann::json json() const;
};

// vod's "(module) procedure: message" without the empty procedure name that
// codes carrying only a low half have: "module: message".
std::string decodedText(VoClient* c, unsigned code);

// "rc=3 voErrRollBackOp, func=403 voErrDbladeVolCreate, funcrc=28 (TarnFS: ...)";
// func and funcrc only when either is set.
std::string tripleText(VoClient* c, unsigned rc, unsigned func, unsigned funcrc);

// Why a final report counts as a failure, in words: the error triple and the
// stream's completion codes, each decoded.
std::string failureReasons(VoClient* c, const StreamReport& r);

// The report's fields, with the names beside the numbers; a move's pass too,
// and for a mirror "sinks", one per destination with its state, instead of
// "sink".
nlohmann::json reportJson(const StreamReport& r, CopyPhase phase);

// A request vod refused (its VoOut triple): "voctl: WHAT: TRIPLE" on standard
// error, or "voctl: WHAT: REASON (TRIPLE)" when the caller can say what the
// refusal means, and, with --json, the triple with event "refused", the
// reason and the decoded funcrc when there are any. Returns kExitVodFailure.
int reportRefusal(Context& ctx, VoClient* c, const std::string& what, const VoOut& out,
                  const std::string& reason = "");

// The pause, resume and cancel subcommands: their words and how they report
// vod's answer.
struct ControlWords {
    const char* verb;  // for messages: "pause"
    const char* done;  // "paused"
};
// Prints "paused copy of KEY" or the failure; keyJson goes under noun.
// Returns the exit status.
int reportControl(Context& ctx, VoClient* c, const ControlWords& words, const char* noun,
                  const std::string& keyText, const nlohmann::json& keyJson, const VoOut& out);

// One progress call (vocopypgrs_1, vomovepgrs_1, vomirrorpgrs_1) with in, its
// reply kept as *r; false when vod could not be asked (why says so).
template <typename In, typename Reply, typename Filter>
bool pollStream(VoClient& c, clnt_stat (*stub)(In*, Reply*, CLIENT*), In in, Filter filter,
                StreamReport* r, std::string* why) {
    XdrResult<Reply> out(filter);
    if (c.call(stub, &in, out.get()) != RPC_SUCCESS) {
        *why = c.callError();
        return false;
    }
    *r = streamReportOf(*out);
    return true;
}

// One kind of stream operation, as the follower needs to know it.
class StreamOp {
  public:
    virtual ~StreamOp() = default;
    // "copy"; also the key of keyJson() in the JSON output.
    virtual const char* noun() const = 0;
    // The outcome's name when it went through: "copied".
    virtual const char* doneWord() const = 0;
    // Which operation: "vfs 7 on LP 0x.. to vfs 9 on LP 0x..".
    virtual std::string keyText() const = 0;
    virtual nlohmann::json keyJson() const = 0;
    // The first words of the success line: "copied KEY as 'name'".
    virtual std::string doneText() const = 0;
    // One poll on c; false when vod could not be asked (why says so).
    virtual bool poll(VoClient& c, StreamReport* r, std::string* why) const = 0;
    // The reading a progress bar shows.
    virtual Progress progressOf(const StreamReport& r) const;
    // The bar's label for the stream of r; a new label starts a new bar.
    virtual std::string barLabel(const StreamReport& r) const;
    // Every bar r gives a reading for: by default one, from the two above.
    virtual std::vector<BarReading> readings(const StreamReport& r) const;
    // The outcome a final report shows.
    virtual CopyOutcome outcomeOf(const StreamReport& r) const { return outcomeOfFinalReport(r); }
    // Why a final report counts as a failure, in words.
    virtual std::string failureDetail(VoClient* c, const StreamReport& r) const {
        return failureReasons(c, r);
    }
    // What the failure line says happened: "failed and was rolled back".
    virtual const char* failedWords() const { return "failed and was rolled back"; }
    // A table of the operation's sinks, shown under its state and under the
    // final line; empty for an operation with one sink.
    virtual std::string sinksTable(VoClient* /*c*/, const StreamReport& /*r*/) const { return ""; }
    // The outcome when vod's reports cannot tell (rebuilt after a restart, or
    // the last report went to another client): how the cluster looks now.
    // c may be null while vod cannot be reached.
    virtual CopyOutcome outcomeFromCluster(VoClient* c, std::string* why) const = 0;
    // Fields the final JSON object adds; end is the final report, null when
    // vod gave none.
    virtual void addFinalJson(nlohmann::json& /*obj*/, VoClient* /*c*/,
                              const StreamReport* /*end*/) const {}

    virtual const char* outcomeName(CopyOutcome o) const {
        return o == CopyOutcome::Copied ? doneWord() : copyOutcomeName(o);
    }
};

// Polls the operation once and shows its state: a table, or the report as
// JSON. Exit status 1 when vod knows no such operation or its last report
// shows that it failed.
int showStreamState(Context& ctx, const StreamOp& op);

// The options of a subcommand that starts an operation and follows it:
// --no-wait, with noWaitHelp saying what it does, and --interval.
void addFollowOptions(CLI::App& sub, const std::string& noWaitHelp, bool* noWait,
                      double* intervalSec);

// Follows one operation from its start to its final report: polls every
// intervalSec, shows the progress, rides out a vod that stops answering for a
// while, and reports how the operation ended. c may be the connection that
// started it. Returns 0 when it went through, 1 when it failed or its outcome
// is unknown, 3 when vod stayed out of reach.
int followStream(Context& ctx, std::unique_ptr<VoClient> c, const StreamOp& op, double intervalSec);

}  // namespace voctl

#endif  // VOCTL_STREAM_FOLLOW_H
