#include "vostate.h"

#include <errno.h>
#include <string.h>
#include <sys/time.h>

#include <cstdlib>
#include <vector>

#include "util/xdrproc.h"
#include "vldb_lit.h"
#include "vodbCache.h"
#include "vodldb.h"
#include "vorpccalls.h"
#include "vorpcclient.h"
#include "votrace.h"

unsigned long long VoState::_lastCreatedOpid = 0;
unsigned long long VoState::_lastDeletedOpid = 0;

namespace {

std::atomic<unsigned (*)()> gClock{nullptr};

// The D-blade's answer for a volume it does not have.
const unsigned kTarnErrVolNotFound = 16;

// Flags of a volume that make its data version unusable for now.
const unsigned kVolFlagsBusy = 0x800 | 0x8 | 0x4;

const unsigned kDbladeTimeoutSec = 60;
const unsigned kCloneTimeoutSec = 1800;
const unsigned kCreateTimeoutSec = 300;

timeval now() {
    timeval tv = {0, 0};
    gettimeofday(&tv, nullptr);
    return tv;
}

const char* rpcErrText(unsigned rc) {
    return rc == VOD_ERR_CANT_SET_TIMEOUT ? "voErrRpcErrCantSetTimeOut"
                                          : clnt_sperrno(static_cast<clnt_stat>(rc));
}

// A failed step as a VoErr: (func, funcrc), non-zero code.
VoErr voErr(voErrFunc func, unsigned funcrc, unsigned code) {
    VoErr e;
    e.setErr(func, funcrc);
    e.setErrorCode(code);
    return e;
}

}  // namespace

// ---- Construction, clock, lock. ----

VoState::VoState()
    : opResurrected(0),
      _opid(0),
      _srcRec(),
      _srcVfsType(0),
      _srcIsRoot(0),
      _exportRuleset(65535),
      _rollForward(false),
      _mgmtGotLastPgrs(false),
      _retainOpAfterLastProgress(false),
      _opCompleteReceived(false),
      _incrcopyGotConclude(false),
      _vodbRecordStored(false),
      _recoveryAttempted(0),
      _statusCheckedAtTime(0),
      _refCount(1),
      jobState(VO_JOB_NONE),
      jobAssignedToThread(false),
      _setCancel(false),
      _dbladeIncrCopyRunning(false) {
    _family[0] = '\0';
    int rc = pthread_mutex_init(&_voStateLock, nullptr);
    if (rc != 0) {
        VO_TR_RAW(vo_vod, vo_fatal, "pthread_mutex_init (_voStateLock): error = %d, %s\n", rc,
                  strerror(rc));
        exit(1);
    }
}

VoState::~VoState() { pthread_mutex_destroy(&_voStateLock); }

unsigned VoState::getCurrentTime() {
    unsigned (*clock)() = gClock.load();
    if (clock != nullptr) return clock();
    timeval tv;
    if (gettimeofday(&tv, nullptr) != 0) {
        VO_TR_RAW(vo_vod, vo_warn, "gettimeofday: %s\n", strerror(errno));
        return 0;
    }
    return static_cast<unsigned>(tv.tv_sec);
}

void VoState::setClockForTest(unsigned (*clock)()) { gClock = clock; }

void VoState::getLock() {
    int rc = pthread_mutex_lock(&_voStateLock);
    if (rc != 0) {
        VO_TR_RAW(vo_vod, vo_fatal, "mutex lock _voStateLock: error = %d, %s\n", rc, strerror(rc));
        exit(1);
    }
}

bool VoState::tryLock() {
    int rc = pthread_mutex_trylock(&_voStateLock);
    if (rc == 0) return true;
    if (rc == EBUSY) return false;
    VO_TR_RAW(vo_vod, vo_fatal, "mutex lock _voStateLock: error = %d, %s\n", rc, strerror(rc));
    exit(1);
}

void VoState::releaseLock() {
    int rc = pthread_mutex_unlock(&_voStateLock);
    if (rc != 0) {
        VO_TR_RAW(vo_vod, vo_fatal, "mutex unlock _voStateLock: error = %d, %s\n", rc,
                  strerror(rc));
        exit(1);
    }
}

bool VoState::isUsing(unsigned long long opid) {
    VO_TR_RAW(vo_vod, vo_detail, "VoState::_opid=%lld\n", _opid);
    return _opid == opid;
}

void VoState::printState(const char* who) {
    VO_TR_RAW(vo_vod, vo_debug,
              "%s %d opid=%lld, VODBRecordStored=%d, vicRunning=%d, gotConclude=%d, "
              "opComplete=%d, recoveryAttempts=%d mgmtProgress=%d retainOpAfterLastProgress=%d "
              "_refCount = %d, jobState = %d, jobAssignedToThread = %d\n",
              who, __LINE__, _opid, int(_vodbRecordStored), int(_dbladeIncrCopyRunning),
              int(_incrcopyGotConclude), int(_opCompleteReceived), int(_recoveryAttempted),
              int(_mgmtGotLastPgrs), int(_retainOpAfterLastProgress), _refCount, int(jobState),
              int(jobAssignedToThread));
}

void VoState::setFamily(const char* family) {
    strncpy(_family, family != nullptr ? family : "", sizeof _family - 1);
    _family[sizeof _family - 1] = '\0';
}

// ---- The error triple. ----

void VoState::getErr(voErrRc* rc, voErrFunc* func, unsigned* funcrc) {
    std::lock_guard<std::mutex> g(_errLock);
    _err.get(rc, func, funcrc);
}

void VoState::getErr(voErrFunc* func, unsigned* funcrc) {
    std::lock_guard<std::mutex> g(_errLock);
    _err.get(func, funcrc);
}

void VoState::setHiLvlErr(voErrRc rc) {
    std::lock_guard<std::mutex> g(_errLock);
    _err.setHiLvl(rc);
}

void VoState::setErr(voErrFunc func, unsigned funcrc) {
    std::lock_guard<std::mutex> g(_errLock);
    _err.set(func, funcrc);
}

void VoState::setAllErr(voErrRc rc, voErrFunc func, unsigned funcrc) {
    std::lock_guard<std::mutex> g(_errLock);
    _err.setAll(rc, func, funcrc);
}

void VoState::setAllErr(VoErr& err) {
    std::lock_guard<std::mutex> g(_errLock);
    _err.setAll(err);
}

void VoState::clearErrIfFunc(voErrFunc a, voErrFunc b) {
    std::lock_guard<std::mutex> g(_errLock);
    if (_err.func == a || _err.func == b) _err = VoErrTriple();
}

void VoState::forceNextRefreshVodbCache() {
    // The ids belong to the cache; change them under its lock.
    VodbCacheLock lock;
    _lastCreatedOpid = 0;
    _lastDeletedOpid = 0;
}

// ---- Code tables. ----

int VoState::getTheReturnCode(unsigned flags) {
    if (flags & 0x8) return 288;
    if (flags & 0x4) return 287;
    if (flags & 0x800) return 280;
    return -1;
}

unsigned VoState::getErrorCodeForOpType(int opType) {
    switch (opType) {
        case VoRec::VODB_VOLOP_COPY:
            return VOD_ERR_BUSY_COPY;
        case VoRec::VODB_VOLOP_MIRROR:
            return VOD_ERR_BUSY_MIRROR;
        case VoRec::VODB_VOLOP_MOVE:
        case VoRec::VODB_VOLOP_FINALMOVE:
            return VOD_ERR_BUSY_MOVE;
        case VoRec::VODB_VOLOP_DELETE:
            return VOD_ERR_BUSY_DELETE;
        case VoRec::VODB_VOLOP_DUMP:
            return VOD_ERR_BUSY_DUMP;
        case VoRec::VODB_VOLOP_RESTORE:
            return VOD_ERR_BUSY_RESTORE;
        default:
            VO_TR_RAW(vo_vod, vo_fatal, "UnKnow opType = %d\n", opType);
            return 0;
    }
}

// ---- Shared steps. ----

unsigned VoState::missingClient(VoTraceSite site, voErrFunc func, CLIENT* clntVldb,
                                CLIENT* clntSrcDbladeVol) {
    unsigned missing = 0;
    if (clntVldb == nullptr) {
        VO_TR_AT(site, VoTrace::vo_vod, VoTrace::vo_warn, "clntVldb=0\n");
        missing = VOD_ERR_NO_VLDB_CLIENT;
    } else if (clntSrcDbladeVol == nullptr) {
        VO_TR_AT(site, VoTrace::vo_vod, VoTrace::vo_warn, "clntSrcDbladeVol=0\n");
        missing = VOD_ERR_NO_DBLADE_CLIENT;
    }
    if (missing != 0) setErr(func, missing);
    return missing;
}

unsigned VoState::missingClient(VoTraceSite site, voErrFunc func, CLIENT* clntVldb,
                                CLIENT* clntSrcDbladeVol, CLIENT* clntSrcDbladeIncrCopy) {
    if (unsigned missing = missingClient(site, func, clntVldb, clntSrcDbladeVol)) return missing;
    if (clntSrcDbladeIncrCopy != nullptr) return 0;
    VO_TR_AT(site, VoTrace::vo_vod, VoTrace::vo_warn, "clntSrcDbladeIncrCopy=0\n");
    setErr(func, VOD_ERR_NO_DBLADE_CLIENT);
    return VOD_ERR_NO_DBLADE_CLIENT;
}

unsigned VoState::refuseMissingClients(voErrRc hiLvl, CLIENT* clntVldb, CLIENT* clntSrcDbladeVol) {
    unsigned missing = missingClient(VO_SITE, voErrVodSanityCheck, clntVldb, clntSrcDbladeVol);
    if (missing != 0) setHiLvlErr(hiLvl);
    return missing;
}

unsigned VoState::refuseMissingClients(voErrRc hiLvl, CLIENT* clntVldb, CLIENT* clntSrcDbladeVol,
                                       CLIENT* clntSrcDbladeIncrCopy) {
    unsigned missing = missingClient(VO_SITE, voErrVodSanityCheck, clntVldb, clntSrcDbladeVol,
                                     clntSrcDbladeIncrCopy);
    if (missing != 0) setHiLvlErr(hiLvl);
    return missing;
}

unsigned VoState::refreshValidateRecord(VoTraceSite site, VoTrace::Level stepLvl,
                                        voErrRc refreshHiLvl, CLIENT* clntVldb,
                                        CLIENT* clntSrcDbladeVol) {
    VO_TR_AT(site, VoTrace::vo_vod, stepLvl, "cache all latest vodb recs\n");
    VoErr err = VodbCacheLock::refreshVodbCache(clntVldb);
    if (err != 0) {
        VO_TR_AT(site, VoTrace::vo_vod, VoTrace::vo_warn,
                 "refreshVodbCache err.func=%d err.funcrc=%d\n", err.func(), err.funcrc());
        setAllErr(err);
        if (refreshHiLvl != voErrRcSuccess) setHiLvlErr(refreshHiLvl);
        return err;
    }
    VO_TR_AT(site, VoTrace::vo_vod, stepLvl, "validate vol op\n");
    if (!validate(clntVldb, clntSrcDbladeVol)) {
        // A target without room is the one refusal that has a high-level
        // code of its own; every other one reads as a failed validation.
        voErrRc rc = voErrRcSuccess;
        getErr(&rc, nullptr, nullptr);
        if (rc != voErrNotEnoughSpaceSinkLP) setHiLvlErr(voErrValidate);
        VO_TR_AT(site, VoTrace::vo_vod, VoTrace::vo_warn, "cannot valid due to error\n");
        return voErrValidate;
    }
    if (mkRec(clntVldb) != 0) {
        setHiLvlErr(voErrPersistOp);
        return voErrVodMkVodbRec;
    }
    _vodbRecordStored = true;
    return 0;
}

unsigned VoState::prepare(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol) {
    VoTrace::Depth depth;
    if (unsigned missing = refuseMissingClients(voErrValidate, clntVldb, clntSrcDbladeVol))
        return missing;
    VO_TR(vo_vod, vo_debug, "check src vfs exist\n");
    if (isSrcExist(clntVldb, clntSrcDbladeVol) != 0) {
        VO_TR(vo_vod, vo_warn, "cannot find src vfs %d\n", _srcRec.vid());
        setHiLvlErr(voErrSrcVFSNotExist);
        return voErrSrcVFSNotExist;
    }
    // A refresh that failed refuses the operation like a failed validation:
    // with rc 0 beside the failing call, a client would read the refusal as
    // a started operation.
    return refreshValidateRecord(VO_SITE, VoTrace::vo_debug, voErrValidate, clntVldb,
                                 clntSrcDbladeVol);
}

unsigned VoState::start(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol, CLIENT* clntSrcDbladeIncrCopy) {
    VoTrace::Depth depth;
    if (unsigned missing =
            refuseMissingClients(voErrMakeVFS, clntVldb, clntSrcDbladeVol, clntSrcDbladeIncrCopy))
        return missing;

    // Until the stream runs, the operation looks ended: a crash or failure
    // while making volumes leaves one the registry concludes instead of
    // waiting for a stream that never existed.
    _incrcopyGotConclude = true;
    _recoveryAttempted = 0;
    _dbladeIncrCopyRunning = false;
    _opCompleteReceived = true;

    VO_TR(vo_vod, vo_debug, "make op src, op sink and sink vfs\n");
    unsigned rc = mkOpSrcSink(clntVldb, clntSrcDbladeVol);
    if (rc != 0) setHiLvlErr(voErrMakeVFS);

    if (rc == 0) {
        _incrcopyGotConclude = false;
        _recoveryAttempted = 0;
        _dbladeIncrCopyRunning = true;
        _opCompleteReceived = false;
        VO_TR(vo_vod, vo_debug, "call dblade to start vol op\n");
        rc = startStream(clntSrcDbladeIncrCopy, clntSrcDbladeVol);
        if (rc != 0 && rc != VOD_ERR_LOCAL_MIRROR) setHiLvlErr(voErrStartStream);
    }

    jobState = VO_JOB_STARTED;
    if (rc == 0) _rollForward = true;
    return rc;
}

clnt_stat VoState::lookupVfs(CLIENT* clntVldb, unsigned vfsid, const unsigned char* lid,
                             vldb_record_lookup_result* out) {
    vldb_record_lookup_input in;
    memset(&in, 0, sizeof in);
    in.input_mask = VFS_ID | VFS_LP;
    in.r.vfsid = vfsid;
    memcpy(in.r.lp_uuid, lid, sizeof in.r.lp_uuid);
    char empty[] = "";
    in.r.family = empty;
    in.r.vfsname = empty;
    return vldb_record_lookup_3(&in, out, clntVldb);
}

// ---- The D-blade stream. ----

namespace {

// Pausing and resuming a stream differ only in the procedure and its names.
struct StreamControl {
    clnt_stat (*stub)(u_quad_t*, u_int*, CLIENT*);
    voErrFunc func;
    const char* proc;  // in the status trace
    const char* done;  // in the success trace
};
const StreamControl kPause = {incrcopypause_1, voErrDbladeIncrCopyPause, "incrcopypause_1",
                              "paused"};
const StreamControl kResume = {incrcopyresume_1, voErrDbladeIncrCopyResume, "incrcopyresume_1",
                               "resumed"};

void controlStream(const StreamControl& c, VoTraceSite site, unsigned long long opid, CLIENT* clnt,
                   VoOut* out) {
    VoTrace::Depth depth;
    if (clnt == nullptr) {
        VO_TR(vo_incrcopy, vo_warn, "clntSrcDbladeIncrCopy=0\n");
        *out = VoOut{voErrNoResource, voErrVodSanityCheck, VOD_ERR_NO_DBLADE_CLIENT};
        return;
    }
    u_quad_t id = opid;
    u_int status = 0;
    clnt_stat st = c.stub(&id, &status, clnt);
    if (st != RPC_SUCCESS) {
        // Both name the pause procedure in this line.
        VO_TR_AT(site, VoTrace::vo_incrcopy, VoTrace::vo_warn,
                 "opid=%lld incrcopypause_1 failed: %s\n", opid, clnt_sperrno(st));
        VoErr e = VoRpcCalls::foldErr(c.func, st, 0);
        *out = VoOut{voErrRpcFailure, e.func(), e.funcrc()};
    } else if (status != 0) {
        VO_TR_AT(site, VoTrace::vo_incrcopy, VoTrace::vo_warn, "opid=%lld %s err=%#X\n", opid,
                 c.proc, status);
        *out = VoOut{VoErrDblade, c.func, status};
    } else {
        *out = VoOut{voErrRcSuccess, voErrFuncSuccess, 0};
        VO_TR_AT(site, VoTrace::vo_incrcopy, VoTrace::vo_audit, "opid=%lld %s\n", opid, c.done);
    }
}

}  // namespace

void VoState::pause(CLIENT* clntSrcDbladeIncrCopy, VoOut* out) {
    controlStream(kPause, VO_SITE, _opid, clntSrcDbladeIncrCopy, out);
}

void VoState::resume(CLIENT* clntSrcDbladeIncrCopy, VoOut* out) {
    controlStream(kResume, VO_SITE, _opid, clntSrcDbladeIncrCopy, out);
}

void VoState::concludeDbladeIncrCopy(CLIENT* clntSrcDbladeIncrCopy) {
    VoTrace::Depth depth;
    if (clntSrcDbladeIncrCopy == nullptr) {
        VO_TR(vo_incrcopy, vo_warn, "clntSrcDbladeIncrCopy=0\n");
        setErr(voErrVodSanityCheck, VOD_ERR_NO_DBLADE_CLIENT);
        setHiLvlErr(voErrEndStream);
        return;
    }
    if (_dbladeIncrCopyRunning) progress(clntSrcDbladeIncrCopy);
    if (_dbladeIncrCopyRunning || _incrcopyGotConclude) return;

    u_quad_t opid = _opid;
    u_int status = 0;
    clnt_stat st = incrcopyconclude_1(&opid, &status, clntSrcDbladeIncrCopy);
    if (st != RPC_SUCCESS) {
        VO_TR(vo_incrcopy, vo_warn, "opid=%lld incrcopyconclude_1 failed: %s\n", _opid,
              clnt_sperrno(st));
    } else if (status == 0 || status == VIC_EOPNOTFOUND) {
        // A stream the D-blade no longer knows is as good as concluded.
        VO_TR(vo_incrcopy, vo_audit, " opid=%lld concluded incrcopy\n", _opid);
        _incrcopyGotConclude = true;
    } else {
        VO_TR(vo_incrcopy, vo_warn, "opid=%lld incrcopyconclude_1 err=%#X\n", _opid, status);
    }
}

void VoState::sinkProgressOf(const IncrCopyDestProgress& d, VoSinkPgrs* s) {
    s->isDone = d.isDone;
    s->completionCode = d.completionCode;
    s->vfsId = d.vfsId;
    memcpy(s->uuid, d.uuid, sizeof s->uuid);
    s->megsProcessed = d.blksSent / STREAM_BLOCKS_PER_MEG;
}

unsigned VoState::createVodbRecords(VoTraceSite site, CLIENT* clntVldb, VoRec* const* recs,
                                    unsigned count, unsigned long long* opid) {
    std::vector<vodbRec> wire(count);
    memset(wire.data(), 0, count * sizeof(vodbRec));
    for (unsigned i = 0; i < count; i++) {
        recs[i]->toVodbRec(&wire[i]);
        wire[i].opid = 0;
    }
    vodb_create2_input in;
    memset(&in, 0, sizeof in);
    in.new_create_opid = 0;  // the VODB hands out the id
    in.rec.rec_len = count;
    in.rec.rec_val = wire.data();
    VoXdrResult<vodb_create2_result> res(xdr_vodb_create2_result);
    VO_TR_AT(site, VoTrace::vo_vldb, VoTrace::vo_entry, "vodb_create2_3 opid=%lld\n", _opid);
    clnt_stat st = vodb_create2_3(&in, res.get(), clntVldb);
    if (st != RPC_SUCCESS) {
        VO_TR_AT(site, VoTrace::vo_vldb, VoTrace::vo_warn, "vodb_create2_3 opid=%lld failed: %s\n",
                 _opid, clnt_sperrno(st));
        setErr(voErrVodbCreateRpc, st);
        return voErrVodbCreateRpc;
    }
    if (res->result != 0) {
        VO_TR_AT(site, VoTrace::vo_vldb, VoTrace::vo_warn, "vodb_create2_3 opid=%lld err %s \n",
                 _opid, statLit(res->result));
        setErr(voErrVodbCreate, static_cast<unsigned>(res->result));
        return voErrVodbCreate;
    }
    *opid = res->out_create_opid;
    for (unsigned i = 0; i < count; i++) recs[i]->setOpid(*opid);
    VO_TR_AT(site, VoTrace::vo_vldb, VoTrace::vo_audit, "vodb_create2_3 opid=%lld succeed\n",
             *opid);
    return 0;
}

unsigned VoState::getProgress(CLIENT* clntSrcDbladeIncrCopy, IncrCopyProgressOut* out) {
    VoTrace::Depth depth;
    memset(out, 0, sizeof *out);
    if (clntSrcDbladeIncrCopy == nullptr) {
        VO_TR(vo_incrcopy, vo_warn, "clntSrcDbladeIncrCopy=0\n");
        setAllErr(voErrNoResource, voErrVodSanityCheck, VOD_ERR_NO_DBLADE_CLIENT);
        return VOD_ERR_NO_DBLADE_CLIENT;
    }
    u_quad_t opid = _opid;
    clnt_stat st = incrcopyprogress_1(&opid, out, clntSrcDbladeIncrCopy);
    if (st != RPC_SUCCESS) {
        VO_TR(vo_incrcopy, vo_warn, " opid=%lld incrcopyprogress_1 failed: %s\n", _opid,
              clnt_sperrno(st));
        xdr_free(xdrProc(xdr_IncrCopyProgressOut), reinterpret_cast<char*>(out));
        memset(out, 0, sizeof *out);
        setAllErr(voErrRpcFailure, voErrDbladeIncrCopyProgressRpc, st);
        return voErrDbladeIncrCopyProgressRpc;
    }
    return 0;
}

// ---- VLDB, VODB and D-blade helpers. ----

unsigned VoState::isSrcExist(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol) {
    VoTrace::Depth depth;
    if (clntVldb == nullptr) {
        setErr(voErrVodSanityCheck, VOD_ERR_NO_VLDB_CLIENT);
        return VOD_ERR_NO_VLDB_CLIENT;
    }
    if (clntSrcDbladeVol == nullptr) {
        setErr(voErrVodSanityCheck, VOD_ERR_NO_DBLADE_CLIENT);
        return VOD_ERR_NO_DBLADE_CLIENT;
    }
    const unsigned vid = _srcRec.vid();
    const unsigned char* lid = _srcRec.lid();
    unsigned result = 0;
    {
        VoXdrResult<vldb_record_lookup_result> res(xdr_vldb_record_lookup_result);
        VO_TR(vo_vldb, vo_entry, "vldb_record_lookup_3 vfsid=%d\n", vid);
        clnt_stat st = lookupVfs(clntVldb, vid, lid, res.get());
        if (st != RPC_SUCCESS) {
            VO_TR(vo_vldb, vo_warn, "vldb_record_lookup_3 vfsid=%d failed: %s\n", vid,
                  clnt_sperrno(st));
            setErr(voErrVldbRecordLookupRpc, st);
            return voErrVldbRecordLookupRpc;
        }
        unsigned status = res->result;
        unsigned count = res->r.r_len;
        if (status != 0) {
            if (status == VLDB_RECORD_NOT_FOUND)
                VO_TR(vo_vldb, vo_warn, "No VLDB record for vfsid=%d LP=" VO_LP_FMT "\n", vid,
                      VO_LP_ARGS(lid));
            else
                VO_TR(vo_vldb, vo_warn, "vldb_record_lookup_3 vfsid=%d err %s\n", vid,
                      statLit(status));
            setErr(voErrVldbRecordLookup, status);
            result = voErrVldbRecordLookup;
        } else if (count == 0) {
            VO_TR(vo_vldb, vo_warn, "No VLDB record for vfsid=%d LP=" VO_LP_FMT "\n", vid,
                  VO_LP_ARGS(lid));
            setErr(voErrVldbRecordLookup, VLDB_RECORD_NOT_FOUND);
            result = voErrVldbRecordLookup;
        } else if (count > 1) {
            VO_TR(vo_vldb, vo_warn, "Expect one VLDB record for vfsid=%d. Got %d!\n", vid, count);
            setErr(voErrVodSanityCheck, VOD_ERR_INTERNAL);
            result = VOD_ERR_INTERNAL;
        } else {
            const Rec& r = res->r.r_val[0];
            _srcVfsType = r.vfstype;
            _srcIsRoot = r.is_root;
            setFamily(r.family);
            _exportRuleset = r.exportRuleset;
        }
    }
    if (result != 0) return result;

    unsigned long long dver = 0;
    VoErr err = getDataVerFromDblade(clntSrcDbladeVol, vid, lid, &dver);
    if (err != 0) {
        VO_TR(vo_srcvol, vo_warn,
              "getDataVerFromDblade vfsid=%d LP=" VO_LP_FMT " err.func=%d err.funcrc=%d\n", vid,
              VO_LP_ARGS(lid), err.func(), err.funcrc());
        setErr(err.func(), err.funcrc());
        return err;
    }
    _srcRec.setDver(dver);
    return 0;
}

VoErr VoState::getDataVerFromDblade(CLIENT* clntDbladeVol, unsigned vfsid, const unsigned char* lid,
                                    unsigned long long* dver) {
    VoTrace::Depth depth;
    if (dver != nullptr) *dver = 0;
    if (clntDbladeVol == nullptr) {
        VO_TR(vo_srcvol, vo_warn, "clntDbladeVol=0\n");
        return voErr(voErrVodAttrGetDataVer, VOD_ERR_NO_DBLADE_CLIENT, VOD_ERR_NO_DBLADE_CLIENT);
    }
    VolGetattrIn in;
    memset(&in, 0, sizeof in);
    in.vfsID = vfsid;
    memcpy(in.lpUUID, lid, sizeof in.lpUUID);
    VoXdrResult<VolGetattrOut_t> out(xdr_VolGetattrOut_t);
    unsigned rc = VoRpcCalls::dbladeVfsGetAttrs(&in, out.get(), clntDbladeVol, kDbladeTimeoutSec);
    if (rc != 0) {
        VO_TR(vo_srcvol, vo_warn, "dbladeVfsGetAttrs vfsid=%d failed: %s\n", vfsid, rpcErrText(rc));
        return VoRpcCalls::foldErr(voErrDbladeVolGetAttr, static_cast<clnt_stat>(rc), 0);
    }
    unsigned status = out->returnCode;
    if (status != 0) {
        if (status == kTarnErrVolNotFound)
            VO_TR(vo_srcvol, vo_debug, "TARN_ERR_VOLNOTFOUND vfsid=%d LP=" VO_LP_FMT "\n", vfsid,
                  VO_LP_ARGS(lid));
        else if (status == TARN_ERR_LPMMISMATCH)
            VO_TR(vo_srcvol, vo_debug, "TARN_ERR_LPMMISMATCH vfsid=%d LP=" VO_LP_FMT "\n", vfsid,
                  VO_LP_ARGS(lid));
        else
            VO_TR(vo_srcvol, vo_warn, "dbladeVfsGetAttrs vfsid=%d err=%#X\n", vfsid, status);
        return voErr(voErrDbladeVolGetAttr, status, status);
    }
    unsigned flags = out->return_volattrs.flags;
    if (flags & kVolFlagsBusy) {
        // Kept without a newline, as operators' filters know it.
        VO_TR(vo_srcvol, vo_warn, "dbladeVfsGetAttrs vfsid=%d, vfs Flags = 0x%x", vfsid, flags);
        unsigned code = static_cast<unsigned>(getTheReturnCode(flags));
        return voErr(voErrDbladeVolGetAttr, code, code);
    }
    if (dver != nullptr) *dver = out->return_volattrs.dataVersion;
    VO_TR(vo_srcvol, vo_debug, "VFS %d is at dataVer %lld\n", vfsid,
          static_cast<long long>(out->return_volattrs.dataVersion));
    return VoErr();
}

VoErr VoState::getDataVerFromVLDB(CLIENT* clntVldb, unsigned vfsid, const unsigned char* lid,
                                  int* isExist, unsigned long long* dver) {
    VoTrace::Depth depth;
    if (clntVldb == nullptr)
        return voErr(voErrVodVldbGetDataVer, VOD_ERR_NO_VLDB_CLIENT, VOD_ERR_NO_VLDB_CLIENT);
    if (isExist == nullptr) {
        VO_TR(vo_vldb, vo_warn, "isExist=0 cannot return result\n");
        return voErr(voErrVodVldbGetDataVer, VOD_ERR_INTERNAL, VOD_ERR_INTERNAL);
    }
    *isExist = 0;
    if (dver != nullptr) *dver = 0;
    VO_TR(vo_vldb, vo_entry, "vldb rec lookup vfsid=%d\n", vfsid);
    VoXdrResult<vldb_record_lookup_result> res(xdr_vldb_record_lookup_result);
    clnt_stat st = lookupVfs(clntVldb, vfsid, lid, res.get());
    if (st != RPC_SUCCESS) {
        VO_TR(vo_vldb, vo_warn, "vldb_record_lookup_3 vfsid=%d failed: %s\n", vfsid,
              clnt_sperrno(st));
        return VoRpcCalls::foldErr(voErrVldbRecordLookup, st, 0);
    }
    unsigned status = res->result;
    unsigned count = res->r.r_len;
    VoErr err;
    if (status == VLDB_RECORD_NOT_FOUND || (status == 0 && count == 0)) {
        // A missing volume is an answer, not a failure: the pair is kept, the
        // code stays 0.
        VO_TR(vo_vldb, vo_debug, "No VLDB record for vfsid=%d LP=" VO_LP_FMT "\n", vfsid,
              VO_LP_ARGS(lid));
        err.setErr(voErrVldbRecordLookup, VLDB_RECORD_NOT_FOUND);
        return err;
    }
    if (status != 0) {
        VO_TR(vo_vldb, vo_warn, "vldb_record_lookup_3 vfsid=%d err %s\n", vfsid, statLit(status));
        return VoRpcCalls::foldErr(voErrVldbRecordLookup, RPC_SUCCESS, status);
    }
    if (count > 1) {
        VO_TR(vo_vldb, vo_warn, "Expect one VLDB record for vfsid=%d. Got %d!\n", vfsid, count);
        return voErr(voErrVodSanityCheck, VOD_ERR_INTERNAL, VOD_ERR_INTERNAL);
    }
    *isExist = 1;
    if (dver != nullptr) *dver = res->r.r_val[0].dataVer;
    VO_TR(vo_vldb, vo_debug, "VFS %d is at dataVer %lld\n", vfsid,
          static_cast<long long>(res->r.r_val[0].dataVer));
    return err;
}

VoErr VoState::newVfsid(CLIENT* clntVldb, unsigned* vfsid) {
    VoTrace::Depth depth;
    if (clntVldb == nullptr)
        return voErr(voErrVodSanityCheck, VOD_ERR_NO_VLDB_CLIENT, VOD_ERR_NO_VLDB_CLIENT);
    VoXdrResult<new_vfsid_result> res(xdr_new_vfsid_result);
    clnt_stat st = new_vfsid_3(nullptr, res.get(), clntVldb);
    if (st != RPC_SUCCESS) {
        VO_TR(vo_vldb, vo_warn, "new_vfsid_3 failed: %s\n", clnt_sperrno(st));
        return VoRpcCalls::foldErr(voErrVldbNewVfsid, st, 0);
    }
    if (res->result != 0) {
        VO_TR(vo_vldb, vo_warn, "new_vfsid_3 err %s \n", statLit(res->result));
        return VoRpcCalls::foldErr(voErrVldbNewVfsid, RPC_SUCCESS, res->result);
    }
    *vfsid = res->newvfsid;
    VO_TR(vo_vldb, vo_debug, "new vfs id=%d\n", *vfsid);
    return VoErr();
}

VoErr VoState::vldbCreateRecord(CLIENT* clntVldb, unsigned vfsid, const unsigned char* lid,
                                const char* vfsname, const char* family, unsigned vfsType,
                                unsigned isRoot, unsigned crtimeSec, unsigned crtimeUsec,
                                unsigned vserver, unsigned long long dataVer,
                                unsigned short exportRuleset, unsigned appId) {
    VoTrace::Depth depth;
    if (clntVldb == nullptr)
        return voErr(voErrVodSanityCheck, VOD_ERR_NO_VLDB_CLIENT, VOD_ERR_NO_VLDB_CLIENT);
    rec_create_input in;
    memset(&in, 0, sizeof in);
    in.vfsid = vfsid;
    char empty[] = "";
    in.family = family != nullptr ? const_cast<char*>(family) : empty;
    in.vfsname = vfsname != nullptr ? const_cast<char*>(vfsname) : empty;
    in.vfstype = vfsType;
    in.is_root = isRoot;
    in.crtime.sec = crtimeSec;
    in.crtime.usec = crtimeUsec;
    memcpy(in.lp_uuid, lid, sizeof in.lp_uuid);
    in.vserver = vserver;
    in.dataVer = dataVer;
    in.appId = appId;
    in.exportRuleset = exportRuleset;

    VO_TR(vo_vldb, vo_entry, "vldb_create_record_3 vfsid=%d vfsname=%s\n", vfsid, in.vfsname);
    int status = 0;
    clnt_stat st = vldb_create_record_3(&in, &status, clntVldb);
    if (st != RPC_SUCCESS) {
        VO_TR(vo_vldb, vo_warn, "vldb_create_record_3 vfsid=%d failed: %s\n", vfsid,
              clnt_sperrno(st));
        return VoRpcCalls::foldErr(voErrVldbCreateRecord, st, 0);
    }
    if (status != 0) {
        VO_TR(vo_vldb, vo_warn, "vldb_create_record_3 vfsid=%d err %s\n", vfsid, statLit(status));
        return VoRpcCalls::foldErr(voErrVldbCreateRecord, RPC_SUCCESS,
                                   static_cast<unsigned>(status));
    }
    VO_TR(vo_vldb, vo_debug, "new vldb rec created\n");
    return VoErr();
}

VoErr VoState::vldbDeleteRecord(CLIENT* clntVldb, unsigned vfsid, const unsigned char* lid) {
    VoTrace::Depth depth;
    if (clntVldb == nullptr)
        return voErr(voErrVodSanityCheck, VOD_ERR_NO_VLDB_CLIENT, VOD_ERR_NO_VLDB_CLIENT);
    rec_delete_input in;
    memset(&in, 0, sizeof in);
    in.vfsid = vfsid;
    memcpy(in.lp_uuid, lid, sizeof in.lp_uuid);
    VO_TR(vo_vldb, vo_entry, "vldb_delete_record_3 vfsid=%d\n", vfsid);
    int status = 0;
    clnt_stat st = vldb_delete_record_3(&in, &status, clntVldb);
    if (st != RPC_SUCCESS) {
        VO_TR(vo_vldb, vo_warn, "vldb_delete_record_3 vfsid=%d failed: %s\n", vfsid,
              clnt_sperrno(st));
        return VoRpcCalls::foldErr(voErrVldbDeleteRecord, st, 0);
    }
    if (status == 0 || status == VLDB_INVALID_VFSID) {
        // VLDB_INVALID_VFSID: the record is already gone.
        VO_TR(vo_vldb, vo_audit, "VLDB record vfsid=%d is deleted err = %s\n", vfsid,
              statLit(status));
        return VoErr();
    }
    // Printed for every other status, whatever it means.
    VO_TR_RAW(vo_vldb, vo_warn, "VLDB rec did not exist? err = %s\n", statLit(status));
    return VoRpcCalls::foldErr(voErrVldbDeleteRecord, RPC_SUCCESS, static_cast<unsigned>(status));
}

VoErr VoState::dbladeDeleteVfs(CLIENT* clntDbladeVol, unsigned vfsid, const unsigned char* lid) {
    VoTrace::Depth depth;
    if (clntDbladeVol == nullptr)
        return voErr(voErrVodSanityCheck, VOD_ERR_NO_DBLADE_CLIENT, VOD_ERR_NO_DBLADE_CLIENT);
    VolDeleteIn in;
    memset(&in, 0, sizeof in);
    in.vfsID = vfsid;
    memcpy(in.lpUUID, lid, sizeof in.lpUUID);
    clnt_stat transport = RPC_SUCCESS;
    unsigned rc =
        VoRpcCalls::dbladeVolDelete(&in, clntDbladeVol, kDbladeTimeoutSec, false, &transport);
    if (rc != 0) {
        VO_TR(vo_srcvol, vo_warn, "dbladeVolDelete vfsid=%d failed: %d\n", vfsid, rc);
        // Only the D-blade's own answer may say "not on that LP": a transport
        // failure whose number happens to match must never pass for a volume
        // already gone, so it keeps the call's transport code.
        if (transport != RPC_SUCCESS || rc == VOD_ERR_CANT_SET_TIMEOUT)
            return VoRpcCalls::foldErr(voErrDbladeVolDelete, static_cast<clnt_stat>(rc), 0);
        return voErr(voErrDbladeVolDelete, rc, rc);
    }
    return VoErr();
}

VoErr VoState::deleteVodbRec(CLIENT* clntVldb) {
    VoTrace::Depth depth;
    if (clntVldb == nullptr)
        return voErr(voErrVodSanityCheck, VOD_ERR_NO_VLDB_CLIENT, VOD_ERR_NO_VLDB_CLIENT);
    u_quad_t opid = _opid;
    int status = 0;
    VO_TR(vo_vldb, vo_entry, "vodb_delete_by_opid_3 opid=%lld\n", _opid);
    clnt_stat st = vodb_delete_by_opid_3(&opid, &status, clntVldb);
    if (st != RPC_SUCCESS) {
        VO_TR(vo_vldb, vo_warn, "vodb_delete_by_opid_3 opid=%lld failed: %s\n", _opid,
              clnt_sperrno(st));
        return VoRpcCalls::foldErr(voErrVodbDeleteByOpid, st, 0);
    }
    if (status != 0) {
        VO_TR(vo_vldb, vo_warn, "vodb_delete_by_opid_3 opid=%lld err %s\n", _opid, statLit(status));
        return VoRpcCalls::foldErr(voErrVodbDeleteByOpid, RPC_SUCCESS,
                                   static_cast<unsigned>(status));
    }
    setRetiredFromVodb();
    return VoErr();
}

VoErr VoState::mkDbladeClient(CLIENT* clntVldb, const unsigned char* lid, VoRPCClient* out,
                              VoRec* rec) {
    VoTrace::Depth depth;
    if (rec != nullptr) rec->setDid(0);
    if (out == nullptr) {
        VO_TR(vo_sinkvol, vo_warn, "clntDbladeVol=0\n");
        return voErr(voErrVodSanityCheck, VOD_ERR_NO_DBLADE_CLIENT, VOD_ERR_NO_DBLADE_CLIENT);
    }
    if (clntVldb == nullptr)
        return voErr(voErrVodSanityCheck, VOD_ERR_NO_VLDB_CLIENT, VOD_ERR_NO_VLDB_CLIENT);

    unsigned short did;
    {
        tarn_uuid_t in;
        memcpy(in, lid, sizeof in);
        VoXdrResult<vldb_lp_convert_result> res(xdr_vldb_lp_convert_result);
        clnt_stat st = vldb_lp_convert_3(in, res.get(), clntVldb);
        if (st != RPC_SUCCESS) {
            VO_TR(vo_vldb, vo_warn, "vldb_lp_convert_3 at LP=" VO_LP_FMT " failed: %s\n",
                  VO_LP_ARGS(lid), clnt_sperrno(st));
            return VoRpcCalls::foldErr(voErrVldbLpConvert, st, 0);
        }
        if (res->result != 0) {
            VO_TR(vo_vldb, vo_warn, "vldb_lp_convert_3 at LP=" VO_LP_FMT " err (%d) %s\n",
                  VO_LP_ARGS(lid), res->result, statLit(res->result));
            return VoRpcCalls::foldErr(voErrVldbLpConvert, RPC_SUCCESS, res->result);
        }
        did = res->dblade_id;
    }
    VO_TR(vo_vldb, vo_debug, "vldb_lp_convert_3 returns dblade id %d\n", did);
    if (rec != nullptr) {
        rec->setDid(did);
        VO_TR(vo_vldb, vo_debug, "Cached dblade id\n");
    }

    char* host = VoDldb::getHostNameByDbladeId(did);
    if (host == nullptr)
        return voErr(voErrVodClntTcpCreate, VOD_ERR_NO_DLDB_CLIENT, VOD_ERR_NO_HOST);
    out->clnttcp_create(host, DBLADE_VOL_PROG, DBLADE_VOL_VERS);
    free(host);
    if (static_cast<CLIENT*>(*out) == nullptr) {
        VoErr err = voErr(voErrVodClntTcpCreate, VOD_ERR_NO_DLDB_CLIENT, VOD_ERR_NO_DBLADE_CLIENT);
        VO_TR(vo_sinkvol, vo_warn, "fail to contact sink dblade err.func=%d err.funcrc=%d\n",
              err.func(), err.funcrc());
        return err;
    }
    return VoErr();
}

VoErr VoState::setVfsType(CLIENT* clntVldb, CLIENT* clntDbladeVol, unsigned vfsid,
                          const unsigned char* lid, vldb_vfs_types type) {
    VoTrace::Depth depth;
    if (clntVldb == nullptr)
        return voErr(voErrVodSanityCheck, VOD_ERR_NO_VLDB_CLIENT, VOD_ERR_NO_VLDB_CLIENT);
    if (clntDbladeVol == nullptr)
        return voErr(voErrVodSanityCheck, VOD_ERR_NO_DBLADE_CLIENT, VOD_ERR_NO_DBLADE_CLIENT);

    VoErr err = VodbCacheLock::refreshVodbCache(clntVldb);
    if (err != 0) {
        VO_TR(vo_vod, vo_warn, "refreshVodbCache err.func=%d err.funcrc=%d\n", err.func(),
              err.funcrc());
        return err;
    }
    {
        // A volume that any recorded operation uses cannot change type.
        VodbCacheLock lock;
        const auto& cache = VodbCacheLock::getVodbCache();
        VO_TR(vo_vod, vo_debug, "_vodbCache.size = %#X\n", static_cast<unsigned>(cache.size()));
        for (const VoRec* rec : cache) {
            if (rec->vid() != vfsid || memcmp(rec->lid(), lid, 16) != 0) continue;
            VO_TR(vo_vod, vo_warn, "vfs %d is involved in volop opid=%lld\n", vfsid, rec->opid());
            unsigned busy = getErrorCodeForOpType(rec->opType());
            return voErr(voErrVodValidate, busy, busy != 0 ? busy : unsigned(voErrVodValidate));
        }
    }

    {
        VolSetattrIn in;
        memset(&in, 0, sizeof in);
        in.vfsID = vfsid;
        memcpy(in.lpUUID, lid, sizeof in.lpUUID);
        in.set_attrs.how = type == RW_VFS ? VOLSET_MAKE_RW : VOLSET_MAKE_RO;
        char empty[] = "";
        in.set_attrs.attrs.volname = empty;
        in.set_attrs.attrs.mountedatvolname = empty;
        VoXdrResult<VolSetattrOut_t> out(xdr_VolSetattrOut_t);
        unsigned rc =
            VoRpcCalls::dbladeVfsSetAttrs(&in, out.get(), clntDbladeVol, kDbladeTimeoutSec);
        if (rc != 0) {
            VO_TR(vo_srcvol, vo_warn, "dbladeVfsSetAttrs vfsid=%d failed: %s\n", vfsid,
                  rpcErrText(rc));
            return VoRpcCalls::foldErr(voErrDbladeVolSetAttr, static_cast<clnt_stat>(rc), 0);
        }
        if (out->returnCode != 0) {
            VO_TR(vo_srcvol, vo_warn, "dbladeVfsSetAttrs vfsid=%d err=%#X\n", vfsid,
                  out->returnCode);
            return VoRpcCalls::foldErr(voErrDbladeVolSetAttr, RPC_SUCCESS, out->returnCode);
        }
    }

    vldb_record_modify_input in;
    memset(&in, 0, sizeof in);
    in.input_mask = VFS_RW_FLAG;
    in.vfsid = vfsid;
    memcpy(in.lp_uuid, lid, sizeof in.lp_uuid);
    in.newrec.vfsid = vfsid;
    memcpy(in.newrec.lp_uuid, lid, sizeof in.newrec.lp_uuid);
    in.newrec.vfstype = type;
    char empty[] = "";
    in.newrec.family = empty;
    in.newrec.vfsname = empty;
    VO_TR(vo_vldb, vo_entry, "vldb_record_modify_3 vfsid=%d\n", vfsid);
    int status = 0;
    clnt_stat st = vldb_record_modify_3(&in, &status, clntVldb);
    if (st != RPC_SUCCESS) {
        VO_TR(vo_vldb, vo_warn, "vldb_record_modify_3 vfsid=%d failed: %s\n", vfsid,
              clnt_sperrno(st));
        return VoRpcCalls::foldErr(voErrVldbRecordModify, st, 0);
    }
    if (status != 0) {
        VO_TR(vo_vldb, vo_warn, "vldb_record_modify_3 vfsid=%d err %s\n", vfsid, statLit(status));
        return voErr(voErrVldbRecordModify, static_cast<unsigned>(status),
                     static_cast<unsigned>(status));
    }
    return VoErr();
}

void VoState::copy_mountedat_attr(tarn_volsattrx_t& to, const tarn_volgattrx_t& from) {
    // The name is shared, not copied: `to` must not outlive `from`.
    to.mountedatvolname = from.mountedatvolname;
    to.mountedatdirvnode = from.mountedatdirvnode;
    to.mountedatdirunique = from.mountedatdirunique;
    to.mountedatparentvnode = from.mountedatparentvnode;
    to.mountedatparentunique = from.mountedatparentunique;
}

// ---- Steps the operations with a stream share. ----

VoErr VoState::dbladeOutcome(VoTraceSite at, VoTrace::Module mod, const char* call, voErrFunc func,
                             unsigned long long opid, unsigned vfsid, unsigned rc,
                             unsigned status) {
    if (rc != 0) {
        VO_TR_AT(at, mod, VoTrace::vo_warn, "opid=%lld %s vfsid=%d failed: %s\n", opid, call, vfsid,
                 rpcErrText(rc));
        return VoRpcCalls::foldErr(func, static_cast<clnt_stat>(rc), 0);
    }
    if (status != 0) {
        VO_TR_AT(at, mod, VoTrace::vo_warn, "opid=%lld %s vfsid=%d err=%#X\n", opid, call, vfsid,
                 status);
        return VoRpcCalls::foldErr(func, RPC_SUCCESS, status);
    }
    return VoErr();
}

VoErr VoState::openDbladeOf(VoTraceSite site, CLIENT* clntVldb, const unsigned char* lid,
                            VoRPCClient* out, VoRec* learn) {
    VoErr err = mkDbladeClient(clntVldb, lid, out, learn);
    if (err != 0) {
        VO_TR_AT(site, VoTrace::vo_sinkvol, VoTrace::vo_warn,
                 "opid=%lld fail to contact sink dblade controlling LP=" VO_LP_FMT
                 " err.func=%d err.funcrc=%d\n",
                 static_cast<long long>(_opid), VO_LP_ARGS(lid), err.func(), err.funcrc());
        setAllErr(err);
    }
    return err;
}

unsigned VoState::deleteVolume(VoTraceSite site, VoTrace::Module mod, CLIENT* clntVldb,
                               CLIENT* clntDbladeVol, const VoRec& vol, VolDeleteWording wording) {
    using W = VolDeleteWording;
    const long long opid = static_cast<long long>(_opid);
    const unsigned vid = vol.vid();
    const unsigned char* lid = vol.lid();
    const VoTrace::Level audit = VoTrace::vo_audit;
    const VoTrace::Level warn = VoTrace::vo_warn;

    switch (wording) {
        case W::moveSink:
            VO_TR_AT(site, mod, audit, "opid=%lld delete sink vfs=%d\n", opid, vid);
            break;
        case W::moveOpSrc:
            VO_TR_AT(site, mod, audit, "opid=%lld call dbladeDeleteVfs for opsrc vfs=%d\n", opid,
                     vid);
            break;
        default:
            VO_TR_AT(site, mod, audit, "opid=%lld call dbladeDeleteVfs vfsid=%d\n", opid, vid);
            break;
    }
    VoErr err = dbladeDeleteVfs(clntDbladeVol, vid, lid);
    // Deleted now or before: the LP no longer holds the volume, which is all
    // that was asked. Only the D-blade's own status says so.
    const bool gone = err == 0 || (err.func() == voErrDbladeVolDelete &&
                                   static_cast<unsigned>(err) == TARN_ERR_LPMMISMATCH);
    if (!gone) {
        if (wording == W::moveOpSrc)
            VO_TR_AT(site, mod, warn,
                     "opid=%lld dbladeDeleteVfs vfsid=%d at LP=" VO_LP_FMT
                     " err.func=%d err.funcrc=%d\n",
                     opid, vid, VO_LP_ARGS(lid), err.func(), err.funcrc());
        else
            VO_TR_AT(site, mod, warn,
                     "opid=%lld dbladeDeleteVfs vfsid=%d err.func=%d err.funcrc=%d\n", opid, vid,
                     err.func(), err.funcrc());
        setAllErr(err);
        return err;
    }

    switch (wording) {
        case W::copySink:
            // The copy's sink line has always named the call first.
            VO_TR_AT(site, VoTrace::vo_vldb, audit, "call opid=%lld vldbDeleteRecord vfsid=%d\n",
                     opid, vid);
            break;
        case W::moveSink:
            VO_TR_AT(site, VoTrace::vo_vldb, audit, "opid=%lld delete sink VLDB=%d\n", opid, vid);
            break;
        case W::moveOpSrc:
            VO_TR_AT(site, VoTrace::vo_vldb, audit, "opid=%lld vldbDeleteRecord for opsrc=%d\n",
                     opid, vid);
            break;
        default:
            VO_TR_AT(site, VoTrace::vo_vldb, audit, "opid=%lld call vldbDeleteRecord vfsid=%d\n",
                     opid, vid);
            break;
    }
    err = vldbDeleteRecord(clntVldb, vid, lid);
    if (err != 0) {
        if (wording == W::moveOpSrc)
            VO_TR_AT(site, VoTrace::vo_vldb, warn,
                     "opid=%lld vldbDeleteRecord vfsid=%d at LP=" VO_LP_FMT
                     " err.func=%d err.funcrc=%d\n",
                     opid, vid, VO_LP_ARGS(lid), err.func(), err.funcrc());
        else
            VO_TR_AT(site, VoTrace::vo_vldb, warn,
                     "opid=%lld vldbDeleteRecord vfsid=%d err.func=%d err.funcrc=%d\n", opid, vid,
                     err.func(), err.funcrc());
        setAllErr(err);
    }
    return err;
}

unsigned VoState::lookupSrcVldb(VoTraceSite site, CLIENT* clntVldb,
                                VoXdrResult<vldb_record_lookup_result>& found) {
    const long long opid = static_cast<long long>(_opid);
    const unsigned vid = _srcRec.vid();
    clnt_stat st = lookupVfs(clntVldb, vid, _srcRec.lid(), found.get());
    if (st != RPC_SUCCESS) {
        VO_TR_AT(site, VoTrace::vo_vldb, VoTrace::vo_warn,
                 "opid=%lld vldb_record_lookup_3 vfsid=%d failed: %s\n", opid, vid,
                 clnt_sperrno(st));
        setErr(voErrVldbRecordLookupRpc, st);
        return voErrVldbRecordLookupRpc;
    }
    const unsigned status = found->result;
    if (status == VLDB_RECORD_NOT_FOUND || (status == 0 && found->r.r_len == 0)) {
        VO_TR_AT(site, VoTrace::vo_vldb, VoTrace::vo_warn,
                 "opid=%lld no VLDB record for vfsid=%d LP=" VO_LP_FMT "\n", opid, vid,
                 VO_LP_ARGS(_srcRec.lid()));
        setErr(voErrVldbRecordLookup, VLDB_RECORD_NOT_FOUND);
        return voErrVldbRecordLookup;
    }
    if (status != 0) {
        VO_TR_AT(site, VoTrace::vo_vldb, VoTrace::vo_warn,
                 "opid=%lld vldb_record_lookup_3 vfsid=%d err %s\n", opid, vid, statLit(status));
        setErr(voErrVldbRecordLookup, status);
        return voErrVldbRecordLookup;
    }
    return 0;
}

int VoState::failedStreamTest(voErrRc rc, const VoSrcPgrs& src, const VoSinkPgrs& sink) {
    if (rc != voErrRcSuccess) return 1;
    if (src.completionCode != 0) return 2;
    if (src.status != VoDone) return 3;
    if (sink.isDone != 1) return 4;
    if (sink.completionCode != 0 && sink.completionCode != VIC_ESINKUPTODATE) return 5;
    return 0;
}

int VoState::traceFailedStreamTest(VoTraceSite site, voErrRc rc, const VoSrcPgrs& src,
                                   const VoSinkPgrs& sink) {
    const long long opid = static_cast<long long>(_opid);
    const VoTrace::Module m = VoTrace::vo_vod;
    const VoTrace::Level w = VoTrace::vo_warn;
    const int failed = failedStreamTest(rc, src, sink);
    switch (failed) {
        case 0:
            break;
        case 1:
            VO_TR_AT(site, m, w, "opid=%lld _pgrs.rc=%d expected=0\n", opid, int(rc));
            break;
        case 2:
            VO_TR_AT(site, m, w, "opid=%lld _pgrs.src.completionCode=%d expected=0\n", opid,
                     src.completionCode);
            break;
        case 3:
            VO_TR_AT(site, m, w, "opid=%lld _pgrs.src.status=%d expected=%d\n", opid,
                     int(src.status), int(VoDone));
            break;
        case 4:
            VO_TR_AT(site, m, w, "opid=%lld _pgrs.sink.isDone=%d expected TRUE\n", opid,
                     sink.isDone);
            break;
        default:
            VO_TR_AT(site, m, w, "opid=%lld _pgrs.sink.completionCode=%d expected=0 or %d\n", opid,
                     sink.completionCode, int(VIC_ESINKUPTODATE));
            break;
    }
    return failed;
}

unsigned VoState::cloneOpSrc(VoTraceSite site, CLIENT* clntVldb, CLIENT* clntSrcDbladeVol,
                             const VoRec& opSrc) {
    const unsigned long long opid = _opid;
    const unsigned srcVid = _srcRec.vid();
    const unsigned opSrcVid = opSrc.vid();
    const unsigned char* srcLid = _srcRec.lid();
    // Streaming from a clone leaves the source free to change meanwhile.
    VO_TR_AT(site, VoTrace::vo_srcvol, VoTrace::vo_audit,
             "opid=%lld dbladeCloneVfs src %d clone %d\n", opid, srcVid, opSrcVid);
    VolCloneIn in;
    memset(&in, 0, sizeof in);
    in.srcVfsID = srcVid;
    in.cloneVfsID = opSrcVid;
    memcpy(in.lpUUID, srcLid, sizeof in.lpUUID);
    VoXdrResult<VolCloneOut_t> out(xdr_VolCloneOut_t);
    unsigned rc = VoRpcCalls::dbladeCloneVfs(&in, out.get(), clntSrcDbladeVol, kCloneTimeoutSec);
    VoErr err = dbladeOutcome(site, VoTrace::vo_srcvol, "dbladeCloneVfs", voErrDbladeVolClone, opid,
                              opSrcVid, rc, rc == 0 ? out->returnCode : 0);
    if (err != 0) {
        setAllErr(err);
        return err;
    }
    // The clone is registered like any clone of the source, named after its
    // part in the operation; it goes again when the operation ends.
    VO_TR_AT(site, VoTrace::vo_vod, VoTrace::vo_audit,
             "opid=%lld call vldbCreateRecord for op src vfsid=%d\n", opid, opSrcVid);
    VoRec named(opSrc);
    named.genVname(nullptr);
    timeval t = now();
    err = vldbCreateRecord(clntVldb, opSrcVid, srcLid, named.getVname(), getFamily(), CLONE, 0,
                           t.tv_sec, t.tv_usec, 0, _srcRec.dver(), getExportRuleset(), APP_VOD);
    if (err != 0) {
        setAllErr(err);
        return err;
    }
    return 0;
}

unsigned VoState::makeSink(VoTraceSite site, CLIENT* clntVldb, CLIENT* clntSrcDbladeVol,
                           const VoRec& opSrc, VoRec& sink, std::string volName,
                           std::string vldbName, unsigned long long* opSrcDver) {
    const unsigned long long opid = _opid;
    const unsigned opSrcVid = opSrc.vid();
    const unsigned sinkVid = sink.vid();
    const unsigned char* srcLid = opSrc.lid();

    VO_TR_AT(site, VoTrace::vo_srcvol, VoTrace::vo_entry, "opid=%lld dbladeVfsGetAttrs vfsid=%d\n",
             opid, opSrcVid);
    VoXdrResult<VolGetattrOut_t> attrs(xdr_VolGetattrOut_t);
    {
        VolGetattrIn in;
        memset(&in, 0, sizeof in);
        in.vfsID = opSrcVid;
        memcpy(in.lpUUID, srcLid, sizeof in.lpUUID);
        unsigned rc =
            VoRpcCalls::dbladeVfsGetAttrs(&in, attrs.get(), clntSrcDbladeVol, kDbladeTimeoutSec);
        VoErr err =
            dbladeOutcome(site, VoTrace::vo_srcvol, "dbladeVfsGetAttrs", voErrDbladeVolGetAttr,
                          opid, opSrcVid, rc, rc == 0 ? attrs->returnCode : 0);
        if (err != 0) {
            setAllErr(err);
            return err;
        }
    }
    const tarn_volgattrx_t& src = attrs->return_volattrs;
    if (opSrcDver != nullptr) *opSrcDver = src.dataVersion;

    VO_TR_AT(site, VoTrace::vo_sinkvol, VoTrace::vo_debug, "opid=%lld call mkDbladeClient\n", opid);
    VoRPCClient sinkVol;
    VoRec sinkDblade;  // learns the D-blade id the stream names
    VoErr err = openDbladeOf(site, clntVldb, sink.lid(), &sinkVol, &sinkDblade);
    getLock();
    sink.setDid(sinkDblade.getDid());
    releaseLock();
    if (err != 0) return err;

    for (std::string* name : {&volName, &vldbName}) {
        if (name->size() <= static_cast<size_t>(VoRec::VNAME_MAX)) continue;
        // Deliberately a truncation, not a failure.
        VO_TR_AT(site, VoTrace::vo_sinkvol, VoTrace::vo_warn,
                 "opid=%lld sink=%d volname is too long (%d) Truncate it for now\n", opid, sinkVid,
                 static_cast<int>(name->size()));
        name->resize(VoRec::VNAME_MAX);
    }

    // The sink is made with every attribute it keeps: its name, and the
    // source's quotas, mounted-at fields and virtual server. Its creation
    // time is its own; its contents and data version come with the stream.
    VO_TR_AT(site, VoTrace::vo_sinkvol, VoTrace::vo_audit, "opid=%lld dbladeVfsCreate vfsid=%d\n",
             opid, sinkVid);
    {
        VolCreateIn in;
        memset(&in, 0, sizeof in);
        memcpy(in.lpUUID, sink.lid(), sizeof in.lpUUID);
        in.vfsID = sinkVid;
        tarn_volsetattrx_t& set = in.set_attrs;
        set.how = VOLSET_MINQUOTA | VOLSET_MAXQUOTA | VOLSET_VOLNAME | VOLSET_MOUNTEDATVOLNAME |
                  VOLSET_MOUNTEDATDIRVNODE | VOLSET_MOUNTEDATDIRUNIQUE |
                  VOLSET_MOUNTEDATPARENTVNODE | VOLSET_MOUNTEDATPARENTUNIQUE | VOLSET_VIRTUALSERVER;
        set.attrs.minQuota = src.minQuota;
        set.attrs.maxQuota = src.maxQuota;
        set.attrs.volname = &volName[0];
        copy_mountedat_attr(set.attrs, src);
        char empty[] = "";
        if (set.attrs.mountedatvolname == nullptr) set.attrs.mountedatvolname = empty;
        set.attrs.virtualServer = src.virtualServer;
        VoXdrResult<VolCreateOut_t> out(xdr_VolCreateOut_t);
        unsigned rc = VoRpcCalls::dbladeVfsCreate(&in, out.get(), sinkVol, kCreateTimeoutSec);
        err = dbladeOutcome(site, VoTrace::vo_sinkvol, "dbladeVfsCreate", voErrDbladeVolCreate,
                            opid, sinkVid, rc, rc == 0 ? out->returnCode : 0);
        if (err != 0) {
            setAllErr(err);
            return err;
        }
    }
    sinkVol.clntdestroy();

    VO_TR_AT(site, VoTrace::vo_vldb, VoTrace::vo_entry, "opid=%lld vldb_record_lookup_3 vfsid=%d\n",
             opid, _srcRec.vid());
    VoXdrResult<vldb_record_lookup_result> found(xdr_vldb_record_lookup_result);
    if (unsigned r = lookupSrcVldb(site, clntVldb, found)) return r;
    const Rec& srcVldb = found->r.r_val[0];

    // The sink's record: a volume of its own (its name heads its family, it
    // is nobody's root), of the source's kind (read-write only when the
    // source is), expected at the data version the stream brings, with the
    // source's virtual server, export rules and owner.
    VO_TR_AT(site, VoTrace::vo_vldb, VoTrace::vo_audit,
             "opid=%lld call vldbCreateRecord for sink %d\n", opid, sinkVid);
    timeval t = now();
    err = vldbCreateRecord(clntVldb, sinkVid, sink.lid(), vldbName.c_str(), vldbName.c_str(),
                           isSrcRW() ? RW_VFS : RO_VFS, 0, t.tv_sec, t.tv_usec, srcVldb.vserver,
                           src.dataVersion, srcVldb.exportRuleset, srcVldb.appId);
    if (err != 0) {
        setAllErr(err);
        return err;
    }
    return 0;
}

unsigned VoState::determineRecoveryStrategy(CLIENT* clntVldb, VoRec& sink) {
    VoTrace::Depth depth;
    if (clntVldb == nullptr) {
        VO_TR(vo_vod, vo_warn, "clntVldb=0\n");
        setErr(voErrVodCrashRecovery, VOD_ERR_NO_VLDB_CLIENT);
        return VOD_ERR_NO_VLDB_CLIENT;
    }
    const long long opid = static_cast<long long>(_opid);
    const unsigned vid = sink.vid();
    const unsigned char* lid = sink.lid();

    VO_TR(vo_sinkvol, vo_debug, "opid=%lld call mkDbladeClient LP=" VO_LP_FMT "\n", opid,
          VO_LP_ARGS(lid));
    VoRPCClient sinkVol;
    VoErr err = openDbladeOf(VO_SITE, clntVldb, lid, &sinkVol, nullptr);
    if (err != 0) return err;

    VO_TR(vo_sinkvol, vo_debug, "opid=%lld call getDataVerFromDblade vfsid=%d\n", opid, vid);
    unsigned long long dver = 0;
    err = getDataVerFromDblade(sinkVol, vid, lid, &dver);
    if (err != 0) {
        if (err.func() == voErrDbladeVolGetAttr &&
            (err.funcrc() == kTarnErrVolNotFound || err.funcrc() == TARN_ERR_LPMMISMATCH)) {
            VO_TR(vo_vod, vo_audit, "opid=%lld roll back. Sink vfs=%d does not exist.\n", opid,
                  vid);
            _rollForward = false;
            return 0;
        }
        VO_TR(vo_vod, vo_warn,
              "opid=%lld getDataVerFromDblade for sink vfsid=%d at LP=" VO_LP_FMT
              " err.func=%d err.funcrc=%d\n",
              opid, vid, VO_LP_ARGS(lid), err.func(), err.funcrc());
        setAllErr(err);
        return err;
    }

    VO_TR(vo_vldb, vo_debug, "opid=%lld call getDataVerFromVLDB vfsid=%d\n", opid, vid);
    int isExist = 0;
    unsigned long long expected = 0;
    err = getDataVerFromVLDB(clntVldb, vid, lid, &isExist, &expected);
    if (err != 0) {
        VO_TR(vo_vod, vo_warn,
              "opid=%lld getDataVerFromVLDB for sink vfsid=%d at LP=" VO_LP_FMT
              " err.func=%d err.funcrc=%d\n",
              opid, vid, VO_LP_ARGS(lid), err.func(), err.funcrc());
        setAllErr(err);
        return err;
    }
    if (!isExist) {
        VO_TR(vo_vod, vo_audit, "opid=%lld sink vfsid=%d is present but not its VLDB. Roll back\n",
              opid, vid);
        _rollForward = false;
        return 0;
    }
    if (dver != expected) {
        VO_TR(vo_vod, vo_audit,
              "opid=%lld roll back. Sink vfsid=%d version %lld is not equal to the expected %lld\n",
              opid, vid, static_cast<long long>(dver), static_cast<long long>(expected));
        _rollForward = false;
        return 0;
    }
    VO_TR(vo_vod, vo_audit,
          "opid=%lld roll forward. Sink vfsid=%d version %lld is the same as the expected %lld\n",
          opid, vid, static_cast<long long>(dver), static_cast<long long>(expected));
    _rollForward = true;
    return 0;
}

void VoState::cancelStreamTo(CLIENT* clntSrcDbladeIncrCopy, const VoRec& sink, VoOut* out) {
    VoTrace::Depth depth;
    if (clntSrcDbladeIncrCopy == nullptr) {
        VO_TR(vo_incrcopy, vo_warn, "clntSrcDbladeIncrCopy=0\n");
        *out = VoOut{voErrNoResource, voErrVodSanityCheck, VOD_ERR_NO_DBLADE_CLIENT};
        return;
    }
    IncrCopyCancelIn in;
    memset(&in, 0, sizeof in);
    in.opId = _opid;
    in.dstVfsId = sink.vid();
    memcpy(in.dstLpUuid, sink.lid(), sizeof in.dstLpUuid);
    VO_TR(vo_incrcopy, vo_entry, "incrcopycancel_1 opid=%lld\n", _opid);
    u_int status = 0;
    clnt_stat st = incrcopycancel_1(&in, &status, clntSrcDbladeIncrCopy);
    if (st != RPC_SUCCESS) {
        VO_TR(vo_incrcopy, vo_warn, "incrcopycancel_1 opid=%lld failed: %s\n", _opid,
              clnt_sperrno(st));
        *out = VoOut{voErrRpcFailure, voErrDbladeIncrCopyCancelRpc, static_cast<u_int>(st)};
        return;
    }
    if (status != 0) {
        VO_TR(vo_incrcopy, vo_warn, "incrcopycancel_1 opid=%lld err=%#X\n", _opid, status);
        *out = VoOut{VoErrDblade, voErrDbladeIncrCopyCancel, status};
        return;
    }
    _setCancel = true;
    VO_TR(vo_incrcopy, vo_audit, "opid=%lld cancelled\n", _opid);
    *out = VoOut{voErrRcSuccess, voErrFuncSuccess, 0};
}

unsigned VoState::finishRecords(unsigned failed, CLIENT* clntVldb) {
    const long long opid = static_cast<long long>(_opid);
    if (failed != 0 && forceRetireFromVodb()) {
        VO_TR(vo_vod, vo_warn, "opid=%lld forced to retire\n", opid);
        dbgDump();
    }
    if (failed != 0 && !forceRetireFromVodb()) return failed;
    VO_TR(vo_vod, vo_audit, "opid=%lld call deleteVodbRec\n", opid);
    VoErr err = deleteVodbRec(clntVldb);
    if (err != 0) {
        VO_TR(vo_vod, vo_warn, "opid=%lld deleteVodbRec err=%d\n", opid, unsigned(err));
        setAllErr(err);
        return failed != 0 ? failed : unsigned(err);
    }
    return failed;
}

bool VoState::recoveryIsOver(VoTraceSite site, const char* kind, CLIENT* clntVldb,
                             CLIENT* clntSrcDbladeVol, CLIENT* clntSrcDbladeIncrCopy,
                             unsigned* rc) {
    *rc = missingClient(site, voErrVodCrashRecovery, clntVldb, clntSrcDbladeVol,
                        clntSrcDbladeIncrCopy);
    if (*rc != 0) return true;
    if (retiredFromVodb()) {
        VO_TR_AT(site, VoTrace::vo_vod, VoTrace::vo_audit, "retiredFromVodb()=1 already\n");
        return true;
    }
    if (!forceRetireFromVodb()) return false;
    const long long opid = static_cast<long long>(_opid);
    VO_TR_AT(site, VoTrace::vo_vod, VoTrace::vo_warn, "opid=%lld fail to recover %s\n", opid, kind);
    VO_TR_AT(site, VoTrace::vo_vod, VoTrace::vo_warn,
             "opid=%lld leaves everything intact. Just purge the op\n", opid);
    {
        // The records go to the trace whatever the mask says, on this thread only.
        VoTrace::ThreadMask dumpAll(0x1000 | 2);
        dbgDump();
    }
    VoErr err = deleteVodbRec(clntVldb);
    if (err != 0) {
        VO_TR_AT(site, VoTrace::vo_vod, VoTrace::vo_warn, "opid=%lld deleteVodbRec err=%d\n", opid,
                 unsigned(err));
        setAllErr(err);
    }
    *rc = err;
    return true;
}
