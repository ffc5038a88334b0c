#include "vostatelist.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "fake_vostate.h"
#include "voserver.h"
#include "vostate.h"

namespace {

class VoStateListTest : public ::testing::Test {
  protected:
    void SetUp() override {
        fakeNow() = 1000000;
        VoState::setClockForTest(fakeClock);
    }
    void TearDown() override {
        drainRegistry(list);
        VoState::setClockForTest(nullptr);
    }

    FakeOp* add(unsigned long long opid, VoRec::VoType type = VoRec::VODB_VOLOP_COPY,
                unsigned vid = 100, unsigned char lidByte = 1) {
        FakeOp* op = new FakeOp(opid, type, vid, lidByte);
        op->setVodbRecordStored();
        list.addNewOp(op, 0);
        return op;
    }

    VoStateList list;
};

// ---- Sleep time ----

constexpr int kNever = -100000;

struct SleepCase {
    const char* name;
    // Seconds since each operation's check (negative: stamped ahead of the
    // clock, as resurrection staggers them); kNever = never checked.
    std::vector<int> checkedAgo;
    unsigned long expected;
    int lookedAgo = kNever;  // the registry's last look for missing operations
};

class SleepTimeTest : public VoStateListTest, public ::testing::WithParamInterface<SleepCase> {};

TEST_P(SleepTimeTest, IsTheLeastTimeUntilAnOperationIsDue) {
    const SleepCase& c = GetParam();
    std::vector<FakeOp*> ops;
    for (size_t i = 0; i < c.checkedAgo.size(); i++) {
        FakeOp* op = add(i + 1);
        if (c.checkedAgo[i] != kNever) op->setStatusCheckedAtTime(fakeNow() - c.checkedAgo[i]);
        ops.push_back(op);
    }
    if (c.lookedAgo != kNever) {
        fakeNow() -= c.lookedAgo;
        list.noteLook();
        fakeNow() += c.lookedAgo;
    }
    EXPECT_EQ(list.computeSleepTime(), c.expected);
    // Never-checked operations are stamped now, so the next answer counts from here.
    for (size_t i = 0; i < ops.size(); i++) {
        if (c.checkedAgo[i] == kNever) {
            EXPECT_EQ(ops[i]->getStatusCheckedAtTime(), fakeNow());
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Registry, SleepTimeTest,
    ::testing::Values(
        SleepCase{"Empty", {}, 300}, SleepCase{"AllCheckedTenAgo", {10, 10}, 20},
        SleepCase{"NeverChecked", {kNever}, 30}, SleepCase{"CheckedExactlyThirtyAgo", {30}, 0},
        SleepCase{"OneOverdueAmongFresh", {1, 45, 2}, 0},
        SleepCase{"LeastRemainingWins", {5, 25, kNever}, 5}, SleepCase{"JustChecked", {0}, 30},
        SleepCase{"StampedAheadIsNotDue", {-5}, 35}, SleepCase{"AheadBesideDue", {-5, 31}, 0},
        SleepCase{"FarAheadSleepsTheLongest", {-4000}, 300},
        // Requests in between do not put the next look off.
        SleepCase{"EmptyLookedTenAgo", {}, 290, 10}, SleepCase{"EmptyLookOverdue", {}, 0, 400},
        SleepCase{"FarAheadUntilTheNextLook", {-4000}, 200, 100},
        SleepCase{"DueBeforeTheNextLook", {10}, 20, 100},
        SleepCase{"ClockSetBackSinceTheLook", {}, 300, -50}),
    [](const ::testing::TestParamInfo<SleepCase>& i) { return std::string(i.param.name); });

unsigned brokenClock() { return 0; }

TEST_F(VoStateListTest, ClockFailureSleepsFifteenUnlessTheRegistryIsEmpty) {
    VoState::setClockForTest(brokenClock);
    EXPECT_EQ(list.computeSleepTime(), 300u);
    FakeOp* op = add(1);
    op->setStatusCheckedAtTime(5);  // overdue by any clock, yet the answer is 15
    EXPECT_EQ(list.computeSleepTime(), 15u);
}

// ---- Finders and references ----

TEST_F(VoStateListTest, FindTakesAReferenceAndReleaseGivesItBack) {
    FakeOp* a = add(7);
    add(8);
    VoStateRef ref;
    EXPECT_EQ(list.findVoState(7, ref), a);
    EXPECT_TRUE(ref.held());
    EXPECT_EQ(*ref, a);
    EXPECT_EQ(a->refCount(), 2);
    list.releaseRef(ref);
    EXPECT_FALSE(ref.held());
    EXPECT_EQ(a->refCount(), 1);

    VoStateRef none;
    EXPECT_EQ(list.findVoState(99, none), nullptr);
    EXPECT_FALSE(none.held());
    list.releaseRef(none);  // releasing nothing is harmless
    EXPECT_EQ(list.getSize(), 2);

    {
        VoStateRef scoped;
        ASSERT_EQ(list.findVoState(7, scoped), a);
        EXPECT_EQ(a->refCount(), 2);
    }
    EXPECT_EQ(a->refCount(), 1);
}

TEST_F(VoStateListTest, CopyIsFoundOnlyWhenSourceAndSinkBothMatch) {
    FakeOp* copy = add(1, VoRec::VODB_VOLOP_COPY, 100, 1);
    copy->setSink(200, 2);
    unsigned char lid1[16], lid2[16], lid3[16];
    memset(lid1, 1, 16);
    memset(lid2, 2, 16);
    memset(lid3, 3, 16);
    VoStateRef ref;
    EXPECT_EQ(list.findCopyOp(100, lid1, 200, lid3, ref), nullptr);
    EXPECT_EQ(list.findCopyOp(100, lid1, 201, lid2, ref), nullptr);
    EXPECT_EQ(list.findCopyOp(101, lid1, 200, lid2, ref), nullptr);
    EXPECT_EQ(list.findCopyOp(100, lid1, 200, lid2, ref), copy);
    list.releaseRef(ref);
    // A copy is not a move or a mirror.
    EXPECT_EQ(list.findMoveOp(100, lid1, ref), nullptr);
    EXPECT_EQ(list.findMirrorOp(100, lid1, ref), nullptr);
}

TEST_F(VoStateListTest, MoveIsFoundByItsSourceInEitherMoveType) {
    FakeOp* move = add(1, VoRec::VODB_VOLOP_MOVE, 100, 1);
    FakeOp* finalMove = add(2, VoRec::VODB_VOLOP_FINALMOVE, 101, 1);
    FakeOp* mirror = add(3, VoRec::VODB_VOLOP_MIRROR, 102, 1);
    unsigned char lid1[16];
    memset(lid1, 1, 16);
    VoStateRef r1, r2, r3;
    EXPECT_EQ(list.findMoveOp(100, lid1, r1), move);
    EXPECT_EQ(list.findMoveOp(101, lid1, r2), finalMove);
    EXPECT_EQ(list.findMirrorOp(102, lid1, r3), mirror);

    // A later operation on the same source is the one a client names: the
    // earlier one has ended and waits only for its last report.
    FakeOp* laterMove = add(4, VoRec::VODB_VOLOP_MOVE, 100, 1);
    FakeOp* laterMirror = add(5, VoRec::VODB_VOLOP_MIRROR, 102, 1);
    VoStateRef r4, r5;
    EXPECT_EQ(list.findMoveOp(100, lid1, r4), laterMove);
    EXPECT_EQ(list.findMirrorOp(102, lid1, r5), laterMirror);
}

// ---- Retirement ----

struct RetireCase {
    const char* name;
    bool jobAssigned, vodbStored, gotLastProgress, retained;
    unsigned recoveryAttempts;
    bool retired;
};

class RetireTest : public VoStateListTest, public ::testing::WithParamInterface<RetireCase> {};

TEST_P(RetireTest, Rule) {
    const RetireCase& c = GetParam();
    bool destroyed = false;
    FakeOp* op = add(1);
    op->destroyed = &destroyed;
    if (c.jobAssigned) op->setJobAssignedToThread();
    if (!c.vodbStored) op->setRetiredFromVodb();
    if (c.gotLastProgress) op->setMgmtGotLastProgress();
    if (c.retained) op->setRetainOpAfterLastProgress();
    op->setRecoveryAttempts(c.recoveryAttempts);

    list.retireCompletedOps();
    EXPECT_EQ(destroyed, c.retired);
    EXPECT_EQ(list.getSize(), c.retired ? 0 : 1);
    if (!c.retired) {
        // The fixture drains it after this frame is gone.
        op->destroyed = nullptr;
        op->jobIsFree();
    }
}

INSTANTIATE_TEST_SUITE_P(
    Registry, RetireTest,
    ::testing::Values(
        // name, assigned, stored, polled, retained, attempts, retired
        RetireCase{"PolledAndGone", false, false, true, false, 0, true},
        RetireCase{"WorkerHoldsIt", true, false, true, false, 0, false},
        RetireCase{"VodbRecordStillStored", false, true, true, false, 0, false},
        RetireCase{"LastProgressNotFetched", false, false, false, false, 0, false},
        RetireCase{"RetainedAfterLastProgress", false, false, true, true, 0, false},
        RetireCase{"NineAttemptsAreNotEnough", false, false, false, false, 9, false},
        RetireCase{"TenAttemptsForceIt", false, false, false, false, 10, true},
        RetireCase{"TenAttemptsButRecordStored", false, true, false, false, 10, false}),
    [](const ::testing::TestParamInfo<RetireCase>& i) { return std::string(i.param.name); });

TEST_F(VoStateListTest, FindersReferenceKeepsARetiredOperationUntilReleased) {
    bool destroyed = false;
    FakeOp* op = add(5);
    op->destroyed = &destroyed;
    VoStateRef ref;
    ASSERT_EQ(list.findVoState(5, ref), op);
    op->setRetiredFromVodb();
    op->setMgmtGotLastProgress();

    list.retireCompletedOps();
    list.retireCompletedOps();  // a second pass must not drop the finder's reference too
    EXPECT_FALSE(destroyed);
    EXPECT_EQ(list.getSize(), 1);
    EXPECT_EQ(op->refCount(), 1);

    list.releaseRef(ref);
    EXPECT_TRUE(destroyed);
    EXPECT_EQ(list.getSize(), 0);
}

TEST_F(VoStateListTest, FailedStartIsRetiredWithoutAProgressQueryOnceItsRecordIsGone) {
    bool destroyed = false;
    FakeOp* op = new FakeOp(3, VoRec::VODB_VOLOP_COPY, 100, 1);
    op->destroyed = &destroyed;
    op->setVodbRecordStored();
    list.addNewOp(op, 2000);
    EXPECT_TRUE(op->mgmtGotLastProgress());
    list.retireCompletedOps();
    EXPECT_FALSE(destroyed);  // its record still has to be cleaned up
    op->setRetiredFromVodb();
    list.retireCompletedOps();
    EXPECT_TRUE(destroyed);
}

TEST_F(VoStateListTest, NewOperationOnTheSameVolumeReleasesAFinishedOneKeptForItsLastPoll) {
    FakeOp* old = add(1, VoRec::VODB_VOLOP_COPY, 100, 1);
    FakeOp* other = add(2, VoRec::VODB_VOLOP_COPY, 101, 1);
    for (FakeOp* op : {old, other}) {
        op->setRetiredFromVodb();
        op->setMgmtGotLastProgress();
        op->setRetainOpAfterLastProgress();
    }
    add(3, VoRec::VODB_VOLOP_MOVE, 100, 1);
    EXPECT_TRUE(old->canRetireFromMem());
    EXPECT_FALSE(other->canRetireFromMem());
}

// ---- Status checks ----

// Holds an operation's lock on a thread of its own, as a worker does across
// its remote calls, until it goes out of scope. Held on the test's own
// thread instead, the lock would come before the registry's, against the
// registry's lock order (ThreadSanitizer reports the inversion once the
// scan queues a job for that operation).
class WorkerHold {
  public:
    explicit WorkerHold(VoState* op) {
        std::unique_lock<std::mutex> lk(_m);
        _t = std::thread([this, op] {
            op->getLock();
            std::unique_lock<std::mutex> inner(_m);
            _held = true;
            _cv.notify_all();
            _cv.wait(inner, [this] { return _release; });
            op->releaseLock();
        });
        _cv.wait(lk, [this] { return _held; });
    }
    ~WorkerHold() {
        {
            std::lock_guard<std::mutex> lk(_m);
            _release = true;
        }
        _cv.notify_all();
        _t.join();
    }
    WorkerHold(const WorkerHold&) = delete;
    WorkerHold& operator=(const WorkerHold&) = delete;

  private:
    std::mutex _m;
    std::condition_variable _cv;
    bool _held = false;
    bool _release = false;
    std::thread _t;
};

class CheckForCompletedOpsTest : public VoStateListTest {
  protected:
    void SetUp() override {
        VoStateListTest::SetUp();
        ensurePool(1);
        fakeClientMakerRc() = 0;
    }
};

TEST_F(CheckForCompletedOpsTest, ConcludedStreamWithStoredRecordIsHandedToRecovery) {
    FakeOp* op = add(1);
    op->setConcluded(true);
    list.checkForCompletedOps(nullptr, nullptr, nullptr);
    ASSERT_TRUE(waitFor([&] { return op->recoverCalls == 1 && !op->isJobAssignedToThread(); }));
    EXPECT_EQ(op->getJobState(), VO_JOB_RECOVERING);
    EXPECT_EQ(op->recoveryAttempts(), 1u);

    // Within 30 seconds nothing happens again; afterwards a second attempt is made.
    fakeNow() += 29;
    list.checkForCompletedOps(nullptr, nullptr, nullptr);
    EXPECT_EQ(op->recoveryAttempts(), 1u);
    fakeNow() += 1;
    list.checkForCompletedOps(nullptr, nullptr, nullptr);
    ASSERT_TRUE(waitFor([&] { return op->recoverCalls == 2 && !op->isJobAssignedToThread(); }));
    EXPECT_EQ(op->recoveryAttempts(), 2u);
}

TEST_F(CheckForCompletedOpsTest, ConcludedStreamWithoutRecordOnlyCountsAnAttempt) {
    FakeOp* op = add(1);
    op->setConcluded(true);
    op->setRetiredFromVodb();
    list.checkForCompletedOps(nullptr, nullptr, nullptr);
    EXPECT_EQ(op->recoveryAttempts(), 1u);
    EXPECT_FALSE(op->isJobAssignedToThread());
    EXPECT_EQ(op->recoverCalls, 0);
}

TEST_F(CheckForCompletedOpsTest, OperationHeldByAWorkerIsOnlyStamped) {
    FakeOp* op = add(1);
    op->setConcluded(true);
    op->setJobAssignedToThread();
    list.checkForCompletedOps(nullptr, nullptr, nullptr);
    EXPECT_EQ(op->getStatusCheckedAtTime(), fakeNow());
    EXPECT_EQ(op->recoveryAttempts(), 0u);
    EXPECT_EQ(op->concludeIncrCalls, 0);
    op->jobIsFree();
}

TEST_F(CheckForCompletedOpsTest, EndedStreamWhoseCompletionNeverCameIsConcludedByAWorker) {
    FakeOp* op = add(1);
    op->setRunning(true);
    op->streamEndsWhenConcluded = true;
    list.checkForCompletedOps(nullptr, nullptr, nullptr);
    // The status check's worker concluded the stream and, in the same turn, the
    // completion: the stream once more (idempotent), then the operation.
    ASSERT_TRUE(waitFor([&] { return op->concludeCalls == 1 && !op->isJobAssignedToThread(); }));
    EXPECT_EQ(op->concludeIncrCalls, 2);
    EXPECT_EQ(op->getJobState(), VO_JOB_OP_COMPLETE);
    EXPECT_TRUE(op->opCompleteReceived());
}

TEST_F(CheckForCompletedOpsTest, ACompletionNoticeIsHandedToAWorkerOnce) {
    FakeOp* op = add(1);
    op->setRunning(true);  // the worker's conclusion will not end it
    VoServer::runOpComplete(op);
    VoServer::runOpComplete(op);  // dropped: the job is queued or running
    ASSERT_TRUE(
        waitFor([&] { return op->concludeIncrCalls == 1 && !op->isJobAssignedToThread(); }));
    EXPECT_EQ(op->getJobState(), VO_JOB_OP_COMPLETE);
    VoServer::runOpComplete(op);  // dropped: one notice is already being handled
    EXPECT_FALSE(op->isJobAssignedToThread());
    EXPECT_EQ(op->concludeIncrCalls, 1);
}

TEST_F(CheckForCompletedOpsTest, RunningStreamIsLeftRunning) {
    FakeOp* op = add(1);
    op->setRunning(true);
    list.checkForCompletedOps(nullptr, nullptr, nullptr);
    ASSERT_TRUE(
        waitFor([&] { return op->concludeIncrCalls == 1 && !op->isJobAssignedToThread(); }));
    EXPECT_EQ(op->concludeCalls, 0);
    EXPECT_NE(op->getJobState(), VO_JOB_OP_COMPLETE);
}

// What one scan does with an operation, by its lock, its worker and its last check.
struct ScanCase {
    const char* name;
    bool lockTaken;  // another thread holds the operation's lock
    bool assigned;   // a worker holds the operation
    int checkedAgo;  // seconds since its last check
    bool checked;    // a worker asks the D-blade about its stream
    bool stamped;    // its check time becomes now
};

class ScanTest : public CheckForCompletedOpsTest, public ::testing::WithParamInterface<ScanCase> {};

TEST_P(ScanTest, NeverWaitsAndLeavesTheDbladeToAWorker) {
    const ScanCase& c = GetParam();
    FakeOp* op = add(1);
    op->setRunning(true);
    op->setStatusCheckedAtTime(fakeNow() - c.checkedAgo);
    if (c.assigned) op->setJobAssignedToThread();
    // The hold ends only after the scan returns, so the scan would hang here
    // if it waited for the lock.
    {
        std::unique_ptr<WorkerHold> hold(c.lockTaken ? new WorkerHold(op) : nullptr);
        list.checkForCompletedOps(nullptr, nullptr, nullptr);
    }
    EXPECT_EQ(op->getStatusCheckedAtTime() == fakeNow(), c.stamped);
    if (c.checked) {
        ASSERT_TRUE(
            waitFor([&] { return op->concludeIncrCalls == 1 && !op->isJobAssignedToThread(); }));
        EXPECT_NE(op->concludeIncrThread, std::this_thread::get_id());
    } else {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_EQ(op->concludeIncrCalls, 0);
    }
    if (c.assigned) op->jobIsFree();
}

INSTANTIATE_TEST_SUITE_P(
    Registry, ScanTest,
    ::testing::Values(
        ScanCase{"DueAndFreeIsCheckedByAWorker", false, false, 30, true, true},
        ScanCase{"NotDueIsLeftAlone", false, false, 29, false, false},
        ScanCase{"DueWithItsLockTakenIsStampedAndSkipped", true, false, 45, false, true},
        ScanCase{"NotDueWithItsLockTakenIsLeftAlone", true, false, 10, false, false},
        ScanCase{"DueAndHeldByAWorkerIsStampedAndSkipped", false, true, 30, false, true}),
    [](const ::testing::TestParamInfo<ScanCase>& i) { return std::string(i.param.name); });

TEST_F(CheckForCompletedOpsTest, SkippedWhileBusyIsCheckedWhenNextDue) {
    FakeOp* op = add(1);
    op->setRunning(true);
    op->setStatusCheckedAtTime(fakeNow() - 30);
    {
        WorkerHold hold(op);
        list.checkForCompletedOps(nullptr, nullptr, nullptr);
    }
    fakeNow() += 29;
    list.checkForCompletedOps(nullptr, nullptr, nullptr);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(op->concludeIncrCalls, 0);
    fakeNow() += 1;
    list.checkForCompletedOps(nullptr, nullptr, nullptr);
    EXPECT_TRUE(
        waitFor([&] { return op->concludeIncrCalls == 1 && !op->isJobAssignedToThread(); }));
}

TEST_F(CheckForCompletedOpsTest, ADbladeThatAnswersLateHoldsUpNeitherTheScanNorTheRegistry) {
    ensurePool(2);
    std::mutex m;
    std::condition_variable cv;
    bool answer = false;
    FakeOp* slow = add(1);
    FakeOp* quick = add(2, VoRec::VODB_VOLOP_COPY, 101, 1);
    for (FakeOp* op : {slow, quick}) {
        op->setRunning(true);
        op->setStatusCheckedAtTime(fakeNow() - 30);
    }
    slow->onConcludeIncr = [&](FakeOp*) {
        std::unique_lock<std::mutex> lk(m);
        cv.wait(lk, [&] { return answer; });
    };
    list.checkForCompletedOps(nullptr, nullptr, nullptr);
    // The other operation's check goes through; the slow one's worker waits
    // with the operation's lock held, as a worker waiting on a D-blade does.
    ASSERT_TRUE(waitFor([&] { return quick->concludeIncrCalls == 1; }));
    fakeNow() += 30;
    auto t0 = std::chrono::steady_clock::now();
    list.checkForCompletedOps(nullptr, nullptr, nullptr);
    VoStateRef ref;
    EXPECT_EQ(list.findVoState(2, ref), quick);
    list.releaseRef(ref);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(1));
    {
        std::lock_guard<std::mutex> g(m);
        answer = true;
    }
    cv.notify_all();
    EXPECT_TRUE(
        waitFor([&] { return !slow->isJobAssignedToThread() && !quick->isJobAssignedToThread(); }));
}

}  // namespace
