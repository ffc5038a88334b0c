// What the simulated node offers read-only mirrors: one mirror stream feeding several sinks
// on both D-blades from one read of its source, one destination's own end (current
// already, cancelled, misdirected) while the others finish, the id swap run step by step
// with a fault point before each step, the by-hand volume commands that build the states
// a crash leaves, and mirror records in the VLDB from the control tool.

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "dblade_fixture.h"

using namespace dbladetest;

namespace {

constexpr unsigned kSrc = 100;
constexpr unsigned kMirrorId = kSrc | 0x40000000;  // 1073741924
constexpr unsigned kMirrorOpType = 2;

class MirrorSupportTest : public DbladeTest {
protected:
    // A source on lp1a with `files` generated files of `size` bytes.
    void makeSource(unsigned files, uint64_t size) {
        ASSERT_EQ(create(kLp1a, kSrc, "src"), 0u);
        fill(kSrc, "lp1a", files, size);
    }

    void expectSameAsSource(unsigned vfsid, const std::string& lp, const unsigned char* lpId) {
        EXPECT_EQ(checksum(vfsid, lp), checksum(kSrc, "lp1a")) << "volume " << vfsid;
        EXPECT_EQ(attrs(lpId, vfsid).dataVersion, attrs(kLp1a, kSrc).dataVersion)
            << "volume " << vfsid;
    }

    // Which of the named contents the id holds on lp, or "-" when no volume has it there.
    // Through the control socket, so safe while another thread calls the D-blade.
    std::string holder(unsigned vfsid, const std::string& lp,
                       const std::vector<std::pair<std::string, std::string>>& named) {
        simtest::RunResult r = sim->ctl({"vol-checksum", std::to_string(vfsid), lp});
        if (r.status != 0) return "-";
        for (const auto& [name, sum] : named)
            if (r.out == sum) return name;
        return "?";
    }
};

// ---- one stream, several sinks ----------------------------------------------------------

TEST_F(MirrorSupportTest, OneReadFeedsThreeSinksOnTwoDbladesInRequestOrder) {
    makeSource(20, 10000);
    // The mirror an earlier operation left on lp2b; then the source moves on.
    ASSERT_EQ(create(kLp2b, kMirrorId, "src.ro", VOLSET_VOLNAME | VOLSET_MAKE_RO), 0u);
    ASSERT_EQ(mirror(1, kLp1a, kSrc, {{2, kMirrorId, kLp2b}}, kMirrorOpType), 0u);
    waitDone(1);
    ASSERT_EQ(conclude(1), 0u);
    const uint64_t oldMirrorDv = attrs(kLp2b, kMirrorId).dataVersion;
    write(kSrc, "lp1a", "fill/00004", 5000);  // 2 blocks
    write(kSrc, "lp1a", "late", 100);         // 1 block

    // The op sinks as the daemon makes them: the old mirror cloned in place, and new
    // volumes where there is none; listed out of D-blade order on purpose.
    ASSERT_EQ(clone(kLp2b, kMirrorId, 1502), 0u);
    ASSERT_EQ(create(kLp1b, 1500, "op.sink"), 0u);
    ASSERT_EQ(create(kLp2a, 1501, "op.sink"), 0u);
    const std::vector<Dest> dests = {{2, 1501, kLp2a}, {1, 1500, kLp1b}, {2, 1502, kLp2b}};
    ASSERT_EQ(mirror(2, kLp1a, kSrc, dests, kMirrorOpType), 0u);
    Pgrs p = waitDone(2);

    EXPECT_EQ(p.code, 0u);
    const uint64_t whole = attrs(kLp1a, kSrc).blocksUsed;
    EXPECT_EQ(p.blksRead, whole) << "the source is read once for every sink";
    ASSERT_EQ(p.dests.size(), dests.size());
    for (size_t i = 0; i < dests.size(); ++i) {
        SCOPED_TRACE("destination " + std::to_string(i));
        EXPECT_EQ(p.dests[i].vfsId, dests[i].vfsid);
        EXPECT_EQ(memcmp(p.dests[i].uuid, dests[i].lp, 16), 0);
        EXPECT_EQ(p.dests[i].isDone, 1u);
        EXPECT_EQ(p.dests[i].completionCode, 0u);
    }
    EXPECT_EQ(p.dests[0].blksSent, whole);
    EXPECT_EQ(p.dests[1].blksSent, whole);
    EXPECT_EQ(p.dests[2].blksSent, 3u) << "the clone of the old mirror lacked two files";
    expectSameAsSource(1501, "lp2a", kLp2a);
    expectSameAsSource(1500, "lp1b", kLp1b);
    expectSameAsSource(1502, "lp2b", kLp2b);
    EXPECT_EQ(attrs(kLp2b, kMirrorId).dataVersion, oldMirrorDv) << "the live mirror is not written";
}

// The middle one of three destinations ends on its own; the two around it finish.
struct Fate {
    const char* name;
    bool current;        // brought to the source's data version before the stream
    unsigned short did;  // the D-blade the request names for it (lp1b is D-blade 1's)
    bool cancel;         // cancelled once the stream has written into it
    unsigned code;       // its completion code
    unsigned getattr;    // what its volume answers afterwards
};

void PrintTo(const Fate& f, std::ostream* os) { *os << f.name; }

class DestinationFateTest : public MirrorSupportTest,
                            public ::testing::WithParamInterface<Fate> {};

TEST_P(DestinationFateTest, EndsAloneWhileTheOthersFinish) {
    const Fate& f = GetParam();
    makeSource(8, 64 * 1024);
    for (auto [lp, id] : {std::pair{kLp2a, 1501u}, {kLp1b, 1500u}, {kLp2b, 1502u}})
        ASSERT_EQ(create(lp, id, "op.sink"), 0u);
    if (f.current) {
        ASSERT_EQ(mirror(1, kLp1a, kSrc, {{1, 1500, kLp1b}}, kMirrorOpType), 0u);
        waitDone(1);
        ASSERT_EQ(conclude(1), 0u);
    }
    const uint64_t middleDv = attrs(kLp1b, 1500).dataVersion;
    ctl({"stream-speed", "256"});  // about two seconds for the whole source
    ASSERT_EQ(mirror(2, kLp1a, kSrc, {{2, 1501, kLp2a}, {f.did, 1500, kLp1b}, {2, 1502, kLp2b}},
                     kMirrorOpType),
              0u);
    if (f.cancel) {
        ASSERT_TRUE(simtest::pollUntil([&] { return progress(2).vnodesProcessed >= 1; }, 20));
        ASSERT_EQ(cancel(2, 1500, kLp1b), 0u);
    }

    Pgrs p = progress(2);
    EXPECT_EQ(p.status, unsigned{IncrCopyRunning});
    ASSERT_EQ(p.dests.size(), 3u);
    EXPECT_EQ(p.dests[1].isDone, 1u) << "the middle destination ends at once";
    EXPECT_EQ(p.dests[1].completionCode, f.code);
    EXPECT_EQ(p.dests[0].isDone, 0u);
    EXPECT_EQ(p.dests[2].isDone, 0u);

    ctl({"stream-speed", "0"});
    p = waitDone(2);
    EXPECT_EQ(p.code, 0u);
    EXPECT_EQ(p.dests[1].completionCode, f.code);
    EXPECT_EQ(p.dests[0].completionCode, 0u);
    EXPECT_EQ(p.dests[2].completionCode, 0u);
    expectSameAsSource(1501, "lp2a", kLp2a);
    expectSameAsSource(1502, "lp2b", kLp2b);
    EXPECT_EQ(getattr(kLp1b, 1500), f.getattr);
    if (f.getattr == 0) {
        EXPECT_EQ(attrs(kLp1b, 1500).dataVersion, middleDv);
    }
}

const Fate kFates[] = {
    {"AlreadyCurrent", true, 1, false, VIC_ESINKUPTODATE, 0},
    {"Cancelled", false, 1, true, VIC_ECANCELLED, TARN_ERR_VOLHIDDEN},
    {"NamedWithTheWrongDblade", false, 2, false, VIC_ELPMISMATCH, 0},
};

INSTANTIATE_TEST_SUITE_P(Mirror, DestinationFateTest, ::testing::ValuesIn(kFates),
                         [](const ::testing::TestParamInfo<Fate>& p) {
                             return std::string(p.param.name);
                         });

// ---- the id swap, step by step --------------------------------------------------------
//
// The conclusion of a mirror on lp2a: the old mirror (contents "old") under the mirror id
// and the op sink (contents "new") exchange ids through the spare id.  The steps:
// 1 mirror id -> spare, 2 op sink id -> mirror id, 3 spare -> op sink id.

constexpr unsigned kOpSink = 1500, kSpare = 1501;

struct SwapStop {
    const char* name;
    std::vector<std::string> fault;  // the vodsimctl fault command, none for a clean swap
    bool replies;
    unsigned status;                 // the reply's status when there is one
    const char *mirror, *opSink, *spare;  // what each id holds afterwards: old, new or -
};

void PrintTo(const SwapStop& s, std::ostream* os) { *os << s.name; }

class SwapStepTest : public MirrorSupportTest, public ::testing::WithParamInterface<SwapStop> {
protected:
    void SetUp() override {
        MirrorSupportTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        ASSERT_EQ(create(kLp2a, kMirrorId, "src.ro", VOLSET_VOLNAME | VOLSET_MAKE_RO), 0u);
        ASSERT_EQ(create(kLp2a, kOpSink, "op.sink"), 0u);
        ctl({"vol-write", std::to_string(kMirrorId), "lp2a", "f", "--text", "old"});
        ctl({"vol-write", std::to_string(kOpSink), "lp2a", "f", "--text", "new!"});
        named = {{"old", checksum(kMirrorId, "lp2a")}, {"new", checksum(kOpSink, "lp2a")}};
        // A dropped call is waited for this long.
        timeval tv{2, 0};
        ASSERT_TRUE(clnt_control(volOf(kLp2a), CLSET_TIMEOUT, reinterpret_cast<char*>(&tv)));
    }

    void expectHolders(const SwapStop& s, const char* when) {
        SCOPED_TRACE(when);
        EXPECT_EQ(holder(kMirrorId, "lp2a", named), s.mirror) << "the mirror id";
        EXPECT_EQ(holder(kOpSink, "lp2a", named), s.opSink) << "the op sink id";
        EXPECT_EQ(holder(kSpare, "lp2a", named), s.spare) << "the spare id";
    }

    std::vector<std::pair<std::string, std::string>> named;
};

TEST_P(SwapStepTest, LeavesTheStepsBeforeTheFaultDone) {
    const SwapStop& s = GetParam();
    if (!s.fault.empty()) ctl(s.fault);
    clnt_stat rpc;
    unsigned status = swap(kLp2a, kMirrorId, kOpSink, kSpare, &rpc);
    if (s.replies) {
        EXPECT_EQ(rpc, RPC_SUCCESS);
        EXPECT_EQ(status, s.status);
    } else {
        EXPECT_EQ(rpc, RPC_TIMEDOUT);
    }
    expectHolders(s, "after the call");
    // Each renumbering was on disk when it was done.
    ASSERT_TRUE(sim->restart(/*crash=*/true));
    reconnect();
    expectHolders(s, "after a crash of the simulator");
}

const SwapStop kSwapStops[] = {
    {"NoFault", {}, true, 0, "new", "old", "-"},
    {"StatusBeforeStep1", {"fault", "status", "volswapvolid.step1", "5"}, true, 5, "old", "new", "-"},
    {"StatusBeforeStep2", {"fault", "status", "volswapvolid.step2", "5"}, true, 5, "-", "new", "old"},
    {"StatusBeforeStep3", {"fault", "status", "volswapvolid.step3", "5"}, true, 5, "new", "-", "old"},
    {"DiedBeforeStep2", {"fault", "drop", "volswapvolid.step2"}, false, 0, "-", "new", "old"},
    {"DiedBeforeStep3", {"fault", "drop", "volswapvolid.step3"}, false, 0, "new", "-", "old"},
    {"ReplyLost", {"fault", "lose-reply", "volswapvolid.step3"}, false, 0, "new", "old", "-"},
    {"FaultAimedAtTheOtherDblade",
     {"fault", "drop", "volswapvolid.step2", "--dblade", "1"},
     true, 0, "new", "old", "-"},
};

INSTANTIATE_TEST_SUITE_P(Mirror, SwapStepTest, ::testing::ValuesIn(kSwapStops),
                         [](const ::testing::TestParamInfo<SwapStop>& p) {
                             return std::string(p.param.name);
                         });

TEST_F(SwapStepTest, AHeldStepShowsTheHalfDoneSwapUntilReleased) {
    timeval tv{30, 0};  // the call waits out the checks below
    ASSERT_TRUE(clnt_control(volOf(kLp2a), CLSET_TIMEOUT, reinterpret_cast<char*>(&tv)));
    ctl({"fault", "hold", "volswapvolid.step3"});
    unsigned status = ~0u;
    std::thread call([&] { status = swap(kLp2a, kMirrorId, kOpSink, kSpare); });
    ctl({"fault", "wait-held", "volswapvolid.step3", "20"});
    expectHolders({"held", {}, true, 0, "new", "-", "old"}, "while held");
    ctl({"fault", "release", "volswapvolid.step3"});
    call.join();
    EXPECT_EQ(status, 0u);
    expectHolders({"released", {}, true, 0, "new", "old", "-"}, "after the release");
}

// ---- by hand --------------------------------------------------------------------------

TEST_F(MirrorSupportTest, ByHandCommandsChangeVolumesAndLeaveTheVldbAlone) {
    makeSource(3, 1000);
    ctl({"vldb-add", "100", "lp1a", "src"});
    const std::string vldb = ctl({"vldb"});
    const std::string sum = checksum(kSrc, "lp1a");

    ctl({"vol-clone", "100", "lp1a", "101"});
    EXPECT_EQ(checksum(101, "lp1a"), sum);
    EXPECT_EQ(attrs(kLp1a, 101).upstream, kSrc);
    EXPECT_EQ(attrs(kLp1a, 101).flags & VOLFLAG_CLONE, unsigned{VOLFLAG_CLONE});

    ctl({"vol-renumber", "101", "lp1a", "102"});
    EXPECT_EQ(getattr(kLp1a, 101), unsigned{TARN_ERR_VOLNOTFOUND});
    EXPECT_EQ(checksum(102, "lp1a"), sum);
    EXPECT_EQ(attrs(kLp1a, kSrc).downstream, 102u) << "the source's link follows";

    // A hidden volume answers 32 and keeps its id from others, across a restart too.
    ctl({"vol-hide", "102", "lp1a", "on"});
    EXPECT_EQ(getattr(kLp1a, 102), unsigned{TARN_ERR_VOLHIDDEN});
    EXPECT_EQ(create(kLp1a, 102), unsigned{TARN_ERR_VOLHIDDEN});
    ASSERT_TRUE(sim->restart());
    reconnect();
    EXPECT_NE(ctl({"vol-list", "lp1a"}).find("vfsid=102 type=clone dv="), std::string::npos);
    EXPECT_EQ(getattr(kLp1a, 102), unsigned{TARN_ERR_VOLHIDDEN});
    ctl({"vol-hide", "102", "lp1a", "off"});
    EXPECT_EQ(checksum(102, "lp1a"), sum);

    ctl({"vol-delete", "102", "lp1a"});
    EXPECT_EQ(getattr(kLp1a, 102), unsigned{TARN_ERR_VOLNOTFOUND});
    EXPECT_EQ(attrs(kLp1a, kSrc).downstream, 0u);
    EXPECT_EQ(ctl({"vldb"}), vldb);
}

TEST_F(MirrorSupportTest, ByHandCommandsRefuseWithTheReason) {
    makeSource(1, 100);
    ASSERT_EQ(create(kLp1a, 200, "other"), 0u);
    ASSERT_EQ(create(kLp1a, 300, "hidden"), 0u);
    ctl({"vol-hide", "300", "lp1a", "on"});
    struct Refusal {
        std::vector<std::string> args;
        const char* why;
    };
    const Refusal refusals[] = {
        {{"vol-clone", "100", "lp1a", "200"}, "the id is taken"},
        {{"vol-clone", "300", "lp1a", "301"}, "hidden"},
        {{"vol-renumber", "100", "lp1a", "200"}, "the id is taken"},
        {{"vol-renumber", "200", "lp1a", "300"}, "hidden"},
        {{"vol-hide", "100", "lp1a", "maybe"}, "bad word"},
        {{"vol-delete", "999", "lp1a"}, "no such volume"},
        {{"vol-delete", "100", "lp2a"}, "not on that LP"},
    };
    for (const Refusal& r : refusals) {
        simtest::RunResult got = sim->ctl(r.args);
        EXPECT_NE(got.status, 0) << r.args[0] << " " << r.args[1];
        EXPECT_NE(got.err.find(r.why), std::string::npos) << r.args[0] << ": " << got.err;
    }
    EXPECT_EQ(attrs(kLp1a, kSrc).downstream, 0u) << "nothing was made";
}

// ---- mirror records from the control tool ---------------------------------------------

TEST_F(MirrorSupportTest, MirrorRecordsByHandOnePerLp) {
    ctl({"vldb-add", "100", "lp1a", "src", "dataver", "7"});
    ctl({"vldb-add", "0x40000064", "lp1b", "src.ro", "type", "ro", "dataver", "7"});
    ctl({"vldb-add", "1073741924", "lp2a", "src.ro", "type", "ro", "dataver", "7"});
    ctl({"vldb-add", "0x40000064", "lp2a", "again", "type", "ro"}, /*expectOk=*/false);
    ctl({"vldb-set", "0x40000064", "lp2a", "dataver", "9"});

    std::string json = ctl({"vldb", "0x40000064", "--json"});
    auto count = [&](const std::string& what) {
        size_t n = 0;
        for (size_t at = json.find(what); at != std::string::npos; at = json.find(what, at + 1)) ++n;
        return n;
    };
    EXPECT_EQ(count("\"vfsid\":1073741924"), 2u) << json;
    EXPECT_EQ(count("\"typeName\":\"ro\""), 2u) << json;
    EXPECT_EQ(count("\"dataVer\":7"), 1u) << json;
    EXPECT_EQ(count("\"dataVer\":9"), 1u) << json;
}

}  // namespace
