// The service functions of VOPROG: each traces, calls one VoServer method and
// fills the result area the dispatcher hands it.
#include <rpc/rpc.h>

#include "vo.h"
#include "voerrors.h"
#include "voserver.h"
#include "votrace.h"

// Operation requests: trace the call and the result's rc around the method.
#define VO_OP_SVC(proc, Arg, Res, method, name)               \
    bool_t proc##_1_svc(Arg* in, Res* out, struct svc_req*) { \
        VoTrace::Depth depth;                                 \
        VO_TR(vo_vod, vo_audit, "call " name "\n");           \
        gVoServer->method(in, out);                           \
        VO_TR(vo_vod, vo_audit, "returns %d\n", out->rc);     \
        return TRUE;                                          \
    }

// Progress polls come often: they trace warnings and fatal errors only.  Only
// the level bits are given back afterwards, so the module mask stays at every
// module but vo_rpc once anything has polled; clients have long relied on that.
#define VO_PGRS_SVC(proc, Arg, Res, method)                   \
    bool_t proc##_1_svc(Arg* in, Res* out, struct svc_req*) { \
        VoTrace::Depth depth;                                 \
        unsigned saved = VoTrace::getMask();                  \
        VoTrace::setModMask(0xFFFDFFFF);                      \
        VoTrace::setLvlMask(0xC0);                            \
        VO_TR(vo_vod, vo_audit, "call " #method "\n");        \
        gVoServer->method(in, out);                           \
        VO_TR(vo_vod, vo_audit, "returns %d\n", out->rc);     \
        VoTrace::setLvlMask(saved);                           \
        return TRUE;                                          \
    }

VO_OP_SVC(vocopy, VoLidVnameIn, VoVidOut, vfsCopy, "vfsCopy")
VO_PGRS_SVC(vocopypgrs, VoVidLidIn, VoCopyPgrsOut, vfsCopyPgrs)
VO_OP_SVC(vocopycancel, VoVidLidIn, VoOut, vfsCopyCancel, "vfsCopyCancel")
VO_OP_SVC(vocopypause, VoVidLidIn, VoOut, vfsCopyPause, "vfsCopyPause")
VO_OP_SVC(vocopyresume, VoVidLidIn, VoOut, vfsCopyResume, "vfsCopyResume")
VO_OP_SVC(vomirrorjoingroup, VoLidVnameIn, VoVidOut, vfsMirrorJoinGroup, "vfsMirrorJoinGroup")
VO_OP_SVC(vomirrorleavegroup, VoVnameIn, VoVidOut, vfsMirrorLeaveGroup, "vfsMirrorLeaveGroup")
VO_OP_SVC(vomirror, VoIn, VoOut, vfsMirror, "vfsMirror")
VO_PGRS_SVC(vomirrorpgrs, VoIn, VoMirrorPgrsOut, vfsMirrorPgrs)
VO_OP_SVC(vomirrorcancel, VoLidIn, VoOut, vfsMirrorCancel, "vfsMirrorCancel")
VO_OP_SVC(vomirrorpause, VoIn, VoOut, vfsMirrorPause, "vfsMirrorPause")
VO_OP_SVC(vomirrorresume, VoIn, VoOut, vfsMirrorResume, "vfsMirrorResume")
VO_OP_SVC(vomove, VoLidIn, VoOut, vfsMove, "vfsMove")
VO_PGRS_SVC(vomovepgrs, VoIn, VoMovePgrsOut, vfsMovePgrs)
VO_OP_SVC(vomovecancel, VoIn, VoOut, vfsMoveCancel, "vfsMoveCancel")
VO_OP_SVC(vomovepause, VoIn, VoOut, vfsMovePause, "vfsMovePause")
VO_OP_SVC(vomoveresume, VoIn, VoOut, vfsMoveResume, "vfsMoveResume")
VO_OP_SVC(vodelete, VoIn, VoOut, vfsDelete, "vfsDelete")
// vosetro announces itself as vfsSetRW; operators' log filters know it so.
VO_OP_SVC(vosetro, VoIn, VoOut, vfsSetRO, "vfsSetRW")
VO_OP_SVC(vosetrw, VoIn, VoOut, vfsSetRW, "vfsSetRW")

bool_t vonull_1_svc(void*, void*, struct svc_req*) { return TRUE; }

bool_t incrcopycomplete_1_svc(u_quad_t* opid, void*, struct svc_req*) {
    VoTrace::Depth depth;
    VO_TR(vo_vod, vo_audit, "call opComplete\n");
    gVoServer->opComplete(*opid);
    VO_TR(vo_vod, vo_audit, "executed\n");
    return TRUE;
}

bool_t vollpmchange_1_svc(LpmChangeIn* in, void*, struct svc_req*) {
    VoTrace::Depth depth;
    if (!in->isOnline) return TRUE;
    VO_TR(vo_vod, vo_audit, "call populateMissingVoStateFromVodb\n");
    gVoServer->populateMissingVoStateFromVodb(in->lpuuid);
    VO_TR(vo_vod, vo_audit, "executed\n");
    return TRUE;
}

bool_t vosettracemask_1_svc(u_int* mask, void*, struct svc_req*) {
    VoTrace::Depth depth;
    VO_TR(vo_vod, vo_audit, "set masks\n");
    // All ones is no mask: it switches the private log on and keeps the masks.
    if (*mask == 0xFFFFFFFFu) {
        VoTrace::openPrivateLogFiles();
    } else {
        VoTrace::closePrivateLogFiles();
        VoTrace::setMask(*mask);
    }
    VO_TR(vo_vod, vo_audit, "executed\n");
    return TRUE;
}

bool_t vodbgdump_1_svc(void*, void*, struct svc_req*) {
    VoTrace::Depth depth;
    VO_TR(vo_vod, vo_audit, "call dbgDump\n");
    gVoServer->dbgDump();
    VO_TR(vo_vod, vo_audit, "executed\n");
    return TRUE;
}

bool_t vopurgeop_1_svc(u_quad_t* opid, void*, struct svc_req*) {
    VoTrace::Depth depth;
    VO_TR(vo_vod, vo_audit, "call purgeOp\n");
    gVoServer->purgeOp(*opid);
    VO_TR(vo_vod, vo_audit, "executed\n");
    return TRUE;
}

bool_t findvfsbyname_1_svc(vo_string* name, FindVfsByNameOut* out, struct svc_req*) {
    VoTrace::Depth depth;
    gVoServer->vfsFindByName(*name, out);
    return TRUE;
}

bool_t createvfs_1_svc(CreateVfsIn* in, CreateVfsOut* out, struct svc_req*) {
    VoTrace::Depth depth;
    gVoServer->vfsCreate(in, out);
    return TRUE;
}

bool_t clonevfs_1_svc(u_int* vfsId, CloneVfsOut* out, struct svc_req*) {
    VoTrace::Depth depth;
    gVoServer->vfsClone(*vfsId, out);
    return TRUE;
}

bool_t deletevfsbyname_1_svc(vo_string* name, u_int* code, struct svc_req*) {
    VoTrace::Depth depth;
    gVoServer->vfsDeleteByName(*name, code);
    return TRUE;
}

bool_t deletevfsbyid_1_svc(u_int* vfsId, u_int* code, struct svc_req*) {
    VoTrace::Depth depth;
    gVoServer->vfsDeleteById(*vfsId, code);
    return TRUE;
}

bool_t dumpvfs_1_svc(DumpVfsIn* in, DumpVfsOut* out, struct svc_req*) {
    VoTrace::Depth depth;
    gVoServer->vfsDump(in, out);
    return TRUE;
}

bool_t restorevfs_1_svc(RestoreVfsIn* in, RestoreVfsOut* out, struct svc_req*) {
    VoTrace::Depth depth;
    gVoServer->vfsRestore(in, out);
    return TRUE;
}

bool_t cancelop_1_svc(u_quad_t* opid, u_int* code, struct svc_req*) {
    VoTrace::Depth depth;
    gVoServer->vfsOpCancel(*opid, code);
    return TRUE;
}

bool_t decodeerror_1_svc(u_int* code, VoErrOut* out, struct svc_req*) {
    VoTrace::Depth depth;
    errorDecode(*code, out);
    return TRUE;
}
