// VoTcpVfsOp: a volume dumped to, or restored from, a client's TCP
// connection. The daemon checks the client's cookie, records the operation
// and hands the connection to the local D-blade, which then reads or writes
// the volume's records on it directly; the daemon watches the stream as any
// other and winds the operation up when it ends.
//
// A dump of a read-write volume reads a clone of it (the op src), unless the
// client asked to skip the clone; a read-only volume, or a skipped clone, is
// read in place. A restore writes into an existing volume, whose mount
// attributes are kept across it. Records: a dump's source and op src; a
// restore's target, in the role of source (see copyStateFromCookie).
//
// Calling order: the service loop reads the cookie request into a
// VoTcpSocket (without blocking), VoServer::tcpVfsOp calls prepare (cookie
// checks, conflicts, records), the worker pool runs start (the clone, then
// startStream), progress until the stream ends, conclude, wrapup. After a
// crash the operation has no connection: resurrectFromVoRec, then
// recoverFromCrash winds it up (wrapup), never resuming it.
//
// Threads: prepare on the service thread; the other steps on one worker at
// a time. The socket is touched by prepare, then only by wrapup.
#ifndef VOLOP_VOTCPVFSOP_H
#define VOLOP_VOTCPVFSOP_H

#include <rpc/rpc.h>

#include <string>

#include "dblade_vol.h"
#include "util/tcpdump_frame.h"
#include "vo.h"
#include "vorec.h"
#include "vostate.h"

// One connection of the dump/restore socket. Owns its descriptor (-1 when
// none), closed by terminate() and the destructor.
//
// The service loop gathers the cookie request through prefetch() before
// anything reads it, so that a slow client never holds the loop: recvall
// hands out the gathered bytes first, and past them reports how the gathering
// ended (the peer's close, an error, or the loop's time-out) instead of
// waiting. A socket that was never prefetched reads straight from the
// connection.
class VoTcpSocket {
  public:
    explicit VoTcpSocket(int sd = -1) : _sd(sd) {}
    ~VoTcpSocket() { terminate(); }
    VoTcpSocket(VoTcpSocket&& other) noexcept;
    VoTcpSocket& operator=(VoTcpSocket&& other) noexcept;
    VoTcpSocket(const VoTcpSocket&) = delete;
    VoTcpSocket& operator=(const VoTcpSocket&) = delete;

    int sd() const { return _sd; }
    void terminate();
    // 0 or an errno value, as the free functions.
    int recvall(unsigned char* buf, unsigned len);
    int sendall(unsigned char* buf, unsigned len);

    // Reads, without blocking, what the connection has of the cookie request
    // and no byte beyond it (what follows belongs to the D-blade). True when
    // the request can be read without waiting: it is all here, its length
    // is one that is refused without its body, or the connection ended.
    bool prefetch();
    // The loop stops waiting: reads past the gathered bytes give err.
    void endPrefetch(int err);

  private:
    int _sd;
    bool _prefetching = false;
    std::string _pre;    // gathered bytes not yet handed out
    size_t _prePos = 0;  // next byte of _pre to hand out
    int _preEnd = 0;     // how gathering ended: 0 (not yet), else an errno value
};

class VoTcpVfsOp : public VoState {
  public:
    // Sends the 16-byte answer to a refused connection; a failed send is
    // only traced. Closing the connection is left to its VoTcpSocket, the
    // one owner of the descriptor.
    static void rejectTcpOp(int sd, unsigned code);

    // A connection accepted on the dump/restore socket.
    explicit VoTcpVfsOp(int sd);
    explicit VoTcpVfsOp(VoTcpSocket&& sock);
    // Rebuilt after a crash: no connection.
    VoTcpVfsOp();
    ~VoTcpVfsOp() override;

    using VoState::isUsing;
    using VoState::prepare;

    // The cookie request: its length word, then the cookie. 0 with cookie
    // and type (VODB_VOLOP_DUMP or _RESTORE) filled; else a composite code:
    // (errno + 30000) under SysRecv for a failed read, 5019 under
    // VodRecvCookie for a length of 0, above the cookie's size or not the
    // size of its request type, 5020 for an unknown request type.
    unsigned getRequest(VoTcpSocket& sock, TcpVfsOpCookie& cookie, VoRec::VoType& type);

    // Reads and checks the request, then the base's checks and records.
    // 0, or the composite code the connection is refused with (the operation
    // is then marked done with it).
    unsigned prepare(CLIENT* clntVldb, CLIENT* clntIncrCopy, CLIENT* clntDbladeVol);

    void dbgDump() override;
    bool isUsing(unsigned vid, const unsigned char* lid, VoRec::VoType type,
                 VoRec::VfsRole role) override;
    // Polls the stream into _pgrs, as a copy does.
    unsigned progress(CLIENT* clntSrcDbladeIncrCopy) override;
    // Forward only when the stream succeeded, then wrapup.
    unsigned conclude(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol,
                      CLIENT* clntSrcDbladeIncrCopy) override;
    // The operation's records: a dump's source and op src, a restore's
    // target. 0, or 5001 for records that are not one dump's or restore's.
    unsigned resurrectFromVoRec(unsigned long long opid, CLIENT* clntVldb) override;
    // Never resumed: wrapup, and after too many attempts the records go.
    unsigned recoverFromCrash(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol,
                              CLIENT* clntSrcDbladeIncrCopy) override;

    // Ends the operation: the refusal to a client still connected when the
    // stream did not succeed, the connection closed, a restore target
    // settled, the clone deleted, the records removed. 0 or the first
    // failure of the last two steps.
    unsigned wrapup(CLIENT* clntVldb, CLIENT* clntDbladeVol, CLIENT* clntDbladeIncrCopy);

    // Refuses the client on the connection (rejectTcpOp) and closes it.
    void reject(unsigned code);

    bool isDump() const { return _srcRec.opType() == VoRec::VODB_VOLOP_DUMP; }
    // The composite code the operation ended with (0 while none).
    unsigned opDoneCode() const { return _opDoneCode; }

    // The composite code of an operation error (func, funcrc): what a
    // refused client decodes. funcrc already composite passes as it is.
    static unsigned compositeOf(voErrFunc func, unsigned funcrc);

  protected:
    // A dump shares its source with copies, mirrors and other dumps reading
    // it; a restore shares its target with nothing. Refused with
    // (voErrVodValidate, the other operation's busy code).
    bool validate(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol) override;
    unsigned mkRec(CLIENT* clntVldb) override;
    // The dump's clone, when it reads one.
    unsigned mkOpSrcSink(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol) override;
    // tcpvfsdump_1, or the target's mount attributes saved then
    // tcpvfsrestore_1. A failure marks the operation done.
    unsigned startStream(CLIENT* clntSrcDbladeIncrCopy, CLIENT* clntSrcDbladeVol) override;

  private:
    void copyStateFromCookie(const TcpVfsOpCookie& cookie, VoRec::VoType type);
    // The dump reads a clone: a read-write source not asked to skip it.
    bool readsClone() const;
    void setOpDone(unsigned code);
    unsigned invokeDbladeDump(CLIENT* clntIncrCopy);
    unsigned invokeDbladeRestore(CLIENT* clntIncrCopy);
    unsigned saveVolAttrsOfRestoreVolume(CLIENT* clntDbladeVol);
    unsigned restoreMountedAtAttrsOfRestoreVolume(CLIENT* clntDbladeVol);
    unsigned deleteOpSrc(CLIENT* clntVldb, CLIENT* clntDbladeVol);

    VoTcpSocket _sock;
    TcpVfsOpCookie _cookie;
    VoRec _opSrcRec;
    VoCopyPgrsOut _pgrs;
    unsigned _opDoneCode = 0;
    bool _applyRestoreAttrs = false;
    bool _restoreVfsCleaned = false;
    // The restore target's mount attributes, as they were before.
    std::string _mountedAtVolName;
    unsigned _mountedAt[4] = {0, 0, 0, 0};  // dir vnode, dir unique, parent vnode, parent unique
};

#endif  // VOLOP_VOTCPVFSOP_H
