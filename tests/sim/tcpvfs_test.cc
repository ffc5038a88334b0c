// The simulated D-blade's dump and restore over a connection it takes over from its caller.
// This process plays vod: it opens a loopback connection and hands the D-blade its own pid
// and the accepted end, then reads the dump from, or writes the restore into, the client end.
// Round trips full and incremental; restores refused, damaged or cut short, each leaving the
// target as it was; requests refused; the take-over refused; a client gone mid-dump; a held
// dump paused and cancelled; a restore killed mid-apply; and voctl dump-info on a dump file.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <thread>

#include "dblade_fixture.h"
#include "fake_vod.h"
#include "util/tcpdump_stream.h"

using namespace dbladetest;
using vodtest::UniqueFd;

namespace {

using Bytes = std::vector<unsigned char>;

constexpr unsigned kSrc = 100, kDst = 300;
constexpr unsigned kNoSuchVolume = 999;
const unsigned char kNoLp[16] = {};  // a dump's destination: the client, on no LP

// Status words of the two procedures: a refusal is its VIC_ code less 20000.
constexpr unsigned st(unsigned vic) { return vic - 20000; }

// A loopback connection as vod holds one when it hands it over: the client's end and the
// end vod accepted.
struct Loopback {
    UniqueFd client, accepted;
};

Loopback connectLoopback() {
    UniqueFd l(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    EXPECT_EQ(bind(l.get(), reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    EXPECT_EQ(listen(l.get(), 1), 0);
    EXPECT_EQ(getsockname(l.get(), reinterpret_cast<sockaddr*>(&a), &len), 0);
    Loopback c;
    c.client = UniqueFd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(connect(c.client.get(), reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    c.accepted = UniqueFd(accept4(l.get(), nullptr, nullptr, SOCK_CLOEXEC));
    // A D-blade that never answers fails the test instead of hanging it.
    timeval tv{30, 0};
    setsockopt(c.client.get(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    return c;
}

TcpDumpRecv recvFrom(int fd, Bytes* seen = nullptr) {
    return [fd, seen](unsigned char* p, unsigned n) {
        int e = recvall(fd, p, n);
        if (e == 0 && seen) seen->insert(seen->end(), p, p + n);
        return e;
    };
}

// Reads a stream from fd up to its Close or its first failure; the bytes read.
Bytes readStream(int fd, TcpDumpStatus* status) {
    Bytes all;
    TcpDumpRecv recv = recvFrom(fd, &all);
    TcpDumpReader reader;
    std::vector<unsigned char> buf;
    TcpDumpStatus s;
    while (s.ok() && !reader.complete()) {
        TcpDumpRecord rec;
        s = tcpDumpReadRecord(reader, recv, &buf, &rec);
    }
    *status = s;
    return all;
}

// Where each record of a good stream starts, by type and data kind.
struct Rec {
    uint16_t type, kind;
    size_t offset;
};

std::vector<Rec> records(const Bytes& stream) {
    std::vector<Rec> out;
    tcpDumpParse(stream.data(), stream.size(), nullptr, [&](const TcpDumpRecord& r) {
        out.push_back(Rec{r.type, r.kind, static_cast<size_t>(r.offset)});
        return true;
    });
    return out;
}

const Rec& first(const std::vector<Rec>& recs, uint16_t type, uint16_t kind = 0) {
    for (const Rec& r : recs)
        if (r.type == type && (type != TCP_REC_DATA || r.kind == kind)) return r;
    ADD_FAILURE() << "no record of type " << type;
    return recs.front();
}

class TcpVfsTest : public DbladeTest {
  protected:
    unsigned startDump(uint64_t opId, unsigned vfsid, const unsigned char* lp, uint64_t dumpFromDV,
                       int pid, int sd, const char* name = "weekly") {
        TcpVfsDumpDest d{};
        d.pid = pid;
        d.sd = sd;
        d.dumpFromDV = dumpFromDV;
        TcpVfsDumpIn in{};
        in.opId = opId;
        in.opType = 6;
        in.fromVfsId = vfsid;
        memcpy(in.fromLpId, lp, 16);
        in.nodeName = const_cast<char*>("node1");
        in.dumpName = const_cast<char*>(name);
        in.dests = {1, &d};
        return callDump(in);
    }

    unsigned callDump(TcpVfsDumpIn& in) {
        u_int status = ~0u;
        EXPECT_EQ(tcpvfsdump_1(&in, &status, icp), RPC_SUCCESS);
        return status;
    }

    unsigned startRestore(uint64_t opId, unsigned vfsid, const unsigned char* lp, bool force,
                          int pid, int sd) {
        TcpVfsRestoreIn in{};
        in.opId = opId;
        in.pid = pid;
        in.sd = sd;
        in.force = force ? 1 : 0;
        in.toVfsId = vfsid;
        memcpy(in.toLpId, lp, 16);
        u_int status = ~0u;
        EXPECT_EQ(tcpvfsrestore_1(&in, &status, icp), RPC_SUCCESS);
        return status;
    }

    // A whole dump: the stream as the client got it, every check held, the stream done
    // with 0 and concluded.
    Bytes dump(uint64_t opId, unsigned vfsid, uint64_t dumpFromDV) {
        Loopback c = connectLoopback();
        EXPECT_EQ(startDump(opId, vfsid, kLp1a, dumpFromDV, getpid(), c.accepted.get()), 0u);
        TcpDumpStatus s;
        Bytes stream = readStream(c.client.get(), &s);
        EXPECT_TRUE(s.ok()) << s.text();
        expectEnded(opId, 0);
        return stream;
    }

    // Restores stream into vfsid over a new connection: the code of the D-blade's answer,
    // which the stream's progress reports too.
    unsigned restore(uint64_t opId, unsigned vfsid, const unsigned char* lp, bool force,
                     const Bytes& stream) {
        Loopback c = connectLoopback();
        EXPECT_EQ(startRestore(opId, vfsid, lp, force, getpid(), c.accepted.get()), 0u);
        int fd = c.client.get();
        std::thread writer([fd, bytes = stream]() mutable {
            if (!bytes.empty()) sendall(fd, bytes.data(), static_cast<unsigned>(bytes.size()));
            shutdown(fd, SHUT_WR);  // a stream cut short ends here
        });
        uint32_t code = ~0u;
        TcpDumpStatus s = tcpDumpReadAnswer(recvFrom(fd), &code);
        EXPECT_TRUE(s.ok()) << s.text();
        shutdown(fd, SHUT_RDWR);  // a refusal may leave the writer blocked
        writer.join();
        expectEnded(opId, code);
        return code;
    }

    // The stream ended with code, its one destination too, and is concluded.
    void expectEnded(uint64_t opId, unsigned code) {
        Pgrs p = waitDone(opId);
        EXPECT_EQ(p.code, code) << "stream " << opId;
        ASSERT_EQ(p.dests.size(), 1u);
        EXPECT_EQ(p.dests[0].isDone, 1u);
        EXPECT_EQ(p.dests[0].completionCode, code);
        EXPECT_EQ(conclude(opId), 0u);
    }

    // The source: files in pieces, an empty file, a removal.
    void makeSource() {
        ASSERT_EQ(create(kLp1a, kSrc, "src"), 0u);
        fill(kSrc, "lp1a", 6, 3000);
        write(kSrc, "lp1a", "big", 200000);  // four pieces
        ctl({"vol-write", "100", "lp1a", "empty", "--text", ""});
        ctl({"vol-rm", "100", "lp1a", "fill/00001"});
    }

    // Changes since the last dump: a new file, a rewritten one, a removal.
    void changeSource(const std::string& tag) {
        write(kSrc, "lp1a", "new-" + tag, 5000);
        write(kSrc, "lp1a", "fill/00002", 4000 + tag.size());
        ctl({"vol-rm", "100", "lp1a", "fill/0000" + std::to_string(2 + tag.size())});
    }

    // What a restore must not change: contents, files with their versions, data version,
    // and that the volume is visible.
    std::string state(unsigned vfsid, const std::string& lp) {
        return checksum(vfsid, lp) + ctl({"vol-files", std::to_string(vfsid), lp}) +
               std::to_string(attrs(lp == "lp1b" ? kLp1b : kLp1a, vfsid).dataVersion);
    }
};

// ---- round trips ----------------------------------------------------------------------------

TEST_F(TcpVfsTest, AFullDumpAndItsIncrementalsRestoreInOrder) {
    FakeVod vod;
    ASSERT_TRUE(vod.start());
    makeSource();
    std::string sumFull = checksum(kSrc, "lp1a");
    uint64_t dvFull = attrs(kLp1a, kSrc).dataVersion;
    Bytes full = dump(1, kSrc, 0);
    changeSource("a");
    std::string sumA = checksum(kSrc, "lp1a");
    uint64_t dvA = attrs(kLp1a, kSrc).dataVersion;
    Bytes incA = dump(2, kSrc, dvFull + 1);  // the next dump starts after the last one's to-version
    changeSource("bb");
    std::string sumB = checksum(kSrc, "lp1a");
    uint64_t dvB = attrs(kLp1a, kSrc).dataVersion;
    Bytes incB = dump(3, kSrc, dvA + 1);

    TcpDumpSummary s;
    ASSERT_TRUE(tcpDumpParse(full.data(), full.size(), &s).ok());
    EXPECT_TRUE(s.info.full());
    EXPECT_EQ(s.info.label(), "weekly:0:" + std::to_string(dvFull));
    EXPECT_EQ(s.info.volName, "src");
    EXPECT_EQ(s.info.nodeName, "node1");
    EXPECT_EQ(s.files, 7u);     // fill/00000, 00002-00005, big, empty
    EXPECT_EQ(s.removals, 1u);  // fill/00001
    ASSERT_TRUE(tcpDumpParse(incA.data(), incA.size(), &s).ok());
    EXPECT_EQ(s.info.label(), "weekly:" + std::to_string(dvFull) + ":" + std::to_string(dvA));
    EXPECT_EQ(s.files, 2u);
    EXPECT_EQ(s.removals, 1u);

    ASSERT_EQ(create(kLp1b, kDst, "dst"), 0u);
    EXPECT_EQ(restore(4, kDst, kLp1b, false, full), 0u);
    EXPECT_EQ(checksum(kDst, "lp1b"), sumFull);
    EXPECT_EQ(attrs(kLp1b, kDst).dataVersion, dvFull);
    EXPECT_EQ(restore(5, kDst, kLp1b, false, incA), 0u);
    EXPECT_EQ(checksum(kDst, "lp1b"), sumA);
    EXPECT_EQ(attrs(kLp1b, kDst).dataVersion, dvA);
    EXPECT_EQ(restore(6, kDst, kLp1b, false, incB), 0u);
    EXPECT_EQ(checksum(kDst, "lp1b"), sumB);
    EXPECT_EQ(attrs(kLp1b, kDst).dataVersion, dvB);
    EXPECT_EQ(attrs(kLp1b, kDst).name, "dst");  // the target keeps its own identity

    // Forced, a full dump replaces what the target holds, newer files included.
    EXPECT_EQ(restore(7, kDst, kLp1b, true, full), 0u);
    EXPECT_EQ(checksum(kDst, "lp1b"), sumFull);
    EXPECT_EQ(attrs(kLp1b, kDst).dataVersion, dvFull);
    EXPECT_EQ(ctl({"vol-list", "lp1b"}).find("busy=1"), std::string::npos);

    for (uint64_t op = 1; op <= 7; ++op)
        EXPECT_TRUE(simtest::pollUntil([op] { return FakeVod::received(op); }, 10)) << op;
}

// ---- restores refused: the target as it was ---------------------------------------------

struct RefusedCase {
    const char* name;
    bool incremental;  // the stream: an incremental dump, else the full one
    bool force;
    std::function<void(Bytes&, const std::vector<Rec>&)> damage;
    unsigned code;
    std::vector<std::string> fault = {};  // set before the restore starts
};

void PrintTo(const RefusedCase& c, std::ostream* os) { *os << c.name; }

Bytes pathEscaping() {
    Bytes out;
    TcpDumpWriter w([&](const unsigned char* p, size_t n) {
        out.insert(out.end(), p, p + n);
        return 0;
    });
    TcpDumpInfo i;
    i.toDV = 5;
    TcpDumpMeta m;
    m.files = 1;
    m.fileBytes = 1;
    w.begin(i);
    w.meta(m);
    w.filePiece("../outside", 3, 1, 0, "x", 1);
    w.end();
    w.close(0);
    return out;
}

const RefusedCase kRefused[] = {
    {"an incremental onto another version", true, true, nullptr, VIC_EDVMISMATCH},
    {"a full dump onto files, not forced", false, false, nullptr, VIC_EDVMISMATCH},
    {"a header's magic", false, true, [](Bytes& b, const std::vector<Rec>&) { b[4] ^= 0x20; },
     VIC_EBADRECORD},
    {"a byte of the Begin body", false, true,
     [](Bytes& b, const std::vector<Rec>&) { b[12 + 700] ^= 1; }, VIC_EBADRECORD},
    {"a byte of the Meta", false, true,
     [](Bytes& b, const std::vector<Rec>& r) {
         b[first(r, TCP_REC_DATA, TCP_DATA_META).offset + 12 + 40] ^= 1;
     },
     VIC_EBADRECORD},
    {"a byte of a file's data", false, true,
     [](Bytes& b, const std::vector<Rec>& r) {
         b[first(r, TCP_REC_DATA, TCP_DATA_FILE).offset + 12 + 36 + 20] ^= 0x80;
     },
     VIC_EBADRECORD},
    {"a byte of the End count", false, true,
     [](Bytes& b, const std::vector<Rec>& r) { b[first(r, TCP_REC_END).offset + 12 + 7] ^= 2; },
     VIC_ETOTALRECCOUNT},
    {"a byte of the Close code", false, true,
     [](Bytes& b, const std::vector<Rec>& r) { b[first(r, TCP_REC_CLOSE).offset + 12 + 3] ^= 1; },
     VIC_ECANCELLED},
    {"cut in a header", false, true, [](Bytes& b, const std::vector<Rec>&) { b.resize(6); },
     VIC_ETCPCLOSE},
    {"cut in a file", false, true,
     [](Bytes& b, const std::vector<Rec>&) { b.resize(b.size() / 2); }, VIC_ETCPCLOSE},
    {"cut before the Close", false, true,
     [](Bytes& b, const std::vector<Rec>& r) { b.resize(first(r, TCP_REC_CLOSE).offset); },
     VIC_ETCPCLOSE},
    {"a path out of the volume", false, true,
     [](Bytes& b, const std::vector<Rec>&) { b = pathEscaping(); }, VIC_EBADRECORD},
    {"a failure while the stream comes in",
     false,
     true,
     nullptr,
     VIC_EIO,
     {"fault", "status", "tcpvfsrestore.stream", "20025"}},
};

class RefusedRestoreTest : public TcpVfsTest, public ::testing::WithParamInterface<RefusedCase> {};

TEST_P(RefusedRestoreTest, LeavesTheTargetAsItWas) {
    const RefusedCase& c = GetParam();
    makeSource();
    uint64_t dv = attrs(kLp1a, kSrc).dataVersion;
    Bytes stream = dump(1, kSrc, 0);
    if (c.incremental) {
        changeSource("a");
        stream = dump(2, kSrc, dv + 1);
    }
    if (c.damage) c.damage(stream, records(stream));
    // A target with files of its own at another data version, which a good forced full
    // restore would replace.
    ASSERT_EQ(create(kLp1b, kDst, "dst"), 0u);
    write(kDst, "lp1b", "own/a", 1000);
    write(kDst, "lp1b", "own/b", 2000);
    std::string before = state(kDst, "lp1b");
    if (!c.fault.empty()) ctl(c.fault);

    EXPECT_EQ(restore(3, kDst, kLp1b, c.force, stream), c.code);
    EXPECT_EQ(state(kDst, "lp1b"), before);
    EXPECT_EQ(ctl({"vol-list", "lp1b"}).find("busy=1"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Restores, RefusedRestoreTest, ::testing::ValuesIn(kRefused),
                         [](const ::testing::TestParamInfo<RefusedCase>& p) {
                             std::string n;
                             for (const char* s = p.param.name; *s; ++s)
                                 n += isalnum(static_cast<unsigned char>(*s)) ? *s : '_';
                             return n;
                         });

// ---- requests refused at once ---------------------------------------------------------------

TEST_F(TcpVfsTest, RequestsRefusedAnswerAtOnceAndStartNothing) {
    makeSource();
    uint64_t dv = attrs(kLp1a, kSrc).dataVersion;
    ASSERT_EQ(create(kLp1a, 101, "hidden"), 0u);
    ctl({"vol-hide", "101", "lp1a", "on"});
    ASSERT_EQ(create(kLp1b, kDst, "dst"), 0u);
    const unsigned char kLp9[16] = {0x09, 0x0A};
    Loopback c = connectLoopback();
    int me = getpid(), sd = c.accepted.get();

    // A restore into kDst that waits for its stream holds the target meanwhile.
    Loopback busy = connectLoopback();
    ASSERT_EQ(startRestore(50, kDst, kLp1b, false, me, busy.accepted.get()), 0u);

    struct Case {
        const char* name;
        std::function<unsigned()> call;
        unsigned status;
    };
    TcpVfsDumpDest two[2] = {{me, sd, 0, {}, 0}, {me, sd, 0, {}, 0}};
    auto dumpWith = [&](std::function<void(TcpVfsDumpIn&)> edit) {
        return [this, edit, me, sd] {
            TcpVfsDumpDest d{me, sd, 0, {}, 0};
            TcpVfsDumpIn in{};
            in.opId = 10;
            in.opType = 6;
            in.fromVfsId = kSrc;
            memcpy(in.fromLpId, kLp1a, 16);
            in.nodeName = const_cast<char*>("node1");
            in.dumpName = const_cast<char*>("weekly");
            in.dests = {1, &d};
            edit(in);
            return callDump(in);
        };
    };
    const Case cases[] = {
        {"dump: no destination", dumpWith([](TcpVfsDumpIn& in) {
             in.dests = {0, nullptr};
         }),
         st(VIC_EINVAL)},
        {"dump: two destinations", dumpWith([&](TcpVfsDumpIn& in) {
             in.dests = {2, two};
         }),
         st(VIC_EINVAL)},
        {"dump: another operation type", dumpWith([](TcpVfsDumpIn& in) { in.opType = 1; }),
         st(VIC_EINVAL)},
        {"dump: volume 0", dumpWith([](TcpVfsDumpIn& in) { in.fromVfsId = 0; }), st(VIC_EINVAL)},
        {"dump: no such volume", dumpWith([](TcpVfsDumpIn& in) { in.fromVfsId = kNoSuchVolume; }),
         st(VIC_EVOLNOTFOUND)},
        {"dump: an LP nobody serves",
         dumpWith([&](TcpVfsDumpIn& in) { memcpy(in.fromLpId, kLp9, 16); }), st(VIC_ELPNOTFOUND)},
        {"dump: another D-blade's LP",
         dumpWith([](TcpVfsDumpIn& in) { memcpy(in.fromLpId, kLp2a, 16); }), st(VIC_ELPNOTFOUND)},
        {"dump: a hidden volume", dumpWith([](TcpVfsDumpIn& in) { in.fromVfsId = 101; }),
         st(VIC_EVOLBUSY)},
        {"dump: from a version the volume has not reached",
         [&] { return startDump(10, kSrc, kLp1a, dv + 2, me, sd); }, st(VIC_EDVMISMATCH)},
        {"dump: the id of a running stream", [&] { return startDump(50, kSrc, kLp1a, 0, me, sd); },
         st(VIC_EOPIDINUSE)},
        {"restore: volume 0", [&] { return startRestore(10, 0, kLp1b, false, me, sd); },
         st(VIC_EINVAL)},
        {"restore: no such volume",
         [&] { return startRestore(10, kNoSuchVolume, kLp1b, false, me, sd); },
         st(VIC_EVOLNOTFOUND)},
        {"restore: a hidden volume", [&] { return startRestore(10, 101, kLp1a, true, me, sd); },
         st(VIC_EVOLBUSY)},
        {"restore: a target another restore holds",
         [&] { return startRestore(10, kDst, kLp1b, true, me, sd); }, st(VIC_EVOLBUSY)},
    };
    for (const Case& k : cases) {
        EXPECT_EQ(k.call(), k.status) << k.name;
        EXPECT_EQ(progress(10).rc, unsigned{VIC_EOPNOTFOUND}) << k.name;
    }
    // The source was never held, and dumps as before with the id the refusals used.
    EXPECT_EQ(ctl({"vol-list", "lp1a"}).find("busy=1"), std::string::npos);
    dump(10, kSrc, 0);
    EXPECT_EQ(cancel(50, kDst, kLp1b), 0u);
    expectEnded(50, VIC_ECANCELLED);
}

// The take-over is the kernel's to allow: when it refuses, the request is refused at once
// with VIC_ENOSOCKET, and nothing is held.
TEST_F(TcpVfsTest, ATakeOverRefusedAnswersNoSocket) {
    makeSource();
    ASSERT_EQ(create(kLp1b, kDst, "dst"), 0u);
    Loopback c = connectLoopback();
    int pipeFds[2];
    ASSERT_EQ(pipe2(pipeFds, O_CLOEXEC), 0);
    UniqueFd pipeRead(pipeFds[0]), pipeWrite(pipeFds[1]);
    struct Case {
        const char* name;
        int pid, sd;
        unsigned status;
    } const cases[] = {
        {"a process that does not exist", 999999, c.accepted.get(), st(VIC_ENOSOCKET)},
        {"a descriptor the process does not have", getpid(), 900, st(VIC_ENOSOCKET)},
        {"a descriptor that is no socket", getpid(), pipeRead.get(), st(VIC_ENOSOCKET)},
        {"process id 0", 0, c.accepted.get(), st(VIC_EINVAL)},
        {"a negative descriptor", getpid(), -1, st(VIC_EINVAL)},
    };
    for (const Case& k : cases) {
        EXPECT_EQ(startDump(20, kSrc, kLp1a, 0, k.pid, k.sd), k.status) << "dump, " << k.name;
        EXPECT_EQ(startRestore(21, kDst, kLp1b, false, k.pid, k.sd), k.status)
            << "restore, " << k.name;
        EXPECT_EQ(progress(20).rc, unsigned{VIC_EOPNOTFOUND}) << k.name;
        EXPECT_EQ(progress(21).rc, unsigned{VIC_EOPNOTFOUND}) << k.name;
    }
    EXPECT_EQ(ctl({"vol-list"}).find("busy=1"), std::string::npos);
}

// ---- the stream on its way --------------------------------------------------------------------

TEST_F(TcpVfsTest, AClientGoneMidDumpEndsItWithATcpCode) {
    ASSERT_EQ(create(kLp1a, kSrc, "src"), 0u);
    write(kSrc, "lp1a", "huge", 8 << 20);
    ctl({"stream-speed", "1024"});
    Loopback c = connectLoopback();
    ASSERT_EQ(startDump(30, kSrc, kLp1a, 0, getpid(), c.accepted.get()), 0u);
    unsigned char some[65536];
    ASSERT_EQ(recvall(c.client.get(), some, sizeof some), 0);
    c.client.reset();
    c.accepted.reset();
    Pgrs p = waitDone(30);
    EXPECT_GE(p.code, unsigned{VIC_ETCPWRITE});
    EXPECT_LE(p.code, unsigned{VIC_ETCPCLOSE});
    ASSERT_EQ(p.dests.size(), 1u);
    EXPECT_EQ(p.dests[0].completionCode, p.code);
    EXPECT_EQ(ctl({"vol-list", "lp1a"}).find("busy=1"), std::string::npos);
}

TEST_F(TcpVfsTest, ADumpStoppedAtItsFaultPointTellsTheClientUnlessTheDbladeDied) {
    makeSource();
    struct Case {
        const char* name;
        std::vector<std::string> fault;
        TcpDumpError error;  // what the client reads after the Begin and the Meta
        unsigned code;
    } const cases[] = {
        {"failed there",
         {"fault", "status", "tcpvfsdump.stream", "20025"},
         TcpDumpError::StreamFailed,
         VIC_EIO},
        {"died there", {"fault", "drop", "tcpvfsdump.stream"}, TcpDumpError::Truncated, 0},
    };
    uint64_t op = 60;
    for (const Case& k : cases) {
        ctl(k.fault);
        Loopback c = connectLoopback();
        ASSERT_EQ(startDump(++op, kSrc, kLp1a, 0, getpid(), c.accepted.get()), 0u) << k.name;
        if (k.code) {
            expectEnded(op, k.code);
        } else {
            // Forgotten with the D-blade: no progress, no Close; vod gives the connection up.
            EXPECT_TRUE(simtest::pollUntil(
                [&] { return progress(op).rc == unsigned{VIC_EOPNOTFOUND}; }, 10))
                << k.name;
            c.accepted.reset();
        }
        TcpDumpStatus s;
        readStream(c.client.get(), &s);
        EXPECT_EQ(s.error, k.error) << k.name << ": " << s.text();
        EXPECT_EQ(s.detail, uint64_t{k.code}) << k.name;
        EXPECT_EQ(ctl({"vol-list", "lp1a"}).find("busy=1"), std::string::npos) << k.name;
    }
}

TEST_F(TcpVfsTest, ADumpMovesAtItsSpeedAndCanBePausedAndCancelled) {
    ASSERT_EQ(create(kLp1a, kSrc, "src"), 0u);
    write(kSrc, "lp1a", "one", 1 << 20);
    write(kSrc, "lp1a", "two", 1 << 20);
    ctl({"stream-speed", "512"});
    Loopback c = connectLoopback();
    ASSERT_EQ(startDump(40, kSrc, kLp1a, 0, getpid(), c.accepted.get()), 0u);
    TcpDumpStatus s;
    Bytes got;
    std::thread reader([&] { got = readStream(c.client.get(), &s); });

    // Under way: blocks move with the bytes, and a paused stream moves none.
    Pgrs p;
    ASSERT_TRUE(simtest::pollUntil([&] { return (p = progress(40)).blksRead >= 64; }, 10));
    EXPECT_EQ(p.status, unsigned{IncrCopyRunning});
    EXPECT_EQ(p.vnodesTotal, 2u);
    EXPECT_LT(p.blksRead, 512u);
    EXPECT_EQ(p.dests[0].blksSent, p.blksRead);
    EXPECT_EQ(pause(40), 0u);
    std::this_thread::sleep_for(std::chrono::milliseconds(400));  // a piece under way lands
    uint64_t paused = progress(40).blksRead;
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    p = progress(40);
    EXPECT_EQ(p.status, unsigned{IncrCopyPaused});
    EXPECT_EQ(p.blksRead, paused);
    EXPECT_EQ(resume(40), 0u);
    ASSERT_TRUE(simtest::pollUntil([&] { return progress(40).blksRead > paused; }, 10));

    // Cancelled, it ends with VIC_ECANCELLED, and the client reads so in a Close.
    EXPECT_EQ(cancel(40, 0, kNoLp), 0u);
    reader.join();
    EXPECT_EQ(s.error, TcpDumpError::StreamFailed) << s.text();
    EXPECT_EQ(s.detail, uint64_t{VIC_ECANCELLED});
    expectEnded(40, VIC_ECANCELLED);
    EXPECT_EQ(progress(40).rc, unsigned{VIC_EOPNOTFOUND});
}

// A restore takes the target out of sight from its first change: a simulator killed
// mid-apply leaves it hidden, never whole-looking with half of the dump in it.
TEST_F(TcpVfsTest, ARestoreKilledMidApplyLeavesTheTargetHidden) {
    makeSource();
    Bytes full = dump(1, kSrc, 0);
    ASSERT_EQ(create(kLp1b, kDst, "dst"), 0u);
    ctl({"fault", "hold", "tcpvfsrestore.apply"});
    Loopback c = connectLoopback();
    ASSERT_EQ(startRestore(2, kDst, kLp1b, false, getpid(), c.accepted.get()), 0u);
    ASSERT_EQ(sendall(c.client.get(), full.data(), static_cast<unsigned>(full.size())), 0);
    ctl({"fault", "wait-held", "tcpvfsrestore.apply"});
    EXPECT_EQ(getattr(kLp1b, kDst), unsigned{TARN_ERR_VOLHIDDEN});

    sim->kill();
    ASSERT_TRUE(sim->restart());
    reconnect();
    EXPECT_EQ(getattr(kLp1b, kDst), unsigned{TARN_ERR_VOLHIDDEN});
    EXPECT_EQ(progress(2).rc, unsigned{VIC_EOPNOTFOUND});
    EXPECT_EQ(remove(kLp1b, kDst), 0u);
}

// ---- voctl dump-info ------------------------------------------------------------------------

TEST_F(TcpVfsTest, DumpInfoShowsTheLabelAndFindsTheDamage) {
    makeSource();
    uint64_t dv = attrs(kLp1a, kSrc).dataVersion;
    Bytes full = dump(1, kSrc, 0);
    std::vector<Rec> recs = records(full);
    Bytes damaged = full;
    size_t at = first(recs, TCP_REC_DATA, TCP_DATA_FILE).offset;
    damaged[at + 12 + 36 + 3] ^= 1;
    auto save = [&](const std::string& name, const Bytes& b) {
        std::string path = scratch + "/" + name;
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(b.data()), b.size());
        return path;
    };
    std::string good = save("full.dump", full), bad = save("damaged.dump", damaged);
    std::string label = "weekly:0:" + std::to_string(dv);

    vodtest::RunResult r = vodtest::runProgram(vodtest::voctlBinary(), {"dump-info", good});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find(label), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("all hold"), std::string::npos) << r.out;
    r = vodtest::runProgram(vodtest::voctlBinary(), {"--json", "dump-info", good});
    ASSERT_EQ(r.status, 0) << r.err;
    nlohmann::json j = nlohmann::json::parse(r.out);
    EXPECT_EQ(j["label"], label);
    EXPECT_EQ(j["volume"], "src");
    EXPECT_EQ(j["toDV"], dv);
    EXPECT_EQ(j["full"], true);
    EXPECT_EQ(j["files"], 7);
    EXPECT_EQ(j["ok"], true);

    r = vodtest::runProgram(vodtest::voctlBinary(), {"dump-info", bad});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find("FAILED: data record CRC does not hold (record at offset " +
                         std::to_string(at) + ")"),
              std::string::npos)
        << r.out;
    r = vodtest::runProgram(vodtest::voctlBinary(), {"--json", "dump-info", bad});
    EXPECT_EQ(r.status, 1);
    j = nlohmann::json::parse(r.out);
    EXPECT_EQ(j["ok"], false);
    EXPECT_EQ(j["label"], label);  // the Begin came before the damage
    EXPECT_EQ(j["failure"]["error"], "BadDataCrc");
    EXPECT_EQ(j["failure"]["offset"], at);
}

}  // namespace
