// VoMirrorState: read-only mirrors made or refreshed by one stream.
//
// Its steps, in the order they run: addStream, validate, mkRec, mkOpSrcSink,
// startStream, progress, cancel, conclude (rollForwardOpSink with adjustVid
// and adjustAttrVLDB, or deleteOpSink; then the op src). After a crash:
// resurrectFromVoRec, recoverFromCrash.
#include "vomirrorstate.h"

#include <stdlib.h>
#include <string.h>
#include <sys/time.h>

#include <algorithm>
#include <array>
#include <optional>
#include <string>

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

const unsigned kCloneTimeoutSec = 1800;
const unsigned kCreateTimeoutSec = 300;
const unsigned kAttrTimeoutSec = 60;
const unsigned kSwapTimeoutSec = 120;

// Streams of a mirror, as the D-blade numbers operation types.
const unsigned kIncrCopyOpTypeMirror = 2;

// D-blade answers about a volume: none at all, not on that LP, and a hidden
// volume under that id.
const unsigned kTarnErrVolNotFound = 16;
const unsigned kTarnErrHidden = 32;

const unsigned char kLidZero[16] = {0};

bool noSuchVolume(unsigned status) {
    return status == kTarnErrVolNotFound || status == TARN_ERR_LPMMISMATCH;
}

const char* rpcErrText(unsigned rc) {
    return rc == VOD_ERR_CANT_SET_TIMEOUT ? "voErrRpcErrCantSetTimeOut"
                                          : clnt_sperrno(static_cast<clnt_stat>(rc));
}

timeval now() {
    timeval tv = {0, 0};
    gettimeofday(&tv, nullptr);
    return tv;
}

// dbladeVfsGetAttrs of (vfsid, lid): the transport answer, with the
// D-blade's status in *status and the attributes in out.
unsigned getAttrs(CLIENT* clnt, unsigned vfsid, const unsigned char* lid,
                  VoXdrResult<VolGetattrOut_t>& out, unsigned* status) {
    VolGetattrIn in;
    memset(&in, 0, sizeof in);
    in.vfsID = vfsid;
    memcpy(in.lpUUID, lid, sizeof in.lpUUID);
    unsigned rc = VoRpcCalls::dbladeVfsGetAttrs(&in, out.get(), clnt, kAttrTimeoutSec);
    *status = rc == 0 ? out->returnCode : 0;
    return rc;
}

// dbladeVfsSetAttrs with only `how` and what it names set by the caller.
unsigned setAttrs(CLIENT* clnt, unsigned vfsid, const unsigned char* lid, VolSetattrIn& in,
                  unsigned* status) {
    in.vfsID = vfsid;
    memcpy(in.lpUUID, lid, sizeof in.lpUUID);
    static char empty[] = "";
    if (in.set_attrs.attrs.volname == nullptr) in.set_attrs.attrs.volname = empty;
    if (in.set_attrs.attrs.mountedatvolname == nullptr) in.set_attrs.attrs.mountedatvolname = empty;
    VoXdrResult<VolSetattrOut_t> out(xdr_VolSetattrOut_t);
    unsigned rc = VoRpcCalls::dbladeVfsSetAttrs(&in, out.get(), clnt, kAttrTimeoutSec);
    *status = rc == 0 ? out->returnCode : 0;
    return rc;
}

}  // namespace

VoMirrorState::VoMirrorState() : opNotFoundWithDblade(false) { memset(&_pgrs, 0, sizeof _pgrs); }

VoMirrorState::~VoMirrorState() { free(_pgrs.sinks.sinks_val); }

void VoMirrorState::dbgDump() {
    getLock();
    VO_TR(vo_vod, vo_event, "VoMirrorState opid=%lld streams=%d\n", _opid,
          static_cast<int>(_opSinkRecs.size()));
    _srcRec.dbgDump();
    _opSrcRec.dbgDump();
    _sinkRec.dbgDump();
    _tempRec.dbgDump();
    for (const auto& r : _opSinkRecs) r->dbgDump();
    releaseLock();
}

// ---- The stream list. ----

void VoMirrorState::moveToBack(size_t i) {
    // Appended again, then erased from where it stood: the eligible streams
    // stay first, in their order.
    std::unique_ptr<VoRec> r = std::move(_opSinkRecs[i]);
    _opSinkRecs.erase(_opSinkRecs.begin() + static_cast<std::ptrdiff_t>(i));
    _opSinkRecs.push_back(std::move(r));
}

VoRec* VoMirrorState::localMirror() {
    for (auto& r : _opSinkRecs)
        if (r->getErrCode() == VOD_ERR_LOCAL_MIRROR) return r.get();
    return nullptr;
}

bool VoMirrorState::sizeProgress() {
    free(_pgrs.sinks.sinks_val);
    const size_t n = _opSinkRecs.size();
    _pgrs.sinks.sinks_val = static_cast<VoSinkPgrs*>(calloc(n ? n : 1, sizeof(VoSinkPgrs)));
    if (_pgrs.sinks.sinks_val == nullptr) {
        VO_TR(vo_vod, vo_warn, "opid=%lld no mem for %d sinks inside _pgrs\n", _opid,
              static_cast<int>(n));
        VO_TR_RAW(vo_vod, vo_warn, "Clear _pgrs.numSinks and _pgrs.sinks.sinks_len to 0\n");
        _pgrs.numSinks = 0;
        _pgrs.sinks.sinks_len = 0;
        return false;
    }
    _pgrs.numSinks = static_cast<u_int>(n);
    _pgrs.sinks.sinks_len = static_cast<u_int>(n);
    for (size_t i = 0; i < n; i++) {
        VoSinkPgrs& s = _pgrs.sinks.sinks_val[i];
        s.vfsId = _opSinkRecs[i]->vid();
        memcpy(s.uuid, _opSinkRecs[i]->lid(), sizeof s.uuid);
        s.completionCode = _opSinkRecs[i]->getErrCode();
        s.isDone = s.completionCode != 0;
    }
    return true;
}

void VoMirrorState::markRecovered(const VoRec* opSink) {
    // A handler may be copying _pgrs for a progress answer.
    getLock();
    for (u_int i = 0; i < _pgrs.sinks.sinks_len; i++) {
        VoSinkPgrs& s = _pgrs.sinks.sinks_val[i];
        if (memcmp(s.uuid, opSink->lid(), 16) != 0) continue;
        s.isDone = 1;
        s.completionCode = opSink->getErrCode();
    }
    releaseLock();
}

void VoMirrorState::setCompletionCodeForSink(const VoRec* opSink, unsigned code) {
    VO_TR_RAW(vo_vod, vo_debug, "setCompletionCodeForSink: code = %d, Sink = %d\n", code,
              opSink->vid());
    for (u_int i = 0; i < _pgrs.sinks.sinks_len; i++) {
        VoSinkPgrs& s = _pgrs.sinks.sinks_val[i];
        if (memcmp(s.uuid, opSink->lid(), 16) != 0) continue;
        s.completionCode = code;
        return;
    }
}

bool VoMirrorState::checkIfAnyRemoteMirrorSucceeded() {
    for (u_int i = 0; i < _pgrs.sinks.sinks_len; i++) {
        const VoSinkPgrs& s = _pgrs.sinks.sinks_val[i];
        if (memcmp(s.uuid, _srcRec.lid(), 16) == 0) continue;
        if (s.completionCode == 0 || s.completionCode == VOD_ERR_UP_TO_DATE ||
            s.completionCode == VIC_ESINKUPTODATE)
            return true;
    }
    return false;
}

bool VoMirrorState::isItOnlyALocalMirror() {
    return _opSinkRecs.size() == 1 && memcmp(_opSinkRecs[0]->lid(), _srcRec.lid(), 16) == 0;
}

// ---- Conflict tests. ----

bool VoMirrorState::isUsing(unsigned vid, const unsigned char* lid, VoRec::VoType type,
                            VoRec::VfsRole role) {
    getLock();
    bool result = false;
    auto is = [&](const VoRec& r) {
        return r.vid() == vid && memcmp(r.lid(), lid, 16) == 0 && r.opType() == type &&
               r.role() == role;
    };
    if (is(_srcRec) || is(_opSrcRec) || (_tempRec.vid() != 0 && is(_tempRec))) result = true;
    for (const auto& r : _opSinkRecs) {
        if (result || r->getErrCode() != 0) break;
        if (memcmp(r->lid(), lid, 16) != 0) continue;
        if (is(*r)) result = true;
        // The mirror id at that LP is the operation's too.
        if (vid == _sinkRec.vid() && type == VoRec::VODB_VOLOP_MIRROR &&
            role == VoRec::VODB_ROLE_SINK)
            result = true;
    }
    releaseLock();
    return result;
}

bool VoMirrorState::isUsing(const unsigned char* lid) {
    if (memcmp(_srcRec.lid(), lid, 16) == 0) return true;
    getLock();
    bool found = false;
    for (const auto& r : _opSinkRecs) {
        if (r->getErrCode() != 0) {
            VO_TR(vo_vod, vo_detail,
                  "checked all no err streams. Local mirror is never checked.\n");
            break;
        }
        if (memcmp(r->lid(), lid, 16) == 0) found = true;
    }
    releaseLock();
    return found;
}

bool VoMirrorState::isUsing(unsigned vid, const unsigned char* lid) {
    getLock();
    bool found = false;
    for (const VoRec* r : {&_srcRec, &_opSrcRec})
        if (r->vid() == vid && memcmp(r->lid(), lid, 16) == 0) found = true;
    if (_tempRec.vid() != 0 && _tempRec.vid() == vid && memcmp(_tempRec.lid(), lid, 16) == 0) {
        VO_TR(vo_vod, vo_warn, "Someone is looking up our temp vfs id! Is it crash recovery?\n");
        found = true;
    }
    for (const auto& r : _opSinkRecs) {
        if (r->getErrCode() != 0) break;
        if (memcmp(r->lid(), lid, 16) == 0 && (vid == r->vid() || vid == _sinkRec.vid()))
            found = true;
    }
    releaseLock();
    return found;
}

// ---- The request. ----

bool VoMirrorState::addStream(unsigned vidSrc, const unsigned char* lidSrc,
                              const unsigned char* lidSink, unsigned long long dver) {
    if (_srcRec.vid() == 0) {
        _srcRec.setOpType(VoRec::VODB_VOLOP_MIRROR);
        _srcRec.setVid(vidSrc);
        _srcRec.setLid(lidSrc);
        _srcRec.setRole(VoRec::VODB_ROLE_SRC);
        _sinkRec.setOpType(VoRec::VODB_VOLOP_MIRROR);
        _sinkRec.setVid(vidSrc | MIRROR_ID_BIT);
        _sinkRec.setLid(lidSrc);
        _sinkRec.setRole(VoRec::VODB_ROLE_SINK);
    } else {
        const char* why = nullptr;
        if (vidSrc != _srcRec.vid()) {
            VO_TR(vo_vod, vo_warn, "vidSrc(%d) != _srcRec.vid(%d)\n", vidSrc, _srcRec.vid());
            why = "vid";
        } else if (memcmp(lidSrc, _srcRec.lid(), 16) != 0) {
            VO_TR(vo_vod, vo_warn, "lidSrc != _srcRec.lid\n");
            why = "lid";
        } else {
            for (const auto& r : _opSinkRecs)
                if (memcmp(r->lid(), lidSink, 16) == 0) {
                    VO_TR(vo_vod, vo_warn, "Duplicate lidSink\n");
                    why = "dup";
                    break;
                }
        }
        if (why != nullptr) {
            setErr(voErrVodAddStream, VOD_ERR_INTERNAL);
            return false;
        }
    }
    std::unique_ptr<VoRec> r(new (std::nothrow) VoRec());
    if (!r) {
        VO_TR(vo_vod, vo_warn, "no mem for sinkRec\n");
        setErr(voErrVodAllocVoRec, VOD_ERR_NO_MEMORY);
        return false;
    }
    r->setOpType(VoRec::VODB_VOLOP_MIRROR);
    r->setLid(lidSink);
    r->setRole(VoRec::VODB_ROLE_OPSINK);
    r->setDver(dver);
    _opSinkRecs.push_back(std::move(r));
    return true;
}

bool VoMirrorState::validate(CLIENT*, CLIENT*) {
    VoTrace::Depth depth;
    // isSrcExist, which prepare ran, left the source's data version here.
    const unsigned long long srcDver = _srcRec.dver();
    for (size_t i = 0; i < _opSinkRecs.size();) {
        VoRec& r = *_opSinkRecs[i];
        if (r.getErrCode() != 0) break;
        // A member at version 0 was never filled: it is never up to date.
        if (r.dver() != 0 && r.dver() == srcDver) {
            VO_TR(vo_vod, vo_audit, "skip up-to-date mirror at LP=" VO_LP_FMT "\n",
                  VO_LP_ARGS(r.lid()));
            r.setErrCode(VOD_ERR_UP_TO_DATE);
            moveToBack(i);
            continue;
        }
        i++;
    }
    auto anyLeft = [&] {
        for (const auto& r : _opSinkRecs)
            if (r->getErrCode() == 0 || r->getErrCode() == VOD_ERR_LOCAL_MIRROR) return true;
        return false;
    };
    if (!anyLeft()) {
        VO_TR(vo_vod, vo_audit, "no mirror stream is eligible to start\n");
        setErr(voErrVodValidate, VOD_ERR_UP_TO_DATE);
        return false;
    }

    {
        VodbCacheLock cacheLock;
        const auto& cache = VodbCacheLock::getVodbCache();
        VO_TR(vo_vod, vo_debug, "_vodbCache.size = %#X\n", static_cast<unsigned>(cache.size()));
        for (const VoRec* c : cache) {
            if (c->vid() == _srcRec.vid() && memcmp(c->lid(), _srcRec.lid(), 16) == 0) {
                bool conflict = false;
                switch (c->role()) {
                    case VoRec::VODB_ROLE_NULL:
                        conflict = c->opType() == VoRec::VODB_VOLOP_MIRROR ||
                                   c->opType() == VoRec::VODB_VOLOP_FINALMOVE ||
                                   c->opType() == VoRec::VODB_VOLOP_DELETE ||
                                   c->opType() == VoRec::VODB_VOLOP_DUMP ||
                                   c->opType() == VoRec::VODB_VOLOP_RESTORE;
                        break;
                    case VoRec::VODB_ROLE_SRC:
                        conflict = c->opType() == VoRec::VODB_VOLOP_MIRROR;
                        break;
                    case VoRec::VODB_ROLE_SINK:
                        conflict = isSrcRW();
                        break;
                    default:
                        conflict = true;
                        break;
                }
                if (conflict) {
                    VO_TR(vo_vod, vo_warn, "Src (%d) is busy with another opid=%lld opType(%d)\n",
                          _srcRec.vid(), c->opid(), static_cast<int>(c->opType()));
                    setErr(voErrVodValidate, getErrorCodeForOpType(c->opType()));
                    return false;
                }
            } else if (c->vid() == _sinkRec.vid()) {
                VO_TR(vo_vod, vo_warn, "Sink (%d) is busy with another opid=%lld opType(%d)\n",
                      _sinkRec.vid(), c->opid(), static_cast<int>(c->opType()));
                for (size_t i = 0; i < _opSinkRecs.size(); i++) {
                    VoRec& r = *_opSinkRecs[i];
                    const unsigned code = r.getErrCode();
                    if (code != 0 && code != VOD_ERR_LOCAL_MIRROR) continue;
                    if (memcmp(r.lid(), c->lid(), 16) != 0) continue;
                    VO_TR(vo_vod, vo_warn, "offending mirror at LP=" VO_LP_FMT "\n",
                          VO_LP_ARGS(r.lid()));
                    r.setErrCode(VOD_ERR_OFFENDING_STREAM);
                    moveToBack(i);
                    break;
                }
            }
        }
    }
    if (!anyLeft()) {
        setErr(voErrVodValidate, VOD_ERR_NOTHING_ELIGIBLE);
        return false;
    }
    return true;
}

unsigned VoMirrorState::mkRec(CLIENT* clntVldb) {
    VoTrace::Depth depth;
    if (clntVldb == nullptr) {
        VO_TR(vo_vod, vo_warn, "clntVldb=0\n");
        setErr(voErrVodMkVodbRec, VOD_ERR_NO_VLDB_CLIENT);
        return VOD_ERR_NO_VLDB_CLIENT;
    }
    VoErr err;
    if (_opSrcRec.vid() != 0) {
        VO_TR(vo_vod, vo_warn, "opsrc vid!=0\n");
    } else {
        unsigned vid = _srcRec.vid();
        if (isSrcRW()) {
            VO_TR(vo_vod, vo_debug, "call newVfsid for opsrc\n");
            if ((err = newVfsid(clntVldb, &vid)) != 0) {
                VO_TR(vo_vod, vo_warn, "fail to get a vid for opsrc\n");
                setAllErr(err);
                return err.funcrc();
            }
        }
        _opSrcRec.setVid(vid);
    }
    _opSrcRec.setOpType(VoRec::VODB_VOLOP_MIRROR);
    _opSrcRec.setLid(_srcRec.lid());
    _opSrcRec.setRole(VoRec::VODB_ROLE_OPSRC);

    if (_tempRec.vid() == 0) {
        VO_TR(vo_vod, vo_debug, "call newVfsid for temp\n");
        unsigned vid = 0;
        if ((err = newVfsid(clntVldb, &vid)) != 0) {
            VO_TR(vo_vod, vo_warn, "fail to get a vid for temp\n");
            setAllErr(err);
            return err.funcrc();
        }
        _tempRec.setVid(vid);
        _tempRec.setOpType(VoRec::VODB_VOLOP_MIRROR);
        _tempRec.setLid(_srcRec.lid());
        _tempRec.setRole(VoRec::VODB_ROLE_TEMP);
    }

    VO_TR(vo_vod, vo_debug, "_opSinkRecs.size = %#X\n", static_cast<unsigned>(_opSinkRecs.size()));
    for (size_t i = 0; i < _opSinkRecs.size();) {
        VoRec& r = *_opSinkRecs[i];
        if (r.getErrCode() != 0) break;
        if (r.vid() != 0) {
            VO_TR(vo_vod, vo_warn, "opsink vid!=0\n");
            setErr(voErrVodMkVodbRec, VOD_ERR_INTERNAL);
            return VOD_ERR_INTERNAL;
        }
        if (memcmp(r.lid(), _srcRec.lid(), 16) == 0 && isSrcRW()) {
            VO_TR(vo_vod, vo_audit, "found a local mirror\n");
            r.setVid(_opSrcRec.vid());
            r.setErrCode(VOD_ERR_LOCAL_MIRROR);
            moveToBack(i);
            continue;
        }
        VO_TR(vo_vod, vo_debug, "call newVfsid for op sink\n");
        unsigned vid = 0;
        if ((err = newVfsid(clntVldb, &vid)) != 0) {
            VO_TR(vo_vod, vo_warn, "fail to get a vid for op sink\n");
            setAllErr(err);
            return err.funcrc();
        }
        r.setVid(vid);
        i++;
    }

    // Copies: the VODB's opid goes into the operation's own records below,
    // under the lock.
    std::vector<VoRec> recs = {_srcRec, _opSrcRec, _tempRec, _sinkRec};
    for (const auto& r : _opSinkRecs) {
        if (r->getErrCode() != 0 && r->getErrCode() != VOD_ERR_LOCAL_MIRROR) continue;
        VoRec atTarget(_sinkRec);
        atTarget.setLid(r->lid());
        recs.push_back(*r);
        recs.push_back(atTarget);
    }
    if (recs.size() == 4) {
        VO_TR(vo_vod, vo_warn, "no mirror stream is eligible to start\n");
        setErr(voErrVodMkVodbRec, VOD_ERR_NOTHING_ELIGIBLE);
        return VOD_ERR_NOTHING_ELIGIBLE;
    }
    std::vector<VoRec*> ptrs;
    for (VoRec& r : recs) ptrs.push_back(&r);
    unsigned long long opid = 0;
    if (unsigned r = createVodbRecords(VO_SITE, clntVldb, ptrs.data(),
                                       static_cast<unsigned>(ptrs.size()), &opid))
        return r;
    getLock();
    _opid = opid;
    for (VoRec* r : {&_srcRec, &_sinkRec, &_opSrcRec, &_tempRec}) r->setOpid(opid);
    for (auto& r : _opSinkRecs) r->setOpid(opid);
    releaseLock();
    VO_TR(vo_vod, vo_audit, "Compatible streams=%d All attempted streams=%d\n",
          static_cast<int>((recs.size() - 4) / 2), static_cast<int>(_opSinkRecs.size()));
    if (!sizeProgress()) {
        setErr(voErrVodAllocVoSinkPgrs, VOD_ERR_NO_MEMORY);
        return VOD_ERR_NO_MEMORY;
    }
    return 0;
}

// ---- Making the volumes and starting the stream. ----

unsigned VoMirrorState::mkOpSrcSink(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol) {
    VoTrace::Depth depth;
    if (unsigned r = missingClient(VO_SITE, voErrVodMkOpSrcSink, clntVldb, clntSrcDbladeVol))
        return r;
    const long long opid = static_cast<long long>(_opid);
    if (memcmp(_srcRec.lid(), _opSrcRec.lid(), 16) != 0) {
        VO_TR(vo_vod, vo_warn, "opid=%lld _srcRec.lid() != _opSrcRec.lid()\n", opid);
        setErr(voErrVodMkOpSrcSink, VOD_ERR_INTERNAL);
        return VOD_ERR_INTERNAL;
    }
    if (isSrcRW()) {
        if (_srcRec.vid() == _opSrcRec.vid()) {
            VO_TR(vo_vod, vo_warn, "opid=%lld _srcRec.vid() == _opSrcRec.vid() but src is RW\n",
                  opid);
            setErr(voErrVodMkOpSrcSink, VOD_ERR_INTERNAL);
            return VOD_ERR_INTERNAL;
        }
        if (unsigned r = cloneOpSrc(VO_SITE, clntVldb, clntSrcDbladeVol, _opSrcRec)) return r;
    } else if (_srcRec.vid() != _opSrcRec.vid()) {
        VO_TR(vo_vod, vo_warn, "opid=%lld _srcRec.vid(%d) != _opSrcRec.vid(%d) but src is RO\n",
              opid, _srcRec.vid(), _opSrcRec.vid());
        setErr(voErrVodMkOpSrcSink, VOD_ERR_INTERNAL);
        return VOD_ERR_INTERNAL;
    }
    // The attributes every new op sink is made with, and the data version
    // the stream brings the op sinks to.
    VoXdrResult<VolGetattrOut_t> srcAttrs(xdr_VolGetattrOut_t);
    {
        unsigned status = 0;
        unsigned rc =
            getAttrs(clntSrcDbladeVol, _opSrcRec.vid(), _opSrcRec.lid(), srcAttrs, &status);
        VoErr err = dbladeOutcome(VO_SITE, VoTrace::vo_srcvol, "dbladeVfsGetAttrs",
                                  voErrDbladeVolGetAttr, _opid, _opSrcRec.vid(), rc, status);
        if (err != 0) {
            setAllErr(err);
            return err;
        }
        _opSrcRec.setDver(srcAttrs->return_volattrs.dataVersion);
    }
    const tarn_volgattrx_t& src = srcAttrs->return_volattrs;
    const unsigned mirror = _sinkRec.vid();

    for (size_t i = 0; i < _opSinkRecs.size();) {
        VoRec& r = *_opSinkRecs[i];
        if (r.getErrCode() != 0) break;
        const unsigned vid = r.vid();
        auto fail = [&](unsigned code) {
            getLock();
            r.setErrCode(code != 0 ? code : VOD_ERR_INTERNAL);
            moveToBack(i);
            releaseLock();
        };
        VO_TR(vo_sinkvol, vo_debug, "opid=%lld call mkDbladeClient\n", opid);
        VoRPCClient sinkVol;
        VoRec learn;
        VoErr err = openDbladeOf(VO_SITE, clntVldb, r.lid(), &sinkVol, &learn);
        if (err != 0) {
            fail(err);
            continue;
        }
        getLock();
        r.setDid(learn.getDid());
        releaseLock();

        // The mirror already there, cloned in place, needs only what changed.
        VolCloneIn cin;
        memset(&cin, 0, sizeof cin);
        cin.srcVfsID = mirror;
        cin.cloneVfsID = vid;
        memcpy(cin.lpUUID, r.lid(), sizeof cin.lpUUID);
        VoXdrResult<VolCloneOut_t> cout(xdr_VolCloneOut_t);
        unsigned rc = VoRpcCalls::dbladeCloneVfs(&cin, cout.get(), sinkVol, kCloneTimeoutSec);
        unsigned status = rc == 0 ? cout->returnCode : 0;
        if (rc != 0) {
            VO_TR(vo_sinkvol, vo_warn,
                  "opid=%lld dbladeCloneVfs src %d clone %d at LP=" VO_LP_FMT " failed: %s\n", opid,
                  mirror, vid, VO_LP_ARGS(r.lid()), rpcErrText(rc));
            fail(VoRpcCalls::foldErr(voErrDbladeVolClone, static_cast<clnt_stat>(rc), 0));
            continue;
        }
        if (status == 0) {
            VO_TR(vo_sinkvol, vo_audit, "opid=%lld made an upstream clone as the op sink %d\n",
                  opid, vid);
        } else if (noSuchVolume(status)) {
            VO_TR(vo_sinkvol, vo_audit,
                  "opid=%lld mirror sink does not exist at LP=" VO_LP_FMT " Make a new VFS.\n",
                  opid, VO_LP_ARGS(r.lid()));
            VoRec named(r);
            named.genVname(nullptr);
            VolCreateIn in;
            memset(&in, 0, sizeof in);
            memcpy(in.lpUUID, r.lid(), sizeof in.lpUUID);
            in.vfsID = vid;
            tarn_volsetattrx_t& set = in.set_attrs;
            set.how = VOLSET_MINQUOTA | VOLSET_MAXQUOTA | VOLSET_VOLNAME | VOLSET_MOUNTEDATVOLNAME |
                      VOLSET_MOUNTEDATDIRVNODE | VOLSET_MOUNTEDATDIRUNIQUE |
                      VOLSET_MOUNTEDATPARENTVNODE | VOLSET_MOUNTEDATPARENTUNIQUE |
                      VOLSET_VIRTUALSERVER;
            set.attrs.minQuota = src.minQuota;
            set.attrs.maxQuota = src.maxQuota;
            set.attrs.volname = const_cast<char*>(named.getVname());
            copy_mountedat_attr(set.attrs, src);
            char empty[] = "";
            if (set.attrs.mountedatvolname == nullptr) set.attrs.mountedatvolname = empty;
            set.attrs.virtualServer = src.virtualServer;
            VO_TR(vo_sinkvol, vo_audit, "opid=%lld dbladeVfsCreate vfsid=%d\n", opid, vid);
            VoXdrResult<VolCreateOut_t> out(xdr_VolCreateOut_t);
            rc = VoRpcCalls::dbladeVfsCreate(&in, out.get(), sinkVol, kCreateTimeoutSec);
            err =
                dbladeOutcome(VO_SITE, VoTrace::vo_sinkvol, "dbladeVfsCreate", voErrDbladeVolCreate,
                              _opid, vid, rc, rc == 0 ? out->returnCode : 0);
            if (err != 0) {
                setAllErr(err);
                fail(err);
                continue;
            }
            VO_TR(vo_sinkvol, vo_audit, "opid=%lld created a new vfs as op sink%d\n", opid, vid);
        } else {
            VO_TR(vo_sinkvol, vo_warn,
                  "opid=%lld dbladeCloneVfs src %d clone %d at LP=" VO_LP_FMT " err=%#X\n", opid,
                  mirror, vid, VO_LP_ARGS(r.lid()), status);
            fail(VoRpcCalls::foldErr(voErrDbladeVolClone, RPC_SUCCESS, status));
            continue;
        }

        // The op sink must start where the VLDB says the mirror stands:
        // otherwise the stream would bring forward something else.
        VoXdrResult<VolGetattrOut_t> got(xdr_VolGetattrOut_t);
        rc = getAttrs(sinkVol, vid, r.lid(), got, &status);
        if (rc != 0 || status != 0) {
            VO_TR(vo_sinkvol, vo_warn,
                  "VALIDATE_SINK_DV opid=%lld getAttr failed; vfs=%u LP=" VO_LP_FMT "\n", opid, vid,
                  VO_LP_ARGS(r.lid()));
            fail(voErrValidateSinkDV);
            continue;
        }
        if (got->return_volattrs.dataVersion != r.dver()) {
            VO_TR(vo_sinkvol, vo_warn,
                  "VALIDATE_SINK_DV opid=%llu, version check failed;opSinkDV=%llu, mirrorDV=%llu "
                  "sinkVfs=%u, LP=" VO_LP_FMT "\n",
                  _opid, static_cast<unsigned long long>(got->return_volattrs.dataVersion),
                  r.dver(), vid, VO_LP_ARGS(r.lid()));
            fail(voErrValidateSinkDV);
            continue;
        }

        VO_TR(vo_vldb, vo_audit, "opid=%lld call vldbCreateRecord for op sink %d\n", opid, vid);
        VoRec named(r);
        named.genVname(nullptr);
        timeval t = now();
        err = vldbCreateRecord(clntVldb, vid, r.lid(), named.getVname(), getFamily(), RO_VFS, 0,
                               t.tv_sec, t.tv_usec, 0, r.dver(), getExportRuleset(), APP_VOD);
        if (err != 0) {
            VO_TR(vo_vldb, vo_warn,
                  "opid=%lld vldbCreateRecord vfsid=%d LP=" VO_LP_FMT
                  " err.func=%d err.funcrc=%d\n",
                  opid, vid, VO_LP_ARGS(r.lid()), err.func(), err.funcrc());
            fail(err);
            continue;
        }
        i++;
    }
    getLock();
    sizeProgress();
    releaseLock();
    return 0;
}

unsigned VoMirrorState::startStream(CLIENT* clntSrcDbladeIncrCopy, CLIENT*) {
    VoTrace::Depth depth;
    const long long opid = static_cast<long long>(_opid);
    if (clntSrcDbladeIncrCopy == nullptr) {
        VO_TR(vo_incrcopy, vo_warn, "clntSrcDbladeIncrCopy=0\n");
        setErr(voErrVodStartStream, VOD_ERR_NO_DBLADE_CLIENT);
        _dbladeIncrCopyRunning = false;
        return VOD_ERR_NO_DBLADE_CLIENT;
    }
    if (_opSinkRecs.empty()) {
        VO_TR(vo_incrcopy, vo_warn, "opid=%lld no mirror streams defined\n", opid);
        setErr(voErrVodStartStream, VOD_ERR_INTERNAL);
        _dbladeIncrCopyRunning = false;
        return VOD_ERR_INTERNAL;
    }
    std::vector<u_short> dids;
    std::vector<u_int> vids;
    std::vector<std::array<u_char, sizeof(lpUuid_t)>> lids;
    for (const auto& r : _opSinkRecs) {
        if (r->getErrCode() != 0) break;
        dids.push_back(r->getDid());
        vids.push_back(r->vid());
        lids.emplace_back();
        memcpy(lids.back().data(), r->lid(), sizeof(lpUuid_t));
    }
    VO_TR(vo_incrcopy, vo_audit, "opid=%lld attempt to mirror op src %d to %d sinks\n", opid,
          _opSrcRec.vid(), static_cast<int>(vids.size()));
    unsigned rc = VOD_ERR_NOTHING_ELIGIBLE;
    if (!vids.empty()) {
        IncrCopyMirrorIn in;
        memset(&in, 0, sizeof in);
        in.opId = _opid;
        in.opType = kIncrCopyOpTypeMirror;
        in.srcVfsId = _opSrcRec.vid();
        memcpy(in.srcLpUuid, _srcRec.lid(), sizeof in.srcLpUuid);
        in.numDests = static_cast<u_int>(vids.size());
        in.dstBladeId.dstBladeId_len = in.numDests;
        in.dstBladeId.dstBladeId_val = dids.data();
        in.dstVfsId.dstVfsId_len = in.numDests;
        in.dstVfsId.dstVfsId_val = vids.data();
        in.dstLpUuid.dstLpUuid_len = in.numDests;
        // Each element is 16 plain bytes, laid out as the wire type's array.
        in.dstLpUuid.dstLpUuid_val = reinterpret_cast<lpUuid_t*>(lids.data());
        VO_TR(vo_incrcopy, vo_entry, "opid=%lld incrcopymirror_1\n", opid);
        u_int status = 0;
        clnt_stat st = incrcopymirror_1(&in, &status, clntSrcDbladeIncrCopy);
        if (st != RPC_SUCCESS) {
            VO_TR(vo_incrcopy, vo_warn, "opid=%lld incrcopymirror_1 failed: %s\n", opid,
                  clnt_sperrno(st));
            setErr(voErrDbladeIncrCopyMirrorRpc, st);
            rc = voErrDbladeIncrCopyMirrorRpc;
        } else if (status != 0) {
            VO_TR(vo_incrcopy, vo_warn, "opid=%lld incrcopymirror_1 err=%#X\n", opid, status);
            setErr(voErrDbladeIncrCopyMirror, status);
            rc = voErrDbladeIncrCopyMirror;
        } else {
            VO_TR(vo_incrcopy, vo_audit, "opid=%lld incrcopymirror_1 succeeded\n", opid);
            rc = 0;
        }
    }
    getLock();
    sizeProgress();
    releaseLock();
    if (rc == 0) return 0;
    _dbladeIncrCopyRunning = false;
    if (rc == VOD_ERR_NOTHING_ELIGIBLE && _opSinkRecs[0]->getErrCode() == VOD_ERR_LOCAL_MIRROR) {
        // Deliberately no error: the op src itself becomes the mirror on
        // the source's LP, and the worker goes straight to the conclusion.
        VO_TR(vo_vod, vo_audit,
              "opid=%lld hack to convert op src to mirror while there is no other valid mirror "
              "stream\n",
              opid);
        _pgrs.src.status = VoDone;
        _rollForward = true;
        return VOD_ERR_LOCAL_MIRROR;
    }
    if (rc == VOD_ERR_NOTHING_ELIGIBLE) {
        VO_TR(vo_vod, vo_warn, "opid=%lld there is no valid mirror stream\n", opid);
        setErr(voErrVodStartStream, VOD_ERR_NOTHING_ELIGIBLE);
    }
    return rc;
}

// ---- Watching the stream. ----

unsigned VoMirrorState::progress(CLIENT* clntSrcDbladeIncrCopy) {
    VoTrace::Depth depth;
    const long long opid = static_cast<long long>(_opid);
    VoXdrResult<IncrCopyProgressOut> res(xdr_IncrCopyProgressOut);
    if (unsigned r = pollStream(clntSrcDbladeIncrCopy, _pgrs, res)) {
        if (r == voErrDbladeIncrCopyProgress && res->rc == VIC_EOPNOTFOUND)
            opNotFoundWithDblade = true;
        return r;
    }
    const IncrCopyPgrsOut& p = res->IncrCopyProgressOut_u.out;
    if (_pgrs.sinks.sinks_val == nullptr) {
        VO_TR(vo_incrcopy, vo_warn, "opid=%lld _pgrs.sinks.sinks_val=0\n", opid);
    } else {
        if (_pgrs.numSinks != _opSinkRecs.size())
            VO_TR(vo_incrcopy, vo_warn, "opid=%lld _pgrs.numSinks=%d != _opSinkRecs.size()=%d\n",
                  opid, _pgrs.numSinks, static_cast<int>(_opSinkRecs.size()));
        u_int n = p.dstProgress.dstProgress_len;
        if (n > _pgrs.sinks.sinks_len) {
            VO_TR(vo_incrcopy, vo_warn, "opid=%lld IncrCopy has %d streams but we expect %d!!\n",
                  opid, n, _pgrs.sinks.sinks_len);
            VO_TR_RAW(vo_incrcopy, vo_warn, "Ignored extra streams\n");
            n = _pgrs.sinks.sinks_len;
        }
        // The D-blade answers in the order of the request: the eligible
        // streams, which stand first in the list and in _pgrs.sinks.
        for (u_int i = 0; i < n; i++) {
            sinkProgressOf(p.dstProgress.dstProgress_val[i], &_pgrs.sinks.sinks_val[i]);
        }
    }
    if (_pgrs.src.status == VoDone) {
        _dbladeIncrCopyRunning = false;
        if (_pgrs.src.completionCode != 0) _rollForward = false;
    }
    return 0;
}

unsigned VoMirrorState::progress(CLIENT* clntSrcDbladeIncrCopy, VoMirrorPgrsOut* out) {
    VoTrace::Depth depth;
    const long long opid = static_cast<long long>(_opid);
    unsigned r = 0;
    if (getDbladeIncrCopyStatus()) r = progress(clntSrcDbladeIncrCopy);
    if (out->sinks.sinks_val != nullptr) {
        VO_TR(vo_vod, vo_warn, "opid=%lld pgrs->sinks.sinks_val=%p\n", opid,
              static_cast<void*>(out->sinks.sinks_val));
        VO_TR_RAW(vo_vod, vo_warn, "This non-NULL pointer will be over-written\n");
    }
    *out = _pgrs;
    out->voOpid = _opid;
    out->sinks.sinks_val = nullptr;
    out->sinks.sinks_len = 0;
    if (_pgrs.sinks.sinks_len != 0) {
        out->sinks.sinks_val =
            static_cast<VoSinkPgrs*>(malloc(_pgrs.sinks.sinks_len * sizeof(VoSinkPgrs)));
        if (out->sinks.sinks_val == nullptr) {
            VO_TR(vo_vod, vo_warn, "opid=%lld no mem for %d sinks inside pgrsVo\n", opid,
                  _pgrs.sinks.sinks_len);
            out->numSinks = 0;
        } else {
            memcpy(out->sinks.sinks_val, _pgrs.sinks.sinks_val,
                   _pgrs.sinks.sinks_len * sizeof(VoSinkPgrs));
            out->sinks.sinks_len = _pgrs.sinks.sinks_len;
        }
    }
    if (getDbladeIncrCopyStatus()) {
        if (r == voErrRpcFailure) {
            setHiLvlErr(voErrRpcFailure);
            getErr(&out->rc, &out->func, &out->funcrc);
        }
        return r;
    }
    if (r == voErrRpcFailure || r == voErrDbladeIncrCopyProgress ||
        (!retiredFromVodb() && !forceRetireFromVodb())) {
        out->rc = retiredFromVodb() ? voErrEndStream
                                    : (_rollForward ? voErrRollForwardOp : voErrRollBackOp);
        if (r == voErrDbladeIncrCopyProgress) out->rc = voErrEndStream;
        out->func = voErrFuncSuccess;
        out->funcrc = 0;
        VO_TR(vo_vod, vo_audit, "opid=%lld vod is concluding this op\n", opid);
        return r;
    }
    getErr(&out->rc, &out->func, &out->funcrc);
    setMgmtGotLastProgress();
    setRetainOpAfterLastProgress();
    VO_TR(vo_vod, vo_audit, "opid=%lld report last progress to mgmt\n", opid);
    return 0;
}

void VoMirrorState::cancel(CLIENT* clntSrcDbladeIncrCopy, const unsigned char* lid, VoOut* out) {
    VoTrace::Depth depth;
    if (clntSrcDbladeIncrCopy == nullptr) {
        VO_TR(vo_incrcopy, vo_warn, "clntSrcDbladeIncrCopy=0\n");
        *out = VoOut{voErrNoResource, voErrVodSanityCheck, VOD_ERR_NO_DBLADE_CLIENT};
        return;
    }
    const bool all = memcmp(lid, kLidZero, 16) == 0;
    bool matched = false;
    *out = VoOut{voErrRcSuccess, voErrFuncSuccess, 0};
    for (const auto& r : _opSinkRecs) {
        if (r->getErrCode() != 0) break;
        if (!all && memcmp(r->lid(), lid, 16) != 0) continue;
        matched = true;
        IncrCopyCancelIn in;
        memset(&in, 0, sizeof in);
        in.opId = _opid;
        in.dstVfsId = r->vid();
        memcpy(in.dstLpUuid, r->lid(), sizeof in.dstLpUuid);
        VO_TR(vo_incrcopy, vo_entry, "incrcopycancel_1 opid=%lld opSinkVfsId=%d\n", _opid,
              r->vid());
        u_int status = 0;
        clnt_stat st = incrcopycancel_1(&in, &status, clntSrcDbladeIncrCopy);
        if (st != RPC_SUCCESS) {
            VO_TR(vo_incrcopy, vo_warn, "incrcopycancel_1 opsinkId=%d failed: %s\n", r->vid(),
                  clnt_sperrno(st));
            *out = VoOut{voErrRpcFailure, voErrDbladeIncrCopyCancelRpc, static_cast<u_int>(st)};
            return;
        }
        if (status != 0) {
            VO_TR(vo_incrcopy, vo_warn, "incrcopycancel_1 opsinkId=%d err=%#X\n", r->vid(), status);
            *out = VoOut{VoErrDblade, voErrDbladeIncrCopyCancel, status};
        }
    }
    if (!matched) *out = VoOut{voErrNoSuchOp, voErrVodCancel, VOD_ERR_NOTHING_ELIGIBLE};
}

// ---- Conclusion. ----

unsigned VoMirrorState::conclude(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol,
                                 CLIENT* clntSrcDbladeIncrCopy) {
    VoTrace::Depth depth;
    if (unsigned r = missingClient(VO_SITE, voErrVodConclude, clntVldb, clntSrcDbladeVol,
                                   clntSrcDbladeIncrCopy))
        return r;
    const long long opid = static_cast<long long>(_opid);
    VO_TR(vo_vod, vo_audit, "opid=%lld _rollForward=%d _opSinkRecs.size=%d\n", opid,
          int(_rollForward), static_cast<int>(_opSinkRecs.size()));
    unsigned failed = 0;
    for (size_t i = 0; i < _opSinkRecs.size(); i++) {
        VoRec* r = _opSinkRecs[i].get();
        const unsigned code = r->getErrCode();
        if (code == VOD_ERR_LOCAL_MIRROR) {
            VO_TR(vo_vod, vo_audit, "opid=%lld convert op src to sink at the end\n", opid);
            continue;
        }
        if (code != 0 && r->vid() == 0) {
            VO_TR(vo_vod, vo_audit, "op=%lld skip recovery sink LP=" VO_LP_FMT " code=%d\n", opid,
                  VO_LP_ARGS(r->lid()), code);
            continue;
        }
        VO_TR(vo_sinkvol, vo_debug, "opid=%lld call mkDbladeClient\n", opid);
        VoRPCClient sinkVol;
        VoErr err = openDbladeOf(VO_SITE, clntVldb, r->lid(), &sinkVol, nullptr);
        if (err != 0) {
            if (failed == 0) failed = err;
            continue;
        }
        getLock();
        const VoSinkPgrs* p = i < _pgrs.sinks.sinks_len ? &_pgrs.sinks.sinks_val[i] : nullptr;
        const VoSinkPgrs sp = p != nullptr ? *p : VoSinkPgrs{};
        releaseLock();
        const bool forward = _rollForward && code == 0 && p != nullptr &&
                             (sp.completionCode == 0 || sp.completionCode == VIC_ESINKUPTODATE) &&
                             sp.isDone;
        if (forward) {
            VO_TR(vo_vod, vo_audit, "opid=%lld call rollForwardOpSink\n", opid);
            if (unsigned e = rollForwardOpSink(clntVldb, sinkVol, r)) {
                VO_TR(vo_vod, vo_warn, "opid=%lld got error from rollForwardOpSink()\n", opid);
                if (failed == 0) failed = e;
            }
            continue;
        }
        VO_TR(vo_vod, vo_audit, "opid=%lld rollForwardStream is FALSE\n", opid);
        if (!_rollForward)
            VO_TR_RAW(vo_vod, vo_audit, "_rollForward=%d expected TRUE\n", int(_rollForward));
        else if (code != 0)
            VO_TR_RAW(vo_vod, vo_audit, "(*ppOpSink)->getErrCode()=%d expected=0\n", code);
        else if (p == nullptr)
            VO_TR_RAW(vo_vod, vo_audit, "_pgrs.sinks.sinks_val=%p expected non-zero pointer\n",
                      static_cast<void*>(_pgrs.sinks.sinks_val));
        else if (sp.completionCode != 0 && sp.completionCode != VIC_ESINKUPTODATE)
            VO_TR_RAW(vo_vod, vo_audit,
                      "_pgrs.sinks.sinks_val[%u].completionCode=%d expected=0 or %d\n",
                      static_cast<unsigned>(i), sp.completionCode, int(VIC_ESINKUPTODATE));
        else
            VO_TR_RAW(vo_vod, vo_audit, "_pgrs.sinks.sinks_val[%u].isDone=%d expected TRUE\n",
                      static_cast<unsigned>(i), sp.isDone);
        VO_TR(vo_vod, vo_audit, "opid=%lld call deleteOpSink\n", opid);
        if (unsigned e = deleteOpSink(clntVldb, sinkVol, r)) {
            VO_TR(vo_vod, vo_warn, "opid=%lld got error from deleteOpSink()\n", opid);
            if (failed == 0) failed = e;
        }
    }
    // The op src is settled only once every stream is: recovery reads the
    // version the streams were to reach from it, and takes its absence for
    // an operation that had finished.
    if (failed == 0) failed = settleOpSrc(clntVldb, clntSrcDbladeVol);

    // With a step unfinished the records stay, so that recovery repeats it.
    if (failed != 0 && !forceRetireFromVodb()) setHiLvlErr(voErrRollBackOp);
    return finishRecords(failed, clntVldb);
}

unsigned VoMirrorState::settleOpSrc(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol) {
    const long long opid = static_cast<long long>(_opid);
    const bool onlyLocal = isItOnlyALocalMirror();
    const bool anyRemote = checkIfAnyRemoteMirrorSucceeded();
    VO_TR_RAW(vo_vod, vo_audit, "IsItOnlyALocalMirror = %d\n", int(onlyLocal));
    VO_TR_RAW(vo_vod, vo_audit, "CheckIfAnyRemoteMirrorSucceeded = %d\n", int(anyRemote));
    VoRec* local = localMirror();
    if (local != nullptr) {
        if (_rollForward && (onlyLocal || anyRemote)) {
            if (local->vid() != _opSrcRec.vid()) {
                VO_TR(vo_vod, vo_warn,
                      "opid=%lld _opSrcRec%d and *ppLocalMirror%d refer to differnet VFS\n", opid,
                      _opSrcRec.vid(), local->vid());
                setErr(voErrVodConclude, VOD_ERR_INTERNAL);
                return VOD_ERR_INTERNAL;
            }
            VO_TR(vo_vod, vo_audit, "opid=%lld call rollForwardOpSink\n", opid);
            return rollForwardOpSink(clntVldb, clntSrcDbladeVol, local);
        }
        // Failed on purpose: a local mirror must not stay the one copy that
        // is up to date while every remote one failed.
        VO_TR(vo_vod, vo_audit, "opid=%lld failing the local mirror deleting op src.\n", opid);
        setCompletionCodeForSink(local, VOD_ERR_LOCAL_MIRROR_FAILED);
        local->setErrCode(VOD_ERR_LOCAL_MIRROR_FAILED);
        unsigned e = deleteOpSrc(clntVldb, clntSrcDbladeVol);
        if (e != 0) VO_TR(vo_vod, vo_warn, "opid=%lld got error from deleteOpSrc()\n", opid);
        return e;
    }
    VO_TR(vo_vod, vo_audit, "opid=%lld no longer need op src.\n", opid);
    VO_TR(vo_vod, vo_audit, "opid=%lld call deleteOpSrc\n", opid);
    return deleteOpSrc(clntVldb, clntSrcDbladeVol);
}

unsigned VoMirrorState::rollForwardOpSink(CLIENT* clntVldb, CLIENT* clntSinkDbladeVol,
                                          VoRec* opSink) {
    VoTrace::Depth depth;
    const long long opid = static_cast<long long>(_opid);
    const unsigned mirror = _sinkRec.vid();
    VO_TR(vo_sinkvol, vo_entry, "opid=%lld dbladeVfsGetAttrs vfsid=%d\n", opid, mirror);
    VoXdrResult<VolGetattrOut_t> old(xdr_VolGetattrOut_t);
    unsigned status = 0;
    unsigned rc = getAttrs(clntSinkDbladeVol, mirror, opSink->lid(), old, &status);
    if (rc != 0) {
        VO_TR(vo_sinkvol, vo_warn, "opid=%lld dbladeVfsGetAttrs vfsid=%d failed: %s\n", opid,
              mirror, rpcErrText(rc));
        VoErr e = VoRpcCalls::foldErr(voErrDbladeVolGetAttr, static_cast<clnt_stat>(rc), 0);
        setAllErr(e);
        return e;
    }
    bool isFirstMirror = false;
    if (status == 0) {
        VO_TR(vo_sinkvol, vo_debug, "opid=%lld cached old mirror attr in gaOut.gaOut[0]\n", opid);
    } else if (noSuchVolume(status)) {
        VO_TR(vo_sinkvol, vo_debug, "opid=%lld no old mirror\n", opid);
        isFirstMirror = true;
    } else if (status == kTarnErrHidden) {
        // Something half made holds the id: this stream cannot be committed.
        VO_TR(vo_sinkvol, vo_warn,
              "opid=%lld call deleteOpSink (vfsid=%u) due to the presence of a hidden volume\n",
              opid, opSink->vid());
        unsigned e = deleteOpSink(clntVldb, clntSinkDbladeVol, opSink);
        setCompletionCodeForSink(opSink, status);
        return e;
    } else {
        VO_TR(vo_sinkvol, vo_warn, "opid=%lld dbladeVfsGetAttrs vfsid=%d err=%#X\n", opid, mirror,
              status);
        setErr(voErrDbladeVolGetAttr, status);
        return voErrDbladeVolGetAttr;
    }

    VO_TR(vo_vod, vo_audit, "opid=%lld call adjustVid\n", opid);
    if (unsigned e = adjustVid(clntSinkDbladeVol, opSink, isFirstMirror, 2)) {
        VO_TR(vo_vod, vo_warn, "opid=%lld got error from adjustVid() err=%d\n", opid, e);
        return e;
    }
    VO_TR(vo_vod, vo_audit, "opid=%lld call adjustAttrVLDB\n", opid);
    if (unsigned e = adjustAttrVLDB(clntVldb, clntSinkDbladeVol, opSink, isFirstMirror, 1)) {
        VO_TR(vo_vod, vo_warn, "opid=%lld got error from adjustAttrVLDB() err=%d\n", opid, e);
        return e;
    }
    // After the swap the op sink's id holds the old mirror: it steps aside
    // for good. Readers had the old mirror until the swap and have the new
    // one from then on; nothing needs it any more.
    if (!isFirstMirror) {
        VoErr e = dbladeDeleteVfs(clntSinkDbladeVol, opSink->vid(), opSink->lid());
        if (e != 0 && !(e.func() == voErrDbladeVolDelete && unsigned(e) == TARN_ERR_LPMMISMATCH)) {
            VO_TR(vo_sinkvol, vo_warn,
                  "opid=%lld dbladeDeleteVfs vfsid=%d LP=" VO_LP_FMT " err.func=%d err.funcrc=%d\n",
                  opid, opSink->vid(), VO_LP_ARGS(opSink->lid()), e.func(), e.funcrc());
            setAllErr(e);
            return e;
        }
    }
    // The local mirror's op sink is the op src, whose record is the clone's.
    VO_TR(vo_vldb, vo_audit, "opid=%lld call vldbDeleteRecord\n", opid);
    VoErr e = vldbDeleteRecord(clntVldb, opSink->vid(), opSink->lid());
    if (e != 0) {
        VO_TR(vo_vldb, vo_warn,
              "opid=%lld vldbDeleteRecord vfsid=%d LP=" VO_LP_FMT " err.func=%d err.funcrc=%d\n",
              opid, opSink->vid(), VO_LP_ARGS(opSink->lid()), e.func(), e.funcrc());
        setAllErr(e);
        return e;
    }
    return 0;
}

unsigned VoMirrorState::adjustVid(CLIENT* clntSinkDbladeVol, VoRec* opSink, bool isFirstMirror,
                                  int startAt) {
    VoTrace::Depth depth;
    const long long opid = static_cast<long long>(_opid);
    if (opSink == nullptr) {
        VO_TR(vo_vod, vo_warn, "pOpSink=0\n");
        setErr(voErrVodMirrorAdjustvid, VOD_ERR_INTERNAL);
        return VOD_ERR_INTERNAL;
    }
    VO_TR(vo_vod, vo_audit, "opid=%lld isFirstMirror=%d startAt=%d\n", opid, int(isFirstMirror),
          startAt);
    const unsigned mirror = _sinkRec.vid();
    const unsigned sink = opSink->vid();
    const unsigned temp = _tempRec.vid();
    const unsigned char* lid = opSink->lid();

    // Traced as adjustVid's own lines, not the lambda's.
    const VoTraceSite site = VO_SITE;
    auto renumber = [&](unsigned from, unsigned to) -> unsigned {
        VO_TR_AT(site, VoTrace::vo_sinkvol, VoTrace::vo_audit,
                 "opid=%lld dbladeVfsSetAttrs vfsid=%d->%d\n", opid, from, to);
        VolSetattrIn in;
        memset(&in, 0, sizeof in);
        in.set_attrs.how = VOLSET_VOLUMEID;
        in.set_attrs.attrs.volumeId = to;
        unsigned status = 0;
        unsigned rc = setAttrs(clntSinkDbladeVol, from, lid, in, &status);
        if (rc != 0) {
            VO_TR_AT(site, VoTrace::vo_sinkvol, VoTrace::vo_warn,
                     "opid=%lld dbladeVfsSetAttrs vfsid=%d->%d failed:%s\n", opid, from, to,
                     rpcErrText(rc));
            VoErr e = VoRpcCalls::foldErr(voErrDbladeVolSetAttr, static_cast<clnt_stat>(rc), 0);
            setAllErr(e);
            return e;
        }
        if (status != 0) {
            VO_TR_AT(site, VoTrace::vo_sinkvol, VoTrace::vo_warn,
                     "opid=%lld dbladeVfsSetAttrs vfsid=%d->%d err=%#X\n", opid, from, to, status);
            setErr(voErrDbladeVolSetAttr, status);
            return voErrDbladeVolSetAttr;
        }
        return 0;
    };

    if (isFirstMirror) return renumber(sink, mirror);

    switch (startAt) {
        case 2: {
            VO_TR(vo_sinkvol, vo_audit,
                  "opid=%lld swapVolId %d<=>%d using temp=%d at LP=" VO_LP_FMT " \n", opid, mirror,
                  sink, temp, VO_LP_ARGS(lid));
            VolSwapVolIdIn in;
            memset(&in, 0, sizeof in);
            in.vfsID1 = mirror;
            memcpy(in.lpUUID1, lid, sizeof in.lpUUID1);
            in.vfsID2 = sink;
            memcpy(in.lpUUID2, lid, sizeof in.lpUUID2);
            in.vfsIDTemp = temp;
            VoXdrResult<VolSwapVolIdOut_t> out(xdr_VolSwapVolIdOut_t);
            unsigned rc = VoRpcCalls::swapVolId(&in, out.get(), clntSinkDbladeVol, kSwapTimeoutSec);
            if (rc != 0) {
                VO_TR(vo_sinkvol, vo_warn,
                      "opid=%lld swapVolId %d<=>%d using temp=%d at LP=" VO_LP_FMT " failed: %s\n",
                      opid, mirror, sink, temp, VO_LP_ARGS(lid), rpcErrText(rc));
                VoErr e =
                    VoRpcCalls::foldErr(voErrDbladeVolSwapVolId, static_cast<clnt_stat>(rc), 0);
                setAllErr(e);
                return e;
            }
            if (out->returnCode != 0) {
                VO_TR(vo_sinkvol, vo_warn,
                      "opid=%lld swapVolId %d<=>%d using temp=%d at LP=" VO_LP_FMT " err=%#X\n",
                      opid, mirror, sink, temp, VO_LP_ARGS(lid), out->returnCode);
                setErr(voErrDbladeVolSwapVolId, out->returnCode);
                return voErrDbladeVolSwapVolId;
            }
            return 0;
        }
        case 3:
            if (unsigned e = renumber(sink, mirror)) return e;
            return renumber(temp, sink);
        case 4:
            return renumber(temp, sink);
        default:
            VO_TR(vo_vod, vo_warn, "opid=%lld invalid argument startAt=%d\n", opid, startAt);
            setErr(voErrVodMirrorAdjustvid, VOD_ERR_INTERNAL);
            return VOD_ERR_INTERNAL;
    }
}

unsigned VoMirrorState::adjustAttrVLDB(CLIENT* clntVldb, CLIENT* clntSinkDbladeVol, VoRec* opSink,
                                       bool, int) {
    VoTrace::Depth depth;
    const long long opid = static_cast<long long>(_opid);
    const unsigned mirror = _sinkRec.vid();
    const unsigned char* lid = opSink->lid();
    VO_TR(vo_sinkvol, vo_debug, "opid=%lld get the attributes of the new mirror\n", opid);
    VoXdrResult<VolGetattrOut_t> now_(xdr_VolGetattrOut_t);
    unsigned status = 0;
    unsigned rc = getAttrs(clntSinkDbladeVol, mirror, lid, now_, &status);
    VoErr err = dbladeOutcome(VO_SITE, VoTrace::vo_sinkvol, "dbladeVfsGetAttrs",
                              voErrDbladeVolGetAttr, _opid, mirror, rc, status);
    if (err != 0) {
        setAllErr(err);
        return err;
    }
    const unsigned long long dver = now_->return_volattrs.dataVersion;
    VO_TR(vo_sinkvol, vo_debug, "opid=%lld cache new mirror attr in gaOut.gaOut[%d] dataVer=%lld\n",
          opid, 1, static_cast<long long>(dver));

    VO_TR(vo_vldb, vo_entry, "opid=%lld vldb_record_lookup_3 vfsid=%d\n", opid, mirror);
    VoXdrResult<vldb_record_lookup_result> found(xdr_vldb_record_lookup_result);
    clnt_stat st = lookupVfs(clntVldb, mirror, lid, found.get());
    if (st != RPC_SUCCESS) {
        setErr(voErrVldbRecordLookupRpc, st);
        return voErrVldbRecordLookupRpc;
    }
    if (found->result != 0 || found->r.r_len != 1) {
        if (found->r.r_len == 0)
            VO_TR(vo_vldb, vo_warn, "opid=%lld no VLDB record for vfsid=%d LP=" VO_LP_FMT "\n",
                  opid, mirror, VO_LP_ARGS(lid));
        else
            VO_TR(vo_vldb, vo_warn, "opid=%lld expect one VLDB record for vfsid=%d. Got %d!\n",
                  opid, mirror, found->r.r_len);
        setErr(voErrVldbRecordLookup, found->result != 0
                                          ? static_cast<unsigned>(found->result)
                                          : static_cast<unsigned>(VLDB_RECORD_NOT_FOUND));
        return voErrVldbRecordLookup;
    }
    VO_TR(vo_vldb, vo_debug, "opid=%lld vldb_record_lookup_3 returns one VLDB rec\n", opid);
    const Rec& rec = found->r.r_val[0];

    // The mirror on the D-blade carries the name its VLDB record gives it,
    // and is read-only whatever it was made as.
    std::string name = rec.vfsname != nullptr ? rec.vfsname : "";
    if (name.size() > static_cast<size_t>(VoRec::VNAME_MAX)) {
        VO_TR(vo_sinkvol, vo_warn,
              "opid=%lld volname length is too long (%d) Truncate it for now\n", opid,
              static_cast<int>(name.size()));
        name.resize(VoRec::VNAME_MAX);
    }
    VO_TR(vo_sinkvol, vo_audit, "opid=%lld dbladeVfsSetAttrs vfsid=%d\n", opid, mirror);
    {
        VolSetattrIn in;
        memset(&in, 0, sizeof in);
        in.set_attrs.how = VOLSET_MAKE_RO | (name.empty() ? 0u : VOLSET_VOLNAME);
        in.set_attrs.attrs.volname = &name[0];
        rc = setAttrs(clntSinkDbladeVol, mirror, lid, in, &status);
        if (rc != 0 || status != 0) {
            if (rc != 0)
                VO_TR(vo_sinkvol, vo_warn,
                      "opid=%lld dbladeVfsSetAttrs vfsid=%d LP=" VO_LP_FMT " failed: %s\n", opid,
                      mirror, VO_LP_ARGS(lid), rpcErrText(rc));
            else
                VO_TR(vo_sinkvol, vo_warn,
                      "opid=%lld dbladeVfsSetAttrs vfsid=%d LP=" VO_LP_FMT " err=%#X\n", opid,
                      mirror, VO_LP_ARGS(lid), status);
            VoErr e =
                VoRpcCalls::foldErr(voErrDbladeVolSetAttr, static_cast<clnt_stat>(rc), status);
            setAllErr(e);
            return e;
        }
    }

    vldb_record_modify_input in;
    memset(&in, 0, sizeof in);
    in.input_mask = VFS_DATAVER | VFS_RW_FLAG;
    in.vfsid = mirror;
    memcpy(in.lp_uuid, lid, sizeof in.lp_uuid);
    in.newrec = rec;
    in.newrec.dataVer = dver;
    in.newrec.vfstype = RO_VFS;
    VO_TR(vo_vldb, vo_entry, "opid=%lld vldb_record_modify_3 vfsid=%d \n", opid, mirror);
    int vstatus = 0;
    st = vldb_record_modify_3(&in, &vstatus, clntVldb);
    if (st != RPC_SUCCESS) {
        VO_TR(vo_vldb, vo_warn,
              "opid=%lld vldb_record_modify_3 vfsid=%d LP=" VO_LP_FMT " failed: %s\n", opid, mirror,
              VO_LP_ARGS(lid), clnt_sperrno(st));
        setErr(voErrVldbRecordModifyRpc, st);
        return voErrVldbRecordModifyRpc;
    }
    if (vstatus != 0) {
        VO_TR(vo_vldb, vo_warn, "opid=%lld vldb_record_modify_3 vfsid=%d LP=" VO_LP_FMT " err %s\n",
              opid, mirror, VO_LP_ARGS(lid), statLit(vstatus));
        setErr(voErrVldbRecordModify, static_cast<unsigned>(vstatus));
        return voErrVldbRecordModify;
    }
    return 0;
}

unsigned VoMirrorState::deleteOpSink(CLIENT* clntVldb, CLIENT* clntSinkDbladeVol, VoRec* opSink) {
    VoTrace::Depth depth;
    return deleteVolume(VO_SITE, VoTrace::vo_sinkvol, clntVldb, clntSinkDbladeVol, *opSink,
                        VolDeleteWording::copySink);
}

unsigned VoMirrorState::deleteOpSrc(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol) {
    VoTrace::Depth depth;
    // A read-only source is its own op src: it is never deleted.
    if (_opSrcRec.vid() == 0 || _opSrcRec.vid() == _srcRec.vid()) return 0;
    return deleteVolume(VO_SITE, VoTrace::vo_srcvol, clntVldb, clntSrcDbladeVol, _opSrcRec,
                        VolDeleteWording::copyOpSrc);
}

// ---- After a crash. ----

unsigned VoMirrorState::resurrectFromVoRec(unsigned long long opid, CLIENT*) {
    VoTrace::Depth depth;
    _opid = opid;
    VO_TR(vo_vod, vo_audit, "resurrect MIRROR _opid = %lld\n", opid);
    std::optional<VodbCacheLock> cacheLock;
    if (!VodbCacheLock::heldByThisThread()) cacheLock.emplace();
    const auto& cache = VodbCacheLock::getVodbCache();
    VO_TR(vo_vod, vo_debug, "_vodbCache.size = %#X\n", static_cast<unsigned>(cache.size()));
    for (const VoRec* r : cache) {
        if (r->opid() != opid) continue;
        VO_TR(vo_vod, vo_audit, "opid=%lld, vfs %d, role %d\n", opid, r->vid(),
              static_cast<int>(r->role()));
        if (r->opType() != VoRec::VODB_VOLOP_MIRROR) {
            VO_TR(vo_vod, vo_warn, "opid=%lld is found but opType is %d\n", opid,
                  static_cast<int>(r->opType()));
            setErr(voErrVodCrashRecovery, VOD_ERR_INTERNAL);
            return VOD_ERR_INTERNAL;
        }
        switch (r->role()) {
            case VoRec::VODB_ROLE_SRC:
                _srcRec = *r;
                break;
            case VoRec::VODB_ROLE_OPSRC:
                _opSrcRec = *r;
                break;
            case VoRec::VODB_ROLE_TEMP:
                _tempRec = *r;
                break;
            case VoRec::VODB_ROLE_SINK:
                // One per LP: the mirror id is what matters.
                if (_sinkRec.vid() == 0) _sinkRec = *r;
                break;
            case VoRec::VODB_ROLE_OPSINK: {
                std::unique_ptr<VoRec> p(new (std::nothrow) VoRec(*r));
                if (!p) {
                    VO_TR(vo_vod, vo_warn, "no mem\n");
                    setErr(voErrVodAllocVoRec, VOD_ERR_NO_MEMORY);
                    return VOD_ERR_NO_MEMORY;
                }
                _opSinkRecs.push_back(std::move(p));
                break;
            }
            default:
                VO_TR(vo_vod, vo_warn, "opid=%lld has a VODB rec with an unexpected role %d\n",
                      opid, static_cast<int>(r->role()));
                setErr(voErrVodCrashRecovery, VOD_ERR_INTERNAL);
                return VOD_ERR_INTERNAL;
        }
    }
    if (_opSinkRecs.empty()) {
        VO_TR(vo_vod, vo_warn, "opid=%lld no op sink is found\n", opid);
        setErr(voErrVodCrashRecovery, VOD_ERR_INTERNAL);
        return VOD_ERR_INTERNAL;
    }
    // The local mirror's op sink is the op src itself.
    for (auto& r : _opSinkRecs)
        if (r->vid() == _opSrcRec.vid() && memcmp(r->lid(), _srcRec.lid(), 16) == 0)
            r->setErrCode(VOD_ERR_LOCAL_MIRROR);
    std::stable_partition(_opSinkRecs.begin(), _opSinkRecs.end(),
                          [](const std::unique_ptr<VoRec>& r) { return r->getErrCode() == 0; });
    sizeProgress();
    // Nothing is settled until recovery says so (markRecovered).
    for (u_int i = 0; i < _pgrs.sinks.sinks_len; i++) _pgrs.sinks.sinks_val[i].isDone = 0;
    _vodbRecordStored = true;
    return 0;
}

unsigned VoMirrorState::recoverFromCrash(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol,
                                         CLIENT* clntSrcDbladeIncrCopy) {
    VoTrace::Depth depth;
    unsigned over = 0;
    if (recoveryIsOver(VO_SITE, "Mirror", clntVldb, clntSrcDbladeVol, clntSrcDbladeIncrCopy, &over))
        return over;
    const long long opid = static_cast<long long>(_opid);

    // The version every stream was to reach: the op src's. Its VLDB record
    // has the source's version as read before the clone, which a writer may
    // have passed by the time of the clone; the D-blade has the clone's own,
    // under the op src's id until a local mirror's swap gives the op src the
    // mirror id and the op src's id the old local mirror. No record at all:
    // the operation had finished.
    VO_TR(vo_vod, vo_audit, "opid=%lld call getDataVerFromVLDB for op src vfs\n", opid);
    unsigned long long target = 0;
    int isExist = 0;
    VoErr err = getDataVerFromVLDB(clntVldb, _opSrcRec.vid(), _opSrcRec.lid(), &isExist, &target);
    if (err != 0) {
        VO_TR(vo_vod, vo_warn,
              "opid=%lld getDataVerFromVLDB vfsid=%d LP=" VO_LP_FMT " err.func=%d err.funcrc=%d\n",
              opid, _opSrcRec.vid(), VO_LP_ARGS(_opSrcRec.lid()), err.func(), err.funcrc());
        setAllErr(err);
        return err;
    }
    if (!isExist) {
        VO_TR(vo_vod, vo_audit, "opid=%lld no VLDB reord for op src%d! All done.\n", opid,
              _opSrcRec.vid());
        // Or vod died between making the op src's clone and registering it:
        // the clone is left without a record. A finished operation deleted
        // the clone before its record, so whatever the id holds now is that
        // orphan (the deletion takes a volume already gone as deleted).
        VO_TR(vo_vod, vo_audit, "opid=%lld call deleteOpSrc\n", opid);
        if (unsigned e = deleteOpSrc(clntVldb, clntSrcDbladeVol)) {
            VO_TR(vo_vod, vo_warn, "opid=%lld deleteOpSrc err=%d\n", opid, e);
            setErr(voErrVodCrashRecovery, e);
            return e;
        }
        VO_TR(vo_vod, vo_audit, "opid=%lld call deleteVodbRec\n", opid);
        err = deleteVodbRec(clntVldb);
        if (err != 0) {
            VO_TR(vo_vod, vo_warn, "opid=%lld deleteVodbRec err=%d\n", opid, unsigned(err));
            setAllErr(err);
        }
        return err;
    }
    // None of these volumes is ever ahead of the op src (an old mirror is an
    // older image of the same source), so the highest version is the op src's.
    auto raiseTo = [&](unsigned vid) {
        unsigned long long dv = 0;
        if (getDataVerFromDblade(clntSrcDbladeVol, vid, _opSrcRec.lid(), &dv) == 0 && dv > target)
            target = dv;
    };
    raiseTo(_opSrcRec.vid());
    for (auto& p : _opSinkRecs)
        if (p->getErrCode() == VOD_ERR_LOCAL_MIRROR) raiseTo(_sinkRec.vid());
    VO_TR(vo_vod, vo_audit, "opid=%lld VLDB rec of op src says its dVer=%lld\n", opid,
          static_cast<long long>(target));
    _opSrcRec.setDver(target);

    unsigned failed = 0;
    bool anyRemoteForward = false;
    VoRec* local = nullptr;
    for (auto& p : _opSinkRecs) {
        VoRec* r = p.get();
        if (r->getErrCode() == VOD_ERR_LOCAL_MIRROR) {
            VO_TR(vo_vod, vo_audit, "opid=%lld recover local mirror at the end of the loop\n",
                  opid);
            local = r;
            continue;
        }
        VO_TR(vo_sinkvol, vo_debug, "opid=%lld call mkDbladeClient\n", opid);
        VoRPCClient sinkVol;
        err = openDbladeOf(VO_SITE, clntVldb, r->lid(), &sinkVol, nullptr);
        if (err != 0) {
            if (failed == 0) failed = err;
            continue;
        }
        VO_TR(vo_vod, vo_audit, "opid=%lld call recoverOneMirrorFromCrash\n", opid);
        unsigned e = recoverOneMirrorFromCrash(clntVldb, sinkVol, r, target);
        if (e != 0) {
            VO_TR(vo_vod, vo_warn,
                  "opid=%lld recoverOneMirrorFromCrash() vfsid=%d at LP=" VO_LP_FMT " err=%d\n",
                  opid, r->vid(), VO_LP_ARGS(r->lid()), e);
            if (failed == 0) failed = e;
        } else {
            markRecovered(r);
            if (r->getErrCode() == 0) anyRemoteForward = true;
        }
    }

    // The local mirror goes forward only beside a remote one that did, or
    // alone; otherwise it is failed and the op src goes, as in conclusion.
    if (failed == 0) {
        const bool keepLocal = local != nullptr && (isItOnlyALocalMirror() || anyRemoteForward);
        VO_TR_RAW(vo_vod, vo_audit, "IsItOnlyALocalMirror = %d\n", int(isItOnlyALocalMirror()));
        VO_TR_RAW(vo_vod, vo_audit, "CheckIfAnyRemoteMirrorSucceeded = %d\n",
                  int(anyRemoteForward));
        if (keepLocal) {
            unsigned e = recoverOneMirrorFromCrash(clntVldb, clntSrcDbladeVol, local, target);
            if (e != 0)
                failed = e;
            else
                markRecovered(local);
        } else {
            if (local != nullptr) {
                VO_TR(vo_vod, vo_audit, "opid=%lld failing the local mirror deleting op src\n",
                      opid);
                local->setErrCode(VOD_ERR_LOCAL_MIRROR_FAILED);
            } else {
                VO_TR(vo_vod, vo_audit, "opid=%lld no longer need op src. Delete it\n", opid);
            }
            VO_TR(vo_vod, vo_audit, "opid=%lld call deleteOpSrc\n", opid);
            if (unsigned e = deleteOpSrc(clntVldb, clntSrcDbladeVol)) {
                VO_TR(vo_vod, vo_warn, "opid=%lld deleteOpSrc err=%d\n", opid, e);
                failed = e;
            } else if (local != nullptr) {
                markRecovered(local);
            }
        }
    }
    if (failed != 0) {
        VO_TR(vo_vod, vo_warn, "opid=%lld fail to recover Mirror\n", opid);
        setErr(voErrVodCrashRecovery, failed);
        return failed;
    }
    VO_TR(vo_vod, vo_audit, "opid=%lld call deleteVodbRec\n", opid);
    err = deleteVodbRec(clntVldb);
    if (err != 0) {
        VO_TR(vo_vod, vo_warn, "opid=%lld got error from deleteVodbRec()\n", opid);
        setAllErr(err);
        return err;
    }
    return 0;
}

// The states a stream can be found in, along the way its conclusion goes:
// a first mirror renumbers the op sink to the mirror id; an existing one
// swaps them through the temp id (mirror -> temp, op sink -> mirror, temp ->
// op sink), then the old mirror, left under the op sink's id, goes. After
// that the attributes and the VLDB record of the new mirror are set and the
// op sink's record goes. What the D-blade holds under the three ids on the
// LP tells how far it got; only an op sink at the target version may take
// the mirror id, so no reader is ever given a partial mirror.
unsigned VoMirrorState::determineRecoveryStrategy(CLIENT* clntVldb, CLIENT* clntSinkDbladeVol,
                                                  VoRec* opSink,
                                                  unsigned long long opSrcDataVersion,
                                                  int* isFirstMirror, unsigned* crashSubState) {
    VoTrace::Depth depth;
    const long long opid = static_cast<long long>(_opid);
    const unsigned char* lid = opSink->lid();
    const unsigned long long D = opSrcDataVersion;
    *crashSubState = 0;

    VO_TR(vo_vldb, vo_debug, "opid=%lld call getDataVerFromVLDB vfsid=%d at LP=" VO_LP_FMT "\n",
          opid, _sinkRec.vid(), VO_LP_ARGS(lid));
    int hasRec = 0;
    unsigned long long recDv = 0;
    VoErr err = getDataVerFromVLDB(clntVldb, _sinkRec.vid(), lid, &hasRec, &recDv);
    if (err != 0) {
        setAllErr(err);
        return err;
    }
    if (!hasRec) VO_TR(vo_vod, vo_audit, "opid=%lld sink VLDB rec does not exist\n", opid);
    *isFirstMirror = !hasRec || recDv == 0;

    // One volume id on the LP: present, its data version, hidden.
    struct Found {
        bool there = false;
        bool hidden = false;
        unsigned long long dv = 0;
    };
    const VoTraceSite site = VO_SITE;
    auto look = [&](unsigned vid, const char* what, Found* f) -> unsigned {
        VoXdrResult<VolGetattrOut_t> out(xdr_VolGetattrOut_t);
        unsigned status = 0;
        VO_TR_AT(site, VoTrace::vo_sinkvol, VoTrace::vo_entry,
                 "opid=%lld dbladeVfsGetAttrs %s vfsid=%d LP=" VO_LP_FMT "\n", opid, what, vid,
                 VO_LP_ARGS(lid));
        unsigned rc = getAttrs(clntSinkDbladeVol, vid, lid, out, &status);
        if (rc != 0) {
            VoErr e = VoRpcCalls::foldErr(voErrDbladeVolGetAttr, static_cast<clnt_stat>(rc), 0);
            setAllErr(e);
            return e;
        }
        if (noSuchVolume(status)) return 0;
        if (status == kTarnErrHidden) {
            f->there = f->hidden = true;
            return 0;
        }
        if (status != 0) {
            setErr(voErrDbladeVolGetAttr, status);
            return voErrDbladeVolGetAttr;
        }
        f->there = true;
        f->dv = out->return_volattrs.dataVersion;
        VO_TR_AT(site, VoTrace::vo_sinkvol, VoTrace::vo_debug,
                 "%s vfsid=%d LP=" VO_LP_FMT " dVer=%lld\n", what, vid, VO_LP_ARGS(lid),
                 static_cast<long long>(f->dv));
        return 0;
    };
    Found m, k, t;
    if (unsigned e = look(_sinkRec.vid(), "sink", &m)) return e;
    if (unsigned e = look(opSink->vid(), "op sink", &k)) return e;
    if (_tempRec.vid() != 0)
        if (unsigned e = look(_tempRec.vid(), "temp", &t)) return e;
    if (k.hidden) {
        // A half-made op sink is nobody's.
        VO_TR(vo_sinkvol, vo_audit,
              "opid=%lld call deleteOpSink (vfsid=%u) due to the presence of a hidden volume\n",
              opid, opSink->vid());
        VoErr e = dbladeDeleteVfs(clntSinkDbladeVol, opSink->vid(), lid);
        if (e != 0 && !(e.func() == voErrDbladeVolDelete && unsigned(e) == TARN_ERR_LPMMISMATCH)) {
            VO_TR(vo_sinkvol, vo_warn, "opid=%lld got error from dbladeDeleteVfs()\n", opid);
            setAllErr(e);
            return e;
        }
        k = Found();
    }

    if (t.there && !m.there) {
        // The swap moved the old mirror aside and stopped: the op sink takes
        // the id if it is complete, else the old mirror comes back.
        *isFirstMirror = 0;
        if (k.there && k.dv == D) {
            VO_TR(
                vo_vod, vo_audit,
                "opid=%lld no mirror! Must have failed in the middle of VolSwapID! Roll forward\n",
                opid);
            *crashSubState = 3;
        } else {
            *crashSubState = 8;  // put the old mirror back, then roll back
        }
        return 0;
    }
    if (t.there && m.there) {
        // The op sink has the mirror id; the old mirror still waits under the
        // temp id for the op sink's.
        *isFirstMirror = 0;
        VO_TR(vo_vod, vo_audit, "opid=%lld no op sink. Roll forward\n", opid);
        *crashSubState = 4;
        return 0;
    }
    if (m.there && !m.hidden && m.dv == D && (!k.there || k.dv != D || *isFirstMirror)) {
        // The mirror id already holds the new mirror.
        VO_TR(vo_vod, vo_audit, "opid=%lld sink vfs is the new mirror\n", opid);
        VO_TR(vo_vod, vo_audit,
              "opid=%lld failed to set attr and/or update VLDB record of the op sink before crash. "
              "Redo now.\n",
              opid);
        *crashSubState = 6;
        return 0;
    }
    if (k.there && k.dv == D) {
        VO_TR(vo_vod, vo_audit,
              "opid=%lld op sink vfs is at new data version. Sink vfs is at old data version. Roll "
              "forward\n",
              opid);
        *crashSubState = 2;
        return 0;
    }
    if (k.there) {
        VO_TR(vo_vod, vo_audit,
              "opid=%lld expect op sink dVer to be at %lld but dblade said it is at dVer = %lld\n"
              "Very weird. Roll back\n",
              opid, static_cast<long long>(D), static_cast<long long>(k.dv));
    } else {
        VO_TR(vo_vod, vo_audit, "opid=%lld no op sink nor sink. Roll back\n", opid);
    }
    *crashSubState = 1;
    return 0;
}

unsigned VoMirrorState::recoverOneMirrorFromCrash(CLIENT* clntVldb, CLIENT* clntSinkDbladeVol,
                                                  VoRec* opSink,
                                                  unsigned long long opSrcDataVersion) {
    VoTrace::Depth depth;
    const long long opid = static_cast<long long>(_opid);
    VO_TR(vo_vod, vo_audit, "opid=%lld call determineRecoveryStrategy\n", opid);
    int isFirst = 0;
    unsigned sub = 0;
    unsigned e = determineRecoveryStrategy(clntVldb, clntSinkDbladeVol, opSink, opSrcDataVersion,
                                           &isFirst, &sub);
    if (e != 0) {
        VO_TR(vo_vod, vo_warn,
              "opid=%lld Cannot determine recovery strategy vfsid=%d LP=" VO_LP_FMT " err=%d\n",
              opid, opSink->vid(), VO_LP_ARGS(opSink->lid()), e);
        return e;
    }
    VO_TR(vo_vod, vo_audit, "opid=%lld isFirstMirror=%d crashSubState=%d\n", opid, isFirst, sub);
    switch (sub) {
        case 1:
            // Rolled back: the op sink is only a copy, the mirror untouched.
            opSink->setErrCode(VOD_ERR_INTERNAL);
            return deleteOpSink(clntVldb, clntSinkDbladeVol, opSink);
        case 2:
            // Complete and not yet swapped: the conclusion from its start.
            return rollForwardOpSink(clntVldb, clntSinkDbladeVol, opSink);
        case 3:
        case 4:
            VO_TR(vo_vod, vo_audit, "opid=%lld call adjustVid\n", opid);
            if ((e = adjustVid(clntSinkDbladeVol, opSink, false, static_cast<int>(sub))) != 0) {
                VO_TR(vo_vod, vo_warn, "opid=%lld adjustVid err=%d\n", opid, e);
                return e;
            }
            [[fallthrough]];
        case 6: {
            VO_TR(vo_vod, vo_audit, "opid=%lld call adjustAttrVLDB\n", opid);
            if ((e = adjustAttrVLDB(clntVldb, clntSinkDbladeVol, opSink, isFirst != 0, 0)) != 0) {
                VO_TR(vo_vod, vo_warn, "opid=%lld adjustAttrVLDB err=%d\n", opid, e);
                return e;
            }
            // Whatever the op sink's id still holds is the old mirror or a
            // copy nobody needs; then its record goes.
            VoErr d = dbladeDeleteVfs(clntSinkDbladeVol, opSink->vid(), opSink->lid());
            if (d != 0 &&
                !(d.func() == voErrDbladeVolDelete && unsigned(d) == TARN_ERR_LPMMISMATCH)) {
                setAllErr(d);
                return d;
            }
            VO_TR(vo_vldb, vo_audit, "opid=%lld call vldbDeleteRecord\n", opid);
            d = vldbDeleteRecord(clntVldb, opSink->vid(), opSink->lid());
            if (d != 0) {
                VO_TR(vo_vldb, vo_warn,
                      "opid=%lld vldbDeleteRecord vfsid=%d LP=" VO_LP_FMT
                      " err.func=%d err.funcrc=%d\n",
                      opid, opSink->vid(), VO_LP_ARGS(opSink->lid()), d.func(), d.funcrc());
                setAllErr(d);
                return d;
            }
            return 0;
        }
        case 8: {
            // The old mirror goes back under its id before the op sink goes:
            // readers get back what they had.
            VolSetattrIn in;
            memset(&in, 0, sizeof in);
            in.set_attrs.how = VOLSET_VOLUMEID;
            in.set_attrs.attrs.volumeId = _sinkRec.vid();
            unsigned status = 0;
            VO_TR(vo_sinkvol, vo_audit, "opid=%lld dbladeVfsSetAttrs vfsid=%d->%d\n", opid,
                  _tempRec.vid(), _sinkRec.vid());
            unsigned rc = setAttrs(clntSinkDbladeVol, _tempRec.vid(), opSink->lid(), in, &status);
            if (rc != 0 || status != 0) {
                VoErr d =
                    VoRpcCalls::foldErr(voErrDbladeVolSetAttr, static_cast<clnt_stat>(rc), status);
                setAllErr(d);
                return d;
            }
            opSink->setErrCode(VOD_ERR_INTERNAL);
            return deleteOpSink(clntVldb, clntSinkDbladeVol, opSink);
        }
        default:
            VO_TR(vo_vod, vo_warn, "opid=%lld Undefined crashSubState!\n", opid);
            setErr(voErrVodCrashRecovery, VOD_ERR_INTERNAL);
            return VOD_ERR_INTERNAL;
    }
}

// ---- Mirror groups. ----

namespace {

template <class Out>
unsigned refuse(Out* out, voErrRc rc, voErrFunc func, unsigned funcrc) {
    out->rc = rc;
    out->func = func;
    out->funcrc = funcrc;
    return func != voErrFuncSuccess ? static_cast<unsigned>(func) : static_cast<unsigned>(rc);
}

}  // namespace

// Refusals (the error model leaves them to us): a member already there
// answers voErrSinkVFSExist; a source the VLDB does not list exactly once,
// voErrSrcVFSNotExist with the look-up's status; an operation moving an
// instance of the mirror, that operation's busy code.
unsigned VoMirrorState::joinGroup(CLIENT* clntVldb, VoLidVnameIn* in, VoVidOut* out) {
    VoTrace::Depth depth;
    out->vid = 0;
    const unsigned mirror = in->vidSrc | MIRROR_ID_BIT;
    VO_TR(vo_vod, vo_debug, "call getDataVerFromVLDB for sink vfs\n");
    int exists = 0;
    VoErr err = getDataVerFromVLDB(clntVldb, mirror, in->lidSink, &exists, nullptr);
    if (err != 0) {
        VO_TR(vo_vod, vo_warn, "getDataVerFromVLDB for sink vfs err.func=%d err.funcrc=%d\n",
              err.func(), err.funcrc());
        return refuse(out, voErrRpcFailure, err.func(), err.funcrc());
    }
    if (exists) {
        VO_TR(vo_vod, vo_warn, "Mirror already exists\n");
        return refuse(out, voErrSinkVFSExist, voErrVodValidate, 0);
    }
    VO_TR(vo_vldb, vo_entry, "vldb rec lookup src vfsid=%d\n", in->vidSrc);
    VoXdrResult<vldb_record_lookup_result> found(xdr_vldb_record_lookup_result);
    clnt_stat st = lookupVfs(clntVldb, in->vidSrc, in->lidSrc, found.get());
    if (st != RPC_SUCCESS) {
        VO_TR(vo_vldb, vo_warn, "vldb rec lookup failed: %s\n", clnt_sperrno(st));
        return refuse(out, voErrRpcFailure, voErrVldbRecordLookupRpc, st);
    }
    if (found->result == VLDB_RECORD_NOT_FOUND || (found->result == 0 && found->r.r_len == 0)) {
        VO_TR(vo_vldb, vo_warn, "No VLDB record for vfsid=%d LP=" VO_LP_FMT "\n", in->vidSrc,
              VO_LP_ARGS(in->lidSrc));
        return refuse(out, voErrSrcVFSNotExist, voErrVldbRecordLookup, VLDB_RECORD_NOT_FOUND);
    }
    if (found->result != 0) {
        VO_TR(vo_vldb, vo_warn, "vldb rec lookup err %s\n", statLit(found->result));
        return refuse(out, voErrSrcVFSNotExist, voErrVldbRecordLookup,
                      static_cast<unsigned>(found->result));
    }
    if (found->r.r_len != 1) {
        VO_TR(vo_vldb, vo_warn, "Expect one VLDB record for vfsid=%d. Got %d!\n", in->vidSrc,
              found->r.r_len);
        return refuse(out, voErrSrcVFSNotExist, voErrVodSanityCheck, VOD_ERR_MULTIPLE_RECORDS);
    }
    VO_TR(vo_vldb, vo_debug, "vldb_record_lookup_3 returns one VLDB rec\n");
    const Rec& src = found->r.r_val[0];
    err = VodbCacheLock::refreshVodbCache(clntVldb);
    if (err != 0) return refuse(out, voErrValidate, err.func(), err.funcrc());
    {
        VodbCacheLock cacheLock;
        const auto& cache = VodbCacheLock::getVodbCache();
        VO_TR(vo_vod, vo_debug, "_vodbCache.size = %#X\n", static_cast<unsigned>(cache.size()));
        for (const VoRec* r : cache) {
            if (r->vid() != mirror) continue;
            VO_TR(vo_vod, vo_warn,
                  "another instant of this mirror is moving to LP=" VO_LP_FMT
                  "by opid=%lld optype%d\n",
                  VO_LP_ARGS(r->lid()), r->opid(), static_cast<int>(r->opType()));
            return refuse(out, voErrValidate, voErrVodValidate, getErrorCodeForOpType(r->opType()));
        }
    }
    VO_TR(vo_vldb, vo_audit, "call vldbCreateRecord for sink\n");
    timeval t = now();
    err = vldbCreateRecord(clntVldb, mirror, in->lidSink, in->vnameSink, src.family, RO_VFS, 0,
                           t.tv_sec, t.tv_usec, src.vserver, 0, src.exportRuleset, src.appId);
    if (err != 0) return refuse(out, VoErrVldb, err.func(), err.funcrc());
    out->vid = mirror;
    return refuse(out, voErrRcSuccess, voErrFuncSuccess, 0);
}

// A member that leaves stays what it was, a read-only copy of the source
// at its data version, now under an id and a name of its own heading its
// own family; making it writable is a separate choice (set-rw).
unsigned VoMirrorState::leaveGroup(CLIENT* clntVldb, CLIENT*, VoVnameIn* in, VoVidOut* out) {
    VoTrace::Depth depth;
    out->vid = 0;
    VO_TR(vo_vod, vo_debug, "call getDataVerFromVLDB\n");
    int exists = 0;
    VoErr err = getDataVerFromVLDB(clntVldb, in->vid, in->lid, &exists, nullptr);
    if (err != 0) {
        VO_TR(vo_vod, vo_warn, "getDataVerFromVLDB err.func=%d err.funcrc=%d\n", err.func(),
              err.funcrc());
        return refuse(out, voErrRpcFailure, err.func(), err.funcrc());
    }
    if (!exists) {
        VO_TR(vo_vod, vo_warn, "VLDB record does not exist\n");
        return refuse(out, voErrSinkVFSNotExist, voErrVldbRecordLookup, VLDB_RECORD_NOT_FOUND);
    }
    VO_TR(vo_vldb, vo_entry, "call vldb_record_lookup_3\n");
    {
        vldb_record_lookup_input q;
        memset(&q, 0, sizeof q);
        q.input_mask = VFS_NAME;
        char empty[] = "";
        q.r.family = empty;
        q.r.vfsname = in->vname;
        VoXdrResult<vldb_record_lookup_result> byName(xdr_vldb_record_lookup_result);
        clnt_stat st = vldb_record_lookup_3(&q, byName.get(), clntVldb);
        if (st != RPC_SUCCESS) {
            VO_TR(vo_vldb, vo_warn, "vldb_record_lookup_3 vfsname=%s failed: %s\n", in->vname,
                  clnt_sperrno(st));
            return refuse(out, voErrRpcFailure, voErrVldbRecordLookupRpc, st);
        }
        if (byName->result == 0 && byName->r.r_len != 0) {
            VO_TR(vo_vldb, vo_warn, "vldb_record_lookup_3 vfsname=%s returned %d records\n",
                  in->vname, byName->r.r_len);
            return refuse(out, voErrSinkVFSExist, voErrVodValidate, 0);
        }
    }
    err = VodbCacheLock::refreshVodbCache(clntVldb);
    if (err != 0) return refuse(out, voErrValidate, err.func(), err.funcrc());
    {
        VodbCacheLock cacheLock;
        for (const VoRec* r : VodbCacheLock::getVodbCache()) {
            if (r->vid() != in->vid || memcmp(r->lid(), in->lid, 16) != 0) continue;
            if (r->opType() == VoRec::VODB_VOLOP_MIRROR)
                VO_TR(vo_vod, vo_warn, "src is mirroring to this vfs. opid=%lld\n", r->opid());
            else
                VO_TR(vo_vod, vo_warn, "this mirror is used by opid=%lld optype%d\n", r->opid(),
                      static_cast<int>(r->opType()));
            return refuse(out, voErrValidate, voErrVodValidate, getErrorCodeForOpType(r->opType()));
        }
    }
    // The member may live on any D-blade: ask the one that serves its LP.
    VO_TR(vo_vod, vo_debug, "call mkDbladeClient\n");
    VoRPCClient vol;
    err = mkDbladeClient(clntVldb, in->lid, &vol, nullptr);
    if (err != 0) {
        VO_TR(vo_vod, vo_warn,
              "fail to contact dblade controlling LP=" VO_LP_FMT " err.func=%d err.funcrc=%d\n",
              VO_LP_ARGS(in->lid), err.func(), err.funcrc());
        return refuse(out, voErrNoResource, err.func(), err.funcrc());
    }
    VO_TR(vo_vod, vo_debug, "call getDataVerFromDblade\n");
    err = getDataVerFromDblade(vol, in->vid, in->lid, nullptr);
    if (err != 0 && err.func() == voErrDbladeVolGetAttr && noSuchVolume(err.funcrc())) {
        VO_TR(vo_vod, vo_audit, "VFS does not exist. Call vldbDeleteRecord\n");
        err = vldbDeleteRecord(clntVldb, in->vid, in->lid);
        if (err != 0) return refuse(out, VoErrVldb, err.func(), err.funcrc());
        return refuse(out, voErrRcSuccess, voErrFuncSuccess, 0);
    }
    if (err != 0) return refuse(out, VoErrDblade, err.func(), err.funcrc());

    VO_TR(vo_vod, vo_debug, "call newVfsid\n");
    unsigned newId = 0;
    err = newVfsid(clntVldb, &newId);
    if (err != 0) {
        VO_TR(vo_vod, vo_warn, "newVfsid err.func=%d err.funcrc=%d\n", err.func(), err.funcrc());
        return refuse(out, VoErrVldb, err.func(), err.funcrc());
    }
    std::string name = in->vname != nullptr ? in->vname : "";
    if (name.size() > static_cast<size_t>(VoRec::VNAME_MAX)) {
        VO_TR(vo_vod, vo_warn, "Volname length is too long (%d) Truncate it for now\n",
              static_cast<int>(name.size()));
        name.resize(VoRec::VNAME_MAX);
    }
    VO_TR(vo_srcvol, vo_audit, "dbladeVfsSetAttrs vfsid=%d\n", in->vid);
    {
        VolSetattrIn sin;
        memset(&sin, 0, sizeof sin);
        sin.set_attrs.how = VOLSET_VOLUMEID | VOLSET_VOLNAME;
        sin.set_attrs.attrs.volumeId = newId;
        sin.set_attrs.attrs.volname = &name[0];
        unsigned status = 0;
        unsigned rc = setAttrs(vol, in->vid, in->lid, sin, &status);
        if (rc != 0 || status != 0) {
            if (rc != 0)
                VO_TR(vo_srcvol, vo_warn, "dbladeVfsSetAttrs failed: %s\n", rpcErrText(rc));
            else
                VO_TR(vo_srcvol, vo_warn, "dbladeVfsSetAttrs err=%#X\n", status);
            VO_TR(vo_srcvol, vo_warn, "fail to change attributes\n");
            VoErr e =
                VoRpcCalls::foldErr(voErrDbladeVolSetAttr, static_cast<clnt_stat>(rc), status);
            return refuse(out, VoErrDblade, e.func(), e.funcrc());
        }
    }
    VO_TR(vo_vldb, vo_entry, "vldb_record_modify_3 vfsid=%d\n", in->vid);
    vldb_record_modify_input m;
    memset(&m, 0, sizeof m);
    m.input_mask = VFS_ID | VFS_NAME;
    m.vfsid = in->vid;
    memcpy(m.lp_uuid, in->lid, sizeof m.lp_uuid);
    m.newrec.vfsid = newId;
    memcpy(m.newrec.lp_uuid, in->lid, sizeof m.newrec.lp_uuid);
    m.newrec.vfsname = &name[0];
    m.newrec.family = &name[0];
    int vstatus = 0;
    clnt_stat st = vldb_record_modify_3(&m, &vstatus, clntVldb);
    if (st != RPC_SUCCESS) {
        VO_TR(vo_vldb, vo_warn, "vldb_record_modify_3 failed: %s\n", clnt_sperrno(st));
        return refuse(out, voErrRpcFailure, voErrVldbRecordModifyRpc, st);
    }
    if (vstatus != 0) {
        VO_TR(vo_vldb, vo_warn, "vldb_record_modify_3 err %s\n", statLit(vstatus));
        return refuse(out, VoErrVldb, voErrVldbRecordModify, static_cast<unsigned>(vstatus));
    }
    out->vid = newId;
    return refuse(out, voErrRcSuccess, voErrFuncSuccess, 0);
}
