// Handlers of the move requests: start, progress, cancel, pause and resume.
//
// All run on the service thread. A move found in the registry is held by a
// registry reference and its lock while the request is forwarded to it
// (VoServer::lookupLockForward); until its first worker turn it answers
// VoJobInit.
#include <string.h>

#include <new>

#include "vo_opreq.h"
#include "voerrors.h"
#include "vomovestate.h"
#include "voserver.h"
#include "vostatelist.h"
#include "votrace.h"

using voopreq::MoveKey;
using voopreq::nothingOnFound;
using voopreq::setTriple;

void VoServer::vfsMove(VoLidIn* in, VoOut* out) {
    VoTrace::Depth depth;
    VoMoveState* op = new (std::nothrow) VoMoveState();
    if (op == nullptr) {
        VO_TR(vo_vod, vo_fatal, "Cannot create VoMoveState\n");
        setTriple(out, voErrNoResource, voErrVodAllocVoState, VOD_ERR_NO_MEMORY);
        return;
    }
    setTriple(out, voErrRcSuccess, voErrFuncSuccess, 0);
    if (!op->addStream(in->vidSrc, in->lidSrc, in->lidSink)) {
        VO_TR(vo_vod, vo_warn, "addStream failed\n");
        out->rc = voErrValidate;
        op->getErr(&out->func, &out->funcrc);
        delete op;
        return;
    }
    unsigned code = voStart(op, &out->rc, &out->func, &out->funcrc);
    if (code != 0) {
        keepFailedStart(op, code, out->rc, out->func, out->funcrc, VoTrace::vo_warn);
        return;
    }
    voStateList.addNewOp(op, 0);
    VO_TR(vo_vod, vo_audit, "Store pVo=0x%p in _voStates. _voStates.size=%d\n\n",
          static_cast<void*>(op), voStateList.getSize());
}

void VoServer::vfsMovePgrs(VoIn* in, VoMovePgrsOut* out) {
    VoTrace::Depth depth;
    memset(out, 0, sizeof *out);
    unsigned long long ended = 0;
    lookupLockForward(
        MoveKey{__func__, in->vidSrc, in->lidSrc}, out, VoTrace::vo_audit,
        // Unlike copy and mirror, a move answers voOpid 0 unless its
        // progress fills it in: the record is cleared again once found.
        [out](VoState*) { memset(out, 0, sizeof *out); },
        [out, &ended](VoState* op, CLIENT* c) {
            VO_TR(vo_vod, vo_audit, "opid=%lld call pVoMove->progress()\n", op->getOpid());
            static_cast<VoMoveState*>(op)->progress(c, out);
            if (out->rc == voErrEndStream && !op->getDbladeIncrCopyStatus() &&
                !op->opCompleteReceived())
                ended = op->getOpid();
        });
    // As for a copy: a poll that finds the pass's stream over stands in for
    // a completion notice that a busy worker dropped.
    if (ended != 0) opComplete(ended);
}

void VoServer::vfsMoveCancel(VoIn* in, VoOut* out) {
    VoTrace::Depth depth;
    lookupLockForward(MoveKey{__func__, in->vidSrc, in->lidSrc}, out, VoTrace::vo_warn,
                      nothingOnFound, [out](VoState* op, CLIENT* c) {
                          VO_TR(vo_vod, vo_audit, "opid=%lld call pVoMove->cancel()\n",
                                op->getOpid());
                          static_cast<VoMoveState*>(op)->cancel(c, out);
                      });
}

void VoServer::vfsMovePause(VoIn* in, VoOut* out) {
    VoTrace::Depth depth;
    lookupLockForward(MoveKey{__func__, in->vidSrc, in->lidSrc}, out, VoTrace::vo_warn,
                      nothingOnFound, [out](VoState* op, CLIENT* c) {
                          VO_TR(vo_vod, vo_audit, "opid=%lld call pVoMove->pause()\n",
                                op->getOpid());
                          op->pause(c, out);
                      });
}

void VoServer::vfsMoveResume(VoIn* in, VoOut* out) {
    VoTrace::Depth depth;
    lookupLockForward(MoveKey{__func__, in->vidSrc, in->lidSrc}, out, VoTrace::vo_warn,
                      nothingOnFound, [out](VoState* op, CLIENT* c) {
                          VO_TR(vo_vod, vo_audit, "opid=%lld call pVoMove->resume()\n",
                                op->getOpid());
                          op->resume(c, out);
                      });
}
