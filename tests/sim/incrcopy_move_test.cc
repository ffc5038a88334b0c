// The simulated D-blade's final pass of a move: the sink takes over the source's id (remote
// and local), a failing step rolls back, a dropped step forgets the stream, held and paused
// steps, refused requests, the stopped window in move-stats, and writers.

#include <algorithm>
#include <chrono>
#include <functional>
#include <regex>
#include <sstream>
#include <thread>

#include "dblade_fixture.h"
#include "fake_vod.h"

using namespace dbladetest;

namespace {

constexpr unsigned kSrc = 100, kSink = 200, kTmp = 300, kClone = 101;
constexpr uint64_t kPassOp = 1, kMoveOp = 2;

// Where the volume goes: another D-blade's LP, or another LP of the source's D-blade.
struct Target {
    const char* what;
    const unsigned char* lp;
    const char* lpName;
    unsigned short did;
    bool local;
};
void PrintTo(const Target& t, std::ostream* os) { *os << t.what; }
const Target kRemote{"remote", kLp2a, "lp2a", 2, false};
const Target kLocal{"local", kLp1b, "lp1b", 1, true};

class IncrCopyMoveTest : public DbladeTest {
  protected:
    // What the last regular pass leaves: the source on lp1a with its VLDB record, the op
    // sink on the target LP at the pass's clone, and then new changes to the source (one
    // file rewritten, one added, one removed) for the final pass to carry.
    void afterRegularPass(const Target& t) {
        ASSERT_EQ(create(kLp1a, kSrc, "src"), 0u);
        fill(kSrc, "lp1a", 12, 5000);
        ctl({"vldb-add", "100", "lp1a", "src"});
        ASSERT_EQ(create(t.lp, kSink, "sink"), 0u);
        ctl({"vldb-add", "200", t.lpName, "sink"});
        ASSERT_EQ(clone(kLp1a, kSrc, kClone), 0u);
        ASSERT_EQ(mirror(kPassOp, kLp1a, kClone, {{t.did, kSink, t.lp}}), 0u);
        waitDone(kPassOp);
        ASSERT_EQ(conclude(kPassOp), 0u);
        write(kSrc, "lp1a", "fill/00002", 7000);
        write(kSrc, "lp1a", "late", 100);
        ctl({"vol-rm", "100", "lp1a", "fill/00005"});
        sourceSum = checksum(kSrc, "lp1a");
        sourceDv = attrs(kLp1a, kSrc).dataVersion;
        vldbBefore = ctl({"vldb"});
    }

    static IncrCopyMoveIn request(uint64_t opId, const Target& t) {
        IncrCopyMoveIn in{};
        in.opId = opId;
        in.opType = 4;
        in.srcVfsId = kSrc;
        memcpy(in.srcLpUuid, kLp1a, 16);
        in.tmpVfsIdForSwap = t.local ? kTmp : 0;
        in.dstVfsId = kSink;
        memcpy(in.dstLpUuid, t.lp, 16);
        in.dstBladeId = t.did;
        return in;
    }

    unsigned move(IncrCopyMoveIn in) {
        u_int st = ~0u;
        EXPECT_EQ(incrcopymove_1(&in, &st, icp), RPC_SUCCESS);
        return st;
    }
    unsigned move(const Target& t) { return move(request(kMoveOp, t)); }

    // A file change through the control tool; false when the volume refuses it.
    bool writable(unsigned vfsid, const std::string& lp) {
        return sim->ctl({"vol-write", std::to_string(vfsid), lp, "probe", "--text", "x"}).status ==
               0;
    }

    // (LP name, data version) of each VLDB record of the id.
    std::vector<std::pair<std::string, uint64_t>> vldbRecords(unsigned vfsid) {
        std::istringstream lines(ctl({"vldb", std::to_string(vfsid)}));
        std::string line;
        std::getline(lines, line);  // the heading
        std::vector<std::pair<std::string, uint64_t>> out;
        while (std::getline(lines, line)) {
            std::istringstream f(line);
            std::string id, lp, lpid, type;
            uint64_t dv = 0;
            f >> id >> lp >> lpid >> type >> dv;
            out.emplace_back(lp, dv);
        }
        return out;
    }

    // The volume is under the source's id on the target LP with the source's contents and
    // data version, as an ordinary read-write volume, and the VLDB says so.
    void expectMoved(const Target& t) {
        EXPECT_EQ(checksum(kSrc, t.lpName), sourceSum);
        Attrs moved = attrs(t.lp, kSrc);
        EXPECT_EQ(moved.dataVersion, sourceDv);
        EXPECT_EQ(moved.flags & (VOLFLAG_RW | VOLFLAG_RO), unsigned{VOLFLAG_RW});
        EXPECT_EQ(moved.name, "src");
        EXPECT_EQ(getattr(t.lp, kSink), unsigned{TARN_ERR_VOLNOTFOUND});
        using Rec = std::pair<std::string, uint64_t>;
        EXPECT_EQ(vldbRecords(kSrc), (std::vector<Rec>{{t.lpName, sourceDv}}));
    }

    // Nothing changed but the sink's contents: the source is where it was and takes
    // writes, the sink keeps its own id, the VLDB is as before.
    void expectRolledBack(const Target& t) {
        EXPECT_EQ(checksum(kSrc, "lp1a"), sourceSum);
        EXPECT_EQ(attrs(kLp1a, kSrc).dataVersion, sourceDv);
        EXPECT_EQ(getattr(t.lp, kSink), 0u);
        EXPECT_NE(getattr(t.lp, kSrc), 0u);
        EXPECT_EQ(getattr(kLp1a, kTmp), unsigned{TARN_ERR_VOLNOTFOUND});
        EXPECT_EQ(ctl({"vldb"}), vldbBefore);
        EXPECT_TRUE(writable(kSrc, "lp1a"));
    }

    std::string sourceSum, vldbBefore;
    uint64_t sourceDv = 0;
};

// ---- the move itself, remote and local -----------------------------------------------------

class FinalMoveTest : public IncrCopyMoveTest, public ::testing::WithParamInterface<Target> {};

TEST_P(FinalMoveTest, TheSinkTakesOverTheSourceAndTheVldbFollows) {
    const Target& t = GetParam();
    afterRegularPass(t);
    FakeVod vod;
    ASSERT_TRUE(vod.start());
    ASSERT_EQ(move(t), 0u);
    Pgrs p = waitDone(kMoveOp);

    EXPECT_EQ(p.code, 0u);
    EXPECT_EQ(p.vnodesTotal, 3u);  // only what changed since the sink's data version
    ASSERT_EQ(p.dests.size(), 1u);
    EXPECT_EQ(p.dests[0].isDone, 1u);
    EXPECT_EQ(p.dests[0].completionCode, 0u);
    EXPECT_EQ(p.dests[0].vfsId, kSink);
    EXPECT_EQ(memcmp(p.dests[0].uuid, t.lp, 16), 0);
    EXPECT_TRUE(simtest::pollUntil([] { return FakeVod::received(kMoveOp); }, 10));
    expectMoved(t);

    // The old source: the source id on lp1a, or the spare id for a local move; it keeps
    // its contents and refuses changes, also once the stream is concluded.
    unsigned old = t.local ? kTmp : kSrc;
    EXPECT_EQ(checksum(old, "lp1a"), sourceSum);
    if (t.local) {
        EXPECT_EQ(getattr(kLp1a, kSrc), unsigned{TARN_ERR_LPMMISMATCH});
    }
    EXPECT_EQ(attrs(kLp1a, kClone).upstream, old);
    ASSERT_EQ(conclude(kMoveOp), 0u);
    EXPECT_FALSE(writable(old, "lp1a"));
    EXPECT_TRUE(writable(kSrc, t.lpName));
    EXPECT_EQ(remove(kLp1a, old), 0u);
}

INSTANTIATE_TEST_SUITE_P(Targets, FinalMoveTest, ::testing::Values(kRemote, kLocal),
                         [](const ::testing::TestParamInfo<Target>& p) {
                             return std::string(p.param.what);
                         });

// ---- failures ------------------------------------------------------------------------------

struct FailCase {
    const char* name;
    Target target;
    std::vector<std::string> setup;  // a vodsimctl command run before the move
    unsigned code;
    bool stands;  // the failure came after the VLDB switch: the move is not undone
};

void PrintTo(const FailCase& c, std::ostream* os) { *os << c.name; }

class FailedMoveTest : public IncrCopyMoveTest, public ::testing::WithParamInterface<FailCase> {};

TEST_P(FailedMoveTest, RollsBackUnlessTheVldbAlreadyFollowed) {
    const FailCase& c = GetParam();
    afterRegularPass(c.target);
    ctl(c.setup);
    if (c.setup[0] != "fault") vldbBefore = ctl({"vldb"});
    FakeVod vod;
    ASSERT_TRUE(vod.start());
    ASSERT_EQ(move(c.target), 0u);
    Pgrs p = waitDone(kMoveOp);
    EXPECT_EQ(p.code, c.code);
    ASSERT_EQ(p.dests.size(), 1u);
    EXPECT_EQ(p.dests[0].isDone, 1u);
    EXPECT_EQ(p.dests[0].completionCode, c.code);
    EXPECT_TRUE(simtest::pollUntil([] { return FakeVod::received(kMoveOp); }, 10));
    if (c.stands) {
        expectMoved(c.target);
        EXPECT_FALSE(writable(c.target.local ? kTmp : kSrc, "lp1a"));
    } else {
        expectRolledBack(c.target);
    }
    EXPECT_EQ(conclude(kMoveOp), 0u);
}

const FailCase kFailCases[] = {
    {"StopFails", kRemote, {"fault", "status", "incrcopymove.stop", "20025"}, VIC_EIO, false},
    {"StreamFails", kLocal, {"fault", "status", "incrcopymove.stream", "20025"}, VIC_EIO, false},
    {"SwapFails", kLocal, {"fault", "status", "incrcopymove.swap", "20030"}, VIC_EVOLBUSY, false},
    {"VldbFailsAfterTheRemoteSwap",
     kRemote,
     {"fault", "status", "incrcopymove.vldb", "20025"},
     VIC_EIO,
     false},
    {"VldbFailsAfterTheLocalSwap",
     kLocal,
     {"fault", "status", "incrcopymove.vldb", "20025"},
     VIC_EIO,
     false},
    {"TheSourceHasNoVldbRecord", kRemote, {"vldb-delete", "100", "lp1a"}, VIC_EVLDBNOTIFY, false},
    {"NotifyFails", kRemote, {"fault", "status", "incrcopymove.notify", "20025"}, VIC_EIO, true},
};

INSTANTIATE_TEST_SUITE_P(Steps, FailedMoveTest, ::testing::ValuesIn(kFailCases),
                         [](const ::testing::TestParamInfo<FailCase>& p) {
                             return std::string(p.param.name);
                         });

TEST_F(IncrCopyMoveTest, CancellingTheSinkBeforeTheSendRollsBack) {
    afterRegularPass(kRemote);
    ctl({"fault", "hold", "incrcopymove.stream"});
    ASSERT_EQ(move(kRemote), 0u);
    ctl({"fault", "wait-held", "incrcopymove.stream"});
    EXPECT_FALSE(writable(kSrc, "lp1a"));
    ASSERT_EQ(cancel(kMoveOp, kSink, kLp2a), 0u);
    ctl({"fault", "release", "incrcopymove.stream"});
    Pgrs p = waitDone(kMoveOp);
    EXPECT_EQ(p.code, unsigned{VIC_ECANCELLED});
    EXPECT_EQ(p.dests.at(0).completionCode, unsigned{VIC_ECANCELLED});
    expectRolledBack(kRemote);
}

// ---- a D-blade that dies at a step ---------------------------------------------------------

struct DropCase {
    const char* name;
    Target target;
    const char* point;
    bool viaHold;  // held first, then released with drop
    bool swapped;  // the swap had happened
};

void PrintTo(const DropCase& c, std::ostream* os) { *os << c.name; }

class DroppedMoveTest : public IncrCopyMoveTest, public ::testing::WithParamInterface<DropCase> {};

// The stream and the stop go with the D-blade's memory; the volumes stay as the step found
// them and vod is not told.
TEST_P(DroppedMoveTest, ForgetsTheStreamAndReleasesOnlyTheStop) {
    const DropCase& c = GetParam();
    afterRegularPass(c.target);
    FakeVod vod;
    ASSERT_TRUE(vod.start());
    ctl({"fault", c.viaHold ? "hold" : "drop", c.point});
    ASSERT_EQ(move(c.target), 0u);
    if (c.viaHold) {
        ctl({"fault", "wait-held", c.point});
        ctl({"fault", "release", c.point, "drop"});
    }
    ASSERT_TRUE(simtest::pollUntil([&] { return progress(kMoveOp).rc == VIC_EOPNOTFOUND; }, 10));
    EXPECT_EQ(conclude(kMoveOp), unsigned{VIC_EOPNOTFOUND});
    EXPECT_EQ(ctl({"vldb"}), vldbBefore);
    unsigned old = c.target.local ? kTmp : kSrc;
    if (c.swapped) {
        EXPECT_EQ(checksum(kSrc, c.target.lpName), sourceSum);
        EXPECT_EQ(getattr(c.target.lp, kSink), unsigned{TARN_ERR_VOLNOTFOUND});
        EXPECT_EQ(checksum(old, "lp1a"), sourceSum);
        EXPECT_TRUE(writable(old, "lp1a"));
    } else {
        EXPECT_EQ(getattr(c.target.lp, kSink), 0u);
        EXPECT_TRUE(writable(kSrc, "lp1a"));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // a notice would be here by now
    EXPECT_FALSE(FakeVod::received(kMoveOp));
    EXPECT_NE(ctl({"move-stats"}).find("result=dropped"), std::string::npos);
}

const DropCase kDropCases[] = {
    {"BeforeTheStream", kRemote, "incrcopymove.stream", true, false},
    {"BeforeTheSwap", kRemote, "incrcopymove.swap", false, false},
    {"AfterTheLocalSwap", kLocal, "incrcopymove.vldb", false, true},
    {"AfterTheRemoteSwap", kRemote, "incrcopymove.vldb", true, true},
};

INSTANTIATE_TEST_SUITE_P(Steps, DroppedMoveTest, ::testing::ValuesIn(kDropCases),
                         [](const ::testing::TestParamInfo<DropCase>& p) {
                             return std::string(p.param.name);
                         });

// ---- held and paused steps, the stopped window, writers ------------------------------------

double stoppedMs(const std::string& stats) {
    std::smatch m;
    return std::regex_search(stats, m, std::regex("stopped-ms=([0-9.]+)")) ? std::stod(m[1]) : -1;
}

uint64_t writerCount(const std::string& list, const std::string& field) {
    std::smatch m;
    return std::regex_search(list, m, std::regex(field + "=([0-9]+)")) ? std::stoull(m[1]) : 0;
}

TEST_F(IncrCopyMoveTest, AHeldSwapKeepsTheSourceStoppedAndPauseHoldsTheSteps) {
    afterRegularPass(kRemote);
    ctl({"writer", "start", "100", "lp1a", "100", "--files", "4"});
    ASSERT_TRUE(simtest::pollUntil(
        [&] {
            return writerCount(ctl({"writer", "list"}), "changes") > 0;
        },
        10));
    ctl({"fault", "hold", "incrcopymove.swap"});
    ASSERT_EQ(move(kRemote), 0u);
    ctl({"fault", "wait-held", "incrcopymove.swap"});
    auto held = std::chrono::steady_clock::now();

    // Stopped: every change is refused, and the sink already holds the source's image.
    ASSERT_TRUE(simtest::pollUntil(
        [&] {
            return writerCount(ctl({"writer", "list"}), "refused") >= 3;
        },
        10));
    std::string stopped = ctl({"writer", "list"});
    sourceSum = checksum(kSrc, "lp1a");
    sourceDv = attrs(kLp1a, kSrc).dataVersion;
    EXPECT_EQ(checksum(kSink, "lp2a"), sourceSum);
    EXPECT_EQ(progress(kMoveOp).status, unsigned{IncrCopyRunning});
    EXPECT_NE(ctl({"move-stats"}).find("swapped-at=- "), std::string::npos);

    // A pause taken while the swap is held lets the swap finish and holds the next step.
    ASSERT_EQ(pause(kMoveOp), 0u);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    double window =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - held).count();
    ctl({"fault", "release", "incrcopymove.swap"});
    ASSERT_TRUE(simtest::pollUntil([&] { return getattr(kLp2a, kSrc) == 0; }, 10));
    EXPECT_EQ(progress(kMoveOp).status, unsigned{IncrCopyPaused});
    EXPECT_EQ(vldbRecords(kSrc).at(0).first, "lp1a");
    ASSERT_EQ(resume(kMoveOp), 0u);
    EXPECT_EQ(waitDone(kMoveOp).code, 0u);
    expectMoved(kRemote);

    std::string stats = ctl({"move-stats"});
    EXPECT_NE(stats.find("opid=2 vfsid=100 local=0"), std::string::npos) << stats;
    EXPECT_NE(stats.find("result=done"), std::string::npos) << stats;
    EXPECT_GE(stoppedMs(stats), window);
    EXPECT_LT(stoppedMs(stats), window + 10000);
    EXPECT_NE(ctl({"move-stats", "--json"}).find("\"swappedAt\":\"20"), std::string::npos);
    ctl({"move-stats", "reset"});
    EXPECT_EQ(ctl({"move-stats", "--json"}), "[]\n");

    // The writer still aims at the old source, which goes on refusing.
    std::string done = ctl({"writer", "stop", "100", "lp1a"});
    EXPECT_EQ(writerCount(done, "changes"), writerCount(stopped, "changes"));
    EXPECT_GT(writerCount(done, "refused"), writerCount(stopped, "refused"));
    EXPECT_EQ(ctl({"writer", "list"}), "");
}

TEST_F(IncrCopyMoveTest, RefusedRequestsStartNothing) {
    afterRegularPass(kRemote);
    ASSERT_EQ(create(kLp1b, kSink, "local sink"), 0u);
    struct Refusal {
        const char* what;
        Target target;
        std::function<void(IncrCopyMoveIn&)> change;
        unsigned code;
    };
    const Refusal refusals[] = {
        {"not a final move", kRemote, [](IncrCopyMoveIn& in) { in.opType = 3; }, VIC_EINVAL},
        {"unknown source LP", kRemote, [](IncrCopyMoveIn& in) { in.srcLpUuid[0] = 9; },
         VIC_ELPNOTFOUND},
        {"no such source", kRemote, [](IncrCopyMoveIn& in) { in.srcVfsId = 555; },
         VIC_EVOLNOTFOUND},
        {"no such sink", kRemote, [](IncrCopyMoveIn& in) { in.dstVfsId = 556; }, VIC_EVOLNOTFOUND},
        {"target LP of another D-blade", kRemote, [](IncrCopyMoveIn& in) { in.dstBladeId = 1; },
         VIC_ELPMISMATCH},
        {"target is the source LP", kLocal,
         [](IncrCopyMoveIn& in) { memcpy(in.dstLpUuid, kLp1a, 16); }, VIC_EINVAL},
        {"local move without a spare id", kLocal,
         [](IncrCopyMoveIn& in) { in.tmpVfsIdForSwap = 0; }, VIC_EINVAL},
        {"spare id taken", kLocal, [](IncrCopyMoveIn& in) { in.tmpVfsIdForSwap = kClone; },
         VIC_EINVAL},
    };
    for (const Refusal& r : refusals) {
        IncrCopyMoveIn in = request(kMoveOp, r.target);
        r.change(in);
        EXPECT_EQ(move(in), r.code) << r.what;
        EXPECT_EQ(progress(kMoveOp).rc, unsigned{VIC_EOPNOTFOUND}) << r.what;
    }
    EXPECT_TRUE(writable(kSrc, "lp1a"));

    // One move at a time per id, and none from the stopped old source of another.
    ctl({"fault", "hold", "incrcopymove.stop"});
    ASSERT_EQ(move(kRemote), 0u);
    EXPECT_EQ(move(request(kMoveOp, kLocal)), unsigned{VIC_EOPIDINUSE});
    ctl({"fault", "release", "incrcopymove.stop"});
    EXPECT_EQ(waitDone(kMoveOp).code, 0u);
    EXPECT_EQ(move(request(kMoveOp + 1, kLocal)), unsigned{VIC_EVOLBUSY});
}

TEST_F(IncrCopyMoveTest, AWriterChangesFilesAtItsRate) {
    ASSERT_EQ(create(kLp1a, kSrc, "src"), 0u);
    ctl({"writer", "start", "100", "lp1a", "40", "--files", "3", "--bytes", "1000", "--dver-step",
         "10000"});
    ctl({"writer", "start", "100", "lp1a", "5"}, false);  // one writer per volume
    ctl({"writer", "start", "555", "lp1a", "5"}, false);
    auto start = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    std::string list = ctl({"writer", "list"});
    double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    uint64_t changes = writerCount(list, "changes");
    EXPECT_GT(changes, 40 * secs * 0.5) << list;
    EXPECT_LT(changes, 40 * secs * 1.5 + 2) << list;
    EXPECT_EQ(writerCount(list, "refused"), 0u);

    // Every change moved the data version by the step; three files took turns.
    std::string stop = ctl({"writer", "stop", "100", "lp1a"});
    uint64_t made = writerCount(stop, "changes");
    EXPECT_EQ(attrs(kLp1a, kSrc).dataVersion, made * 10000);
    std::string files = ctl({"vol-files", "100", "lp1a"});
    EXPECT_EQ(std::count(files.begin(), files.end(), '\n'), 3);
    EXPECT_NE(files.find("size=1000 writer/00002"), std::string::npos) << files;
    EXPECT_EQ(attrs(kLp1a, kSrc).dataVersion, made * 10000);  // nothing after the stop
    ctl({"writer", "stop", "100", "lp1a"}, false);
}

}  // namespace
