#include "vostate.h"

#include <gtest/gtest.h>

#include "fake_vostate.h"

namespace {

// ---- Code tables ----

TEST(VoStateCodes, TheReturnCodeOfBusyFlagsTakesTheFirstMatch) {
    struct {
        unsigned flags;
        int code;
    } cases[] = {
        {0x0, -1},   {0x1, -1},  {0x8, 288},         {0x4, 287},  {0x800, 280},
        {0xC, 288},  {0x804, 287}, {0x808, 288}, {0x80C, 288}, {0x3, -1},
    };
    for (const auto& c : cases)
        EXPECT_EQ(VoState::getTheReturnCode(c.flags), c.code) << std::hex << c.flags;
}

TEST(VoStateCodes, ErrorCodeForOpTypeNamesTheKindHoldingAVolume) {
    struct {
        int opType;
        unsigned code;
    } cases[] = {
        {VoRec::VODB_VOLOP_NULL, 0},       {VoRec::VODB_VOLOP_COPY, 5022},
        {VoRec::VODB_VOLOP_MIRROR, 5023},  {VoRec::VODB_VOLOP_MOVE, 5021},
        {VoRec::VODB_VOLOP_FINALMOVE, 5021}, {VoRec::VODB_VOLOP_DELETE, 5024},
        {VoRec::VODB_VOLOP_DUMP, 5025},    {VoRec::VODB_VOLOP_RESTORE, 5026},
        {8, 0},                            {-1, 0},
    };
    for (const auto& c : cases)
        EXPECT_EQ(VoState::getErrorCodeForOpType(c.opType), c.code) << c.opType;
}

// ---- Lifecycle predicates ----

TEST(VoStateLifecycle, RecoveryAttemptThresholds) {
    struct {
        unsigned attempts;
        bool stored;
        bool forceVodb, forceMem;
    } cases[] = {
        {0, true, false, false},  {2, true, false, false}, {3, true, true, false},
        {10, true, true, false},  {9, false, true, false}, {10, false, true, true},
        {0, false, false, false},
    };
    for (const auto& c : cases) {
        FakeOp op(1, VoRec::VODB_VOLOP_COPY, 1, 1);
        if (c.stored) op.setVodbRecordStored();
        op.setRecoveryAttempts(c.attempts);
        EXPECT_EQ(op.forceRetireFromVodb(), c.forceVodb) << c.attempts << " stored=" << c.stored;
        EXPECT_EQ(op.forceRetireFromMem(), c.forceMem) << c.attempts << " stored=" << c.stored;
    }
}

TEST(VoStateLifecycle, NewOperationIsListedOnceAndNothingElse) {
    FakeOp op(1, VoRec::VODB_VOLOP_COPY, 1, 1);
    EXPECT_EQ(op.refCount(), 1);
    EXPECT_TRUE(op.retiredFromVodb());
    EXPECT_FALSE(op.canRetireFromMem());
    EXPECT_FALSE(op.isJobAssignedToThread());
    EXPECT_EQ(op.getStatusCheckedAtTime(), 0u);
    op.setMgmtGotLastProgress();
    EXPECT_TRUE(op.canRetireFromMem());
    op.setRetainOpAfterLastProgress();
    EXPECT_FALSE(op.canRetireFromMem());
}

// ---- start() ----

CLIENT* const kClient = reinterpret_cast<CLIENT*>(0x1000);  // never called through

class VoStateStartTest : public ::testing::Test {
protected:
    // Flags set to the opposite of what start() would make of them.
    void arrangeSentinels() {
        op.setConcluded(false);
        op.setOpComplete(false);
        op.setRunning(true);
        op.setRecoveryAttempts(4);
    }
    voErrRc hiLvl() {
        voErrRc rc;
        voErrFunc func;
        unsigned funcrc;
        op.getErr(&rc, &func, &funcrc);
        return rc;
    }

    FakeOp op{1, VoRec::VODB_VOLOP_COPY, 1, 1};
};

TEST_F(VoStateStartTest, MissingClientFailsBeforeTouchingAnyFlag) {
    struct {
        CLIENT *vldb, *vol, *incr;
        unsigned code;
    } cases[] = {
        {nullptr, kClient, kClient, 5003},
        {kClient, nullptr, kClient, 5004},
        {kClient, kClient, nullptr, 5004},
    };
    for (const auto& c : cases) {
        arrangeSentinels();
        EXPECT_EQ(op.start(c.vldb, c.vol, c.incr), c.code);
        EXPECT_FALSE(op.incrcopyGotConclude());
        EXPECT_FALSE(op.opCompleteReceived());
        EXPECT_TRUE(op.getDbladeIncrCopyStatus());
        EXPECT_EQ(op.recoveryAttempts(), 4u);
        EXPECT_EQ(op.mkOpSrcSinkCalls, 0);
        EXPECT_EQ(hiLvl(), voErrMakeVFS);
        voErrFunc func;
        unsigned funcrc;
        op.getErr(&func, &funcrc);
        EXPECT_EQ(func, voErrVodSanityCheck);
        EXPECT_EQ(funcrc, c.code);
    }
}

TEST_F(VoStateStartTest, FailedVolumeCreationLeavesTheOperationConcludedAndComplete) {
    arrangeSentinels();
    op.mkOpSrcSinkRc = 403;
    EXPECT_EQ(op.start(kClient, kClient, kClient), 403u);
    EXPECT_TRUE(op.incrcopyGotConclude());
    EXPECT_TRUE(op.opCompleteReceived());
    EXPECT_FALSE(op.getDbladeIncrCopyStatus());
    EXPECT_EQ(op.recoveryAttempts(), 0u);
    EXPECT_FALSE(op.rollForward());
    EXPECT_EQ(op.startStreamCalls, 0);
    EXPECT_EQ(op.getJobState(), VO_JOB_STARTED);
    EXPECT_EQ(hiLvl(), voErrMakeVFS);
}

TEST_F(VoStateStartTest, StreamOutcomes) {
    struct {
        unsigned streamRc;
        voErrRc hiLvl;
        bool rollForward;
    } cases[] = {
        {0, voErrRcSuccess, true},
        {5005, voErrRcSuccess, false},  // local mirror only: no high-level error
        {500, voErrStartStream, false},
    };
    for (const auto& c : cases) {
        FakeOp fresh(1, VoRec::VODB_VOLOP_COPY, 1, 1);
        fresh.startStreamRc = c.streamRc;
        EXPECT_EQ(fresh.start(kClient, kClient, kClient), c.streamRc);
        voErrRc rc;
        fresh.getErr(&rc, nullptr, nullptr);
        EXPECT_EQ(rc, c.hiLvl) << c.streamRc;
        EXPECT_EQ(fresh.rollForward(), c.rollForward) << c.streamRc;
        EXPECT_EQ(fresh.getJobState(), VO_JOB_STARTED);
        // Once volumes exist the stream is believed running until told otherwise.
        EXPECT_FALSE(fresh.incrcopyGotConclude());
        EXPECT_FALSE(fresh.opCompleteReceived());
        EXPECT_TRUE(fresh.getDbladeIncrCopyStatus());
    }
}

TEST(VoStatePrepare, MissingClientsAreRefusedAsValidationFailures) {
    FakeOp op(1, VoRec::VODB_VOLOP_COPY, 1, 1);
    EXPECT_EQ(op.prepare(nullptr, kClient), 5003u);
    EXPECT_EQ(op.prepare(kClient, nullptr), 5004u);
    voErrRc rc;
    voErrFunc func;
    unsigned funcrc;
    op.getErr(&rc, &func, &funcrc);
    EXPECT_EQ(rc, voErrValidate);
    EXPECT_EQ(func, voErrVodSanityCheck);
    EXPECT_EQ(funcrc, 5004u);
    EXPECT_TRUE(op.retiredFromVodb());
}

// ---- Stream control without a D-blade ----

TEST(VoStateStream, PauseAndResumeWithoutAClientAnswerNoResource) {
    FakeOp op(1, VoRec::VODB_VOLOP_COPY, 1, 1);
    for (int resume = 0; resume < 2; resume++) {
        VoOut out{voErrRcSuccess, voErrFuncSuccess, 0};
        if (resume)
            op.resume(nullptr, &out);
        else
            op.pause(nullptr, &out);
        EXPECT_EQ(out.rc, voErrNoResource);
        EXPECT_EQ(out.func, voErrVodSanityCheck);
        EXPECT_EQ(out.funcrc, 5004u);
    }
}

// The base conclusion of the stream, seen through a subclass that keeps it.
class BaseConcludeOp : public FakeOp {
public:
    using FakeOp::FakeOp;
    void concludeDbladeIncrCopy(CLIENT* c) override { VoState::concludeDbladeIncrCopy(c); }
};

TEST(VoStateStream, ConcludeWithoutAClientRecordsTheSanityError) {
    BaseConcludeOp op(1, VoRec::VODB_VOLOP_COPY, 1, 1);
    op.concludeDbladeIncrCopy(nullptr);
    voErrRc rc;
    voErrFunc func;
    unsigned funcrc;
    op.getErr(&rc, &func, &funcrc);
    EXPECT_EQ(rc, voErrEndStream);
    EXPECT_EQ(func, voErrVodSanityCheck);
    EXPECT_EQ(funcrc, 5004u);
    EXPECT_FALSE(op.incrcopyGotConclude());
}

}  // namespace
