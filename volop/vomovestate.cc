// VoMoveState: a live volume move that survives a crash of the daemon.
//
// Its steps, in the order they run: addStream, validate (with
// validateFinalMove, the space check before the first pass and the conflict
// checks), mkRec, mkOpSrcSink, startStream, progress, conclude
// (concludeRegularMove, which runs the next pass in place, or
// concludeFinalMove), deleteSink and deleteOpSrc. After a crash:
// resurrectFromVoRec, recoverFromCrash, then recoverRegularMoveFromCrash or
// recoverFinalMoveFromCrash with their decision tables.
#include "vomovestate.h"

#include <string.h>

#include <optional>

#include "dblade_incrcopy.h"
#include "dblade_lpm.h"
#include "dblade_vol.h"
#include "util/xdrproc.h"
#include "vldb_lit.h"
#include "vldb_server.h"
#include "vodbCache.h"
#include "vodldb.h"
#include "vorpccalls.h"
#include "vorpcclient.h"
#include "votrace.h"

namespace {

const unsigned kAttrTimeoutSec = 60;

// Streams of a move, as the D-blade numbers operation types.
const unsigned kIncrCopyOpTypeMove = 3;
const unsigned kIncrCopyOpTypeFinalMove = 4;

// D-blade answers for a volume it does not hold: on no LP at all, or not on
// the LP asked about.
const unsigned kTarnErrVolNotFound = 16;

bool volumeAbsent(const VoErr& err) {
    return err.func() == voErrDbladeVolGetAttr &&
           (err.funcrc() == kTarnErrVolNotFound || err.funcrc() == TARN_ERR_LPMMISMATCH);
}

const char* rpcErrText(unsigned rc) {
    return rc == VOD_ERR_CANT_SET_TIMEOUT ? "voErrRpcErrCantSetTimeOut"
                                          : clnt_sperrno(static_cast<clnt_stat>(rc));
}

}  // namespace

bool VoMoveState::_keepSrc = false;

VoMoveState::VoMoveState()
    : _sinkRec(), _tempRec(), _iteration(0), _isFinal(false), _isLocalMove(false) {
    memset(&_pgrs, 0, sizeof _pgrs);
}

VoMoveState::~VoMoveState() {}

void VoMoveState::dbgDump() {
    getLock();
    VO_TR(vo_vod, vo_event, "VoMoveState opid=%lld iteration=%d final=%d local=%d\n", _opid,
          _iteration.load(), int(_isFinal), int(_isLocalMove));
    _srcRec.dbgDump();
    _sinkRec.dbgDump();
    for (const auto& r : _opSrcRecs) r->dbgDump();
    if (_tempRec.vid() != 0) _tempRec.dbgDump();
    releaseLock();
}

// ---- Conflict tests. ----
//
// The registry's finders call these without the operation lock, while a
// worker may add a pass's op src or switch the records to the final move:
// the worker makes those changes under the operation lock and the finders
// read under it too. (A finder never runs on a thread that holds it.)

bool VoMoveState::isUsing(unsigned vid, const unsigned char* lid, VoRec::VoType type,
                          VoRec::VfsRole role) {
    getLock();
    bool result = false;
    bool decided = false;
    auto decide = [&](const VoRec& r) {
        if (decided || r.vid() != vid || memcmp(r.lid(), lid, 16) != 0) return;
        // The first record on the volume decides, whatever the later ones say.
        decided = true;
        result = r.opType() == type && r.role() == role;
    };
    decide(_srcRec);
    decide(_sinkRec);
    if (_tempRec.vid() != 0) decide(_tempRec);
    for (size_t i = 0; i < _opSrcRecs.size(); i++) {
        const VoRec& r = *_opSrcRecs[i];
        if (!decided && r.vid() == vid && memcmp(r.lid(), lid, 16) == 0 &&
            r.vid() != _srcRec.vid()) {
            if (i + 1 < _opSrcRecs.size()) {
                VO_TR(vo_vod, vo_warn,
                      "Someone is looking up an old op src! Is it crash recovery?\n");
                VO_TR_RAW(vo_vod, vo_warn,
                          "If not, the design of vod has not considered this scenario\n");
                VO_TR_RAW(vo_vod, vo_warn,
                          "Please reproduce the problem and report it with the trace\n");
            }
        }
        decide(r);
    }
    releaseLock();
    return result;
}

bool VoMoveState::isUsing(const unsigned char* lid) {
    return memcmp(_srcRec.lid(), lid, 16) == 0 || memcmp(_sinkRec.lid(), lid, 16) == 0;
}

bool VoMoveState::isUsing(unsigned vid, const unsigned char* lid) {
    getLock();
    bool found = false;
    for (const VoRec* r : {&_srcRec, &_sinkRec, &_tempRec})
        if (r->vid() == vid && memcmp(r->lid(), lid, 16) == 0) found = true;
    if (_tempRec.vid() == vid && vid != 0 && memcmp(_tempRec.lid(), lid, 16) == 0)
        VO_TR(vo_vod, vo_warn, "Someone is looking up our temp vfs id! Is it crash recovery?\n");
    for (const auto& r : _opSrcRecs)
        if (r->vid() == vid && memcmp(r->lid(), lid, 16) == 0) found = true;
    releaseLock();
    return found;
}

// ---- The request. ----

bool VoMoveState::addStream(unsigned vidSrc, const unsigned char* lidSrc,
                            const unsigned char* lidSink) {
    if (memcmp(lidSrc, lidSink, 16) == 0) {
        VO_TR(vo_vod, vo_warn, "src and sink are in the same LP\n");
        setErr(voErrVodAddStream, VOD_ERR_SAME_LP);
        return false;
    }
    if (_srcRec.vid() != 0) {
        VO_TR(vo_vod, vo_warn, "single stream only\n");
        setErr(voErrVodAddStream, VOD_ERR_INTERNAL);
        return false;
    }
    _srcRec.setOpType(VoRec::VODB_VOLOP_MOVE);
    _srcRec.setVid(vidSrc);
    _srcRec.setLid(lidSrc);
    _srcRec.setRole(VoRec::VODB_ROLE_SRC);
    _sinkRec.setOpType(VoRec::VODB_VOLOP_MOVE);
    _sinkRec.setLid(lidSink);
    _sinkRec.setRole(VoRec::VODB_ROLE_OPSINK);
    return true;
}

bool VoMoveState::validate(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol) {
    VoTrace::Depth depth;
    const unsigned vid = _srcRec.vid();
    const unsigned char* sinkLid = _sinkRec.lid();

    // The target LP must not hold the volume already, by the VLDB's account
    // or the D-blade's.
    VO_TR(vo_vod, vo_debug, "call getDataVerFromVLDB for sink vfs(%d," VO_LP_FMT ")\n", vid,
          VO_LP_ARGS(sinkLid));
    int isExist = 0;
    VoErr err = getDataVerFromVLDB(clntVldb, vid, sinkLid, &isExist, nullptr);
    if (err != 0) {
        setAllErr(err);
        return false;
    }
    if (isExist) {
        VO_TR(vo_vod, vo_warn, "VLDB said sink LP already has a vfs=%d\n", vid);
        setErr(voErrVodValidate, VOD_ERR_SAME_LP);
        return false;
    }
    VO_TR(vo_vod, vo_debug, "call mkDbladeClient\n");
    VoRPCClient sinkVol;
    err = mkDbladeClient(clntVldb, sinkLid, &sinkVol, nullptr);
    if (err != 0) {
        setAllErr(err);
        return false;
    }
    VO_TR(vo_vod, vo_debug, "call getDataVerFromDblade for sink vfs(%d," VO_LP_FMT ")\n", vid,
          VO_LP_ARGS(sinkLid));
    err = getDataVerFromDblade(sinkVol, vid, sinkLid, nullptr);
    if (err == 0) {
        VO_TR_RAW(vo_vod, vo_warn, "err==0 means src VFS already exists in sink LP. Very weird\n");
        setErr(voErrVodValidate, VOD_ERR_SAME_LP);
        return false;
    }
    sinkVol.clntdestroy();

    VO_TR(vo_vod, vo_debug, "call validateFinalMove\n");
    bool final = false;
    if (!validateFinalMove(clntSrcDbladeVol, &final)) return false;
    _isFinal = final;
    VO_TR(vo_vod, vo_debug, "_isFinal = %d\n", int(_isFinal));

    if (!_isFinal) {
        if (!isSrcRW()) {
            VO_TR(vo_vod, vo_warn, "RO or CLONE VFS cannot start a regular move\n");
            setErr(voErrVodValidate, VOD_ERR_INTERNAL);
            return false;
        }
        if (_iteration > MAX_REGULAR_PASS) {
            VO_TR(vo_vod, vo_warn, "Too many iterations of move. Abort\n");
            setErr(voErrVodValidate, VOD_ERR_TOO_MANY_MOVE_PASSES);
            return false;
        }
    }

    // Room on the target is checked once, before anything is made: later
    // passes only add what changed, into space the first pass reserved.
    if (isFirst()) {
        unsigned r = CheckIfThereIsEnoughSpaceOnTheSink(vid, _srcRec.lid(), clntSrcDbladeVol,
                                                        sinkLid, clntVldb);
        if (r == voErrNotEnoughSpaceSinkLP) {
            setHiLvlErr(voErrNotEnoughSpaceSinkLP);
            return false;
        }
        if (r != 0) return false;
    }

    return _isFinal ? validateConflicts("This is the final pass!!") : validateRegularMove();
}

bool VoMoveState::validateRegularMove() { return validateConflicts("This is a regular pass!!"); }

bool VoMoveState::validateConflicts(const char* passText) {
    VodbCacheLock cacheLock;
    const auto& cache = VodbCacheLock::getVodbCache();
    VO_TR(vo_vod, vo_debug, "_vodbCache.size = %#X\n", static_cast<unsigned>(cache.size()));
    VO_TR(vo_vod, vo_debug, "%s\n", passText);
    const bool final = _isFinal;
    for (const VoRec* r : cache) {
        // A later pass finds the move's own records: they are no conflict.
        if (_opid != 0 && r->opid() == _opid) continue;
        bool conflict = false;
        if (r->vid() == _srcRec.vid() && memcmp(r->lid(), _sinkRec.lid(), 16) == 0) {
            // Something else already lives, or is coming, under the volume's
            // id on the target LP.
            if (final)
                VO_TR(vo_vod, vo_warn, "Sink(%d) is busy with another opid=%lld opType(%d)\n",
                      _srcRec.vid(), r->opid(), static_cast<int>(r->opType()));
            else
                VO_TR(vo_vod, vo_warn, "Sink (%d) is busy with another opid=%lld opType(%d)\n",
                      _srcRec.vid(), r->opid(), static_cast<int>(r->opType()));
            conflict = true;
        } else if (r->vid() == _srcRec.vid() && memcmp(r->lid(), _srcRec.lid(), 16) == 0) {
            // A move changes where the volume lives: no other operation may
            // read, write or delete it meanwhile, and a read-only source may
            // not be anyone's op src either, since it goes at the end.
            conflict = true;
            if (final)
                VO_TR(vo_vod, vo_warn, "Src(%d) is busy with another opid=%lld opType(%d)\n",
                      _srcRec.vid(), r->opid(), static_cast<int>(r->opType()));
            else
                VO_TR(vo_vod, vo_warn, "Src (%d) is busy with another opid=%lld opType(%d)\n",
                      _srcRec.vid(), r->opid(), static_cast<int>(r->opType()));
        }
        if (conflict) {
            setErr(voErrVodValidate, getErrorCodeForOpType(r->opType()));
            return false;
        }
    }
    return true;
}

bool VoMoveState::validateFinalMove(CLIENT* clntSrcDbladeVol, bool* isFinal) {
    VoTrace::Depth depth;
    *isFinal = false;
    if (!isSrcRW()) {
        // A read-only source (or a clone) cannot change: one final pass.
        *isFinal = true;
        return true;
    }
    const VoRec* prev = currentOpSrc();
    if (isFirst() || prev == nullptr) {
        VO_TR(vo_vod, vo_debug, "The first iteration of a RW VFS cannot be final\n");
        return true;
    }
    if (clntSrcDbladeVol == nullptr) {
        VO_TR(vo_vod, vo_warn, "clntDblade=0\n");
        setErr(voErrVodValidate, VOD_ERR_NO_DBLADE_CLIENT);
        return false;
    }
    const unsigned vid = _srcRec.vid();
    VO_TR(vo_srcvol, vo_entry, "dbladeVfsGetAttrs vfsid=%d\n", vid);
    VolGetattrIn in;
    memset(&in, 0, sizeof in);
    in.vfsID = vid;
    memcpy(in.lpUUID, _srcRec.lid(), sizeof in.lpUUID);
    VoXdrResult<VolGetattrOut_t> out(xdr_VolGetattrOut_t);
    unsigned rc = VoRpcCalls::dbladeVfsGetAttrs(&in, out.get(), clntSrcDbladeVol, kAttrTimeoutSec);
    if (rc != 0) {
        VO_TR(vo_srcvol, vo_warn, "dbladeVfsGetAttrs vfsid=%d failed: %s\n", vid, rpcErrText(rc));
        VoErr e = VoRpcCalls::foldErr(voErrDbladeVolGetAttr, static_cast<clnt_stat>(rc), 0);
        setAllErr(e);
        return false;
    }
    if (out->returnCode != 0) {
        VO_TR(vo_srcvol, vo_warn, "dbladeVfsGetAttrs vfsid=%d err=%#X\n", vid, out->returnCode);
        setErr(voErrDbladeVolGetAttr, out->returnCode);
        return false;
    }
    const tarn_volgattrx_t& a = out->return_volattrs;
    if (a.downstream_vfsid != prev->vid()) {
        VO_TR(vo_vod, vo_audit, "downstream vfs %d != opsrc vfs %d\n", a.downstream_vfsid,
              prev->vid());
        return true;
    }
    if (a.dataVersion > prev->dver() + FINAL_PASS_DVER_GAP) {
        VO_TR(vo_vod, vo_audit, "too many changes. src dver=%lld prev op src dver=%lld\n",
              static_cast<long long>(a.dataVersion), static_cast<long long>(prev->dver()));
        return true;
    }
    *isFinal = true;
    return true;
}

unsigned VoMoveState::CheckIfThereIsEnoughSpaceOnTheSink(unsigned vfsid, const unsigned char* lid,
                                                         CLIENT* clntDbladeVol,
                                                         const unsigned char* lidSink,
                                                         CLIENT* clntVldb) {
    VoTrace::Depth depth;
    unsigned long long needed = 0;
    {
        VolGetattrIn in;
        memset(&in, 0, sizeof in);
        in.vfsID = vfsid;
        memcpy(in.lpUUID, lid, sizeof in.lpUUID);
        VoXdrResult<VolGetattrOut_t> out(xdr_VolGetattrOut_t);
        unsigned rc = VoRpcCalls::dbladeVfsGetAttrs(&in, out.get(), clntDbladeVol, kAttrTimeoutSec);
        if (rc != 0) {
            VO_TR(vo_srcvol, vo_warn, "dbladeVfsGetAttrs failed: %s\n", rpcErrText(rc));
            setErr(voErrDbladeVolGetAttrRpc, rc);
            return voErrDbladeVolGetAttrRpc;
        }
        if (out->returnCode != 0) {
            VO_TR(vo_srcvol, vo_warn, "dbladeVfsGetAttrs vfsid=%d err=%#X\n", vfsid,
                  out->returnCode);
            setErr(voErrDbladeVolGetAttr, out->returnCode);
            return voErrDbladeVolGetAttr;
        }
        const tarn_volgattrx_t& a = out->return_volattrs;
        needed = a.minQuota > a.blocksUsed ? a.minQuota : a.blocksUsed;
    }

    unsigned short did = 0;
    {
        tarn_uuid_t in;
        memcpy(in, lidSink, sizeof in);
        VoXdrResult<vldb_lp_convert_result> res(xdr_vldb_lp_convert_result);
        clnt_stat st = vldb_lp_convert_3(in, res.get(), clntVldb);
        if (st != RPC_SUCCESS) {
            VO_TR(vo_vldb, vo_warn, "vldb_lp_convert_3 failed: %s\n", clnt_sperrno(st));
            setErr(voErrVldbLpConvertRpc, st);
            return voErrVldbLpConvertRpc;
        }
        if (res->result != 0) {
            VO_TR(vo_vldb, vo_warn, "vldb_lp_convert_3 err %s\n", statLit(res->result));
            setErr(voErrVldbLpConvert, static_cast<unsigned>(res->result));
            return voErrVldbLpConvert;
        }
        did = res->dblade_id;
    }

    // The LP's own service is asked; any way of not getting its answer is
    // one code, since the caller can do nothing but refuse.
    char* host = VoDldb::getHostNameByDbladeId(did);
    if (host == nullptr) {
        VO_TR(vo_sinkvol, vo_warn, "no host for dblade %d\n", did);
        setErr(voErrVodValidate, VOD_ERR_LP_UNREACHABLE);
        return VOD_ERR_LP_UNREACHABLE;
    }
    VoRPCClient lpm;
    lpm.clnttcp_create(host, DBLADE_LPM_PROG, DBLADE_LPM_VERS);
    free(host);
    if (static_cast<CLIENT*>(lpm) == nullptr) {
        setErr(voErrVodValidate, VOD_ERR_LP_UNREACHABLE);
        return VOD_ERR_LP_UNREACHABLE;
    }
    DBLADE_LP_UUID uuid;
    memcpy(uuid, lidSink, sizeof uuid);
    VoXdrResult<LPGetAttrsOut> attrs(xdr_LPGetAttrsOut);
    clnt_stat st = lp_get_attrs_by_uuid_1(uuid, attrs.get(), lpm);
    if (st != RPC_SUCCESS || attrs->status != 0) {
        VO_TR(vo_sinkvol, vo_warn, "lp_get_attrs_by_uuid_1 LP=" VO_LP_FMT " failed\n",
              VO_LP_ARGS(lidSink));
        setErr(voErrVodValidate, VOD_ERR_LP_UNREACHABLE);
        return VOD_ERR_LP_UNREACHABLE;
    }
    const unsigned long long avail = attrs->attr.unreservedSpaceAvailableInBlocks;
    if (needed > avail) {
        VO_TR(vo_sinkvol, vo_warn, "vfs %d needs %lld blocks, LP has %lld\n", vfsid,
              static_cast<long long>(needed), static_cast<long long>(avail));
        setErr(voErrVodValidate, voErrNotEnoughSpaceSinkLP);
        return voErrNotEnoughSpaceSinkLP;
    }
    return 0;
}

// ---- Records. ----

namespace {

// vldb_lp_convert_3 for the final pass: the D-blade serving lid, traced as
// the move traces it.
VoErr lpConvert(CLIENT* clntVldb, const unsigned char* lid, unsigned short* did) {
    VO_TR(vo_vldb, vo_entry, "vldb_lp_convert_3 LP=" VO_LP_FMT "\n", VO_LP_ARGS(lid));
    tarn_uuid_t in;
    memcpy(in, lid, sizeof in);
    VoXdrResult<vldb_lp_convert_result> res(xdr_vldb_lp_convert_result);
    clnt_stat st = vldb_lp_convert_3(in, res.get(), clntVldb);
    if (st != RPC_SUCCESS) return VoRpcCalls::foldErr(voErrVldbLpConvert, st, 0);
    if (res->result != 0)
        return VoRpcCalls::foldErr(voErrVldbLpConvert, RPC_SUCCESS,
                                   static_cast<unsigned>(res->result));
    *did = res->dblade_id;
    VO_TR(vo_vldb, vo_debug, "vldb_lp_convert_3 returns dblade id %d\n", *did);
    return VoErr();
}

}  // namespace

unsigned VoMoveState::mkRec(CLIENT* clntVldb) {
    VoTrace::Depth depth;
    if (clntVldb == nullptr) {
        VO_TR(vo_vod, vo_warn, "clntVldb=0\n");
        setErr(voErrVodMkVodbRec, VOD_ERR_NO_VLDB_CLIENT);
        return VOD_ERR_NO_VLDB_CLIENT;
    }
    const bool first = isFirst();
    const bool final = _isFinal;
    VoErr err;

    unsigned sinkVid = _sinkRec.vid();
    if (first) {
        VO_TR(vo_vod, vo_debug, "call newVfsid for sink\n");
        err = newVfsid(clntVldb, &sinkVid);
        if (err != 0) {
            VO_TR(vo_vod, vo_warn, "fail to get a vid for sink\n");
            setAllErr(err);
            return err.funcrc();
        }
    }

    // The final pass streams from the stopped source itself, and so does a
    // read-only source; every other pass from a new clone.
    unsigned opSrcVid = _srcRec.vid();
    if (isSrcRW() && !final) {
        VO_TR(vo_vod, vo_debug, "call newVfsid for op src\n");
        err = newVfsid(clntVldb, &opSrcVid);
        if (err != 0) {
            VO_TR(vo_vod, vo_warn, "fail to get a vid for op src\n");
            setAllErr(err);
            return err.funcrc();
        }
    }
    std::unique_ptr<VoRec> opSrc(new (std::nothrow) VoRec());
    if (!opSrc) {
        VO_TR(vo_vod, vo_warn, "no mem for op src\n");
        setErr(voErrVodAllocVoRec, VOD_ERR_NO_MEMORY);
        return VOD_ERR_NO_MEMORY;
    }
    opSrc->setVid(opSrcVid);
    opSrc->setLid(_srcRec.lid());
    opSrc->setRole(VoRec::VODB_ROLE_OPSRC);
    opSrc->setOpid(_opid);

    VoRec temp;
    bool local = false;
    unsigned short srcDid = 0, sinkDid = 0;
    if (final) {
        if ((err = lpConvert(clntVldb, _srcRec.lid(), &srcDid)) != 0 ||
            (err = lpConvert(clntVldb, _sinkRec.lid(), &sinkDid)) != 0) {
            setAllErr(err);
            return err;
        }
        if (srcDid == sinkDid) {
            local = true;
            VO_TR(vo_vod, vo_audit, "final pass of local move\n");
            VO_TR(vo_vod, vo_debug, "call newVfsid for temp\n");
            unsigned tempVid = 0;
            err = newVfsid(clntVldb, &tempVid);
            if (err != 0) {
                VO_TR(vo_vod, vo_warn, "fail to get a vid for temp\n");
                setAllErr(err);
                return err.funcrc();
            }
            temp.setOpType(VoRec::VODB_VOLOP_FINALMOVE);
            temp.setVid(tempVid);
            temp.setLid(_srcRec.lid());
            temp.setRole(VoRec::VODB_ROLE_TEMP);
            temp.setOpid(_opid);
        }
    }
    const VoRec::VoType type = final ? VoRec::VODB_VOLOP_FINALMOVE : VoRec::VODB_VOLOP_MOVE;
    if (final)
        VO_TR(vo_vod, vo_debug, "convert vodb rec op type to final move\n");
    else
        VO_TR(vo_vod, vo_debug, "convert vodb rec op type to (regular) move\n");
    opSrc->setOpType(type);

    // The records as they will stand once the VODB has them; the object's
    // own change only after the VODB said yes, so that memory never claims
    // what the VODB does not hold.
    VoRec src(_srcRec), sink(_sinkRec), finalSink;
    src.setOpType(type);
    sink.setOpType(type);
    sink.setVid(sinkVid);
    if (final) {
        src.setDid(srcDid);
        sink.setDid(sinkDid);
    }
    // The volume's identity after the move: its own id on the target LP.
    finalSink.setOpType(type);
    finalSink.setVid(_srcRec.vid());
    finalSink.setLid(_sinkRec.lid());
    finalSink.setRole(VoRec::VODB_ROLE_SINK);

    if (first) {
        VoRec* recs[5] = {&src, &sink, &finalSink, opSrc.get(), &temp};
        unsigned long long opid = 0;
        if (unsigned r = createVodbRecords(VO_SITE, clntVldb, recs, local ? 5 : 4, &opid)) return r;
        temp.setOpid(opid);
        getLock();
        _opid = opid;
    } else {
        // The records already there take this pass's type first: a crash
        // between the two calls leaves a final-move type on a pass whose op
        // src the VODB does not know yet, which recovery treats as a final
        // move that never swapped: roll back, source intact.
        u_quad_t id = _opid;
        vodb_update_optype_input up;
        up.opid = _opid;
        up.optype = type;
        int status = 0;
        VO_TR(vo_vldb, vo_entry, "vodb_update_optype_by_opid_3 opid=%lld\n", _opid);
        clnt_stat st = vodb_update_optype_by_opid_3(&up, &status, clntVldb);
        if (st != RPC_SUCCESS) {
            VO_TR(vo_vldb, vo_warn, "vodb_update_optype_by_opid_3 opid=%lld failed: %s\n", _opid,
                  clnt_sperrno(st));
            setErr(voErrVodbUpdateOptypeByOpidRpc, st);
            return voErrVodbUpdateOptypeByOpidRpc;
        }
        if (status != 0) {
            VO_TR(vo_vldb, vo_warn, "vodb_update_optype_by_opid_3 opid=%lld err %s\n", _opid,
                  statLit(status));
            setErr(voErrVodbUpdateOptypeByOpid, static_cast<unsigned>(status));
            return voErrVodbUpdateOptypeByOpid;
        }
        vodbRec recs[2];
        memset(recs, 0, sizeof recs);
        opSrc->toVodbRec(&recs[0]);
        u_int n = 1;
        if (local) temp.toVodbRec(&recs[n++]);
        vodb_create_input in;
        memset(&in, 0, sizeof in);
        in.new_create_opid = id;
        in.check_opids = 1;
        in.rec.rec_len = n;
        in.rec.rec_val = recs;
        VO_TR(vo_vldb, vo_entry, "vodb_create_3 opid=%lld\n", _opid);
        st = vodb_create_3(&in, &status, clntVldb);
        if (st != RPC_SUCCESS) {
            VO_TR(vo_vldb, vo_warn, "vodb_create_3 opid=%lld failed: %s\n", _opid,
                  clnt_sperrno(st));
            setErr(voErrVodbCreateRpc, st);
            return voErrVodbCreateRpc;
        }
        if (status != 0) {
            VO_TR(vo_vldb, vo_warn, "vodb_create_3 opid=%lld err %s\n", _opid, statLit(status));
            setErr(voErrVodbCreate, static_cast<unsigned>(status));
            return voErrVodbCreate;
        }
        VO_TR(vo_vldb, vo_audit, "vodb_create_3 opid=%lld succeed\n", _opid);
        getLock();
        for (auto& r : _opSrcRecs) r->setOpType(type);
    }
    _srcRec = src;
    _sinkRec = sink;
    _opSrcRecs.push_back(std::move(opSrc));
    if (local) _tempRec = temp;
    _isLocalMove = local;
    releaseLock();
    return 0;
}

// ---- Making the volumes and starting the stream. ----

unsigned VoMoveState::mkOpSrcSink(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol) {
    VoTrace::Depth depth;
    if (unsigned r = missingClient(VO_SITE, voErrVodMkOpSrcSink, clntVldb, clntSrcDbladeVol))
        return r;
    const unsigned long long opid = _opid;
    VoRec* opSrc = currentOpSrc();
    if (opSrc == nullptr) {
        setErr(voErrVodMkOpSrcSink, VOD_ERR_INTERNAL);
        return VOD_ERR_INTERNAL;
    }
    const bool cloned = isSrcRW() && !_isFinal;
    if (cloned) {
        if (unsigned r = cloneOpSrc(VO_SITE, clntVldb, clntSrcDbladeVol, *opSrc)) return r;
    } else if (_srcRec.vid() != opSrc->vid()) {
        VO_TR(vo_vod, vo_warn,
              "opid=%lld _srcRec.vid() != _opSrcRec.vid() isSrcRW()=%d _isFinal=%d\n", opid,
              int(isSrcRW()), int(_isFinal));
        setErr(voErrVodMkOpSrcSink, VOD_ERR_INTERNAL);
        return VOD_ERR_INTERNAL;
    }

    unsigned long long dver = 0;
    if (isFirst()) {
        // The op sink carries the source's name on the D-blade, since it
        // becomes the volume; in the VLDB, where the source's record keeps
        // the name, it is registered under one made from its part.
        VoXdrResult<vldb_record_lookup_result> found(xdr_vldb_record_lookup_result);
        if (unsigned r = lookupSrcVldb(VO_SITE, clntVldb, found)) return r;
        const std::string volName =
            found->r.r_val[0].vfsname != nullptr ? found->r.r_val[0].vfsname : "";
        VoRec named(_sinkRec);
        named.genVname(nullptr);
        if (unsigned r = makeSink(VO_SITE, clntVldb, clntSrcDbladeVol, *opSrc, _sinkRec, volName,
                                  named.getVname(), &dver))
            return r;
    } else if (!_isFinal) {
        // Every pass learns its op src's data version, not only the first:
        // the next pass's final test compares against it, and recovery of a
        // regular pass compares the op sink against the VLDB's expectation,
        // which must follow each pass.
        VO_TR(vo_srcvol, vo_debug, "opid=%lld call getDataVerFromDblade for op src%d\n", opid,
              opSrc->vid());
        VoErr err = getDataVerFromDblade(clntSrcDbladeVol, opSrc->vid(), opSrc->lid(), &dver);
        if (err != 0) {
            VO_TR(vo_srcvol, vo_warn,
                  "opid=%lld getDataVerFromDblade for op src%d err.func=%d err.funcrc=%d\n", opid,
                  opSrc->vid(), err.func(), err.funcrc());
            setAllErr(err);
            return err;
        }
    } else {
        return 0;
    }

    getLock();
    opSrc->setDver(dver);
    releaseLock();
    vldb_modify_dataVer_input in;
    memset(&in, 0, sizeof in);
    in.vfsid = _sinkRec.vid();
    memcpy(in.lp_uuid, _sinkRec.lid(), sizeof in.lp_uuid);
    in.dataVer = dver;
    VO_TR(vo_vldb, vo_entry, "opid=%lld vldb_modify_dataver_3 vfsid=%d\n", opid, in.vfsid);
    int status = 0;
    clnt_stat st = vldb_modify_dataver_3(&in, &status, clntVldb);
    if (st != RPC_SUCCESS) {
        VO_TR(vo_vldb, vo_warn, "opid=%lld vldb_modify_dataver_3 vfsid=%d failed: %s\n", opid,
              in.vfsid, clnt_sperrno(st));
        setErr(voErrVldbRecordModifyRpc, st);
        return voErrVldbRecordModifyRpc;
    }
    if (status != 0) {
        VO_TR(vo_vldb, vo_warn, "opid=%lld vldb_modify_dataver_3 vfsid=%d err %s\n", opid, in.vfsid,
              statLit(status));
        setErr(voErrVldbRecordModify, static_cast<unsigned>(status));
        return voErrVldbRecordModify;
    }
    return 0;
}

unsigned VoMoveState::startStream(CLIENT* clntSrcDbladeIncrCopy, CLIENT*) {
    VoTrace::Depth depth;
    if (clntSrcDbladeIncrCopy == nullptr) {
        VO_TR(vo_incrcopy, vo_warn, "clntSrcDbladeIncrCopy=0\n");
        setErr(voErrVodStartStream, VOD_ERR_NO_DBLADE_CLIENT);
        _dbladeIncrCopyRunning = false;
        return VOD_ERR_NO_DBLADE_CLIENT;
    }
    const VoRec* opSrc = currentOpSrc();
    const char* bad = nullptr;
    if (opSrc == nullptr || opSrc->vid() == 0)
        bad = "Src VFS ID == 0";
    else if (_sinkRec.vid() == 0)
        bad = "Sink VFS ID == 0";
    else if (_sinkRec.getDid() == 0)
        bad = "Sink Dblade ID == 0";
    if (bad != nullptr) {
        VO_TR(vo_incrcopy, vo_warn, "%s\n", bad);
        setErr(voErrVodStartStream, VOD_ERR_INTERNAL);
        _dbladeIncrCopyRunning = false;
        return VOD_ERR_INTERNAL;
    }

    u_int status = 0;
    clnt_stat st;
    const voErrFunc func = _isFinal ? voErrDbladeIncrCopyMove : voErrDbladeIncrCopyMirror;
    if (_isFinal) {
        IncrCopyMoveIn in;
        memset(&in, 0, sizeof in);
        in.opId = _opid;
        in.opType = kIncrCopyOpTypeFinalMove;
        in.srcVfsId = opSrc->vid();
        memcpy(in.srcLpUuid, opSrc->lid(), sizeof in.srcLpUuid);
        in.tmpVfsIdForSwap = _isLocalMove ? _tempRec.vid() : 0;
        in.dstVfsId = _sinkRec.vid();
        memcpy(in.dstLpUuid, _sinkRec.lid(), sizeof in.dstLpUuid);
        in.dstBladeId = _sinkRec.getDid();
        VO_TR(vo_incrcopy, vo_entry, "opid=%lld incrcopymove_1\n", _opid);
        st = incrcopymove_1(&in, &status, clntSrcDbladeIncrCopy);
        if (st != RPC_SUCCESS)
            VO_TR(vo_incrcopy, vo_warn, "opid=%lld incrcopymove_1 failed: %s\n", _opid,
                  clnt_sperrno(st));
        else if (status != 0)
            VO_TR(vo_incrcopy, vo_warn, "opid=%lld incrcopymove_1 err=%#X\n", _opid, status);
        else
            VO_TR(vo_incrcopy, vo_audit, "opid=%lld incrcopymove_1 succeeded\n", _opid);
    } else {
        u_short dstBladeId = _sinkRec.getDid();
        u_int dstVfsId = _sinkRec.vid();
        lpUuid_t dstLpUuid;
        memcpy(dstLpUuid, _sinkRec.lid(), sizeof dstLpUuid);
        IncrCopyMirrorIn in;
        memset(&in, 0, sizeof in);
        in.opId = _opid;
        in.opType = kIncrCopyOpTypeMove;
        in.srcVfsId = opSrc->vid();
        memcpy(in.srcLpUuid, opSrc->lid(), sizeof in.srcLpUuid);
        in.numDests = 1;
        in.dstBladeId.dstBladeId_len = 1;
        in.dstBladeId.dstBladeId_val = &dstBladeId;
        in.dstVfsId.dstVfsId_len = 1;
        in.dstVfsId.dstVfsId_val = &dstVfsId;
        in.dstLpUuid.dstLpUuid_len = 1;
        in.dstLpUuid.dstLpUuid_val = &dstLpUuid;
        VO_TR(vo_incrcopy, vo_entry, "opid=%lld incrcopymirror_1\n", _opid);
        st = incrcopymirror_1(&in, &status, clntSrcDbladeIncrCopy);
        if (st != RPC_SUCCESS)
            VO_TR(vo_incrcopy, vo_warn, "opid=%lld incrcopymirror_1 failed: %s\n", _opid,
                  clnt_sperrno(st));
        else if (status != 0)
            // Two blanks and none before "err": operators' filters know it so.
            VO_TR(vo_incrcopy, vo_warn, "opid=%lld  incrcopymirror_1err=%#X\n", _opid, status);
        else
            VO_TR(vo_incrcopy, vo_audit, "opid=%lld incrcopymirror_1 succeeded\n", _opid);
    }
    if (st != RPC_SUCCESS || status != 0) {
        VoErr e = VoRpcCalls::foldErr(func, st, status);
        setAllErr(e);
        // No stream to watch: the conclusion that follows must not poll one.
        _dbladeIncrCopyRunning = false;
        return e;
    }
    getLock();
    // The last pass's outcome must not stand for this one's.
    memset(&_pgrs, 0, sizeof _pgrs);
    _pgrs.isFinalLoop = _isFinal;
    _pgrs.loopNum = static_cast<int>(_iteration.load());
    if (!_isFinal) _iteration = _iteration + 1;
    releaseLock();
    return 0;
}

// ---- Watching the stream. ----

unsigned VoMoveState::progress(CLIENT* clntSrcDbladeIncrCopy) {
    VoTrace::Depth depth;
    VoXdrResult<IncrCopyProgressOut> res(xdr_IncrCopyProgressOut);
    if (unsigned r = pollStream(clntSrcDbladeIncrCopy, _pgrs, res)) return r;
    const IncrCopyPgrsOut& p = res->IncrCopyProgressOut_u.out;
    const unsigned sinks = p.dstProgress.dstProgress_len;
    if (sinks == 0) {
        VO_TR(vo_incrcopy, vo_warn, "opid=%lld no sink VFS?!\n", _opid);
        memset(&_pgrs.sink, 0, sizeof _pgrs.sink);
    } else {
        if (sinks > 1)
            VO_TR(vo_incrcopy, vo_warn, "opid=%lld moving to %d sink VFSes?!\n", _opid, sinks);
        sinkProgressOf(p.dstProgress.dstProgress_val[0], &_pgrs.sink);
    }
    _pgrs.isFinalLoop = _isFinal;
    _pgrs.loopNum = static_cast<int>(_isFinal ? _iteration.load() : _iteration.load() - 1);
    if (_pgrs.src.status == VoDone) {
        _dbladeIncrCopyRunning = false;
        if (failedStreamTest(_pgrs.rc, _pgrs.src, _pgrs.sink) != 0) _rollForward = false;
    }
    return 0;
}

unsigned VoMoveState::progress(CLIENT* clntSrcDbladeIncrCopy, VoMovePgrsOut* out) {
    unsigned r = answerProgress(clntSrcDbladeIncrCopy, _pgrs, out);
    out->isFinalLoop = _isFinal;
    return r;
}

void VoMoveState::cancel(CLIENT* clntSrcDbladeIncrCopy, VoOut* out) {
    cancelStreamTo(clntSrcDbladeIncrCopy, _sinkRec, out);
}

// ---- Conclusion. ----

unsigned VoMoveState::conclude(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol,
                               CLIENT* clntSrcDbladeIncrCopy) {
    VoTrace::Depth depth;
    if (unsigned r = missingClient(VO_SITE, voErrVodConclude, clntVldb, clntSrcDbladeVol,
                                   clntSrcDbladeIncrCopy))
        return r;
    const long long opid = static_cast<long long>(_opid);
    getLock();
    const VoMovePgrsOut p = _pgrs;
    releaseLock();
    // A cancelled pass, or one whose start failed (its progress is still
    // the cleared one startStream left), fails here.
    const bool ok =
        traceFailedStreamTest(VO_SITE, p.rc, p.src, p.sink) == 0 && !_setCancel && _rollForward;
    if (!ok) _rollForward = false;
    VO_TR(vo_vod, vo_audit, "opid=%lld _rollForward=%d  _isLocalMove=%d  _isFinal=%d\n", opid,
          int(_rollForward), int(_isLocalMove), int(_isFinal));
    if (!_isFinal) return concludeRegularMove(clntVldb, clntSrcDbladeVol, clntSrcDbladeIncrCopy);
    if (ok) return concludeFinalMove(clntVldb, clntSrcDbladeVol, clntSrcDbladeIncrCopy);
    VO_TR(vo_vod, vo_audit, "opid=%lld recover final move\n", opid);
    return recoverFinalMoveFromCrash(clntVldb, clntSrcDbladeVol, clntSrcDbladeIncrCopy);
}

unsigned VoMoveState::concludeRegularMove(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol,
                                          CLIENT* clntSrcDbladeIncrCopy) {
    VoTrace::Depth depth;
    const long long opid = static_cast<long long>(_opid);
    if (_rollForward) {
        // The pass is done; the next one is not until it has run.
        _rollForward = false;
        // Until the next pass's stream is known to the D-blade, a poll would
        // find the last one forgotten and take the move for ended: handlers
        // answer VoJobInit meanwhile, as for a move not yet started. start()
        // leaves the state at VO_JOB_STARTED.
        getLock();
        setJobState(VO_JOB_INIT);
        releaseLock();
        VO_TR(vo_vod, vo_audit, "opid=%lld call prepare\n", opid);
        unsigned r = prepare(clntVldb, clntSrcDbladeVol);
        if (r != 0) {
            VO_TR(vo_vod, vo_warn, "opid=%lld preparation for next pass failed\n", opid);
        } else {
            VO_TR(vo_vod, vo_audit, "opid=%lld call start\n", opid);
            r = start(clntVldb, clntSrcDbladeVol, clntSrcDbladeIncrCopy);
            if (r == 0) {
                VO_TR(vo_vod, vo_audit, "opid=%lld successfully started next pass\n", opid);
                return 0;
            }
            VO_TR(vo_vod, vo_warn, "opid=%lld failed to start next pass\n", opid);
        }
        setJobState(VO_JOB_STARTED);
        if (_rollForward) {
            VO_TR(vo_vod, vo_warn, "opid=%lld expect _rollforward to be FALSE!\n", opid);
            _rollForward = false;
        }
        voErrFunc func;
        unsigned funcrc;
        getErr(&func, &funcrc);
        // Kept exactly at 10200: the lower transport codes do not count.
        if (static_cast<unsigned>(func) >= voErrVldbRecordLookupRpc) {
            VO_TR(vo_vod, vo_warn, "opid=%lld skip roll back because RPC caused the err\n", opid);
            return r;
        }
    }

    // Rolled back: the source was never touched; what the move made goes.
    unsigned failed = 0;
    VO_TR(vo_vod, vo_audit, "opid=%lld call deleteSink\n", opid);
    if (unsigned r = deleteSink(clntVldb)) {
        VO_TR(vo_vod, vo_warn, "opid=%lld deleteSink err=%d\n", opid, r);
        failed = r;
    }
    VO_TR(vo_vod, vo_audit, "opid=%lld call deleteOpSrc\n", opid);
    if (unsigned r = deleteOpSrc(clntVldb, clntSrcDbladeVol)) {
        VO_TR(vo_vod, vo_warn, "opid=%lld deleteOpSrc err=%d\n", opid, r);
        if (failed == 0) failed = r;
    }
    return finishRecords(failed, clntVldb);
}

unsigned VoMoveState::concludeFinalMove(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol,
                                        CLIENT* clntSrcDbladeIncrCopy) {
    VoTrace::Depth depth;
    const long long opid = static_cast<long long>(_opid);
    if (getDbladeIncrCopyStatus()) {
        VO_TR(vo_vod, vo_warn, "opid=%lld sanity check failed\n", opid);
        setErr(voErrVodSanityCheck, VOD_ERR_INTERNAL);
        return VOD_ERR_INTERNAL;
    }
    unsigned failed = 0;
    if (_rollForward) {
        if (!_keepSrc) {
            // The old source, and its temp id after a local swap, are all
            // that is left of the volume on the source LP.
            if (_isLocalMove && _tempRec.vid() != 0) {
                VoErr err = dbladeDeleteVfs(clntSrcDbladeVol, _tempRec.vid(), _tempRec.lid());
                if (err != 0 && !(err.func() == voErrDbladeVolDelete &&
                                  unsigned(err) == TARN_ERR_LPMMISMATCH)) {
                    VO_TR(vo_srcvol, vo_warn,
                          "opid=%Lu dbladeDeleteVfs tempVfsid=%u err.func=%u err.funcrc=%u\n",
                          _opid, _tempRec.vid(), unsigned(err.func()), err.funcrc());
                    setAllErr(err);
                    failed = err;
                }
            }
            VoErr err = dbladeDeleteVfs(clntSrcDbladeVol, _srcRec.vid(), _srcRec.lid());
            if (err != 0 &&
                !(err.func() == voErrDbladeVolDelete && unsigned(err) == TARN_ERR_LPMMISMATCH)) {
                VO_TR(vo_srcvol, vo_warn,
                      "opid=%Lu dbladeDeleteVfs srcVfsid=%u err.func=%u err.funcrc=%u\n", _opid,
                      _srcRec.vid(), unsigned(err.func()), err.funcrc());
                setAllErr(err);
                if (failed == 0) failed = err;
            }
        }
        // The op sink's id lives on no D-blade any more: the volume took the
        // source's, and the VLDB record of the source moved to the target.
        // So the op sink's record is the stale one.
        VoErr err = vldbDeleteRecord(clntVldb, _sinkRec.vid(), _sinkRec.lid());
        if (err != 0) {
            VO_TR(vo_vldb, vo_warn,
                  "opid=%lld vldbDeleteRecord vfsid=%d err.func=%d err.funcrc=%d\n", opid,
                  _sinkRec.vid(), err.func(), err.funcrc());
            setAllErr(err);
            if (failed == 0) failed = err;
        }
    } else if (unsigned r = deleteSink(clntVldb)) {
        VO_TR(vo_vod, vo_warn, "opid=%lld got error from deleteSink()\n", opid);
        failed = r;
    }
    VO_TR(vo_vod, vo_audit, "opid=%lld call deleteOpSrc\n", opid);
    if (unsigned r = deleteOpSrc(clntVldb, clntSrcDbladeVol)) {
        VO_TR(vo_vod, vo_warn, "opid=%lld deleteOpSrc err=%d\n", opid, r);
        if (failed == 0) failed = r;
    }
    (void)clntSrcDbladeIncrCopy;
    return finishRecords(failed, clntVldb);
}

unsigned VoMoveState::deleteSink(CLIENT* clntVldb) {
    VoTrace::Depth depth;
    const long long opid = static_cast<long long>(_opid);
    if (_sinkRec.vid() == 0) return 0;  // never allocated: nothing was made
    VO_TR(vo_sinkvol, vo_debug, "opid=%lld call mkDbladeClient\n", opid);
    VoRPCClient sinkVol;
    VoErr err = openDbladeOf(VO_SITE, clntVldb, _sinkRec.lid(), &sinkVol, nullptr);
    if (err != 0) return err;
    if (unsigned r = deleteVolume(VO_SITE, VoTrace::vo_sinkvol, clntVldb, sinkVol, _sinkRec,
                                  VolDeleteWording::moveSink))
        return r;
    // Once the final pass began, the D-blade may have given the op sink the
    // source's id on the target LP. Unless the VLDB says the volume lives
    // there (which is a roll forward, never this path), that copy goes too:
    // left, it would be a second volume under one id.
    if (!_isFinal) return 0;
    int there = 0;
    err = getDataVerFromVLDB(clntVldb, _srcRec.vid(), _sinkRec.lid(), &there, nullptr);
    if (err != 0) {
        setAllErr(err);
        return err;
    }
    if (there) return 0;
    err = getDataVerFromDblade(sinkVol, _srcRec.vid(), _sinkRec.lid(), nullptr);
    if (volumeAbsent(err)) return 0;
    VO_TR(vo_sinkvol, vo_audit, "opid=%lld delete swapped sink vfs=%d\n", opid, _srcRec.vid());
    err = dbladeDeleteVfs(sinkVol, _srcRec.vid(), _sinkRec.lid());
    if (err != 0 &&
        !(err.func() == voErrDbladeVolDelete && unsigned(err) == TARN_ERR_LPMMISMATCH)) {
        setAllErr(err);
        return err;
    }
    return 0;
}

unsigned VoMoveState::deleteOpSrc(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol) {
    VoTrace::Depth depth;
    const long long opid = static_cast<long long>(_opid);
    unsigned failed = 0;
    for (const auto& r : _opSrcRecs) {
        if (r->vid() == _srcRec.vid()) {
            VO_TR(vo_vod, vo_debug, "opid=%lld skip src\n", opid);
            continue;
        }
        if (unsigned e = deleteVolume(VO_SITE, VoTrace::vo_srcvol, clntVldb, clntSrcDbladeVol, *r,
                                      VolDeleteWording::moveOpSrc))
            if (failed == 0) failed = e;
    }
    return failed;
}

// ---- After a crash. ----

unsigned VoMoveState::resurrectFromVoRec(unsigned long long opid, CLIENT*) {
    VoTrace::Depth depth;
    _opid = opid;
    VO_TR(vo_vod, vo_audit, "resurrect MOVE _opid = %lld\n", opid);
    std::optional<VodbCacheLock> cacheLock;
    if (!VodbCacheLock::heldByThisThread()) cacheLock.emplace();
    const auto& cache = VodbCacheLock::getVodbCache();
    bool haveSrc = false;
    bool final = false;
    for (const VoRec* r : cache) {
        if (r->opid() != opid) continue;
        if (r->opType() != VoRec::VODB_VOLOP_MOVE && r->opType() != VoRec::VODB_VOLOP_FINALMOVE) {
            VO_TR(vo_vod, vo_warn, "opid=%lld is found but opType is %d\n", opid,
                  static_cast<int>(r->opType()));
            setErr(voErrVodCrashRecovery, VOD_ERR_INTERNAL);
            return VOD_ERR_INTERNAL;
        }
        if (r->opType() == VoRec::VODB_VOLOP_FINALMOVE) final = true;
        switch (r->role()) {
            case VoRec::VODB_ROLE_SRC:
                _srcRec = *r;
                haveSrc = true;
                break;
            case VoRec::VODB_ROLE_OPSINK:
                _sinkRec = *r;
                break;
            case VoRec::VODB_ROLE_SINK:
                break;  // the volume's identity after the move: nothing to rebuild
            case VoRec::VODB_ROLE_OPSRC: {
                std::unique_ptr<VoRec> p(new (std::nothrow) VoRec(*r));
                if (!p) {
                    VO_TR(vo_vod, vo_warn, "opid=%lld no mem\n", opid);
                    setErr(voErrVodAllocVoRec, VOD_ERR_NO_MEMORY);
                    return VOD_ERR_NO_MEMORY;
                }
                _opSrcRecs.push_back(std::move(p));
                break;
            }
            case VoRec::VODB_ROLE_TEMP:
                _tempRec = *r;
                _isLocalMove = true;
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
    if (!haveSrc) {
        setErr(voErrVodCrashRecovery, VOD_ERR_INTERNAL);
        return VOD_ERR_INTERNAL;
    }
    _isFinal = final;
    // A pass counts once its op src is recorded.
    _iteration = static_cast<unsigned>(_opSrcRecs.size());
    _vodbRecordStored = true;
    return 0;
}

unsigned VoMoveState::recoverFromCrash(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol,
                                       CLIENT* clntSrcDbladeIncrCopy) {
    VoTrace::Depth depth;
    unsigned over = 0;
    if (recoveryIsOver(VO_SITE, "Move", clntVldb, clntSrcDbladeVol, clntSrcDbladeIncrCopy, &over))
        return over;
    // Whether a volume is read-write decides how the passes go; a rebuilt
    // move has not seen its source yet.
    for (const VoRec* where : {&_srcRec, &_sinkRec}) {
        VoXdrResult<vldb_record_lookup_result> found(xdr_vldb_record_lookup_result);
        if (lookupVfs(clntVldb, _srcRec.vid(), where->lid(), found.get()) == RPC_SUCCESS &&
            found->result == 0 && found->r.r_len == 1) {
            setSrcVfsType(found->r.r_val[0].vfstype);
            break;
        }
    }
    if (!_isFinal)
        return recoverRegularMoveFromCrash(clntVldb, clntSrcDbladeVol, clntSrcDbladeIncrCopy);
    return recoverFinalMoveFromCrash(clntVldb, clntSrcDbladeVol, clntSrcDbladeIncrCopy);
}

unsigned VoMoveState::determineRegularMoveRecoveryStrategy(CLIENT* clntVldb) {
    return determineRecoveryStrategy(clntVldb, _sinkRec);
}

unsigned VoMoveState::recoverRegularMoveFromCrash(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol,
                                                  CLIENT* clntSrcDbladeIncrCopy) {
    VoTrace::Depth depth;
    const long long opid = static_cast<long long>(_opid);
    VO_TR(vo_vod, vo_audit, "opid=%lld call determineRegularMoveRecoveryStrategy\n", opid);
    if (determineRegularMoveRecoveryStrategy(clntVldb) != 0) _rollForward = false;
    // The VODB keeps no data versions: the next pass's final test needs the
    // last op src's, so it is read again.
    if (_rollForward) {
        VoRec* last = currentOpSrc();
        unsigned long long dver = 0;
        if (last == nullptr ||
            getDataVerFromDblade(clntSrcDbladeVol, last->vid(), last->lid(), &dver) != 0) {
            _rollForward = false;
        } else {
            getLock();
            last->setDver(dver);
            releaseLock();
        }
    }
    VO_TR(vo_vod, vo_audit, "opid=%lld _rollForward=%d\n", opid, int(_rollForward));
    VO_TR(vo_vod, vo_audit, "opid=%lld call concludeRegularMove\n", opid);
    return concludeRegularMove(clntVldb, clntSrcDbladeVol, clntSrcDbladeIncrCopy);
}

unsigned VoMoveState::determineFinalMoveRecoveryStrategy(CLIENT* clntVldb) {
    VoTrace::Depth depth;
    const long long opid = static_cast<long long>(_opid);
    _rollForward = false;
    int switched = 0;
    VoErr err = getDataVerFromVLDB(clntVldb, _srcRec.vid(), _sinkRec.lid(), &switched, nullptr);
    if (err != 0) {
        setAllErr(err);
        return err;
    }
    if (switched) {
        _rollForward = true;
    } else if (_isLocalMove) {
        VoRPCClient sinkVol;
        err = mkDbladeClient(clntVldb, _sinkRec.lid(), &sinkVol, nullptr);
        if (err != 0) {
            VO_TR(vo_vod, vo_warn, "fail to contact sink dblade\n");
            setAllErr(err);
            return err;
        }
        err = getDataVerFromDblade(sinkVol, _srcRec.vid(), _sinkRec.lid(), nullptr);
        if (err == 0) {
            _rollForward = true;
            VO_TR(vo_vod, vo_audit,
                  "opid=%lld determineFinalMoveRecoveryStrategy _rollForward = %d\n", opid,
                  int(_rollForward));
        } else {
            // The swap has not happened: the source is still itself. Both
            // reads succeeding is the same reading.
            VoErr a = getDataVerFromDblade(sinkVol, _srcRec.vid(), _srcRec.lid(), nullptr);
            VoErr b = getDataVerFromDblade(sinkVol, _sinkRec.vid(), _sinkRec.lid(), nullptr);
            if (a != 0 || b != 0)
                VO_TR(vo_vod, vo_warn, " _rollForward = FALSE error = 0x%x\n",
                      a != 0 ? unsigned(a) : unsigned(b));
        }
    }
    VO_TR(vo_vod, vo_audit, "opid=%lld _rollForward = %d\n", opid, int(_rollForward));
    return 0;
}

unsigned VoMoveState::rollForwardFinalMoveAfterRecovery(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol,
                                                        CLIENT* clntSrcDbladeIncrCopy) {
    VoTrace::Depth depth;
    const long long opid = static_cast<long long>(_opid);
    const unsigned vid = _srcRec.vid();
    VO_TR(vo_sinkvol, vo_debug, "opid=%lld call mkDbladeClient\n", opid);
    VoRPCClient sinkVol;
    VoErr err = openDbladeOf(VO_SITE, clntVldb, _sinkRec.lid(), &sinkVol, nullptr);
    if (err != 0) return err;

    // The D-blade left the moved volume an ordinary one of the source's
    // kind; after a crash that is made sure of.
    VO_TR(vo_sinkvol, vo_audit, "opid=%lld dbladeVfsSetAttrs vfsid=%d\n", opid, vid);
    {
        VolSetattrIn in;
        memset(&in, 0, sizeof in);
        in.vfsID = vid;
        memcpy(in.lpUUID, _sinkRec.lid(), sizeof in.lpUUID);
        in.set_attrs.how = isSrcRW() ? VOLSET_MAKE_RW : VOLSET_MAKE_RO;
        char empty[] = "";
        in.set_attrs.attrs.volname = empty;
        in.set_attrs.attrs.mountedatvolname = empty;
        VoXdrResult<VolSetattrOut_t> out(xdr_VolSetattrOut_t);
        unsigned rc = VoRpcCalls::dbladeVfsSetAttrs(&in, out.get(), sinkVol, kAttrTimeoutSec);
        if (rc != 0 || out->returnCode != 0) {
            VO_TR(vo_sinkvol, vo_warn,
                  "opid=%lld dbladeVfsSetAttrs vfsid=%d LP=" VO_LP_FMT " failed: %s\n", opid, vid,
                  VO_LP_ARGS(_sinkRec.lid()), rc != 0 ? rpcErrText(rc) : "D-blade refused");
            VoErr e = VoRpcCalls::foldErr(voErrDbladeVolSetAttr, static_cast<clnt_stat>(rc),
                                          rc == 0 ? out->returnCode : 0);
            setAllErr(e);
            return e;
        }
    }

    int switched = 0;
    err = getDataVerFromVLDB(clntVldb, vid, _sinkRec.lid(), &switched, nullptr);
    if (err == 0 && !switched) {
        vldb_vfs_move_input in;
        memset(&in, 0, sizeof in);
        in.vfsid = vid;
        memcpy(in.oldlp, _srcRec.lid(), sizeof in.oldlp);
        memcpy(in.newlp, _sinkRec.lid(), sizeof in.newlp);
        VO_TR(vo_vldb, vo_entry, "opid=%lld vldb_vfs_move_3 vfsid=%d\n", opid, vid);
        int status = 0;
        clnt_stat st = vldb_vfs_move_3(&in, &status, clntVldb);
        if (st != RPC_SUCCESS) {
            VO_TR(vo_vldb, vo_warn, "opid=%lld vldb_vfs_move_3 vfsid=%d failed: %s\n", opid, vid,
                  clnt_sperrno(st));
            err = VoRpcCalls::foldErr(voErrVldbRecordModify, st, 0);
        } else if (status != 0) {
            VO_TR(vo_vldb, vo_warn, "opid=%lld vldb_vfs_move_3 vfsid=%d err %s\n", opid, vid,
                  statLit(status));
            err = VoRpcCalls::foldErr(voErrVldbRecordModify, RPC_SUCCESS,
                                      static_cast<unsigned>(status));
        }
    }
    if (err != 0) {
        setAllErr(err);
        return err;
    }
    _rollForward = true;
    return concludeFinalMove(clntVldb, clntSrcDbladeVol, clntSrcDbladeIncrCopy);
}

unsigned VoMoveState::rollBackFinalMoveAfterRecovery(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol,
                                                     CLIENT* clntSrcDbladeIncrCopy) {
    _rollForward = false;
    return concludeFinalMove(clntVldb, clntSrcDbladeVol, clntSrcDbladeIncrCopy);
}

unsigned VoMoveState::recoverFinalMoveFromCrash(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol,
                                                CLIENT* clntSrcDbladeIncrCopy) {
    VoTrace::Depth depth;
    const long long opid = static_cast<long long>(_opid);
    if (determineFinalMoveRecoveryStrategy(clntVldb) != 0) {
        // Nothing can be decided without the VLDB or the target D-blade:
        // the records stay, and the next look tries again.
        return VOD_ERR_INTERNAL;
    }
    VO_TR(vo_vod, vo_audit, "opid=%lld recoverFinalMoveFromCrash _rollForward = %d\n", opid,
          int(_rollForward));
    unsigned r =
        _rollForward
            ? rollForwardFinalMoveAfterRecovery(clntVldb, clntSrcDbladeVol, clntSrcDbladeIncrCopy)
            : rollBackFinalMoveAfterRecovery(clntVldb, clntSrcDbladeVol, clntSrcDbladeIncrCopy);
    if (r != 0) VO_TR(vo_vod, vo_warn, "opid=%lld deleteVodbRec err=%d\n", opid, r);
    return r;
}
