#include "voctl/mirror_report.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "voctl/output.h"

namespace voctl {

const char* destStateName(DestState s) {
    switch (s) {
        case DestState::Waiting:
            return "waiting";
        case DestState::Streaming:
            return "streaming";
        case DestState::Paused:
            return "paused";
        case DestState::Local:
            return "local";
        case DestState::UpToDate:
            return "up to date";
        case DestState::Offending:
            return "offending";
        case DestState::Done:
            return "done";
        case DestState::Failed:
            return "failed";
    }
    return "?";
}

DestState classifyDest(const StreamReport& r, const VoSinkPgrs& s) {
    const CopyPhase phase = classifyCopyReport(r);
    const bool final = phase == CopyPhase::Final;
    switch (s.completionCode) {
        case kDestUpToDate:
            return DestState::UpToDate;
        case kDestOffending:
            return DestState::Offending;
        case kDestLocal:
            // Still 5005 at the end: the frozen source was kept as the mirror,
            // unless the whole operation failed.
            if (!final) return DestState::Local;
            return r.rc == voErrRcSuccess ? DestState::Done : DestState::Failed;
        case 0:
        case kSinkUpToDate:
            break;
        default:  // kDestLocalFailed, or the copy's own failure
            return DestState::Failed;
    }
    const bool streamed = s.isDone != 0;
    const DestState ok = s.completionCode == kSinkUpToDate ? DestState::UpToDate : DestState::Done;
    // vod commits a streamed destination only when the operation as a whole
    // ended well; otherwise it rolls every one back.
    if (final) return streamed && r.rc == voErrRcSuccess ? ok : DestState::Failed;
    if (streamed) return ok;
    switch (phase) {
        case CopyPhase::Paused:
            return DestState::Paused;
        case CopyPhase::Streaming:
        case CopyPhase::PollFailed:
        case CopyPhase::StreamEnded:
        case CopyPhase::RollingForward:
            return DestState::Streaming;
        default:
            return DestState::Waiting;
    }
}

namespace {

std::string codeWhy(const char* what, unsigned code, const CodeDecoder& decode) {
    return std::string(what) + " (" + std::to_string(code) + ": " + decode(destCodeToDecode(code)) +
           ")";
}

std::string whyOf(const DestOutcome& d, const VoSinkPgrs& s, const CodeDecoder& decode,
                  const std::string& opError) {
    switch (d.state) {
        case DestState::UpToDate:
            return s.completionCode == kDestUpToDate
                       ? codeWhy("already at the source's data version", s.completionCode, decode)
                       : "";
        case DestState::Offending:
            return codeWhy("left out: another operation uses the LP", s.completionCode, decode);
        case DestState::Local:
            return "the source's own LP: made from the frozen source at the end";
        case DestState::Failed:
            if (s.completionCode == kDestLocalFailed)
                return codeWhy("local mirror given up: no other destination made it",
                               s.completionCode, decode);
            if (s.completionCode != 0 && s.completionCode != kSinkUpToDate &&
                s.completionCode != kDestLocal)
                return codeWhy("the stream to it ended with an error", s.completionCode, decode);
            if (!opError.empty()) return "the mirror failed: " + opError;
            return "the stream to it did not finish";
        default:
            return "";
    }
}

}  // namespace

std::vector<DestOutcome> destOutcomes(const StreamReport& r, const LpLabeler& label,
                                      const CodeDecoder& decode, const std::string& opError) {
    std::vector<DestOutcome> out;
    for (const VoSinkPgrs& s : r.sinks) {
        DestOutcome d;
        d.lp = lpIdOf(s.uuid);
        d.label = label(d.lp);
        d.vfsid = s.vfsId;
        d.state = classifyDest(r, s);
        d.megs = s.megsProcessed;
        d.code = s.completionCode;
        d.why = whyOf(d, s, decode, opError);
        out.push_back(std::move(d));
    }
    return out;
}

std::string formatDestTable(const std::vector<DestOutcome>& dests, const std::string& indent) {
    std::vector<std::vector<std::string>> rows = {{"destination", "state", "MB", "detail"}};
    for (const DestOutcome& d : dests)
        rows.push_back({d.label, destStateName(d.state), std::to_string(d.megs), d.why});
    return formatColumns(rows, indent);
}

nlohmann::json destJson(const DestOutcome& d) {
    nlohmann::json j = {{"lp", formatLpId(d.lp)},   {"label", d.label},
                        {"vfsid", d.vfsid},         {"state", destStateName(d.state)},
                        {"ok", endedWell(d.state)}, {"megs", d.megs},
                        {"completionCode", d.code}};
    if (!d.why.empty()) j["why"] = d.why;
    return j;
}

std::string lagText(uint64_t srcDataVer, uint64_t dataVer) {
    const int64_t lag = mirrorLag(srcDataVer, dataVer);
    char buf[64];
    if (lag == 0) return "up to date";
    if (lag < 0) {
        std::snprintf(buf, sizeof buf, "%" PRIu64 " ahead of the source", dataVer - srcDataVer);
        return buf;
    }
    std::snprintf(buf, sizeof buf, "%" PRId64 " behind", lag);
    // A registered mirror that no mirror operation has filled yet.
    return dataVer == 0 ? std::string("never filled (") + buf + ")" : buf;
}

std::string mirrorRecordName(const std::string& srcName, const std::string& lpLabel) {
    std::string suffix = "@" + lpLabel;
    if (suffix.size() >= kMaxMirrorName) suffix.resize(kMaxMirrorName / 2);
    return srcName.substr(0, kMaxMirrorName - suffix.size()) + suffix;
}

}  // namespace voctl
