// VOPROG as a client sees it: replies on the wire, refusals of malformed
// calls, the start-up options that end the process, what vod says at start
// about a machine it cannot work on, and vod staying
// responsive while other connections misbehave.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <rpc/rpc.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <fstream>
#include <string>

#include "node.h"
#include "util/xdrproc.h"
#include "vo.h"
#include "voerrors.h"

namespace vodtest {
namespace {

// What cancelop answers for every operation id.
constexpr u_int kCancelOpAnswer = 0x01859C52;

constexpr timeval kCallTimeout = {10, 0};

clnt_stat callVoid(CLIENT* c, rpcproc_t proc) {
    return clnt_call(c, proc, xdrProc(xdr_void), nullptr, xdrProc(xdr_void), nullptr, kCallTimeout);
}

off_t fileSize(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// True when process pid has path open.
bool hasOpen(pid_t pid, const std::string& path) {
    std::string dir = "/proc/" + std::to_string(pid) + "/fd";
    for (int fd = 0; fd < 1024; ++fd) {
        char target[PATH_MAX];
        std::string link = dir + "/" + std::to_string(fd);
        ssize_t n = readlink(link.c_str(), target, sizeof target - 1);
        if (n > 0 && std::string(target, n) == path) return true;
    }
    return false;
}

size_t countOf(const std::string& haystack, const std::string& needle) {
    size_t n = 0;
    for (size_t p = haystack.find(needle); p != std::string::npos; p = haystack.find(needle, p + 1)) ++n;
    return n;
}

// ---- hand-written encoders for calls the generated filters refuse to make

void putLid(XDR* x, u_char (&lid)[16], bool* ok) {
    *ok = *ok && xdr_vector(x, reinterpret_cast<char*>(lid), 16, sizeof(u_char), xdrProc(xdr_u_char));
}

// A VoLidVnameIn whose name may exceed the 128 bytes the protocol allows.
struct LongNameCopy {
    u_int vidSrc = 7;
    u_char lidSrc[16] = {1};
    u_char lidSink[16] = {2};
    std::string name;
};

bool_t xdrLongNameCopy(XDR* x, LongNameCopy* a) {
    bool ok = xdr_u_int(x, &a->vidSrc);
    putLid(x, a->lidSrc, &ok);
    putLid(x, a->lidSink, &ok);
    char* p = &a->name[0];
    return ok && xdr_string(x, &p, ~0u);
}

// A VoIn whose LP id goes out as 16 packed bytes instead of 16 XDR units.
struct PackedLidIn {
    u_int vidSrc = 7;
    char lid[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
};

bool_t xdrPackedLidIn(XDR* x, PackedLidIn* a) {
    return xdr_u_int(x, &a->vidSrc) && xdr_opaque(x, a->lid, 16);
}

class VodProtocolTest : public VodNodeTest {
 protected:
    void SetUp() override {
        VodNodeTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        clnt = node.client();
        ASSERT_NE(clnt, nullptr);
    }

    CLIENT* clnt = nullptr;
};

TEST_F(VodProtocolTest, NullCallIsAnswered) { EXPECT_EQ(callVoid(clnt, 0), RPC_SUCCESS); }

TEST_F(VodProtocolTest, UnservedProceduresAreUnavailable) {
    // The gaps of the procedure table and its ends.
    for (rpcproc_t proc : {23u, 24u, 28u, 100u, 109u, 200u, 202u, 0xFFFFu}) {
        EXPECT_EQ(callVoid(clnt, proc), RPC_PROCUNAVAIL) << "procedure " << proc;
    }
    // The connection survives a refused call.
    EXPECT_EQ(callVoid(clnt, 0), RPC_SUCCESS);
}

TEST_F(VodProtocolTest, SinkNameLongerThan128BytesIsUndecodable) {
    LongNameCopy arg;
    VoVidOut res;
    memset(&res, 0, sizeof res);

    arg.name.assign(128, 'n');
    EXPECT_EQ(clnt_call(clnt, VOCOPY, xdrProc(xdrLongNameCopy), reinterpret_cast<char*>(&arg),
                        xdrProc(xdr_VoVidOut), reinterpret_cast<char*>(&res), kCallTimeout),
              RPC_SUCCESS)
        << "a 128-byte name is within bounds";
    xdr_free(xdrProc(xdr_VoVidOut), reinterpret_cast<char*>(&res));

    arg.name.assign(129, 'n');
    EXPECT_EQ(clnt_call(clnt, VOCOPY, xdrProc(xdrLongNameCopy), reinterpret_cast<char*>(&arg),
                        xdrProc(xdr_VoVidOut), reinterpret_cast<char*>(&res), kCallTimeout),
              RPC_CANTDECODEARGS);
    EXPECT_EQ(callVoid(clnt, 0), RPC_SUCCESS);
}

TEST_F(VodProtocolTest, LpIdSentAsSixteenPackedBytesIsUndecodable) {
    VoMovePgrsOut res;
    memset(&res, 0, sizeof res);

    VoIn good;
    memset(&good, 0, sizeof good);
    good.vidSrc = 7;
    EXPECT_EQ(vomovepgrs_1(&good, &res, clnt), RPC_SUCCESS) << "64-byte LP id";
    xdr_free(xdrProc(xdr_VoMovePgrsOut), reinterpret_cast<char*>(&res));

    PackedLidIn bad;
    EXPECT_EQ(clnt_call(clnt, VOMOVEPGRS, xdrProc(xdrPackedLidIn), reinterpret_cast<char*>(&bad),
                        xdrProc(xdr_VoMovePgrsOut), reinterpret_cast<char*>(&res), kCallTimeout),
              RPC_CANTDECODEARGS);
    EXPECT_EQ(callVoid(clnt, 0), RPC_SUCCESS);
}

struct DecodeCase {
    u_int code;
    u_int proc, low;
    const char* module;
    const char* procName;
    std::string exact;  // empty: only the daemon's own decoder is the reference
};

TEST_F(VodProtocolTest, DecodeErrorMatchesTheDecoderAndTheCatalogs) {
    const DecodeCase cases[] = {
        {(385u << 16) | 5, 385, 5, "TarnFS", "VodVldbFindVfs", ""},
        {40002, 0, 40002, "VOD", "", "(VOD) : out of memory"},
        {35002, 0, 35002, "VOD", "", "(VOD) : Roll forward error"},
        {30002, 0, 30002, "SYSTEM", "", std::string("(SYSTEM) : ") + strerror(2)},
        {30300, 0, 30300, "RPC", "", "(RPC) : message not cataloged for code=30300"},
        {30301, 0, 30301, "RPC", "", "(RPC) : can not encode RPC arguments"},
        {(6u << 16) | 1, 6, 1, "TarnFS", "procUnknown", ""},
        {kCancelOpAnswer, 389, 40018, "VOD", "VodVfsOpCancel", "(VOD) VodVfsOpCancel: Not supported"},
    };
    for (const DecodeCase& c : cases) {
        SCOPED_TRACE(testing::Message() << "code " << c.code);
        VoErrOut want;
        memset(&want, 0, sizeof want);
        ASSERT_NE(errorDecode(c.code, &want), nullptr);
        std::string wantText = want.message;
        free(want.message);

        VoErrOut got;
        memset(&got, 0, sizeof got);
        u_int arg = c.code;
        ASSERT_EQ(decodeerror_1(&arg, &got, clnt), RPC_SUCCESS);
        std::string text = got.message != nullptr ? got.message : "<null>";
        EXPECT_EQ(got.proc, c.proc);
        EXPECT_EQ(got.code, c.low);
        xdr_free(xdrProc(xdr_VoErrOut), reinterpret_cast<char*>(&got));

        EXPECT_EQ(text, wantText);
        EXPECT_EQ(text.rfind(std::string("(") + c.module + ") " + c.procName + ": ", 0), 0u) << text;
        if (!c.exact.empty()) {
            EXPECT_EQ(text, c.exact);
        }
    }
}

TEST_F(VodProtocolTest, CancelOpAlwaysAnswersNotSupported) {
    for (u_quad_t opid : {0ull, 1ull, 0x123456789ull, ~0ull}) {
        u_int code = 0;
        ASSERT_EQ(cancelop_1(&opid, &code, clnt), RPC_SUCCESS);
        EXPECT_EQ(code, kCancelOpAnswer) << "opid " << opid;
    }
}

TEST_F(VodProtocolTest, TraceMaskOpensAndClosesThePrivateLog) {
    const std::string log = "/var/log/vod.log", cnt = "/var/log/vod.cnt";
    // Private to the sandbox, but an earlier case in this process may have made them.
    unlink(log.c_str());
    unlink(cnt.c_str());

    u_int mask = 0xFFFFFFFF;
    ASSERT_EQ(vosettracemask_1(&mask, nullptr, clnt), RPC_SUCCESS);
    EXPECT_TRUE(hasOpen(node.vodPid(), log));
    EXPECT_TRUE(hasOpen(node.vodPid(), cnt));
    // The call's own closing line already went to the log.
    EXPECT_GT(fileSize(log), 0);
    EXPECT_EQ(readFile(cnt).rfind("Most recent log is at line ", 0), 0u) << readFile(cnt);

    mask = 0x1080;
    ASSERT_EQ(vosettracemask_1(&mask, nullptr, clnt), RPC_SUCCESS);
    EXPECT_FALSE(hasOpen(node.vodPid(), log));
    EXPECT_FALSE(hasOpen(node.vodPid(), cnt));
    off_t closedSize = fileSize(log);
    // Were the log still open, this call's lines would land in it.
    ASSERT_EQ(vosettracemask_1(&mask, nullptr, clnt), RPC_SUCCESS);
    EXPECT_EQ(fileSize(log), closedSize);
}

// ---- options that end the process

class VodStartTest : public NodeTest {};

TEST_F(VodStartTest, NonPositiveThreadCountIsRefusedBeforeServing) {
    for (const char* opt : {"-t0", "-t-3"}) {
        SCOPED_TRACE(opt);
        ASSERT_TRUE(node.startVod({"-d", opt}, Node::Wait::No));
        EXPECT_EQ(node.waitVodExit(20), 1);
        EXPECT_NE(node.vodOutput().find("VOD: numOfThreads == 0, can't do That"), std::string::npos)
            << node.vodOutput();
        EXPECT_EQ(node.vodPort(), 0) << "refused before registering";
    }
}

// A machine without /etc/protocols (a minimal Debian lacks netbase): vod names
// the cause at start instead of leaving only "Unknown protocol" behind.
TEST_F(VodStartTest, MissingProtocolDatabaseIsNamedAtStart) {
    const std::string line = "/etc/protocols is missing (install the netbase package)";
    ASSERT_TRUE(node.startVod({"-d"}));
    ASSERT_TRUE(node.waitForTrace("vod listens on port", 10));
    EXPECT_EQ(node.vodOutput().find(line), std::string::npos) << node.vodOutput();
    node.killVod();

    // The sandbox's mounts are this test's own: an empty file hides the
    // machine's protocol database from the next vod alone.
    const std::string empty = node.dir() + "/protocols";
    std::ofstream(empty).close();
    ASSERT_EQ(mount(empty.c_str(), "/etc/protocols", nullptr, MS_BIND, nullptr), 0)
        << strerror(errno);
    ASSERT_TRUE(node.startVod({"-d"}, Node::Wait::No));
    EXPECT_TRUE(node.waitForTrace(line, 20)) << node.vodOutput();
    node.killVod();
    EXPECT_EQ(umount2("/etc/protocols", MNT_DETACH), 0) << strerror(errno);
}

TEST_F(VodStartTest, ServesFivePassesWithX5ThenExits) {
    ASSERT_TRUE(node.startVod({"-d", "-h0", "-x5"}));
    // The hold-off time-out is one pass; the connection and each call make the
    // others, until vod stops answering.
    CLIENT* c = node.client(2);
    ASSERT_NE(c, nullptr);
    bool ended = pollUntil(
        [&] {
            callVoid(c, 0);
            return !node.vodRunning();
        },
        30, 0.05);
    ASSERT_TRUE(ended) << "vod still runs";
    EXPECT_EQ(node.waitVodExit(5), 1);
    std::string out = node.vodOutput();
    EXPECT_NE(out.find("vod will exit after servicing 5 RPC calls"), std::string::npos) << out;
    EXPECT_NE(out.find("svc_run returned. exit."), std::string::npos) << out;
    EXPECT_EQ(countOf(out, "sleepTime = "), 5u) << "one per pass:\n" << out;
}

// ---- misbehaving connections

struct BadInput {
    const char* name;
    std::string bytes;
};

void PrintTo(const BadInput& b, std::ostream* os) { *os << b.name; }

std::string marker(uint32_t m) {
    uint32_t be = htonl(m);
    return std::string(reinterpret_cast<const char*>(&be), 4);
}

// The first 40 bytes of a 100-byte call record: the peer then goes silent.
std::string halfRequest() {
    std::string rec = marker(0x80000000u | 100);
    const uint32_t header[] = {1, 0 /*CALL*/, 2, 0x20000604, 1, 1 /*vocopy*/, 0, 0, 0};
    for (uint32_t w : header) rec += marker(w);
    return rec;
}

class VodBadInputTest : public NodeTest, public testing::WithParamInterface<BadInput> {};

TEST_P(VodBadInputTest, OtherClientsAreStillServedPromptly) {
    ASSERT_TRUE(node.startVod({"-d"}));
    UniqueFd bad = node.connectRaw();
    ASSERT_TRUE(bad);
    const std::string& bytes = GetParam().bytes;
    ASSERT_EQ(write(bad.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));

    // The bad connection stays open and silent while another client calls.
    CLIENT* good = node.client(5);
    ASSERT_NE(good, nullptr);
    for (int i = 0; i < 3; ++i) {
        auto t0 = std::chrono::steady_clock::now();
        EXPECT_EQ(callVoid(good, 0), RPC_SUCCESS) << "call " << i;
        double sec = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        EXPECT_LT(sec, 2.0) << "call " << i;
    }
    bad.reset();
    EXPECT_EQ(callVoid(good, 0), RPC_SUCCESS);
    EXPECT_TRUE(node.vodRunning());
}

INSTANTIATE_TEST_SUITE_P(
    Connections, VodBadInputTest,
    testing::Values(BadInput{"Text", "GET / HTTP/1.0\r\nHost: vod\r\n\r\n"},
                    BadInput{"FramedJunk", marker(0x80000010u) + std::string(16, '\xFF')},
                    BadInput{"HugeFragment", marker(0x7FFFFFFFu) + "abcd"},
                    BadInput{"HugeLastFragment", marker(0xFFFFFFFFu) + "abcd"},
                    BadInput{"HalfRequest", halfRequest()}),
    [](const testing::TestParamInfo<BadInput>& p) { return std::string(p.param.name); });

}  // namespace
}  // namespace vodtest
