// Handlers of the long-running operation requests: start, progress, cancel,
// pause, resume, completion notices, purge and the diagnostic dump, and the
// machinery they share (voStart, the registry visitors; lookupLockForward is
// in vo_opreq.h). A kind whose class exists has its handlers in a file of its
// own (vo_copyreq.cc).
//
// All run on the service thread. Every operation found in the registry is
// held by a registry reference taken before its lock and released after it.
#include "vo_opreq.h"

#include <string.h>

#include "vodbCache.h"
#include "voerrors.h"
#include "vorec.h"
#include "vorpcclient.h"
#include "voserver.h"
#include "vostate.h"
#include "vostatelist.h"
#include "votrace.h"
#include "workerThreadPool.h"

namespace {

using voopreq::setTriple;

// Until an operation class registers operations of its kind, none is ever
// found, and the handler's answer is the not-found one.
template <class Out>
void notRunHere(Out* out) {
    setTriple(out, voErrNoSuchOp, voErrFuncSuccess, 0);
}

}  // namespace

unsigned VoServer::voStart(VoState* op, voErrRc* rc, voErrFunc* func, unsigned* funcrc) {
    VoTrace::Depth depth;
    VoRPCClient vldb, incrcopy, dbladeVol;
    unsigned code = batchClntCreate(vldb, incrcopy, dbladeVol);
    if (code != 0) {
        VO_TR(vo_vod, vo_warn, "cannot make rpc client\n");
        op->setErr(voErrVodClntTcpCreate, code);
        op->setHiLvlErr(voErrNoResource);
        op->getErr(rc, func, funcrc);
        return voErrVodClntTcpCreate;
    }

    voStateList.iterator(retireMatchingOps, op);

    VO_TR(vo_vod, vo_audit, "call prepare()\n");
    unsigned r = op->prepare(vldb, dbladeVol);
    if (r != 0) {
        op->getErr(rc, func, funcrc);
    } else {
        VO_TR(vo_vod, vo_audit, "opid=%lld queued to worker thread\n", op->getOpid());
        op->setJobState(VO_JOB_INIT);
        WorkerThreadPool::queueJob(op, WorkerThreadPool::JOB_START);
        *rc = voErrRcSuccess;
        *func = voErrFuncSuccess;
        *funcrc = 0;
    }
    return r;
}

void VoServer::keepFailedStart(VoState* op, unsigned code, voErrRc rc, voErrFunc func,
                               unsigned funcrc, VoTrace::Level level) {
    if (VoTrace::wants(VoTrace::vo_vod, level))
        VoTrace::tr(VoTrace::vo_vod, level,
                    "%s %d opid=%lld voStart failed to start. rc=%d func=%d funcrc=%d\n", __func__,
                    __LINE__, op->getOpid(), rc, func, funcrc);
    if (op->retiredFromVodb()) {
        VO_TR(vo_vod, vo_audit, "opid=%lld clean up done. Delete pVo\n", op->getOpid());
        delete op;
        return;
    }
    VO_TR(vo_vod, vo_warn, "opid=%lld failed to start and clean up.\n", op->getOpid());
    voStateList.addNewOp(op, code);
    VO_TR_RAW(vo_vod, vo_audit,
              "Stored pVo=0x%p in _voStates. Attempt clean up later.  _voStates.size=%d\n\n",
              static_cast<void*>(op), voStateList.getSize());
}

void VoServer::retireMatchingOps(void* newOp, VoState* each) {
    VoState* op = static_cast<VoState*>(newOp);
    if (each == op) return;
    if (each->srcRec().vid() != op->srcRec().vid() ||
        memcmp(each->srcRec().lid(), op->srcRec().lid(), 16) != 0)
        return;
    // A finished operation is kept for a last progress poll until a new
    // operation on the same volume starts.
    if (each->mgmtGotLastProgress() && each->retiredFromVodb())
        each->clearRetainOpAfterLastProgress();
}

void VoServer::checkForMissingVodbRecords(void*, VoState* each) {
    if (!each->retiredFromVodb() && !isVodbRecordPresent(each->getOpid()))
        each->setRetiredFromVodb();
}

void VoServer::resetStatusCheckedAtTimes(void*, VoState* each) {
    each->setStatusCheckedAtTime(VoState::getCurrentTime());
}

bool VoServer::claimOpComplete(VoState* op, VoTraceSite site, bool byItsWorker) {
    if ((!byItsWorker && op->isJobAssignedToThread()) || op->_opCompleteReceived ||
        op->getJobState() == VO_JOB_OP_COMPLETE)
        return false;
    VO_TR_AT(site, VoTrace::vo_vod, VoTrace::vo_audit,
             "call opComplete() opid=%lld, delegating to worker thread\n", op->getOpid());
    op->setJobState(VO_JOB_OP_COMPLETE);
    op->setStatusCheckedAtTime(VoState::getCurrentTime());
    return true;
}

void VoServer::runOpComplete(VoState* op) {
    op->getLock();
    if (claimOpComplete(op, VO_SITE, false)) {
        op->releaseLock();
        WorkerThreadPool::queueJob(op, WorkerThreadPool::JOB_OP_COMPLETE);
        return;
    }
    // A notice that arrives while a worker runs the job is dropped: the
    // worker sees the completion through its own progress polling.
    op->releaseLock();
}

// ---- Start. ----

// ---- Progress. The kinds' own progress calls plug in with their classes. ----

// ---- Cancel: each kind's own cancel plugs in with its class. ----

// ---- Pause and resume: the virtual ones of VoState. ----

// ---- Completion notice, purge, dump. ----

void VoServer::opComplete(unsigned long long opid) {
    VoTrace::Depth depth;
    VoStateRef ref;
    VoState* op = voStateList.findVoState(opid, ref);
    if (op == nullptr) {
        VO_TR(vo_vod, vo_audit, "Cannot find a VoState with opid=%lld\n", opid);
        return;
    }
    runOpComplete(op);
    voStateList.releaseRef(ref);
}

void VoServer::purgeOp(unsigned long long opid) {
    VoTrace::Depth depth;
    // An operation known only to the VODB is registered first.
    populateMissingVoStateFromVodb(lidZero);

    VoStateRef ref;
    VoState* op = voStateList.findVoState(opid, ref);
    if (op == nullptr) {
        VO_TR(vo_vod, vo_warn, "Cannot find a VoState with opid=%lld\n", opid);
        return;
    }
    VoRPCClient vldb;
    vldb.clnttcp_create(localhost, VLDB_PROG, VLDB_VERS);
    if (static_cast<CLIENT*>(vldb) == nullptr) {
        VO_TR(vo_vod, vo_warn, "cannot make vldb client to %s\n", localhost);
        voStateList.releaseRef(ref);
        return;
    }
    if (op->deleteVodbRec(vldb) != 0)
        VO_TR(vo_vod, vo_warn, "cannot erase vodb records of opid=%lld\n", opid);
    else
        // The object itself leaves through the loop's retireCompletedOps.
        VO_TR(vo_vod, vo_audit, "remove ppVoState of opid=%lld from list and destroy *ppVoState\n",
              opid);
    voStateList.releaseRef(ref);
}

void VoServer::dbgDump() {
    VoTrace::Depth depth;
    unsigned saved = VoTrace::getMask();
    VoTrace::setMask(0xFFFFFFFF);
    VO_TR(vo_vod, vo_event, "_voStates.size=%d\n", voStateList.getSize());
    voStateList.iterator(VoStateList::dbgDump, nullptr);

    VoRPCClient vldb;
    vldb.clnttcp_create(localhost, VLDB_PROG, VLDB_VERS);
    if (static_cast<CLIENT*>(vldb) == nullptr) {
        VO_TR(vo_vod, vo_warn, "cannot make vldb client to %s\n", localhost);
    } else if (VodbCacheLock::refreshVodbCache(vldb) == 0) {
        VodbCacheLock cacheLock;
        const auto& cache = VodbCacheLock::getVodbCache();
        VO_TR(vo_vod, vo_event, "_vodbCache.size = %#X\n", static_cast<unsigned>(cache.size()));
        for (const VoRec* rec : cache) {
            rec->dbgDump();
            VO_TR_RAW(vo_vod, vo_event, "\n");
        }
    }
    vldb.clntdestroy();
    VoTrace::setModMask(saved);
    VoTrace::setLvlMask(saved);
}
