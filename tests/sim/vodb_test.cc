// The VODB table of the simulated node: operation ids, records per operation, the last
// created and last deleted ids that vod's cache compares, and durability.

#include <cstring>
#include <vector>

#include "simtest.h"
#include "util/xdrproc.h"
#include "vldb_server.h"

using namespace simtest;

namespace {

enum { COPY = 1, MIRROR = 2, MOVE = 3, FINALMOVE = 4, DEL = 5 };
enum { SRC = 1, SINK = 2, OPSRC = 3, OPSINK = 4, TEMP = 5 };

struct R {
  uint64_t opid;
  int optype;
  unsigned vfsid;
  int role;
  bool operator==(const R& o) const {
    return opid == o.opid && optype == o.optype && vfsid == o.vfsid && role == o.role;
  }
};

std::ostream& operator<<(std::ostream& o, const R& r) {
  return o << "{opid " << r.opid << " type " << r.optype << " vfsid " << r.vfsid << " role " << r.role << "}";
}

vodbRec wire(int optype, unsigned vfsid, int role, uint64_t opid = 0) {
  vodbRec w{};
  w.opid = opid;
  w.optype = optype;
  w.vfsid = vfsid;
  std::memcpy(w.lp_uuid, kLp1a, 16);
  w.vfsrole = role;
  return w;
}

class VodbTest : public SimTest {
 protected:
  void SetUp() override {
    SimTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    vldb = client(VLDB_PROG, VLDB_VERS);
    ASSERT_NE(vldb, nullptr);
  }

  // vodb_create2; the answered opid in *opid.
  int create2(uint64_t opid, std::vector<vodbRec> recs, uint64_t* out) {
    vodb_create2_input in{};
    in.new_create_opid = opid;
    in.rec.rec_len = static_cast<u_int>(recs.size());
    in.rec.rec_val = recs.data();
    vodb_create2_result res{};
    EXPECT_EQ(vodb_create2_3(&in, &res, vldb), RPC_SUCCESS);
    *out = res.out_create_opid;
    return res.result;
  }

  int add(uint64_t opid, bool check, std::vector<vodbRec> recs) {
    vodb_create_input in{};
    in.new_create_opid = opid;
    in.check_opids = check;
    in.rec.rec_len = static_cast<u_int>(recs.size());
    in.rec.rec_val = recs.data();
    int res = -1;
    EXPECT_EQ(vodb_create_3(&in, &res, vldb), RPC_SUCCESS);
    return res;
  }

  int removeOp(uint64_t opid) {
    int res = -1;
    EXPECT_EQ(vodb_delete_by_opid_3(&opid, &res, vldb), RPC_SUCCESS);
    return res;
  }

  int updateType(uint64_t opid, int optype) {
    vodb_update_optype_input in{opid, optype};
    int res = -1;
    EXPECT_EQ(vodb_update_optype_by_opid_3(&in, &res, vldb), RPC_SUCCESS);
    return res;
  }

  // vodb_opid_lookup: status, last created, last deleted.
  std::vector<uint64_t> lastIds() {
    vodb_opid_lookup_result res{};
    EXPECT_EQ(vodb_opid_lookup_3(nullptr, &res, vldb), RPC_SUCCESS);
    return {static_cast<uint64_t>(res.result), res.last_create_opid, res.last_delete_opid};
  }

  // vodb_lookup: the records; status and ids in *head.
  std::vector<R> table(std::vector<uint64_t>* head = nullptr) {
    XdrOut<vodb_lookup_result> out(xdrProc(xdr_vodb_lookup_result));
    EXPECT_EQ(vodb_lookup_3(nullptr, &out.v, vldb), RPC_SUCCESS);
    if (head) *head = {static_cast<uint64_t>(out.v.result), out.v.last_create_opid, out.v.last_delete_opid};
    std::vector<R> recs;
    for (u_int i = 0; i < out.v.rec.rec_len; ++i) {
      const vodbRec& w = out.v.rec.rec_val[i];
      recs.push_back({w.opid, w.optype, w.vfsid, w.vfsrole});
    }
    return recs;
  }

  CLIENT* vldb = nullptr;
};

using Ids = std::vector<uint64_t>;

TEST_F(VodbTest, EmptyTableAnswers135AndAnEmptyLookup) {
  EXPECT_EQ(lastIds(), (Ids{135, 0, 0}));
  Ids head;
  EXPECT_TRUE(table(&head).empty());
  EXPECT_EQ(head, (Ids{0, 0, 0}));
}

TEST_F(VodbTest, Create2AllocatesIdsAndTheLastIdsFollowCreatesAndDeletes) {
  uint64_t a = 0, b = 0;
  ASSERT_EQ(create2(0, {wire(COPY, 10, SRC), wire(COPY, 11, SINK), wire(COPY, 12, OPSRC)}, &a), 0);
  EXPECT_NE(a, 0u);
  EXPECT_EQ(lastIds(), (Ids{0, a, 0}));
  ASSERT_EQ(create2(0, {wire(DEL, 20, SRC)}, &b), 0);
  EXPECT_GT(b, a);
  EXPECT_EQ(lastIds(), (Ids{0, b, 0}));

  Ids head;
  std::vector<R> recs = table(&head);
  EXPECT_EQ(head, (Ids{0, b, 0}));
  // Records come back in the order they were written, each under its operation's id
  // whatever id the caller put in the record itself.
  EXPECT_EQ(recs, (std::vector<R>{{a, COPY, 10, SRC}, {a, COPY, 11, SINK}, {a, COPY, 12, OPSRC}, {b, DEL, 20, SRC}}));

  ASSERT_EQ(removeOp(a), 0);
  EXPECT_EQ(lastIds(), (Ids{0, b, a}));
  EXPECT_EQ(table(), (std::vector<R>{{b, DEL, 20, SRC}}));

  uint64_t c = 0, ignored;
  EXPECT_EQ(create2(b, {wire(COPY, 30, SRC)}, &ignored), 144) << "b is in use";
  ASSERT_EQ(create2(b + 100, {wire(COPY, 30, SRC)}, &c), 0);
  EXPECT_EQ(c, b + 100) << "a caller's own id is kept";
  ASSERT_EQ(create2(0, {wire(COPY, 31, SRC)}, &c), 0);
  EXPECT_GT(c, b + 100) << "allocation goes on above ids given by callers";
  EXPECT_EQ(create2(0, {}, &ignored), 113) << "an operation without records";

  ASSERT_EQ(removeOp(b), 0);
  ASSERT_EQ(removeOp(b + 100), 0);
  ASSERT_EQ(removeOp(c), 0);
  EXPECT_EQ(lastIds(), (Ids{135, 0, 0})) << "empty again";
  uint64_t d = 0;
  ASSERT_EQ(create2(0, {wire(COPY, 40, SRC)}, &d), 0);
  EXPECT_GT(d, c) << "ids are not reused once the table was empty";
}

TEST_F(VodbTest, CreateAddsToAnOperationAndUpdateChangesItsType) {
  uint64_t op = 0;
  ASSERT_EQ(create2(0, {wire(MOVE, 50, SRC), wire(MOVE, 51, SINK)}, &op), 0);
  EXPECT_EQ(add(op, true, {wire(MOVE, 52, OPSRC)}), 0);
  EXPECT_EQ(add(op, true, {wire(MOVE, 53, OPSRC, op)}), 0) << "the record may carry the operation's id";
  EXPECT_EQ(add(op, true, {wire(MOVE, 54, OPSRC, op + 1)}), 146) << "but not another one";
  EXPECT_EQ(add(op + 7, true, {wire(MOVE, 55, OPSRC)}), 145) << "no such operation";
  EXPECT_EQ(add(0, false, {wire(MOVE, 56, OPSRC)}), 146);
  EXPECT_EQ(add(op + 7, false, {wire(COPY, 57, SRC)}), 0) << "unchecked: a new operation";

  ASSERT_EQ(updateType(op, FINALMOVE), 0);
  EXPECT_EQ(updateType(op + 8, FINALMOVE), 145);
  EXPECT_EQ(table(), (std::vector<R>{{op, FINALMOVE, 50, SRC},
                                     {op, FINALMOVE, 51, SINK},
                                     {op, FINALMOVE, 52, OPSRC},
                                     {op, FINALMOVE, 53, OPSRC},
                                     {op + 7, COPY, 57, SRC}}));
  EXPECT_EQ(removeOp(op + 9), 145);
  EXPECT_EQ(removeOp(0), 146);
}

TEST_F(VodbTest, TableAndIdsSurviveACrash) {
  uint64_t a = 0, b = 0;
  ASSERT_EQ(create2(0, {wire(MIRROR, 60, SRC), wire(MIRROR, 61, TEMP)}, &a), 0);
  ASSERT_EQ(create2(0, {wire(COPY, 62, SRC)}, &b), 0);
  ASSERT_EQ(removeOp(b), 0);

  dropClients();
  ASSERT_TRUE(sim->restart(/*crash=*/true));
  vldb = client(VLDB_PROG, VLDB_VERS);
  EXPECT_EQ(lastIds(), (Ids{0, b, b}));
  EXPECT_EQ(table(), (std::vector<R>{{a, MIRROR, 60, SRC}, {a, MIRROR, 61, TEMP}}));
  uint64_t c = 0;
  ASSERT_EQ(create2(0, {wire(COPY, 63, SRC)}, &c), 0);
  EXPECT_GT(c, b);
}

TEST_F(VodbTest, ControlToolShowsAndEditsTheTable) {
  std::string opid = ctl({"vodb-add", "0", "mirror", "70", "lp2b", "opsink"});
  ASSERT_FALSE(opid.empty());
  std::vector<R> recs = table();
  ASSERT_EQ(recs.size(), 1u);
  EXPECT_EQ(recs[0], (R{std::stoull(opid), MIRROR, 70, OPSINK}));
  std::string json = ctl({"vodb", "--json"});
  EXPECT_NE(json.find("\"roleName\":\"opsink\""), std::string::npos) << json;
  EXPECT_NE(json.find("\"lp\":\"lp2b\""), std::string::npos) << json;
  ctl({"vodb-delete", opid.substr(0, opid.find('\n'))});
  EXPECT_EQ(lastIds()[0], 135u);
}

}  // namespace
