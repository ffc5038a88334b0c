// The final pass of a move, on the D-blade that serves the source LP.  The request is
// answered at once; a thread of its own then runs the steps in this order, each one a fault
// point named after it ("fault hold incrcopymove.swap", see sim/README.md):
//
//   stop    file changes to the source are refused from here on
//   stream  the sink receives what changed since its data version (incrcopy.cc's send)
//   swap    in one store step the sink takes the source's id; a local move first parks the
//           source under the spare id
//   vldb    the source's VLDB record moves to the target LP with the data version
//   notify  the stream ends and vod is told
//
// A failed step undoes what came before it: the swap is reversed and the source takes
// writes again.  Once the VLDB names the target LP the move stands, and a later failure
// only reports its code.  A dropped step is a D-blade that died there: the stream and the
// stop, both D-blade memory, are gone; nothing else is undone and vod hears nothing.
//
// After a move that succeeded the old source (the source id on its LP, or the spare id for a
// local move) keeps refusing changes until it is deleted or the simulator restarts.

#include "sim/incrcopy_move.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "dblade_incrcopy.h"
#include "dblade_vol.h"
#include "sim/incrcopy.h"
#include "sim/listing.h"
#include "sim/simcontrol.h"
#include "sim/simfaults.h"
#include "sim/simnode.h"
#include "sim/vldbstore.h"

namespace {

using Steady = std::chrono::steady_clock;
using Wall = std::chrono::system_clock;

constexpr unsigned kFinalMoveOpType = 4;

// How long one move kept the source from taking writes: from the stop to the swap, or to
// the release of the stop when it never got that far.
struct MoveStats {
    uint64_t opId = 0;
    uint32_t vfsid = 0;
    bool local = false;
    bool stopped = false, swapped = false, windowClosed = false;
    Wall::time_point stoppedAt{}, swappedAt{};
    Steady::time_point windowStart{}, windowEnd{};
    const char* result = "running";  // then done, failed (with code) or dropped
    unsigned code = 0;
};

// Under SimNode::lock(), in the order the moves were accepted.  A reset empties the list; a
// move still running keeps filling in its own entry.
auto& gStats = *new std::vector<std::shared_ptr<MoveStats>>;

struct Move {
    SimMoveRequest rq;
    bool local = false;
    int64_t srcKey = 0;  // the source volume, whatever id it has by now
    bool stopped = false, swapped = false, vldbSwitched = false;
    std::shared_ptr<MoveStats> stats;  // also in gStats until a reset
};

SimVolume* volumeByKey(int64_t key) {
    for (SimVolume* v : SimVolStore::get().volumes())
        if (v->key == key) return v;
    return nullptr;
}

void closeWindow(MoveStats* s) {
    if (!s->stopped || s->windowClosed) return;
    s->windowClosed = true;
    s->windowEnd = Steady::now();
}

void resumeWrites(Move* m) {
    if (!m->stopped) return;
    if (SimVolume* v = volumeByKey(m->srcKey)) v->stoppedByOpId = 0;
    m->stopped = false;
    closeWindow(m->stats.get());
}

unsigned vicOf(unsigned tarn) {
    switch (tarn) {
        case TARN_OK:
            return 0;
        case TARN_ERR_VOLNOTFOUND:
        case TARN_ERR_LPMMISMATCH:
            return VIC_EVOLNOTFOUND;
        case TARN_ERR_VOLHIDDEN:
        case TARN_ERR_ENORNUM:
            return VIC_EVOLBUSY;
        case TARN_ERR_EEXIST:
        case TARN_ERR_EINVAL:
            return VIC_EINVAL;
        default:
            return VIC_EIO;
    }
}

// ---- the steps ----------------------------------------------------------------------------

unsigned stopWrites(Move* m, std::unique_lock<std::mutex>&) {
    // The stream has held the source since the request came, so it is still there.
    SimVolume* v = volumeByKey(m->srcKey);
    if (!v) return VIC_EVOLNOTFOUND;
    v->stoppedByOpId = m->rq.opId;
    m->stopped = true;
    MoveStats& s = *m->stats;
    s.stopped = true;
    s.stoppedAt = Wall::now();
    s.windowStart = Steady::now();
    return 0;
}

unsigned sendChanges(Move* m, std::unique_lock<std::mutex>& lk) {
    return simStreamSend(m->rq.opId, lk);
}

std::vector<SimRenumber> swapPlan(const Move& m, bool back) {
    const SimMoveRequest& rq = m.rq;
    std::vector<SimRenumber> ids;
    if (!back) {
        if (m.local) ids.push_back({rq.srcLp, rq.srcVfsid, rq.tmpVfsid});
        ids.push_back({rq.dstLp, rq.dstVfsid, rq.srcVfsid});
    } else {
        ids.push_back({rq.dstLp, rq.srcVfsid, rq.dstVfsid});
        if (m.local) ids.push_back({rq.srcLp, rq.tmpVfsid, rq.srcVfsid});
    }
    return ids;
}

unsigned swapIds(Move* m, std::unique_lock<std::mutex>&) {
    SimVolStore& store = SimVolStore::get();
    const SimMoveRequest& rq = m->rq;
    // Renumbering needs both volumes free of the stream.
    simStreamRelease(rq.opId);
    SimVolume* src = store.find(rq.srcLp, rq.srcVfsid);
    SimVolume* sink = store.find(rq.dstLp, rq.dstVfsid);
    if (!src || !sink) return VIC_EVOLNOTFOUND;
    if (sink->dataVersion != src->dataVersion) return VIC_EDVMISMATCH;
    // The moved volume is an ordinary one of the source's kind, with its attributes.
    constexpr unsigned kEveryAttr = ((VOLSET_PERCENTFREE << 1) - 1) & ~VOLSET_VOLUMEID;
    unsigned how = kEveryAttr | (src->type == VOLTYPE_RW ? VOLSET_MAKE_RW : VOLSET_MAKE_RO);
    if (unsigned st = store.setAttrs(rq.dstLp, rq.dstVfsid, how, src->attrs)) return vicOf(st);
    if (unsigned st = store.renumber(swapPlan(*m, false))) return vicOf(st);
    m->swapped = true;
    MoveStats& s = *m->stats;
    s.swapped = true;
    s.swappedAt = Wall::now();
    closeWindow(&s);
    return 0;
}

unsigned switchVldb(Move* m, std::unique_lock<std::mutex>&) {
    const SimMoveRequest& rq = m->rq;
    SimVolume* moved = SimVolStore::get().find(rq.dstLp, rq.srcVfsid);
    if (!moved) return VIC_EVOLNOTFOUND;
    VldbStore& vldb = VldbStore::get();
    if (vldb.vfsMove(rq.srcVfsid, rq.srcLp.data(), rq.dstLp.data())) return VIC_EVLDBNOTIFY;
    if (vldb.modifyDataVer(rq.srcVfsid, rq.dstLp.data(), moved->dataVersion)) {
        vldb.vfsMove(rq.srcVfsid, rq.dstLp.data(), rq.srcLp.data());
        return VIC_EVLDBNOTIFY;
    }
    m->vldbSwitched = true;
    return 0;
}

// The stream ends after the loop, on every path that does not drop it.
unsigned notifyVod(Move*, std::unique_lock<std::mutex>&) { return 0; }

struct Step {
    const char* point;
    unsigned (*run)(Move*, std::unique_lock<std::mutex>&);
};

const Step kSteps[] = {
    {"incrcopymove.stop", stopWrites},  {"incrcopymove.stream", sendChanges},
    {"incrcopymove.swap", swapIds},     {"incrcopymove.vldb", switchVldb},
    {"incrcopymove.notify", notifyVod},
};

// ---- the ends ------------------------------------------------------------------------------

void rollBack(Move* m) {
    if (m->vldbSwitched) return;
    if (m->swapped) {
        if (unsigned st = SimVolStore::get().renumber(swapPlan(*m, true)))
            std::fprintf(stderr, "vodsim: move %llu: swap back failed with %u\n",
                         static_cast<unsigned long long>(m->rq.opId), st);
        else
            m->swapped = false;
    }
    resumeWrites(m);
}

// The D-blade died: what lived only in its memory goes with it.
void die(Move* m) {
    resumeWrites(m);
    m->stats->result = "dropped";
    simStreamForget(m->rq.opId);
}

void run(std::shared_ptr<Move> m) {
    std::unique_lock<std::mutex> lk(SimNode::get().lock());
    unsigned code = 0;
    for (const Step& step : kSteps) {
        // A paused stream holds its steps as it holds its transfer.
        simStreamWaitWhilePaused(m->rq.opId, lk);
        SimFaultVerdict v = simFaultPoint(step.point, lk);
        if (v.kind == SimFaultKind::Drop) return die(m.get());
        if (v.kind == SimFaultKind::Status)
            code = v.status ? v.status : unsigned{VIC_EIO};
        else
            code = step.run(m.get(), lk);
        if (code) {
            std::fprintf(stderr, "vodsim: move %llu: %s failed with %u\n",
                         static_cast<unsigned long long>(m->rq.opId), step.point, code);
            break;
        }
    }
    if (code) rollBack(m.get());
    m->stats->result = code ? "failed" : "done";
    m->stats->code = code;
    simStreamEnd(m->rq.opId, code);
    lk.unlock();
    simNotifyVod(m->rq.opId);
}

// ---- move-stats ----------------------------------------------------------------------------

std::string isoTime(Wall::time_point t) {
    auto us = std::chrono::duration_cast<std::chrono::microseconds>(t.time_since_epoch()).count();
    time_t secs = static_cast<time_t>(us / 1000000);
    struct tm tm;
    gmtime_r(&secs, &tm);
    char buf[64];
    size_t n = strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S", &tm);
    snprintf(buf + n, sizeof buf - n, ".%06lldZ", static_cast<long long>(us % 1000000));
    return buf;
}

// The window so far while it is still open.
double stoppedMs(const MoveStats& s) {
    Steady::time_point end = s.windowClosed ? s.windowEnd : Steady::now();
    return std::chrono::duration<double, std::milli>(end - s.windowStart).count();
}

std::string statsCommand(const std::vector<std::string>& a, bool* ok) {
    std::lock_guard<std::mutex> g(SimNode::get().lock());
    if (a.size() == 1 && a[0] == "reset") {
        gStats.clear();
        return "";
    }
    bool json = a.size() == 1 && a[0] == "--json";
    if (!a.empty() && !json) {
        *ok = false;
        return "usage: move-stats [--json | reset]";
    }
    std::vector<SimRow> rows;
    for (const auto& stats : gStats) {
        const MoveStats& s = *stats;
        SimRow r;
        r.num("opid", s.opId).num("vfsid", uint64_t{s.vfsid}).flag("local", s.local);
        if (s.stopped)
            r.word("stoppedAt", isoTime(s.stoppedAt));
        else
            r.none("stoppedAt");
        if (s.swapped)
            r.word("swappedAt", isoTime(s.swappedAt));
        else
            r.none("swappedAt");
        if (s.stopped)
            r.num("stoppedMs", stoppedMs(s));
        else
            r.none("stoppedMs");
        r.word("result", s.result).num("code", uint64_t{s.code});
        rows.push_back(std::move(r));
    }
    return simListing(rows, json);
}

}  // namespace

unsigned simMoveStart(const SimMoveRequest& rq) {
    SimNode& node = SimNode::get();
    SimVolStore& store = SimVolStore::get();
    if (rq.opType != kFinalMoveOpType) return VIC_EINVAL;
    SimLp* a = node.findLp(rq.srcLp.data());
    SimLp* b = node.findLp(rq.dstLp.data());
    if (!a || !b) return VIC_ELPNOTFOUND;
    if (b->did != rq.dstDid) return VIC_ELPMISMATCH;
    if (rq.srcLp == rq.dstLp || rq.srcVfsid == 0 || rq.dstVfsid == 0 || rq.srcVfsid == rq.dstVfsid)
        return VIC_EINVAL;
    bool local = a->did == b->did;
    SimVolume* src = store.find(rq.srcLp, rq.srcVfsid);
    SimVolume* sink = store.find(rq.dstLp, rq.dstVfsid);
    if (!src || !sink) return VIC_EVOLNOTFOUND;
    if (src->stoppedByOpId || sink->writerOpId || sink->readers) return VIC_EVOLBUSY;
    // The swap must find the source's id free on the target LP, and the spare id on the source's.
    if (store.find(rq.dstLp, rq.srcVfsid)) return VIC_EINVAL;
    if (local && (rq.tmpVfsid == 0 || rq.tmpVfsid == rq.srcVfsid || rq.tmpVfsid == rq.dstVfsid ||
                  store.find(rq.srcLp, rq.tmpVfsid)))
        return VIC_EINVAL;
    if (unsigned st = simStreamOpen(rq.opId, rq.opType, rq.srcLp, rq.srcVfsid,
                                    {SimSinkSpec{rq.dstDid, rq.dstVfsid, rq.dstLp}}))
        return st;

    auto m = std::make_shared<Move>();
    m->rq = rq;
    m->local = local;
    m->srcKey = src->key;
    m->stats = std::make_shared<MoveStats>();
    m->stats->opId = rq.opId;
    m->stats->vfsid = rq.srcVfsid;
    m->stats->local = local;
    gStats.push_back(m->stats);
    std::thread(run, m).detach();
    return 0;
}

void simMoveRegisterCommands() {
    simRegisterCommand("move-stats",
                       "move-stats [--json | reset]: per final move, when writes stopped, when "
                       "the ids were swapped, and the stopped window in ms",
                       statsCommand);
}
