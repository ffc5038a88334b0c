// vod killed with SIGKILL at each step boundary of a copy, then started again.
// The simulator holds the remote call that comes next, so vod dies exactly
// there; the held call is then dropped unanswered, as if it never arrived.
// After recovery the copy is either complete and committed (when the sink is
// provably complete) or gone without a trace, and the source is untouched.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "cluster_fixture.h"
#include "voctl/copy_report.h"

namespace vodtest {
namespace {

using nlohmann::json;

// Every call a crash point may leave held.
const char* const kHeldProcs[] = {"volclone",           "vldb_create_record", "volgetattr",
                                  "volcreate",          "vldb_record_lookup", "incrcopymirror",
                                  "volsetattr",         "incrcopyconclude",   "voldelete",
                                  "vldb_delete_record", "vodb_delete_by_opid"};

class CopyCrash;

struct CrashPoint {
    const char* name;
    // Starts the copy and runs it up to the point where vod is to die.
    void (*reach)(CopyCrash& t, CopyKey* key);
    // What happens on the node while vod is down; may be null.
    void (*whileDown)(CopyCrash& t, const CopyKey& key, uint64_t opid);
    bool rollsForward;
};

class CopyCrash : public ClusterTest, public ::testing::WithParamInterface<CrashPoint> {
  public:
    // For the crash points' own steps.
    using ClusterTest::cancel;
    using ClusterTest::hold;
    using ClusterTest::speed;
    using ClusterTest::waitAnyHeld;
    using ClusterTest::waitHeld;
    bool restartSimulator() { return node.restartSim(); }

    uint32_t src = 0;

    void start(CopyKey* key) { *key = copyOf(src, "lp1a", "lp2a", "crashcopy"); }

    void holdThenStart(const char* proc, CopyKey* key) {
        hold(proc);
        start(key);
        ASSERT_TRUE(waitHeld(proc, 60)) << "vod never called " << proc;
    }

    void streamSlowly(CopyKey* key) { startSlowCopy(src, "lp1a", "lp2a", "crashcopy", key); }

    void finishStream(uint64_t opid) {
        speed(0);
        EXPECT_TRUE(pollUntil(
            [&] {
                Node::Result r = node.simctl({"stream-show", std::to_string(opid)});
                return r.status == 0 && r.out.find("status=done") != std::string::npos;
            },
            60, 0.05))
            << "the D-blade's stream did not finish";
    }

    // Steps through the copy's set-up one remote call at a time up to proc.
    void stepTo(const std::vector<const char*>& procs, CopyKey* key) {
        holdThenStart("volclone", key);
        for (const char* p : procs) ASSERT_TRUE(advanceTo(p)) << "vod never called " << p;
    }
};

// Test output names the point, not the bytes of its record.
void PrintTo(const CrashPoint& p, std::ostream* os) { *os << p.name; }

const CrashPoint kPoints[] = {
    {"AfterTheVodbRecordsWereWritten",
     [](CopyCrash& t, CopyKey* k) { t.holdThenStart("volclone", k); }, nullptr, false},
    {"AfterTheCloneWasMade", [](CopyCrash& t, CopyKey* k) { t.stepTo({"vldb_create_record"}, k); },
     nullptr, false},
    {"AfterTheSinkVolumeWasCreated",
     [](CopyCrash& t, CopyKey* k) {
         t.stepTo({"volcreate", "vldb_record_lookup"}, k);
     },
     nullptr, false},
    {"AfterTheSinkWasRegisteredBeforeTheStream",
     [](CopyCrash& t, CopyKey* k) { t.stepTo({"incrcopymirror"}, k); }, nullptr, false},
    // The D-blade streams on while vod is down and completes the sink.
    {"MidStreamWhileTheStreamRunsOn", [](CopyCrash& t, CopyKey* k) { t.streamSlowly(k); },
     [](CopyCrash& t, const CopyKey&, uint64_t opid) { t.finishStream(opid); }, true},
    // The D-blade restarts too and forgets the stream: the sink stays half-written.
    {"MidStreamAndTheDbladeForgotTheStream", [](CopyCrash& t, CopyKey* k) { t.streamSlowly(k); },
     [](CopyCrash& t, const CopyKey&, uint64_t) {
         EXPECT_TRUE(t.restartSimulator()) << "the simulator did not come back";
     },
     false},
    {"AfterTheStreamEndedBeforeConclusion",
     [](CopyCrash& t, CopyKey* k) {
         t.hold("volsetattr");
         t.hold("incrcopyconclude");
         t.start(k);
         EXPECT_NE(t.waitAnyHeld({"volsetattr", "incrcopyconclude"}, 60), "")
             << "vod never began to conclude";
     },
     nullptr, true},
    {"MidCleanUpBeforeTheCloneWasDeleted",
     [](CopyCrash& t, CopyKey* k) { t.holdThenStart("voldelete", k); }, nullptr, true},
    {"MidCleanUpAfterTheCloneWasDeleted",
     [](CopyCrash& t, CopyKey* k) { t.holdThenStart("vldb_delete_record", k); }, nullptr, true},
    {"AfterTheCommitBeforeTheRecordsWereRemoved",
     [](CopyCrash& t, CopyKey* k) { t.holdThenStart("vodb_delete_by_opid", k); }, nullptr, true},
    // Cancelled: the sink's volume is gone, its VLDB record not yet.
    {"MidRollBackAfterTheSinkWasDeleted",
     [](CopyCrash& t, CopyKey* k) {
         t.streamSlowly(k);
         if (::testing::Test::HasFatalFailure()) return;
         t.hold("vldb_delete_record");
         EXPECT_EQ(t.cancel(*k).rc, voErrRcSuccess);
         EXPECT_TRUE(t.waitHeld("vldb_delete_record", 60))
             << "the roll-back never reached the VLDB";
     },
     [](CopyCrash& t, const CopyKey&, uint64_t) { t.speed(0); }, false},
};

TEST_P(CopyCrash, RecoveryCompletesOrUndoesTheCopy) {
    const CrashPoint& point = GetParam();
    src = makeVolume("crashsource", "lp1a", 16, 64 * 1024);
    ASSERT_NE(src, 0u);
    const std::string srcSum = checksum(src, "lp1a");
    const json srcRecord = vldbRecord(src, "lp1a");
    std::set<VolumeKey> before = volumeKeys();

    CopyKey key;
    point.reach(*this, &key);
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_NE(key.sinkVid, 0u);
    uint64_t opid = 0;
    for (const auto& rec : vodbRecords())
        if (rec["optype"] == 1) opid = rec["opid"].get<uint64_t>();
    ASSERT_NE(opid, 0u) << "the copy has no VODB records at this point:\n" << sim({"vodb"});

    killVod();
    for (const char* proc : kHeldProcs) release(proc, /*drop=*/true);
    sim({"fault", "clear"});
    if (point.whileDown != nullptr) point.whileDown(*this, key, opid);
    restartVod();

    EXPECT_TRUE(waitVodbEmpty(90)) << "recovery did not finish:\n" << sim({"vodb"});
    std::string decision = "opid=" + std::to_string(opid) + " _rollForward = ";
    EXPECT_TRUE(node.waitForTrace(decision + (point.rollsForward ? "1" : "0"), 5))
        << "expected the recovery to roll " << (point.rollsForward ? "forward" : "back");

    if (point.rollsForward) {
        EXPECT_EQ(checksum(key.sinkVid, "lp2a"), srcSum) << "the committed copy differs";
        EXPECT_FALSE(vldbRecord(key.sinkVid, "lp2a").is_null());
        before.insert({"lp2a", key.sinkVid});
    }
    expectSettled(before);  // no sink, no clone, no record left over
    EXPECT_EQ(checksum(src, "lp1a"), srcSum) << "the source changed";
    EXPECT_EQ(vldbRecord(src, "lp1a"), srcRecord) << "the source's VLDB record changed";
}

INSTANTIATE_TEST_SUITE_P(KilledAt, CopyCrash, ::testing::ValuesIn(kPoints),
                         [](const ::testing::TestParamInfo<CrashPoint>& p) {
                             return std::string(p.param.name);
                         });

// The tool waiting on a copy rides out a restart of vod: it reconnects, and
// when the rebuilt copy can no longer show stream counters it learns the
// outcome from whether the sink is registered.
TEST_F(CopyNodeTest, VoctlFollowsACopyAcrossARestartOfVod) {
    uint32_t src = makeVolume("survivor", "lp1a", 16, 64 * 1024);
    ASSERT_NE(src, 0u);
    const std::string srcSum = checksum(src, "lp1a");
    std::set<VolumeKey> before = volumeKeys();
    speed(128);

    RunResult tool;
    std::thread waiter([&] {
        tool = runProgram(voctlBinary(),
                          {"--json", "copy", std::to_string(src), "lp1a", "lp2b", "survivorcopy",
                           "--interval", "0.1"},
                          240);
    });
    uint64_t opid = 0;
    uint32_t sink = 0;
    bool streaming = pollUntil(
        [&] {
            for (const auto& rec : vodbRecords()) {
                opid = rec["opid"].get<uint64_t>();
                if (rec["role"] == 2) sink = rec["vfsid"].get<uint32_t>();
            }
            if (opid == 0) return false;
            Node::Result r = node.simctl({"stream-show", std::to_string(opid)});
            return r.status == 0 && r.out.find("vnodes=0/") == std::string::npos;
        },
        30, 0.05);
    EXPECT_TRUE(streaming) << "the copy did not start streaming";

    killVod();
    speed(0);
    pollUntil(
        [&] {
            return node.simctl({"stream-show", std::to_string(opid)}).out.find("status=done") !=
                   std::string::npos;
        },
        60, 0.05);
    restartVod();
    waiter.join();

    EXPECT_EQ(tool.status, 0) << tool.out << tool.err;
    std::string lastLine = tool.out.substr(tool.out.rfind('\n', tool.out.size() - 2) + 1);
    json fin = json::parse(lastLine);
    EXPECT_EQ(fin["event"], "final");
    EXPECT_EQ(fin["outcome"], "copied") << fin;
    EXPECT_EQ(fin["copy"]["sinkVfsid"], sink);
    ASSERT_TRUE(waitVodbEmpty(30));
    EXPECT_EQ(checksum(sink, "lp2b"), srcSum);
    before.insert({"lp2b", sink});
    expectSettled(before);
}

}  // namespace
}  // namespace vodtest
