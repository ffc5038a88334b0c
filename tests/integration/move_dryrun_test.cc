// voctl move --dry-run on a node with the simulated cluster: the verdict vod
// would reach for a move (same LP, missing source, a recorded operation
// holding the volume, room on the target LP), and that asking records and
// changes nothing.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "cluster_fixture.h"
#include "voerrors.h"

namespace vodtest {
namespace {

using nlohmann::json;

// 24 files of 48 KiB: 288 blocks of 4 KiB, more than a 1 MB LP holds.
constexpr unsigned kFiles = 24;
constexpr unsigned kFileSize = 48 * 1024;
constexpr uint64_t kVolumeBlocks = 288;

struct DryRunCase {
    const char* what;
    const char* dstLp;
    const char* recordType;  // a VODB record added on the volume first, or null
    const char* recordLp;
    const char* recordRole;
    int status;  // voctl's exit status
    int rc, func;
    unsigned funcrc;
    bool local;
};

// One node for the whole table: each row moves a volume of its own. The
// records a row adds have roles that start-up resurrection leaves alone, and
// go again at the end of the row.
TEST_F(AdminTest, DryRunGivesTheVerdictOfVodAndRecordsNothing) {
    sim({"lp-create", "tiny", "2", "1"});
    const DryRunCase cases[] = {
        {"another D-blade, room enough", "lp2a", nullptr, nullptr, nullptr, 0, 0, 0, 0, false},
        {"same D-blade", "lp1b", nullptr, nullptr, nullptr, 0, 0, 0, 0, true},
        {"target LP too small", "tiny", nullptr, nullptr, nullptr, 1, voErrNotEnoughSpaceSinkLP, 0,
         0, false},
        {"same LP", "lp1a", nullptr, nullptr, nullptr, 1, voErrValidate, voErrVodAddStream,
         VOD_ERR_SAME_LP, true},
        {"a copy writes into the volume", "lp2a", "copy", "lp1a", "sink", 1, voErrValidate,
         voErrVodValidate, VOD_ERR_BUSY_COPY, false},
        {"a move fills the target LP with it", "lp2a", "move", "lp2a", "sink", 1, voErrValidate,
         voErrVodValidate, VOD_ERR_BUSY_MOVE, false},
        {"a mirror streams into it", "lp1b", "mirror", "lp1a", "opsink", 1, voErrValidate,
         voErrVodValidate, VOD_ERR_BUSY_MIRROR, true},
    };
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i) {
        const DryRunCase& c = cases[i];
        SCOPED_TRACE(c.what);
        uint32_t vid = makeVolume("mover" + std::to_string(i), "lp1a", kFiles, kFileSize);
        ASSERT_NE(vid, 0u);
        uint64_t opid = 0;
        if (c.recordType != nullptr)
            opid = addVodbRecord(0, c.recordType, vid, c.recordLp, c.recordRole);
        const json vodbBefore = vodbRecords();
        const auto volumesBefore = volumeKeys();

        Node::Result r =
            node.voctl({"--json", "move", "--dry-run", std::to_string(vid), "lp1a", c.dstLp});
        ASSERT_EQ(r.status, c.status) << r.out << r.err;
        json j = json::parse(r.out);
        EXPECT_EQ(j["event"], "dry-run");
        EXPECT_EQ(j["accepted"], c.status == 0);
        EXPECT_EQ(j["rc"], c.rc) << j;
        EXPECT_EQ(j["func"], c.func) << j;
        EXPECT_EQ(j["funcrc"], c.funcrc) << j;
        EXPECT_EQ(j["local"], c.local);
        EXPECT_EQ(j["target"]["dblade"], c.local ? 1 : 2);
        EXPECT_FALSE(j["target"]["host"].get<std::string>().empty());
        EXPECT_EQ(j["regularPasses"], true) << "a new volume is read-write";
        if (c.recordType != nullptr) {
            ASSERT_TRUE(j["conflict"].is_object()) << j;
            EXPECT_EQ(j["conflict"]["opid"], opid);
            EXPECT_EQ(j["conflict"]["busyCode"], c.funcrc);
        } else {
            EXPECT_TRUE(j["conflict"].is_null()) << j;
        }
        if (std::string(c.dstLp) == "lp1a") {
            EXPECT_FALSE(j.contains("space")) << "nowhere to move: no space to check";
        } else {
            ASSERT_TRUE(j.contains("space")) << j;
            const json& s = j["space"];
            EXPECT_EQ(s["blocksUsed"], kVolumeBlocks);
            EXPECT_EQ(s["neededBlocks"], kVolumeBlocks);
            EXPECT_EQ(s["fits"], std::string(c.dstLp) != "tiny");
            if (s["fits"] == true) {
                EXPECT_EQ(s["freeBlocksAfter"].get<uint64_t>(),
                          s["freeBlocksBefore"].get<uint64_t>() - kVolumeBlocks);
            }
        }

        EXPECT_EQ(vodbRecords(), vodbBefore) << "a dry run records nothing";
        EXPECT_EQ(volumeKeys(), volumesBefore) << "a dry run makes no volume";
        if (opid != 0) sim({"vodb-delete", std::to_string(opid)});
    }
}

TEST_F(AdminTest, DryRunInWordsAndForAVolumeThatIsNotThere) {
    uint32_t vid = makeVolume("mover", "lp1a", kFiles, kFileSize);
    ASSERT_NE(vid, 0u);
    Node::Result r = node.voctl({"move", "--dry-run", std::to_string(vid), "lp1a", "lp2a"});
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_NE(r.out.find(": vod would accept the move\n"), std::string::npos) << r.out;
    for (const char* row : {"target D-blade  2 (", "local move      no, from D-blade 1",
                            "volume size     288 blocks (1.1 MB)", "fits            yes",
                            "conflict        none", "verdict         accepted"})
        EXPECT_NE(r.out.find(row), std::string::npos) << row << "\n" << r.out;

    r = node.voctl({"move", "--dry-run", std::to_string(vid), "lp1a", "lp1a"});
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    EXPECT_NE(r.out.find("would refuse the move: rc=8 voErrValidate, func=2016 "
                         "voErrVodAddStream, funcrc=5010 (VOD: same storage pool)"),
              std::string::npos)
        << r.out;

    // The volume is on lp1a, not on lp2b.
    r = node.voctl({"--json", "move", "--dry-run", std::to_string(vid), "lp2b", "lp2a"});
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    json j = json::parse(r.out);
    EXPECT_EQ(j["sourceFound"], false);
    EXPECT_EQ(j["rc"], voErrSrcVFSNotExist);
    EXPECT_EQ(j["funcrc"], 119);
    EXPECT_FALSE(j.contains("space"));
}

}  // namespace
}  // namespace vodtest
