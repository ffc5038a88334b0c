#include "voctl/top_view.h"

#include <cinttypes>
#include <cstdio>

#include "voctl/mirror_report.h"
#include "volop/vorec.h"

namespace voctl {

const char* opKindName(OpKind k) {
    switch (k) {
        case OpKind::Copy:
            return "copy";
        case OpKind::Move:
            return "move";
        case OpKind::Mirror:
            return "mirror";
        case OpKind::Delete:
            return "delete";
        case OpKind::Dump:
            return "dump";
        case OpKind::Restore:
            return "restore";
        case OpKind::Other:
            return "other";
    }
    return "?";
}

namespace {

OpKind kindOfType(unsigned type) {
    switch (type) {
        case VoRec::VODB_VOLOP_COPY:
            return OpKind::Copy;
        case VoRec::VODB_VOLOP_MOVE:
        case VoRec::VODB_VOLOP_FINALMOVE:  // a move's last pass records its own type
            return OpKind::Move;
        case VoRec::VODB_VOLOP_MIRROR:
            return OpKind::Mirror;
        case VoRec::VODB_VOLOP_DELETE:
            return OpKind::Delete;
        case VoRec::VODB_VOLOP_DUMP:
            return OpKind::Dump;
        case VoRec::VODB_VOLOP_RESTORE:
            return OpKind::Restore;
        default:
            return OpKind::Other;
    }
}

// The outcome's word for an operation that went through.
const char* doneWord(OpKind k) {
    switch (k) {
        case OpKind::Copy:
            return "copied";
        case OpKind::Move:
            return "moved";
        case OpKind::Mirror:
            return "mirrored";
        case OpKind::Delete:
            return "deleted";
        case OpKind::Dump:
            return "dumped";
        case OpKind::Restore:
            return "restored";
        case OpKind::Other:
            break;
    }
    return "ended";
}

// The outcome a final report shows, as the following subcommands name it.
std::string finalOutcome(const TopOp& op, const StreamReport& r) {
    if (op.kind == OpKind::Mirror) {
        if (r.sinks.empty()) return r.rc == voErrRcSuccess ? "unknown" : "failed";
        for (const VoSinkPgrs& s : r.sinks)
            if (!endedWell(classifyDest(r, s))) return "failed";
        return doneWord(op.kind);
    }
    switch (outcomeOfFinalReport(r)) {
        case CopyOutcome::Copied:
            return doneWord(op.kind);
        case CopyOutcome::RolledBack:
            return "rolled-back";
        case CopyOutcome::Unknown:
            break;
    }
    return "unknown";
}

std::string vfsText(uint32_t vfsid) { return "vfs " + std::to_string(vfsid); }

}  // namespace

bool TopOp::streams() const {
    return kind == OpKind::Copy || kind == OpKind::Move || kind == OpKind::Mirror;
}

std::vector<TopOp> groupOperations(const std::vector<TopRecord>& records) {
    std::map<uint64_t, TopOp> byOpid;
    for (const TopRecord& r : records) {
        TopOp& op = byOpid[r.opid];
        if (op.records.empty()) {
            op.opid = r.opid;
            op.kind = kindOfType(r.type);
            op.vfsid = r.vfsid;
            op.lp = r.lp;
        }
        op.records.push_back(r);
        if (r.role == VoRec::VODB_ROLE_SRC) {
            op.vfsid = r.vfsid;
            op.lp = r.lp;
        } else if (op.kind == OpKind::Copy && r.role == VoRec::VODB_ROLE_SINK) {
            op.sinkVfsid = r.vfsid;
            op.sinkLp = r.lp;
        } else if (op.kind == OpKind::Move && r.role == VoRec::VODB_ROLE_OPSINK) {
            op.sinkVfsid = r.vfsid;
            op.sinkLp = r.lp;
        } else if (op.kind == OpKind::Mirror && r.role == VoRec::VODB_ROLE_OPSINK) {
            op.destLps.push_back(r.lp);
        }
    }
    std::vector<TopOp> out;
    for (auto& [opid, op] : byOpid) out.push_back(std::move(op));
    return out;
}

TopState topStateOf(const TopOp& op, const TopPoll& poll, bool inVodb) {
    TopState s;
    if (!op.streams() || !poll.answered) {
        // Nothing to read but the records: recorded while they are there.
        if (inVodb) {
            s.state = op.streams() ? "no-report" : "recorded";
        } else {
            s.outcome = op.streams() ? "ended" : doneWord(op.kind);
            s.state = "ended";
        }
        return s;
    }
    const StreamReport& r = poll.report;
    const CopyPhase phase = classifyCopyReport(r);
    s.state = copyPhaseName(phase);
    s.counters = hasStreamCounters(r);
    s.progress.megs = r.src.megsProcessed;
    s.progress.vnodesDone = r.src.vnodesProcessed;
    s.progress.vnodesTotal = r.src.vnodesTotal;
    s.pass = r.pass;
    s.finalPass = r.finalPass;
    for (const VoSinkPgrs& d : r.sinks)
        s.dests.push_back({lpIdOf(d.uuid), destStateName(classifyDest(r, d)), d.megsProcessed});
    if (phase == CopyPhase::Final) {
        s.outcome = finalOutcome(op, r);
    } else if (phase == CopyPhase::Gone && !inVodb) {
        // Another client took the last report, or vod was restarted.
        s.outcome = "ended";
    }
    return s;
}

// ---- the model --------------------------------------------------------------

void TopModel::refresh(const std::vector<TopOp>& current, double nowSec,
                       const std::function<TopPoll(const TopOp&)>& poll) {
    for (auto& [opid, e] : _entries) e.inVodb = false;
    for (const TopOp& op : current) {
        Entry& e = _entries[op.opid];
        // A record that comes back after its operation ended (an opid used
        // again) starts a fresh entry.
        if (e.endedAt >= 0) e = Entry{};
        e.op = op;
        e.inVodb = true;
    }
    for (auto it = _entries.begin(); it != _entries.end();) {
        Entry& e = it->second;
        if (e.endedAt >= 0) {
            if (nowSec - e.endedAt >= _linger) {
                it = _entries.erase(it);
                continue;
            }
            ++it;
            continue;
        }
        const TopPoll p = e.op.streams() ? poll(e.op) : TopPoll{};
        TopState s = topStateOf(e.op, p, e.inVodb);
        // A report without a report's worth of news (vod unreachable for this
        // poll) keeps the last counters on screen.
        if (e.op.streams() && !p.answered && e.inVodb && e.state.counters) {
            TopState kept = e.state;
            kept.state = s.state;
            s = kept;
        }
        if (s.counters) {
            if (!e.meter || e.meterPass != s.pass) {
                e.meter = std::make_unique<ProgressBar>(nullptr, false, "");
                e.meterPass = s.pass;
            }
            e.meter->record(s.progress, nowSec);
        }
        e.state = std::move(s);
        if (!e.state.outcome.empty()) e.endedAt = nowSec;
        ++it;
    }
}

std::string TopModel::headline(const Entry& e, const TopLabeler& label) const {
    const TopOp& op = e.op;
    char buf[64];
    std::snprintf(buf, sizeof buf, "%-8" PRIu64 " %-7s ", op.opid, opKindName(op.kind));
    std::string s = buf;
    s += vfsText(op.vfsid) + " on " + label(op.lp);
    if (op.sinkVfsid != 0 || !isLidZero(op.sinkLp)) {
        s += " -> ";
        if (op.kind == OpKind::Copy) s += vfsText(op.sinkVfsid) + " on ";
        s += label(op.sinkLp);
    }
    if (!op.destLps.empty()) {
        s += " -> " + std::to_string(op.destLps.size()) + " LP" +
             (op.destLps.size() == 1 ? "" : "s");
    }
    if (e.state.pass >= 0) {
        s += e.state.finalPass ? "  final pass" : "  pass " + std::to_string(e.state.pass);
    }
    s += "  " + (e.state.outcome.empty() ? e.state.state : e.state.outcome);
    return s;
}

std::string TopModel::barLine(const Entry& e, double nowSec) const {
    if (!e.state.counters || !e.meter) return "";
    return e.meter->line(e.state.progress, nowSec);
}

std::vector<std::string> TopModel::screenLines(double nowSec, const TopLabeler& label) const {
    std::vector<std::string> out;
    for (const auto& [opid, e] : _entries) {
        out.push_back(headline(e, label));
        const std::string bar = barLine(e, nowSec);
        if (!bar.empty()) out.push_back("         " + bar);
        for (const TopDest& d : e.state.dests) {
            char megs[32];
            std::snprintf(megs, sizeof megs, "%" PRIu64 " MB", d.megs);
            out.push_back("         -> " + label(d.lp) + "  " + d.state + "  " + megs);
        }
    }
    return out;
}

std::vector<std::string> TopModel::plainLines(double nowSec, const TopLabeler& label,
                                              double plainIntervalSec) {
    std::vector<std::string> out;
    for (auto& [opid, e] : _entries) {
        const std::string what = e.state.outcome.empty() ? e.state.state : e.state.outcome;
        const bool due = e.lastPlainAt < 0 || what != e.lastPlain ||
                         (e.state.outcome.empty() && nowSec - e.lastPlainAt >= plainIntervalSec);
        if (!due) continue;
        std::string line = headline(e, label);
        const std::string bar = barLine(e, nowSec);
        if (!bar.empty()) line += "  " + bar;
        out.push_back(line);
        e.lastPlain = what;
        e.lastPlainAt = nowSec;
    }
    return out;
}

nlohmann::json TopModel::json(const TopLabeler& label) const {
    nlohmann::json ops = nlohmann::json::array();
    for (const auto& [opid, e] : _entries) {
        const TopOp& op = e.op;
        nlohmann::json records = nlohmann::json::array();
        for (const TopRecord& r : op.records) {
            records.push_back({{"vfsid", r.vfsid},
                               {"lp", formatLpId(r.lp)},
                               {"lpName", label(r.lp)},
                               {"role", r.role},
                               {"roleName", r.roleName}});
        }
        nlohmann::json o = {{"opid", op.opid},        {"kind", opKindName(op.kind)},
                            {"vfsid", op.vfsid},      {"lp", formatLpId(op.lp)},
                            {"lpName", label(op.lp)}, {"state", e.state.state},
                            {"records", records}};
        if (!e.state.outcome.empty()) o["outcome"] = e.state.outcome;
        if (e.state.counters) {
            o["megs"] = e.state.progress.megs;
            o["vnodesDone"] = e.state.progress.vnodesDone;
            o["vnodesTotal"] = e.state.progress.vnodesTotal;
        }
        if (e.state.pass >= 0) {
            o["pass"] = e.state.pass;
            o["finalPass"] = e.state.finalPass;
        }
        if (op.kind == OpKind::Mirror) {
            nlohmann::json dests = nlohmann::json::array();
            for (const TopDest& d : e.state.dests)
                dests.push_back({{"lp", formatLpId(d.lp)},
                                 {"lpName", label(d.lp)},
                                 {"state", d.state},
                                 {"megs", d.megs}});
            o["destinations"] = dests;
        }
        ops.push_back(o);
    }
    return ops;
}

}  // namespace voctl
