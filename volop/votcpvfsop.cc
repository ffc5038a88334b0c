// VoTcpVfsOp: a dump or restore streamed by the D-blade over the client's
// own TCP connection.
//
// Its steps, in the order they run: getRequest, copyStateFromCookie,
// validate, mkRec, mkOpSrcSink, startStream (invokeDbladeDump, or
// saveVolAttrsOfRestoreVolume and invokeDbladeRestore), progress, conclude,
// wrapup. After a crash: resurrectFromVoRec, recoverFromCrash, wrapup.
#include "votcpvfsop.h"

#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <optional>

#include "dblade_incrcopy.h"
#include "util/xdrproc.h"
#include "vodbCache.h"
#include "voerrors.h"
#include "vorpccalls.h"
#include "voserver.h"
#include "vostatelist.h"
#include "votrace.h"

namespace {

const unsigned kAttrTimeoutSec = 60;
// D-blade volume statuses: no such volume; not on that LP; hidden (a
// stream wrote into it and did not finish).
const unsigned kNoSuchVolume = 16;
const unsigned kNotOnLp = 21;
const unsigned kHidden = 32;

unsigned vodCode(unsigned proc, unsigned vodErr) {
    return voCompositeCode(proc, VOD_ERR_BASE + vodErr);
}

unsigned sysRecvCode(int err) { return voCompositeCode(VoProcSysRecv, 30000 + err); }

}  // namespace

// ---- The connection. ----

VoTcpSocket::VoTcpSocket(VoTcpSocket&& other) noexcept
    : _sd(other._sd),
      _prefetching(other._prefetching),
      _pre(std::move(other._pre)),
      _prePos(other._prePos),
      _preEnd(other._preEnd) {
    other._sd = -1;
}

VoTcpSocket& VoTcpSocket::operator=(VoTcpSocket&& other) noexcept {
    if (this != &other) {
        terminate();
        _sd = other._sd;
        _prefetching = other._prefetching;
        _pre = std::move(other._pre);
        _prePos = other._prePos;
        _preEnd = other._preEnd;
        other._sd = -1;
    }
    return *this;
}

void VoTcpSocket::terminate() {
    if (_sd != -1) close(_sd);
    _sd = -1;
}

int VoTcpSocket::recvall(unsigned char* buf, unsigned len) {
    if (_sd == -1) return EBADF;
    const size_t have = _pre.size() - _prePos;
    const size_t take = have < len ? have : len;
    memcpy(buf, _pre.data() + _prePos, take);
    _prePos += take;
    if (take == len) return 0;
    // The loop gathered all it was going to: what is missing is not coming.
    if (_prefetching) return _preEnd != 0 ? _preEnd : ETIMEDOUT;
    return ::recvall(_sd, buf + take, len - static_cast<unsigned>(take));
}

int VoTcpSocket::sendall(unsigned char* buf, unsigned len) { return ::sendall(_sd, buf, len); }

bool VoTcpSocket::prefetch() {
    _prefetching = true;
    if (_preEnd != 0) return true;
    for (;;) {
        // First the length word, then exactly the cookie it announces.
        size_t want = 4;
        if (_pre.size() >= 4) {
            uint32_t n;
            memcpy(&n, _pre.data(), 4);
            n = ntohl(n);
            if (n == 0 || n > TCP_COOKIE_MAX) return true;  // refused without its body
            want = 4 + n;
        }
        if (_pre.size() >= want) return true;
        unsigned char buf[4 + TCP_COOKIE_MAX];
        ssize_t got = recv(_sd, buf, want - _pre.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (got == 0) {
            _preEnd = ECONNRESET;
            return true;
        }
        if (got < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK) return false;
            if (errno == EINTR) continue;
            _preEnd = errno;
            return true;
        }
        _pre.append(reinterpret_cast<char*>(buf), static_cast<size_t>(got));
    }
}

void VoTcpSocket::endPrefetch(int err) {
    _prefetching = true;
    if (_preEnd == 0) _preEnd = err;
}

// ---- The operation. ----

void VoTcpVfsOp::rejectTcpOp(int sd, unsigned code) {
    struct {
        TcpDumpHdr hdr;
        TcpDumpRejected body;
    } __attribute__((packed)) rec;
    static_assert(sizeof rec == 16, "rejection record");
    packHdr(rec.hdr, TCP_REC_REJECTED, sizeof rec.body);
    rec.body.code = htonl(code);
    int err = ::sendall(sd, reinterpret_cast<unsigned char*>(&rec), sizeof rec);
    if (err != 0) VO_TR(vo_vod, vo_warn, "failed to send reject: (%s)\n", strerror(err));
    // The caller's VoTcpSocket closes the connection.
}

void VoTcpVfsOp::reject(unsigned code) {
    if (_sock.sd() != -1) rejectTcpOp(_sock.sd(), code);
    _sock.terminate();
}

VoTcpVfsOp::VoTcpVfsOp(int sd) : VoTcpVfsOp(VoTcpSocket(sd)) {}

VoTcpVfsOp::VoTcpVfsOp(VoTcpSocket&& sock) : VoTcpVfsOp() { _sock = std::move(sock); }

VoTcpVfsOp::VoTcpVfsOp() : _sock(-1), _opSrcRec() {
    memset(&_cookie, 0, sizeof _cookie);
    memset(&_pgrs, 0, sizeof _pgrs);
}

VoTcpVfsOp::~VoTcpVfsOp() {}

unsigned VoTcpVfsOp::compositeOf(voErrFunc func, unsigned funcrc) {
    if (funcrc > 0xFFFF) return funcrc;
    // The procedure that failed, and the code space of its status: VLDB
    // statuses are offset into the VLDB's catalog, transport failures into
    // the RPC one; D-blade statuses and the daemon's own codes are as they
    // are (the latter offset into the daemon's catalog).
    struct Row {
        voErrFunc func;
        unsigned proc;
    };
    static const Row rows[] = {
        {voErrVldbRecordLookup, VoProcVldbRecordLookup},
        {voErrVldbCreateRecord, VoProcVldbCreateRecord},
        {voErrVldbDeleteRecord, VoProcVldbDeleteRecord},
        {voErrVldbLpConvert, VoProcVldbLpConvert},
        {voErrVldbNewVfsid, VoProcVldbNewVfsId},
        {voErrVodbCreate, VoProcVodbCreate},
        {voErrDbladeVolSetAttr, VoProcDbladeVolSetAttrs},
        {voErrDbladeVolCreate, VoProcDbladeVolCreate},
        {voErrDbladeVolDelete, VoProcDbladeVolDelete},
        {voErrDbladeVolClone, VoProcDbladeVolClone},
        {voErrGetHostByDid, VoProcDldbGetHostByDid},
        {voErrLpListAll, VoProcDbladeLpListAll},
    };
    const bool transport = func >= 10000 && func != voErrValidateSinkDV;
    const voErrFunc base = transport ? static_cast<voErrFunc>(func - 10000) : func;
    for (const Row& r : rows) {
        if (r.func != base) continue;
        if (transport) return voCompositeCode(r.proc, 30300 + funcrc);
        const bool vldb = base >= voErrVldbRecordLookup && base < voErrDbladeVolClone;
        return voCompositeCode(r.proc, vldb ? 30400 + funcrc : funcrc);
    }
    // The daemon's own steps: a refusal (busy volume, bad records) or a
    // missing client.
    if (funcrc >= 5000 && funcrc < 6000) return vodCode(VoProcVodTcpOpValidate, funcrc);
    return vodCode(VoProcVodTcpOpValidate, VOD_ERR_INTERNAL);
}

unsigned VoTcpVfsOp::getRequest(VoTcpSocket& sock, TcpVfsOpCookie& cookie, VoRec::VoType& type) {
    VoTrace::Depth depth;
    uint32_t len = 0;
    if (int e = sock.recvall(reinterpret_cast<unsigned char*>(&len), sizeof len))
        return sysRecvCode(e);
    len = ntohl(len);
    memset(&cookie, 0, sizeof cookie);
    const unsigned badLength = vodCode(VoProcVodRecvCookie, VOD_ERR_BAD_COOKIE_LENGTH);
    // Longer than any cookie: refused before a byte of it is read.
    if (len == 0 || len > TCP_COOKIE_MAX) return badLength;
    if (int e = sock.recvall(reinterpret_cast<unsigned char*>(&cookie), len)) return sysRecvCode(e);
    unsigned expected = 0;
    switch (cookie.requestType) {
        case TCP_REQ_DUMP:
            type = VoRec::VODB_VOLOP_DUMP;
            expected = TCP_DUMP_COOKIE_LEN;
            break;
        case TCP_REQ_RESTORE:
            type = VoRec::VODB_VOLOP_RESTORE;
            expected = TCP_RESTORE_COOKIE_LEN;
            break;
        default:
            VO_TR(vo_vod, vo_warn, "unknown c.requestType=%d\n", cookie.requestType);
            return vodCode(VoProcVodRecvCookie, VOD_ERR_BAD_REQUEST_TYPE);
    }
    // A cookie cut short would leave its missing fields zero: refuse it
    // rather than dump or overwrite volume 0's neighbour.
    if (len != expected) return badLength;
    return 0;
}

void VoTcpVfsOp::copyStateFromCookie(const TcpVfsOpCookie& cookie, VoRec::VoType type) {
    _cookie = cookie;
    if (type == VoRec::VODB_VOLOP_DUMP) {
        if (_cookie.u.dump.dumpNameLength > sizeof _cookie.u.dump.dumpName)
            _cookie.u.dump.dumpNameLength = sizeof _cookie.u.dump.dumpName;
        _srcRec.setOpType(VoRec::VODB_VOLOP_DUMP);
        _srcRec.setVid(_cookie.u.dump.fromVfsId);
        _srcRec.setLid(_cookie.u.dump.lpId);
        _srcRec.setRole(VoRec::VODB_ROLE_SRC);
    } else {
        // The restored volume heads the operation's one record as its
        // source: resurrection starts from source records, and the op type
        // already tells every other operation that it is being written.
        _srcRec.setOpType(VoRec::VODB_VOLOP_RESTORE);
        _srcRec.setVid(_cookie.u.restore.toVfsId);
        _srcRec.setLid(_cookie.u.restore.lpId);
        _srcRec.setRole(VoRec::VODB_ROLE_SRC);
    }
}

unsigned VoTcpVfsOp::prepare(CLIENT* clntVldb, CLIENT*, CLIENT* clntDbladeVol) {
    VoTrace::Depth depth;
    VoRec::VoType type = VoRec::VODB_VOLOP_NULL;
    unsigned code = getRequest(_sock, _cookie, type);
    if (code != 0) {
        setOpDone(code);
        return code;
    }
    copyStateFromCookie(_cookie, type);
    voStateList.iterator(VoServer::retireMatchingOps, this);
    if (VoState::prepare(clntVldb, clntDbladeVol) != 0) {
        voErrFunc func = voErrFuncSuccess;
        unsigned funcrc = 0;
        getErr(&func, &funcrc);
        code = compositeOf(func, funcrc);
        VO_TR(vo_vod, vo_warn, "opid=%lld vfsid=%d refused: func=%d funcrc=%d code=%#X\n",
              static_cast<long long>(_opid), _srcRec.vid(), func, funcrc, code);
        setOpDone(code);
        return code;
    }
    return 0;
}

void VoTcpVfsOp::setOpDone(unsigned code) {
    if (_opDoneCode == 0) _opDoneCode = code;
    _rollForward = false;
    _dbladeIncrCopyRunning = false;
}

void VoTcpVfsOp::dbgDump() {
    getLock();
    VO_TR(vo_vod, vo_event, "VoTcpVfsOp opid=%lld sd=%d done=%#X\n", static_cast<long long>(_opid),
          _sock.sd(), _opDoneCode);
    _srcRec.dbgDump();
    if (isDump()) _opSrcRec.dbgDump();
    releaseLock();
}

bool VoTcpVfsOp::isUsing(unsigned vid, const unsigned char* lid, VoRec::VoType type,
                         VoRec::VfsRole role) {
    for (const VoRec* r : {&_srcRec, &_opSrcRec}) {
        if (r->vid() == 0 || r->vid() != vid || memcmp(r->lid(), lid, 16) != 0) continue;
        return r->opType() == type && r->role() == role;
    }
    return false;
}

// ---- Checks and records. ----

bool VoTcpVfsOp::readsClone() const {
    return isDump() && isSrcRW() && _cookie.u.dump.skipClone == 0;
}

bool VoTcpVfsOp::validate(CLIENT*, CLIENT*) {
    VodbCacheLock cacheLock;
    for (const VoRec* r : VodbCacheLock::getVodbCache()) {
        if (r->vid() != _srcRec.vid() || memcmp(r->lid(), _srcRec.lid(), 16) != 0) continue;
        // Readers may share a volume: a copy's, mirror's or dump's source,
        // or a read-only source another operation streams from in place.
        const bool reader =
            (r->role() == VoRec::VODB_ROLE_SRC &&
             (r->opType() == VoRec::VODB_VOLOP_COPY || r->opType() == VoRec::VODB_VOLOP_MIRROR ||
              r->opType() == VoRec::VODB_VOLOP_DUMP)) ||
            (r->role() == VoRec::VODB_ROLE_OPSRC && r->opType() != VoRec::VODB_VOLOP_MOVE &&
             r->opType() != VoRec::VODB_VOLOP_FINALMOVE);
        if (isDump() && reader) continue;
        VO_TR(vo_vod, vo_warn, "vfsid=%d is busy with another opid=%lld opType(%d)\n", r->vid(),
              static_cast<long long>(r->opid()), static_cast<int>(r->opType()));
        unsigned busy = getErrorCodeForOpType(r->opType());
        setErr(voErrVodValidate, busy != 0 ? busy : unsigned(VOD_ERR_OFFENDING_STREAM));
        return false;
    }
    return true;
}

unsigned VoTcpVfsOp::mkRec(CLIENT* clntVldb) {
    VoTrace::Depth depth;
    if (clntVldb == nullptr) {
        VO_TR(vo_vod, vo_warn, "clntVldb=0\n");
        setErr(voErrVodMkVodbRec, VOD_ERR_NO_VLDB_CLIENT);
        return VOD_ERR_NO_VLDB_CLIENT;
    }
    VoRec* recs[2] = {&_srcRec, &_opSrcRec};
    unsigned count = 1;
    if (isDump()) {
        unsigned opSrcVid = _srcRec.vid();
        if (readsClone()) {
            VO_TR(vo_vod, vo_debug, "call newVfsid for op src\n");
            VoErr err = newVfsid(clntVldb, &opSrcVid);
            if (err != 0) {
                VO_TR(vo_vod, vo_warn, "fail to get a vid for op src\n");
                setAllErr(err);
                return err.funcrc();
            }
        }
        _opSrcRec.setOpType(VoRec::VODB_VOLOP_DUMP);
        _opSrcRec.setVid(opSrcVid);
        _opSrcRec.setLid(_srcRec.lid());
        _opSrcRec.setRole(VoRec::VODB_ROLE_OPSRC);
        count = 2;
    }
    unsigned long long opid = 0;
    if (unsigned r = createVodbRecords(VO_SITE, clntVldb, recs, count, &opid)) return r;
    _opid = opid;
    return 0;
}

// ---- The stream. ----

unsigned VoTcpVfsOp::mkOpSrcSink(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol) {
    VoTrace::Depth depth;
    if (!isDump() || _opSrcRec.vid() == _srcRec.vid()) return 0;
    return cloneOpSrc(VO_SITE, clntVldb, clntSrcDbladeVol, _opSrcRec);
}

unsigned VoTcpVfsOp::startStream(CLIENT* clntSrcDbladeIncrCopy, CLIENT* clntSrcDbladeVol) {
    VoTrace::Depth depth;
    unsigned r;
    if (_srcRec.opType() == VoRec::VODB_VOLOP_DUMP) {
        r = invokeDbladeDump(clntSrcDbladeIncrCopy);
    } else if (_srcRec.opType() == VoRec::VODB_VOLOP_RESTORE) {
        r = saveVolAttrsOfRestoreVolume(clntSrcDbladeVol);
        if (r == 0) r = invokeDbladeRestore(clntSrcDbladeIncrCopy);
    } else {
        r = vodCode(VoProcVodStartDbladeIncrCopy, VOD_ERR_BAD_REQUEST_TYPE);
    }
    if (r != 0) setOpDone(r);
    return r;
}

unsigned VoTcpVfsOp::invokeDbladeDump(CLIENT* clntIncrCopy) {
    VoTrace::Depth depth;
    if (clntIncrCopy == nullptr) {
        setErr(voErrVodStartStream, VOD_ERR_NO_DBLADE_CLIENT);
        return vodCode(VoProcVodInvokeDbladeDump, VOD_ERR_NO_DBLADE_CLIENT);
    }
    const VoRec& from = _opSrcRec.vid() != 0 ? _opSrcRec : _srcRec;
    char node[513];
    if (gethostname(node, sizeof node) != 0) snprintf(node, sizeof node, "node-name-not-available");
    node[sizeof node - 1] = '\0';
    char name[sizeof _cookie.u.dump.dumpName + 1];
    memcpy(name, _cookie.u.dump.dumpName, _cookie.u.dump.dumpNameLength);
    name[_cookie.u.dump.dumpNameLength] = '\0';

    TcpVfsDumpDest dest;
    memset(&dest, 0, sizeof dest);
    dest.pid = getpid();
    dest.sd = _sock.sd();
    dest.dumpFromDV = _cookie.u.dump.dumpFromDV;
    TcpVfsDumpIn in;
    memset(&in, 0, sizeof in);
    in.opId = _opid;
    in.opType = VoRec::VODB_VOLOP_DUMP;
    in.fromVfsId = from.vid();
    memcpy(in.fromLpId, from.lid(), sizeof in.fromLpId);
    in.nodeName = node;
    in.dumpName = name;
    in.dests.dests_len = 1;
    in.dests.dests_val = &dest;

    u_int status = 0;
    clnt_stat st = tcpvfsdump_1(&in, &status, clntIncrCopy);
    if (st != RPC_SUCCESS) {
        VO_TR(vo_incrcopy, vo_warn, "tcpvfsdump_1 vfsid=%d failed: %s\n", in.fromVfsId,
              clnt_sperrno(st));
        setErr(voErrVodStartStream, st);
        return voCompositeCode(VoProcVicTcpVfsDump, st + 30300);
    }
    if (status != 0) {
        VO_TR(vo_incrcopy, vo_warn, "tcpvfsdump_1 vfsid=%d err %u\n", in.fromVfsId, status);
        setErr(voErrVodStartStream, status);
        return voCompositeCode(VoProcVicTcpVfsDump, status + 20000);
    }
    return 0;
}

unsigned VoTcpVfsOp::invokeDbladeRestore(CLIENT* clntIncrCopy) {
    VoTrace::Depth depth;
    if (clntIncrCopy == nullptr) {
        setErr(voErrVodStartStream, VOD_ERR_NO_DBLADE_CLIENT);
        return vodCode(VoProcVodInvokeDbladeRestore, VOD_ERR_NO_DBLADE_CLIENT);
    }
    TcpVfsRestoreIn in;
    memset(&in, 0, sizeof in);
    in.opId = _opid;
    in.pid = getpid();
    in.sd = _sock.sd();
    in.force = _cookie.u.restore.force;
    in.toVfsId = _srcRec.vid();
    memcpy(in.toLpId, _srcRec.lid(), sizeof in.toLpId);

    u_int status = 0;
    clnt_stat st = tcpvfsrestore_1(&in, &status, clntIncrCopy);
    if (st != RPC_SUCCESS) {
        VO_TR(vo_incrcopy, vo_warn, "tcpvfsrestore_1 vfsid=%d failed: %s\n", in.toVfsId,
              clnt_sperrno(st));
        setErr(voErrVodStartStream, st);
        return voCompositeCode(VoProcVicTcpVfsRestore, st + 30300);
    }
    if (status != 0) {
        VO_TR(vo_incrcopy, vo_warn, "tcpvfsrestore_1 vfsid=%d err %u\n", in.toVfsId, status);
        setErr(voErrVodStartStream, status);
        return voCompositeCode(VoProcVicTcpVfsRestore, status + 20000);
    }
    return 0;
}

unsigned VoTcpVfsOp::saveVolAttrsOfRestoreVolume(CLIENT* clntDbladeVol) {
    VoTrace::Depth depth;
    VoXdrResult<VolGetattrOut_t> out(xdr_VolGetattrOut_t);
    unsigned rc = VoRpcCalls::dbladeGetAttrs(clntDbladeVol, _srcRec.vid(), _srcRec.lid(), *out);
    VoErr err = dbladeOutcome(VO_SITE, VoTrace::vo_srcvol, "dbladeGetAttrs", voErrDbladeVolGetAttr,
                              _opid, _srcRec.vid(), rc, rc == 0 ? out->returnCode : 0);
    if (err != 0) {
        setAllErr(err);
        return voCompositeCode(VoProcVodInvokeDbladeRestore, err.funcrc() & 0xFFFF);
    }
    const tarn_volgattrx_t& a = out->return_volattrs;
    _mountedAtVolName = a.mountedatvolname != nullptr ? a.mountedatvolname : "";
    _mountedAt[0] = a.mountedatdirvnode;
    _mountedAt[1] = a.mountedatdirunique;
    _mountedAt[2] = a.mountedatparentvnode;
    _mountedAt[3] = a.mountedatparentunique;
    _applyRestoreAttrs = true;
    return 0;
}

unsigned VoTcpVfsOp::restoreMountedAtAttrsOfRestoreVolume(CLIENT* clntDbladeVol) {
    VoTrace::Depth depth;
    VolSetattrIn in;
    memset(&in, 0, sizeof in);
    in.vfsID = _srcRec.vid();
    memcpy(in.lpUUID, _srcRec.lid(), sizeof in.lpUUID);
    in.set_attrs.how = VOLSET_MOUNTEDATVOLNAME | VOLSET_MOUNTEDATDIRVNODE |
                       VOLSET_MOUNTEDATDIRUNIQUE | VOLSET_MOUNTEDATPARENTVNODE |
                       VOLSET_MOUNTEDATPARENTUNIQUE;
    char empty[] = "";
    in.set_attrs.attrs.volname = empty;
    in.set_attrs.attrs.mountedatvolname = &_mountedAtVolName[0];
    in.set_attrs.attrs.mountedatdirvnode = _mountedAt[0];
    in.set_attrs.attrs.mountedatdirunique = _mountedAt[1];
    in.set_attrs.attrs.mountedatparentvnode = _mountedAt[2];
    in.set_attrs.attrs.mountedatparentunique = _mountedAt[3];
    VoXdrResult<VolSetattrOut_t> out(xdr_VolSetattrOut_t);
    unsigned rc = VoRpcCalls::dbladeVfsSetAttrs(&in, out.get(), clntDbladeVol, kAttrTimeoutSec);
    VoErr err =
        dbladeOutcome(VO_SITE, VoTrace::vo_srcvol, "dbladeVfsSetAttrs", voErrDbladeVolSetAttr,
                      _opid, _srcRec.vid(), rc, rc == 0 ? out->returnCode : 0);
    if (err != 0) setAllErr(err);
    return err;
}

unsigned VoTcpVfsOp::progress(CLIENT* clntSrcDbladeIncrCopy) {
    VoTrace::Depth depth;
    VoXdrResult<IncrCopyProgressOut> res(xdr_IncrCopyProgressOut);
    if (unsigned r = pollStream(clntSrcDbladeIncrCopy, _pgrs, res)) return r;
    const IncrCopyPgrsOut& p = res->IncrCopyProgressOut_u.out;
    if (p.dstProgress.dstProgress_len == 0) {
        memset(&_pgrs.sink, 0, sizeof _pgrs.sink);
    } else {
        sinkProgressOf(p.dstProgress.dstProgress_val[0], &_pgrs.sink);
    }
    if (_pgrs.src.status == VoDone) {
        _dbladeIncrCopyRunning = false;
        if (failedStreamTest(_pgrs.rc, _pgrs.src, _pgrs.sink) != 0) _rollForward = false;
    }
    return 0;
}

// ---- The end. ----

unsigned VoTcpVfsOp::conclude(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol,
                              CLIENT* clntSrcDbladeIncrCopy) {
    VoTrace::Depth depth;
    const long long opid = static_cast<long long>(_opid);
    if (clntVldb == nullptr) {
        VO_TR(vo_vod, vo_warn, "clntVldb=0\n");
        setErr(voErrVodConclude, VOD_ERR_NO_VLDB_CLIENT);
        setHiLvlErr(voErrEndStream);
        return VOD_ERR_NO_VLDB_CLIENT;
    }
    getLock();
    const VoCopyPgrsOut p = _pgrs;
    releaseLock();
    const int failed = traceFailedStreamTest(VO_SITE, p.rc, p.src, p.sink);
    if (failed != 0) {
        _rollForward = false;
        // The stream's own code says most; else the step that stopped it.
        if (_opDoneCode == 0) {
            const unsigned proc = isDump() ? VoProcVicTcpVfsDump : VoProcVicTcpVfsRestore;
            if (p.src.completionCode != 0)
                _opDoneCode = voCompositeCode(proc, p.src.completionCode);
            else if (p.sink.completionCode != 0 && p.sink.completionCode != VIC_ESINKUPTODATE)
                _opDoneCode = voCompositeCode(proc, p.sink.completionCode);
            else
                _opDoneCode = vodCode(VoProcVodStartDbladeIncrCopy, VOD_ERR_OFFENDING_STREAM);
        }
    }
    VO_TR(vo_vod, vo_audit, "opid=%lld _rollForward=%d\n", opid, int(_rollForward));
    return wrapup(clntVldb, clntSrcDbladeVol, clntSrcDbladeIncrCopy);
}

unsigned VoTcpVfsOp::wrapup(CLIENT* clntVldb, CLIENT* clntDbladeVol, CLIENT*) {
    VoTrace::Depth depth;
    const unsigned long long opid = _opid;
    if (!_rollForward && _sock.sd() != -1) {
        unsigned code = _opDoneCode;
        if (code == 0) {
            voErrFunc func = voErrFuncSuccess;
            unsigned funcrc = 0;
            getErr(&func, &funcrc);
            code = compositeOf(func, funcrc);
        }
        reject(code);
    }
    _sock.terminate();

    if (!isDump() && !_restoreVfsCleaned) {
        unsigned long long dver = 0;
        VoErr err = getDataVerFromDblade(clntDbladeVol, _srcRec.vid(), _srcRec.lid(), &dver);
        unsigned result = 0;
        if (err != 0 || !_applyRestoreAttrs) {
            const bool gotAnswer = err != 0 && err.func() == voErrDbladeVolGetAttr;
            // This D-blade says 21 for an id it does not hold on a known LP.
            if (gotAnswer && (err.funcrc() == kNoSuchVolume || err.funcrc() == kNotOnLp)) {
                VO_TR(vo_vod, vo_warn, "opid=%llu, vfsId=%u doesn't exist. rm VLDB rec\n", opid,
                      _srcRec.vid());
                err = vldbDeleteRecord(clntVldb, _srcRec.vid(), _srcRec.lid());
            } else if (gotAnswer && err.funcrc() == kHidden) {
                // The D-blade keeps a volume it did not finish writing hidden:
                // readers never see a partial restore as the volume.
                VO_TR(vo_vod, vo_warn,
                      "opid=%llu vfsId=%u was left partly restored: hidden until restored "
                      "again or deleted\n",
                      opid, _srcRec.vid());
            }
            result = err.funcrc();
        } else {
            result = restoreMountedAtAttrsOfRestoreVolume(clntDbladeVol);
        }
        if (result == 0) _restoreVfsCleaned = true;
    }

    unsigned failed = deleteOpSrc(clntVldb, clntDbladeVol);
    if (failed == 0 && !retiredFromVodb()) {
        VoErr err = deleteVodbRec(clntVldb);
        if (err != 0) {
            VO_TR(vo_vod, vo_warn, "opid=%llu deleteVodbRec err=%u\n", opid, unsigned(err));
            failed = err;
        }
    }
    return failed;
}

unsigned VoTcpVfsOp::deleteOpSrc(CLIENT* clntVldb, CLIENT* clntDbladeVol) {
    VoTrace::Depth depth;
    // Only a clone made for the dump goes; a volume read in place stays.
    if (!isDump() || _opSrcRec.vid() == 0 || _opSrcRec.vid() == _srcRec.vid()) return 0;
    return deleteVolume(VO_SITE, VoTrace::vo_srcvol, clntVldb, clntDbladeVol, _opSrcRec,
                        VolDeleteWording::copyOpSrc);
}

// ---- After a crash. ----

unsigned VoTcpVfsOp::resurrectFromVoRec(unsigned long long opid, CLIENT*) {
    VoTrace::Depth depth;
    _opid = opid;
    VO_TR(vo_vod, vo_audit, "resurrect TCP dump/restore _opid = %lld\n", opid);
    std::optional<VodbCacheLock> cacheLock;
    if (!VodbCacheLock::heldByThisThread()) cacheLock.emplace();
    bool haveMain = false;
    for (const VoRec* r : VodbCacheLock::getVodbCache()) {
        if (r->opid() != opid) continue;
        const VoRec::VoType t = r->opType();
        const VoRec::VfsRole role = r->role();
        if (t == VoRec::VODB_VOLOP_DUMP && role == VoRec::VODB_ROLE_SRC) {
            _srcRec = *r;
            haveMain = true;
        } else if (t == VoRec::VODB_VOLOP_DUMP && role == VoRec::VODB_ROLE_OPSRC) {
            _opSrcRec = *r;
        } else if (t == VoRec::VODB_VOLOP_RESTORE && role == VoRec::VODB_ROLE_SRC) {
            _srcRec = *r;
            haveMain = true;
        } else {
            VO_TR(vo_vod, vo_warn, "opid=%lld has a VODB rec of type %d role %d\n", opid,
                  static_cast<int>(t), static_cast<int>(role));
            setErr(voErrVodCrashRecovery, VOD_ERR_INTERNAL);
            return VOD_ERR_INTERNAL;
        }
    }
    if (!haveMain) {
        setErr(voErrVodCrashRecovery, VOD_ERR_INTERNAL);
        return VOD_ERR_INTERNAL;
    }
    _cookie.requestType = isDump() ? TCP_REQ_DUMP : TCP_REQ_RESTORE;
    // Nothing streams for a daemon that is gone: the stream it started
    // ended with it or is no business of this one.
    _rollForward = false;
    _vodbRecordStored = true;
    return 0;
}

unsigned VoTcpVfsOp::recoverFromCrash(CLIENT* clntVldb, CLIENT* clntSrcDbladeVol,
                                      CLIENT* clntSrcDbladeIncrCopy) {
    VoTrace::Depth depth;
    const unsigned long long opid = _opid;
    if (clntVldb == nullptr) {
        VO_TR(vo_vod, vo_warn, "clntVldb=0\n");
        setErr(voErrVodCrashRecovery, VOD_ERR_NO_VLDB_CLIENT);
        return VOD_ERR_NO_VLDB_CLIENT;
    }
    wrapup(clntVldb, clntSrcDbladeVol, clntSrcDbladeIncrCopy);
    if (forceRetireFromVodb() && !retiredFromVodb()) {
        VoErr err = deleteVodbRec(clntVldb);
        if (err != 0) {
            VO_TR(vo_vod, vo_warn, "opid=%llu deleteVodbRec err=%u\n", opid, unsigned(err));
            return err;
        }
        _vodbRecordStored = false;
    }
    return 0;
}
