// VoCopyState: a volume copy that survives a crash of the daemon.
//
// Its steps, in the order they run: addStream, validate, mkRec,
// mkOpSrcSink, startStream, progress, conclude (concludeCopy or recover).
// After a crash: resurrectFromVoRec, recoverFromCrash,
// determineRecoveryStrategy, concludeCopy.
#include "vocopystate.h"

#include <string.h>
#include <sys/time.h>

#include <optional>

#include "dblade_incrcopy.h"
#include "dblade_vol.h"
#include "util/xdrproc.h"
#include "vldb_lit.h"
#include "vldb_server.h"
#include "vodbCache.h"
#include "vorpccalls.h"
#include "vorpcclient.h"
#include "votrace.h"

namespace {

const unsigned kAttrTimeoutSec = 60;

// Streams of a copy, as incrcopymirror_1 numbers operation types.
const unsigned kIncrCopyOpTypeCopy = 1;

}  // namespace

VoCopyState::VoCopyState() : _sinkRec(), _opSrcRec() { memset(&_pgrs, 0, sizeof _pgrs); }

VoCopyState::~VoCopyState() {}

void VoCopyState::dbgDump() {
    // The worker sets the sink's D-blade id under the lock while it makes the sink.
    getLock();
    VO_TR(vo_vod, vo_event, "VoCopyState opid=%lld\n", _opid);
    _srcRec.dbgDump();
    _sinkRec.dbgDump();
    _opSrcRec.dbgDump();
    releaseLock();
}

// ---- The error triple. ----

// ---- Conflict tests. ----

bool VoCopyState::isUsing(unsigned vid, const unsigned char* lid, VoRec::VoType type,
                          VoRec::VfsRole role) {
    for (const VoRec* r : {&_srcRec, &_opSrcRec, &_sinkRec}) {
        if (r->vid() != vid || memcmp(r->lid(), lid, 16) != 0) continue;
        // The first record on the volume decides, whatever the later ones say.
        return r->opType() == type && r->role() == role;
    }
    return false;
}

bool VoCopyState::isUsing(const unsigned char* lid) {
    return memcmp(_srcRec.lid(), lid, 16) == 0 || memcmp(_sinkRec.lid(), lid, 16) == 0;
}

bool VoCopyState::isUsing(unsigned vid, const unsigned char* lid) {
    for (const VoRec* r : {&_srcRec, &_opSrcRec, &_sinkRec})
        if (r->vid() == vid && memcmp(r->lid(), lid, 16) == 0) return true;
    return false;
}

// ---- The request. ----

bool VoCopyState::addStream(unsigned vidSrc, const unsigned char* lidSrc,
                            const unsigned char* lidSink, const char* vnameSink) {
    if (_srcRec.vid() != 0) {
        VO_TR(vo_vod, vo_warn, "single stream only\n");
        setErr(voErrVodAddStream, VOD_ERR_INTERNAL);
        return false;
    }
    // The VLDB refuses a nameless volume; better now than after the sink is made.
    if (vnameSink == nullptr || *vnameSink == '\0') {
        VO_TR(vo_vod, vo_warn, "sink volume name is empty\n");
        setErr(voErrVodAddStream, VOD_ERR_INTERNAL);
        return false;
    }
    _srcRec.setOpType(VoRec::VODB_VOLOP_COPY);
    _srcRec.setVid(vidSrc);
    _srcRec.setLid(lidSrc);
    _srcRec.setRole(VoRec::VODB_ROLE_SRC);
    _sinkRec.setOpType(VoRec::VODB_VOLOP_COPY);
    _sinkRec.setLid(lidSink);
    _sinkRec.setRole(VoRec::VODB_ROLE_SINK);
    _sinkRec.setVname(vnameSink);
    _sinkName = vnameSink;
    return true;
}

bool VoCopyState::validate(CLIENT*, CLIENT*) {
    VodbCacheLock cacheLock;
    const auto& cache = VodbCacheLock::getVodbCache();
    VO_TR(vo_vod, vo_debug, "_vodbCache.size = %#X\n", static_cast<unsigned>(cache.size()));
    for (const VoRec* r : cache) {
        bool conflict = false;
        if (r->vid() == _sinkRec.vid()) {
            VO_TR(vo_vod, vo_warn, "Sink(%d) is busy with another opid=%lld opType(%d)\n",
                  _sinkRec.vid(), r->opid(), static_cast<int>(r->opType()));
            conflict = true;
        } else if (r->vid() == _srcRec.vid() && memcmp(r->lid(), _srcRec.lid(), 16) == 0) {
            switch (r->role()) {
                case VoRec::VODB_ROLE_SRC:
                    // Another copy or mirror may read the same source.
                    conflict = r->opType() == VoRec::VODB_VOLOP_MOVE ||
                               r->opType() == VoRec::VODB_VOLOP_FINALMOVE ||
                               r->opType() == VoRec::VODB_VOLOP_DELETE ||
                               r->opType() == VoRec::VODB_VOLOP_DUMP ||
                               r->opType() == VoRec::VODB_VOLOP_RESTORE;
                    break;
                case VoRec::VODB_ROLE_SINK:
                case VoRec::VODB_ROLE_OPSINK:
                case VoRec::VODB_ROLE_TEMP:
                    conflict = true;
                    break;
                case VoRec::VODB_ROLE_OPSRC:
                    // A read-only source may be the op src of several operations at once.
                    conflict = isSrcRW();
                    break;
                default:
                    break;
            }
            if (conflict)
                VO_TR(vo_vod, vo_warn, "Src(%d) is busy with another opid=%lld opType(%d)\n",
                      _srcRec.vid(), r->opid(), static_cast<int>(r->opType()));
        }
        if (conflict) {
            setErr(voErrVodValidate, getErrorCodeForOpType(r->opType()));
            return false;
        }
    }
    return true;
}

unsigned VoCopyState::mkRec(CLIENT* clntVldb) {
    VoTrace::Depth depth;
    if (clntVldb == nullptr) {
        VO_TR(vo_vod, vo_warn, "clntVldb=0\n");
        setErr(voErrVodMkVodbRec, VOD_ERR_NO_VLDB_CLIENT);
        return VOD_ERR_NO_VLDB_CLIENT;
    }
    if (_sinkRec.vid() != 0) {
        VO_TR(vo_vod, vo_warn, "sink vid!=0\n");
        setErr(voErrVodMkVodbRec, VOD_ERR_INTERNAL);
        return VOD_ERR_INTERNAL;
    }
    VO_TR(vo_vod, vo_debug, "call newVfsid for sink\n");
    unsigned vid = 0;
    VoErr err = newVfsid(clntVldb, &vid);
    if (err != 0) {
        VO_TR(vo_vod, vo_warn, "fail to get a vid for sink\n");
        setAllErr(err);
        return err.funcrc();
    }
    _sinkRec.setVid(vid);

    if (_opSrcRec.vid() != 0) {
        VO_TR(vo_vod, vo_warn, "op src vid!=0\n");
        setErr(voErrVodMkVodbRec, VOD_ERR_INTERNAL);
        return VOD_ERR_INTERNAL;
    }
    unsigned opSrcVid = _srcRec.vid();
    if (isSrcRW()) {
        VO_TR(vo_vod, vo_debug, "call newVfsid for op src\n");
        err = newVfsid(clntVldb, &opSrcVid);
        if (err != 0) {
            VO_TR(vo_vod, vo_warn, "fail to get a vid for op src\n");
            setAllErr(err);
            return err.funcrc();
        }
    }
    _opSrcRec.setOpType(VoRec::VODB_VOLOP_COPY);
    _opSrcRec.setVid(opSrcVid);
    _opSrcRec.setLid(_srcRec.lid());
    _opSrcRec.setRole(VoRec::VODB_ROLE_OPSRC);

    // Source, sink, op src: the records a crash recovery rebuilds the copy from.
    VoRec* const recs[] = {&_srcRec, &_sinkRec, &_opSrcRec};
    unsigned long long opid = 0;
    if (unsigned r = createVodbRecords(VO_SITE, clntVldb, recs, 3, &opid)) return r;
    _opid = opid;
    return 0;
}

// ---- Making the volumes and starting the stream. ----

unsigned VoCopyState::mkOpSrcSink(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol) {
    VoTrace::Depth depth;
    if (unsigned r = missingClient(VO_SITE, voErrVodMkOpSrcSink, clntVldb, clntSrcDbladeVol))
        return r;
    const unsigned long long opid = _opid;
    const unsigned srcVid = _srcRec.vid();
    const unsigned opSrcVid = _opSrcRec.vid();

    if (memcmp(_srcRec.lid(), _opSrcRec.lid(), 16) != 0) {
        VO_TR(vo_vod, vo_warn, "opid=%lld _srcRec.lid() != _opSrcRec.lid()\n", opid);
        setErr(voErrVodMkOpSrcSink, VOD_ERR_INTERNAL);
        return VOD_ERR_INTERNAL;
    }

    if (isSrcRW()) {
        if (srcVid == opSrcVid) {
            VO_TR(vo_vod, vo_warn, "opid=%lld _srcRec.vid() == _opSrcRec.vid() but src is RW\n",
                  opid);
            setErr(voErrVodMkOpSrcSink, VOD_ERR_INTERNAL);
            return VOD_ERR_INTERNAL;
        }
        if (unsigned r = cloneOpSrc(VO_SITE, clntVldb, clntSrcDbladeVol, _opSrcRec)) return r;
    } else if (srcVid != opSrcVid) {
        VO_TR(vo_vod, vo_warn, "opid=%lld _srcRec.vid(%d) != _opSrcRec.vid(%d) but src is RO\n",
              opid, srcVid, opSrcVid);
        setErr(voErrVodMkOpSrcSink, VOD_ERR_INTERNAL);
        return VOD_ERR_INTERNAL;
    }

    // The sink heads a family of its own, under the name asked for.
    return makeSink(VO_SITE, clntVldb, clntSrcDbladeVol, _opSrcRec, _sinkRec, _sinkName, _sinkName,
                    nullptr);
}

unsigned VoCopyState::startStream(CLIENT* clntSrcDbladeIncrCopy, CLIENT*) {
    VoTrace::Depth depth;
    if (clntSrcDbladeIncrCopy == nullptr) {
        VO_TR(vo_incrcopy, vo_warn, "clntSrcDbladeIncrCopy=0\n");
        setErr(voErrVodStartStream, VOD_ERR_NO_DBLADE_CLIENT);
        _dbladeIncrCopyRunning = false;
        return VOD_ERR_NO_DBLADE_CLIENT;
    }
    u_short dstBladeId = _sinkRec.getDid();
    u_int dstVfsId = _sinkRec.vid();
    lpUuid_t dstLpUuid;
    memcpy(dstLpUuid, _sinkRec.lid(), sizeof dstLpUuid);

    IncrCopyMirrorIn in;
    memset(&in, 0, sizeof in);
    in.opId = _opid;
    in.opType = kIncrCopyOpTypeCopy;
    in.srcVfsId = _opSrcRec.vid();
    memcpy(in.srcLpUuid, _opSrcRec.lid(), sizeof in.srcLpUuid);
    in.numDests = 1;
    in.dstBladeId.dstBladeId_len = 1;
    in.dstBladeId.dstBladeId_val = &dstBladeId;
    in.dstVfsId.dstVfsId_len = 1;
    in.dstVfsId.dstVfsId_val = &dstVfsId;
    in.dstLpUuid.dstLpUuid_len = 1;
    in.dstLpUuid.dstLpUuid_val = &dstLpUuid;

    VO_TR(vo_incrcopy, vo_entry, "opid=%lld incrcopymirror_1\n", _opid);
    u_int status = 0;
    clnt_stat st = incrcopymirror_1(&in, &status, clntSrcDbladeIncrCopy);
    if (st != RPC_SUCCESS) {
        VO_TR(vo_incrcopy, vo_warn, "opid=%lld incrcopymirror_1 failed: %s\n", _opid,
              clnt_sperrno(st));
        setErr(voErrDbladeIncrCopyMirrorRpc, st);
        // No stream to watch: the conclusion that follows must not poll one.
        _dbladeIncrCopyRunning = false;
        return voErrDbladeIncrCopyMirrorRpc;
    }
    if (status != 0) {
        VO_TR(vo_incrcopy, vo_warn, "opid=%lld incrcopymirror_1 err=%#X\n", _opid, status);
        setErr(voErrDbladeIncrCopyMirror, status);
        _dbladeIncrCopyRunning = false;
        return voErrDbladeIncrCopyMirror;
    }
    VO_TR(vo_incrcopy, vo_audit, "opid=%lld incrcopymirror_1 succeeded\n", _opid);
    return 0;
}

// ---- Watching the stream. ----

int VoCopyState::failedSuccessTest(const VoCopyPgrsOut& p) {
    return failedStreamTest(p.rc, p.src, p.sink);
}

unsigned VoCopyState::progress(CLIENT* clntSrcDbladeIncrCopy) {
    VoTrace::Depth depth;
    VoXdrResult<IncrCopyProgressOut> res(xdr_IncrCopyProgressOut);
    if (unsigned r = pollStream(clntSrcDbladeIncrCopy, _pgrs, res)) return r;
    const IncrCopyPgrsOut& p = res->IncrCopyProgressOut_u.out;
    const unsigned sinks = p.dstProgress.dstProgress_len;
    if (sinks == 0) {
        VO_TR(vo_incrcopy, vo_warn, "opid=%lld no sink VFS?!\n", _opid);
        memset(&_pgrs.sink, 0, sizeof _pgrs.sink);
    } else {
        if (sinks > 1) {
            VO_TR(vo_incrcopy, vo_warn, "opid=%lld copying to %d sink VFSes?!\n", _opid, sinks);
            VO_TR_RAW(vo_incrcopy, vo_warn, "returns progress of the first stream\n");
        }
        sinkProgressOf(p.dstProgress.dstProgress_val[0], &_pgrs.sink);
    }

    if (_pgrs.src.status == VoDone) {
        _dbladeIncrCopyRunning = false;
        // Until recovery proves otherwise, a stream that did not succeed is undone.
        if (failedSuccessTest(_pgrs) != 0) _rollForward = false;
    }
    return 0;
}

unsigned VoCopyState::progress(CLIENT* clntSrcDbladeIncrCopy, VoCopyPgrsOut* out) {
    return answerProgress(clntSrcDbladeIncrCopy, _pgrs, out);
}

void VoCopyState::cancel(CLIENT* clntSrcDbladeIncrCopy, VoOut* out) {
    cancelStreamTo(clntSrcDbladeIncrCopy, _sinkRec, out);
}

// ---- Conclusion. ----

unsigned VoCopyState::conclude(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol,
                               CLIENT* clntSrcDbladeIncrCopy) {
    VoTrace::Depth depth;
    if (unsigned r = missingClient(VO_SITE, voErrVodConclude, clntVldb, clntSrcDbladeVol,
                                   clntSrcDbladeIncrCopy))
        return r;
    const long long opid = static_cast<long long>(_opid);

    // The service thread may still be answering a progress poll.
    getLock();
    const VoCopyPgrsOut p = _pgrs;
    releaseLock();

    if (traceFailedStreamTest(VO_SITE, p.rc, p.src, p.sink) == 0) {
        VO_TR(vo_vod, vo_audit, "opid=%lld _rollForward=%d\n", opid, int(_rollForward));
        return concludeCopy(clntVldb, clntSrcDbladeVol, clntSrcDbladeIncrCopy);
    }
    VO_TR(vo_vod, vo_audit, "opid=%lld call recover\n", opid);
    unsigned r = recover(clntVldb, clntSrcDbladeVol, clntSrcDbladeIncrCopy);
    if (r != 0)
        VO_TR(vo_vod, vo_warn, "opid=%lld recover vfsid=%d err=%d\n", opid, _sinkRec.vid(), r);
    return r;
}

unsigned VoCopyState::recover(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol,
                              CLIENT* clntSrcDbladeIncrCopy) {
    return recoverFromCrash(clntVldb, clntSrcDbladeVol, clntSrcDbladeIncrCopy);
}

unsigned VoCopyState::concludeCopy(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol, CLIENT*) {
    VoTrace::Depth depth;
    const long long opid = static_cast<long long>(_opid);
    // The first failing step's code; the later steps run all the same.
    unsigned failed = 0;

    if (!_rollForward) {
        VO_TR(vo_vod, vo_audit, "opid=%lld call deleteSink\n", opid);
        unsigned r = deleteSink(clntVldb);
        if (r != 0) {
            VO_TR(vo_vod, vo_warn, "opid=%lld deleteSink vfsid=%d err=%d\n", opid, _sinkRec.vid(),
                  r);
            failed = r;
        }
    } else {
        VO_TR(vo_sinkvol, vo_debug, "opid=%lld call mkDbladeClient\n", opid);
        VoRPCClient sinkVol;
        VoErr err = openDbladeOf(VO_SITE, clntVldb, _sinkRec.lid(), &sinkVol, nullptr);
        if (err != 0) {
            failed = err;
        } else {
            // The sink was made with the attributes it keeps and the stream
            // brought its contents and data version; what is left is to give
            // it the source's kind, which makes it an ordinary volume.
            const unsigned sinkVid = _sinkRec.vid();
            VO_TR(vo_sinkvol, vo_audit, "opid=%lld dbladeVfsSetAttrs vfsid=%d\n", opid, sinkVid);
            VolSetattrIn in;
            memset(&in, 0, sizeof in);
            in.vfsID = sinkVid;
            memcpy(in.lpUUID, _sinkRec.lid(), sizeof in.lpUUID);
            in.set_attrs.how = isSrcRW() ? VOLSET_MAKE_RW : VOLSET_MAKE_RO;
            char empty[] = "";
            in.set_attrs.attrs.volname = empty;
            in.set_attrs.attrs.mountedatvolname = empty;
            VoXdrResult<VolSetattrOut_t> out(xdr_VolSetattrOut_t);
            unsigned rc = VoRpcCalls::dbladeVfsSetAttrs(&in, out.get(), sinkVol, kAttrTimeoutSec);
            err = dbladeOutcome(VO_SITE, VoTrace::vo_sinkvol, "dbladeVfsSetAttrs",
                                voErrDbladeVolSetAttr, _opid, sinkVid, rc,
                                rc == 0 ? out->returnCode : 0);
            if (err != 0) {
                setAllErr(err);
                failed = err;
            }
        }
    }

    // A read-only source was streamed from directly: only a clone goes.
    if (_opSrcRec.vid() != 0 && _opSrcRec.vid() != _srcRec.vid()) {
        VO_TR(vo_vod, vo_audit, "opid=%lld call deleteOpSrc\n", opid);
        unsigned r = deleteOpSrc(clntVldb, clntSrcDbladeVol);
        if (r != 0) {
            VO_TR(vo_vod, vo_warn, "opid=%lld deleteOpSrc vfsid=%d err=%d\n", opid, _opSrcRec.vid(),
                  r);
            if (failed == 0) failed = r;
        }
    }

    // With a step unfinished the records stay, so that crash recovery
    // repeats the clean-up later.
    return finishRecords(failed, clntVldb);
}

unsigned VoCopyState::deleteSink(CLIENT* clntVldb) {
    VoTrace::Depth depth;
    const long long opid = static_cast<long long>(_opid);
    const unsigned vid = _sinkRec.vid();
    if (vid == 0) return 0;  // never allocated: nothing was made
    VO_TR(vo_sinkvol, vo_debug, "opid=%lld call mkDbladeClient\n", opid);
    VoRPCClient sinkVol;
    VoErr err = openDbladeOf(VO_SITE, clntVldb, _sinkRec.lid(), &sinkVol, nullptr);
    if (err != 0) return err;
    return deleteVolume(VO_SITE, VoTrace::vo_sinkvol, clntVldb, sinkVol, _sinkRec,
                        VolDeleteWording::copySink);
}

unsigned VoCopyState::deleteOpSrc(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol) {
    VoTrace::Depth depth;
    return deleteVolume(VO_SITE, VoTrace::vo_srcvol, clntVldb, clntSrcDbladeVol, _opSrcRec,
                        VolDeleteWording::copyOpSrc);
}

// ---- After a crash. ----

unsigned VoCopyState::resurrectFromVoRec(unsigned long long opid, CLIENT*) {
    VoTrace::Depth depth;
    _opid = opid;
    VO_TR(vo_vod, vo_audit, "resurrect COPY _opid = %lld\n", opid);
    std::optional<VodbCacheLock> cacheLock;
    if (!VodbCacheLock::heldByThisThread()) cacheLock.emplace();
    const auto& cache = VodbCacheLock::getVodbCache();
    VO_TR(vo_vod, vo_debug, "_vodbCache.size = %#X\n", static_cast<unsigned>(cache.size()));
    bool haveSrc = false;
    for (const VoRec* r : cache) {
        if (r->opid() != opid) continue;
        if (r->opType() != VoRec::VODB_VOLOP_COPY) {
            VO_TR(vo_vod, vo_warn, "opid=%lld is found but opType is %d\n", opid,
                  static_cast<int>(r->opType()));
            setErr(voErrVodCrashRecovery, VOD_ERR_INTERNAL);
            return VOD_ERR_INTERNAL;
        }
        switch (r->role()) {
            case VoRec::VODB_ROLE_SRC:
                _srcRec = *r;
                haveSrc = true;
                break;
            case VoRec::VODB_ROLE_SINK:
                _sinkRec = *r;
                break;
            case VoRec::VODB_ROLE_OPSRC:
                _opSrcRec = *r;
                break;
            default:
                VO_TR(vo_vod, vo_warn, "opid=%lld has a VODB rec with an unexpected role %d\n",
                      opid, static_cast<int>(r->role()));
                setErr(voErrVodCrashRecovery, VOD_ERR_INTERNAL);
                return VOD_ERR_INTERNAL;
        }
        VO_TR(vo_vod, vo_audit, "opid=%lld, vfs %d, role %d\n", opid, r->vid(),
              static_cast<int>(r->role()));
    }
    // Resurrection starts from the source record; without it there is no copy.
    if (!haveSrc) {
        setErr(voErrVodCrashRecovery, VOD_ERR_INTERNAL);
        return VOD_ERR_INTERNAL;
    }
    _vodbRecordStored = true;
    return 0;
}

unsigned VoCopyState::recoverFromCrash(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol,
                                       CLIENT* clntSrcDbladeIncrCopy) {
    VoTrace::Depth depth;
    unsigned over = 0;
    if (recoveryIsOver(VO_SITE, "Copy", clntVldb, clntSrcDbladeVol, clntSrcDbladeIncrCopy, &over))
        return over;
    const long long opid = static_cast<long long>(_opid);

    VO_TR(vo_vod, vo_audit, "opid=%lld call determineRecoveryStrategy\n", opid);
    if (determineRecoveryStrategy(clntVldb, _sinkRec) != 0) {
        VO_TR(vo_vod, vo_warn, "opid=%lld decides to roll back due to error\n", opid);
        _rollForward = false;
    }
    VO_TR(vo_vod, vo_audit, "opid=%lld _rollForward = %d\n", opid, int(_rollForward));

    if (_rollForward) {
        // Whether the sink becomes read-write depends on the source's kind,
        // which a resurrected copy has not seen yet.
        const unsigned srcVid = _srcRec.vid();
        VO_TR(vo_vldb, vo_entry, "opid=%lld vldb_record_lookup_3 src vfsid=%d\n", opid, srcVid);
        VoXdrResult<vldb_record_lookup_result> found(xdr_vldb_record_lookup_result);
        if (unsigned r = lookupSrcVldb(VO_SITE, clntVldb, found)) return r;
        const unsigned count = found->r.r_len;
        if (count != 1) {
            VO_TR(vo_vldb, vo_warn, "opid=%lld expects one VLDB record for vfsid=%d. Got %d!\n",
                  opid, srcVid, count);
            setErr(voErrVodSanityCheck, VOD_ERR_INTERNAL);
            return VOD_ERR_INTERNAL;
        }
        VO_TR(vo_vldb, vo_debug, "opid=%lld vldb_record_lookup_3 returns one VLDB rec\n", opid);
        setSrcVfsType(found->r.r_val[0].vfstype);
        VO_TR(vo_vod, vo_debug, "opid=%lld isSrcRW()=%d\n", opid, int(isSrcRW()));
    }

    VO_TR(vo_vod, vo_audit, "opid=%lld call concludeCopy\n", opid);
    return concludeCopy(clntVldb, clntSrcDbladeVol, clntSrcDbladeIncrCopy);
}
