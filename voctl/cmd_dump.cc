// voctl dump and voctl restore: a volume's records streamed over vod's
// dump/restore socket to a file (or standard output) and back.
//
// Both ask vod for a cookie, connect to the dump/restore port, send the
// cookie, and from then on talk to the D-blade that vod handed the
// connection to. Every record that passes is checked as it goes (the
// stream's reader); a dump lands in FILE only once it is whole and every
// check held. Both wait, after the stream, until vod has wound the
// operation up, so that the next command on the volume is not refused as
// busy.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "util/tcpdump_stream.h"
#include "vldb_server.h"
#include "voctl/admin_common.h"
#include "voctl/command.h"
#include "voctl/number.h"
#include "voctl/output.h"
#include "vorec.h"

namespace voctl {
namespace {

constexpr size_t kChunk = 64 * 1024;

// A descriptor closed on every path.
struct Fd {
    int fd = -1;
    Fd() = default;
    explicit Fd(int f) : fd(f) {}
    ~Fd() {
        if (fd >= 0) close(fd);
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
};

// The port vod names: htons(909) sent as a host-order integer, so the low
// 16 bits are swapped back.
unsigned portOf(u_int field) { return ntohs(static_cast<uint16_t>(field & 0xFFFF)); }

// A TCP connection to host:port with idleSec as the receive time-out; -1
// with *why on failure.
int connectTo(const std::string& host, unsigned port, unsigned idleSec, std::string* why) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* res = nullptr;
    int e = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &res);
    if (e != 0) {
        *why = host + ": " + gai_strerror(e);
        return -1;
    }
    int sd = socket(AF_INET, SOCK_STREAM, 0);
    if (sd < 0 || connect(sd, res->ai_addr, res->ai_addrlen) != 0) {
        *why = host + ":" + std::to_string(port) + ": " + strerror(errno);
        if (sd >= 0) close(sd);
        freeaddrinfo(res);
        return -1;
    }
    freeaddrinfo(res);
    timeval tv = {static_cast<time_t>(idleSec), 0};
    setsockopt(sd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    return sd;
}

// The cookie request: the cookie's length in network order, then the cookie
// exactly as vod handed it out.
int sendCookie(int sd, const char* cookie, u_int len) {
    uint32_t n = htonl(len);
    std::string req(reinterpret_cast<const char*>(&n), 4);
    req.append(cookie, len);
    return sendall(sd, reinterpret_cast<unsigned char*>(&req[0]),
                   static_cast<unsigned>(req.size()));
}

bool writeAll(int fd, const unsigned char* b, size_t len) {
    while (len != 0) {
        ssize_t n = write(fd, b, len);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        b += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

// Waits until the VODB on host holds no dump or restore of vfsid (vod has
// wound the operation up), for at most waitSec. False when it still does.
bool waitWoundUp(const std::string& host, unsigned timeoutSec, uint32_t vfsid, double waitSec) {
    std::string err;
    ServiceClient vldb = connectService(host, VLDB_PROG, VLDB_VERS, timeoutSec, &err);
    if (!vldb) return false;
    const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(waitSec);
    for (;;) {
        XdrResult<vodb_lookup_result> res(xdr_vodb_lookup_result);
        if (vodb_lookup_3(nullptr, res.get(), vldb.get()) != RPC_SUCCESS) return false;
        bool busy = false;
        const u_int n = res->result == 0 ? res->rec.rec_len : 0;
        for (u_int i = 0; i < n; ++i) {
            const vodbRec& r = res->rec.rec_val[i];
            if (r.vfsid == vfsid &&
                (r.optype == VoRec::VODB_VOLOP_DUMP || r.optype == VoRec::VODB_VOLOP_RESTORE))
                busy = true;
        }
        if (!busy) return true;
        if (std::chrono::steady_clock::now() >= until) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}

// The label, volume and versions of a stream, as JSON and as rows.
nlohmann::json summaryJson(const TcpDumpSummary& s) {
    return {
        {"label", s.info.label()},     {"volName", s.info.volName}, {"nodeName", s.info.nodeName},
        {"dumpName", s.info.dumpName}, {"fromDV", s.info.fromDV},   {"toDV", s.info.toDV},
        {"full", s.info.full()},       {"records", s.records},      {"files", s.files},
        {"removals", s.removals},      {"bytes", s.bytes}};
}

std::string summaryText(const TcpDumpSummary& s) {
    return formatTable(
        {{"label", s.info.label()},
         {"volume", s.info.volName},
         {"versions", std::to_string(s.info.fromDV) + " to " + std::to_string(s.info.toDV) +
                          (s.info.full() ? " (full)" : " (incremental)")},
         {"records", std::to_string(s.records)},
         {"files", std::to_string(s.files) + ", " + std::to_string(s.removals) + " removed"},
         {"bytes", std::to_string(s.bytes)}});
}

Progress progressOf(const TcpDumpSummary& s) {
    Progress p;
    p.megs = s.bytes >> 20;
    p.vnodesDone = static_cast<uint32_t>(s.files + s.removals);
    p.vnodesTotal = s.haveMeta ? static_cast<uint32_t>(s.meta.files + s.meta.removals) : 0;
    return p;
}

// A refusal or a failed stream, decoded: vod's rejection codes are its own
// composite codes, a Close code is the D-blade's completion code.
int streamFailure(Context& ctx, VoClient* c, const std::string& what, const TcpDumpStatus& st) {
    if (st.error == TcpDumpError::Rejected || st.error == TcpDumpError::StreamFailed)
        return codeFailure(ctx, c, what, static_cast<unsigned>(st.detail));
    return ctx.out.failure(kExitVodFailure, what + ": " + st.text());
}

struct DumpArgs {
    std::string vfs, file, since, name = "dump";
    bool skipClone = false;
    unsigned port = 0;  // 0: the one vod names
    unsigned idleSec = 300;
};

int dump(Context& ctx, const DumpArgs& a) {
    const uint32_t vfsid = *parseU32(a.vfs);
    auto c = ctx.connect();
    if (!c) return kExitUnreachable;
    DumpVfsIn in{};
    in.fromVfsId = vfsid;
    in.skipClone = a.skipClone ? 1 : 0;
    // Fixed fields: the text, cut to the field, and zeros after it.
    memcpy(in.dumpName, a.name.data(), std::min(a.name.size(), sizeof in.dumpName));
    memcpy(in.priorDumpLabel, a.since.data(), std::min(a.since.size(), sizeof in.priorDumpLabel));
    XdrResult<DumpVfsOut> res(xdr_DumpVfsOut);
    if (c->call(dumpvfs_1, &in, res.get()) != RPC_SUCCESS) return ctx.callFailed(*c);
    const std::string what = "dump of vfsid " + std::to_string(vfsid);
    if (res->code != 0) return codeFailure(ctx, c.get(), what, res->code);

    std::string why;
    Fd sock(connectTo(ctx.opts.host, a.port ? a.port : portOf(res->port), a.idleSec, &why));
    if (sock.fd < 0) return ctx.out.failure(kExitUnreachable, what + ": " + why);
    if (int e = sendCookie(sock.fd, res->cookie.cookie_val, res->cookie.cookie_len))
        return ctx.out.failure(kExitUnreachable, what + ": sending the cookie: " + strerror(e));

    // Written beside FILE and renamed over it once whole: a failed dump never
    // leaves a file that looks like one.
    const bool toStdout = a.file == "-";
    const std::string part = a.file + ".part";
    Fd out(toStdout ? dup(1) : open(part.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
    if (out.fd < 0) return ctx.out.failure(kExitUsage, a.file + ": " + strerror(errno));
    bool writeFailed = false;
    TcpDumpRecv recv = [&](unsigned char* b, unsigned len) {
        int e = recvall(sock.fd, b, len);
        if (e == 0 && !writeAll(out.fd, b, len)) writeFailed = true;
        return e;
    };

    ProgressBar bar(stderr, !ctx.out.json() && isatty(2), "dump " + std::to_string(vfsid));
    TcpDumpReader reader;
    std::vector<unsigned char> buf;
    TcpDumpStatus st;
    while (!reader.complete()) {
        TcpDumpRecord rec;
        st = tcpDumpReadRecord(reader, recv, &buf, &rec);
        if (!st.ok() || writeFailed) break;
        if (!ctx.out.json()) bar.update(progressOf(reader.summary()));
    }
    if (writeFailed) st = {TcpDumpError::Io, reader.offset(), static_cast<uint64_t>(errno), ""};
    if (!st.ok()) {
        if (!ctx.out.json()) bar.finish("failed");
        if (!toStdout) unlink(part.c_str());
        return streamFailure(ctx, c.get(), what, st);
    }
    if (!ctx.out.json()) bar.finish("done");
    if (!toStdout && (fsync(out.fd) != 0 || rename(part.c_str(), a.file.c_str()) != 0))
        return ctx.out.failure(kExitVodFailure, a.file + ": " + strerror(errno));
    // vod closes its end once it has wound the operation up.
    unsigned char rest[16];
    while (::recv(sock.fd, rest, sizeof rest, 0) > 0) {
    }
    if (!waitWoundUp(ctx.opts.host, ctx.opts.timeoutSec, vfsid, 30))
        ctx.out.note("vod still records the dump of vfsid " + std::to_string(vfsid));

    const TcpDumpSummary& s = reader.summary();
    nlohmann::json obj = summaryJson(s);
    obj["vfsid"] = vfsid;
    obj["file"] = a.file;
    // Standard output carries the dump itself: the report goes to standard error.
    if (toStdout) {
        ctx.out.note("dumped vfsid " + std::to_string(vfsid) + ": " + obj.dump());
        return kExitOk;
    }
    ctx.out.result(
        obj, "dumped vfsid " + std::to_string(vfsid) + " to " + a.file + "\n" + summaryText(s));
    return kExitOk;
}

struct RestoreArgs {
    std::string file, vfs, createName, createLp, vserver = "vs1";
    std::vector<std::string> create;  // NAME LP, as --create gives them
    bool force = false;
    unsigned port = 0;
    unsigned idleSec = 300;
};

// The answer records after a restore's stream: the D-blade's Close, and a
// Rejected from vod when it refused or could not wind up. 0 when the
// restore held, else the code; *why says what went wrong reading.
unsigned readAnswers(int sd, std::string* why) {
    unsigned code = 0;
    bool closed = false;
    for (;;) {
        unsigned char b[16];
        int e = recvall(sd, b, sizeof b);
        if (e == ECONNRESET) break;  // vod is done with the connection
        if (e != 0) {
            *why = std::string("reading the answer: ") + strerror(e);
            return code;
        }
        TcpDumpHdr h;
        memcpy(&h, b, sizeof h);
        const uint16_t type = ntohs(h.type);
        if (!hdrIsValid(h) || ntohs(h.length) != 4 ||
            (type != TCP_REC_CLOSE && type != TCP_REC_REJECTED)) {
            *why = "a malformed answer";
            return code;
        }
        uint32_t v;
        memcpy(&v, b + 12, 4);
        v = ntohl(v);
        // vod's rejection names the procedure too: it wins over the
        // D-blade's bare completion code.
        if (type == TCP_REC_CLOSE) {
            closed = true;
            if (code == 0) code = v;
        } else if (v != 0) {
            code = v;
        }
    }
    if (!closed && code == 0) *why = "the connection ended without an answer";
    return code;
}

int restore(Context& ctx, const RestoreArgs& a) {
    auto c = ctx.connect();
    if (!c) return kExitUnreachable;
    uint32_t vfsid = 0;
    if (!a.createName.empty()) {
        CreateVfsIn in{};
        in.vfsName = const_cast<char*>(a.createName.c_str());
        in.storagePoolName = const_cast<char*>(a.createLp.c_str());
        in.virtualServerName = const_cast<char*>(a.vserver.c_str());
        XdrResult<CreateVfsOut> made(xdr_CreateVfsOut);
        if (c->call(createvfs_1, &in, made.get()) != RPC_SUCCESS) return ctx.callFailed(*c);
        if (made->code != 0)
            return codeFailure(ctx, c.get(), "create of '" + a.createName + "'", made->code);
        vfsid = made->vfsId;
    } else {
        vfsid = *parseU32(a.vfs);
    }
    const std::string what = "restore of vfsid " + std::to_string(vfsid);
    const bool fromStdin = a.file == "-";
    Fd in(fromStdin ? dup(0) : open(a.file.c_str(), O_RDONLY));
    if (in.fd < 0) return ctx.out.failure(kExitUsage, a.file + ": " + strerror(errno));

    RestoreVfsIn rin{vfsid, a.force ? 1u : 0u};
    XdrResult<RestoreVfsOut> res(xdr_RestoreVfsOut);
    if (c->call(restorevfs_1, &rin, res.get()) != RPC_SUCCESS) return ctx.callFailed(*c);
    if (res->code != 0) return codeFailure(ctx, c.get(), what, res->code);
    std::string why;
    Fd sock(connectTo(ctx.opts.host, a.port ? a.port : portOf(res->port), a.idleSec, &why));
    if (sock.fd < 0) return ctx.out.failure(kExitUnreachable, what + ": " + why);
    if (int e = sendCookie(sock.fd, res->cookie.cookie_val, res->cookie.cookie_len))
        return ctx.out.failure(kExitUnreachable, what + ": sending the cookie: " + strerror(e));

    // The bytes go out as they are; the reader only follows them, for the
    // bar and the label. The D-blade checks them again before it writes.
    ProgressBar bar(stderr, !ctx.out.json() && isatty(2), "restore " + std::to_string(vfsid));
    TcpDumpReader reader;
    std::vector<unsigned char> buf;
    int sendErr = 0;
    TcpDumpRecv recv = [&](unsigned char* b, unsigned len) {
        size_t got = 0;
        while (got < len) {
            ssize_t n = read(in.fd, b + got, len - got);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) return errno;
            if (n == 0) return ECONNRESET;
            got += static_cast<size_t>(n);
        }
        if (sendErr == 0) sendErr = sendall(sock.fd, b, len);
        return 0;
    };
    TcpDumpStatus st;
    while (!reader.complete() && sendErr == 0) {
        TcpDumpRecord rec;
        st = tcpDumpReadRecord(reader, recv, &buf, &rec);
        if (!st.ok()) break;
        if (!ctx.out.json()) bar.update(progressOf(reader.summary()));
    }
    // Whatever stopped the sending, the answer says what the other side made of it.
    shutdown(sock.fd, SHUT_WR);
    std::string answerWhy;
    const unsigned code = readAnswers(sock.fd, &answerWhy);
    if (code != 0) {
        if (!ctx.out.json()) bar.finish("refused");
        return codeFailure(ctx, c.get(), what, code);
    }
    if (!st.ok() || sendErr != 0 || !answerWhy.empty()) {
        if (!ctx.out.json()) bar.finish("failed");
        if (!st.ok()) return streamFailure(ctx, c.get(), what + " from " + a.file, st);
        return ctx.out.failure(kExitVodFailure,
                               what + ": " + (sendErr ? strerror(sendErr) : answerWhy));
    }
    if (!ctx.out.json()) bar.finish("done");
    if (!waitWoundUp(ctx.opts.host, ctx.opts.timeoutSec, vfsid, 30))
        ctx.out.note("vod still records the restore of vfsid " + std::to_string(vfsid));
    const TcpDumpSummary& s = reader.summary();
    nlohmann::json obj = summaryJson(s);
    obj["vfsid"] = vfsid;
    obj["file"] = a.file;
    ctx.out.result(
        obj, "restored " + a.file + " into vfsid " + std::to_string(vfsid) + "\n" + summaryText(s));
    return kExitOk;
}

const CommandRegistrar dumpReg(
    "dump", "Dump a volume to a file (full, or incremental since a label)",
    [](CLI::App& sub) -> Action {
        auto a = std::make_shared<DumpArgs>();
        sub.add_option("VFSID", a->vfs, "the volume to dump")->required()->check(u32Check());
        sub.add_option("FILE", a->file, "where the dump goes; - for standard output")->required();
        sub.add_option("--since", a->since,
                       "the label of an earlier dump: dump only what changed after it");
        sub.add_option("--name", a->name, "the dump's name, first part of its label")
            ->capture_default_str();
        sub.add_flag("--skip-clone", a->skipClone,
                     "read a read-write volume in place instead of from a clone");
        sub.add_option("--port", a->port, "the dump/restore port (default: the one vod names)");
        sub.add_option("--idle-timeout", a->idleSec, "seconds without data before giving up")
            ->capture_default_str();
        return [a](Context& ctx) { return dump(ctx, *a); };
    });

const CommandRegistrar restoreReg(
    "restore", "Restore a dump file into a volume (full, or incremental onto its from-version)",
    [](CLI::App& sub) -> Action {
        auto a = std::make_shared<RestoreArgs>();
        sub.add_option("FILE", a->file, "the dump; - for standard input")->required();
        auto* vfs =
            sub.add_option("VFSID", a->vfs, "the volume to restore into")->check(u32Check());
        auto* cr = sub.add_option("--create", a->create,
                                  "NAME LP: create an empty volume and restore into it")
                       ->expected(2)
                       ->excludes(vfs);
        sub.add_option("--vserver", a->vserver, "the virtual server of a volume --create makes")
            ->capture_default_str();
        sub.add_flag("--force", a->force, "a full dump replaces a volume that holds files");
        sub.add_option("--port", a->port, "the dump/restore port (default: the one vod names)");
        sub.add_option("--idle-timeout", a->idleSec, "seconds without an answer before giving up")
            ->capture_default_str();
        return [a, vfs, cr](Context& ctx) {
            if (vfs->count() == 0 && cr->count() == 0)
                return ctx.out.failure(kExitUsage, "restore: give VFSID or --create NAME LP");
            if (a->create.size() == 2) {
                a->createName = a->create[0];
                a->createLp = a->create[1];
            }
            return restore(ctx, *a);
        };
    });

}  // namespace
}  // namespace voctl
