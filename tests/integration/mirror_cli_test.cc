// voctl's mirror commands on a node with the simulated cluster, where vod's
// own mirror is not needed: registering destinations in the VLDB, listing a
// volume's mirrors with their lag, and the refusals that must leave the VLDB
// as it was.
#include <gtest/gtest.h>

#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "cluster_fixture.h"

namespace vodtest {
namespace {

using nlohmann::json;
constexpr uint32_t kMirrorBit = 0x40000000;

class MirrorCliTest : public ClusterTest {
  protected:
    // The VLDB records of vid's mirror id, by LP name.
    std::map<std::string, json> mirrorRecords(uint32_t vid) {
        std::map<std::string, json> out;
        for (const json& r : vldb())
            if (r["vfsid"] == (vid | kMirrorBit)) out[r["lp"].get<std::string>()] = r;
        return out;
    }
};

TEST_F(MirrorCliTest, RegistersDestinationsOnceAndListsHowFarEachLags) {
    const uint32_t vid = makeVolume("alpha", "lp1a");
    ASSERT_NE(vid, 0u);
    sim({"vldb-set", std::to_string(vid), "lp1a", "dataver", "42"});
    const json source = vldbRecord(vid, "lp1a");
    const std::string id = std::to_string(vid);

    Node::Result r = node.voctl({"mirrors", id});
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_NE(r.out.find("data version 42: no mirrors"), std::string::npos) << r.out;

    // One LP by name, one by id.
    const std::string lp1b = lpHex("lp1b");
    r = node.voctl({"--json", "mirror", "--register-only", id, "lp1a", "lp2a", lp1b});
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    json j = json::parse(r.out);
    EXPECT_EQ(j["event"], "registered");
    EXPECT_EQ(j["mirror"]["mirrorVfsid"], vid | kMirrorBit);
    ASSERT_EQ(j["destinations"].size(), 2u) << j;
    EXPECT_EQ(j["destinations"][0]["label"], "lp2a");
    EXPECT_EQ(j["destinations"][0]["registered"], "new");
    EXPECT_EQ(j["destinations"][1]["lp"], "0x" + lp1b);
    EXPECT_EQ(j["destinations"][1]["registered"], "new");

    auto recs = mirrorRecords(vid);
    ASSERT_EQ(recs.size(), 2u);
    const json& onLp2a = recs["lp2a"];
    EXPECT_EQ(onLp2a["typeName"], "ro");
    EXPECT_EQ(onLp2a["dataVer"], 0) << "an empty member: nothing mirrored yet";
    EXPECT_EQ(onLp2a["name"], "alpha@lp2a");
    EXPECT_EQ(onLp2a["family"], source["family"]);
    EXPECT_EQ(onLp2a["vserver"], source["vserver"]);
    EXPECT_EQ(recs["lp1b"]["name"], "alpha@0x" + lp1b);
    EXPECT_EQ(find("alpha").vfsid, vid) << "the source's name still finds the source alone";

    // Named again: registered already; a new one; one registered before but
    // not named now is still a destination.
    r = node.voctl({"--json", "mirror", "--register-only", id, "lp1a", "lp2a", "lp2b"});
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    j = json::parse(r.out);
    ASSERT_EQ(j["destinations"].size(), 3u) << j;
    EXPECT_EQ(j["destinations"][0]["registered"], "existing");
    EXPECT_EQ(j["destinations"][1]["label"], "lp2b");
    EXPECT_EQ(j["destinations"][1]["registered"], "new");
    EXPECT_EQ(j["destinations"][2]["lp"], "0x" + lp1b);
    EXPECT_EQ(j["destinations"][2]["registered"], "unnamed");
    EXPECT_EQ(mirrorRecords(vid)["lp2a"], onLp2a) << "an existing record is left alone";

    // The lags: source at 42.
    sim({"vldb-set", std::to_string(vid | kMirrorBit), "lp2a", "dataver", "42"});
    sim({"vldb-set", std::to_string(vid | kMirrorBit), "lp2b", "dataver", "40"});
    r = node.voctl({"--json", "mirrors", id});
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    j = json::parse(r.out);
    EXPECT_EQ(j["dataVer"], 42);
    EXPECT_EQ(j["mirrorVfsid"], vid | kMirrorBit);
    std::map<std::string, std::pair<int, int64_t>> got;  // LP id: D-blade, lag
    for (const json& m : j["mirrors"])
        got[m["lp"].get<std::string>()] = {m["dblade"].get<int>(), m["lag"].get<int64_t>()};
    const std::map<std::string, std::pair<int, int64_t>> want = {
        {"0x" + lpHex("lp2a"), {2, 0}}, {"0x" + lp1b, {1, 42}}, {"0x" + lpHex("lp2b"), {2, 2}}};
    EXPECT_EQ(got, want) << j;

    r = node.voctl({"mirrors", id});
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    for (const std::string& row :
         {"0x" + lpHex("lp2a") + "  2        42            up to date ",
          "0x" + lp1b + "  1        0             never filled (42 behind)",
          "0x" + lpHex("lp2b") + "  2        40            2 behind"})
        EXPECT_NE(r.out.find(row), std::string::npos) << row << "\n" << r.out;
}

TEST_F(MirrorCliTest, RefusalsLeaveTheVldbAsItWas) {
    const uint32_t vid = makeVolume("beta", "lp1a");
    ASSERT_NE(vid, 0u);
    const std::string id = std::to_string(vid);
    struct Case {
        const char* what;
        std::vector<std::string> args;
        int status;
        const char* err;
    };
    const Case cases[] = {
        {"source not on that LP",
         {"mirror", "--register-only", id, "lp2a", "lp2b"},
         1,
         "the VLDB holds no vfs"},
        {"an LP named twice",
         {"mirror", "--register-only", id, "lp1a", "lp2a", "lp2a"},
         2,
         "named twice"},
        {"an LP that does not exist",
         {"mirror", "--register-only", id, "lp1a", "lp2a", "lp9z"},
         1,
         "LP name 'lp9z'"},
        // lp2a is registered before the VLDB refuses the unknown LP id.
        {"an LP id the VLDB does not know",
         {"mirror", "--register-only", id, "lp1a", "lp2a", "FF000000000000000000000000000000"},
         1,
         "registering the mirror on LP 0xFF000000000000000000000000000000 failed"},
        {"list by mirror id", {"mirrors", std::to_string(vid | kMirrorBit)}, 2, "is a mirror id"},
        {"list an unknown volume", {"mirrors", "999999"}, 1, "the VLDB holds no vfs 999999"},
        // vod runs no mirror of the volume: nothing to look at or act on.
        {"progress", {"mirror-progress", id, "lp1a"}, 1, "vod knows no mirror of vfs"},
        {"pause", {"mirror-pause", id, "lp1a"}, 1, "rc=4 voErrNoSuchOp"},
        {"cancel", {"mirror-cancel", id, "lp1a", "lp2a"}, 1, "rc=4 voErrNoSuchOp"},
    };
    const json before = vldb();
    for (const Case& c : cases) {
        Node::Result r = node.voctl(c.args);
        EXPECT_EQ(r.status, c.status) << c.what << "\n" << r.out << r.err;
        EXPECT_NE(r.err.find(c.err), std::string::npos) << c.what << "\n" << r.err;
        EXPECT_EQ(vldb(), before) << c.what;
    }
}

}  // namespace
}  // namespace vodtest
