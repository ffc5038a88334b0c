#include "workerThreadPool.h"

#include <assert.h>
#include <string.h>

#include <atomic>
#include <cstdlib>

#include "voerrors.h"
#include "vorpcclient.h"
#include "voserver.h"
#include "vostate.h"
#include "votrace.h"

pthread_cond_t WorkerThreadPool::_qCond;
pthread_mutex_t WorkerThreadPool::_qLock;
WorkerThreadPool::Queue WorkerThreadPool::jobQueue = {nullptr, nullptr};
int WorkerThreadPool::_threads = 0;

namespace {

std::atomic<WorkerThreadPool::ClientMaker> gClientMaker{nullptr};
// The queue's lock and condition are made once, however often initialize
// adds threads (tests add workers to a running pool).
std::atomic<bool> gSyncReady{false};

[[noreturn]] void fatal(const char* what, int rc) {
    VO_TR_RAW(vo_vod, vo_fatal, "%s: error = %d, %s\n", what, rc, strerror(rc));
    exit(1);
}

}  // namespace

void WorkerThreadPool::setClientMakerForTest(ClientMaker maker) { gClientMaker = maker; }

void WorkerThreadPool::initialize(int numOfThreads) {
    int rc;
    if (!gSyncReady) {
        if ((rc = pthread_cond_init(&_qCond, nullptr)) != 0) fatal("pthread_cond_init", rc);
        if ((rc = pthread_mutex_init(&_qLock, nullptr)) != 0) fatal("pthread_mutex_init", rc);
        jobQueue.head = nullptr;
        jobQueue.tail = nullptr;
        gSyncReady = true;
    }
    pthread_attr_t attr;
    if ((rc = pthread_attr_init(&attr)) != 0) fatal("pthread_attr_init", rc);
    if ((rc = pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED)) != 0)
        fatal("pthread_attr_setdetachstate", rc);
    for (int i = 0; i < numOfThreads; i++) {
        pthread_t t;
        if ((rc = pthread_create(&t, &attr, workerThreadStarFunc, nullptr)) != 0)
            fatal("pthread_create", rc);
        pthread_mutex_lock(&_qLock);
        _threads++;
        pthread_mutex_unlock(&_qLock);
    }
    pthread_attr_destroy(&attr);
}

void WorkerThreadPool::destroy() {
    pthread_mutex_destroy(&_qLock);
    pthread_cond_destroy(&_qCond);
    gSyncReady = false;
}

int WorkerThreadPool::size() {
    if (!gSyncReady) return 0;
    pthread_mutex_lock(&_qLock);
    int n = _threads;
    pthread_mutex_unlock(&_qLock);
    return n;
}

void WorkerThreadPool::queueJob(VoState* op, int jobtype) {
    op->getLock();
    op->setJobAssignedToThread();
    op->releaseLock();

    int rc = pthread_mutex_lock(&_qLock);
    if (rc != 0) fatal("mutex lock jobQ", rc);
    job* j = new job{op, nullptr, jobtype};
    if (jobQueue.head == nullptr)
        jobQueue.head = j;
    else
        jobQueue.tail->next = j;
    jobQueue.tail = j;
    if ((rc = pthread_mutex_unlock(&_qLock)) != 0) fatal("mutex unlock jobQ", rc);
    if ((rc = pthread_cond_signal(&_qCond)) != 0) fatal("cond var", rc);
}

void* WorkerThreadPool::workerThreadStarFunc(void*) {
    for (;;) {
        int rc = pthread_mutex_lock(&_qLock);
        if (rc != 0) fatal("mutex lock jobQ", rc);
        while (jobQueue.head == nullptr) {
            if ((rc = pthread_cond_wait(&_qCond, &_qLock)) != 0) fatal("cond variable", rc);
        }
        assert(jobQueue.head);
        job* j = jobQueue.head;
        jobQueue.head = j->next;
        if ((rc = pthread_mutex_unlock(&_qLock)) != 0) fatal("mutex unlock jobQ", rc);

        runJob(j);
        delete j;
    }
    return nullptr;
}

void WorkerThreadPool::runJob(job* j) {
    VoState* op = j->state;
    VoRPCClient clntVldb, clntSrcDbladeIncrCopy, clntSrcDbladeVol;
    ClientMaker maker = gClientMaker.load();
    if (maker == nullptr) maker = VoServer::batchClntCreate;
    unsigned rc = maker(clntVldb, clntSrcDbladeIncrCopy, clntSrcDbladeVol);
    if (rc != 0) {
        VO_TR(vo_vod, vo_warn, "cannot make rpc client\n");
        if (j->jobType == JOB_STATUS_CHECK) {
            // The loop's own look, not a step of the operation: nothing of it
            // is recorded, and the next look comes 30 seconds on.
            op->setStatusCheckedAtTime(VoState::getCurrentTime());
            op->jobIsFree();
            return;
        }
        op->getLock();
        op->setJobState(VO_JOB_CLNT_FAILED);
        op->setStatusCheckedAtTime(VoState::getCurrentTime());
        op->setErr(voErrVodClntTcpCreate, rc);
        op->setHiLvlErr(voErrNoResource);
        op->releaseLock();
        // Last, after the lock is released: from here on the registry may
        // retire and destroy the operation.
        op->jobIsFree();
        return;
    }

    CLIENT* vldb = clntVldb;
    CLIENT* vol = clntSrcDbladeVol;
    CLIENT* incr = clntSrcDbladeIncrCopy;
    switch (j->jobType) {
        case JOB_START:
            VO_TR(vo_vod, vo_audit, "opid=%lld call start() by worker thread \n", op->getOpid());
            rc = op->start(vldb, vol, incr);
            if (rc == VOD_ERR_LOCAL_MIRROR)
                VO_TR(vo_vod, vo_audit,
                      "opid=%lld local mirror only. Call conclude(), errCode = %d\n", op->getOpid(),
                      rc);
            else if (rc != 0)
                VO_TR(vo_vod, vo_warn, "opid=%lld fail to start. Call conclude(), errCode = %d\n",
                      op->getOpid(), rc);
            if (rc != 0) op->conclude(vldb, vol, incr);
            break;
        case JOB_RECOVER:
            VO_TR_RAW(vo_vod, vo_audit, "Worker Thread %s %d call recoverFromCrash opid=%lld\n",
                      __func__, __LINE__, op->getOpid());
            rc = op->recoverFromCrash(vldb, vol, incr);
            if (rc == 0)
                VO_TR_RAW(vo_vod, vo_audit, "Worker Thread %s %d recover successful opid=%lld\n",
                          __func__, __LINE__, op->getOpid());
            else
                VO_TR(vo_vod, vo_warn, "Worker Thread recoverFromCrash opid=%lld, err=%d\n",
                      op->getOpid(), rc);
            break;
        case JOB_STATUS_CHECK: {
            op->getLock();
            op->concludeDbladeIncrCopy(incr);
            bool complete =
                !op->getDbladeIncrCopyStatus() && VoServer::claimOpComplete(op, VO_SITE, true);
            op->releaseLock();
            if (!complete) break;
        }
            // The stream ended unreported: this worker already holds the
            // operation, so it concludes it as the completion job would.
            [[fallthrough]];
        case JOB_OP_COMPLETE:
            op->getLock();
            VO_TR(vo_vod, vo_audit, "call concludeDbladeIncrCopy() for opid=%lld\n", op->getOpid());
            op->concludeDbladeIncrCopy(incr);
            op->releaseLock();
            if (op->_incrcopyGotConclude) {
                op->_opCompleteReceived = true;
                VO_TR(vo_vod, vo_audit, "call conclude() for opid=%lld\n", op->getOpid());
                op->conclude(vldb, vol, incr);
            }
            break;
        default:
            VO_TR_RAW(vo_vod, vo_warn, "%s %d, JobType =%d not Supported\n", __func__, __LINE__,
                      j->jobType);
            break;
    }

    // The registry leaves the operation alone for the next 30 seconds.
    // jobIsFree comes last, as above: the worker must not touch the
    // operation after it.
    op->setStatusCheckedAtTime(VoState::getCurrentTime());
    op->jobIsFree();
}
