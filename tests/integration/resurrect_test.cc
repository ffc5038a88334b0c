// Start-up resurrection on a node: operations found in the VODB for LPs this
// node's D-blade serves on line are rebuilt and recovered one second apart;
// records of LPs served elsewhere are left to their own node; an LP that
// comes on line later has its operations rebuilt when it says so.
#include <gtest/gtest.h>
#include <rpc/rpc.h>

#include <cstdio>
#include <cstring>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "cluster_fixture.h"

namespace vodtest {
namespace {

// An LP no D-blade of this node serves.
const char* const kForeignLp = "EE0A0000000000000000000000000000";

const char* const kRecoverLine = "call recoverFromCrash opid=";

// Seconds of the day of the trace line holding position p of out: its stamp
// is the fourth field, HH:MM:SS.mmm.
double traceSeconds(const std::string& out, size_t p) {
    size_t start = out.rfind('\n', p);
    start = start == std::string::npos ? 0 : start + 1;
    std::istringstream line(out.substr(start, p - start));
    std::string skip, stamp;
    line >> skip >> skip >> skip >> stamp;
    int h = 0, m = 0;
    double sec = 0;
    if (std::sscanf(stamp.c_str(), "%d:%d:%lf", &h, &m, &sec) != 3) return -1;
    return h * 3600 + m * 60 + sec;
}

class ResurrectTest : public AdminTest {
  protected:
    // Volumes made through vod, then vod stopped so that only the VODB knows
    // the deletes recorded next.
    std::vector<uint32_t> volumesThenStopVod(const std::vector<std::string>& lps) {
        std::vector<uint32_t> ids;
        for (size_t i = 0; i < lps.size(); ++i)
            ids.push_back(makeVolume("r" + std::to_string(i), lps[i]));
        killVod();
        return ids;
    }
};

TEST_F(ResurrectTest, LocalOperationsAreRecoveredOneSecondApartForeignOnesAreLeft) {
    const std::vector<std::string> lps = {"lp1a", "lp1b", "lp1a"};
    std::vector<uint32_t> ids = volumesThenStopVod(lps);
    std::vector<uint64_t> opids;
    for (size_t i = 0; i < ids.size(); ++i)
        opids.push_back(addVodbRecord(0, "del", ids[i], lps[i], "src"));
    // Foreign: an LP no D-blade here serves, and one of D-blade 2 (vod's is D-blade 1).
    addVodbRecord(0, "del", 5555, kForeignLp, "src");
    addVodbRecord(0, "del", 5556, "lp2a", "src");

    // Watch the recoveries come due: one per second, in the order rebuilt,
    // long before the 30 seconds a fresh stamp would give. Timed by vod's own
    // trace stamps: the loop reads the clock in whole seconds, so the first
    // may slip by up to a second towards the second one, but the third still
    // comes a second or more after the first.
    startVod();
    for (uint64_t opid : opids) {
        std::string line = kRecoverLine + std::to_string(opid) + ",";
        ASSERT_TRUE(node.waitForTrace(line, 20)) << line;
    }
    std::string out = node.vodOutput();
    std::vector<size_t> pos;
    std::vector<double> at;
    for (uint64_t opid : opids) {
        size_t p = out.find(kRecoverLine + std::to_string(opid) + ",");
        pos.push_back(p);
        at.push_back(traceSeconds(out, p));
    }
    EXPECT_GE(at.back() - at.front(), 0.9) << "checks not staggered";
    EXPECT_LT(at.back() - at.front(), 15.0);
    EXPECT_LT(pos[0], pos[1]);
    EXPECT_LT(pos[1], pos[2]);

    // The three deletes finish; the foreign records stay for their own nodes.
    ASSERT_TRUE(waitVodbCount(2, 20)) << vodbRecords().dump();
    std::set<uint32_t> left;
    for (const auto& r : vodbRecords()) left.insert(r["vfsid"].get<uint32_t>());
    EXPECT_EQ(left, (std::set<uint32_t>{5555, 5556}));
    EXPECT_NE(out.find("our dblade does not control its lp either"), std::string::npos);
    EXPECT_TRUE(volumes().empty());
    EXPECT_TRUE(vldb().empty());
    expectedVodbRecords = 2;
}

TEST_F(ResurrectTest, OperationOfAnLpComingOnLineIsRebuiltThen) {
    std::vector<uint32_t> ids = volumesThenStopVod({"lp1b"});
    addVodbRecord(0, "del", ids[0], "lp1b", "src");
    sim({"lp-state", "lp1b", "5"});  // offline

    startVod();
    ASSERT_TRUE(node.waitForTrace("our dblade does not control its lp either", 20));
    EXPECT_EQ(vodbRecords().size(), 1u);

    // The D-blade brings the LP on line and tells vod about it.
    sim({"lp-state", "lp1b", "online"});
    LpmChangeIn in;
    lpBytes("lp1b", in.lpuuid);
    in.isOnline = TRUE;
    ASSERT_EQ(vollpmchange_1(&in, nullptr, vo()), RPC_SUCCESS);
    EXPECT_TRUE(node.waitForTrace("resurrect DEL _opid", 10));
    ASSERT_TRUE(waitVodbCount(0, 20));
    EXPECT_TRUE(volumes().empty());
}

}  // namespace
}  // namespace vodtest
