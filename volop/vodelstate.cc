// VoDelState: a volume delete that survives a crash of the daemon.
//
// Its steps, in the order they run: addSrc, prepare (validate, mkRec), del
// (D-blade volume, VLDB record, VODB record). Recovery reruns del.
#include "vodelstate.h"

#include <assert.h>
#include <string.h>

#include "vldb_lit.h"
#include "vldb_server.h"
#include "vodbCache.h"
#include "vorpcclient.h"
#include "votrace.h"

namespace {

// The D-blade's answer for a volume that is not (or no longer) on the LP: the
// volume is taken as already deleted.
const unsigned kDbladeVolumeGone = 21;

// The delete's client checks trace under the name they have always had.
#define CLIENT_CHECK_SITE (VoTraceSite{"missingClient", __LINE__})

}  // namespace

VoDelState::VoDelState() {
    // No stream is ever started, so there is nothing for the registry to
    // conclude: its scans go straight to recovery while records remain.
    _incrcopyGotConclude = true;
    _opCompleteReceived = true;
    _dbladeIncrCopyRunning = false;
}

VoDelState::~VoDelState() {}

void VoDelState::dbgDump() {
    VO_TR(vo_vod, vo_event, "VoDelState opid=%lld\n", static_cast<long long>(_opid));
    _srcRec.dbgDump();
}

// ---- The error triple. ----

void VoDelState::getErr(voErrRc* rc, voErrFunc* func, unsigned* funcrc) {
    std::lock_guard<std::mutex> g(_errLock);
    if (rc != nullptr) *rc = _rc;
    if (func != nullptr) *func = _func;
    if (funcrc != nullptr) *funcrc = _funcrc;
}

void VoDelState::getErr(voErrFunc* func, unsigned* funcrc) { getErr(nullptr, func, funcrc); }

void VoDelState::setHiLvlErr(voErrRc rc) {
    std::lock_guard<std::mutex> g(_errLock);
    _rc = rc;
}

void VoDelState::setErr(voErrFunc func, unsigned funcrc) {
    std::lock_guard<std::mutex> g(_errLock);
    _func = func;
    _funcrc = funcrc;
}

void VoDelState::setAllErr(voErrRc rc, voErrFunc func, unsigned funcrc) {
    std::lock_guard<std::mutex> g(_errLock);
    _rc = rc;
    _func = func;
    _funcrc = funcrc;
}

void VoDelState::setAllErr(VoErr& err) { setErr(err.func(), err.funcrc()); }

// ---- Conflict tests. ----

bool VoDelState::isUsing(unsigned vid, const unsigned char* lid, VoRec::VoType type,
                         VoRec::VfsRole role) {
    return _srcRec.opType() == type && _srcRec.role() == role && isUsing(vid, lid);
}

bool VoDelState::isUsing(const unsigned char* lid) { return memcmp(_srcRec.lid(), lid, 16) == 0; }

bool VoDelState::isUsing(unsigned vid, const unsigned char* lid) {
    return _srcRec.vid() == vid && isUsing(lid);
}

// --- the stream steps a delete does not have --------------------------------

unsigned VoDelState::progress(CLIENT*) {
    VO_TR(vo_vod, vo_warn, "This interface function is not supported by VoDelState.\n");
    return 0;
}

unsigned VoDelState::conclude(CLIENT*, CLIENT*, CLIENT*) {
    VO_TR(vo_vod, vo_warn, "This interface function is not supported by VoDelState.\n");
    return 0;
}

bool VoDelState::addStream(unsigned, const unsigned char*, unsigned, const unsigned char*,
                           const char*) {
    VO_TR(vo_vod, vo_warn, "This interface function is not supported by VoDelState.\n");
    return false;
}

unsigned VoDelState::mkOpSrcSink(CLIENT*, CLIENT*) {
    VO_TR(vo_vod, vo_warn, "This interface function is not supported by VoDelState.\n");
    return 0;
}

unsigned VoDelState::startStream(CLIENT*, CLIENT*) {
    VO_TR(vo_vod, vo_warn, "This interface function is not supported by VoDelState.\n");
    return 0;
}

// --- the delete -------------------------------------------------------------

bool VoDelState::addSrc(unsigned vid, const unsigned char* lid) {
    if (_srcRec.vid() != 0) {
        setErr(voErrVodAddStream, VOD_ERR_INTERNAL);
        return false;
    }
    _srcRec.setOpType(VoRec::VODB_VOLOP_DELETE);
    _srcRec.setVid(vid);
    _srcRec.setLid(lid);
    _srcRec.setRole(VoRec::VODB_ROLE_SRC);
    VO_TR(vo_vod, vo_audit, "_srcRec.vid()=%d\n", _srcRec.vid());
    return true;
}

unsigned VoDelState::prepare(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol) {
    VoTrace::Depth depth;
    // Unlike the shared prepare, no look for the source: a volume already gone
    // is deleted all the same.
    if (unsigned missing = refuseMissingClients(voErrValidate, clntVldb, clntSrcDbladeVol))
        return missing;
    // A failed refresh is refused with a high-level code: without one the
    // client would read the refusal as a success.
    return refreshValidateRecord(VO_SITE, VoTrace::vo_audit, voErrValidate, clntVldb,
                                 clntSrcDbladeVol);
}

bool VoDelState::validate(CLIENT*, CLIENT*) {
    VodbCacheLock cacheLock;
    const auto& cache = VodbCacheLock::getVodbCache();
    VO_TR(vo_vod, vo_debug, "_vodbCache.size = %#X\n", static_cast<unsigned>(cache.size()));
    // Any role and any op type: a volume that another operation still names
    // must not vanish under it.
    for (const VoRec* rec : cache) {
        if (rec->vid() == _srcRec.vid() && memcmp(rec->lid(), _srcRec.lid(), 16) == 0 &&
            rec->opid() != _opid) {
            VO_TR(vo_vod, vo_warn, "vfsid=%d is busy with another opid=%lld opType(%d)\n",
                  rec->vid(), static_cast<long long>(rec->opid()), static_cast<int>(rec->opType()));
            setErr(voErrVodValidate, VoState::getErrorCodeForOpType(rec->opType()));
            return false;
        }
    }
    return true;
}

unsigned VoDelState::mkRec(CLIENT* clntVldb) {
    VoTrace::Depth depth;
    if (clntVldb == nullptr) {
        VO_TR(vo_vod, vo_warn, "clntVldb=0\n");
        return VOD_ERR_NO_VLDB_CLIENT;
    }

    // One record: the volume as the source of a delete, data version 0.
    VoRec* const recs[] = {&_srcRec};
    unsigned long long opid = 0;
    if (unsigned r = createVodbRecords(VO_SITE, clntVldb, recs, 1, &opid)) return r;
    _opid = opid;
    return 0;
}

unsigned VoDelState::del(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol) {
    VoTrace::Depth depth;
    if (unsigned missing = missingClient(CLIENT_CHECK_SITE, voErrVodSanityCheck, clntVldb, clntSrcDbladeVol))
        return missing;
    // Nothing to report as progress: nobody will come for a last reading.
    setMgmtGotLastProgress();

    const long long opid = static_cast<long long>(_opid);
    const unsigned vid = _srcRec.vid();

    // The volume first: a VLDB record without its volume can be cleaned up
    // later, a volume without its record could not be found again.
    VO_TR(vo_vod, vo_audit, "opid=%lld call dbladeDeleteVfs vfsid=%d\n", opid, vid);
    VoErr err = dbladeDeleteVfs(clntSrcDbladeVol, vid, _srcRec.lid());
    if (static_cast<unsigned>(err) == kDbladeVolumeGone) {
        // The client is the local D-blade's, and any other D-blade answers the
        // same for an LP it does not serve: only the LP's own D-blade can say
        // the volume is gone. Taken at its word here, a volume on another
        // D-blade would lose its VLDB record and stay on disk for good.
        VO_TR(vo_vod, vo_audit, "opid=%lld vfsid=%d not on the D-blade asked; ask its LP's\n", opid,
              vid);
        VoRPCClient own;
        VoErr cerr = openDbladeOf(VO_SITE, clntVldb, _srcRec.lid(), &own, nullptr);
        if (cerr != 0) {
            setHiLvlErr(VoErrDblade);
            return cerr;
        }
        err = dbladeDeleteVfs(own, vid, _srcRec.lid());
    }
    if (err != 0 && static_cast<unsigned>(err) != kDbladeVolumeGone) {
        VO_TR(vo_vod, vo_warn, "opid=%lld dbladeDeleteVfs vfsid=%d err.func=%d err.funcrc=%d\n",
              opid, vid, err.func(), err.funcrc());
        setHiLvlErr(VoErrDblade);
        setAllErr(err);
        return err;
    }

    VO_TR(vo_vod, vo_audit, "opid=%lld call vldbDeleteRecord vfsid=%d\n", opid, vid);
    err = vldbDeleteRecord(clntVldb, vid, _srcRec.lid());
    if (err != 0) {
        VO_TR(vo_vod, vo_warn, "opid=%lld vldbDeleteRecord vfsid=%d err.func=%d err.funcrc=%d\n",
              opid, vid, err.func(), err.funcrc());
        setHiLvlErr(VoErrVldb);
        setAllErr(err);
        return err;
    }

    VO_TR(vo_vod, vo_audit, "opid=%lld call deleteVodbRec\n", opid);
    VoErr r = deleteVodbRec(clntVldb);
    if (r != 0) {
        VO_TR(vo_vod, vo_warn, "opid=%lld deleteVodbRec err=%d\n", opid, static_cast<unsigned>(r));
        setAllErr(r);
        return r;
    }
    return 0;
}

// --- after a crash ----------------------------------------------------------

unsigned VoDelState::resurrectFromVoRec(unsigned long long opid, CLIENT*) {
    VoTrace::Depth depth;
    assert(VodbCacheLock::heldByThisThread());
    _opid = opid;
    VO_TR(vo_vod, vo_audit, "resurrect DEL _opid = %lld\n", static_cast<long long>(_opid));
    const auto& cache = VodbCacheLock::getVodbCache();
    VO_TR(vo_vod, vo_debug, "_vodbCache.size = %#X\n", static_cast<unsigned>(cache.size()));
    bool found = false;
    for (const VoRec* rec : cache) {
        if (rec->opid() != opid) continue;
        if (rec->opType() != VoRec::VODB_VOLOP_DELETE) {
            VO_TR(vo_vod, vo_warn, "opid=%lld is found but opType is %d\n",
                  static_cast<long long>(opid), static_cast<int>(rec->opType()));
            setErr(voErrVodCrashRecovery, VOD_ERR_INTERNAL);
            return VOD_ERR_INTERNAL;
        }
        if (rec->role() != VoRec::VODB_ROLE_SRC) {
            VO_TR(vo_vod, vo_warn, "opid=%lld has a VODB rec with an unexpected role %d\n",
                  static_cast<long long>(opid), static_cast<int>(rec->role()));
            setErr(voErrVodCrashRecovery, VOD_ERR_INTERNAL);
            return VOD_ERR_INTERNAL;
        }
        _srcRec = *rec;
        found = true;
        VO_TR(vo_vod, vo_audit, "opid=%lld, vfs %d, role %d\n", static_cast<long long>(opid),
              _srcRec.vid(), static_cast<int>(_srcRec.role()));
    }
    // Nothing to delete without its record; the caller found one, so this
    // only happens when the cache changed under a misuse.
    if (!found) {
        setErr(voErrVodCrashRecovery, VOD_ERR_INTERNAL);
        return VOD_ERR_INTERNAL;
    }
    // Its record is in the VODB: the registry's scans hand it to recovery.
    _vodbRecordStored = true;
    return 0;
}

unsigned VoDelState::recoverFromCrash(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol, CLIENT*) {
    VoTrace::Depth depth;
    if (unsigned missing = missingClient(CLIENT_CHECK_SITE, voErrVodCrashRecovery, clntVldb,
                                         clntSrcDbladeVol))
        return missing;
    if (retiredFromVodb()) {
        VO_TR(vo_vod, vo_warn, "retiredFromVodb()=1 already\n");
        setAllErr(voErrCrashRecovery, voErrVodCrashRecovery, VOD_ERR_INTERNAL);
        return VOD_ERR_INTERNAL;
    }

    const long long opid = static_cast<long long>(_opid);
    if (forceRetireFromVodb()) {
        VO_TR(vo_vod, vo_warn, "opid=%lld fail to recover Delete\n", opid);
        VO_TR(vo_vod, vo_warn, "opid=%lld leaves everything intact. Just purge the op\n", opid);
        VoErr r = deleteVodbRec(clntVldb);
        if (r != 0) {
            VO_TR(vo_vod, vo_warn, "opid=%lld deleteVodbRec err=%d\n", opid,
                  static_cast<unsigned>(r));
            setAllErr(r);
            return r;
        }
        setMgmtGotLastProgress();
        return 0;
    }

    // Start over: a volume the D-blade has already deleted passes its step.
    VO_TR(vo_vod, vo_audit, "call del\n");
    return del(clntVldb, clntSrcDbladeVol);
}
