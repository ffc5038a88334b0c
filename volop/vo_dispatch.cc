// The dispatcher of VOPROG: decode a call, run its service function, send the
// reply, free both records.
#include "vo_dispatch.h"

#include <rpc/rpc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <type_traits>

#include "util/xdrproc.h"
#include "vo.h"

namespace {

// Large enough and aligned for any argument or result record of the program.
union VoArgs {
    VoLidVnameIn a1;
    VoVidLidIn a2;
    VoVnameIn a7;
    VoIn a8;
    VoLidIn a10;
    u_quad_t a21;
    LpmChangeIn a22;
    u_int a25;
    vo_string a101;
    CreateVfsIn a102;
    DumpVfsIn a106;
    RestoreVfsIn a107;
};

union VoResults {
    VoVidOut r1;
    VoCopyPgrsOut r2;
    VoOut r3;
    VoMirrorPgrsOut r9;
    VoMovePgrsOut r14;
    FindVfsByNameOut r101;
    CreateVfsOut r102;
    CloneVfsOut r103;
    u_int r104;
    DumpVfsOut r106;
    RestoreVfsOut r107;
    VoErrOut r201;
};

template <typename T>
constexpr size_t recordSize() {
    if constexpr (std::is_void_v<T>) {
        return 0;
    } else {
        return sizeof(T);
    }
}

// Restores the service function's own argument and result types, so no
// function pointer is called through a cast.
template <typename A, typename R, bool_t (*F)(A*, R*, struct svc_req*)>
bool_t thunk(void* a, void* r, svc_req* q) {
    // A row whose record the unions do not hold would overrun them.
    static_assert(recordSize<A>() <= sizeof(VoArgs) && recordSize<R>() <= sizeof(VoResults));
    return F(static_cast<A*>(a), static_cast<R*>(r), q);
}

#define ROW(A, xa, R, xr, f) \
    VoProcRow { xdrProc(xa), recordSize<A>(), xdrProc(xr), thunk<A, R, f> }

}  // namespace

const VoProcRow* voprogRow(rpcproc_t proc) {
    // One row per served procedure, in number order; the ranges below index it.
    static const VoProcRow rows[] = {
        ROW(VoLidVnameIn, xdr_VoLidVnameIn, VoVidOut, xdr_VoVidOut, vocopy_1_svc),
        ROW(VoVidLidIn, xdr_VoVidLidIn, VoCopyPgrsOut, xdr_VoCopyPgrsOut, vocopypgrs_1_svc),
        ROW(VoVidLidIn, xdr_VoVidLidIn, VoOut, xdr_VoOut, vocopycancel_1_svc),
        ROW(VoVidLidIn, xdr_VoVidLidIn, VoOut, xdr_VoOut, vocopypause_1_svc),
        ROW(VoVidLidIn, xdr_VoVidLidIn, VoOut, xdr_VoOut, vocopyresume_1_svc),
        ROW(VoLidVnameIn, xdr_VoLidVnameIn, VoVidOut, xdr_VoVidOut, vomirrorjoingroup_1_svc),
        ROW(VoVnameIn, xdr_VoVnameIn, VoVidOut, xdr_VoVidOut, vomirrorleavegroup_1_svc),
        ROW(VoIn, xdr_VoIn, VoOut, xdr_VoOut, vomirror_1_svc),
        ROW(VoIn, xdr_VoIn, VoMirrorPgrsOut, xdr_VoMirrorPgrsOut, vomirrorpgrs_1_svc),
        ROW(VoLidIn, xdr_VoLidIn, VoOut, xdr_VoOut, vomirrorcancel_1_svc),
        ROW(VoIn, xdr_VoIn, VoOut, xdr_VoOut, vomirrorpause_1_svc),
        ROW(VoIn, xdr_VoIn, VoOut, xdr_VoOut, vomirrorresume_1_svc),
        ROW(VoLidIn, xdr_VoLidIn, VoOut, xdr_VoOut, vomove_1_svc),
        ROW(VoIn, xdr_VoIn, VoMovePgrsOut, xdr_VoMovePgrsOut, vomovepgrs_1_svc),
        ROW(VoIn, xdr_VoIn, VoOut, xdr_VoOut, vomovecancel_1_svc),
        ROW(VoIn, xdr_VoIn, VoOut, xdr_VoOut, vomovepause_1_svc),
        ROW(VoIn, xdr_VoIn, VoOut, xdr_VoOut, vomoveresume_1_svc),
        ROW(VoIn, xdr_VoIn, VoOut, xdr_VoOut, vodelete_1_svc),
        ROW(VoIn, xdr_VoIn, VoOut, xdr_VoOut, vosetro_1_svc),
        ROW(VoIn, xdr_VoIn, VoOut, xdr_VoOut, vosetrw_1_svc),
        ROW(u_quad_t, xdr_u_quad_t, void, xdr_void, incrcopycomplete_1_svc),  // 21
        ROW(LpmChangeIn, xdr_LpmChangeIn, void, xdr_void, vollpmchange_1_svc),
        ROW(u_int, xdr_u_int, void, xdr_void, vosettracemask_1_svc),  // 25
        ROW(void, xdr_void, void, xdr_void, vodbgdump_1_svc),
        ROW(u_quad_t, xdr_u_quad_t, void, xdr_void, vopurgeop_1_svc),
        ROW(vo_string, xdr_vo_string, FindVfsByNameOut, xdr_FindVfsByNameOut,
            findvfsbyname_1_svc),  // 101
        ROW(CreateVfsIn, xdr_CreateVfsIn, CreateVfsOut, xdr_CreateVfsOut, createvfs_1_svc),
        ROW(u_int, xdr_u_int, CloneVfsOut, xdr_CloneVfsOut, clonevfs_1_svc),
        ROW(vo_string, xdr_vo_string, u_int, xdr_u_int, deletevfsbyname_1_svc),
        ROW(u_int, xdr_u_int, u_int, xdr_u_int, deletevfsbyid_1_svc),
        ROW(DumpVfsIn, xdr_DumpVfsIn, DumpVfsOut, xdr_DumpVfsOut, dumpvfs_1_svc),
        ROW(RestoreVfsIn, xdr_RestoreVfsIn, RestoreVfsOut, xdr_RestoreVfsOut, restorevfs_1_svc),
        ROW(u_quad_t, xdr_u_quad_t, u_int, xdr_u_int, cancelop_1_svc),     // 108
        ROW(u_int, xdr_u_int, VoErrOut, xdr_VoErrOut, decodeerror_1_svc),  // 201
    };
    if (proc >= VOCOPY && proc <= VOSETRW) return &rows[proc - VOCOPY];
    if (proc >= INCRCOPYCOMPLETE && proc <= VOLLPMCHANGE)
        return &rows[20 + proc - INCRCOPYCOMPLETE];
    if (proc >= VOSETTRACEMASK && proc <= VOPURGEOP) return &rows[22 + proc - VOSETTRACEMASK];
    if (proc >= FINDVFSBYNAME && proc <= CANCELOP) return &rows[25 + proc - FINDVFSBYNAME];
    if (proc == DECODEERROR) return &rows[33];
    return nullptr;  // 23, 24, 28-100, 109-200, 202 and above are not served
}

void voprog_1(struct svc_req* rqstp, SVCXPRT* transp) {
    if (rqstp->rq_proc == VONULL) {
        svc_sendreply(transp, xdrProc(xdr_void), nullptr);
        return;
    }
    const VoProcRow* p = voprogRow(rqstp->rq_proc);
    if (p == nullptr) {
        svcerr_noproc(transp);
        return;
    }

    VoArgs argument;
    VoResults result;  // each service method fills every field it sends
    memset(&argument, 0, sizeof argument);
    if (!svc_getargs(transp, p->xdrArg, reinterpret_cast<caddr_t>(&argument))) {
        // A half-decoded argument may own memory already; give it back.
        svc_freeargs(transp, p->xdrArg, reinterpret_cast<caddr_t>(&argument));
        svcerr_decode(transp);
        return;
    }
    if (p->svc(&argument, &result, rqstp) &&
        !svc_sendreply(transp, p->xdrRes, reinterpret_cast<caddr_t>(&result))) {
        svcerr_systemerr(transp);
    }
    if (!svc_freeargs(transp, p->xdrArg, reinterpret_cast<caddr_t>(&argument))) {
        fprintf(stderr, "%s", "unable to free arguments");
        exit(1);
    }
    if (!voprog_1_freeresult(transp, p->xdrRes, reinterpret_cast<caddr_t>(&result)))
        fprintf(stderr, "%s", "unable to free results");
}

int voprog_1_freeresult(SVCXPRT*, xdrproc_t xdr_result, caddr_t result) {
    xdr_free(xdr_result, result);
    return 1;
}
