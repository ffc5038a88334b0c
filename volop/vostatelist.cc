#include "vostatelist.h"

#include <assert.h>
#include <string.h>

#include <cstdlib>

#include "voserver.h"
#include "vostate.h"
#include "votrace.h"
#include "workerThreadPool.h"

VoStateList voStateList;

namespace {

[[noreturn]] void fatal(const char* what, int rc) {
    VO_TR_RAW(vo_vod, vo_fatal, "%s = %d, %s\n", what, rc, strerror(rc));
    exit(1);
}

}  // namespace

VoStateRef::~VoStateRef() {
    if (_list != nullptr) _list->releaseRef(*this);
}

VoState* VoStateRef::operator*() const { return _list != nullptr ? *_it : nullptr; }

VoStateList::VoStateList() {
    int rc = pthread_mutex_init(&voStateLock, nullptr);
    if (rc != 0) fatal("mutex lock init error", rc);
}

VoStateList::~VoStateList() {
    int rc = pthread_mutex_destroy(&voStateLock);
    if (rc != 0) fatal("mutex lock destroy error", rc);
}

// Two spellings of the same failure are in operators' log filters; the
// housekeeping entry points use the capitalised one.
void VoStateList::lock(bool capitalE) {
    int rc = pthread_mutex_lock(&voStateLock);
    if (rc != 0)
        fatal(capitalE ? "mutex lock voStateLock Error" : "mutex lock voStateLock error", rc);
}

void VoStateList::unlock(bool capitalE) {
    int rc = pthread_mutex_unlock(&voStateLock);
    if (rc != 0)
        fatal(capitalE ? "mutex unlock voStateLock Error" : "mutex unlock voStateLock error", rc);
}

void VoStateList::incrementRefCount(VoState* op) { op->_refCount++; }

void VoStateList::take(VoState* op, std::list<VoState*>::iterator pos, VoStateRef& it) {
    incrementRefCount(op);
    it._list = this;
    it._it = pos;
}

void VoStateList::addNewOp(VoState* pNewState, unsigned startResponseCode) {
    lock(false);
    iteratorNoLock(VoServer::retireMatchingOps, pNewState);
    if (startResponseCode != 0) pNewState->setMgmtGotLastProgress();
    _voStates.push_back(pNewState);
    unlock(false);
}

template <class Match>
VoState* VoStateList::findFirst(Match match, VoStateRef& it, bool newest) {
    VoState* found = nullptr;
    lock(false);
    VO_TR(vo_vod, vo_debug, "_voStates.size=%d\n", static_cast<int>(_voStates.size()));
    auto found_pos = _voStates.end();
    for (auto pos = _voStates.begin(); pos != _voStates.end(); ++pos) {
        VoState* op = *pos;
        VO_TR(vo_vod, vo_detail, "*ppVoState=0x%p (*ppVoState)->getOpid() = %lld\n",
              static_cast<void*>(op), op->getOpid());
        if (match(op)) {
            found_pos = pos;
            if (!newest) break;
        }
    }
    if (found_pos != _voStates.end()) {
        found = *found_pos;
        take(found, found_pos, it);
    }
    unlock(false);
    return found;
}

VoState* VoStateList::findVoState(unsigned long long opid, VoStateRef& it) {
    VoState* op = findFirst([opid](VoState* o) { return o->isUsing(opid); }, it);
    if (op == nullptr) VO_TR(vo_vod, vo_debug, "Cannot find a VoState with opid=%lld\n", opid);
    return op;
}

VoState* VoStateList::findMoveOp(unsigned vidSrc, const unsigned char* lidSrc, VoStateRef& it) {
    VoState* op = findFirst(
        [&](VoState* o) {
            return o->isUsing(vidSrc, lidSrc, VoRec::VODB_VOLOP_MOVE, VoRec::VODB_ROLE_SRC) ||
                   o->isUsing(vidSrc, lidSrc, VoRec::VODB_VOLOP_FINALMOVE, VoRec::VODB_ROLE_SRC);
        },
        // Named by its source alone: an older move of the same source has
        // ended (it is only kept for its last report), so the newest is meant.
        it, true);
    if (op != nullptr)
        VO_TR(vo_vod, vo_debug, "found VoMoveState 0x%p opid=%lld\n", static_cast<void*>(op),
              op->getOpid());
    else
        VO_TR(vo_vod, vo_debug, "Cannot find a VoMoveState with vidSrc=%d\n", vidSrc);
    return op;
}

VoState* VoStateList::findCopyOp(unsigned vidSrc, const unsigned char* lidSrc, unsigned vidSink,
                                 const unsigned char* lidSink, VoStateRef& it) {
    VoState* op = findFirst(
        [&](VoState* o) {
            return o->isUsing(vidSrc, lidSrc, VoRec::VODB_VOLOP_COPY, VoRec::VODB_ROLE_SRC) &&
                   o->isUsing(vidSink, lidSink, VoRec::VODB_VOLOP_COPY, VoRec::VODB_ROLE_SINK);
        },
        it);
    if (op != nullptr)
        VO_TR(vo_vod, vo_debug, "found VoCopyState 0x%p opid=%lld\n", static_cast<void*>(op),
              op->getOpid());
    else
        VO_TR(vo_vod, vo_debug, "Cannot find a VoCopyState with vidSrc=%d vidSink=%d\n", vidSrc,
              vidSink);
    return op;
}

VoState* VoStateList::findMirrorOp(unsigned vidSrc, const unsigned char* lidSrc, VoStateRef& it) {
    VoState* op = findFirst(
        [&](VoState* o) {
            return o->isUsing(vidSrc, lidSrc, VoRec::VODB_VOLOP_MIRROR, VoRec::VODB_ROLE_SRC);
        },
        it, true);  // as for a move: the newest mirror of the source is meant
    if (op != nullptr)
        VO_TR(vo_vod, vo_debug, "found VoMirrorState 0x%p opid=%lld\n", static_cast<void*>(op),
              op->getOpid());
    else
        VO_TR(vo_vod, vo_debug, "Cannot find a VoMirrorState with vidSrc=%d\n", vidSrc);
    return op;
}

void VoStateList::releaseRef(VoStateRef& it) {
    if (it._list == nullptr) return;
    assert(it._list == this);
    lock(false);
    VoState* op = *it._it;
    if (--op->_refCount == 0) {
        _voStates.erase(it._it);
        delete op;
    }
    unlock(false);
    it._list = nullptr;
}

void VoStateList::iterator(Visitor fn, void* arg) {
    lock(true);
    iteratorNoLock(fn, arg);
    unlock(true);
}

void VoStateList::iteratorNoLock(Visitor fn, void* arg) {
    for (VoState* op : _voStates) fn(arg, op);
}

void VoStateList::retireCompletedOps() {
    lock(true);
    for (auto pos = _voStates.begin(); pos != _voStates.end();) {
        VoState* op = *pos;
        if (op->_listRefDropped || op->isJobAssignedToThread() || !op->retiredFromVodb() ||
            !(op->canRetireFromMem() || op->forceRetireFromMem())) {
            ++pos;
            continue;
        }
        // Drop the list's own reference; a finder's caller that still holds
        // one destroys the operation in its releaseRef. The list's reference
        // is dropped once only, however many passes run before that.
        if (--op->_refCount > 0) {
            op->_listRefDropped = true;
            ++pos;
            continue;
        }
        pos = _voStates.erase(pos);
        VO_TR(vo_vod, vo_audit, "remove and destroy VoState of opid=%lld\n", op->getOpid());
        assert(op->isJobAssignedToThread() == false);
        delete op;
    }
    unlock(true);
}

void VoStateList::noteLook() { _lookedAt = VoState::getCurrentTime(); }

unsigned long VoStateList::computeSleepTime() {
    unsigned long sleepTime = kMaxSleepSec;
    unsigned now = VoState::getCurrentTime();
    // A clock set back restarts the count.
    if (now != 0 && _lookedAt != 0 && now >= _lookedAt) {
        const unsigned long since = now - _lookedAt;
        sleepTime = since >= kMaxSleepSec ? 0 : kMaxSleepSec - since;
    }
    lock(false);
    if (_voStates.empty()) {
        unlock(false);
        return sleepTime;
    }
    if (now == 0) {
        unlock(false);
        return kClockFailedSleepSec;
    }
    for (VoState* op : _voStates) {
        unsigned long remaining;
        unsigned t = op->getStatusCheckedAtTime();
        if (t == 0) {
            op->setStatusCheckedAtTime(now);
            remaining = kStatusCheckSec;
        } else if (t > now) {
            // Resurrection staggers its stamps one second apart, up to
            // thousands of seconds ahead: such an operation is not due, and
            // counting it due would have the loop wake every 10 ms, running
            // its whole time-out pass, until the clock caught up.
            unsigned long ahead = t - now;
            remaining = ahead + kStatusCheckSec;
        } else {
            unsigned elapsed = now - t;
            if (elapsed >= kStatusCheckSec) {
                sleepTime = 0;
                break;
            }
            remaining = kStatusCheckSec - elapsed;
        }
        if (remaining < sleepTime) sleepTime = remaining;
    }
    unlock(false);
    return sleepTime;
}

void VoStateList::checkForCompletedOps(CLIENT*, CLIENT*, CLIENT*) {
    lock(true);
    for (VoState* op : _voStates) {
        // The loop never waits for a slow peer, and a worker keeps an
        // operation's lock across its D-blade calls, each of which may take
        // its whole time-out. So a taken lock counts as a worker's hold (the
        // isJobAssignedToThread test below): stamped when due and left,
        // without waiting, until 30 seconds on, as the worker's own stamp at
        // the end of its job would leave it anyway.
        if (!op->tryLock()) {
            unsigned t = op->getStatusCheckedAtTime();
            unsigned now = VoState::getCurrentTime();
            if (t == 0 || t + kStatusCheckSec <= now) op->setStatusCheckedAtTime(now);
            continue;
        }
        unsigned t = op->getStatusCheckedAtTime();
        unsigned now = VoState::getCurrentTime();
        if (t != 0 && t + kStatusCheckSec > now) {
            op->releaseLock();
            continue;
        }
        op->setStatusCheckedAtTime(now);
        if (op->isJobAssignedToThread()) {
            op->releaseLock();
            continue;
        }
        op->releaseLock();

        if (op->_incrcopyGotConclude) {
            op->bumpUpRecoveryAttempts();
            if (!op->retiredFromVodb()) {
                VO_TR(vo_vod, vo_audit,
                      "call recoverFromCrash opid=%lld, delegating to worker thread\n",
                      op->getOpid());
                op->setJobState(VO_JOB_RECOVERING);
                op->setStatusCheckedAtTime(VoState::getCurrentTime());
                WorkerThreadPool::queueJob(op, WorkerThreadPool::JOB_RECOVER);
            }
            continue;
        }
        // Concluding the stream asks the D-blade twice (incrcopyprogress,
        // incrcopyconclude), and a slow D-blade answers after many seconds:
        // a worker asks instead, so no request waits behind the answer. The
        // worker runs the completion the D-blade never reported, as
        // runOpComplete would have had it run.
        VO_TR(vo_vod, vo_debug, "opid=%lld status check delegated to worker thread\n",
              op->getOpid());
        WorkerThreadPool::queueJob(op, WorkerThreadPool::JOB_STATUS_CHECK);
    }
    unlock(true);
}

void VoStateList::dbgDump(void*, VoState* op) {
    op->dbgDump();
    op->printState(__func__);
    VO_TR_RAW(vo_vod, vo_event, "\n");
}

int VoStateList::getSize() {
    lock(true);
    int n = static_cast<int>(_voStates.size());
    unlock(true);
    return n;
}
