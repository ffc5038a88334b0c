// voctl top without its input and output: the VODB's records grouped into
// operations, what vod's progress reports say of each, how long an operation
// that left the VODB stays in view, and the lines and JSON that show them.
// cmd_top.cc reads the VODB, polls vod and draws; everything here is pure, so
// the tests drive it with made-up records, reports and times.
#ifndef VOCTL_TOP_VIEW_H
#define VOCTL_TOP_VIEW_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "voctl/copy_report.h"
#include "voctl/lpid.h"
#include "voctl/output.h"

namespace voctl {

enum class OpKind { Copy, Move, Mirror, Delete, Dump, Restore, Other };

// "copy", "move", "mirror", "delete", "dump", "restore", "other".
const char* opKindName(OpKind k);

// One VODB record, as the VLDB lists it.
struct TopRecord {
    uint64_t opid = 0;
    unsigned type = 0;  // VoRec::VoType
    uint32_t vfsid = 0;
    LpId lp{};
    unsigned role = 0;     // VoRec::VfsRole
    std::string roleName;  // as VoRec::role2str names it
};

// One operation: its records and what they say it is about.
struct TopOp {
    uint64_t opid = 0;
    OpKind kind = OpKind::Other;
    std::vector<TopRecord> records;
    uint32_t vfsid = 0;      // the source record's volume, else the first record's
    LpId lp{};               // and its LP
    uint32_t sinkVfsid = 0;  // a copy's sink, a move's op sink; 0 when none is recorded
    LpId sinkLp{};
    std::vector<LpId> destLps;  // a mirror's destinations (its op sinks' LPs)

    // Whether vod has a progress report for it (copy, move, mirror).
    bool streams() const;
};

// The records grouped by operation, in opid order.
std::vector<TopOp> groupOperations(const std::vector<TopRecord>& records);

// One destination of a mirror as shown.
struct TopDest {
    LpId lp{};
    std::string state;  // as destStateName says
    uint64_t megs = 0;
};

// What one look at an operation found.
struct TopState {
    std::string state;      // "streaming", "rolling-forward", "recorded", ...
    bool counters = false;  // progress holds a D-blade stream's counters
    Progress progress;
    int pass = -1;  // a move's
    bool finalPass = false;
    std::vector<TopDest> dests;
    std::string outcome;  // once it has ended: "copied", "rolled-back", ...; else empty
};

// What vod answered to a progress poll: a report, or nothing (vod could not
// be asked, or the operation has no progress report).
struct TopPoll {
    bool answered = false;
    StreamReport report;
};

// The state of op after poll. inVodb: whether its records are still there; an
// operation without records whose report vod no longer has has ended with an
// outcome nobody can read from vod any more ("deleted" for a delete, whose
// records go only once it is done; "ended" for the rest).
TopState topStateOf(const TopOp& op, const TopPoll& poll, bool inVodb);

// Names LPs for display: a name, or the id when the name is not known.
using TopLabeler = std::function<std::string(const LpId&)>;

// Every operation in view, refreshed one look at a time.
class TopModel {
  public:
    // lingerSec: how long an ended operation stays in view.
    explicit TopModel(double lingerSec) : _linger(lingerSec) {}

    // One refresh at nowSec: current is what the VODB holds now; poll asks vod
    // about one operation (not called for those without progress reports).
    // Operations that left the VODB are polled until they end; ended ones
    // drop out lingerSec after they ended.
    void refresh(const std::vector<TopOp>& current, double nowSec,
                 const std::function<TopPoll(const TopOp&)>& poll);

    size_t size() const { return _entries.size(); }

    // The screen's body: per operation one line, then its progress bar, its
    // mirror destinations, each indented.
    std::vector<std::string> screenLines(double nowSec, const TopLabeler& label) const;

    // Lines for a log or a pipe: one per operation whose state changed since
    // its last line, or whose last line is plainIntervalSec old.
    std::vector<std::string> plainLines(double nowSec, const TopLabeler& label,
                                        double plainIntervalSec);

    // Every operation in view as JSON objects.
    nlohmann::json json(const TopLabeler& label) const;

  private:
    struct Entry {
        TopOp op;
        TopState state;
        bool inVodb = true;
        double endedAt = -1;                 // when its outcome was first seen
        int meterPass = -2;                  // the pass the meter measures
        std::unique_ptr<ProgressBar> meter;  // rate and ETA of the running stream
        std::string lastPlain;               // state of the last plain line
        double lastPlainAt = -1;
    };
    std::string headline(const Entry& e, const TopLabeler& label) const;
    std::string barLine(const Entry& e, double nowSec) const;

    double _linger;
    std::map<uint64_t, Entry> _entries;
};

}  // namespace voctl

#endif  // VOCTL_TOP_VIEW_H
