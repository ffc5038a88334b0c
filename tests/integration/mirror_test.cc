// Read-only mirrors end to end on a node with the simulated cluster: a
// source mirrored to LPs on both D-blades and on its own LP, refreshed after
// it changed, and the refusals, checked by what readers of the mirror id
// see: its contents and data version on every LP, one VLDB record per LP,
// and nothing left of the operation.
#include <gtest/gtest.h>

#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "cluster_fixture.h"
#include "voerrors.h"

namespace vodtest {
namespace {

using nlohmann::json;

constexpr uint32_t kMirrorBit = 0x40000000;

class MirrorTest : public ClusterTest {
  protected:
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

TEST_F(MirrorTest, ALocalMirrorAloneIsTheFrozenSourceItself) {
    const uint32_t src = source("mir.local");
    std::set<VolumeKey> others = volumeKeys();
    others.erase({"lp1a", src});
    addDestination(src, "lp1a");
    expectTriple(mirror(src), 0, 0, 0, "local mirror");
    ASSERT_TRUE(waitVodbEmpty(60));
    expectMirrored(src, {"lp1a"}, others);
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
