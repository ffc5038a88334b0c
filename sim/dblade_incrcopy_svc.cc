// DBLADE_INCRCOPY_PROG service functions: the wire side of the incremental-copy streams.
// A stream is run by its source's D-blade, which alone knows it: another D-blade asked
// about it answers that it has no such stream, and one asked to start a stream from an LP
// it does not serve answers as for an unknown LP.

#include <cstdlib>
#include <cstring>
#include <mutex>

#include "dblade_incrcopy.h"
#include "sim/incrcopy.h"
#include "sim/incrcopy_move.h"
#include "sim/simfaults.h"
#include "sim/simnode.h"
#include "sim/simservice.h"
#include "sim/tcpvfs.h"

namespace {

// More sinks than any node has LPs is a malformed request, not a reason to allocate.
constexpr u_int kMaxSinks = 1024;

// The form of the procedures that name a stream by its id.
template <typename Fn>
bool_t serveStream(const char* proc, u_int* status, uint64_t opId, Fn fn) {
    return simServeStatus(
        proc, status,
        [&]() -> unsigned {
            if (simStreamDblade(opId) != simServingDblade()) return VIC_EOPNOTFOUND;
            return fn();
        },
        opId);
}

SimDumpRequest dumpRequest(const TcpVfsDumpIn& in) {
    SimDumpRequest rq;
    rq.opId = in.opId;
    rq.opType = in.opType;
    rq.vfsid = in.fromVfsId;
    rq.lp = simLpId(in.fromLpId);
    rq.nodeName = in.nodeName ? in.nodeName : "";
    rq.dumpName = in.dumpName ? in.dumpName : "";
    rq.dests = in.dests.dests_len;
    if (rq.dests > 0) {
        const TcpVfsDumpDest& d = in.dests.dests_val[0];
        rq.pid = d.pid;
        rq.sd = d.sd;
        rq.toVfsid = d.toVfsId;
        rq.toLp = simLpId(d.toLpId);
        rq.dumpFromDV = d.dumpFromDV;
    }
    return rq;
}

SimRestoreRequest restoreRequest(const TcpVfsRestoreIn& in) {
    SimRestoreRequest rq;
    rq.opId = in.opId;
    rq.pid = in.pid;
    rq.sd = in.sd;
    rq.force = in.force != 0;
    rq.vfsid = in.toVfsId;
    rq.lp = simLpId(in.toLpId);
    return rq;
}

}  // namespace

bool_t incrcopymirror_1_svc(IncrCopyMirrorIn* in, u_int* out, struct svc_req*) {
    return simServeOnLps("incrcopymirror", out, VIC_ELPNOTFOUND, {in->srcLpUuid},
                         [&]() -> unsigned {
        u_int n = in->numDests;
        if (n == 0 || n > kMaxSinks || in->dstBladeId.dstBladeId_len != n ||
            in->dstVfsId.dstVfsId_len != n || in->dstLpUuid.dstLpUuid_len != n)
            return VIC_EINVAL;
        std::vector<SimSinkSpec> sinks(n);
        for (u_int i = 0; i < n; ++i) {
            sinks[i].did = in->dstBladeId.dstBladeId_val[i];
            sinks[i].vfsid = in->dstVfsId.dstVfsId_val[i];
            sinks[i].lp = simLpId(in->dstLpUuid.dstLpUuid_val[i]);
        }
        return simStreamStart(in->opId, in->opType, simLpId(in->srcLpUuid), in->srcVfsId, sinks);
    });
}

bool_t incrcopymove_1_svc(IncrCopyMoveIn* in, u_int* out, struct svc_req*) {
    return simServeStatus("incrcopymove", out, [&] {
        SimMoveRequest rq;
        rq.opId = in->opId;
        rq.opType = in->opType;
        rq.srcVfsid = in->srcVfsId;
        rq.srcLp = simLpId(in->srcLpUuid);
        rq.tmpVfsid = in->tmpVfsIdForSwap;
        rq.dstVfsid = in->dstVfsId;
        rq.dstLp = simLpId(in->dstLpUuid);
        rq.dstDid = in->dstBladeId;
        return simMoveStart(rq);
    });
}

// A dump or restore answers its own status form (tcpvfs.h): a refusal is its VIC_ code less
// 20000, an LP this D-blade does not serve included.

bool_t tcpvfsdump_1_svc(TcpVfsDumpIn* in, u_int* out, struct svc_req*) {
    return simServeOnLps("tcpvfsdump", out, simTcpProcStatus(VIC_ELPNOTFOUND), {in->fromLpId},
                         [&] { return simTcpDumpStart(dumpRequest(*in)); });
}

bool_t tcpvfsrestore_1_svc(TcpVfsRestoreIn* in, u_int* out, struct svc_req*) {
    return simServeOnLps("tcpvfsrestore", out, simTcpProcStatus(VIC_ELPNOTFOUND), {in->toLpId},
                         [&] { return simTcpRestoreStart(restoreRequest(*in)); });
}

bool_t incrcopyprogress_1_svc(u_quad_t* opId, IncrCopyProgressOut* out, struct svc_req*) {
    // The dispatcher neither clears the result nor skips freeing it.
    memset(out, 0, sizeof *out);
    return serveStream("incrcopyprogress", &out->rc, *opId, [&]() -> unsigned {
        SimStreamProgress p;
        if (!simStreamProgress(*opId, &p)) return VIC_EOPNOTFOUND;
        IncrCopyPgrsOut& o = out->IncrCopyProgressOut_u.out;
        o.opId = p.opId;
        o.srcVfsId = p.srcVfsid;
        memcpy(o.srcLpUuid, p.srcLp.data(), 16);
        o.status = static_cast<IncrCopyStatusCode>(p.status);
        o.completionCode = p.completionCode;
        o.vnodesTotal = p.vnodesTotal;
        o.vnodesProcessed = p.vnodesProcessed;
        o.blksRead = p.blksRead;
        o.numDests = static_cast<u_int>(p.sinks.size());
        o.dstProgress.dstProgress_len = o.numDests;
        o.dstProgress.dstProgress_val = static_cast<IncrCopyDestProgress*>(
            calloc(p.sinks.size() ? p.sinks.size() : 1, sizeof(IncrCopyDestProgress)));
        if (!o.dstProgress.dstProgress_val) {
            o.dstProgress.dstProgress_len = 0;
            return VIC_ENOMEM;
        }
        for (size_t i = 0; i < p.sinks.size(); ++i) {
            IncrCopyDestProgress& d = o.dstProgress.dstProgress_val[i];
            d.isDone = p.sinks[i].done ? 1 : 0;
            d.completionCode = p.sinks[i].completionCode;
            d.vfsId = p.sinks[i].vfsid;
            memcpy(d.uuid, p.sinks[i].lp.data(), 16);
            d.blksSent = p.sinks[i].blksSent;
        }
        return 0;
    });
}

bool_t incrcopypause_1_svc(u_quad_t* opId, u_int* out, struct svc_req*) {
    return serveStream("incrcopypause", out, *opId, [&] { return simStreamPause(*opId); });
}

bool_t incrcopyresume_1_svc(u_quad_t* opId, u_int* out, struct svc_req*) {
    return serveStream("incrcopyresume", out, *opId, [&] { return simStreamResume(*opId); });
}

bool_t incrcopyconclude_1_svc(u_quad_t* opId, u_int* out, struct svc_req*) {
    return serveStream("incrcopyconclude", out, *opId, [&] { return simStreamConclude(*opId); });
}

bool_t incrcopycancel_1_svc(IncrCopyCancelIn* in, u_int* out, struct svc_req*) {
    return serveStream("incrcopycancel", out, in->opId, [&] {
        return simStreamCancel(in->opId, in->dstVfsId, simLpId(in->dstLpUuid));
    });
}

int dblade_incrcopy_prog_1_freeresult(SVCXPRT*, xdrproc_t xdr_result, caddr_t result) {
    xdr_free(xdr_result, result);
    return 1;
}
