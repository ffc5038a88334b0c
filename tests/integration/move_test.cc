// Live volume move end to end on a node with the simulated cluster, checked
// by what a user sees afterwards: the volume under its own id on the target
// LP with its contents and data version, the VLDB pointing there, nothing
// left of the passes, and an empty VODB. Then vod killed at named points of
// a move, and what the next vod makes of it.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "cluster_fixture.h"
#include "voerrors.h"

namespace vodtest {
namespace {

using nlohmann::json;

constexpr unsigned kSameLp = 5010;

class MoveTest : public ClusterTest {
  public:
    using ClusterTest::hold;
    using ClusterTest::speed;
    using ClusterTest::waitHeld;

    VoOut startMove(uint32_t vid, const std::string& srcLp, const std::string& dstLp) {
        VoLidIn in{};
        in.vidSrc = vid;
        lpBytes(srcLp, in.lidSrc);
        lpBytes(dstLp, in.lidSink);
        return call(vomove_1, &in, "vomove");
    }

    VoMovePgrsOut moveProgress(uint32_t vid, const std::string& srcLp) {
        VoIn in{};
        in.vidSrc = vid;
        lpBytes(srcLp, in.lidSrc);
        VoMovePgrsOut out{};
        EXPECT_EQ(RPC_SUCCESS, vomovepgrs_1(&in, &out, vo())) << "vomovepgrs";
        return out;
    }

    VoOut moveControl(clnt_stat (*stub)(VoIn*, VoOut*, CLIENT*), uint32_t vid,
                      const std::string& srcLp, const char* what) {
        VoIn in{};
        in.vidSrc = vid;
        lpBytes(srcLp, in.lidSrc);
        return call(stub, &in, what);
    }

    template <typename In>
    VoOut call(clnt_stat (*stub)(In*, VoOut*, CLIENT*), In* in, const char* what) {
        VoOut out{};
        EXPECT_EQ(RPC_SUCCESS, stub(in, &out, vo())) << what;
        return out;
    }

    // Polls the move until pred holds; false after timeoutSec.
    bool waitForMove(uint32_t vid, const std::string& srcLp,
                     const std::function<bool(const VoMovePgrsOut&)>& pred, double timeoutSec,
                     VoMovePgrsOut* last = nullptr) {
        auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutSec);
        while (std::chrono::steady_clock::now() < end) {
            VoMovePgrsOut r = moveProgress(vid, srcLp);
            if (last != nullptr) *last = r;
            if (pred(r)) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return false;
    }

    // A read-write volume of real files on lp.
    uint32_t filled(const std::string& name, const std::string& lp, unsigned files = 20,
                    unsigned size = 4096) {
        uint32_t vid = makeVolume(name, lp, files, size);
        EXPECT_NE(0u, vid);
        return vid;
    }
};

// ---- moves that complete

// The volume ends under its own id on the target LP, with its contents and
// data version; the VLDB points there; the source LP keeps nothing (or, with
// -k, the old source); no clone, op sink or temp is left; the VODB is empty.
TEST_F(MoveTest, AVolumeMovesWholeToAnotherDbladeOrLocally) {
    struct Case {
        const char* what;
        const char* dst;
        bool readOnly;
        bool keepSrc;
    } cases[] = {
        {"read-write, to another D-blade", "lp2a", false, false},
        {"read-write, local to one D-blade", "lp1b", false, false},
        {"read-only, to another D-blade", "lp2b", true, false},
        {"read-write, local, keeping the source", "lp1b", false, true},
        {"read-write, to another D-blade, keeping the source", "lp2a", false, true},
    };
    int n = 0;
    bool keeping = false;
    // The cases that keep a source come last: what they leave on the source
    // LP has no VLDB record, which the settled checks of the others refuse.
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        if (c.keepSrc && !keeping) {
            killVod();
            startVod({"-d", "-k"});
            keeping = true;
        }
        const std::string name = "mv.whole" + std::to_string(n++);
        const uint32_t vid = filled(name, "lp1a", 30, 8192);
        if (c.readOnly) expectTriple(setRo(vid, "lp1a"), 0, 0, 0, "set-ro");
        const std::string sum = checksum(vid, "lp1a");
        auto dvOn = [&](const std::string& lp) {
            for (const DbladeVolume& v : volumes())
                if (v.lp == lp && v.vfsid == vid) return v.dv;
            return uint64_t{0};
        };
        const uint64_t dver = dvOn("lp1a");
        ASSERT_NE(0u, dver);
        const std::set<VolumeKey> others = [&] {
            std::set<VolumeKey> k = volumeKeys();
            k.erase({"lp1a", vid});
            return k;
        }();

        expectTriple(startMove(vid, "lp1a", c.dst), 0, 0, 0, "start");
        VoMovePgrsOut last{};
        ASSERT_TRUE(waitVodbEmpty(60));
        EXPECT_TRUE(waitForMove(
            vid, "lp1a", [](const VoMovePgrsOut& r) { return r.rc == voErrNoSuchOp || r.rc == 0; },
            10, &last));

        std::set<VolumeKey> want = others;
        want.insert({c.dst, vid});
        if (c.keepSrc) {
            // The old source stays on its LP, under its own id or the temp
            // id of a local swap, without a VLDB record.
            for (const DbladeVolume& v : volumes())
                if (v.lp == "lp1a" && !others.count({v.lp, v.vfsid})) want.insert({v.lp, v.vfsid});
            EXPECT_EQ(want.size(), others.size() + 2);
            EXPECT_TRUE(vodbRecords().empty());
            EXPECT_EQ(want, volumeKeys());
        } else {
            expectSettled(want);
        }
        EXPECT_EQ(sum, checksum(vid, c.dst));
        json rec = vldbRecord(vid, c.dst);
        ASSERT_FALSE(rec.is_null());
        EXPECT_EQ(dver, dvOn(c.dst));
        EXPECT_EQ(dver, rec["dataVer"].get<uint64_t>());
        EXPECT_TRUE(vldbRecord(vid, "lp1a").is_null());
    }
}

TEST_F(MoveTest, AWriterMakesMorePassesAndANeverSettlingSourceStopsAtTheLimit) {
    // Converging: a writer keeps changing files; the passes catch up and the
    // final pass brings the last changes.
    const uint32_t vid = filled("mv.busy", "lp1a", 40, 64 * 1024);
    // 200 changes a second, each counting 100 versions: the first pass (about
    // 0.6 s) leaves the source too far ahead for a final pass; the second,
    // carrying only the changed files, catches up.
    sim({"writer", "start", std::to_string(vid), "lp1a", "200", "--files", "20", "--dver-step",
         "100"});
    speed(4096);
    expectTriple(startMove(vid, "lp1a", "lp2a"), 0, 0, 0, "start");
    ASSERT_TRUE(waitVodbEmpty(90));
    sim({"writer", "stop", std::to_string(vid), "lp1a"});
    speed(0);
    // The passes as vod started them: regular ones from clones, then the final one.
    auto count = [](const std::string& text, const std::string& what) {
        size_t n = 0;
        for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
            n++;
        return n;
    };
    const std::string trace = node.vodOutput();
    EXPECT_GE(count(trace, "incrcopymirror_1 succeeded"), 2u);
    EXPECT_EQ(1u, count(trace, "incrcopymove_1 succeeded"));
    ASSERT_FALSE(vldbRecord(vid, "lp2a").is_null());
    expectVldbAgreesWithDblades();

    // Never settling: every change moves the data version far beyond the
    // final-pass gap, so passes 0 to 4 run and the sixth is refused.
    const uint32_t restless = filled("mv.restless", "lp1a", 10, 4096);
    const std::string before = checksum(restless, "lp1a");
    // Each pass carries at least one changed 64 KiB file at 512 KiB/s, long
    // enough for the writer to change the source again meanwhile.
    sim({"writer", "start", std::to_string(restless), "lp1a", "50", "--bytes", "65536",
         "--dver-step", "20000"});
    speed(512);
    expectTriple(startMove(restless, "lp1a", "lp2b"), 0, 0, 0, "start");
    ASSERT_TRUE(waitVodbEmpty(90));
    sim({"writer", "stop", std::to_string(restless), "lp1a"});
    speed(0);
    VoMovePgrsOut last = moveProgress(restless, "lp1a");
    expectTriple(last, voErrValidate, voErrVodValidate, VOD_ERR_TOO_MANY_MOVE_PASSES, "limit");
    EXPECT_FALSE(vldbRecord(restless, "lp1a").is_null());
    EXPECT_TRUE(vldbRecord(restless, "lp2b").is_null());
    expectVldbAgreesWithDblades();
    (void)before;
}

// voctl follows the passes and reports the outcome the VLDB confirms.
TEST_F(MoveTest, VoctlFollowsEveryPassToTheOutcome) {
    const uint32_t vid = filled("mv.tool", "lp1a", 40, 64 * 1024);
    sim({"writer", "start", std::to_string(vid), "lp1a", "100", "--files", "10"});
    speed(8192);
    RunResult tool = runProgram(
        voctlBinary(),
        {"--json", "move", std::to_string(vid), "lp1a", "lp2b", "--interval", "0.02"}, 120);
    sim({"writer", "stop", std::to_string(vid), "lp1a"});
    speed(0);
    ASSERT_EQ(tool.status, 0) << tool.out << tool.err;
    std::istringstream lines(tool.out);
    std::string line;
    json fin;
    bool sawFinalPass = false;
    while (std::getline(lines, line)) {
        json j = json::parse(line, nullptr, false);
        if (j.is_discarded()) continue;
        if (j["event"] == "progress" && j.value("finalPass", false)) sawFinalPass = true;
        if (j["event"] == "final") fin = j;
    }
    EXPECT_EQ(fin["outcome"], "moved") << tool.out;
    EXPECT_TRUE(sawFinalPass) << tool.out;
    ASSERT_TRUE(waitVodbEmpty(30));
    EXPECT_FALSE(vldbRecord(vid, "lp2b").is_null());
    expectVldbAgreesWithDblades();
}

// ---- refusals

TEST_F(MoveTest, RefusalsNameTheirCauseAndRecordNothing) {
    const uint32_t vid = filled("mv.refused", "lp1a");
    // A tiny LP on D-blade 2 that the volume does not fit in.
    sim({"lp-create", "tiny", "2", "1"});
    const uint32_t big = filled("mv.big", "lp1a", 8, 256 * 1024);
    struct Case {
        const char* what;
        std::function<void()> before;
        uint32_t vid;
        const char* dst;
        int rc, func;
        unsigned funcrc;
    } cases[] = {
        {"same LP", [] {}, vid, "lp1a", voErrValidate, voErrVodAddStream, kSameLp},
        {"no room on the target", [] {}, big, "tiny", voErrNotEnoughSpaceSinkLP, voErrVodValidate,
         voErrNotEnoughSpaceSinkLP},
        {"a recorded copy of the volume", [&] { addVodbRecord(0, "copy", vid, "lp1a", "src"); },
         vid, "lp2a", voErrValidate, voErrVodValidate, VOD_ERR_BUSY_COPY},
        {"a recorded mirror of the volume", [&] { addVodbRecord(0, "mirror", vid, "lp1a", "src"); },
         vid, "lp2a", voErrValidate, voErrVodValidate, VOD_ERR_BUSY_MIRROR},
        {"a recorded delete of the volume", [&] { addVodbRecord(0, "del", vid, "lp1a", "src"); },
         vid, "lp2a", voErrValidate, voErrVodValidate, VOD_ERR_BUSY_DELETE},
    };
    const std::set<VolumeKey> before = volumeKeys();
    for (const Case& c : cases) {
        c.before();
        VoOut out = startMove(c.vid, "lp1a", c.dst);
        expectTriple(out, c.rc, c.func, c.funcrc, c.what);
        // Only the record the case itself planted is left; no volume was made.
        for (const json& r : vodbRecords())
            sim({"vodb-delete", std::to_string(r["opid"].get<uint64_t>())});
        EXPECT_EQ(before, volumeKeys()) << c.what;
    }
    EXPECT_TRUE(waitVodbEmpty(5));
    expectVldbAgreesWithDblades();
}

// ---- cancel

TEST_F(MoveTest, CancelDuringARegularPassRollsBackAndLeavesTheSourceWritable) {
    const uint32_t vid = filled("mv.cancel", "lp1a", 40, 64 * 1024);
    const std::string sum = checksum(vid, "lp1a");
    speed(128);
    expectTriple(startMove(vid, "lp1a", "lp2a"), 0, 0, 0, "start");
    ASSERT_TRUE(waitForMove(
        vid, "lp1a", [](const VoMovePgrsOut& r) { return r.rc == 0 && r.src.vnodesProcessed > 0; },
        30));
    expectTriple(moveControl(vomovecancel_1, vid, "lp1a", "vomovecancel"), 0, 0, 0, "cancel");
    speed(0);
    ASSERT_TRUE(waitVodbEmpty(60));
    expectSettled({{"lp1a", vid}});
    EXPECT_EQ(sum, checksum(vid, "lp1a"));
    // Writable: the source takes a change.
    sim({"vol-write", std::to_string(vid), "lp1a", "after-cancel", "--text", "x"});
    EXPECT_NE(sum, checksum(vid, "lp1a"));
}

}  // namespace
}  // namespace vodtest

// ---- vod killed at each step boundary of a move

namespace vodtest {
namespace {

class MoveCrash;

// Every call a crash point may leave held; dropped unanswered once vod is
// dead, as if it never arrived, unless the point lets the D-blade go on.
const char* const kMoveHeldProcs[] = {
    "volclone",          "vodb_update_optype_by_opid", "vodb_create",
    "voldelete",         "incrcopymove.stop",          "incrcopymove.stream",
    "incrcopymove.swap", "incrcopymove.vldb",          "incrcopymove.notify"};

struct MoveCrashPoint {
    const char* name;
    bool local;  // lp1a -> lp1b on one D-blade, else lp1a -> lp2a
    // Starts the move and runs it up to the point where vod is to die.
    void (*reach)(MoveCrash& t);
    // A step of the D-blade's final move held at that point, which the
    // D-blade then carries out to its end while vod is down; null: every
    // held call is dropped, the D-blade's own steps as a D-blade that died.
    const char* dbladeGoesOn;
    // The D-blade also restarts while vod is down and forgets its streams.
    bool dbladeRestarts;
    bool rollsForward;  // the volume ends on the target LP
};

class MoveCrash : public MoveTest, public ::testing::WithParamInterface<MoveCrashPoint> {
  public:
    uint32_t src = 0;
    std::string dst;

    void holdThenStart(const char* proc) {
        hold(proc);
        expectTriple(startMove(src, "lp1a", dst), 0, 0, 0, "start");
        ASSERT_TRUE(waitHeld(proc, 60)) << "vod never called " << proc;
    }
    void midPass() {
        speed(128);
        expectTriple(startMove(src, "lp1a", dst), 0, 0, 0, "start");
        ASSERT_TRUE(waitForMove(
            src, "lp1a",
            [](const VoMovePgrsOut& r) { return r.rc == 0 && r.src.vnodesProcessed > 0; }, 30))
            << "the first pass never streamed";
    }
    uint64_t opid() {
        for (const auto& rec : vodbRecords()) return rec["opid"].get<uint64_t>();
        return 0;
    }
    bool streamDone(uint64_t id) {
        return pollUntil(
            [&] {
                Node::Result r = node.simctl({"stream-show", std::to_string(id)});
                return r.status != 0 || r.out.find("status=done") != std::string::npos;
            },
            60, 0.05);
    }
    bool restartSimulator() { return node.restartSim(); }
};

void PrintTo(const MoveCrashPoint& p, std::ostream* os) { *os << p.name; }

const MoveCrashPoint kMovePoints[] = {
    {"AfterTheRecordsWereWritten", false, [](MoveCrash& t) { t.holdThenStart("volclone"); },
     nullptr, false, false},
    // The D-blade finishes the pass while vod is down: the next vod goes on
    // with the next pass and completes the move.
    {"MidPassWhileTheStreamRunsOn", false, [](MoveCrash& t) { t.midPass(); }, nullptr, false, true},
    {"MidPassAndTheDbladeForgotTheStream", false, [](MoveCrash& t) { t.midPass(); }, nullptr, true,
     false},
    {"BetweenPasses", false, [](MoveCrash& t) { t.holdThenStart("vodb_update_optype_by_opid"); },
     nullptr, false, true},
    // Recorded as a final move whose op src is not recorded yet.
    {"AtTheSwitchToTheFinalMove", false, [](MoveCrash& t) { t.holdThenStart("vodb_create"); },
     nullptr, false, false},
    {"InTheFinalMoveBeforeTheSwapAndTheDbladeDied", false,
     [](MoveCrash& t) { t.holdThenStart("incrcopymove.swap"); }, nullptr, false, false},
    {"InTheFinalMoveBeforeTheSwapAndTheDbladeWentOn", false,
     [](MoveCrash& t) { t.holdThenStart("incrcopymove.swap"); }, "incrcopymove.swap", false, true},
    // Another D-blade holds the volume's id, the VLDB does not point there.
    {"AfterTheSwapBeforeTheVldbSwitchAndTheDbladeDied", false,
     [](MoveCrash& t) { t.holdThenStart("incrcopymove.vldb"); }, nullptr, false, false},
    // One D-blade: the old source has its temp id, the target holds the volume.
    {"LocalAfterTheSwapBeforeTheVldbSwitchAndTheDbladeDied", true,
     [](MoveCrash& t) { t.holdThenStart("incrcopymove.vldb"); }, nullptr, false, true},
    {"LocalBeforeTheSwapAndTheDbladeDied", true,
     [](MoveCrash& t) { t.holdThenStart("incrcopymove.swap"); }, nullptr, false, false},
    {"AfterTheVldbSwitch", false, [](MoveCrash& t) { t.holdThenStart("incrcopymove.notify"); },
     nullptr, false, true},
    {"MidCleanUp", false, [](MoveCrash& t) { t.holdThenStart("voldelete"); }, nullptr, false, true},
    {"LocalMidCleanUp", true, [](MoveCrash& t) { t.holdThenStart("voldelete"); }, nullptr, false,
     true},
};

TEST_P(MoveCrash, TheVolumeEndsWholeInExactlyOnePlace) {
    const MoveCrashPoint& point = GetParam();
    dst = point.local ? "lp1b" : "lp2a";
    src = filled("crashmove", "lp1a", 16, 64 * 1024);
    const std::string sum = checksum(src, "lp1a");
    const json srcRecord = vldbRecord(src, "lp1a");
    std::set<VolumeKey> others = volumeKeys();
    others.erase({"lp1a", src});

    point.reach(*this);
    ASSERT_FALSE(HasFatalFailure());
    const uint64_t id = opid();
    ASSERT_NE(id, 0u) << "the move has no VODB records at this point:\n" << sim({"vodb"});

    killVod();
    if (point.dbladeGoesOn != nullptr) {
        EXPECT_TRUE(release(point.dbladeGoesOn));
        EXPECT_TRUE(streamDone(id)) << "the D-blade's final move did not finish";
    }
    for (const char* proc : kMoveHeldProcs) release(proc, /*drop=*/true);
    sim({"fault", "clear"});
    if (point.dbladeRestarts) {
        // Before the stream may speed up: the op sink must stay half-written.
        EXPECT_TRUE(restartSimulator()) << "the simulator did not come back";
    } else if (std::string(point.name).rfind("MidPass", 0) == 0) {
        speed(0);
        EXPECT_TRUE(streamDone(id)) << "the pass did not finish";
    }
    speed(0);
    restartVod();

    EXPECT_TRUE(waitVodbEmpty(120)) << "recovery did not finish:\n" << sim({"vodb"});
    std::set<VolumeKey> want = others;
    const std::string home = point.rollsForward ? dst : "lp1a";
    want.insert({home, src});
    expectSettled(want);  // one volume, no clone, op sink, temp or record left
    EXPECT_EQ(sum, checksum(src, home)) << "the volume's contents changed";
    EXPECT_FALSE(vldbRecord(src, home).is_null());
    if (!point.rollsForward) {
        EXPECT_EQ(srcRecord, vldbRecord(src, "lp1a")) << "the source's VLDB record changed";
        // Writable again: no final move keeps it stopped.
        sim({"vol-write", std::to_string(src), "lp1a", "after", "--text", "x"});
        EXPECT_NE(sum, checksum(src, "lp1a"));
    }
}

INSTANTIATE_TEST_SUITE_P(KilledAt, MoveCrash, ::testing::ValuesIn(kMovePoints),
                         [](const ::testing::TestParamInfo<MoveCrashPoint>& p) {
                             return std::string(p.param.name);
                         });

}  // namespace
}  // namespace vodtest
