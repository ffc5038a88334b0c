// Dump and restore on the simulated cluster: the cookies vod hands out, the
// dump/restore socket's refusals of bad input (while other clients are
// served), busy volumes, and the streams themselves through voctl.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <rpc/rpc.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "cluster_fixture.h"
#include "util/tcpdump_frame.h"
#include "util/xdrproc.h"

namespace vodtest {
namespace {

// The daemon runs as root in the sandbox: the fixed port.
constexpr int kDumpPort = 909;

class DumpTest : public ClusterTest {
  protected:
    // A connection to the dump/restore socket; -1 on failure (a test failure).
    int connectDump() {
        int sd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a;
        memset(&a, 0, sizeof a);
        a.sin_family = AF_INET;
        a.sin_port = htons(kDumpPort);
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (connect(sd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
            ADD_FAILURE() << "connect to the dump port: " << strerror(errno);
            close(sd);
            return -1;
        }
        timeval tv = {20, 0};
        setsockopt(sd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        return sd;
    }
    // The code of the rejection record read from sd; 0 when the connection
    // closed without one, and a failure when the record is malformed.
    static unsigned rejection(int sd) {
        unsigned char b[16];
        size_t got = 0;
        while (got < sizeof b) {
            ssize_t n = recv(sd, b + got, sizeof b - got, 0);
            if (n <= 0) break;
            got += static_cast<size_t>(n);
        }
        if (got == 0) return 0;
        EXPECT_EQ(got, 16u);
        TcpDumpHdr h;
        memcpy(&h, b, sizeof h);
        EXPECT_TRUE(hdrIsValid(h));
        EXPECT_EQ(ntohs(h.type), TCP_REC_REJECTED);
        EXPECT_EQ(ntohs(h.length), 4);
        uint32_t code;
        memcpy(&code, b + 12, 4);
        return ntohl(code);
    }
    DumpVfsOut dumpCookie(uint32_t vfsid, const std::string& prior, const std::string& name = "") {
        DumpVfsIn in;
        memset(&in, 0, sizeof in);
        in.fromVfsId = vfsid;
        strncpy(in.dumpName, name.c_str(), sizeof in.dumpName);
        strncpy(in.priorDumpLabel, prior.c_str(), sizeof in.priorDumpLabel);
        DumpVfsOut out;
        memset(&out, 0, sizeof out);
        EXPECT_EQ(dumpvfs_1(&in, &out, vo()), RPC_SUCCESS);
        return out;
    }
    RestoreVfsOut restoreCookie(uint32_t vfsid, u_int force = 0) {
        RestoreVfsIn in = {vfsid, force};
        RestoreVfsOut out;
        memset(&out, 0, sizeof out);
        EXPECT_EQ(restorevfs_1(&in, &out, vo()), RPC_SUCCESS);
        return out;
    }
    // The cookie request bytes for a cookie vod handed out.
    static std::string requestOf(const char* cookie, u_int len) {
        uint32_t n = htonl(len);
        return std::string(reinterpret_cast<char*>(&n), 4) + std::string(cookie, len);
    }
    // A null call's round trip, in seconds.
    double nullCallSec() {
        auto t0 = std::chrono::steady_clock::now();
        timeval tv = {10, 0};
        EXPECT_EQ(
            clnt_call(vo(), NULLPROC, xdrProc(xdr_void), nullptr, xdrProc(xdr_void), nullptr, tv),
            RPC_SUCCESS);
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    }
};

TEST_F(DumpTest, CookiesCarryTheVolumeTheLabelAndThePort) {
    uint32_t vol = makeVolume("dumped", "lp1a", 2, 1024);
    ASSERT_NE(vol, 0u);
    DumpVfsOut d = dumpCookie(vol, "weekly:3:41", std::string(300, 'n'));
    ASSERT_EQ(d.code, 0u);
    EXPECT_EQ(d.port, 36099u);  // 909 with its bytes swapped, as clients expect
    ASSERT_EQ(d.cookie.cookie_len, 296u);
    TcpVfsOpCookie c;
    memcpy(&c, d.cookie.cookie_val, sizeof c);
    EXPECT_EQ(c.requestType, TCP_REQ_DUMP);
    EXPECT_EQ(c.u.dump.fromVfsId, vol);
    EXPECT_EQ(c.u.dump.dumpFromDV, 42u);
    EXPECT_EQ(c.u.dump.dumpNameLength, 256u);
    xdr_free(xdrProc(xdr_DumpVfsOut), reinterpret_cast<char*>(&d));

    const struct {
        const char* what;
        unsigned code;
    } refusals[] = {
        {"a label without colon", (390u << 16) | (35000 + 5016)},
        {"weekly:17:16", (390u << 16) | (35000 + 5016)},
    };
    for (const auto& r : refusals) {
        DumpVfsOut bad = dumpCookie(vol, r.what);
        EXPECT_EQ(bad.code, r.code) << r.what;
        EXPECT_EQ(bad.cookie.cookie_len, 0u) << r.what;
        xdr_free(xdrProc(xdr_DumpVfsOut), reinterpret_cast<char*>(&bad));
    }
    RestoreVfsOut r0 = restoreCookie(0);
    EXPECT_EQ(r0.code, 0x01849C51u);
    EXPECT_EQ(r0.cookie.cookie_len, 0u);
    RestoreVfsOut r = restoreCookie(vol, 1);
    ASSERT_EQ(r.code, 0u);
    EXPECT_EQ(r.cookie.cookie_len, 28u);
    xdr_free(xdrProc(xdr_RestoreVfsOut), reinterpret_cast<char*>(&r));
    RestoreVfsOut missing = restoreCookie(987654);
    EXPECT_EQ(missing.code, 0x01007737u);  // no such volume in the VLDB
}

// Every refusal answers its rejection (or, when the client is gone, just
// closes), records nothing, and changes nothing; a silent client holds
// nobody else up meanwhile.
TEST_F(DumpTest, BadInputOnTheDumpPortIsRefused) {
    uint32_t vol = makeVolume("victim", "lp1a", 2, 1024);
    ASSERT_NE(vol, 0u);
    const std::string sumBefore = checksum(vol, "lp1a");
    DumpVfsOut d = dumpCookie(vol, "");
    ASSERT_EQ(d.code, 0u);
    const std::string good = requestOf(d.cookie.cookie_val, d.cookie.cookie_len);
    xdr_free(xdrProc(xdr_DumpVfsOut), reinterpret_cast<char*>(&d));

    // A cookie for a volume that is not there: the volume id changed.
    std::string forged = good;
    uint32_t nowhere = 999999;
    memcpy(&forged[4 + 4], &nowhere, 4);
    auto len = [](uint32_t n) {
        n = htonl(n);
        return std::string(reinterpret_cast<char*>(&n), 4);
    };
    const unsigned badLength = (392u << 16) | 40019;
    const unsigned timedOut = (196u << 16) | (30000 + ETIMEDOUT);
    const struct {
        const char* name;
        std::string bytes;
        bool silentAfter;  // keeps the connection open without sending more
        unsigned code;     // 0: the connection only closes
    } cases[] = {
        // A half-closed client still reads the answer to its empty request.
        {"closes at once", "", false, (196u << 16) | (30000 + ECONNRESET)},
        {"length 0", len(0), false, badLength},
        {"length over the cookie", len(297), false, badLength},
        {"cookie cut short", len(100) + good.substr(4, 100), false, badLength},
        {"unknown request type", len(28) + std::string("\x07\x00", 2) + std::string(26, '\0'),
         false, (392u << 16) | 40020},
        {"cookie matching no volume", forged, false, 0x01007737},
        {"garbage", "GET / HTTP/1.0\r\n\r\n", false, badLength},
        {"silent", "", true, timedOut},
        {"half a cookie", good.substr(0, 150), true, timedOut},
    };
    for (const auto& c : cases) {
        int sd = connectDump();
        ASSERT_GE(sd, 0);
        if (!c.bytes.empty()) {
            ASSERT_EQ(send(sd, c.bytes.data(), c.bytes.size(), 0), ssize_t(c.bytes.size()));
        }
        if (c.bytes.empty() && !c.silentAfter) shutdown(sd, SHUT_WR);
        if (c.silentAfter) {
            // Others are served while this client keeps quiet.
            for (int i = 0; i < 3; i++) EXPECT_LT(nullCallSec(), 1.0) << c.name;
        }
        EXPECT_EQ(rejection(sd), c.code) << c.name;
        close(sd);
    }
    EXPECT_LT(nullCallSec(), 1.0);
    EXPECT_TRUE(vodbRecords().empty()) << vodbRecords().dump();
    EXPECT_EQ(checksum(vol, "lp1a"), sumBefore);
    expectVldbAgreesWithDblades();
}

// A volume in another recorded operation answers that operation's code.
TEST_F(DumpTest, BusyVolumesAnswerTheOtherOperationsCode) {
    uint32_t vol = makeVolume("busy", "lp1a", 1, 1024);
    ASSERT_NE(vol, 0u);
    DumpVfsOut d = dumpCookie(vol, "");
    RestoreVfsOut r = restoreCookie(vol);
    ASSERT_EQ(d.code, 0u);
    ASSERT_EQ(r.code, 0u);
    const std::string dumpReq = requestOf(d.cookie.cookie_val, d.cookie.cookie_len);
    const std::string restoreReq = requestOf(r.cookie.cookie_val, r.cookie.cookie_len);
    xdr_free(xdrProc(xdr_DumpVfsOut), reinterpret_cast<char*>(&d));
    xdr_free(xdrProc(xdr_RestoreVfsOut), reinterpret_cast<char*>(&r));
    auto busy = [](unsigned code) { return (393u << 16) | (35000 + code); };
    const struct {
        const char* type;
        const char* role;
        unsigned dumpCode;  // 0: a dump may share the volume
        unsigned restoreCode;
    } cases[] = {
        {"move", "src", busy(5021), busy(5021)}, {"copy", "sink", busy(5022), busy(5022)},
        {"del", "src", busy(5024), busy(5024)},  {"vfsrestore", "src", busy(5026), busy(5026)},
        {"vfsdump", "src", 0, busy(5025)},       {"mirror", "src", 0, busy(5023)},
    };
    for (const auto& c : cases) {
        uint64_t opid = addVodbRecord(0, c.type, vol, "lp1a", c.role);
        ASSERT_NE(opid, 0u) << c.type;
        for (const auto& [req, code] :
             {std::pair{dumpReq, c.dumpCode}, {restoreReq, c.restoreCode}}) {
            if (code == 0) continue;
            int sd = connectDump();
            ASSERT_GE(sd, 0);
            ASSERT_EQ(send(sd, req.data(), req.size(), 0), ssize_t(req.size()));
            EXPECT_EQ(rejection(sd), code) << c.type << " " << c.role;
            close(sd);
        }
        sim({"vodb-delete", std::to_string(opid)});
    }
    EXPECT_TRUE(vodbRecords().empty()) << vodbRecords().dump();
}

// The label of a dump file, as voctl reads it.
std::string labelOf(Node& node, const std::string& file) {
    Node::Result r = node.voctl({"--json", "dump-info", file});
    auto j = nlohmann::json::parse(r.out, nullptr, false);
    return j.is_object() && j["label"].is_string() ? j["label"].get<std::string>() : "";
}

TEST_F(DumpTest, AFullDumpAndAnIncrementalOneRestoreInOrder) {
    const uint32_t src = makeVolume("chain", "lp1a", 10, 20 * 1024);
    ASSERT_NE(src, 0u);
    const std::string full = node.dir() + "/chain.full", incr = node.dir() + "/chain.incr";
    Node::Result r = node.voctl({"dump", std::to_string(src), full, "--name", "weekly"});
    ASSERT_EQ(r.status, 0) << r.err;
    const std::string label = labelOf(node, full);
    ASSERT_EQ(label.rfind("weekly:0:", 0), 0u) << label;
    const std::string fullSum = checksum(src, "lp1a");

    sim({"vol-write", std::to_string(src), "lp1a", "new.txt", "--text", "after the full dump"});
    sim({"vol-rm", std::to_string(src), "lp1a", "fill/00002"});
    r = node.voctl({"dump", std::to_string(src), incr, "--name", "weekly", "--since", label});
    ASSERT_EQ(r.status, 0) << r.err;

    // Restored in order into a new volume: the source's contents and version.
    r = node.voctl({"--json", "restore", full, "--create", "chain.copy", "lp1b"});
    ASSERT_EQ(r.status, 0) << r.err;
    const uint32_t copy = nlohmann::json::parse(r.out)["vfsid"].get<uint32_t>();
    EXPECT_EQ(checksum(copy, "lp1b"), fullSum);
    // The incremental one again onto the full restore's version only.
    Node::Result twice = node.voctl({"restore", incr, std::to_string(copy)});
    ASSERT_EQ(twice.status, 0) << twice.err;
    EXPECT_EQ(checksum(copy, "lp1b"), checksum(src, "lp1a"));
    uint64_t srcDv = 0, copyDv = 0;
    for (const DbladeVolume& v : volumes()) {
        if (v.vfsid == src) srcDv = v.dv;
        if (v.vfsid == copy) copyDv = v.dv;
    }
    EXPECT_EQ(copyDv, srcDv);

    // Onto a volume at another version it is refused, and changes nothing.
    const uint32_t other = makeVolume("other", "lp1b", 2, 1024);
    const std::string otherSum = checksum(other, "lp1b");
    r = node.voctl({"restore", incr, std::to_string(other)});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("restore of vfsid"), std::string::npos) << r.err;
    EXPECT_EQ(checksum(other, "lp1b"), otherSum);
    EXPECT_TRUE(waitVodbEmpty(30));
    expectVldbAgreesWithDblades();
}

// One byte changed anywhere in a dump file: the restore is refused and the
// target keeps what it had.
TEST_F(DumpTest, ADamagedDumpIsRefusedAndTheTargetLeftAlone) {
    const uint32_t src = makeVolume("orig", "lp1a", 6, 20 * 1024);
    ASSERT_NE(src, 0u);
    const std::string file = node.dir() + "/orig.dump";
    ASSERT_EQ(node.voctl({"dump", std::to_string(src), file}).status, 0);
    std::string bytes;
    {
        FILE* f = fopen(file.c_str(), "rb");
        ASSERT_NE(f, nullptr);
        char b[65536];
        size_t n;
        while ((n = fread(b, 1, sizeof b, f)) > 0) bytes.append(b, n);
        fclose(f);
    }
    const uint32_t target = makeVolume("kept", "lp1b", 3, 1024);
    const std::string targetSum = checksum(target, "lp1b");
    const struct {
        const char* where;
        size_t offset;
    } cases[] = {
        {"a header", 2},
        {"the Begin body", 100},
        {"a data record", bytes.size() / 2},
        {"the End record", bytes.size() - 24},
        {"the Close record", bytes.size() - 1},
    };
    for (const auto& c : cases) {
        std::string bad = bytes;
        bad[c.offset] ^= 0x5A;
        const std::string badFile = node.dir() + "/bad.dump";
        FILE* f = fopen(badFile.c_str(), "wb");
        ASSERT_NE(f, nullptr);
        fwrite(bad.data(), 1, bad.size(), f);
        fclose(f);
        Node::Result info = node.voctl({"dump-info", badFile});
        EXPECT_NE(info.status, 0) << c.where;
        Node::Result r = node.voctl({"restore", badFile, std::to_string(target), "--force"});
        EXPECT_EQ(r.status, 1) << c.where << ": " << r.out;
        EXPECT_EQ(checksum(target, "lp1b"), targetSum) << c.where;
    }
    EXPECT_TRUE(waitVodbEmpty(30));
    expectVldbAgreesWithDblades();
}

// vod killed while a dump or a restore streams. The D-blade holds its own
// hold of the connection and goes on; the next vod winds the operation up
// from its records, never resuming it: no record, no clone is left, the
// source is intact, and a restore target is either whole or, when the
// D-blade died while writing it, hidden: never a partial volume that looks
// whole.
struct DumpCrashPoint {
    const char* name;
    bool restore;
    const char* heldAt;  // the simulated D-blade's fault point vod is killed at
    bool dbladeDies;     // the D-blade dies there too (the stream is dropped)
};

class DumpCrash : public DumpTest, public ::testing::WithParamInterface<DumpCrashPoint> {};

void PrintTo(const DumpCrashPoint& p, std::ostream* os) { *os << p.name; }

const DumpCrashPoint kDumpPoints[] = {
    {"DumpMidStream", false, "tcpvfsdump.stream", false},
    {"RestoreMidStream", true, "tcpvfsrestore.stream", false},
    {"RestoreWhileWritingTheTarget", true, "tcpvfsrestore.apply", false},
    {"RestoreWhileWritingTheTargetAndTheDbladeDied", true, "tcpvfsrestore.apply", true},
};

TEST_P(DumpCrash, TheNextVodWindsItUp) {
    const DumpCrashPoint& point = GetParam();
    const uint32_t src = makeVolume("precious", "lp1a", 16, 32 * 1024);
    ASSERT_NE(src, 0u);
    const std::string srcSum = checksum(src, "lp1a");
    const std::string file = node.dir() + "/precious.dump";
    uint32_t target = 0;
    std::string targetSum;
    if (point.restore) {
        Node::Result d = node.voctl({"dump", std::to_string(src), file});
        ASSERT_EQ(d.status, 0) << d.err;
        target = makeVolume("target", "lp1b", 3, 1024);
        targetSum = checksum(target, "lp1b");
    }
    hold(point.heldAt);
    Node::Result r;
    std::thread client([&] {
        r = point.restore ? node.voctl({"restore", file, std::to_string(target), "--force"}, 120)
                          : node.voctl({"dump", std::to_string(src), file}, 120);
    });
    ASSERT_TRUE(waitHeld(point.heldAt, 60)) << "the D-blade never got to " << point.heldAt;
    ASSERT_FALSE(vodbRecords().empty());
    killVod();
    release(point.heldAt, point.dbladeDies);
    restartVod();
    client.join();

    EXPECT_TRUE(waitVodbEmpty(90)) << "the operation was not wound up:\n" << sim({"vodb"});
    EXPECT_EQ(checksum(src, "lp1a"), srcSum);
    std::set<VolumeKey> want = {{"lp1a", src}};
    if (point.restore) want.insert({"lp1b", target});
    EXPECT_EQ(volumeKeys(), want) << "a clone or another volume was left";
    if (!point.restore) {
        // voctl kept the dump only if it came whole.
        Node::Result info = node.voctl({"dump-info", file});
        EXPECT_EQ(info.status, r.status == 0 ? 0 : 1) << info.out << info.err;
        EXPECT_EQ(vldbKeys(), want);
        return;
    }
    bool hidden = false;
    for (const DbladeVolume& v : volumes())
        if (v.vfsid == target) hidden = v.hidden;
    if (point.dbladeDies) {
        EXPECT_NE(r.status, 0) << "a restore the D-blade never finished reported success";
        EXPECT_TRUE(hidden) << "a partly written target must not look whole";
        return;
    }
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_FALSE(hidden);
    EXPECT_EQ(checksum(target, "lp1b"), srcSum);
    expectVldbAgreesWithDblades();
}

INSTANTIATE_TEST_SUITE_P(KilledAt, DumpCrash, ::testing::ValuesIn(kDumpPoints),
                         [](const ::testing::TestParamInfo<DumpCrashPoint>& p) {
                             return std::string(p.param.name);
                         });

}  // namespace
}  // namespace vodtest
