#include "voctl/move_plan.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "vorec.h"

namespace {

using voctl::LpId;
using voctl::MoveFacts;

LpId lp(uint8_t b) {
    LpId id{};
    id[0] = b;
    return id;
}

// A move that vod would accept: a read-write volume found on LP 1, nothing
// recorded, 100 blocks needed and 100 free on LP 2.
MoveFacts acceptable() {
    MoveFacts f;
    f.vfsid = 7;
    f.srcLp = lp(1);
    f.dstLp = lp(2);
    f.sourceFound = true;
    f.vfsType = 1;
    f.minQuota = 40;
    f.blocksUsed = 100;
    f.unreservedFree = 100;
    return f;
}

voctl::MoveConflict busy(unsigned code) {
    voctl::MoveConflict c;
    c.busyCode = code;
    return c;
}

// vod checks in this order, so when several things are wrong the first one
// is the refusal a user gets.
TEST(MoveVerdict, FirstRefusalInTheOrderVodChecks) {
    struct Case {
        const char* what;
        void (*change)(MoveFacts&);
        int rc, func;
        unsigned funcrc;
    };
    const Case cases[] = {
        {"accepted", [](MoveFacts&) {}, voErrRcSuccess, voErrFuncSuccess, 0},
        {"needed equals the free space", [](MoveFacts& f) { f.blocksUsed = 100; }, voErrRcSuccess,
         voErrFuncSuccess, 0},
        {"one block short", [](MoveFacts& f) { f.blocksUsed = 101; }, voErrNotEnoughSpaceSinkLP,
         voErrFuncSuccess, 0},
        {"the minimum quota counts when it is larger", [](MoveFacts& f) { f.minQuota = 101; },
         voErrNotEnoughSpaceSinkLP, voErrFuncSuccess, 0},
        {"space unknown is no refusal", [](MoveFacts& f) { f.unreservedFree.reset(); },
         voErrRcSuccess, voErrFuncSuccess, 0},
        {"busy before space",
         [](MoveFacts& f) {
             f.blocksUsed = 500;
             f.conflict = busy(VOD_ERR_BUSY_COPY);
         },
         voErrValidate, voErrVodValidate, VOD_ERR_BUSY_COPY},
        {"no source before busy",
         [](MoveFacts& f) {
             f.sourceFound = false;
             f.conflict = busy(VOD_ERR_BUSY_MOVE);
         },
         voErrSrcVFSNotExist, voErrVldbRecordLookup, 119},
        {"same LP before everything",
         [](MoveFacts& f) {
             f.dstLp = f.srcLp;
             f.sourceFound = false;
             f.conflict = busy(VOD_ERR_BUSY_MOVE);
         },
         voErrValidate, voErrVodAddStream, VOD_ERR_SAME_LP},
    };
    for (const Case& c : cases) {
        MoveFacts f = acceptable();
        c.change(f);
        VoOut v = voctl::moveVerdict(f);
        EXPECT_EQ(v.rc, c.rc) << c.what;
        EXPECT_EQ(v.func, c.func) << c.what;
        EXPECT_EQ(v.funcrc, c.funcrc) << c.what;
    }
}

TEST(MoveConflict, TheVolumeRecordedOnEitherEndHoldsIt) {
    auto rec = [](uint32_t vfsid, uint8_t lpByte, int role) {
        vodbRec r;
        std::memset(&r, 0, sizeof r);
        r.vfsid = vfsid;
        r.lp_uuid[0] = lpByte;
        r.vfsrole = role;
        return r;
    };
    struct Case {
        const char* what;
        vodbRec recs[3];
        size_t want;  // index of the conflict, 3 for none
    };
    const Case cases[] = {
        {"other volumes only",
         {rec(8, 1, VoRec::VODB_ROLE_SRC), rec(9, 2, VoRec::VODB_ROLE_SINK),
          rec(7, 3, VoRec::VODB_ROLE_SRC)},
         3},
        {"on the source LP, any role",
         {rec(8, 1, 0), rec(7, 1, VoRec::VODB_ROLE_OPSRC), rec(7, 2, 0)},
         1},
        {"on the target LP", {rec(7, 3, 0), rec(9, 2, 0), rec(7, 2, VoRec::VODB_ROLE_SINK)}, 2},
    };
    for (const Case& c : cases)
        EXPECT_EQ(voctl::findMoveConflict(c.recs, 3, 7, lp(1), lp(2)), c.want) << c.what;
}

// A move reports its pass beside the copy's fields; a new pass, or the pass
// turning final, gets a bar of its own.
TEST(MoveReport, PassAndFinalFlagReachTheReportAndTheBarLabel) {
    VoMovePgrsOut out;
    std::memset(&out, 0, sizeof out);
    out.rc = voErrRcSuccess;
    out.loopNum = 2;
    out.src.vfsId = 7;
    out.src.status = VoRunning;
    out.sink.megsProcessed = 12;
    voctl::StreamReport r = voctl::streamReportOf(out);
    EXPECT_EQ(r.pass, 2);
    EXPECT_FALSE(r.finalPass);
    EXPECT_EQ(r.sink.megsProcessed, 12u);
    EXPECT_EQ(voctl::classifyCopyReport(r), voctl::CopyPhase::Streaming);
    EXPECT_EQ(voctl::passLabel(r), "move pass 2");

    out.isFinalLoop = 1;
    EXPECT_EQ(voctl::passLabel(voctl::streamReportOf(out)), "move pass 2 (final)");

    VoCopyPgrsOut copy;
    std::memset(&copy, 0, sizeof copy);
    EXPECT_EQ(voctl::streamReportOf(copy).pass, -1) << "a copy has no passes";
}

}  // namespace
