// Reading a copy's or a move's progress reports. vod answers every poll with
// one VoCopyPgrsOut (VoMovePgrsOut for a move, the same fields and the pass);
// what state the operation is in has to be read from its rc and the stream
// counters together, because a finished operation reports its final error
// triple in the same rc field that otherwise says "still going".
//
// The readings take any record with the fields rc, func, src and sink: the
// wire records themselves, or the StreamReport the tool keeps of either.
//
// Header-only so that the tests can use it without linking the tool.
#ifndef VOCTL_COPY_REPORT_H
#define VOCTL_COPY_REPORT_H

#include <cstdint>
#include <vector>

#include "vo.h"

namespace voctl {

// The incremental-copy completion codes a copy's outcome depends on.
constexpr unsigned kSinkUpToDate = 20002;  // the sink had the source's data already

enum class CopyPhase {
    Initialising,    // VoJobInit: waiting for its first worker turn
    Streaming,       // rc 0, the D-blade's stream is running
    Paused,          // rc 0, the stream is paused
    StreamEnded,     // voErrEndStream: the stream is done, vod concludes the copy
    RollingForward,  // voErrRollForwardOp: being committed
    RollingBack,     // voErrRollBackOp: being undone, or still being set up
    PollFailed,      // vod could not reach the D-blade for this poll; the copy goes on
    Final,           // the last report of a retired copy
    Gone             // voErrNoSuchOp: vod no longer knows the copy
};

inline const char* copyPhaseName(CopyPhase p) {
    switch (p) {
        case CopyPhase::Initialising:
            return "initialising";
        case CopyPhase::Streaming:
            return "streaming";
        case CopyPhase::Paused:
            return "paused";
        case CopyPhase::StreamEnded:
            return "stream-ended";
        case CopyPhase::RollingForward:
            return "rolling-forward";
        case CopyPhase::RollingBack:
            return "rolling-back";
        case CopyPhase::PollFailed:
            return "poll-failed";
        case CopyPhase::Final:
            return "final";
        case CopyPhase::Gone:
            return "gone";
    }
    return "?";
}

// One progress report of a copy, a move or a mirror, copied out of the reply,
// so that it outlives the reply's memory.
struct StreamReport {
    uint64_t voOpid = 0;  // a move's is 0 unless the operation fills it
    voErrRc rc = voErrRcSuccess;
    voErrFunc func = voErrFuncSuccess;
    unsigned funcrc = 0;
    VoSrcPgrs src{};
    VoSinkPgrs sink{};  // a copy's or a move's one sink
    int pass = -1;      // a move's pass (loopNum); -1 otherwise
    bool finalPass = false;
    bool multiSink = false;         // a mirror's: one entry per destination in sinks
    std::vector<VoSinkPgrs> sinks;  // in vod's order of the destinations
};

// The fields every operation's report has.
template <typename Reply>
StreamReport streamReportHead(const Reply& r) {
    StreamReport s;
    s.voOpid = r.voOpid;
    s.rc = r.rc;
    s.func = r.func;
    s.funcrc = r.funcrc;
    s.src = r.src;
    return s;
}

template <typename Reply>
StreamReport streamReportOf(const Reply& r) {
    StreamReport s = streamReportHead(r);
    s.sink = r.sink;
    return s;
}

inline StreamReport streamReportOf(const VoMovePgrsOut& r) {
    StreamReport s = streamReportOf<VoMovePgrsOut>(r);
    s.pass = r.loopNum;
    s.finalPass = r.isFinalLoop != 0;
    return s;
}

// numSinks only repeats the array's count; the array is what was sent.
inline StreamReport streamReportOf(const VoMirrorPgrsOut& r) {
    StreamReport s = streamReportHead(r);
    s.multiSink = true;
    if (r.sinks.sinks_val != nullptr)
        s.sinks.assign(r.sinks.sinks_val, r.sinks.sinks_val + r.sinks.sinks_len);
    return s;
}

// True when the report carries counters of a D-blade stream. An operation
// that vod rebuilt after a restart has none: its stream died with the old vod.
template <typename Report>
bool hasStreamCounters(const Report& r) {
    return r.src.vfsId != 0;
}

template <typename Report>
CopyPhase classifyCopyReport(const Report& r) {
    switch (r.rc) {
        case VoJobInit:
            return CopyPhase::Initialising;
        case voErrEndStream:
            return CopyPhase::StreamEnded;
        case voErrRollForwardOp:
            return CopyPhase::RollingForward;
        case voErrRollBackOp:
            return CopyPhase::RollingBack;
        case voErrNoSuchOp:
            return CopyPhase::Gone;
        case voErrRpcFailure:
            // A failed poll of a running stream; a retired copy whose last
            // error was that poll looks the same, and the next poll tells them
            // apart (it is gone once its last report was taken).
            return r.func == voErrDbladeIncrCopyProgressRpc ? CopyPhase::PollFailed
                                                            : CopyPhase::Final;
        case voErrRcSuccess:
            if (hasStreamCounters(r) && r.src.status == VoRunning) return CopyPhase::Streaming;
            if (hasStreamCounters(r) && r.src.status == VoPaused) return CopyPhase::Paused;
            // A running poll that finds the stream done says voErrEndStream, so
            // rc 0 with a done stream, or with no stream at all, is the end.
            return CopyPhase::Final;
        default:
            return CopyPhase::Final;
    }
}

enum class CopyOutcome {
    Copied,      // the sink holds the source's contents and is registered (moved, for a move)
    RolledBack,  // the operation failed or was cancelled; the sink is gone
    Unknown      // the report cannot tell: ask the VLDB whether the sink exists
};

inline const char* copyOutcomeName(CopyOutcome o) {
    switch (o) {
        case CopyOutcome::Copied:
            return "copied";
        case CopyOutcome::RolledBack:
            return "rolled-back";
        case CopyOutcome::Unknown:
            return "unknown";
    }
    return "?";
}

// The outcome a final report shows: the tests vod itself applies before it
// commits a copy, plus a clean error triple.
template <typename Report>
CopyOutcome outcomeOfFinalReport(const Report& r) {
    if (r.rc == voErrRcSuccess && !hasStreamCounters(r)) return CopyOutcome::Unknown;
    bool streamOk = r.src.status == VoDone && r.src.completionCode == 0 && r.sink.isDone != 0 &&
                    (r.sink.completionCode == 0 || r.sink.completionCode == kSinkUpToDate);
    return r.rc == voErrRcSuccess && streamOk ? CopyOutcome::Copied : CopyOutcome::RolledBack;
}

// A funcrc as the low half of a decodable code: what the status means depends
// on which function failed. 0 when it carries nothing to decode.
inline unsigned decodableFuncrc(unsigned func, unsigned funcrc) {
    if (func == 0 || funcrc == 0) return 0;
    if (func == voErrValidateSinkDV) return 0;
    if (func >= 10000) return 30300 + funcrc;  // transport failure: a clnt_stat
    if (func >= 2000) return funcrc >= 5000 && funcrc < 5600 ? 35000 + funcrc : 0;  // vod's own
    if (func >= 500) return funcrc;          // D-blade status or incremental-copy completion code
    if (func >= 400) return funcrc;          // D-blade volume status
    if (func >= 200) return 30400 + funcrc;  // VLDB and VODB statuses
    if (func >= 100) return 30600 + funcrc;  // DLDB
    return 0;
}

}  // namespace voctl

#endif  // VOCTL_COPY_REPORT_H
