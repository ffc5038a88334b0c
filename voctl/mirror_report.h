// voctl mirror: what a mirror's progress report says of each destination LP,
// the per-destination outcome table, and how far a mirror lags its source.
//
// vod answers a mirror's progress poll with one report for the whole
// operation (the error triple and the source side of the one stream) and one
// entry per destination LP, in which completionCode doubles as the
// destination's state: besides the incremental copy's completion codes it
// carries vod's own reasons for leaving a destination out.
#ifndef VOCTL_MIRROR_REPORT_H
#define VOCTL_MIRROR_REPORT_H

#include <cstdint>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "vo.h"
#include "voctl/copy_report.h"
#include "voctl/lpid.h"

namespace voctl {

// All mirrors of a volume share one VFS id: the source's with this bit set.
constexpr uint32_t kMirrorIdBit = 0x40000000;
inline uint32_t mirrorIdOf(uint32_t vfsid) { return vfsid | kMirrorIdBit; }

// vod's codes in a destination's completionCode, besides the copy's own.
constexpr unsigned kDestLocal = 5005;        // on the source's LP: the frozen source becomes it
constexpr unsigned kDestUpToDate = 5007;     // already at the source's data version: skipped
constexpr unsigned kDestOffending = 5009;    // another operation uses that LP: left out
constexpr unsigned kDestLocalFailed = 5032;  // the local mirror was given up: no remote one made it

enum class DestState {
    Waiting,    // vod is still setting the operation up
    Streaming,  // the stream to it runs
    Paused,
    Local,      // the local mirror, made when the operation concludes
    UpToDate,   // nothing to copy: skipped by vod, or the D-blade found it current
    Offending,  // left out: another operation uses the LP
    Done,       // streamed (and, in a final report, committed)
    Failed
};

// "waiting", "streaming", "paused", "local", "up to date", "offending", "done", "failed".
const char* destStateName(DestState s);

// The destination needs nothing more: it holds the source's data version.
inline bool endedWell(DestState s) { return s == DestState::UpToDate || s == DestState::Done; }

// The state of destination entry s of report r.
DestState classifyDest(const StreamReport& r, const VoSinkPgrs& s);

// The 32-bit code whose decoding explains a destination's completion code:
// vod's own codes go in the low half above 35000, the copy's stand as they are.
inline unsigned destCodeToDecode(unsigned completionCode) {
    return completionCode >= 5000 && completionCode < 5600 ? 35000 + completionCode
                                                           : completionCode;
}

using CodeDecoder = std::function<std::string(unsigned code)>;
using LpLabeler = std::function<std::string(const LpId& lp)>;

// One destination in the outcome table.
struct DestOutcome {
    LpId lp{};
    std::string label;   // the LP as the user named it, else its id
    uint32_t vfsid = 0;  // vod's volume for it during the operation; 0 while none
    DestState state = DestState::Waiting;
    uint64_t megs = 0;
    unsigned code = 0;  // the entry's completion code
    std::string why;    // for a destination that was skipped, left out or failed
};

// The destinations of r, in vod's order. opError is the operation's own
// failure in words ("" when none): the reason of a destination that failed
// only because the operation did.
std::vector<DestOutcome> destOutcomes(const StreamReport& r, const LpLabeler& label,
                                      const CodeDecoder& decode, const std::string& opError);

// Columns destination, state, MB, detail; each row after indent.
std::string formatDestTable(const std::vector<DestOutcome>& dests, const std::string& indent);

nlohmann::json destJson(const DestOutcome& d);

// How far a mirror lags its source in data versions, negative when the VLDB
// shows it ahead.
inline int64_t mirrorLag(uint64_t srcDataVer, uint64_t dataVer) {
    return static_cast<int64_t>(srcDataVer - dataVer);
}

// The lag in words: "up to date", "12 behind", "never filled (12 behind)",
// "3 ahead of the source".
std::string lagText(uint64_t srcDataVer, uint64_t dataVer);

// Longest volume name the VO records carry.
constexpr size_t kMaxMirrorName = 128;

// The name of the VLDB record that registers a mirror on an LP:
// "SOURCE@LP", the source's part cut so that the whole fits the VO records.
std::string mirrorRecordName(const std::string& srcName, const std::string& lpLabel);

}  // namespace voctl

#endif  // VOCTL_MIRROR_REPORT_H
