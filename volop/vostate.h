// VoState: the base of every volume operation (copy, move, mirror, delete,
// dump/restore).
//
// One object lives for each operation the daemon knows, from the request
// that creates it (or the resurrection that rebuilds it from its VODB
// records) until the registry retires it. The base holds the operation's
// identity (_opid, _srcRec), the flags that drive its life cycle, the
// reference count and job fields used by the registry and the worker pool,
// and the per-operation lock. It runs the steps every operation shares:
// prepare, start, pause/resume/conclude of the D-blade stream, and helpers
// over the VLDB, the VODB and the D-blades.
//
// Threads: the loop thread (handlers, registry scans) and one worker at a
// time (the job it was queued for) touch an operation. The lifecycle flags
// and job fields are atomics, so either side may read them at any time;
// decisions that must not interleave (assigning a job, the registry's
// status check, concluding the stream) are made under _voStateLock.
//
// Lock order: the registry's voStateLock, then an operation's _voStateLock,
// which is released before WorkerThreadPool's queue lock is taken. The VODB
// cache lock, the D-blade host-table lock and an operation's error lock are
// leaves.
#ifndef VOLOP_VOSTATE_H
#define VOLOP_VOSTATE_H

#include <pthread.h>
#include <rpc/rpc.h>
#include <string.h>

#include <atomic>
#include <mutex>
#include <string>

#include "dblade_incrcopy.h"
#include "dblade_vol.h"
#include "vldb_server.h"
#include "vo.h"
#include "voerrors.h"
#include "vorec.h"
#include "vorpcclient.h"
#include "votrace.h"

// An LP id in traces: "0x" and its 16 bytes as %02X.
#define VO_LP_FMT "0x%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X%02X"
#define VO_LP_ARGS(l)                                                                        \
    (l)[0], (l)[1], (l)[2], (l)[3], (l)[4], (l)[5], (l)[6], (l)[7], (l)[8], (l)[9], (l)[10], \
        (l)[11], (l)[12], (l)[13], (l)[14], (l)[15]

// Job states an operation goes through in the worker pool. The constructor
// leaves jobState at VO_JOB_NONE; whoever creates or resurrects an operation
// gives it its first real value.
enum VoJobState : int {
    VO_JOB_NONE = 0,
    VO_JOB_CLNT_FAILED = 6,   // a worker could not make its RPC clients
    VO_JOB_INIT = 10,         // queued by voStart, waiting for its first worker turn
    VO_JOB_STARTED = 11,      // start() has run, successfully or not
    VO_JOB_RECOVERING = 12,   // handed to a worker for crash recovery
    VO_JOB_OP_COMPLETE = 13,  // a completion notice is being handled
};

// The error triple of an operation: high-level code, failing function, that
// function's status. Not locked: the owner decides who may touch it.
struct VoErrTriple {
    voErrRc rc = voErrRcSuccess;
    voErrFunc func = voErrFuncSuccess;
    unsigned funcrc = 0;

    void get(voErrRc* r, voErrFunc* f, unsigned* fr) const {
        if (r) *r = rc;
        get(f, fr);
    }
    void get(voErrFunc* f, unsigned* fr) const {
        if (f) *f = func;
        if (fr) *fr = funcrc;
    }
    void setHiLvl(voErrRc r) { rc = r; }
    void set(voErrFunc f, unsigned fr) {
        func = f;
        funcrc = fr;
    }
    void setAll(voErrRc r, voErrFunc f, unsigned fr) {
        rc = r;
        set(f, fr);
    }
    void setAll(const VoErr& e) { set(e.func(), e.funcrc()); }
};

class VoState {
  public:
    // The D-blades count stream progress in blocks of this size.
    static constexpr unsigned STREAM_BLOCK_BYTES = 4096;
    static constexpr unsigned STREAM_BLOCKS_PER_MEG = (1u << 20) / STREAM_BLOCK_BYTES;

    // The registry, the pool and the server drive the lifecycle fields
    // directly, as the operation's own code does.
    friend class VoStateList;
    friend class WorkerThreadPool;
    friend class VoServer;

  public:
    // Last operation ids the VODB cache refresh saw created and deleted.
    // Guarded by vodbCacheLock (VodbCacheLock); set both to 0 to force the
    // next refresh to re-read the records (forceNextRefreshVodbCache).
    static unsigned long long _lastCreatedOpid;
    static unsigned long long _lastDeletedOpid;

    // Set when the object was rebuilt from the VODB rather than requested.
    // Written by resurrection before the operation is registered.
    int opResurrected;

    // _refCount 1 (the creator's, handed to the registry by addNewOp),
    // _exportRuleset 65535, everything else clear. A mutex failure is fatal.
    VoState();
    virtual ~VoState();

    VoState(const VoState&) = delete;
    VoState& operator=(const VoState&) = delete;

    // ---- Operations every subclass provides, in this slot order. ----
    virtual void dbgDump() = 0;
    // The operation's error triple. The base keeps it behind a leaf lock of
    // its own, so any thread may read or set it, with or without the
    // operation lock held. setAllErr(VoErr&) leaves the high-level code to
    // the caller.
    virtual void getErr(voErrRc* rc, voErrFunc* func, unsigned* funcrc);
    virtual void getErr(voErrFunc* func, unsigned* funcrc);
    virtual void setHiLvlErr(voErrRc rc);
    virtual void setErr(voErrFunc func, unsigned funcrc);
    virtual void setAllErr(voErrRc rc, voErrFunc func, unsigned funcrc);
    virtual void setAllErr(VoErr& err);
    // Does the operation use volume (vid, lid) in that operation type and role.
    virtual bool isUsing(unsigned vid, const unsigned char* lid, VoRec::VoType type,
                         VoRec::VfsRole role) = 0;
    // Polls the D-blade for the stream's progress and updates the running
    // flag; returns a status (0 = answer received).
    virtual unsigned progress(CLIENT* clntSrcDbladeIncrCopy) = 0;
    // incrcopypause_1 / incrcopyresume_1 of the stream; the answer goes into
    // out (zero on success). Called by a handler holding the operation lock.
    virtual void pause(CLIENT* clntSrcDbladeIncrCopy, VoOut* out);
    virtual void resume(CLIENT* clntSrcDbladeIncrCopy, VoOut* out);
    // Concludes the D-blade stream once it no longer runs: sets
    // _incrcopyGotConclude on success (or when the D-blade no longer knows
    // the stream). Called by a worker, under the operation lock.
    virtual void concludeDbladeIncrCopy(CLIENT* clntSrcDbladeIncrCopy);
    // Finishes the operation: volumes, VLDB, then the VODB records.
    virtual unsigned conclude(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol,
                              CLIENT* clntSrcDbladeIncrCopy) = 0;
    // Rebuilds the object from the cached VODB records of opid. The caller
    // holds a VodbCacheLock. 0 on success.
    virtual unsigned resurrectFromVoRec(unsigned long long opid, CLIENT* clntVldb) = 0;
    // Rolls a resurrected or stalled operation forward or back. 0 on success.
    virtual unsigned recoverFromCrash(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol,
                                      CLIENT* clntSrcDbladeIncrCopy) = 0;

  protected:
    // True when the operation may run.
    virtual bool validate(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol) = 0;
    // Persists the operation's VODB records; 0 on success.
    virtual unsigned mkRec(CLIENT* clntVldb) = 0;
    // Creates the op src, the sink and the sink's VLDB record; 0 on success.
    virtual unsigned mkOpSrcSink(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol) = 0;
    // Asks the D-blade to start the stream; 0, 5005 (local mirror only) or an error.
    virtual unsigned startStream(CLIENT* clntSrcDbladeIncrCopy, CLIENT* clntSrcDbladeVol) = 0;
    // Subclasses add isUsing(lid) and isUsing(vid, lid) after these; they
    // must say `using VoState::isUsing;` to keep the forms above visible.

  public:
    // ---- Identity and lifecycle. ----
    unsigned long long getOpid() const { return _opid; }
    const VoRec& srcRec() const { return _srcRec; }
    // _opid == opid.
    bool isUsing(unsigned long long opid);

    // One trace line with every lifecycle field; who names the caller.
    void printState(const char* who);

    bool mgmtGotLastProgress() const { return _mgmtGotLastPgrs; }
    void setMgmtGotLastProgress() { _mgmtGotLastPgrs = true; }
    void clearRetainOpAfterLastProgress() { _retainOpAfterLastProgress = false; }
    void setRetainOpAfterLastProgress() { _retainOpAfterLastProgress = true; }
    // Final progress fetched and not asked to be kept.
    bool canRetireFromMem() const { return _mgmtGotLastPgrs && !_retainOpAfterLastProgress; }
    void setRetiredFromVodb() { _vodbRecordStored = false; }
    void setVodbRecordStored() { _vodbRecordStored = true; }
    bool retiredFromVodb() const { return !_vodbRecordStored; }
    void bumpUpRecoveryAttempts() { _recoveryAttempted++; }
    unsigned recoveryAttempts() const { return _recoveryAttempted; }
    // The third attempt gives up on the VODB record.
    bool forceRetireFromVodb() const { return _recoveryAttempted > 2; }
    // Record gone and more than nine attempts: leave memory without the
    // management client's last progress query.
    bool forceRetireFromMem() const { return retiredFromVodb() && _recoveryAttempted > 9; }

    // Wall-clock seconds; 0 when the clock cannot be read (traced).
    static unsigned getCurrentTime();
    // Tests replace the clock; null restores gettimeofday.
    static void setClockForTest(unsigned (*clock)());

    void setStatusCheckedAtTime(unsigned t) { _statusCheckedAtTime = t; }
    unsigned getStatusCheckedAtTime() const { return _statusCheckedAtTime; }
    int getJobState() const { return jobState; }
    void setJobState(int s) { jobState = s; }
    int getDbladeIncrCopyStatus() const { return _dbladeIncrCopyRunning; }
    void setDbladeIncrCopyStatus(int running) { _dbladeIncrCopyRunning = running != 0; }
    bool incrcopyGotConclude() const { return _incrcopyGotConclude; }
    bool opCompleteReceived() const { return _opCompleteReceived; }
    bool rollForward() const { return _rollForward; }
    int refCount() const { return _refCount; }

    // _voStateLock; a failure is fatal. Not recursive.
    void getLock();
    void releaseLock();
    // Takes _voStateLock only when it is free: false, without waiting, when
    // another thread holds it. Any other failure is fatal.
    bool tryLock();

    // Set by WorkerThreadPool::queueJob under the operation lock; cleared by
    // the worker when the job is over.
    bool isJobAssignedToThread() const { return jobAssignedToThread; }
    void setJobAssignedToThread() { jobAssignedToThread = true; }
    void jobIsFree() { jobAssignedToThread = false; }

    // ---- Shared steps. ----
    // Source exists (VLDB and D-blade), VODB cache fresh, validate, mkRec.
    // 0 on success, else 5003/5004 (missing client), 14 (no source), the
    // cache refresh's code, 8 (refused) or 2014 (not recorded); callers test
    // for zero only. Sets _vodbRecordStored on success.
    unsigned prepare(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol);
    // Makes the op src and sink (mkOpSrcSink) and starts the stream. Returns
    // 0, 5005 (local mirror only, no high-level error) or the failing code.
    // Leaves jobState 11; sets _rollForward only on full success.
    unsigned start(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol, CLIENT* clntSrcDbladeIncrCopy);

    // ---- Helpers over the VLDB, the VODB and the D-blades. ----
    // 0 when _srcRec's volume has exactly one VLDB record and the D-blade
    // answers its data version (kept in _srcRec); else the failing code with
    // the error set. Copies the record's type, root flag, family, export rule set.
    unsigned isSrcExist(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol);
    // A missing volume is success with *isExist 0.
    static VoErr getDataVerFromVLDB(CLIENT* clntVldb, unsigned vfsid, const unsigned char* lid,
                                    int* isExist, unsigned long long* dver);
    // 60-second D-blade call; a volume flagged busy answers getTheReturnCode(flags).
    static VoErr getDataVerFromDblade(CLIENT* clntDbladeVol, unsigned vfsid,
                                      const unsigned char* lid, unsigned long long* dver);
    static VoErr newVfsid(CLIENT* clntVldb, unsigned* vfsid);
    // Creates the VLDB record of a volume. The numbers are those of the VLDB
    // record (rec_create_input), in its order.
    static VoErr vldbCreateRecord(CLIENT* clntVldb, unsigned vfsid, const unsigned char* lid,
                                  const char* vfsname, const char* family, unsigned vfsType,
                                  unsigned isRoot, unsigned crtimeSec, unsigned crtimeUsec,
                                  unsigned vserver, unsigned long long dataVer,
                                  unsigned short exportRuleset, unsigned appId);
    // A record already gone (VLDB_INVALID_VFSID) counts as deleted.
    static VoErr vldbDeleteRecord(CLIENT* clntVldb, unsigned vfsid, const unsigned char* lid);
    // The error's code is the D-blade's status (21: no such volume on that LP)
    // or the transport failure.
    static VoErr dbladeDeleteVfs(CLIENT* clntDbladeVol, unsigned vfsid, const unsigned char* lid);
    // Connects out to the D-blade volume service of the LP's D-blade; rec, when
    // given, learns the D-blade id.
    static VoErr mkDbladeClient(CLIENT* clntVldb, const unsigned char* lid, VoRPCClient* out,
                                VoRec* rec);
    // Sets a volume read-write or read-only, D-blade first, then the VLDB.
    // Refused with (voErrVodValidate, busy code) while any recorded operation
    // uses the volume.
    static VoErr setVfsType(CLIENT* clntVldb, CLIENT* clntDbladeVol, unsigned vfsid,
                            const unsigned char* lid, vldb_vfs_types type);
    static void copy_mountedat_attr(tarn_volsattrx_t& to, const tarn_volgattrx_t& from);
    // incrcopyprogress_1 of the stream. 0 when an answer arrived (out holds
    // it, out->rc the D-blade's status; free it with xdr_free); else 5004 (no
    // client) or 10505 (transport failure), with the error set.
    unsigned getProgress(CLIENT* clntSrcDbladeIncrCopy, IncrCopyProgressOut* out);
    // vodb_create2_3 of recs, in their order, under an operation id the VODB
    // hands out: *opid, also set in every record. 0, voErrVodbCreateRpc or
    // voErrVodbCreate, with the error set and traced from site. _opid is the
    // caller's to set (under its lock when a handler may be reading it).
    unsigned createVodbRecords(VoTraceSite site, CLIENT* clntVldb, VoRec* const* recs,
                               unsigned count, unsigned long long* opid);
    // vodb_delete_by_opid_3 of _opid; on success the operation is retired
    // from the VODB.
    VoErr deleteVodbRec(CLIENT* clntVldb);

    // Flags of a busy volume to a status: 0x8 gives 288, 0x4 287, 0x800 280,
    // else -1.
    static int getTheReturnCode(unsigned flags);
    // The busy code that names the kind of operation holding a volume
    // (5021..5026), 0 for an unknown type.
    static unsigned getErrorCodeForOpType(int opType);

  protected:
    unsigned getSrcVfsType() const { return _srcVfsType; }
    void setSrcVfsType(unsigned t) { _srcVfsType = t; }
    bool isSrcRW() const { return _srcVfsType == RW_VFS; }
    const char* getFamily() const { return _family; }
    void setFamily(const char* family);
    unsigned getSrcIsRoot() const { return _srcIsRoot; }
    void setSrcIsRoot(unsigned r) { _srcIsRoot = r; }
    unsigned short getExportRuleset() const { return _exportRuleset; }
    void setExportRuleset(unsigned short r) { _exportRuleset = r; }
    // The clients a step needs, checked in this order: the first missing one
    // is traced ("clntVldb=0", ...) and recorded as (voErrVodSanityCheck,
    // 5003 for the VLDB, 5004 for a D-blade) with the high-level code hiLvl,
    // and that code is returned; 0 when all are there.
    unsigned refuseMissingClients(voErrRc hiLvl, CLIENT* clntVldb, CLIENT* clntSrcDbladeVol);
    unsigned refuseMissingClients(voErrRc hiLvl, CLIENT* clntVldb, CLIENT* clntSrcDbladeVol,
                                  CLIENT* clntSrcDbladeIncrCopy);
    // The same check without a high-level code: the first missing client is
    // traced from site and recorded as (func, 5003 or 5004), and that code
    // returned; 0 when all are there.
    unsigned missingClient(VoTraceSite site, voErrFunc func, CLIENT* clntVldb,
                           CLIENT* clntSrcDbladeVol);
    unsigned missingClient(VoTraceSite site, voErrFunc func, CLIENT* clntVldb,
                           CLIENT* clntSrcDbladeVol, CLIENT* clntSrcDbladeIncrCopy);
    // What every prepare does once its own checks have passed: refresh the
    // VODB cache, validate, mkRec, then mark the records stored. Traces from
    // site, its step lines at stepLvl. A failed refresh records refreshHiLvl
    // as the high-level code unless it is voErrRcSuccess. Returns as prepare.
    unsigned refreshValidateRecord(VoTraceSite site, VoTrace::Level stepLvl, voErrRc refreshHiLvl,
                                   CLIENT* clntVldb, CLIENT* clntSrcDbladeVol);
    // ---- Steps the operations with a stream share. ----

    // Opens a client to the D-blade serving LP lid (learning its id into
    // *learn when given); a failure is traced on behalf of the step at site
    // ("fail to contact sink dblade ...") and recorded.
    VoErr openDbladeOf(VoTraceSite site, CLIENT* clntVldb, const unsigned char* lid,
                       VoRPCClient* out, VoRec* learn);

    // The trace lines of deleteVolume, one wording per kind of volume.
    enum class VolDeleteWording { copySink, copyOpSrc, moveSink, moveOpSrc };
    // Deletes vol on its D-blade (a volume already gone counts as deleted;
    // a transport failure never does), then its VLDB record, tracing from
    // site with the D-blade lines under mod. 0 or the failing step's code,
    // recorded.
    unsigned deleteVolume(VoTraceSite site, VoTrace::Module mod, CLIENT* clntVldb,
                          CLIENT* clntDbladeVol, const VoRec& vol, VolDeleteWording wording);

    // The source's VLDB records into found. 0 when there is at least one;
    // else the failure, traced from site and recorded: voErrVldbRecordLookupRpc
    // or voErrVldbRecordLookup (a missing record as VLDB_RECORD_NOT_FOUND).
    unsigned lookupSrcVldb(VoTraceSite site, CLIENT* clntVldb,
                           VoXdrResult<vldb_record_lookup_result>& found);

    // Clones the source into opSrc (same LP) and registers the clone in the
    // VLDB under a name made from its part in the operation. 0 or the
    // failing step's code, recorded.
    unsigned cloneOpSrc(VoTraceSite site, CLIENT* clntVldb, CLIENT* clntSrcDbladeVol,
                        const VoRec& opSrc);
    // Makes sink on its LP's D-blade with opSrc's attributes and the volume
    // name volName, learning the D-blade id into sink under the operation
    // lock, and registers it in the VLDB as vldbName (its own family), of
    // the source's kind, expected at opSrc's data version (also given back
    // in *opSrcDver when asked). Names longer than VoRec::VNAME_MAX are cut.
    // 0 or the failing step's code, recorded.
    unsigned makeSink(VoTraceSite site, CLIENT* clntVldb, CLIENT* clntSrcDbladeVol,
                      const VoRec& opSrc, VoRec& sink, std::string volName, std::string vldbName,
                      unsigned long long* opSrcDver);
    // Sets _rollForward: forward exactly when the sink exists on its D-blade
    // at the data version its VLDB record expects. 0 when decided, else the
    // error (the caller rolls back).
    unsigned determineRecoveryStrategy(CLIENT* clntVldb, VoRec& sink);

    // Which of the five tests of a successful stream fails, 1 to 5 in the
    // order rc, source completion, source status, sink done, sink completion
    // (0 or VIC_ESINKUPTODATE); 0 when it passes them all.
    static int failedStreamTest(voErrRc rc, const VoSrcPgrs& src, const VoSinkPgrs& sink);
    // The same, tracing the failed test's line from site.
    int traceFailedStreamTest(VoTraceSite site, voErrRc rc, const VoSrcPgrs& src,
                              const VoSinkPgrs& sink);

    // Folds the answer of one D-blade volume call (rc: the VoRpcCalls
    // helper's transport answer; status: the D-blade's) into a VoErr, tracing
    // a failure as "opid=%lld <call> vfsid=%d failed: %s" or "... err=%#X".
    static VoErr dbladeOutcome(VoTraceSite at, VoTrace::Module mod, const char* call,
                               voErrFunc func, unsigned long long opid, unsigned vfsid, unsigned rc,
                               unsigned status);

    // One poll of the stream for a progress record pgrs (any of the
    // operations' records: rc, func, funcrc, voOpid, src): the answer goes
    // into res and the source's counters into pgrs. 0 when the D-blade
    // answered with progress; voErrRpcFailure on a transport failure (the
    // error recorded); voErrDbladeIncrCopyProgress when it refused the poll,
    // recorded in pgrs and the error (VIC_EOPNOTFOUND: it has forgotten the
    // stream, which then counts as ended and failed); 5004 without client.
    template <class Pgrs>
    unsigned pollStream(CLIENT* clntSrcDbladeIncrCopy, Pgrs& pgrs,
                        VoXdrResult<IncrCopyProgressOut>& res);
    // One destination's entry of the D-blade's progress answer, as the
    // management protocol reports it (megabytes rather than blocks).
    static void sinkProgressOf(const IncrCopyDestProgress& d, VoSinkPgrs* s);
    // Asks the D-blade to cancel the stream into sink; the answer goes into
    // out (zero on success). Called by a handler holding the operation lock.
    void cancelStreamTo(CLIENT* clntSrcDbladeIncrCopy, const VoRec& sink, VoOut* out);
    // A management progress request answered from the operation's last
    // progress pgrs: while the stream runs it polls first (progress());
    // voErrEndStream once the stream is over, voErrRollForwardOp or
    // voErrRollBackOp while the operation concludes, and once it is retired
    // from the VODB its final error triple, which marks the last progress as
    // delivered. Returns 0, 6 or 505 as the poll did. Lock held by the caller.
    template <class Out>
    unsigned answerProgress(CLIENT* clntSrcDbladeIncrCopy, const Out& pgrs, Out* out);
    // The start every recoverFromCrash shares: the clients are checked
    // (traced from site), an operation already retired from the VODB needs
    // nothing, and after too many attempts only its VODB records go, the
    // volumes staying as they are (the records traced first; kind names the
    // operation in "fail to recover <kind>"). True when the caller is done,
    // with its result in *rc.
    bool recoveryIsOver(VoTraceSite site, const char* kind, CLIENT* clntVldb,
                        CLIENT* clntSrcDbladeVol, CLIENT* clntSrcDbladeIncrCopy, unsigned* rc);
    // The end of a conclusion: with every step done (failed 0), or when the
    // operation is forced to retire, its VODB records go; otherwise they
    // stay so that recovery repeats what is unfinished. Returns failed, or
    // the record removal's code when only that failed.
    unsigned finishRecords(unsigned failed, CLIENT* clntVldb);

    // vldb_record_lookup_3 of (vfsid, lid), both name strings empty. Judging
    // the transport answer and the status is the caller's; out is the
    // caller's to free.
    static clnt_stat lookupVfs(CLIENT* clntVldb, unsigned vfsid, const unsigned char* lid,
                               vldb_record_lookup_result* out);
    // Clears the error triple when its failing function is a or b, in one
    // step under the error lock.
    void clearErrIfFunc(voErrFunc a, voErrFunc b);
    // Makes the next VODB cache refresh re-read the records. Takes the VODB
    // cache lock: the caller must not hold a VodbCacheLock.
    static void forceNextRefreshVodbCache();

    unsigned long long _opid;
    VoRec _srcRec;
    unsigned _srcVfsType;
    char _family[129];
    unsigned _srcIsRoot;
    unsigned short _exportRuleset;
    std::atomic<bool> _rollForward;
    std::atomic<bool> _mgmtGotLastPgrs;
    std::atomic<bool> _retainOpAfterLastProgress;
    std::atomic<bool> _opCompleteReceived;
    std::atomic<bool> _incrcopyGotConclude;
    std::atomic<bool> _vodbRecordStored;
    std::atomic<unsigned> _recoveryAttempted;
    std::atomic<unsigned> _statusCheckedAtTime;
    // Guarded by the registry's voStateLock.
    int _refCount;
    std::atomic<int> jobState;
    std::atomic<bool> jobAssignedToThread;
    std::atomic<bool> _setCancel;
    std::atomic<bool> _dbladeIncrCopyRunning;
    pthread_mutex_t _voStateLock;

  private:
    // The registry has given up its own reference while a finder's caller
    // still held one. Guarded by voStateLock.
    bool _listRefDropped = false;
    // Leaf lock over _err: nothing else is taken while it is held.
    std::mutex _errLock;
    VoErrTriple _err;
};

template <class Pgrs>
unsigned VoState::pollStream(CLIENT* clntSrcDbladeIncrCopy, Pgrs& pgrs,
                             VoXdrResult<IncrCopyProgressOut>& res) {
    if (clntSrcDbladeIncrCopy == nullptr) {
        VO_TR(vo_incrcopy, vo_warn, "clntSrcDbladeIncrCopy=0\n");
        setAllErr(voErrNoResource, voErrVodSanityCheck, VOD_ERR_NO_DBLADE_CLIENT);
        return VOD_ERR_NO_DBLADE_CLIENT;
    }
    if (!_dbladeIncrCopyRunning)
        VO_TR(vo_incrcopy, vo_warn,
              "ask for progress when opid=%lld believes !_dbladeIncrCopyRunning\n", _opid);
    VO_TR(vo_incrcopy, vo_debug, "opid=%lld call getProgress\n", _opid);
    // getProgress records (voErrRpcFailure, voErrDbladeIncrCopyProgressRpc, clnt_stat).
    if (getProgress(clntSrcDbladeIncrCopy, res.get()) != 0) return voErrRpcFailure;
    const unsigned status = res->rc;
    if (status != 0) {
        VO_TR(vo_incrcopy, vo_warn, "opid=%lld incrcopyprogress_1 err=%#X\n", _opid, status);
        if (status == VIC_EOPNOTFOUND) {
            // The D-blade has forgotten the stream: it will report nothing
            // more, so it counts as ended, and as failed.
            VO_TR(vo_incrcopy, vo_warn, "opid=%lld the dblade no longer knows the stream\n", _opid);
            _dbladeIncrCopyRunning = false;
            _rollForward = false;
        }
        // Any other refusal may pass: the stream stays marked running and
        // the next poll asks again.
        pgrs.rc = VoErrDblade;
        pgrs.func = voErrDbladeIncrCopyProgress;
        pgrs.funcrc = status;
        setErr(voErrDbladeIncrCopyProgress, status);
        return voErrDbladeIncrCopyProgress;
    }
    const IncrCopyPgrsOut& p = res->IncrCopyProgressOut_u.out;
    pgrs.voOpid = _opid;
    pgrs.rc = voErrRcSuccess;
    pgrs.func = voErrFuncSuccess;
    pgrs.funcrc = 0;
    pgrs.src.vfsId = p.srcVfsId;
    memcpy(pgrs.src.uuid, p.srcLpUuid, sizeof pgrs.src.uuid);
    pgrs.src.status = static_cast<VoStatusCode>(p.status);
    pgrs.src.completionCode = p.completionCode;
    pgrs.src.vnodesTotal = p.vnodesTotal;
    pgrs.src.vnodesProcessed = p.vnodesProcessed;
    pgrs.src.megsProcessed = p.blksRead / STREAM_BLOCKS_PER_MEG;
    // A poll failure that this answer outlived is no part of the outcome.
    clearErrIfFunc(voErrDbladeIncrCopyProgressRpc, voErrDbladeIncrCopyProgress);
    return 0;
}

template <class Out>
unsigned VoState::answerProgress(CLIENT* clntSrcDbladeIncrCopy, const Out& pgrs, Out* out) {
    VoTrace::Depth depth;
    const long long opid = static_cast<long long>(_opid);
    if (getDbladeIncrCopyStatus()) {
        unsigned r = progress(clntSrcDbladeIncrCopy);
        *out = pgrs;
        out->voOpid = _opid;
        if (r == voErrRpcFailure) {
            setHiLvlErr(voErrRpcFailure);
            getErr(&out->rc, &out->func, &out->funcrc);
            return r;
        }
        if (r == voErrDbladeIncrCopyProgress || !getDbladeIncrCopyStatus()) {
            out->rc = voErrEndStream;
            out->func = voErrFuncSuccess;
            out->funcrc = 0;
            VO_TR(vo_vod, vo_audit, "opid=%lld vod is concluding this op\n", opid);
            return r == voErrDbladeIncrCopyProgress ? r : 0;
        }
        return 0;
    }
    *out = pgrs;
    out->voOpid = _opid;
    if (!retiredFromVodb() && !forceRetireFromVodb()) {
        out->rc = _rollForward ? voErrRollForwardOp : voErrRollBackOp;
        out->func = voErrFuncSuccess;
        out->funcrc = 0;
        VO_TR(vo_vod, vo_audit, "opid=%lld vod is concluding this op\n", opid);
        return 0;
    }
    getErr(&out->rc, &out->func, &out->funcrc);
    setMgmtGotLastProgress();
    // Kept for another poll of the same answer until a new operation on the
    // source starts (VoServer::retireMatchingOps).
    setRetainOpAfterLastProgress();
    VO_TR(vo_vod, vo_audit, "opid=%lld report last progress to mgmt\n", opid);
    return 0;
}

#endif  // VOLOP_VOSTATE_H
