// Read-only mirrors end to end on a node with the simulated cluster: a
// source mirrored to LPs on both D-blades and on its own LP, refreshed after
// it changed, and the refusals, checked by what readers of the mirror id
// see: its contents and data version on every LP, one VLDB record per LP,
// and nothing left of the operation.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "cluster_fixture.h"
#include "util/xdrproc.h"
#include "voerrors.h"

namespace vodtest {
namespace {

using nlohmann::json;

constexpr uint32_t kMirrorBit = 0x40000000;

class MirrorTest : public ClusterTest {
  public:
    // A read-write volume of real files on lp1a.
    uint32_t source(const std::string& name) {
        uint32_t vid = makeVolume(name, "lp1a", 20, 16 * 1024);
        EXPECT_NE(0u, vid);
        return vid;
    }

    // What an administrator does before the first mirror on an LP: the
    // mirror id's VLDB record there, read-only, at data version 0.
    void addDestination(uint32_t src, const std::string& lp) {
        sim({"vldb-add", std::to_string(src | kMirrorBit), lp, "m" + std::to_string(src) + lp,
             "type", "ro"});
    }

    VoOut mirror(uint32_t src) {
        VoIn in{};
        in.vidSrc = src;
        lpBytes("lp1a", in.lidSrc);
        VoOut out{};
        EXPECT_EQ(RPC_SUCCESS, vomirror_1(&in, &out, vo()));
        return out;
    }

    uint64_t dvOf(uint32_t vid, const std::string& lp) {
        for (const DbladeVolume& v : volumes())
            if (v.lp == lp && v.vfsid == vid) return v.dv;
        return 0;
    }

    // Every destination holds the source's contents and data version under
    // the mirror id, its VLDB record says so, and nothing else was left.
    void expectMirrored(uint32_t src, const std::vector<std::string>& lps,
                        const std::set<VolumeKey>& others) {
        const uint32_t m = src | kMirrorBit;
        const std::string sum = checksum(src, "lp1a");
        const uint64_t dv = dvOf(src, "lp1a");
        std::set<VolumeKey> want = others;
        want.insert({"lp1a", src});
        for (const std::string& lp : lps) {
            SCOPED_TRACE(lp);
            want.insert({lp, m});
            EXPECT_EQ(sum, checksum(m, lp));
            EXPECT_EQ(dv, dvOf(m, lp));
            json rec = vldbRecord(m, lp);
            ASSERT_FALSE(rec.is_null());
            EXPECT_EQ(dv, rec["dataVer"].get<uint64_t>());
            EXPECT_EQ("ro", rec["typeName"]);
        }
        expectSettled(want);
    }
};

TEST_F(MirrorTest, AFirstMirrorToBothDbladesThenARefreshSwapsThemInPlace) {
    const uint32_t src = source("mir.a");
    std::set<VolumeKey> others = volumeKeys();
    others.erase({"lp1a", src});
    const std::vector<std::string> lps = {"lp1b", "lp2a", "lp2b"};
    for (const std::string& lp : lps) addDestination(src, lp);

    expectTriple(mirror(src), 0, 0, 0, "first mirror");
    ASSERT_TRUE(waitVodbEmpty(60));
    expectMirrored(src, lps, others);

    // The source changes; the refresh brings every mirror up to it.
    const std::string before = checksum(src | kMirrorBit, "lp2a");
    sim({"vol-write", std::to_string(src), "lp1a", "new.txt", "--text", "refreshed"});
    ASSERT_NE(before, checksum(src, "lp1a"));
    expectTriple(mirror(src), 0, 0, 0, "refresh");
    ASSERT_TRUE(waitVodbEmpty(60));
    expectMirrored(src, lps, others);
    // Each op sink was the old mirror cloned in place, swapped in at the end.
    const std::string trace = node.vodOutput();
    for (const char* step : {"made an upstream clone as the op sink", "swapVolId"}) {
        size_t n = 0;
        for (size_t at = trace.find(step); at != std::string::npos; at = trace.find(step, at + 1))
            n++;
        EXPECT_GE(n, lps.size()) << step;
    }

    // Nothing changed since: every mirror is up to date and the start is
    // refused as expected.
    expectTriple(mirror(src), voErrValidate, voErrVodValidate, VOD_ERR_UP_TO_DATE, "up to date");
    EXPECT_TRUE(node.waitForTrace("no mirror stream is eligible to start", 5));
    EXPECT_TRUE(waitVodbEmpty(5));
    expectMirrored(src, lps, others);
}

// Readers of the mirror id see the old mirror until its swap, the new one after.
TEST_F(MirrorTest, ReadersSeeTheOldMirrorUntilTheSwap) {
    const uint32_t src = source("mir.readers");
    addDestination(src, "lp2a");
    expectTriple(mirror(src), 0, 0, 0, "first mirror");
    ASSERT_TRUE(waitVodbEmpty(60));
    const std::string old = checksum(src | kMirrorBit, "lp2a");
    sim({"vol-write", std::to_string(src), "lp1a", "new.txt", "--text", "refreshed"});
    hold("volswapvolid");
    expectTriple(mirror(src), 0, 0, 0, "refresh");
    ASSERT_TRUE(waitHeld("volswapvolid", 60));
    EXPECT_EQ(old, checksum(src | kMirrorBit, "lp2a")) << "a reader saw the mirror change early";
    release("volswapvolid");
    ASSERT_TRUE(waitVodbEmpty(60));
    EXPECT_EQ(checksum(src, "lp1a"), checksum(src | kMirrorBit, "lp2a"));
}

// One destination's trouble stays its own: the others are mirrored.
TEST_F(MirrorTest, DestinationsUpToDateOffendingOrCancelledLeaveTheOthersToComplete) {
    const uint32_t src = source("mir.mixed");
    std::set<VolumeKey> others = volumeKeys();
    others.erase({"lp1a", src});
    const uint32_t m = src | kMirrorBit;

    // Up to date: lp2a already holds the source's version and is skipped
    // (5007) while the new lp2b is mirrored.
    addDestination(src, "lp2a");
    expectTriple(mirror(src), 0, 0, 0, "first mirror");
    ASSERT_TRUE(waitVodbEmpty(60));
    addDestination(src, "lp2b");
    expectTriple(mirror(src), 0, 0, 0, "one new destination");
    ASSERT_TRUE(waitVodbEmpty(60));
    EXPECT_TRUE(node.waitForTrace("skip up-to-date mirror", 5));
    expectMirrored(src, {"lp2a", "lp2b"}, others);

    // Offending: another operation records the mirror id on lp2b (5009); the
    // source changed, so lp2a is refreshed and lp2b left as it was.
    const std::string lp2bBefore = checksum(m, "lp2b");
    sim({"vol-write", std::to_string(src), "lp1a", "second.txt", "--text", "two"});
    uint64_t planted = addVodbRecord(0, "copy", m, "lp2b", "src");
    expectTriple(mirror(src), 0, 0, 0, "one offending destination");
    EXPECT_TRUE(node.waitForTrace("offending mirror at LP=", 10));
    ASSERT_TRUE(waitVodbCount(1, 60));
    sim({"vodb-delete", std::to_string(planted)});
    EXPECT_EQ(checksum(src, "lp1a"), checksum(m, "lp2a"));
    EXPECT_EQ(lp2bBefore, checksum(m, "lp2b"));

    // Cancelled: lp2b's stream is cancelled mid-way and rolled back; lp2a
    // completes.
    sim({"vol-fill", std::to_string(src), "lp1a", "--files", "40", "--size", "65536"});
    speed(256);
    expectTriple(mirror(src), 0, 0, 0, "refresh to cancel");
    ASSERT_TRUE(pollUntil(
        [&] {
            VoIn in{};
            in.vidSrc = src;
            lpBytes("lp1a", in.lidSrc);
            VoMirrorPgrsOut out{};
            bool going = vomirrorpgrs_1(&in, &out, vo()) == RPC_SUCCESS && out.rc == 0 &&
                         out.src.vnodesProcessed > 0;
            xdr_free(reinterpret_cast<xdrproc_t>(xdr_VoMirrorPgrsOut),
                     reinterpret_cast<char*>(&out));
            return going;
        },
        30));
    VoLidIn c{};
    c.vidSrc = src;
    lpBytes("lp1a", c.lidSrc);
    lpBytes("lp2b", c.lidSink);
    VoOut out{};
    ASSERT_EQ(RPC_SUCCESS, vomirrorcancel_1(&c, &out, vo()));
    expectTriple(out, 0, 0, 0, "cancel lp2b");
    speed(0);
    ASSERT_TRUE(waitVodbEmpty(60));
    EXPECT_EQ(checksum(src, "lp1a"), checksum(m, "lp2a"));
    EXPECT_EQ(lp2bBefore, checksum(m, "lp2b")) << "the cancelled mirror must stay as it was";
    expectVldbAgreesWithDblades();
}

// A local mirror is not left the only up-to-date copy when every remote one
// failed: it is failed too (5032) and the source stays as it was.
TEST_F(MirrorTest, ALocalMirrorWhoseRemoteMirrorsAllFailedIsFailedToo) {
    const uint32_t src = source("mir.lonely");
    std::set<VolumeKey> before = volumeKeys();
    addDestination(src, "lp1a");
    addDestination(src, "lp2a");
    fault({"status", "volcreate", "5", "always", "--dblade", "2"});
    expectTriple(mirror(src), 0, 0, 0, "start");
    ASSERT_TRUE(waitVodbEmpty(60));
    EXPECT_TRUE(node.waitForTrace("failing the local mirror deleting op src", 5));
    sim({"fault", "clear"});
    EXPECT_EQ(before, volumeKeys()) << "no mirror, op src or op sink may be left";
    // The destinations stay registered, never filled.
    for (const char* lp : {"lp1a", "lp2a"}) {
        json rec = vldbRecord(src | kMirrorBit, lp);
        ASSERT_FALSE(rec.is_null()) << lp;
        EXPECT_EQ(0u, rec["dataVer"].get<uint64_t>()) << lp;
    }
}

// Something half made holding the mirror id on one LP: that destination is
// rolled back untouched, the others commit.
TEST_F(MirrorTest, AHiddenVolumeUnderTheMirrorIdRollsItsDestinationBack) {
    const uint32_t src = source("mir.hidden");
    const uint32_t m = src | kMirrorBit;
    addDestination(src, "lp2a");
    addDestination(src, "lp2b");
    expectTriple(mirror(src), 0, 0, 0, "first mirror");
    ASSERT_TRUE(waitVodbEmpty(60));
    const std::string hiddenSum = checksum(m, "lp2b");
    sim({"vol-hide", std::to_string(m), "lp2b", "on"});
    sim({"vol-write", std::to_string(src), "lp1a", "new.txt", "--text", "refreshed"});
    expectTriple(mirror(src), 0, 0, 0, "refresh");
    ASSERT_TRUE(waitVodbEmpty(60));
    EXPECT_EQ(checksum(src, "lp1a"), checksum(m, "lp2a"));
    sim({"vol-hide", std::to_string(m), "lp2b", "off"});
    EXPECT_EQ(hiddenSum, checksum(m, "lp2b"));
    expectVldbAgreesWithDblades();
}

// A D-blade that fails an id swap part way leaves the renumberings it made;
// the operation keeps its records, and its next look completes the swap
// from where it stopped.
class MirrorSwapFault : public MirrorTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(MirrorSwapFault, TheSwapCompletesFromWhereItStopped) {
    const uint32_t src = source("mir.swapfault");
    const uint32_t m = src | kMirrorBit;
    addDestination(src, "lp2a");
    expectTriple(mirror(src), 0, 0, 0, "first mirror");
    ASSERT_TRUE(waitVodbEmpty(60));
    std::set<VolumeKey> others = volumeKeys();
    others.erase({"lp1a", src});
    others.erase({"lp2a", m});
    sim({"vol-write", std::to_string(src), "lp1a", "new.txt", "--text", "refreshed"});
    fault({"status", GetParam(), "5"});
    expectTriple(mirror(src), 0, 0, 0, "refresh");
    EXPECT_TRUE(node.waitForTrace("got error from adjustVid()", 30));
    EXPECT_FALSE(vodbRecords().empty()) << "the records must stay for the next look";
    ASSERT_TRUE(waitVodbEmpty(90));
    expectMirrored(src, {"lp2a"}, others);
}

INSTANTIATE_TEST_SUITE_P(FailedBefore, MirrorSwapFault,
                         ::testing::Values("volswapvolid.step1", "volswapvolid.step2",
                                           "volswapvolid.step3"),
                         [](const ::testing::TestParamInfo<const char*>& p) {
                             std::string n = p.param;
                             return "Step" + n.substr(n.size() - 1);
                         });

TEST_F(MirrorTest, ALocalMirrorAloneIsTheFrozenSourceItself) {
    const uint32_t src = source("mir.local");
    std::set<VolumeKey> others = volumeKeys();
    others.erase({"lp1a", src});
    addDestination(src, "lp1a");
    expectTriple(mirror(src), 0, 0, 0, "local mirror");
    ASSERT_TRUE(waitVodbEmpty(60));
    expectMirrored(src, {"lp1a"}, others);
}

TEST_F(MirrorTest, MembersJoinEmptyAndLeaveAsVolumesOfTheirOwn) {
    const uint32_t src = source("mir.group");
    const uint32_t m = src | kMirrorBit;
    auto join = [&](uint32_t vid, const std::string& lp, const char* name) {
        VoLidVnameIn in{};
        in.vidSrc = vid;
        lpBytes("lp1a", in.lidSrc);
        lpBytes(lp, in.lidSink);
        in.vnameSink = const_cast<char*>(name);
        VoVidOut out{};
        EXPECT_EQ(RPC_SUCCESS, vomirrorjoingroup_1(&in, &out, vo()));
        return out;
    };
    auto leave = [&](const std::string& lp, const char* name) {
        VoVnameIn in{};
        in.vid = m;
        lpBytes(lp, in.lid);
        in.vname = const_cast<char*>(name);
        VoVidOut out{};
        EXPECT_EQ(RPC_SUCCESS, vomirrorleavegroup_1(&in, &out, vo()));
        return out;
    };

    // Joining registers an empty read-only member; twice is refused, and so
    // is a source the VLDB does not know.
    VoVidOut j = join(src, "lp2a", "grp.a");
    expectTriple(j, 0, 0, 0, "join");
    EXPECT_EQ(m, j.vid);
    json rec = vldbRecord(m, "lp2a");
    ASSERT_FALSE(rec.is_null());
    EXPECT_EQ("ro", rec["typeName"]);
    EXPECT_EQ(0u, rec["dataVer"].get<uint64_t>());
    expectTriple(join(src, "lp2a", "grp.a"), voErrSinkVFSExist, voErrVodValidate, 0, "again");
    expectTriple(join(99999, "lp2b", "grp.x"), voErrSrcVFSNotExist, voErrVldbRecordLookup, 119,
                 "no source");
    expectTriple(join(src, "lp2b", "grp.b"), 0, 0, 0, "second member");

    // Filled by a mirror; one member leaves and keeps its contents, read-only,
    // under an id and a name of its own.
    expectTriple(mirror(src), 0, 0, 0, "mirror");
    ASSERT_TRUE(waitVodbEmpty(60));
    const std::string sum = checksum(m, "lp2a");
    uint64_t busy = addVodbRecord(0, "mirror", m, "lp2a", "sink");
    expectTriple(leave("lp2a", "grp.left"), voErrValidate, voErrVodValidate, VOD_ERR_BUSY_MIRROR,
                 "busy");
    sim({"vodb-delete", std::to_string(busy)});
    VoVidOut l = leave("lp2a", "grp.left");
    expectTriple(l, 0, 0, 0, "leave");
    ASSERT_NE(0u, l.vid);
    EXPECT_TRUE(vldbRecord(m, "lp2a").is_null());
    json left = vldbRecord(l.vid, "lp2a");
    ASSERT_FALSE(left.is_null());
    EXPECT_EQ("grp.left", left["name"]);
    EXPECT_EQ(sum, checksum(l.vid, "lp2a"));
    for (const DbladeVolume& v : volumes())
        if (v.vfsid == l.vid) {
            EXPECT_EQ("ro", v.type);
        }

    // A member that was never filled only loses its record.
    expectTriple(join(src, "lp1b", "grp.c"), 0, 0, 0, "unfilled member");
    VoVidOut gone = leave("lp1b", "grp.c2");
    expectTriple(gone, 0, 0, 0, "leave unfilled");
    EXPECT_EQ(0u, gone.vid);
    EXPECT_TRUE(vldbRecord(m, "lp1b").is_null());
    expectVldbAgreesWithDblades();
}

TEST_F(MirrorTest, RefusalsRecordNothing) {
    const uint32_t src = source("mir.refused");
    const std::set<VolumeKey> before = volumeKeys();
    // No destination in the VLDB at all.
    expectTriple(mirror(src), voErrValidate, voErrVldbRecordLookup, 119, "no destination");
    // A mirror operation already recorded on the source.
    addDestination(src, "lp2a");
    uint64_t opid = addVodbRecord(0, "mirror", src, "lp1a", "src");
    expectTriple(mirror(src), voErrValidate, voErrVodValidate, VOD_ERR_BUSY_MIRROR, "busy");
    sim({"vodb-delete", std::to_string(opid)});
    EXPECT_EQ(before, volumeKeys());
    EXPECT_TRUE(waitVodbEmpty(5));
}

}  // namespace
}  // namespace vodtest

// ---- vod killed at each step of a mirror, then started again

namespace vodtest {
namespace {

class MirrorCrash;

const char* const kMirrorHeldProcs[] = {
    "volclone",           "incrcopymirror",     "incrcopyconclude",  "volswapvolid",
    "volsetattr",         "vldb_record_modify", "voldelete",         "vodb_delete_by_opid",
    "volswapvolid.step1", "volswapvolid.step2", "volswapvolid.step3"};

struct MirrorCrashPoint {
    const char* name;
    bool refresh;  // existing mirrors are refreshed, else a first mirror is made
    bool local;    // the source's own LP is a destination too
    void (*reach)(MirrorCrash& t);
    bool dbladeRestarts;  // and forgets its streams while vod is down
    bool rollsForward;    // every destination ends holding the new version
    // A call the recovering vod is killed at in its turn, then restarted
    // again; null: one crash only.
    const char* secondCrashAt = nullptr;
};

class MirrorCrash : public MirrorTest, public ::testing::WithParamInterface<MirrorCrashPoint> {
  public:
    using ClusterTest::hold;
    using ClusterTest::speed;
    using ClusterTest::waitHeld;
    uint32_t src = 0;

    void holdThenStart(const char* proc) {
        hold(proc);
        expectTriple(mirror(src), 0, 0, 0, "start");
        ASSERT_TRUE(waitHeld(proc, 60)) << "vod never called " << proc;
    }
    // The same, for the first call of proc that reaches D-blade did.
    void holdAtThenStart(const char* proc, unsigned did) {
        fault({"hold", proc, "--dblade", std::to_string(did)});
        expectTriple(mirror(src), 0, 0, 0, "start");
        ASSERT_TRUE(waitHeld(proc, 60)) << "vod never called " << proc << " at " << did;
    }
    void midStream() {
        speed(128);
        expectTriple(mirror(src), 0, 0, 0, "start");
        ASSERT_TRUE(pollUntil(
            [&] {
                for (const auto& line : {sim({"stream-list"})})
                    if (line.find("vnodes=0/") == std::string::npos &&
                        line.find("vnodes=") != std::string::npos)
                        return true;
                return false;
            },
            30))
            << "the stream never sent anything";
    }
    bool restartSimulator() { return node.restartSim(); }
    bool streamsDone() {
        return pollUntil(
            [&] {
                std::string l = sim({"stream-list"});
                return l.find("status=running") == std::string::npos &&
                       l.find("status=paused") == std::string::npos;
            },
            60, 0.05);
    }
};

void PrintTo(const MirrorCrashPoint& p, std::ostream* os) { *os << p.name; }

const MirrorCrashPoint kMirrorPoints[] = {
    {"FirstAfterTheRecords", false, false, [](MirrorCrash& t) { t.holdThenStart("volclone"); },
     false, false},
    {"RefreshAfterTheRecords", true, true, [](MirrorCrash& t) { t.holdThenStart("volclone"); },
     false, false},
    // The op src's clone is made, its VLDB record not yet: recovery finds no
    // record and must still take the clone away.
    {"FirstAfterTheOpSrcCloneBeforeItsRecord", false, false,
     [](MirrorCrash& t) { t.holdThenStart("vldb_create_record"); }, false, false},
    {"RefreshAfterTheInPlaceClones", true, false,
     [](MirrorCrash& t) { t.holdThenStart("incrcopymirror"); }, false, false},
    {"FirstMidStreamWhileItRunsOn", false, false, [](MirrorCrash& t) { t.midStream(); }, false,
     true},
    {"RefreshMidStreamWhileItRunsOn", true, false, [](MirrorCrash& t) { t.midStream(); }, false,
     true},
    {"RefreshMidStreamAndTheDbladeForgot", true, false, [](MirrorCrash& t) { t.midStream(); }, true,
     false},
    {"RefreshAfterTheStreamEnded", true, true,
     [](MirrorCrash& t) { t.holdThenStart("incrcopyconclude"); }, false, true},
    {"FirstAfterTheStreamEnded", false, true,
     [](MirrorCrash& t) { t.holdThenStart("incrcopyconclude"); }, false, true},
    // The local mirror, concluded last, has the op src under the mirror id
    // and the old local mirror under the op src's id: the version recovery
    // aims at is still the op src's.
    {"RefreshTheLocalMirrorAfterItsSwap", true, true,
     [](MirrorCrash& t) { t.holdAtThenStart("volsetattr", 1); }, false, true},
    {"RefreshInTheAttributeAdjustment", true, false,
     [](MirrorCrash& t) { t.holdThenStart("vldb_record_modify"); }, false, true},
    {"FirstInTheAttributeAdjustment", false, true,
     [](MirrorCrash& t) { t.holdThenStart("vldb_record_modify"); }, false, true},
    {"RefreshMidCleanUp", true, true,
     [](MirrorCrash& t) { t.holdThenStart("vodb_delete_by_opid"); }, false, true},
    // The D-blade died in the id swap: nothing under the mirror id, the old
    // mirror under the temp id: the op sink, complete, takes the id.
    {"RefreshInTheSwapBeforeItsSecondStep", true, false,
     [](MirrorCrash& t) { t.holdThenStart("volswapvolid.step2"); }, false, true},
    // The new mirror has the id, the old one waits under the temp id.
    {"RefreshInTheSwapBeforeItsThirdStep", true, true,
     [](MirrorCrash& t) { t.holdThenStart("volswapvolid.step3"); }, false, true},
    // And the recovery itself is killed as it renumbers: the next one
    // still ends with whole mirrors.
    {"RefreshInTheSwapThenAgainInRecovery", true, false,
     [](MirrorCrash& t) { t.holdThenStart("volswapvolid.step2"); }, false, true, "volsetattr"},
};

TEST_P(MirrorCrash, EveryDestinationEndsWithAWholeMirror) {
    const MirrorCrashPoint& point = GetParam();
    src = source("mir.crash");
    std::vector<std::string> lps = {"lp2a", "lp2b"};
    if (point.local) lps.push_back("lp1a");
    for (const std::string& lp : lps) addDestination(src, lp);
    const uint32_t m = src | kMirrorBit;
    std::map<std::string, std::string> oldSums;
    if (point.refresh) {
        expectTriple(mirror(src), 0, 0, 0, "first mirror");
        ASSERT_TRUE(waitVodbEmpty(60));
        for (const std::string& lp : lps) oldSums[lp] = checksum(m, lp);
    }
    sim({"vol-fill", std::to_string(src), "lp1a", "--files", "24", "--size", "65536"});
    std::set<VolumeKey> others = volumeKeys();

    point.reach(*this);
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_FALSE(vodbRecords().empty()) << "the mirror has no VODB records at this point";
    killVod();
    for (const char* proc : kMirrorHeldProcs) release(proc, /*drop=*/true);
    sim({"fault", "clear"});
    if (point.dbladeRestarts) {
        EXPECT_TRUE(restartSimulator()) << "the simulator did not come back";
    } else {
        speed(0);
        EXPECT_TRUE(streamsDone()) << "the D-blade's stream did not finish";
    }
    speed(0);
    if (point.secondCrashAt != nullptr) {
        hold(point.secondCrashAt);
        restartVod();
        ASSERT_TRUE(waitHeld(point.secondCrashAt, 90))
            << "recovery never called " << point.secondCrashAt;
        killVod();
        release(point.secondCrashAt, /*drop=*/true);
        sim({"fault", "clear"});
    }
    restartVod();

    EXPECT_TRUE(waitVodbEmpty(120)) << "recovery did not finish:\n" << sim({"vodb"});
    const std::string want = checksum(src, "lp1a");
    for (const std::string& lp : lps) {
        SCOPED_TRACE(lp);
        if (point.rollsForward) {
            EXPECT_EQ(want, checksum(m, lp));
            EXPECT_EQ(dvOf(src, "lp1a"), vldbRecord(m, lp)["dataVer"].get<uint64_t>());
        } else if (point.refresh) {
            EXPECT_EQ(oldSums[lp], checksum(m, lp)) << "the old mirror must stay as it was";
        } else {
            EXPECT_EQ(0u, dvOf(m, lp)) << "no partial mirror may be left";
        }
    }
    // No op src, op sink, temp or hidden volume is left; the mirrors that
    // exist have their records. A destination never filled keeps only its
    // record at version 0.
    for (const std::string& lp : lps)
        if (vldbRecord(m, lp)["dataVer"].get<uint64_t>() == 0)
            sim({"vldb-delete", std::to_string(m), lp});
    std::set<VolumeKey> want_ = {};
    for (const VolumeKey& k : others)
        if (k.second != m) want_.insert(k);
    for (const std::string& lp : lps)
        if (dvOf(m, lp) != 0) want_.insert({lp, m});
    expectSettled(want_);
}

// After a restart voctl ops says, per destination, what recovery made of
// it: here one destination settles at once and the other, whose D-blade
// cannot be reached, waits for the next attempt.
TEST_F(MirrorTest, OpsShowsWhatRecoveryDecidedForEachDestination) {
    const uint32_t src = source("mir.ops");
    for (const char* lp : {"lp1b", "lp2a"}) addDestination(src, lp);
    hold("incrcopyconclude");
    expectTriple(mirror(src), 0, 0, 0, "start");
    ASSERT_TRUE(waitHeld("incrcopyconclude", 60));
    killVod();
    release("incrcopyconclude", /*drop=*/true);
    sim({"fault", "clear"});
    fault({"refuse", "dblade_vol", "always", "--dblade", "2"});
    restartVod();

    std::map<std::string, std::string> seen;
    ASSERT_TRUE(pollUntil(
        [&] {
            Node::Result r = node.voctl({"--json", "ops"});
            json j = json::parse(r.out, nullptr, false);
            if (!j.is_object() || j["mirrors"].size() != 1) return false;
            for (const json& d : j["mirrors"][0]["destinations"])
                seen[d["lpName"].is_string() ? d["lpName"].get<std::string>() : "?"] =
                    d["recovery"].is_string() ? d["recovery"].get<std::string>() : "-";
            return seen["lp1b"] == "rolled forward";
        },
        60, 0.5))
        << "lp1b: " << seen["lp1b"] << ", lp2a: " << seen["lp2a"];
    EXPECT_EQ(seen["lp2a"], "not settled yet");
    Node::Result text = node.voctl({"ops"});
    EXPECT_NE(text.out.find("rolled forward"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("not settled yet"), std::string::npos) << text.out;

    sim({"fault", "clear"});
    EXPECT_TRUE(waitVodbEmpty(90)) << sim({"vodb"});
    std::set<VolumeKey> others;
    for (const VolumeKey& k : volumeKeys())
        if (k.second != (src | kMirrorBit) && k.second != src) others.insert(k);
    expectMirrored(src, {"lp1b", "lp2a"}, others);
}

INSTANTIATE_TEST_SUITE_P(KilledAt, MirrorCrash, ::testing::ValuesIn(kMirrorPoints),
                         [](const ::testing::TestParamInfo<MirrorCrashPoint>& p) {
                             return std::string(p.param.name);
                         });

}  // namespace
}  // namespace vodtest
