// The machinery the operation request handlers share, for the files that
// hold them (vo_opreq.cc and one file per operation kind): the result-triple
// setter, the keys that find each kind of streaming operation, and
// VoServer::lookupLockForward. Service thread only.
#ifndef VOLOP_VO_OPREQ_H
#define VOLOP_VO_OPREQ_H

#include "voerrors.h"
#include "vorpcclient.h"
#include "voserver.h"
#include "vostate.h"
#include "vostatelist.h"
#include "votrace.h"

namespace voopreq {

template <class Out>
void setTriple(Out* out, voErrRc rc, voErrFunc func, unsigned funcrc) {
    out->rc = rc;
    out->func = func;
    out->funcrc = funcrc;
}

// The three kinds of streaming operation, as the lookup handlers name them:
// how to find one and what to trace when there is none. `fn` is the
// handler's name for the trace prefix.
struct MoveKey {
    const char* fn;
    unsigned vidSrc;
    const unsigned char* lidSrc;

    VoState* find(VoStateRef& it) const { return voStateList.findMoveOp(vidSrc, lidSrc, it); }
    void traceNotFound(VoTrace::Level l) const {
        if (VoTrace::wants(VoTrace::vo_vod, l))
            VoTrace::tr(VoTrace::vo_vod, l, "%s %d no vfs move from vfsid=%d\n", fn, __LINE__,
                        vidSrc);
    }
};

struct CopyKey {
    const char* fn;
    unsigned vidSrc;
    const unsigned char* lidSrc;
    unsigned vidSink;
    const unsigned char* lidSink;

    VoState* find(VoStateRef& it) const {
        return voStateList.findCopyOp(vidSrc, lidSrc, vidSink, lidSink, it);
    }
    void traceNotFound(VoTrace::Level l) const {
        if (VoTrace::wants(VoTrace::vo_vod, l))
            VoTrace::tr(VoTrace::vo_vod, l, "%s %d no vfs copy from vfsid=%d to %d\n", fn, __LINE__,
                        vidSrc, vidSink);
    }
};

struct MirrorKey {
    const char* fn;
    unsigned vidSrc;
    const unsigned char* lidSrc;

    VoState* find(VoStateRef& it) const { return voStateList.findMirrorOp(vidSrc, lidSrc, it); }
    void traceNotFound(VoTrace::Level l) const {
        if (VoTrace::wants(VoTrace::vo_vod, l))
            VoTrace::tr(VoTrace::vo_vod, l, "%s %d no vfs mirror from vfsid=%d\n", fn, __LINE__,
                        vidSrc);
    }
};

inline void nothingOnFound(VoState*) {}

}  // namespace voopreq

template <class Key, class Out, class Found, class Forward>
void VoServer::lookupLockForward(const Key& key, Out* out, VoTrace::Level notFoundLevel,
                                 Found found, Forward forward) {
    using voopreq::setTriple;
    VoStateRef ref;
    auto* op = key.find(ref);
    if (op == nullptr) {
        key.traceNotFound(notFoundLevel);
        setTriple(out, voErrNoSuchOp, voErrFuncSuccess, 0);
        return;
    }
    found(op);
    op->getLock();
    if (op->getJobState() == VO_JOB_INIT) {
        setTriple(out, VoJobInit, voErrFuncSuccess, 0);
        op->releaseLock();
        voStateList.releaseRef(ref);
        return;
    }
    VoRPCClient incrcopy;
    incrcopy.clnttcp_create(localhost, DBLADE_INCRCOPY_PROG, DBLADE_INCRCOPY_VERS);
    if (static_cast<CLIENT*>(incrcopy) == nullptr) {
        VO_TR(vo_vod, vo_warn, "opid=%lld cannot make incrcopy client to %s\n", op->getOpid(),
              localhost);
        setTriple(out, voErrNoResource, voErrVodClntTcpCreate, VOD_ERR_NO_DBLADE_CLIENT);
        op->releaseLock();
        voStateList.releaseRef(ref);
        return;
    }
    forward(op, static_cast<CLIENT*>(incrcopy));
    op->releaseLock();
    incrcopy.clntdestroy();
    voStateList.releaseRef(ref);
}

#endif  // VOLOP_VO_OPREQ_H
