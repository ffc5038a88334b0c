// The administration procedures on a node with the simulated cluster: what
// they do to the VLDB and the D-blades when they succeed, the code each
// failure answers, and that a failure half way leaves nothing behind.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>

#include "cluster_fixture.h"
#include "voerrors.h"

namespace vodtest {
namespace {

using nlohmann::json;

// Codes of the remote-call helpers: procedure byte, then the status range.
constexpr u_int kLookupNotFound = 0x01007737;   // vldb_record_lookup_3, VLDB 119
constexpr u_int kNotExactlyOne = 0x01819C4D;    // VodVldbFindVfs, 35000 + 5013
constexpr u_int kVfsDeleteFailed = 0x01829E34;  // VodVfsDelete, 35000 + 5500
constexpr u_int kLoopback = 0x7F000001;

u_int vldbCode(u_int procByte, u_int status) {
    return 0x01000000 | procByte << 16 | (30400 + status);
}
u_int dldbCode(u_int procByte, u_int status) {
    return 0x01000000 | procByte << 16 | (30600 + status);
}

json recordOf(const json& records, uint32_t vfsid) {
    for (const auto& r : records)
        if (r["vfsid"] == vfsid) return r;
    return json();
}

TEST_F(AdminTest, CreateFindCloneSetTypeAndDeleteChangeVldbAndDbladesAlike) {
    CreateVfsOut made = create("alpha", "lp1a", "vs1");
    ASSERT_EQ(made.code, 0u);
    const uint32_t alpha = made.vfsId;
    CreateVfsOut root = create("home", "lp1b", "vs2", 1);
    ASSERT_EQ(root.code, 0u);

    json rec = recordOf(vldb(), alpha);
    ASSERT_FALSE(rec.is_null());
    EXPECT_EQ(rec["name"], "alpha");
    EXPECT_EQ(rec["family"], "alpha");
    EXPECT_EQ(rec["lp"], "lp1a");
    EXPECT_EQ(rec["type"], 1);  // read-write
    EXPECT_EQ(rec["vserver"], 1);
    EXPECT_EQ(rec["isRoot"], 0);
    json home = recordOf(vldb(), root.vfsId);
    EXPECT_EQ(home["vserver"], 2);
    EXPECT_EQ(home["isRoot"], 1);
    EXPECT_EQ(volumeKeys(), (std::set<VolumeKey>{{"lp1a", alpha}, {"lp1b", root.vfsId}}));

    FindResult found = find("alpha");
    EXPECT_EQ(found.code, 0u);
    EXPECT_EQ(found.vfsid, alpha);
    EXPECT_EQ(found.modifiable, 1u);
    // The node's addresses: its own, then each D-blade's, then the others
    // of the sandbox's loopback.
    ASSERT_GE(found.addrs.size(), 2u);
    EXPECT_EQ(found.addrs[0], kLoopback);
    EXPECT_EQ(found.addrs[1], kLoopback + 1);

    CloneResult cl = clone(alpha);
    ASSERT_EQ(cl.code, 0u);
    EXPECT_NE(cl.vfsid, alpha);
    EXPECT_EQ(cl.name, "alpha.clone" + std::to_string(cl.vfsid));
    json crec = recordOf(vldb(), cl.vfsid);
    EXPECT_EQ(crec["type"], 3);  // clone
    EXPECT_EQ(crec["family"], "alpha");
    EXPECT_EQ(crec["lp"], "lp1a");
    EXPECT_EQ(find(cl.name).modifiable, 0u);

    // Read-only and back: the D-blade and the VLDB both change.
    VoOut out = setRo(alpha, "lp1a");
    EXPECT_EQ(out.rc, voErrRcSuccess) << out.func << " " << out.funcrc;
    EXPECT_EQ(recordOf(vldb(), alpha)["type"], 2);
    for (const auto& v : volumes()) {
        if (v.vfsid == alpha) {
            EXPECT_EQ(v.type, "ro");
        }
    }
    EXPECT_EQ(find("alpha").modifiable, 0u);
    out = setRw(alpha, "lp1a");
    EXPECT_EQ(out.rc, voErrRcSuccess) << out.func << " " << out.funcrc;
    EXPECT_EQ(recordOf(vldb(), alpha)["type"], 1);
    EXPECT_EQ(find("alpha").modifiable, 1u);

    // Each delete is a recorded operation that leaves the VODB empty.
    json before = json::parse(sim({"vodb", "--json"}));
    EXPECT_EQ(deleteByName(cl.name), 0u);
    EXPECT_EQ(deleteById(root.vfsId), 0u);
    out = vodelete(alpha, "lp1a");
    EXPECT_EQ(out.rc, voErrRcSuccess) << out.func << " " << out.funcrc;
    json after = json::parse(sim({"vodb", "--json"}));
    EXPECT_EQ(after["lastCreateOpid"].get<uint64_t>(),
              before["lastCreateOpid"].get<uint64_t>() + 3);
    EXPECT_TRUE(vldb().empty()) << vldb().dump();
    EXPECT_TRUE(volumes().empty());
}

TEST_F(AdminTest, DeletingAVolumeThatIsAlreadyGoneSucceeds) {
    // The D-blade answers 21 and the VLDB 105 for a volume that is not there:
    // both count as done, so a repeated delete is harmless.
    VoOut out = vodelete(4242, "lp1b");
    EXPECT_EQ(out.rc, voErrRcSuccess) << out.func << " " << out.funcrc;
}

TEST_F(AdminTest, LookupFailuresAnswerTheirCodes) {
    // Two volumes of one name (a read-only one beside a read-write one) and one
    // VFS id on two LPs, made behind vod's back so that they agree.
    const uint32_t twin = makeVolume("twin", "lp1a");
    sim({"vol-create", "4001", "lp2a", "twin"});
    sim({"vldb-add", "4001", "lp2a", "twin", "type", "ro"});
    sim({"vol-create", std::to_string(twin), "lp2b", "twin"});
    sim({"vldb-add", std::to_string(twin), "lp2b", "twin", "type", "ro"});

    struct Case {
        const char* what;
        std::function<u_int()> call;
        u_int code;
    };
    const Case cases[] = {
        {"find of a missing name", [&] { return find("nosuch").code; }, kLookupNotFound},
        {"delete of a missing name", [&] { return deleteByName("nosuch"); }, kLookupNotFound},
        {"delete of a missing id", [&] { return deleteById(4242); }, kLookupNotFound},
        {"clone of a missing id", [&] { return clone(4242).code; }, kNotExactlyOne},
        {"find of a name two volumes have", [&] { return find("twin").code; }, kNotExactlyOne},
        {"delete of a name two volumes have", [&] { return deleteByName("twin"); }, kNotExactlyOne},
        {"delete of an id on two LPs", [&] { return deleteById(twin); }, kNotExactlyOne},
        {"clone of an id on two LPs", [&] { return clone(twin).code; }, kNotExactlyOne},
        {"create on an unknown LP", [&] { return create("x", "nolp").code; }, dldbCode(0x40, 1)},
        {"create for an unknown virtual server", [&] { return create("x", "lp1a", "novs").code; },
         dldbCode(0x42, 1)},
    };
    const std::set<VolumeKey> before = volumeKeys();
    for (const Case& c : cases) EXPECT_EQ(c.call(), c.code) << c.what;
    // Nothing was changed on the way.
    EXPECT_EQ(volumeKeys(), before);
    EXPECT_EQ(vldbKeys(), before);
}

// A refusal by a remote service, injected in the simulator, and what the
// handler answers for it. Whatever step failed, nothing is left half made.
TEST_F(AdminTest, RefusalsAnswerTheirCodesAndUndoTheStepBefore) {
    const uint32_t base = makeVolume("base", "lp1b");
    const std::set<VolumeKey> before = volumeKeys();

    struct Case {
        const char* what;
        std::vector<std::string> fault;
        std::function<u_int()> call;
        u_int code;
    };
    const Case cases[] = {
        {"VLDB refuses the new record",
         {"status", "vldb_create_record", "133"},
         [&] { return create("c1", "lp1a").code; },
         0x01010000 | 133},
        {"D-blade refuses the new volume: its record goes again",
         {"status", "volcreate", "28"},
         [&] { return create("c2", "lp1a").code; },
         codeOf(VoProcDbladeVolCreate, 28)},
        {"VLDB has no VFS id left",
         {"status", "new_vfsid", "121"},
         [&] { return create("c3", "lp1a").code; },
         vldbCode(0x04, 121)},
        {"VLDB refuses the lookup of a name",
         {"status", "vldb_record_lookup", "133"},
         [&] { return deleteByName("base"); },
         vldbCode(0x00, 133)},
        {"VLDB refuses the lookup of the volume to clone",
         {"status", "vldb_record_lookup", "133"},
         [&] { return clone(base).code; },
         kNotExactlyOne},
        {"D-blade refuses the clone",
         {"status", "volclone", "28"},
         [&] { return clone(base).code; },
         codeOf(VoProcDbladeVolClone, 28)},
        {"VLDB refuses the clone's record: the clone is deleted again",
         {"status", "vldb_create_record", "141"},
         [&] { return clone(base).code; },
         0x01010000 | 141},
    };
    for (const Case& c : cases) {
        std::vector<std::string> f = c.fault;
        fault(f);
        EXPECT_EQ(c.call(), c.code) << c.what;
        fault({"clear"});
        EXPECT_EQ(volumeKeys(), before) << c.what;
        EXPECT_EQ(vldbKeys(), before) << c.what;
        EXPECT_TRUE(vodbRecords().empty()) << c.what;
    }

    // Set read-only with the D-blade refusing: the VLDB keeps the old type.
    fault({"status", "volsetattr", "5"});
    expectTriple(setRo(base, "lp1b"), voErrMakeVFS, voErrDbladeVolSetAttr, 5);
    EXPECT_EQ(recordOf(vldb(), base)["type"], 1);
}

// A find that fails after the name was found still gives the volume's id;
// whether it is writable is told only once its D-blade is known.
TEST_F(AdminTest, FindGivesTheVfsIdOnceTheNameIsFound) {
    const uint32_t base = makeVolume("base", "lp1b");
    struct Case {
        const char* what;
        std::vector<std::string> fault;
        u_int code, vfsid, modifiable;
    };
    // clang-format off
    const Case cases[] = {
        {"VLDB refuses the lookup of the name", {"status", "vldb_record_lookup", "133"},
         vldbCode(0x00, 133), 0, 0},
        {"VLDB does not convert the LP to its D-blade", {"status", "vldb_lp_convert", "133"},
         vldbCode(0x03, 133), base, 0},
        {"coordinator does not know the D-blade's node", {"status", "admin_2_getnode", "7"},
         codeOf(VoProcHAMgrAdmin2GetNode, VO_ERR_HAMGR_BASE + 7), base, 1},
    };
    // clang-format on
    for (const Case& c : cases) {
        fault(c.fault);
        FindResult r = find("base");
        fault({"clear"});
        EXPECT_EQ(r.code, c.code) << c.what;
        EXPECT_EQ(r.vfsid, c.vfsid) << c.what;
        EXPECT_EQ(r.modifiable, c.modifiable) << c.what;
        EXPECT_TRUE(r.addrs.empty()) << c.what;
    }
}

TEST_F(AdminTest, UnreachableDldbFailsTheCreateInTransport) {
    fault({"refuse", "dldb"});
    u_int code = create("x", "lp1a").code;
    // getlidbylpname_1 on a connection the DLDB reset: 30300 + the RPC status.
    EXPECT_EQ(code >> 16, 0x0140u) << std::hex << code;
    EXPECT_GE(code & 0xFFFF, VO_ERR_RPC_BASE + 1) << std::hex << code;
    EXPECT_LT(code & 0xFFFF, VO_ERR_VLDB_BASE) << std::hex << code;
    EXPECT_TRUE(vldb().empty());
    // The next attempt gets through.
    EXPECT_EQ(create("x", "lp1a").code, 0u);
}

TEST_F(AdminTest, DbladeAskingTwiceToCallAgainCostsTwoRetriesThenCreates) {
    fault({"status", "volcreate", "33", "2"});
    auto t0 = std::chrono::steady_clock::now();
    CreateVfsOut out = create("patient", "lp2a");
    double sec = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    EXPECT_EQ(out.code, 0u);
    EXPECT_EQ(callCount("volcreate"), 3u);
    EXPECT_GE(sec, 19.5) << "two 10-second waits";
    EXPECT_EQ(volumeKeys(), (std::set<VolumeKey>{{"lp2a", out.vfsId}}));
}

// Another recorded operation names the volume, in a role that resurrection
// ignores: the delete and the type changes are refused with that operation's
// busy code, and the volume is left alone.
TEST_F(AdminTest, VolumeUsedByARecordedOperationIsNotDeletedNorRetyped) {
    const uint32_t vol = makeVolume("busy", "lp1a");
    struct Case {
        const char* type;
        const char* role;
        u_int busyCode;
    };
    const Case cases[] = {
        {"copy", "sink", VOD_ERR_BUSY_COPY},          {"mirror", "opsink", VOD_ERR_BUSY_MIRROR},
        {"move", "temp", VOD_ERR_BUSY_MOVE},          {"finalmove", "sink", VOD_ERR_BUSY_MOVE},
        {"del", "sink", VOD_ERR_BUSY_DELETE},         {"vfsdump", "opsrc", VOD_ERR_BUSY_DUMP},
        {"vfsrestore", "sink", VOD_ERR_BUSY_RESTORE},
    };
    for (const Case& c : cases) {
        uint64_t opid = addVodbRecord(0, c.type, vol, "lp1a", c.role);
        expectTriple(vodelete(vol, "lp1a"), voErrValidate, voErrVodValidate, c.busyCode, c.type);
        VoOut out = setRo(vol, "lp1a");
        EXPECT_EQ(out.rc, voErrMakeVFS) << c.type;
        EXPECT_EQ(out.funcrc, c.busyCode) << c.type;
        EXPECT_EQ(deleteById(vol), kVfsDeleteFailed) << c.type;
        // Only the other operation's record is there: the refused deletes
        // recorded nothing.
        EXPECT_EQ(vodbRecords().size(), 1u) << c.type;
        sim({"vodb-delete", std::to_string(opid)});
    }
    EXPECT_EQ(volumeKeys(), (std::set<VolumeKey>{{"lp1a", vol}}));
    EXPECT_EQ(recordOf(vldb(), vol)["type"], 1);
}

// A volume on D-blade 2 is made through D-blade 2's address, and voctl find
// names that address among the node's.
TEST_F(AdminTest, VolumeOfTheSecondDbladeIsMadeThereAndFoundAtItsAddress) {
    CreateVfsOut out = create("far", "lp2a");
    ASSERT_EQ(out.code, 0u);
    EXPECT_EQ(callCount("volcreate", 2), 1u);
    EXPECT_EQ(callCount("volcreate", 1), 0u);
    Node::Result r = node.voctl({"--json", "find", "far"});
    ASSERT_EQ(r.status, 0) << r.err;
    json found = json::parse(r.out);
    EXPECT_EQ(found["vfsid"], out.vfsId);
    const json& addrs = found["addresses"];
    EXPECT_NE(std::find(addrs.begin(), addrs.end(), "127.0.0.2"), addrs.end()) << r.out;
}

// voctl end to end: LPs by name or id, results as text and JSON, failures
// with their code and decoded text and exit status 1.
TEST_F(AdminTest, VoctlRunsEachProcedureAndExplainsFailures) {
    Node::Result r = node.voctl({"--json", "create", "tool", "lp1b", "vs2"});
    ASSERT_EQ(r.status, 0) << r.err;
    uint32_t id = json::parse(r.out)["vfsid"];

    r = node.voctl({"find", "tool"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find(std::to_string(id)), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("127.0.0.1"), std::string::npos) << r.out;

    r = node.voctl({"--json", "clone", std::to_string(id)});
    ASSERT_EQ(r.status, 0) << r.err;
    uint32_t cloneId = json::parse(r.out)["cloneVfsid"];

    EXPECT_EQ(node.voctl({"set-ro", std::to_string(id), "lp1b"}).status, 0);
    EXPECT_EQ(node.voctl({"set-rw", std::to_string(id), lpHex("lp1b")}).status, 0);

    // A delete refused by another recorded operation: names beside numbers.
    uint64_t opid = addVodbRecord(0, "copy", id, "lp1b", "sink");
    r = node.voctl({"delete", std::to_string(id), "lp1b"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("voErrValidate"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("voErrVodValidate"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("5022"), std::string::npos) << r.err;
    r = node.voctl({"--json", "ops"});
    ASSERT_EQ(r.status, 0) << r.err;
    json ops = json::parse(r.out)["ops"];
    ASSERT_EQ(ops.size(), 1u);
    EXPECT_EQ(ops[0]["opid"], opid);
    EXPECT_EQ(ops[0]["typeName"], "copy");
    EXPECT_EQ(ops[0]["roleName"], "sink");
    EXPECT_EQ(ops[0]["vfsid"], id);
    sim({"vodb-delete", std::to_string(opid)});
    r = node.voctl({"ops"});
    EXPECT_NE(r.out.find("no operations"), std::string::npos) << r.out;

    // A code failure: the code and vod's decoding of it.
    r = node.voctl({"delete-by-name", "nosuch"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("0x01007737"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("(VLDB)"), std::string::npos) << r.err;
    r = node.voctl({"--json", "delete-by-id", "4242"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(json::parse(r.out)["code"], kLookupNotFound);
    // An LP name the DLDB does not know never reaches vod.
    r = node.voctl({"delete", std::to_string(id), "nolp"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("(DLDB)"), std::string::npos) << r.err;

    // A delete the D-blade refused stays recorded; purge drops the record and
    // leaves the volume as it is.
    fault({"status", "voldelete", "5"});
    EXPECT_EQ(node.voctl({"delete", std::to_string(id), "lp1b"}).status, 1);
    r = node.voctl({"--json", "ops"});
    ops = json::parse(r.out)["ops"];
    ASSERT_EQ(ops.size(), 1u) << r.out;
    EXPECT_EQ(ops[0]["typeName"], "del");
    EXPECT_EQ(node.voctl({"purge", std::to_string(ops[0]["opid"].get<uint64_t>())}).status, 0);
    EXPECT_TRUE(waitVodbCount(0, 10));
    EXPECT_TRUE(volumeKeys().count({"lp1b", id}));

    EXPECT_EQ(node.voctl({"delete-by-name", "tool.clone" + std::to_string(cloneId)}).status, 0);
    EXPECT_EQ(node.voctl({"delete", std::to_string(id), "lp1b"}).status, 0);
    EXPECT_TRUE(volumes().empty());
}

}  // namespace
}  // namespace vodtest
