// VoStateList: the daemon's one registry of live operations.
//
// An ordered list of VoState* (new ones at the end) under voStateLock.
// Handlers add operations and find them by opid or by the volumes they use;
// a find takes a reference that the caller gives back through the
// VoStateRef it was handed (releaseRef, or the ref's destructor). The loop
// asks the registry how long it may sleep, lets it retire finished
// operations, and lets it hand operations that need attention to the pool.
//
// Reference counting: an operation's _refCount is 1 while it is only listed;
// each find adds one; releaseRef and retireCompletedOps take one away, and
// whoever takes it to zero erases and destroys the operation.
//
// Lock order: voStateLock, then an operation's _voStateLock (never the other
// way); WorkerThreadPool::queueJob may be called with voStateLock held. The
// loop's housekeeping only tries operation locks, never waits for one.
// Visitors passed to iterator() run with voStateLock held and must not call
// back into the registry.
#ifndef VOLOP_VOSTATELIST_H
#define VOLOP_VOSTATELIST_H

#include <pthread.h>
#include <rpc/rpc.h>

#include <list>

class VoState;
class VoStateList;
class VoMoveState;
class VoCopyState;
class VoMirrorState;

// A registry reference taken by a finder: the place of the operation in the
// list and the reference itself. Released at the latest when the ref goes
// out of scope. Not copyable; one thread at a time.
class VoStateRef {
  public:
    VoStateRef() = default;
    ~VoStateRef();
    VoStateRef(const VoStateRef&) = delete;
    VoStateRef& operator=(const VoStateRef&) = delete;

    bool held() const { return _list != nullptr; }
    VoState* operator*() const;

  private:
    friend class VoStateList;
    VoStateList* _list = nullptr;
    std::list<VoState*>::iterator _it;
};

class VoStateList {
  public:
    typedef void (*Visitor)(void* arg, VoState* op);

    // A mutex failure is fatal.
    VoStateList();
    ~VoStateList();

    VoStateList(const VoStateList&) = delete;
    VoStateList& operator=(const VoStateList&) = delete;

    // Appends the operation, taking over the creator's reference. Operations
    // on the same volume that are finished and already polled make room
    // first (VoServer::retireMatchingOps). A non-zero startResponseCode (the
    // start failed and the client has its answer) marks the last progress as
    // fetched, so the operation leaves once its VODB record is gone.
    void addNewOp(VoState* pNewState, unsigned startResponseCode);

    // Finders: the first operation that matches, with one reference taken
    // and held through it; null (it untouched) when none matches. Take
    // voStateLock.
    VoState* findVoState(unsigned long long opid, VoStateRef& it);
    // A move by its source, in either the regular or the final move type.
    VoState* findMoveOp(unsigned vidSrc, const unsigned char* lidSrc, VoStateRef& it);
    // A copy: source and sink must both match.
    VoState* findCopyOp(unsigned vidSrc, const unsigned char* lidSrc, unsigned vidSink,
                        const unsigned char* lidSink, VoStateRef& it);
    VoState* findMirrorOp(unsigned vidSrc, const unsigned char* lidSrc, VoStateRef& it);

    // The same, typed. Instantiated only where the operation class is
    // complete, so callers include its header.
    template <class Op = VoMoveState>
    Op* findVoMoveState(unsigned vidSrc, const unsigned char* lidSrc, VoStateRef& it) {
        return static_cast<Op*>(findMoveOp(vidSrc, lidSrc, it));
    }
    template <class Op = VoCopyState>
    Op* findVoCopyState(unsigned vidSrc, const unsigned char* lidSrc, unsigned vidSink,
                        const unsigned char* lidSink, VoStateRef& it) {
        return static_cast<Op*>(findCopyOp(vidSrc, lidSrc, vidSink, lidSink, it));
    }
    template <class Op = VoMirrorState>
    Op* findVoMirrorState(unsigned vidSrc, const unsigned char* lidSrc, VoStateRef& it) {
        return static_cast<Op*>(findMirrorOp(vidSrc, lidSrc, it));
    }

    // Drops the reference a finder took; the last one erases and destroys the
    // operation. Does nothing when it holds nothing.
    void releaseRef(VoStateRef& it);

    // Calls fn(arg, op) for every listed operation in list order, with
    // voStateLock held.
    void iterator(Visitor fn, void* arg);

    // Erases and destroys operations that no worker holds, whose VODB record
    // is gone, and that are either polled for the last time (and not
    // retained) or past ten recovery attempts; one still referenced by a
    // finder's caller is left to that caller's releaseRef.
    void retireCompletedOps();

    // Seconds the loop may sleep: 0 when an operation is due for its
    // 30-second check, else the least time until one is, at most 300; 15
    // when the clock cannot be read. Stamps never-checked operations now. A
    // stamp ahead of the clock (resurrection's stagger) is due 30 seconds
    // after it. Never past 300 seconds after the last look (noteLook).
    unsigned long computeSleepTime();

    // The loop looked for operations the VODB has and the registry lacks.
    // The loop sleeps only until a time-out, and every request starts its
    // sleep afresh: counted from each request, a client asking more often
    // than every 300 seconds would put off that look for good, and with it
    // the recovery of records whose creation was never answered. Service
    // thread only, as computeSleepTime.
    void noteLook();

    // The loop's status check of every operation not looked at for 30
    // seconds and not held by a worker: a concluded stream means a
    // crash-recovery job (while the VODB record is stored); otherwise a
    // status-check job concludes the stream and handles a completion it
    // never reported. Never waits for an operation's lock (one taken counts
    // as held by a worker) and makes no remote call; the clients are not
    // used.
    void checkForCompletedOps(CLIENT* clntVldb, CLIENT* clntSrcDbladeIncrCopy,
                              CLIENT* clntSrcDbladeVol);

    // iterator() callback: the operation's dbgDump and printState, then an
    // empty line.
    static void dbgDump(void* arg, VoState* op);

    // Number of listed operations.
    int getSize();

    static const unsigned long kMaxSleepSec = 300;
    static const unsigned kStatusCheckSec = 30;
    static const unsigned long kClockFailedSleepSec = 15;

  private:
    void lock(bool capitalE);
    void unlock(bool capitalE);
    // Called with voStateLock held.
    void incrementRefCount(VoState* op);
    void iteratorNoLock(Visitor fn, void* arg);
    // The first listed operation that match() accepts (the last listed, the
    // newest, with newest set), with a reference taken through it; null when
    // none. Takes voStateLock.
    template <class Match>
    VoState* findFirst(Match match, VoStateRef& it, bool newest = false);
    void take(VoState* op, std::list<VoState*>::iterator pos, VoStateRef& it);

    // Guarded by voStateLock; iterators stay valid across erasure of others.
    std::list<VoState*> _voStates;
    unsigned _lookedAt = 0;  // clock seconds of the last look; 0: none yet
    pthread_mutex_t voStateLock;
};

extern VoStateList voStateList;

#endif  // VOLOP_VOSTATELIST_H
