// Dump and restore over a connection vod hands over, on the D-blade that serves the volume's
// LP.  The request is answered at once; a thread of its own then runs the stream, which is a
// stream like any other for progress, pause, resume, cancel and conclude (op type 6 or 7),
// at the stream's speed limit.
//
// A dump:
//   take-over  (at the request) vod's connection, through pidfd_open and pidfd_getfd
//   freeze     (at the request) the volume's image as it stands, as every stream freezes it
//   begin      the Begin and Meta records
//   stream     fault point "tcpvfsdump.stream"; then the files and removals changed since the
//              from-version, in path order, each file in pieces
//   end        End and Close(0)
//
// A restore:
//   take-over  (at the request); the target volume is claimed as a sink is
//   stream     the whole stream read and checked into a staging folder; fault point
//              "tcpvfsrestore.stream" once the Begin record is in
//   decide     an incremental dump applies onto a target at its from-version only; a full
//              dump replaces the target's contents, and replaces files only when forced
//   apply      the target is hidden from its first change (fault point
//              "tcpvfsrestore.apply" after that change) until it holds the dump's files and
//              data version
//   answer     a Close record to the client with 0 or the failure code
//
// Either ends the stream with its code and tells vod.  A refusal or a damaged stream leaves
// the target as it was: nothing is applied before every check has held.  A failure during
// the apply leaves it hidden, as a failed stream leaves a sink, so it never looks whole.  A
// fault point's drop is a D-blade that died there: the stream is forgotten, the client gets
// no Close and vod no notice, and what was applied stays (hidden).

#include "sim/tcpvfs.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "dblade_incrcopy.h"
#include "sim/dblade_sync.h"
#include "sim/incrcopy.h"
#include "sim/simfaults.h"
#include "sim/simnode.h"
#include "util/tcpdump_stream.h"

namespace {

constexpr unsigned kDumpOpType = 6, kRestoreOpType = 7;
constexpr unsigned kNameMax = 256;  // the Begin record's name fields
// The connection is watched in slices, so that a cancel is seen while the client is slow;
// a client that moves nothing for the idle limit has gone away.
constexpr int kSliceMs = 200;
constexpr int kIdleLimitMs = 300 * 1000;

uint64_t gDirSeq = 0;  // under SimNode::lock(): image and staging folders are never reused

// ---- the connection --------------------------------------------------------------------

// vod's connection, taken over by its pid and descriptor.  -1 with errno set when the kernel
// refuses (EPERM, ESRCH, ENOSYS, EBADF, ...) or the descriptor is no socket (ENOTSOCK).
int takeOver(int pid, int sd) {
    int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    if (pidfd < 0) return -1;
    int fd = static_cast<int>(syscall(SYS_pidfd_getfd, pidfd, sd, 0));
    int e = errno;
    close(pidfd);
    if (fd < 0) {
        errno = e;
        return -1;
    }
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISSOCK(st.st_mode)) {
        close(fd);
        errno = ENOTSOCK;
        return -1;
    }
    return fd;
}

// Our copy of the connection; vod keeps its own until it winds the operation up, so closing
// ours does not end the connection.  Used without SimNode::lock() held: waiting takes it.
class Conn {
  public:
    Conn(int fd, uint64_t opId) : _fd(fd), _opId(opId) {}
    ~Conn() { close(_fd); }
    Conn(const Conn&) = delete;
    Conn& operator=(const Conn&) = delete;

    // 0, or an errno value: ECANCELED once the stream's destination has ended, ETIMEDOUT
    // after the idle limit.
    int send(const unsigned char* p, size_t n) {
        while (n > 0) {
            if (int e = wait(POLLOUT)) return fail(e);
            ssize_t w = ::send(_fd, p, n, MSG_NOSIGNAL | MSG_DONTWAIT);
            if (w < 0 && (errno == EAGAIN || errno == EINTR)) continue;
            if (w < 0) return fail(errno);
            if (w == 0) return fail(ESHUTDOWN);
            p += w;
            n -= static_cast<size_t>(w);
        }
        return 0;
    }

    // As send; ECONNRESET when the client closed first.
    int recv(unsigned char* p, unsigned n) {
        while (n > 0) {
            if (int e = wait(POLLIN)) return fail(e);
            ssize_t r = ::recv(_fd, p, n, MSG_DONTWAIT);
            if (r < 0 && (errno == EAGAIN || errno == EINTR)) continue;
            if (r < 0) return fail(errno);
            // The client stopped sending; it may still read the answer.
            if (r == 0) return ECONNRESET;
            p += r;
            n -= static_cast<unsigned>(r);
        }
        return 0;
    }

    // The connection failed: nothing more is worth sending on it.
    bool broken() const { return _broken; }

  private:
    int wait(short events) {
        for (int idle = 0;; idle += kSliceMs) {
            pollfd pfd{_fd, events, 0};
            int r = poll(&pfd, 1, kSliceMs);
            if (r > 0) return 0;  // ready, or failed: the call that follows says which
            if (r < 0 && errno != EINTR) return errno;
            {
                std::lock_guard<std::mutex> g(SimNode::get().lock());
                unsigned code;
                if (simStreamDestEnded(_opId, &code)) return ECANCELED;
            }
            if (idle >= kIdleLimitMs) return ETIMEDOUT;
        }
    }

    int fail(int e) {
        if (e != ECANCELED) _broken = true;
        return e;
    }

    int _fd;
    uint64_t _opId;
    bool _broken = false;
};

// ---- codes ----------------------------------------------------------------------------------

unsigned vicOfErrno(int e, bool writing) {
    switch (e) {
        case ECANCELED:
            return VIC_ECANCELLED;
        case EPIPE:
            return VIC_ETCPPIPE;
        case ECONNRESET:
        case ESHUTDOWN:
            return VIC_ETCPCLOSE;
        case ENOMEM:
        case ENOBUFS:
            return VIC_ETCPNOMEM;
        case EFAULT:
            return VIC_ETCPFAULT;
        case ENOTCONN:
            return VIC_ENOTCONN;
        case EHOSTUNREACH:
        case ENETUNREACH:
            return VIC_EHOSTUNREACH;
        case EADDRINUSE:
            return VIC_ETCPADDRINUSE;
        default:
            return writing ? VIC_ETCPWRITE : VIC_ETCPOTHER;
    }
}

// What a restore answers for a stream the reader refused.
unsigned vicOfStream(const TcpDumpStatus& st) {
    switch (st.error) {
        case TcpDumpError::Ok:
            return 0;
        case TcpDumpError::Truncated:
            return VIC_ETCPCLOSE;
        case TcpDumpError::Io:
            return vicOfErrno(static_cast<int>(st.detail), false);
        case TcpDumpError::BadVersion:
            return VIC_EPROTOUNKNOWN;
        case TcpDumpError::BadCount:
        case TcpDumpError::BadTotals:
            return VIC_ETOTALRECCOUNT;
        // The client gave up on its own stream.
        case TcpDumpError::StreamFailed:
        case TcpDumpError::Rejected:
            return VIC_ECANCELLED;
        default:
            return VIC_EBADRECORD;
    }
}

// The code a stream whose destination has ended stops with.
unsigned destCode(uint64_t opId) {
    unsigned code = 0;
    simStreamDestEnded(opId, &code);
    return code ? code : unsigned{VIC_ECANCELLED};
}

// ---- one operation ------------------------------------------------------------------------

// One change staged by a restore: a file in the staging folder, or a removal.
struct Staged {
    std::string path;
    bool remove = false;
    uint64_t version = 0, size = 0;
    std::string file;
};

struct TcpOp {
    uint64_t opId = 0;
    bool restore = false;
    std::unique_ptr<Conn> conn;
    std::string dir;  // a dump's frozen image, a restore's staging folder
    // A dump.
    TcpDumpInfo info;
    TcpDumpMeta meta;
    std::vector<SimChange> work;
    // A restore.
    SimRestoreRequest rrq;
    std::vector<Staged> staged;
    int stageFd = -1;  // the file being received
};

const char* opName(const TcpOp& op) { return op.restore ? "restore" : "dump"; }

void logFailure(const TcpOp& op, const char* what, unsigned code) {
    std::fprintf(stderr, "vodsim: %s %llu: %s failed with %u\n", opName(op),
                 static_cast<unsigned long long>(op.opId), what, code);
}

// A fault point's verdict as the step's outcome: 0 to go on, else the code; *dropped when
// the D-blade died there.
unsigned meetPoint(const char* point, std::unique_lock<std::mutex>& lk, bool* dropped) {
    SimFaultVerdict v = simFaultPoint(point, lk);
    if (v.kind == SimFaultKind::Drop) *dropped = true;
    if (v.kind == SimFaultKind::Status) return v.status ? v.status : unsigned{VIC_EIO};
    return 0;
}

// ---- the dump -------------------------------------------------------------------------------

bool readFull(int fd, unsigned char* p, size_t n) {
    while (n > 0) {
        ssize_t r = read(fd, p, n);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return false;
        p += r;
        n -= static_cast<size_t>(r);
    }
    return true;
}

// Sends one file of the image in pieces as the speed limit lets them go.
unsigned sendFile(TcpOp* op, TcpDumpWriter& w, const SimChange& c,
                  std::unique_lock<std::mutex>& lk) {
    int fd = open((op->dir + "/" + c.path).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return VIC_EIO;
    std::vector<unsigned char> buf(TcpDumpWriter::pieceMax(c.path.size()));
    unsigned code = 0;
    uint64_t off = 0;
    do {
        size_t allowed = simStreamAwaitTurn(op->opId, lk);
        if (allowed == 0) {
            code = destCode(op->opId);
            break;
        }
        uint32_t n = static_cast<uint32_t>(std::min<uint64_t>({buf.size(), allowed, c.size - off}));
        lk.unlock();
        // The image holds what the metadata says, or the source failed.
        bool got = readFull(fd, buf.data(), n);
        int e = got ? w.filePiece(c.path, c.version, c.size, off, buf.data(), n) : 0;
        lk.lock();
        if (!got) code = VIC_EIO;
        if (e) code = vicOfErrno(e, true);
        if (code) break;
        off += n;
        simStreamCount(op->opId, n, 0);
    } while (off < c.size);
    close(fd);
    return code;
}

unsigned dump(TcpOp* op, std::unique_lock<std::mutex>& lk, bool* dropped) {
    TcpDumpWriter w([op](const unsigned char* p, size_t n) { return op->conn->send(p, n); });
    lk.unlock();
    int e = w.begin(op->info);
    if (e == 0) e = w.meta(op->meta);
    lk.lock();
    if (e) return vicOfErrno(e, true);
    if (unsigned code = meetPoint("tcpvfsdump.stream", lk, dropped); code || *dropped) return code;
    for (const SimChange& c : op->work) {
        if (c.remove) {
            if (simStreamAwaitTurn(op->opId, lk) == 0) return destCode(op->opId);
            lk.unlock();
            e = w.removal(c.path, c.version);
            lk.lock();
            if (e) return vicOfErrno(e, true);
        } else if (unsigned code = sendFile(op, w, c, lk)) {
            return code;
        }
        simStreamCount(op->opId, 0, 1);
    }
    lk.unlock();
    e = w.end();
    if (e == 0) e = w.close(0);
    lk.lock();
    return e ? vicOfErrno(e, true) : 0;
}

// ---- the restore ----------------------------------------------------------------------------

// Takes one good record into the staging folder.  Without the lock: the folder is the
// operation's own.
unsigned stage(TcpOp* op, const TcpDumpRecord& r) {
    if (r.type != TCP_REC_DATA || r.kind == TCP_DATA_META) return 0;
    // The stream's rules allow paths no volume can hold.
    if (!simValidVolPath(r.path)) return VIC_EBADRECORD;
    if (r.kind == TCP_DATA_REMOVE) {
        op->staged.push_back(Staged{r.path, true, r.version, 0, ""});
        return 0;
    }
    if (r.pieceOffset == 0) {
        Staged s{r.path, false, r.version, r.fileSize,
                 op->dir + "/f" + std::to_string(op->staged.size())};
        op->stageFd = open(s.file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (op->stageFd < 0) return VIC_EIO;
        op->staged.push_back(std::move(s));
    }
    for (size_t done = 0; done < r.dataLength;) {
        ssize_t n = write(op->stageFd, r.data + done, r.dataLength - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return VIC_EIO;
        done += static_cast<size_t>(n);
    }
    if (r.pieceOffset + r.dataLength == r.fileSize) {
        int fd = op->stageFd;
        op->stageFd = -1;
        if (close(fd) != 0) return VIC_EIO;
    }
    return 0;
}

// Reads the whole stream and stages it; 0 once it is whole and every check held.
unsigned receive(TcpOp* op, TcpDumpReader* reader, std::unique_lock<std::mutex>& lk,
                 bool* dropped) {
    TcpDumpRecv recv = [op](unsigned char* p, unsigned n) { return op->conn->recv(p, n); };
    std::vector<unsigned char> buf;
    while (!reader->complete()) {
        if (simStreamAwaitTurn(op->opId, lk) == 0) return destCode(op->opId);
        lk.unlock();
        TcpDumpRecord rec;
        TcpDumpStatus st = tcpDumpReadRecord(*reader, recv, &buf, &rec);
        unsigned code = st.ok() ? stage(op, rec) : vicOfStream(st);
        lk.lock();
        if (!st.ok())
            std::fprintf(stderr, "vodsim: restore %llu: %s\n",
                         static_cast<unsigned long long>(op->opId), st.text().c_str());
        if (code) return code;
        bool change = rec.type == TCP_REC_DATA && rec.kind != TCP_DATA_META &&
                      rec.pieceOffset + rec.dataLength == rec.fileSize;
        simStreamCount(op->opId, sizeof(TcpDumpHdr) + buf.size(), change ? 1 : 0);
        if (rec.type == TCP_REC_BEGIN) {
            if (unsigned c = meetPoint("tcpvfsrestore.stream", lk, dropped); c || *dropped)
                return c;
        }
    }
    return 0;
}

// What the target holds once the dump is applied: every path's size.
std::map<std::string, uint64_t> filesAfter(const SimVolume& v, const TcpOp& op, bool full) {
    std::map<std::string, uint64_t> after;
    if (!full)
        for (const auto& [path, f] : v.files)
            if (!f.deleted) after[path] = f.size;
    for (const Staged& s : op.staged) {
        if (s.remove)
            after.erase(s.path);
        else
            after[s.path] = s.size;
    }
    return after;
}

bool holdsFiles(const SimVolume& v) {
    return std::any_of(v.files.begin(), v.files.end(),
                       [](const auto& f) { return !f.second.deleted; });
}

// Whether the verified dump may go onto the target: 0, or the refusal.
unsigned decide(const TcpOp& op, const SimVolume& v, const TcpDumpInfo& info) {
    // A full dump starts from nothing: a target that holds files does not match it unless
    // force says to replace them.  An incremental one continues the target's own version.
    if (info.full() ? holdsFiles(v) && !op.rrq.force : v.dataVersion != info.fromDV)
        return VIC_EDVMISMATCH;
    SimVolStore& store = SimVolStore::get();
    unsigned bs = store.blockSizeOf(v.lp);
    uint64_t blocks = 0;
    for (const auto& [path, size] : filesAfter(v, op, info.full())) blocks += simBlocks(size, bs);
    uint64_t used = store.blocksUsed(v);
    if (blocks > used && blocks - used > store.blocksFreeOnLp(v.lp)) return VIC_EIO;
    if (v.attrs.maxQuota && blocks > v.attrs.maxQuota) return VIC_EIO;
    return 0;
}

SimVolume* volumeByKey(int64_t key) {
    for (SimVolume* v : SimVolStore::get().volumes())
        if (v->key == key) return v;
    return nullptr;
}

unsigned apply(TcpOp* op, const TcpDumpInfo& info, std::unique_lock<std::mutex>& lk,
               bool* dropped) {
    SimVolStore& store = SimVolStore::get();
    // Claimed by the stream since the request, so it is still there unless cancelled.
    unsigned code;
    if (simStreamDestEnded(op->opId, &code)) return destCode(op->opId);
    SimVolume* v = store.find(op->rrq.lp, op->rrq.vfsid);
    if (!v) return VIC_EVOLNOTFOUND;
    if (unsigned refusal = decide(*op, *v, info)) return refusal;

    // A full dump replaces: what the target holds and the dump does not goes first.
    std::vector<Staged> plan;
    if (info.full()) {
        std::set<std::string> kept;
        for (const Staged& s : op->staged)
            if (!s.remove) kept.insert(s.path);
        for (const auto& [path, f] : v->files)
            if (!f.deleted && !kept.count(path))
                plan.push_back(Staged{path, true, info.toDV, 0, ""});
    }
    plan.insert(plan.end(), op->staged.begin(), op->staged.end());

    int64_t key = v->key;
    bool pointMet = false;
    auto meet = [&]() -> unsigned {
        pointMet = true;
        if (unsigned c = meetPoint("tcpvfsrestore.apply", lk, dropped); c || *dropped) return c;
        // The lock was let go: a cancel may have given the target back meanwhile.
        if (simStreamDestEnded(op->opId, &code)) return destCode(op->opId);
        v = volumeByKey(key);
        return v ? 0 : unsigned{VIC_EVOLNOTFOUND};
    };
    for (const Staged& s : plan) {
        unsigned st = s.remove ? store.commitDelete(v, s.path, s.version)
                               : store.commitFile(v, s.path, s.file, s.version, s.size);
        if (st) return VIC_EIO;
        if (!pointMet)
            if (unsigned c = meet(); c || *dropped) return c;
    }
    if (!pointMet)
        if (unsigned c = meet(); c || *dropped) return c;
    return store.finishSink(v, info.toDV) ? unsigned{VIC_EIO} : 0;
}

unsigned restore(TcpOp* op, std::unique_lock<std::mutex>& lk, bool* dropped) {
    TcpDumpReader reader;
    unsigned code = receive(op, &reader, lk, dropped);
    if (op->stageFd >= 0) {
        close(op->stageFd);
        op->stageFd = -1;
    }
    if (code || *dropped) return code;
    return apply(op, reader.summary().info, lk, dropped);
}

// ---- the end --------------------------------------------------------------------------------

void run(std::shared_ptr<TcpOp> op) {
    std::unique_lock<std::mutex> lk(SimNode::get().lock());
    bool dropped = false;
    unsigned code = op->restore ? restore(op.get(), lk, &dropped) : dump(op.get(), lk, &dropped);
    if (dropped) {
        simStreamForget(op->opId);
    } else {
        if (code) logFailure(*op, "stream", code);
        // The client learns the outcome from a Close: a restore's always, a dump's when it
        // stopped short, as long as the connection still takes it.
        if ((op->restore || code) && !op->conn->broken()) {
            lk.unlock();
            TcpDumpWriter w([&](const unsigned char* p, size_t n) { return op->conn->send(p, n); });
            w.close(code);
            lk.lock();
        }
        simStreamEnd(op->opId, code);
    }
    lk.unlock();
    op->conn.reset();
    simRemoveTree(op->dir);
    if (!dropped) simNotifyVod(op->opId);
}

// Makes the operation's folder and takes vod's connection over: the last steps of a request,
// after which only the thread can fail.  0 or the refusal.
unsigned prepareOp(TcpOp* op, int pid, int sd) {
    int fd = takeOver(pid, sd);
    if (fd < 0) {
        std::fprintf(stderr, "vodsim: %s %llu: cannot take over descriptor %d of process %d: %s\n",
                     opName(*op), static_cast<unsigned long long>(op->opId), sd, pid,
                     strerror(errno));
        simRemoveTree(op->dir);
        return VIC_ENOSOCKET;
    }
    op->conn = std::make_unique<Conn>(fd, op->opId);
    return 0;
}

std::string opDir(const SimLpId& lp, uint64_t opId, const char* what) {
    const SimLp* l = SimNode::get().findLp(lp.data());
    return SimVolStore::get().streamDir(l ? l->did : 0, opId) + "-" + what + "-" +
           std::to_string(++gDirSeq);
}

unsigned startDump(const SimDumpRequest& rq) {
    if (rq.opType != kDumpOpType || rq.dests != 1 || rq.vfsid == 0 || rq.pid <= 0 || rq.sd < 0 ||
        rq.nodeName.size() > kNameMax || rq.dumpName.size() > kNameMax)
        return VIC_EINVAL;
    SimSinkSpec client{0, rq.toVfsid, rq.toLp};
    if (unsigned st = simStreamOpen(rq.opId, rq.opType, rq.lp, rq.vfsid, {client})) return st;
    // From here every refusal forgets the stream again.
    SimVolume* src = SimVolStore::get().find(rq.lp, rq.vfsid);
    auto op = std::make_shared<TcpOp>();
    op->opId = rq.opId;
    TcpDumpInfo& i = op->info;
    // Changes at dumpFromDV and later are dumped; a from-version of 0 or 1 is everything.
    i.fromDV = rq.dumpFromDV <= 1 ? 0 : rq.dumpFromDV - 1;
    i.toDV = src->dataVersion;
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    i.seconds = static_cast<uint32_t>(now.tv_sec);
    i.nanoseconds = static_cast<uint32_t>(now.tv_nsec);
    i.volName = src->attrs.volname;
    i.nodeName = rq.nodeName;
    i.dumpName = rq.dumpName;
    unsigned st = 0;
    // A dump from a version the volume has not reached would skip what comes between.
    if (i.fromDV > i.toDV) st = VIC_EDVMISMATCH;
    std::string err;
    op->dir = opDir(rq.lp, rq.opId, "dump");
    if (!st && !SimVolStore::get().freezeImage(*src, op->dir, &err)) {
        std::fprintf(stderr, "vodsim: dump %llu: %s\n", static_cast<unsigned long long>(rq.opId),
                     err.c_str());
        st = VIC_EIO;
    }
    if (!st) st = prepareOp(op.get(), rq.pid, rq.sd);
    if (st) {
        simStreamForget(rq.opId);
        return st;
    }
    op->work = simChangesSince(src->files, i.fromDV);
    op->meta.volType = src->type;
    op->meta.createTime = src->attrs.createTime;
    op->meta.maxQuota = src->attrs.maxQuota;
    for (const SimChange& c : op->work) {
        if (c.remove) {
            op->meta.removals++;
        } else {
            op->meta.files++;
            op->meta.fileBytes += c.size;
        }
    }
    simStreamSetVnodesTotal(rq.opId, static_cast<uint32_t>(op->work.size()));
    std::thread(run, op).detach();
    return 0;
}

unsigned startRestore(const SimRestoreRequest& rq) {
    if (rq.vfsid == 0 || rq.pid <= 0 || rq.sd < 0) return VIC_EINVAL;
    if (unsigned st = simStreamOpenInto(rq.opId, kRestoreOpType, rq.lp, rq.vfsid)) return st;
    auto op = std::make_shared<TcpOp>();
    op->opId = rq.opId;
    op->restore = true;
    op->rrq = rq;
    op->dir = opDir(rq.lp, rq.opId, "restore");
    unsigned st = simMakeDirs(op->dir) ? 0 : unsigned{VIC_EIO};
    if (!st) st = prepareOp(op.get(), rq.pid, rq.sd);
    if (st) {
        simStreamForget(rq.opId);
        return st;
    }
    std::thread(run, op).detach();
    return 0;
}

}  // namespace

unsigned simTcpDumpStart(const SimDumpRequest& rq) { return simTcpProcStatus(startDump(rq)); }

unsigned simTcpRestoreStart(const SimRestoreRequest& rq) {
    return simTcpProcStatus(startRestore(rq));
}
