// The single server object: the service loop and the handlers of every VOPROG
// procedure.  All methods run on the service thread, one at a time.
#ifndef VOLOP_VOSERVER_H
#define VOLOP_VOSERVER_H

#include "vo.h"

class VoServer {
public:
    VoServer() : _isFirstCall(1) {}

    // The daemon's only event loop: RPC requests, dump/restore connections and
    // registry housekeeping.  Returns only on a fatal socket error or after
    // callsToServe passes (0 = for ever); a pass is one wake-up of select.
    void svc_run(unsigned int holdOffSec, unsigned int callsToServe, int numOfThreads);

    // Rebuilds operations recorded in the VODB for LP lid (all zero = every LP)
    // that are not in memory.  Clears _isFirstCall once it has succeeded.
    void populateMissingVoStateFromVodb(const unsigned char* lid);

    // Takes ownership of a connection accepted on the dump/restore socket.
    void tcpVfsOp(int sd);

    // Operation requests: start, progress, cancel, pause, resume.
    void vfsCopy(VoLidVnameIn* in, VoVidOut* out);
    void vfsCopyPgrs(VoVidLidIn* in, VoCopyPgrsOut* out);
    void vfsCopyCancel(VoVidLidIn* in, VoOut* out);
    void vfsCopyPause(VoVidLidIn* in, VoOut* out);
    void vfsCopyResume(VoVidLidIn* in, VoOut* out);
    void vfsMove(VoLidIn* in, VoOut* out);
    void vfsMovePgrs(VoIn* in, VoMovePgrsOut* out);
    void vfsMoveCancel(VoIn* in, VoOut* out);
    void vfsMovePause(VoIn* in, VoOut* out);
    void vfsMoveResume(VoIn* in, VoOut* out);
    void vfsMirror(VoIn* in, VoOut* out);
    void vfsMirrorPgrs(VoIn* in, VoMirrorPgrsOut* out);
    void vfsMirrorCancel(VoLidIn* in, VoOut* out);
    void vfsMirrorPause(VoIn* in, VoOut* out);
    void vfsMirrorResume(VoIn* in, VoOut* out);
    void vfsMirrorJoinGroup(VoLidVnameIn* in, VoVidOut* out);
    void vfsMirrorLeaveGroup(VoVnameIn* in, VoVidOut* out);
    void opComplete(unsigned long long opid);
    void purgeOp(unsigned long long opid);
    void dbgDump();

    // Administration requests.  Codes are the composite 32-bit codes that
    // decodeerror understands.
    void vfsDelete(VoIn* in, VoOut* out);
    void vfsSetRO(VoIn* in, VoOut* out);
    void vfsSetRW(VoIn* in, VoOut* out);
    void vfsFindByName(char* name, FindVfsByNameOut* out);
    void vfsCreate(CreateVfsIn* in, CreateVfsOut* out);
    void vfsClone(unsigned vfsId, CloneVfsOut* out);
    void vfsDeleteByName(char* name, unsigned* code);
    void vfsDeleteById(unsigned vfsId, unsigned* code);
    void vfsDump(DumpVfsIn* in, DumpVfsOut* out);
    void vfsRestore(RestoreVfsIn* in, RestoreVfsOut* out);
    void vfsOpCancel(unsigned long long opid, unsigned* code);
    // No procedure reaches these two; they exist for the protocol's records.
    void vfsGetAttr(VoIn* in, VoGetAttrOut* out);
    void vfsSetAttr(VoSetAttrIn* in, unsigned* code);

    bool isFirstCall() const { return _isFirstCall; }

private:
    unsigned _isFirstCall : 1;
};

extern VoServer* gVoServer;

// The all-zero LP id: every logical partition.
extern const unsigned char lidZero[16];

#endif
