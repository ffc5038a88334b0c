// Handlers of the long-running operation requests: start, progress, cancel,
// pause, resume, completion notices, purge and the diagnostic dump.
//
// The operations themselves are not built yet.  Each handler fills every field
// of its result, as the dispatcher requires, and answers "no such operation".
#include <string.h>

#include "voerrors.h"
#include "voserver.h"
#include "votrace.h"

namespace {

void noSuchOp(VoOut* out) {
    out->rc = voErrNoSuchOp;
    out->func = voErrFuncSuccess;
    out->funcrc = 0;
}

void noSuchOp(VoVidOut* out) {
    out->rc = voErrNoSuchOp;
    out->func = voErrFuncSuccess;
    out->funcrc = 0;
    out->vid = 0;
}

template <typename PgrsOut>
void noSuchOpPgrs(PgrsOut* out) {
    memset(out, 0, sizeof *out);
    out->rc = voErrNoSuchOp;
}

}  // namespace

void VoServer::vfsCopy(VoLidVnameIn*, VoVidOut* out) { noSuchOp(out); }
void VoServer::vfsCopyPgrs(VoVidLidIn*, VoCopyPgrsOut* out) { noSuchOpPgrs(out); }
void VoServer::vfsCopyCancel(VoVidLidIn*, VoOut* out) { noSuchOp(out); }
void VoServer::vfsCopyPause(VoVidLidIn*, VoOut* out) { noSuchOp(out); }
void VoServer::vfsCopyResume(VoVidLidIn*, VoOut* out) { noSuchOp(out); }
void VoServer::vfsMove(VoLidIn*, VoOut* out) { noSuchOp(out); }
void VoServer::vfsMovePgrs(VoIn*, VoMovePgrsOut* out) { noSuchOpPgrs(out); }
void VoServer::vfsMoveCancel(VoIn*, VoOut* out) { noSuchOp(out); }
void VoServer::vfsMovePause(VoIn*, VoOut* out) { noSuchOp(out); }
void VoServer::vfsMoveResume(VoIn*, VoOut* out) { noSuchOp(out); }
void VoServer::vfsMirror(VoIn*, VoOut* out) { noSuchOp(out); }
void VoServer::vfsMirrorPgrs(VoIn*, VoMirrorPgrsOut* out) { noSuchOpPgrs(out); }
void VoServer::vfsMirrorCancel(VoLidIn*, VoOut* out) { noSuchOp(out); }
void VoServer::vfsMirrorPause(VoIn*, VoOut* out) { noSuchOp(out); }
void VoServer::vfsMirrorResume(VoIn*, VoOut* out) { noSuchOp(out); }
void VoServer::vfsMirrorJoinGroup(VoLidVnameIn*, VoVidOut* out) { noSuchOp(out); }
void VoServer::vfsMirrorLeaveGroup(VoVnameIn*, VoVidOut* out) { noSuchOp(out); }
void VoServer::opComplete(unsigned long long) {}
void VoServer::purgeOp(unsigned long long) {}
void VoServer::dbgDump() {}

