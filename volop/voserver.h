// The single server object: the service loop and the handlers of every VOPROG
// procedure.  All methods run on the service thread, one at a time.
#ifndef VOLOP_VOSERVER_H
#define VOLOP_VOSERVER_H

#include <rpc/rpc.h>
#include <time.h>

#include <memory>
#include <vector>

#include "dblade_lpm.h"
#include "vo.h"
#include "votrace.h"

class VoState;
class VoRPCClient;
class VoTcpSocket;

class VoServer {
  public:
    VoServer();
    ~VoServer();

    // The daemon's only event loop: RPC requests, dump/restore connections and
    // registry housekeeping.  Returns only on a fatal socket error or after
    // callsToServe passes (0 = for ever); a pass is one wake-up of select.
    void svc_run(unsigned int holdOffSec, unsigned int callsToServe, int numOfThreads);

    // Rebuilds operations recorded in the VODB for LP lid (lidZero = every
    // LP the local D-blade serves on line) that are not in memory, marks
    // registered operations whose VODB records are gone, and runs the
    // registry's status checks.  Clears _isFirstCall once its clients could
    // be made.
    void populateMissingVoStateFromVodb(const unsigned char* lid);

    // Rebuilds, from the cached VODB source records, the operations the
    // registry does not know whose LP is in lps (count entries) and on line;
    // registers them with staggered status stamps, without queueing them.
    // Holds the VODB cache lock for the whole pass.
    void resurrectMissingStates(CLIENT* clnt, unsigned count, LPGetAllEntry* lps);

    // The new operation object for a VODB operation type, or null for a type
    // this daemon does not know (traced).  Every operation class adds its
    // type here.
    static VoState* newVoStateOfType(int opType);

    // The three local clients every job and several handlers use: VLDB (70 s
    // call time-out), incremental copy and D-blade volume, all at localhost.
    // 0, or 5003 (VLDB), 5031 (time-out not set) or 5004 (either D-blade
    // program); on failure none of the three is left open.  Any thread.
    static unsigned batchClntCreate(VoRPCClient& vldb, VoRPCClient& incrcopy,
                                    VoRPCClient& dbladeVol);

    // Whether the VODB cache holds a record of opid (traced when not).
    // Takes the VODB cache lock.
    static bool isVodbRecordPresent(unsigned long long opid);

    // Checks, persists and queues a new operation (job state 10, start job).
    // 0 when queued, else the failing code with (rc, func, funcrc) filled;
    // 2000 when the clients could not be made.
    unsigned voStart(VoState* op, voErrRc* rc, voErrFunc* func, unsigned* funcrc);

    // Hands a stream completion to a worker (job state 13, job type 2) unless
    // a worker holds the operation or the completion is already known.  The
    // caller holds a registry reference on op.  Any thread that may take the
    // operation lock.
    static void runOpComplete(VoState* op);
    // runOpComplete's decision, for a caller holding op's lock: true when the
    // completion is neither known nor being handled (nor, unless byItsWorker,
    // is a worker holding op); then jobState is 13, op is stamped now and the
    // hand-over traced from site. byItsWorker: the caller is the worker that
    // holds op and runs the completion itself.
    static bool claimOpComplete(VoState* op, VoTraceSite site, bool byItsWorker);

    // Registry visitors (VoStateList::iterator; they run under its lock).
    // A finished operation on newOp's source volume, already polled for the
    // last time and gone from the VODB, is no longer retained.
    static void retireMatchingOps(void* newOp, VoState* each);
    // Marks an operation retired from the VODB when the cache has no record of it.
    static void checkForMissingVodbRecords(void*, VoState* each);
    // Stamps an operation as checked now.
    static void resetStatusCheckedAtTimes(void*, VoState* each);

    // Takes ownership of a connection accepted on the dump/restore socket:
    // reads its cookie request, records the operation and queues it, or
    // refuses the connection. The int form reads the request straight from
    // the connection, waiting for it; the loop hands over a socket whose
    // request it has already gathered.
    void tcpVfsOp(int sd);
    void tcpVfsOp(VoTcpSocket&& sock);

    // How long the loop waits for a new connection's cookie request before
    // it refuses the connection, and how many it waits for at once.
    static constexpr int COOKIE_WAIT_SEC = 5;
    static constexpr size_t MAX_PENDING_CONNECTIONS = 64;

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
    void setFirstCallForTest() { _isFirstCall = 1; }

  private:
    // The shared shape of progress, cancel, pause and resume: find the
    // operation (a registry reference; not found: voErrNoSuchOp, traced at
    // notFoundLevel), call found(op), lock it, refuse with VoJobInit while it
    // waits for its first worker turn, make an incremental-copy client, and
    // call forward(op, client) with all of them held; every path releases
    // them.  Key names the operation kind (see vo_opreq.cc).
    template <class Key, class Out, class Found, class Forward>
    void lookupLockForward(const Key& key, Out* out, VoTrace::Level notFoundLevel, Found found,
                           Forward forward);

    // After voStart refused an operation (code non-zero, out's triple
    // filled): destroys it when its VODB record is already gone, else
    // registers it with the code so the registry cleans its record up later.
    void keepFailedStart(VoState* op, unsigned code, voErrRc rc, voErrFunc func, unsigned funcrc,
                         VoTrace::Level level);

    // A connection whose cookie request is still arriving. The loop reads
    // it as it comes, so that a slow or silent client holds nobody else up.
    struct PendingConnection {
        std::unique_ptr<VoTcpSocket> sock;
        timespec deadline;  // CLOCK_MONOTONIC
    };
    // Takes a new connection: handed over at once when its request is here
    // (or it cannot be waited for), else kept pending.
    void acceptConnection(int sd);
    // Hands over the pending connections whose request has arrived, whose
    // client went away, or whose time is up. ready: select's read set.
    void servePendingConnections(const fd_set& ready);
    // Seconds until the first pending connection's time is up (at most cap).
    long pendingWaitSec(long cap) const;

    unsigned _isFirstCall : 1;
    std::vector<PendingConnection> _pending;

    // ---- Volume administration additions (owned by the delete work). ----
};

extern VoServer* gVoServer;

// The all-zero LP id: every logical partition.
extern const unsigned char lidZero[16];

// Where every local service (VLDB, DLDB, the local D-blade) is reached.
extern const char* localhost;

#endif
