// Handlers of the copy requests: start, progress, cancel, pause and resume.
//
// All run on the service thread. A copy found in the registry is held by a
// registry reference and its lock while the request is forwarded to it
// (VoServer::lookupLockForward); until its first worker turn it answers
// VoJobInit.
#include <string.h>

#include <new>

#include "vo_opreq.h"
#include "vocopystate.h"
#include "voerrors.h"
#include "voserver.h"
#include "vostatelist.h"
#include "votrace.h"

using voopreq::CopyKey;
using voopreq::nothingOnFound;
using voopreq::setTriple;

void VoServer::vfsCopy(VoLidVnameIn* in, VoVidOut* out) {
    VoTrace::Depth depth;
    out->vid = 0;
    VoCopyState* op = new (std::nothrow) VoCopyState();
    if (op == nullptr) {
        VO_TR(vo_vod, vo_fatal, "Cannot create VoCopyState\n");
        setTriple(out, voErrNoResource, voErrVodAllocVoState, VOD_ERR_NO_MEMORY);
        return;
    }
    setTriple(out, voErrRcSuccess, voErrFuncSuccess, 0);
    if (!op->addStream(in->vidSrc, in->lidSrc, in->lidSink, in->vnameSink)) {
        // The blank before the newline is part of the line operators know.
        VO_TR(vo_vod, vo_warn, "addStream failed \n");
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
    VO_TR(vo_vod, vo_audit, "Store pVo=0x%p in _voStates. _voStates.size=%d\n",
          static_cast<void*>(op), voStateList.getSize());
    // Set by mkRec in voStart and never changed after: safe to read while a
    // worker already runs the copy.
    out->vid = op->sinkVid();
}

void VoServer::vfsCopyPgrs(VoVidLidIn* in, VoCopyPgrsOut* out) {
    VoTrace::Depth depth;
    memset(out, 0, sizeof *out);
    unsigned long long ended = 0;
    lookupLockForward(
        CopyKey{__func__, in->vidSrc, in->lidSrc, in->vidSink, in->lidSink}, out, VoTrace::vo_audit,
        [out](VoState* op) { out->voOpid = op->getOpid(); },
        [out, &ended](VoState* op, CLIENT* c) {
            VO_TR(vo_vod, vo_audit, "opid=%lld call pVoCopy->progress()\n", op->getOpid());
            static_cast<VoCopyState*>(op)->progress(c, out);
            if (out->rc == voErrEndStream && !op->getDbladeIncrCopyStatus() &&
                !op->opCompleteReceived())
                ended = op->getOpid();
        });
    // The D-blade's completion notice is dropped while the start job still
    // holds the copy; a poll that finds the stream over stands in for it, so
    // the copy is concluded now rather than at the registry's next check.
    if (ended != 0) opComplete(ended);
}

void VoServer::vfsCopyCancel(VoVidLidIn* in, VoOut* out) {
    VoTrace::Depth depth;
    lookupLockForward(CopyKey{__func__, in->vidSrc, in->lidSrc, in->vidSink, in->lidSink}, out,
                      VoTrace::vo_warn, nothingOnFound, [out](VoState* op, CLIENT* c) {
                          VO_TR(vo_vod, vo_audit, "opid=%lld call pVoCopy->cancel()\n",
                                op->getOpid());
                          static_cast<VoCopyState*>(op)->cancel(c, out);
                      });
}

void VoServer::vfsCopyPause(VoVidLidIn* in, VoOut* out) {
    VoTrace::Depth depth;
    lookupLockForward(CopyKey{__func__, in->vidSrc, in->lidSrc, in->vidSink, in->lidSink}, out,
                      VoTrace::vo_warn, nothingOnFound, [out](VoState* op, CLIENT* c) {
                          VO_TR(vo_vod, vo_audit, "opid=%lld call pVoCopy->pause()\n",
                                op->getOpid());
                          op->pause(c, out);
                      });
}

void VoServer::vfsCopyResume(VoVidLidIn* in, VoOut* out) {
    VoTrace::Depth depth;
    lookupLockForward(CopyKey{__func__, in->vidSrc, in->lidSrc, in->vidSink, in->lidSink}, out,
                      VoTrace::vo_warn, nothingOnFound, [out](VoState* op, CLIENT* c) {
                          VO_TR(vo_vod, vo_audit, "opid=%lld call pVoCopy->resume()\n",
                                op->getOpid());
                          op->resume(c, out);
                      });
}
