// The VLDB program of the simulated node: VFS id allocation, record create, delete,
// modify and move, lookups by each mask, and durability across a restart.

#include <cstring>
#include <string>
#include <vector>

#include "simtest.h"
#include "util/xdrproc.h"
#include "vldb_server.h"

using namespace simtest;

namespace {

constexpr unsigned kMirrorBit = 0x40000000;
const unsigned char kZeroLp[16] = {};

struct Found {
  unsigned vfsid;
  std::string name;
  std::vector<unsigned char> lp;
  unsigned type;
  uint64_t dataVer;
};

class VldbTest : public SimTest {
 protected:
  void SetUp() override {
    SimTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    vldb = client(VLDB_PROG, VLDB_VERS);
    ASSERT_NE(vldb, nullptr);
  }

  int create(unsigned vfsid, const unsigned char* lp, const char* name, unsigned type = RW_VFS,
             uint64_t dataVer = 0) {
    rec_create_input in{};
    in.vfsid = vfsid;
    in.family = const_cast<char*>("fam");
    in.vfsname = const_cast<char*>(name);
    in.vfstype = type;
    std::memcpy(in.lp_uuid, lp, 16);
    in.dataVer = dataVer;
    int res = -1;
    EXPECT_EQ(vldb_create_record_3(&in, &res, vldb), RPC_SUCCESS);
    return res;
  }

  int remove(unsigned vfsid, const unsigned char* lp) {
    rec_delete_input in{};
    in.vfsid = vfsid;
    std::memcpy(in.lp_uuid, lp, 16);
    int res = -1;
    EXPECT_EQ(vldb_delete_record_3(&in, &res, vldb), RPC_SUCCESS);
    return res;
  }

  // Lookup with the given mask; status in *status.
  std::vector<Found> lookup(unsigned mask, unsigned vfsid, const unsigned char* lp, const char* name,
                            unsigned* status) {
    vldb_record_lookup_input in{};
    in.input_mask = mask;
    in.r.vfsid = vfsid;
    in.r.family = const_cast<char*>("");
    in.r.vfsname = const_cast<char*>(name);
    std::memcpy(in.r.lp_uuid, lp, 16);
    XdrOut<vldb_record_lookup_result> out(xdrProc(xdr_vldb_record_lookup_result));
    EXPECT_EQ(vldb_record_lookup_3(&in, &out.v, vldb), RPC_SUCCESS);
    *status = out.v.result;
    std::vector<Found> found;
    for (u_int i = 0; i < out.v.r.r_len; ++i) {
      const Rec& r = out.v.r.r_val[i];
      found.push_back({r.vfsid, r.vfsname, std::vector<unsigned char>(r.lp_uuid, r.lp_uuid + 16), r.vfstype,
                       r.dataVer});
    }
    return found;
  }

  std::vector<Found> byId(unsigned vfsid, unsigned* status) { return lookup(VFS_ID, vfsid, kZeroLp, "", status); }

  unsigned newId() {
    new_vfsid_result res{};
    EXPECT_EQ(new_vfsid_3(nullptr, &res, vldb), RPC_SUCCESS);
    EXPECT_EQ(res.result, 0u);
    return res.newvfsid;
  }

  int modify(unsigned mask, unsigned vfsid, const unsigned char* lp, const Rec& newrec) {
    vldb_record_modify_input in{};
    in.input_mask = mask;
    in.vfsid = vfsid;
    std::memcpy(in.lp_uuid, lp, 16);
    in.newrec = newrec;
    if (!in.newrec.family) in.newrec.family = const_cast<char*>("");
    if (!in.newrec.vfsname) in.newrec.vfsname = const_cast<char*>("");
    int res = -1;
    EXPECT_EQ(vldb_record_modify_3(&in, &res, vldb), RPC_SUCCESS);
    return res;
  }

  CLIENT* vldb = nullptr;
};

std::vector<unsigned> idsOf(const std::vector<Found>& f) {
  std::vector<unsigned> ids;
  for (const Found& x : f) ids.push_back(x.vfsid);
  return ids;
}

std::vector<unsigned char> lpOf(const unsigned char* lp) { return std::vector<unsigned char>(lp, lp + 16); }

TEST_F(VldbTest, NewVfsidIsMonotonicSkipsIdsInUseAndOutlivesACrash) {
  unsigned a = newId(), b = newId();
  EXPECT_NE(a, 0u);
  EXPECT_GT(b, a);
  EXPECT_EQ(a & kMirrorBit, 0u);
  // The next two candidates are taken: one as a volume, one as the mirror id of a volume.
  ASSERT_EQ(create(b + 1, kLp1a, "taken"), 0);
  ASSERT_EQ(create((b + 2) | kMirrorBit, kLp1b, "taken.mirror", RO_VFS), 0);
  unsigned c = newId();
  EXPECT_EQ(c, b + 3);

  dropClients();
  ASSERT_TRUE(sim->restart(/*crash=*/true));
  vldb = client(VLDB_PROG, VLDB_VERS);
  EXPECT_GT(newId(), c) << "an id handed out before the crash came back";
}

// Records: 2001 alpha (rw, lp1a), 2002 beta (rw, lp2a), 2003 alpha.clone (clone, lp1a),
// and the mirror id of 2001 on lp1b and lp2b.
TEST_F(VldbTest, LookupByEachMask) {
  const unsigned mirror = 2001 | kMirrorBit;
  ASSERT_EQ(create(2001, kLp1a, "alpha"), 0);
  ASSERT_EQ(create(2002, kLp2a, "beta"), 0);
  ASSERT_EQ(create(2003, kLp1a, "alpha.clone", CLONE), 0);
  ASSERT_EQ(create(mirror, kLp1b, "alpha.ro", RO_VFS), 0);
  ASSERT_EQ(create(mirror, kLp2b, "alpha.ro", RO_VFS), 0);

  struct Case {
    const char* what;
    unsigned mask;
    unsigned vfsid;
    const unsigned char* lp;
    const char* name;
    unsigned status;
    std::vector<unsigned> ids;
  };
  const Case cases[] = {
      {"by id", VFS_ID, 2002, kZeroLp, "", 0, {2002}},
      {"by id and LP", VFS_ID | VFS_LP, 2001, kLp1a, "", 0, {2001}},
      {"by id on another LP", VFS_ID | VFS_LP, 2001, kLp2a, "", 119, {}},
      {"by name", VFS_NAME, 0, kZeroLp, "beta", 0, {2002}},
      {"by LP", VFS_LP, 0, kLp1a, "", 0, {2001, 2003}},
      {"by LP and type", VFS_LP | VFS_CLONE_FLAG, 0, kLp1a, "", 0, {2003}},
      {"all", ALL_RECORDS, 0, kZeroLp, "", 0, {2001, 2002, 2003, mirror, mirror}},
      {"mirror id: one per LP", VFS_ID, mirror, kZeroLp, "", 0, {mirror, mirror}},
      {"mirror id on one LP", VFS_ID | VFS_LP, mirror, kLp2b, "", 0, {mirror}},
      {"unknown id", VFS_ID, 9999, kZeroLp, "", 119, {}},
      {"unknown name", VFS_NAME, 0, kZeroLp, "nope", 119, {}},
      {"no key", NULL_RECORD, 2001, kZeroLp, "", 111, {}},
  };
  for (const Case& c : cases) {
    unsigned st = 0;
    std::vector<Found> f = lookup(c.mask, c.vfsid, c.lp, c.name, &st);
    EXPECT_EQ(st, c.status) << c.what;
    EXPECT_EQ(idsOf(f), c.ids) << c.what;
  }
  unsigned st;
  std::vector<Found> mirrors = byId(mirror, &st);
  ASSERT_EQ(mirrors.size(), 2u);
  EXPECT_EQ(mirrors[0].lp, lpOf(kLp1b));
  EXPECT_EQ(mirrors[1].lp, lpOf(kLp2b));
}

TEST_F(VldbTest, CreateAndDeleteRefuseWhatAVldbWould) {
  unsigned char unknownLp[16] = {0x09, 0x09};
  EXPECT_EQ(create(3001, kLp1a, "one"), 0);
  EXPECT_EQ(create(3001, kLp1a, "one"), 103) << "the same id on the same LP twice";
  EXPECT_EQ(create(3002, kLp1b, "one"), 101) << "a second read-write volume of that name";
  EXPECT_EQ(create(3002, kLp1b, "one", CLONE), 0) << "a clone may carry its source's name";
  EXPECT_EQ(create(3003, unknownLp, "three"), 110);
  EXPECT_EQ(create(0, kLp1a, "zero"), 105);
  EXPECT_EQ(create(3004, kLp1a, ""), 102);
  EXPECT_EQ(create(3005, kLp1a, "five", 7), 106);

  EXPECT_EQ(remove(3001, kLp2a), 105) << "no record of that id on that LP";
  EXPECT_EQ(remove(3001, kLp1a), 0);
  EXPECT_EQ(remove(3001, kLp1a), 105) << "deleted already";
  unsigned st;
  EXPECT_TRUE(byId(3001, &st).empty());
  EXPECT_EQ(create(3001, kLp2a, "one"), 0) << "the name is free again";
}

TEST_F(VldbTest, ModifyChangesOnlyTheFieldsTheMaskNames) {
  const unsigned mirror = 4001 | kMirrorBit;
  ASSERT_EQ(create(4001, kLp1a, "src", RW_VFS, 5), 0);
  ASSERT_EQ(create(mirror, kLp1b, "src.ro", RO_VFS, 5), 0);
  ASSERT_EQ(create(mirror, kLp2a, "src.ro", RO_VFS, 5), 0);
  ASSERT_EQ(create(4002, kLp2b, "other"), 0);
  unsigned st;

  // One member of the mirror group, named by id and LP, changes alone.
  Rec one{};
  one.dataVer = 6;
  one.vfsname = const_cast<char*>("src.ro.2");
  EXPECT_EQ(modify(VFS_DATAVER | VFS_NAME, mirror, kLp2a, one), 0);
  std::vector<Found> members = byId(mirror, &st);
  ASSERT_EQ(members.size(), 2u);
  EXPECT_EQ(members[0].lp, lpOf(kLp1b));
  EXPECT_EQ(members[0].dataVer, 5u);
  EXPECT_EQ(members[0].name, "src.ro");
  EXPECT_EQ(members[1].dataVer, 6u);
  EXPECT_EQ(members[1].name, "src.ro.2");

  // A type change by VFS id alone (LP all zeros) reaches every record of that id.
  Rec nr{};
  nr.vfstype = RW_VFS;
  nr.vfsname = const_cast<char*>("ignored");
  EXPECT_EQ(modify(VFS_RW_FLAG, mirror, kZeroLp, nr), 0);
  std::vector<Found> changed = byId(mirror, &st);
  ASSERT_EQ(changed.size(), members.size());
  for (size_t i = 0; i < changed.size(); ++i) {
    EXPECT_EQ(changed[i].type, unsigned(RW_VFS));
    EXPECT_EQ(changed[i].name, members[i].name) << "the name was not in the mask";
    EXPECT_EQ(changed[i].dataVer, members[i].dataVer);
  }

  // Renumber and rename one record.
  nr = Rec{};
  nr.vfsid = 4003;
  nr.vfsname = const_cast<char*>("renamed");
  EXPECT_EQ(modify(VFS_ID | VFS_NAME, 4001, kLp1a, nr), 0);
  EXPECT_TRUE(byId(4001, &st).empty());
  std::vector<Found> f = byId(4003, &st);
  ASSERT_EQ(f.size(), 1u);
  EXPECT_EQ(f[0].name, "renamed");
  EXPECT_EQ(f[0].lp, lpOf(kLp1a));

  nr.vfsid = 4002;
  EXPECT_EQ(modify(VFS_ID, 4003, kLp1a, nr), 0) << "4002 lives on another LP only";
  nr.vfsname = const_cast<char*>("src.ro");
  EXPECT_EQ(modify(VFS_NAME, 4002, kLp1a, nr), 101) << "the mirror id's records are read-write now";
  EXPECT_EQ(modify(VFS_NAME, 7777, kLp1a, nr), 119);
  EXPECT_EQ(modify(0, 4002, kLp1a, nr), 111);

  vldb_modify_dataVer_input dv{};
  dv.vfsid = 4002;
  std::memcpy(dv.lp_uuid, kLp2b, 16);
  dv.dataVer = 0x123456789ull;
  int res = -1;
  ASSERT_EQ(vldb_modify_dataver_3(&dv, &res, vldb), RPC_SUCCESS);
  EXPECT_EQ(res, 0);
  f = lookup(VFS_ID | VFS_LP, 4002, kLp2b, "", &st);
  ASSERT_EQ(f.size(), 1u);
  EXPECT_EQ(f[0].dataVer, 0x123456789ull);
  dv.vfsid = 5555;
  ASSERT_EQ(vldb_modify_dataver_3(&dv, &res, vldb), RPC_SUCCESS);
  EXPECT_EQ(res, 119);
}

TEST_F(VldbTest, MoveAndLpConvert) {
  ASSERT_EQ(create(5001, kLp1a, "mover"), 0);
  ASSERT_EQ(create(5001 | kMirrorBit, kLp2b, "mover.ro", RO_VFS), 0);
  vldb_vfs_move_input mv{};
  mv.vfsid = 5001;
  std::memcpy(mv.oldlp, kLp1a, 16);
  std::memcpy(mv.newlp, kLp2a, 16);
  int res = -1;
  ASSERT_EQ(vldb_vfs_move_3(&mv, &res, vldb), RPC_SUCCESS);
  EXPECT_EQ(res, 0);
  unsigned st;
  std::vector<Found> f = byId(5001, &st);
  ASSERT_EQ(f.size(), 1u);
  EXPECT_EQ(f[0].lp, lpOf(kLp2a));
  ASSERT_EQ(vldb_vfs_move_3(&mv, &res, vldb), RPC_SUCCESS);
  EXPECT_EQ(res, 119) << "nothing left on the old LP";

  struct Case {
    const unsigned char* lp;
    unsigned status;
    unsigned short did;
  };
  unsigned char unknownLp[16] = {0x07};
  for (const Case& c : {Case{kLp1a, 0, 1}, Case{kLp1b, 0, 1}, Case{kLp2a, 0, 2}, Case{kLp2b, 0, 2},
                        Case{unknownLp, 110, 0}}) {
    vldb_lp_convert_result out{};
    ASSERT_EQ(vldb_lp_convert_3(LpArg(c.lp).b, &out, vldb), RPC_SUCCESS);
    EXPECT_EQ(out.result, c.status);
    if (c.status == 0) {
      EXPECT_EQ(out.dblade_id, c.did);
    }
  }
}

TEST_F(VldbTest, RecordsSurviveARestartAndACrash) {
  ASSERT_EQ(create(6001, kLp1a, "durable", RW_VFS, 42), 0);
  ASSERT_EQ(create(6002, kLp2b, "short-lived"), 0);
  ASSERT_EQ(remove(6002, kLp2b), 0);
  for (bool crash : {false, true}) {
    dropClients();
    ASSERT_TRUE(sim->restart(crash));
    vldb = client(VLDB_PROG, VLDB_VERS);
    unsigned st;
    std::vector<Found> f = byId(6001, &st);
    ASSERT_EQ(f.size(), 1u) << (crash ? "after a crash" : "after a restart");
    EXPECT_EQ(f[0].name, "durable");
    EXPECT_EQ(f[0].dataVer, 42u);
    EXPECT_TRUE(byId(6002, &st).empty());
  }
}

TEST_F(VldbTest, ControlToolListsAndEditsRecords) {
  ctl({"vldb-add", "7001", "lp2a", "from-ctl", "type", "ro", "dataver", "9"});
  unsigned st;
  std::vector<Found> f = byId(7001, &st);
  ASSERT_EQ(f.size(), 1u);
  EXPECT_EQ(f[0].type, unsigned(RO_VFS));
  EXPECT_EQ(f[0].dataVer, 9u);
  ctl({"vldb-set", "7001", "020A0000000000000000000000000000", "name", "edited"});
  std::string json = ctl({"vldb", "7001", "--json"});
  EXPECT_NE(json.find("\"name\":\"edited\""), std::string::npos) << json;
  EXPECT_NE(json.find("\"lpid\":\"020A0000000000000000000000000000\""), std::string::npos) << json;
  ctl({"vldb-add", "7001", "lp2a", "again"}, /*expectOk=*/false);
  ctl({"vldb-delete", "7001", "lp2a"});
  EXPECT_TRUE(byId(7001, &st).empty());
}

}  // namespace
