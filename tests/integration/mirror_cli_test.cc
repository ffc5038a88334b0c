// voctl's mirror commands on a node with the simulated cluster: registering
// destinations through vod, listing a volume's mirrors with their lag,
// joining and leaving a mirror group, the refusals that must leave the VLDB
// as it was, and a recorded mirror's destinations as voctl ops names them.
#include <gtest/gtest.h>

#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <tuple>
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
    // Written to, so that vod has something to mirror to an empty member.
    const uint32_t vid = makeVolume("beta", "lp1a", 1, 1024);
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
         "registering the mirror on LP 0xFF000000000000000000000000000000 refused"},
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

    // vod registers the destinations, so its conflict check applies.
    const uint64_t moving = addVodbRecord(0, "move", vid | kMirrorBit, "lp2b", "src");
    Node::Result r = node.voctl({"mirror", "--register-only", id, "lp1a", "lp2a"});
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    EXPECT_NE(r.err.find("registering the mirror on LP lp2a refused: a recorded operation uses "
                         "the mirror id"),
              std::string::npos)
        << r.err;
    EXPECT_EQ(vldb(), before);
    sim({"vodb-delete", std::to_string(moving)});

    // vod refuses the mirror itself: the destination registered for it leaves
    // the group again.
    const uint64_t mirroring = addVodbRecord(0, "mirror", vid, "lp1a", "src");
    r = node.voctl({"mirror", id, "lp1a", "lp2a", "lp2b"});
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    EXPECT_NE(r.err.find("mirror of vfs " + id), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("left the mirror group again"), std::string::npos) << r.err;
    EXPECT_EQ(vldb(), before);
    sim({"vodb-delete", std::to_string(mirroring)});
}

TEST_F(MirrorCliTest, JoinAndLeaveGoThroughVodWhichRefusesConflicts) {
    const uint32_t vid = makeVolume("gamma", "lp1a");
    ASSERT_NE(vid, 0u);
    const std::string id = std::to_string(vid);
    const uint32_t m = vid | kMirrorBit;
    const json source = vldbRecord(vid, "lp1a");

    Node::Result r = node.voctl({"--json", "mirror-join", id, "lp1a", "lp2a", "gamma.ro"});
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(json::parse(r.out)["vfsid"], m) << r.out;
    const json member = vldbRecord(m, "lp2a");
    EXPECT_EQ(member["name"], "gamma.ro");
    EXPECT_EQ(member["typeName"], "ro");
    EXPECT_EQ(member["dataVer"], 0) << "an empty member: nothing mirrored yet";
    EXPECT_EQ(member["family"], source["family"]);

    // An operation recorded on the mirror id, wherever it is, holds the group.
    const uint64_t busy = addVodbRecord(0, "copy", m, "lp2b", "sink");
    struct Case {
        const char* what;
        std::vector<std::string> args;
        int status;
        std::vector<std::string> err;  // each must be on standard error
    };
    const std::string lp2b = "0x" + lpHex("lp2b");
    const Case cases[] = {
        {"join again",
         {"mirror-join", id, "lp1a", "lp2a", "other"},
         1,
         {"LP lp2a holds a member of the group already", "rc=16 voErrSinkVFSExist"}},
        {"join from an unknown source",
         {"mirror-join", "999999", "lp1a", "lp1b", "other"},
         1,
         {"does not hold vfs 999999 on LP lp1a",
          "func=200 voErrVldbRecordLookup, funcrc=119 (VLDB: record not found)"}},
        {"join while an operation uses the mirror id",
         {"mirror-join", id, "lp1a", lp2b, "other"},
         1,
         {"a recorded operation uses the mirror id",
          "funcrc=5022 (VOD: conflicts with existing VFS Copy operation)"}},
        {"join by the mirror id",
         {"mirror-join", std::to_string(m), "lp1a", "lp1b", "x"},
         2,
         {"is a mirror id"}},
        {"join under a name too long for vod",
         {"mirror-join", id, "lp1a", "lp1b", std::string(129, 'n')},
         2,
         {"NAME must have 1 to 128 characters"}},
        {"leave of no member",
         {"mirror-leave", id, "lp1b", "other"},
         1,
         {"LP lp1b holds no member of the group", "rc=15 voErrSinkVFSNotExist"}},
        {"leave under a name in use",
         {"mirror-leave", id, "lp2a", "gamma"},
         1,
         {"a volume named 'gamma' exists already"}},
    };
    const json before = vldb();
    for (const Case& c : cases) {
        r = node.voctl(c.args);
        EXPECT_EQ(r.status, c.status) << c.what << "\n" << r.out << r.err;
        for (const std::string& e : c.err)
            EXPECT_NE(r.err.find(e), std::string::npos) << c.what << ": " << e << "\n" << r.err;
        EXPECT_EQ(vldb(), before) << c.what;
    }
    r = node.voctl({"--json", "mirror-join", id, "lp1a", "lp2b", "other"});
    json j = json::parse(r.out);
    EXPECT_EQ(j["event"], "refused");
    EXPECT_EQ(j["funcrc"], 5022);
    EXPECT_EQ(j["decoded"], "VOD: conflicts with existing VFS Copy operation") << j;
    sim({"vodb-delete", std::to_string(busy)});

    // Never filled: the member only loses its record. By the mirror id this time.
    r = node.voctl({"--json", "mirror-leave", std::to_string(m), "lp2a", "gamma.left"});
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    j = json::parse(r.out);
    EXPECT_EQ(j["vfsid"], 0);
    EXPECT_EQ(j["dropped"], true);
    EXPECT_TRUE(vldbRecord(m, "lp2a").is_null());
    EXPECT_EQ(vldb(), json::array({source})) << "no record under the new name either";
}

// A filled member leaves as a volume of its own: voctl mirror registers it
// through vod and fills it, mirror-leave renumbers and renames it.
TEST_F(MirrorCliTest, AFilledMemberLeavesAsAVolumeOfItsOwn) {
    const uint32_t vid = makeVolume("delta", "lp1a", 4, 4096);
    ASSERT_NE(vid, 0u);
    const std::string id = std::to_string(vid);
    const uint32_t m = vid | kMirrorBit;
    Node::Result r = node.voctl({"mirror", "--interval", "0.2", id, "lp1a", "lp2a"});
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    ASSERT_EQ(vldbRecord(m, "lp2a")["name"], "delta@lp2a");
    const std::string data = checksum(m, "lp2a");

    r = node.voctl({"--json", "mirror-leave", id, "lp2a", "delta.snap"});
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    json j = json::parse(r.out);
    const uint32_t left = j["vfsid"].get<uint32_t>();
    EXPECT_NE(left, 0u);
    EXPECT_EQ(j["dropped"], false);
    const json rec = vldbRecord(left, "lp2a");
    EXPECT_EQ(rec["name"], "delta.snap");
    EXPECT_EQ(rec["typeName"], "ro");
    EXPECT_TRUE(vldbRecord(m, "lp2a").is_null());
    EXPECT_EQ(checksum(left, "lp2a"), data);
    expectVldbAgreesWithDblades();
}

// voctl ops groups a recorded mirror's records and names its destinations.
// The records are planted with vod down, so that it cannot take the
// operation up meanwhile; ops reads the VLDB and the D-blades alone.
TEST_F(MirrorCliTest, OpsNamesEachDestinationOfARecordedMirror) {
    killVod();
    const uint32_t src = 500, opSrc = 501, mirrorId = src | kMirrorBit;
    const uint64_t opid = addVodbRecord(0, "mirror", src, "lp1a", "src");
    const std::vector<std::tuple<uint32_t, std::string, std::string>> recs = {
        {opSrc, "lp1a", "opsrc"},   {502, "lp1a", "temp"},      {601, "lp2a", "opsink"},
        {mirrorId, "lp2a", "sink"}, {opSrc, "lp1a", "opsink"},  {mirrorId, "lp1a", "sink"},
        {opSrc, "lp2b", "opsink"},  {mirrorId, "lp2b", "sink"},
    };
    for (const auto& [vfsid, lp, role] : recs) addVodbRecord(opid, "mirror", vfsid, lp, role);
    addVodbRecord(0, "copy", 700, "lp1b", "src");  // not a mirror: no group

    Node::Result r = node.voctl({"--json", "ops"});
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    json j = json::parse(r.out);
    EXPECT_EQ(j["ops"].size(), recs.size() + 2);
    ASSERT_EQ(j["mirrors"].size(), 1u) << j;
    const json& mj = j["mirrors"][0];
    EXPECT_EQ(mj["opid"], opid);
    EXPECT_EQ(mj["vfsid"], src);
    EXPECT_EQ(mj["lpName"], "lp1a");
    EXPECT_EQ(mj["opSrcVfsid"], opSrc);
    EXPECT_EQ(mj["mirrorVfsid"], mirrorId);
    std::map<std::string, std::pair<uint32_t, bool>> got;  // LP name: op sink, local
    for (const json& d : mj["destinations"])
        got[d["lpName"].get<std::string>()] = {d["opSinkVfsid"], d["local"]};
    // The op src's id on another LP than the source's is an ordinary op sink.
    const std::map<std::string, std::pair<uint32_t, bool>> want = {
        {"lp2a", {601, false}}, {"lp1a", {opSrc, true}}, {"lp2b", {opSrc, false}}};
    EXPECT_EQ(got, want) << mj;

    r = node.voctl({"ops"});
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    const std::string head = "mirror opid " + std::to_string(opid) +
                             ": vfs 500 on LP lp1a, op src vfs 501, 3 destinations\n";
    // Each destination's row, up to its recovery column.
    for (const std::string& line : {head, "  lp1a         0x" + lpHex("lp1a") + "  501      yes ",
                                    "  lp2a         0x" + lpHex("lp2a") + "  601      no "})
        EXPECT_NE(r.out.find(line), std::string::npos) << line << "\n" << r.out;
}

}  // namespace
}  // namespace vodtest
