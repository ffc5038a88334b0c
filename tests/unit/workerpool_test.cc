#include <gtest/gtest.h>

#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "fake_vostate.h"
#include "votrace.h"
#include "workerThreadPool.h"

namespace {

// Workers cannot be stopped, so these tests share one pool that only grows:
// the one-worker test needs a process of its own or to run first (ctest runs
// every test in a process of its own).
class WorkerPoolTest : public ::testing::Test {
  protected:
    void SetUp() override {
        fakeNow() = 2000000;
        VoState::setClockForTest(fakeClock);
        fakeClientMakerRc() = 0;
    }
    void TearDown() override {
        fakeClientMakerRc() = 0;
        VoState::setClockForTest(nullptr);
    }

    static bool idle(const std::vector<FakeOp*>& ops) {
        for (FakeOp* op : ops)
            if (op->isJobAssignedToThread()) return false;
        return true;
    }
};

TEST_F(WorkerPoolTest, OneWorkerRunsJobsInQueueOrder) {
    if (WorkerThreadPool::size() > 1) GTEST_SKIP() << "pool already has more than one worker";
    ensurePool(1);

    std::mutex m;
    std::vector<unsigned long long> order;
    std::vector<FakeOp*> ops;
    for (unsigned long long opid = 1; opid <= 5; opid++) {
        FakeOp* op = new FakeOp(opid, VoRec::VODB_VOLOP_COPY, 100, 1);
        op->onRecover = [&](FakeOp* self) {
            std::lock_guard<std::mutex> g(m);
            order.push_back(self->getOpid());
        };
        ops.push_back(op);
    }
    for (FakeOp* op : ops) WorkerThreadPool::queueJob(op, WorkerThreadPool::JOB_RECOVER);
    ASSERT_TRUE(waitFor([&] { return idle(ops); }));
    EXPECT_EQ(order, (std::vector<unsigned long long>{1, 2, 3, 4, 5}));
    for (FakeOp* op : ops) delete op;
}

TEST_F(WorkerPoolTest, TwoWorkersRunTwoJobsAtOnce) {
    ensurePool(2);
    // Each job waits until the other has started too: with one worker at a
    // time neither would ever see the other.
    std::mutex m;
    std::condition_variable cv;
    int started = 0;
    bool bothSeen[2] = {false, false};
    FakeOp a(1, VoRec::VODB_VOLOP_COPY, 100, 1), b(2, VoRec::VODB_VOLOP_COPY, 101, 1);
    auto job = [&](FakeOp* self) {
        std::unique_lock<std::mutex> lk(m);
        started++;
        cv.notify_all();
        bothSeen[self->getOpid() - 1] =
            cv.wait_for(lk, std::chrono::seconds(5), [&] { return started >= 2; });
    };
    a.onRecover = job;
    b.onRecover = job;
    WorkerThreadPool::queueJob(&a, WorkerThreadPool::JOB_RECOVER);
    WorkerThreadPool::queueJob(&b, WorkerThreadPool::JOB_RECOVER);
    ASSERT_TRUE(waitFor([&] { return idle({&a, &b}); }, 10000));
    EXPECT_TRUE(bothSeen[0]);
    EXPECT_TRUE(bothSeen[1]);
}

TEST_F(WorkerPoolTest, QueuedOperationIsAssignedUntilItsJobIsOver) {
    ensurePool(1);
    std::mutex m;
    std::condition_variable cv;
    bool release = false;
    FakeOp op(1, VoRec::VODB_VOLOP_COPY, 100, 1);
    op.onRecover = [&](FakeOp*) {
        std::unique_lock<std::mutex> lk(m);
        cv.wait_for(lk, std::chrono::seconds(5), [&] { return release; });
    };
    WorkerThreadPool::queueJob(&op, WorkerThreadPool::JOB_RECOVER);
    EXPECT_TRUE(op.isJobAssignedToThread());
    fakeNow() += 7;
    {
        std::lock_guard<std::mutex> g(m);
        release = true;
    }
    cv.notify_all();
    ASSERT_TRUE(waitFor([&] { return !op.isJobAssignedToThread(); }));
    // The registry leaves it alone for the next 30 seconds.
    EXPECT_EQ(op.getStatusCheckedAtTime(), fakeNow());
}

TEST_F(WorkerPoolTest, ClientFailureIsRecordedOnTheOperation) {
    ensurePool(1);
    fakeClientMakerRc() = 5031;
    FakeOp op(1, VoRec::VODB_VOLOP_COPY, 100, 1);
    WorkerThreadPool::queueJob(&op, WorkerThreadPool::JOB_RECOVER);
    ASSERT_TRUE(waitFor([&] { return !op.isJobAssignedToThread(); }));
    EXPECT_EQ(op.getJobState(), VO_JOB_CLNT_FAILED);
    EXPECT_EQ(op.recoverCalls, 0);
    voErrRc rc;
    voErrFunc func;
    unsigned funcrc;
    op.getErr(&rc, &func, &funcrc);
    EXPECT_EQ(rc, voErrNoResource);
    EXPECT_EQ(func, voErrVodClntTcpCreate);
    EXPECT_EQ(funcrc, 5031u);
    EXPECT_EQ(op.getStatusCheckedAtTime(), fakeNow());
}

TEST_F(WorkerPoolTest, CompletionJobConcludesTheOperationOnlyWhenTheStreamConcluded) {
    ensurePool(1);
    FakeOp ended(1, VoRec::VODB_VOLOP_COPY, 100, 1), stuck(2, VoRec::VODB_VOLOP_COPY, 101, 1);
    ended.streamEndsWhenConcluded = true;
    WorkerThreadPool::queueJob(&ended, WorkerThreadPool::JOB_OP_COMPLETE);
    WorkerThreadPool::queueJob(&stuck, WorkerThreadPool::JOB_OP_COMPLETE);
    ASSERT_TRUE(waitFor([&] { return idle({&ended, &stuck}); }));
    EXPECT_EQ(ended.concludeCalls, 1);
    EXPECT_TRUE(ended.opCompleteReceived());
    // Left for the registry's next scan.
    EXPECT_EQ(stuck.concludeIncrCalls, 1);
    EXPECT_EQ(stuck.concludeCalls, 0);
    EXPECT_FALSE(stuck.opCompleteReceived());
}

// The registry's status check, run by a worker: what it asks of the stream,
// whether it goes on to conclude the operation, and what it leaves behind.
struct StatusCheckCase {
    const char* name;
    bool streamEnds;        // the D-blade reports the stream over when asked
    bool completionKnown;   // the completion was handled before
    unsigned clientRc;      // the worker's client creation
    int concludeIncrCalls;  // stream conclusions asked
    int concludeCalls;      // operation conclusions
    int jobState;
    voErrFunc errFunc;
};

class StatusCheckJobTest : public WorkerPoolTest,
                           public ::testing::WithParamInterface<StatusCheckCase> {};

TEST_P(StatusCheckJobTest, ConcludesOnlyAnUnreportedEnd) {
    const StatusCheckCase& c = GetParam();
    ensurePool(1);
    fakeClientMakerRc() = c.clientRc;
    FakeOp op(1, VoRec::VODB_VOLOP_COPY, 100, 1);
    op.setJobState(VO_JOB_STARTED);
    op.setRunning(true);
    op.streamEndsWhenConcluded = c.streamEnds;
    op.setOpComplete(c.completionKnown);
    WorkerThreadPool::queueJob(&op, WorkerThreadPool::JOB_STATUS_CHECK);
    ASSERT_TRUE(waitFor([&] { return !op.isJobAssignedToThread(); }));
    EXPECT_EQ(op.concludeIncrCalls, c.concludeIncrCalls);
    EXPECT_EQ(op.concludeCalls, c.concludeCalls);
    EXPECT_EQ(op.getJobState(), c.jobState);
    voErrFunc func;
    unsigned funcrc;
    op.getErr(&func, &funcrc);
    EXPECT_EQ(func, c.errFunc);
    // Looked at again 30 seconds on.
    EXPECT_EQ(op.getStatusCheckedAtTime(), fakeNow());
}

INSTANTIATE_TEST_SUITE_P(
    Pool, StatusCheckJobTest,
    ::testing::Values(StatusCheckCase{"RunningStreamIsOnlyAsked", false, false, 0, 1, 0,
                                      VO_JOB_STARTED, voErrFuncSuccess},
                      // Asked again by the completion's own step, which finds it concluded.
                      StatusCheckCase{"UnreportedEndIsConcludedInTheSameTurn", true, false, 0, 2, 1,
                                      VO_JOB_OP_COMPLETE, voErrFuncSuccess},
                      StatusCheckCase{"EndAlreadyHandledIsLeft", true, true, 0, 1, 0,
                                      VO_JOB_STARTED, voErrFuncSuccess},
                      // The loop's own look: a client failure is no error of the operation.
                      StatusCheckCase{"NoClientsRecordsNothing", false, false, 5004, 0, 0,
                                      VO_JOB_STARTED, voErrFuncSuccess}),
    [](const ::testing::TestParamInfo<StatusCheckCase>& i) { return std::string(i.param.name); });

TEST_F(WorkerPoolTest, UnknownJobTypeIsTracedAndTheOperationFreed) {
    ensurePool(1);
    FILE* console = tmpfile();
    ASSERT_NE(console, nullptr);
    int savedDaemon = isDaemon;
    unsigned savedMask = VoTrace::getMask();
    isDaemon = 0;
    VoTrace::setConsoleStream(console);
    VoTrace::setMask(0xFFFFFFFF);

    FakeOp op(1, VoRec::VODB_VOLOP_COPY, 100, 1);
    WorkerThreadPool::queueJob(&op, 7);
    bool freed = waitFor([&] { return !op.isJobAssignedToThread(); });

    VoTrace::setMask(savedMask);
    VoTrace::setConsoleStream(nullptr);
    isDaemon = savedDaemon;
    ASSERT_TRUE(freed);
    EXPECT_EQ(op.recoverCalls + op.concludeCalls + op.concludeIncrCalls, 0);
    EXPECT_EQ(op.getStatusCheckedAtTime(), fakeNow());

    std::string text;
    rewind(console);
    char buf[512];
    while (fgets(buf, sizeof buf, console)) text += buf;
    fclose(console);
    EXPECT_NE(text.find(", JobType =7 not Supported\n"), std::string::npos) << text;
}

}  // namespace
