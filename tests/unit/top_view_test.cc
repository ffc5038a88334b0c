#include "voctl/top_view.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "volop/vorec.h"

namespace {

using voctl::LpId;
using voctl::OpKind;
using voctl::StreamReport;
using voctl::TopModel;
using voctl::TopOp;
using voctl::TopPoll;
using voctl::TopRecord;

LpId lp(uint8_t b) {
    LpId id{};
    id[0] = b;
    return id;
}

TopRecord rec(uint64_t opid, VoRec::VoType type, uint32_t vfsid, uint8_t lpByte,
              VoRec::VfsRole role) {
    return {opid,       static_cast<unsigned>(type), vfsid,
            lp(lpByte), static_cast<unsigned>(role), VoRec::role2str(role)};
}

// The names the screen shows: lpNN for a known LP.
std::string label(const LpId& id) { return "lp" + std::to_string(id[0]); }

// A copy's or a move's report: rc, the stream's status, counters or none.
StreamReport report(voErrRc rc, VoStatusCode status, bool counters, unsigned done = 40,
                    unsigned total = 100, uint64_t megs = 8) {
    StreamReport r;
    r.rc = rc;
    r.src.vfsId = counters ? 1001 : 0;
    r.src.status = status;
    r.src.vnodesProcessed = done;
    r.src.vnodesTotal = total;
    r.src.megsProcessed = megs;
    return r;
}

StreamReport committed() {
    StreamReport r = report(voErrRcSuccess, VoDone, true, 100, 100, 20);
    r.sink.isDone = 1;
    return r;
}

TEST(TopView, RecordsGroupIntoOperationsWithTheirVolumeAndLps) {
    using R = VoRec;
    const std::vector<TopRecord> records = {
        // a copy from a clone: source, op src (the clone), sink
        rec(7, R::VODB_VOLOP_COPY, 1002, 0x1A, R::VODB_ROLE_OPSRC),
        rec(7, R::VODB_VOLOP_COPY, 1001, 0x1A, R::VODB_ROLE_SRC),
        rec(7, R::VODB_VOLOP_COPY, 1003, 0x2A, R::VODB_ROLE_SINK),
        // a move in its final pass
        rec(9, R::VODB_VOLOP_FINALMOVE, 1010, 0x1B, R::VODB_ROLE_SRC),
        rec(9, R::VODB_VOLOP_FINALMOVE, 1011, 0x2B, R::VODB_ROLE_OPSINK),
        // a mirror to two LPs
        rec(8, R::VODB_VOLOP_MIRROR, 1020, 0x1A, R::VODB_ROLE_SRC),
        rec(8, R::VODB_VOLOP_MIRROR, 1021, 0x1A, R::VODB_ROLE_OPSRC),
        rec(8, R::VODB_VOLOP_MIRROR, 1022, 0x2A, R::VODB_ROLE_OPSINK),
        rec(8, R::VODB_VOLOP_MIRROR, 1023, 0x2B, R::VODB_ROLE_OPSINK),
        // a delete, and a type this tool does not know
        rec(11, R::VODB_VOLOP_DELETE, 1030, 0x1B, R::VODB_ROLE_SRC),
        {12, 42, 1040, lp(0x1A), R::VODB_ROLE_SRC, "src"},
    };
    const struct {
        uint64_t opid;
        OpKind kind;
        uint32_t vfsid;
        uint8_t lp;
        uint32_t sinkVfsid;
        uint8_t sinkLp;
        size_t dests;
        bool streams;
    } want[] = {
        {7, OpKind::Copy, 1001, 0x1A, 1003, 0x2A, 0, true},
        {8, OpKind::Mirror, 1020, 0x1A, 0, 0, 2, true},
        {9, OpKind::Move, 1010, 0x1B, 1011, 0x2B, 0, true},
        {11, OpKind::Delete, 1030, 0x1B, 0, 0, 0, false},
        {12, OpKind::Other, 1040, 0x1A, 0, 0, 0, false},
    };
    const std::vector<TopOp> ops = voctl::groupOperations(records);
    ASSERT_EQ(ops.size(), std::size(want));
    for (size_t i = 0; i < ops.size(); ++i) {
        const auto& w = want[i];
        const TopOp& op = ops[i];
        SCOPED_TRACE("opid " + std::to_string(w.opid));
        EXPECT_EQ(op.opid, w.opid);
        EXPECT_EQ(op.kind, w.kind);
        EXPECT_EQ(op.vfsid, w.vfsid);
        EXPECT_EQ(op.lp, lp(w.lp));
        EXPECT_EQ(op.sinkVfsid, w.sinkVfsid);
        EXPECT_EQ(op.sinkLp, w.sinkLp ? lp(w.sinkLp) : LpId{});
        EXPECT_EQ(op.destLps.size(), w.dests);
        EXPECT_EQ(op.streams(), w.streams);
    }
}

TEST(TopView, StateAndOutcomeComeFromTheReportAndTheRecords) {
    TopOp copy;
    copy.kind = OpKind::Copy;
    TopOp move = copy;
    move.kind = OpKind::Move;
    TopOp del = copy;
    del.kind = OpKind::Delete;
    StreamReport rolledBack = report(voErrRcSuccess, VoDone, true, 100, 100);
    rolledBack.sink.isDone = 1;
    rolledBack.src.completionCode = 20005;

    const struct {
        const char* name;
        const TopOp* op;
        bool answered;
        StreamReport r;
        bool inVodb;
        const char* state;
        const char* outcome;
        bool counters;
    } rows[] = {
        {"copy streaming", &copy, true, report(voErrRcSuccess, VoRunning, true), true, "streaming",
         "", true},
        {"copy paused", &copy, true, report(voErrRcSuccess, VoPaused, true), true, "paused", "",
         true},
        {"copy set up", &copy, true, report(VoJobInit, VoRunning, false), true, "initialising", "",
         false},
        {"copy committing", &copy, true, report(voErrRollForwardOp, VoDone, true), true,
         "rolling-forward", "", true},
        {"copy committed", &copy, true, committed(), false, "final", "copied", true},
        {"copy that failed", &copy, true, rolledBack, false, "final", "rolled-back", true},
        {"move done", &move, true, committed(), false, "final", "moved", true},
        {"a report another client took", &copy, true, report(voErrNoSuchOp, VoDone, false), false,
         "gone", "ended", false},
        {"forgotten but still recorded", &copy, true, report(voErrNoSuchOp, VoDone, false), true,
         "gone", "", false},
        {"vod unreachable", &copy, false, {}, true, "no-report", "", false},
        {"vod unreachable, records gone", &copy, false, {}, false, "ended", "ended", false},
        {"delete recorded", &del, false, {}, true, "recorded", "", false},
        {"delete done", &del, false, {}, false, "ended", "deleted", false},
    };
    for (const auto& r : rows) {
        const voctl::TopState s = voctl::topStateOf(*r.op, TopPoll{r.answered, r.r}, r.inVodb);
        EXPECT_EQ(s.state, r.state) << r.name;
        EXPECT_EQ(s.outcome, r.outcome) << r.name;
        EXPECT_EQ(s.counters, r.counters) << r.name;
    }
}

TEST(TopView, AMirrorShowsEachDestinationAndFailsWhenOneDid) {
    TopOp mirror;
    mirror.kind = OpKind::Mirror;
    StreamReport r = report(voErrRcSuccess, VoDone, true, 100, 100);
    r.multiSink = true;
    VoSinkPgrs ok{};
    ok.isDone = 1;
    ok.uuid[0] = 0x2A;
    ok.megsProcessed = 12;
    VoSinkPgrs bad = ok;
    bad.completionCode = 20005;
    bad.uuid[0] = 0x2B;
    r.sinks = {ok, bad};

    voctl::TopState s = voctl::topStateOf(mirror, TopPoll{true, r}, false);
    EXPECT_EQ(s.outcome, "failed");
    ASSERT_EQ(s.dests.size(), 2u);
    EXPECT_EQ(s.dests[0].lp, lp(0x2A));
    EXPECT_EQ(s.dests[0].megs, 12u);
    EXPECT_EQ(s.dests[0].state, "done");
    EXPECT_EQ(s.dests[1].state, "failed");

    r.sinks = {ok};
    EXPECT_EQ(voctl::topStateOf(mirror, TopPoll{true, r}, false).outcome, "mirrored");
}

// One copy through top's refreshes: running, then gone from the VODB with its
// final report, shown with its outcome until the linger runs out.
TEST(TopView, AnEndedOperationLingersWithItsOutcomeThenGoes) {
    using R = VoRec;
    const std::vector<TopOp> running = voctl::groupOperations({
        rec(7, R::VODB_VOLOP_COPY, 1001, 0x1A, R::VODB_ROLE_SRC),
        rec(7, R::VODB_VOLOP_COPY, 1003, 0x2A, R::VODB_ROLE_SINK),
    });
    StreamReport next = report(voErrRcSuccess, VoRunning, true, 10, 100, 2);
    int polls = 0;
    auto poll = [&](const TopOp& op) {
        ++polls;
        EXPECT_EQ(op.sinkVfsid, 1003u);  // what vod finds the copy by
        return TopPoll{true, next};
    };

    TopModel model(10);
    model.refresh(running, 100, poll);
    next = report(voErrRcSuccess, VoRunning, true, 60, 100, 12);
    model.refresh(running, 102, poll);
    std::vector<std::string> screen = model.screenLines(102, label);
    ASSERT_EQ(screen.size(), 2u);
    EXPECT_EQ(screen[0], "7        copy    vfs 1001 on lp26 -> vfs 1003 on lp42  streaming");
    // The bar, with the rate measured over top's own readings: 10 MB in 2 s.
    EXPECT_NE(screen[1].find("[############"), std::string::npos) << screen[1];
    EXPECT_NE(screen[1].find(" 60%"), std::string::npos) << screen[1];
    EXPECT_NE(screen[1].find("5.0 MB/s"), std::string::npos) << screen[1];

    next = committed();
    model.refresh({}, 103, poll);  // the records went; the last report says how it ended
    screen = model.screenLines(103, label);
    ASSERT_FALSE(screen.empty());
    EXPECT_NE(screen[0].find("copied"), std::string::npos) << screen[0];
    EXPECT_EQ(model.json(label)[0].value("outcome", ""), "copied");

    const int pollsAtEnd = polls;
    model.refresh({}, 112.9, poll);  // still lingering; an ended copy is not asked again
    EXPECT_EQ(model.size(), 1u);
    EXPECT_EQ(polls, pollsAtEnd);
    model.refresh({}, 113, poll);
    EXPECT_EQ(model.size(), 0u);
}

TEST(TopView, PlainLinesComeOnChangeAndEveryIntervalWhileRunning) {
    using R = VoRec;
    const std::vector<TopOp> ops = voctl::groupOperations({
        rec(5, R::VODB_VOLOP_MOVE, 1001, 0x1A, R::VODB_ROLE_SRC),
        rec(5, R::VODB_VOLOP_MOVE, 1001, 0x2A, R::VODB_ROLE_OPSINK),
    });
    StreamReport next = report(voErrRcSuccess, VoRunning, true);
    next.pass = 1;
    auto poll = [&](const TopOp&) { return TopPoll{true, next}; };
    TopModel model(5);

    const struct {
        double now;
        voErrRc rc;
        int pass;
        bool inVodb;
        size_t lines;
        const char* contains;
    } steps[] = {
        {0, voErrRcSuccess, 1, true, 1, "pass 1  streaming"},  // first sight
        {1, voErrRcSuccess, 1, true, 0, ""},                   // nothing new
        {10, voErrRcSuccess, 1, true, 1, "streaming"},         // interval passed
        {11, voErrRcSuccess, 2, true, 0, ""},                  // a new pass alone is no new state
        {12, voErrRollForwardOp, 2, true, 1, "rolling-forward"},
        {13, voErrRcSuccess, 2, false, 1, "moved"},  // the outcome
        {30, voErrRcSuccess, 2, false, 0, ""},       // gone after its linger, no more lines
    };
    for (const auto& s : steps) {
        next = s.rc == voErrRollForwardOp ? report(voErrRollForwardOp, VoDone, true)
               : s.inVodb                 ? report(voErrRcSuccess, VoRunning, true)
                                          : committed();
        next.pass = s.pass;
        model.refresh(s.inVodb ? ops : std::vector<TopOp>{}, s.now, poll);
        const std::vector<std::string> lines = model.plainLines(s.now, label, 10);
        ASSERT_EQ(lines.size(), s.lines) << "at " << s.now;
        if (s.lines) {
            EXPECT_NE(lines[0].find(s.contains), std::string::npos) << lines[0];
        }
    }
}

}  // namespace
