// The delete as a recorded operation: a step that fails or a daemon that dies
// between the D-blade's delete and the VLDB's leaves the operation in the
// VODB, and recovery (at the registry's next look, or after a restart)
// finishes it. Afterwards the volume, its VLDB record and the VODB record
// are all gone.
#include <gtest/gtest.h>
#include <rpc/rpc.h>

#include <atomic>
#include <cstring>
#include <set>
#include <string>
#include <thread>

#include "cluster_fixture.h"

namespace vodtest {
namespace {

// Recovery looks at an operation at most every 30 seconds.
constexpr double kRecoverySec = 75;

class DeleteTest : public AdminTest {
  protected:
    static bool holds(const std::set<VolumeKey>& keys, uint32_t vfsid) {
        for (const auto& k : keys)
            if (k.second == vfsid) return true;
        return false;
    }
    bool hasVolume(uint32_t vfsid) { return holds(volumeKeys(), vfsid); }
    bool hasVldbRecord(uint32_t vfsid) { return holds(vldbKeys(), vfsid); }
    // The one VODB record, which must be the delete of vfsid.
    void expectOneDeleteRecorded(uint32_t vfsid) {
        auto recs = vodbRecords();
        ASSERT_EQ(recs.size(), 1u) << recs.dump();
        EXPECT_EQ(recs[0]["optypeName"], "del");
        EXPECT_EQ(recs[0]["roleName"], "src");
        EXPECT_EQ(recs[0]["vfsid"], vfsid);
    }
};

// vod's own D-blade serves lp1a and lp1b and answers "not here" (21) for
// lp2a and lp2b, the same as for a volume already gone: a delete that took
// that answer for the whole truth would drop the VLDB record of a volume on
// D-blade 2 and leave the volume on its disk.
TEST_F(DeleteTest, TheVolumeGoesFromTheDbladeOfItsLp) {
    const char* const lps[] = {"lp1a", "lp1b", "lp2a", "lp2b"};
    for (const char* lp : lps) {
        const uint32_t vol = makeVolume(std::string("gone-") + lp, lp, 1, 4096);
        expectTriple(vodelete(vol, lp), voErrRcSuccess, voErrFuncSuccess, 0, lp);
        EXPECT_FALSE(hasVolume(vol)) << lp;
        EXPECT_FALSE(hasVldbRecord(vol)) << lp;
        EXPECT_EQ(vodbRecords().size(), 0u) << lp;
    }
}

TEST_F(DeleteTest, DbladeFailureKeepsEveryRecordUntilRecoveryDeletes) {
    const uint32_t vol = makeVolume("doomed", "lp1a");
    fault({"status", "voldelete", "5"});
    expectTriple(vodelete(vol, "lp1a"), VoErrDblade, voErrDbladeVolDelete, 5);
    // Nothing went: the volume, its record, and the operation to finish it.
    EXPECT_TRUE(hasVolume(vol));
    EXPECT_TRUE(hasVldbRecord(vol));
    expectOneDeleteRecorded(vol);
    EXPECT_TRUE(node.waitForTrace("failed to clean up.", 5));

    // The registry hands the operation to recovery, which runs the delete again.
    ASSERT_TRUE(waitVodbCount(0, kRecoverySec));
    EXPECT_TRUE(node.waitForTrace("call recoverFromCrash", 1));
    EXPECT_FALSE(hasVolume(vol));
    EXPECT_FALSE(hasVldbRecord(vol));
}

TEST_F(DeleteTest, VldbFailureAfterTheDbladeDeletedIsFinishedAfterARestart) {
    const uint32_t vol = makeVolume("halfway", "lp1a");
    fault({"status", "vldb_delete_record", "133"});
    expectTriple(vodelete(vol, "lp1a"), VoErrVldb, voErrVldbDeleteRecord, 133);
    EXPECT_FALSE(hasVolume(vol));
    EXPECT_TRUE(hasVldbRecord(vol));
    expectOneDeleteRecorded(vol);

    // A new vod knows the delete only from the VODB: it rebuilds it and runs
    // it again; the D-blade's "no such volume" lets the first step pass.
    restartVod();
    ASSERT_TRUE(waitVodbCount(0, 20));
    EXPECT_TRUE(node.waitForTrace("resurrect DEL _opid", 1));
    EXPECT_TRUE(node.waitForTrace("TARN_ERR_LPMMISMATCH", 1));
    EXPECT_FALSE(hasVldbRecord(vol));
}

TEST_F(DeleteTest, KilledWhileTheVldbRecordDeleteIsUnderwayIsFinishedAfterARestart) {
    const uint32_t vol = makeVolume("killed", "lp1b");
    u_char lid[16];
    lpBytes("lp1b", lid);
    hold("vldb_delete_record");

    // The delete blocks vod's loop at the held call; its caller waits aside.
    std::atomic<bool> answered{false};
    std::thread caller([&] {
        timeval tv{60, 0};
        CLIENT* c = clnt_create_timed("127.0.0.1", VOPROG, VOVERS, "tcp", &tv);
        if (c == nullptr) return;
        clnt_control(c, CLSET_TIMEOUT, reinterpret_cast<char*>(&tv));
        VoIn in;
        in.vidSrc = vol;
        std::memcpy(in.lidSrc, lid, sizeof lid);
        VoOut out;
        answered = vodelete_1(&in, &out, c) == RPC_SUCCESS;
        clnt_destroy(c);
    });
    EXPECT_TRUE(waitHeld("vldb_delete_record", 30));
    // Killed after the D-blade deleted the volume, before the VLDB record went.
    killVod();
    caller.join();
    EXPECT_FALSE(answered);
    EXPECT_TRUE(release("vldb_delete_record", /*drop=*/true));
    fault({"clear"});
    EXPECT_FALSE(hasVolume(vol));
    EXPECT_TRUE(hasVldbRecord(vol));
    expectOneDeleteRecorded(vol);

    startVod();
    ASSERT_TRUE(waitVodbCount(0, 20));
    EXPECT_FALSE(hasVldbRecord(vol));
    EXPECT_FALSE(hasVolume(vol));
}

}  // namespace
}  // namespace vodtest
