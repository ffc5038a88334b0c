// Handlers of the mirror requests: start, progress, cancel, pause and resume.
//
// All run on the service thread. A mirror found in the registry is held by a
// registry reference and its lock while the request is forwarded to it
// (VoServer::lookupLockForward); until its first worker turn it answers
// VoJobInit.
#include <string.h>

#include <new>

#include "util/xdrproc.h"
#include "vldb_lit.h"
#include "vo_opreq.h"
#include "voerrors.h"
#include "vomirrorstate.h"
#include "vorpcclient.h"
#include "voserver.h"
#include "vostatelist.h"
#include "votrace.h"

using voopreq::MirrorKey;
using voopreq::nothingOnFound;
using voopreq::setTriple;

void VoServer::vfsMirror(VoIn* in, VoOut* out) {
    VoTrace::Depth depth;
    VoRPCClient vldb;
    vldb.clnttcp_create(localhost, VLDB_PROG, VLDB_VERS);
    if (static_cast<CLIENT*>(vldb) == nullptr) {
        VO_TR(vo_vod, vo_warn, "cannot make vldb client to %s\n", localhost);
        setTriple(out, voErrNoResource, voErrVodClntTcpCreate, VOD_ERR_NO_VLDB_CLIENT);
        return;
    }
    setTriple(out, voErrRcSuccess, voErrFuncSuccess, 0);
    // Every LP the VLDB lists under the mirror id is a destination; the bit
    // that selects the mirror copies is fixed.
    const unsigned mirrorId = in->vidSrc | VoMirrorState::MIRROR_ID_BIT;
    vldb_record_lookup_input q;
    memset(&q, 0, sizeof q);
    q.input_mask = VFS_ID;
    q.r.vfsid = mirrorId;
    char empty[] = "";
    q.r.family = empty;
    q.r.vfsname = empty;
    VO_TR(vo_vldb, vo_entry, "vldb_record_lookup_3 vfsid=%d\n", mirrorId);
    VoXdrResult<vldb_record_lookup_result> found(xdr_vldb_record_lookup_result);
    clnt_stat st = vldb_record_lookup_3(&q, found.get(), vldb);
    if (st != RPC_SUCCESS) {
        VO_TR(vo_vldb, vo_warn, "vldb_record_lookup_3 vfsid=%d failed: %s\n", mirrorId,
              clnt_sperrno(st));
        setTriple(out, voErrRpcFailure, voErrVldbRecordLookupRpc, static_cast<unsigned>(st));
        return;
    }
    if (found->result == VLDB_RECORD_NOT_FOUND) {
        // The lookup input's LP id is never filled: the line always shows zeros.
        VO_TR(vo_vldb, vo_warn, "No VLDB record for vfsid=%d LP=" VO_LP_FMT "\n", mirrorId,
              VO_LP_ARGS(q.r.lp_uuid));
        setTriple(out, voErrValidate, voErrVldbRecordLookup, VLDB_RECORD_NOT_FOUND);
        return;
    }
    if (found->result != 0) {
        VO_TR(vo_vldb, vo_warn, "vldb_record_lookup_3 vfsid=%d err %s\n", mirrorId,
              statLit(found->result));
        setTriple(out, voErrValidate, voErrVldbRecordLookup, static_cast<unsigned>(found->result));
        return;
    }
    if (found->r.r_len == 0) {
        VO_TR(vo_vldb, vo_warn, "Expect at least one VFS vfsid=%d. Got %d\n", mirrorId, 0);
        setTriple(out, voErrSrcVFSNotExist, voErrVldbRecordLookup, VLDB_RECORD_NOT_FOUND);
        return;
    }
    VoMirrorState* op = new (std::nothrow) VoMirrorState();
    if (op == nullptr) {
        VO_TR(vo_vod, vo_fatal, "Cannot create VoMirrorState\n");
        setTriple(out, voErrNoResource, voErrVodAllocVoState, VOD_ERR_NO_MEMORY);
        return;
    }
    bool any = false;
    for (u_int i = 0; i < found->r.r_len; i++) {
        const Rec& r = found->r.r_val[i];
        // A refused destination does not stop the others.
        if (op->addStream(in->vidSrc, in->lidSrc, r.lp_uuid, r.dataVer)) any = true;
    }
    vldb.clntdestroy();
    if (!any) {
        VO_TR(vo_vod, vo_warn, "Cannot add even one stream\n");
        out->rc = voErrValidate;
        op->getErr(&out->func, &out->funcrc);
        delete op;
        return;
    }
    unsigned code = voStart(op, &out->rc, &out->func, &out->funcrc);
    if (code == 0 || code == VOD_ERR_LOCAL_MIRROR) {
        // A mirror only to its own LP counts as started.
        voStateList.addNewOp(op, code);
        VO_TR(vo_vod, vo_audit, "Store pVo=0x%p in _voStates. _voStates.size=%d\n\n",
              static_cast<void*>(op), voStateList.getSize());
        return;
    }
    // Every mirror already up to date is an expected refusal.
    const bool expected = out->rc == voErrValidate && out->func == voErrVodValidate &&
                          out->funcrc == VOD_ERR_UP_TO_DATE;
    keepFailedStart(op, code, out->rc, out->func, out->funcrc,
                    expected ? VoTrace::vo_audit : VoTrace::vo_warn);
}

void VoServer::vfsMirrorPgrs(VoIn* in, VoMirrorPgrsOut* out) {
    VoTrace::Depth depth;
    memset(out, 0, sizeof *out);
    unsigned long long ended = 0;
    lookupLockForward(
        MirrorKey{__func__, in->vidSrc, in->lidSrc}, out, VoTrace::vo_audit,
        [out](VoState* op) { out->voOpid = op->getOpid(); },
        [out, &ended](VoState* op, CLIENT* c) {
            VO_TR(vo_vod, vo_audit, "opid=%lld call pVoMirror->progress()\n", op->getOpid());
            static_cast<VoMirrorState*>(op)->progress(c, out);
            if (out->rc == voErrEndStream && !op->getDbladeIncrCopyStatus() &&
                !op->opCompleteReceived())
                ended = op->getOpid();
        });
    // As for a copy: a poll that finds the stream over stands in for a
    // completion notice that a busy worker dropped.
    if (ended != 0) opComplete(ended);
}

void VoServer::vfsMirrorCancel(VoLidIn* in, VoOut* out) {
    VoTrace::Depth depth;
    lookupLockForward(MirrorKey{__func__, in->vidSrc, in->lidSrc}, out, VoTrace::vo_warn,
                      nothingOnFound, [in, out](VoState* op, CLIENT* c) {
                          VO_TR(vo_vod, vo_audit, "opid=%lld call pVoMirror->cancel()\n",
                                op->getOpid());
                          static_cast<VoMirrorState*>(op)->cancel(c, in->lidSink, out);
                      });
}

void VoServer::vfsMirrorPause(VoIn* in, VoOut* out) {
    VoTrace::Depth depth;
    lookupLockForward(MirrorKey{__func__, in->vidSrc, in->lidSrc}, out, VoTrace::vo_warn,
                      nothingOnFound, [out](VoState* op, CLIENT* c) {
                          VO_TR(vo_vod, vo_audit, "opid=%lld call pVoMirror->pause()\n",
                                op->getOpid());
                          op->pause(c, out);
                      });
}

void VoServer::vfsMirrorResume(VoIn* in, VoOut* out) {
    VoTrace::Depth depth;
    lookupLockForward(MirrorKey{__func__, in->vidSrc, in->lidSrc}, out, VoTrace::vo_warn,
                      nothingOnFound, [out](VoState* op, CLIENT* c) {
                          VO_TR(vo_vod, vo_audit, "opid=%lld call pVoMirror->resume()\n",
                                op->getOpid());
                          op->resume(c, out);
                      });
}

void VoServer::vfsMirrorJoinGroup(VoLidVnameIn* in, VoVidOut* out) {
    VoTrace::Depth depth;
    out->vid = 0;
    VoRPCClient vldb;
    vldb.clnttcp_create(localhost, VLDB_PROG, VLDB_VERS);
    if (static_cast<CLIENT*>(vldb) == nullptr) {
        VO_TR(vo_vod, vo_warn, "cannot make vldb client to %s\n", localhost);
        setTriple(out, voErrNoResource, voErrVodClntTcpCreate, VOD_ERR_NO_VLDB_CLIENT);
        return;
    }
    VO_TR(vo_vod, vo_audit, "call joinGroup() src %d sink %d\n", in->vidSrc,
          in->vidSrc | VoMirrorState::MIRROR_ID_BIT);
    VoMirrorState::joinGroup(vldb, in, out);
}

void VoServer::vfsMirrorLeaveGroup(VoVnameIn* in, VoVidOut* out) {
    VoTrace::Depth depth;
    out->vid = 0;
    VoRPCClient vldb, incrcopy, dbladeVol;
    unsigned code = batchClntCreate(vldb, incrcopy, dbladeVol);
    if (code != 0) {
        VO_TR(vo_vod, vo_warn, "cannot make rpc client\n");
        setTriple(out, voErrNoResource, voErrVodClntTcpCreate, code);
        return;
    }
    setTriple(out, voErrRcSuccess, voErrFuncSuccess, 0);
    VO_TR(vo_vod, vo_audit, "call leaveGroup() vfsid=%d\n", in->vid);
    VoMirrorState::leaveGroup(vldb, dbladeVol, in, out);
}
