// The node's DLDB, coordinator and LP management as vod calls them, for the default
// layout and for one read from a configuration file; LPs made at run time.

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "coord.h"
#include "dblade_lpm.h"
#include "dldb_server.h"
#include "simtest.h"
#include "util/xdrproc.h"

using namespace simtest;

namespace {

struct LpEntry {
  std::vector<unsigned char> uuid;
  int state;
  std::string name;
  bool operator==(const LpEntry& o) const { return uuid == o.uuid && state == o.state && name == o.name; }
};

std::ostream& operator<<(std::ostream& o, const LpEntry& e) { return o << e.name << "/" << e.state; }

std::vector<unsigned char> lp(const unsigned char* u) { return std::vector<unsigned char>(u, u + 16); }

class NodeServicesTest : public SimTest {
 protected:
  // The LPs D-blade did lists as its own.
  std::vector<LpEntry> listLps(unsigned did = 1) {
    CLIENT* c = client(DBLADE_LPM_PROG, DBLADE_LPM_VERS, 10, dbladeAddress(did));
    XdrOut<LPGetAllOut> out(xdrProc(xdr_LPGetAllOut));
    u_int selector = 0;
    EXPECT_EQ(lp_list_all_1(&selector, &out.v, c), RPC_SUCCESS);
    EXPECT_EQ(out.v.status, 0);
    std::vector<LpEntry> lps;
    for (u_int i = 0; i < out.v.entries.entries_len; ++i) {
      const LPGetAllEntry& e = out.v.entries.entries_val[i];
      lps.push_back({lp(e.uuid), e.state, e.name});
    }
    return lps;
  }

  // DLDB name lookups: status and LP id / virtual server id.
  std::pair<int, std::vector<unsigned char>> lidByName(const char* name) {
    CLIENT* c = client(DLDB_PROG, DLDB_VERS);
    DldbGetLidRes res{};
    dldb_name_t n = const_cast<char*>(name);
    EXPECT_EQ(getlidbylpname_1(&n, &res, c), RPC_SUCCESS);
    return {res.status, lp(res.lid)};
  }
  std::pair<int, unsigned> vserverByName(const char* name) {
    CLIENT* c = client(DLDB_PROG, DLDB_VERS);
    DldbGetVserverIdRes res{};
    dldb_name_t n = const_cast<char*>(name);
    EXPECT_EQ(getvserveridbyname_1(&n, &res, c), RPC_SUCCESS);
    return {res.status, res.id};
  }
  // Coordinator: the node of a D-blade, then its addresses.
  std::pair<unsigned, std::string> nodeOf(unsigned did) {
    CLIENT* c = client(COORD_PROG, COORD_VERS);
    XdrOut<admin_attr_nodeInfo_t> out(xdrProc(xdr_admin_attr_nodeInfo_t));
    admin_2_getnode_1_argument arg{did};
    EXPECT_EQ(admin_2_getnode_1(&arg, &out.v, c), RPC_SUCCESS);
    return {out.v.status, out.v.nodeName ? out.v.nodeName : ""};
  }
  std::pair<unsigned, std::vector<unsigned>> addressesOf(const char* node) {
    CLIENT* c = client(COORD_PROG, COORD_VERS);
    XdrOut<admin_list_ips_t> out(xdrProc(xdr_admin_list_ips_t));
    admin_node_name_t n = const_cast<char*>(node);
    EXPECT_EQ(admin_2_listallips_1(&n, &out.v, c), RPC_SUCCESS);
    return {out.v.status, std::vector<unsigned>(out.v.ips.ips_val, out.v.ips.ips_val + out.v.ips.ips_len)};
  }
  std::vector<std::pair<unsigned, std::string>> dblades() {
    CLIENT* c = client(DLDB_PROG, DLDB_VERS);
    XdrOut<DldbIterateRes> out(xdrProc(xdr_DldbIterateRes));
    EXPECT_EQ(iterate_1(nullptr, &out.v, c), RPC_SUCCESS);
    EXPECT_EQ(out.v.status, DLDB_STATUS_OK);
    std::vector<std::pair<unsigned, std::string>> d;
    for (u_int i = 0; i < out.v.rec.rec_len; ++i) d.push_back({out.v.rec.rec_val[i].did, out.v.rec.rec_val[i].host.name});
    return d;
  }
};

using Dblades = std::vector<std::pair<unsigned, std::string>>;

TEST_F(NodeServicesTest, DefaultLayoutAsTheDldbAndCoordinatorAnswerIt) {
  EXPECT_EQ(dblades(), (Dblades{{1, "127.0.0.1"}, {2, "127.0.0.2"}}));
  EXPECT_EQ(lidByName("lp2b"), std::make_pair(0, lp(kLp2b)));
  EXPECT_EQ(lidByName("lp9").first, DLDB_STATUS_NOT_FOUND);
  EXPECT_EQ(lidByName("").first, DLDB_STATUS_NOT_FOUND);
  EXPECT_EQ(vserverByName("vs2"), std::make_pair(0, 2u));
  EXPECT_EQ(vserverByName("vs9").first, DLDB_STATUS_NOT_FOUND);

  EXPECT_EQ(nodeOf(2), std::make_pair(0u, std::string("node1")));
  EXPECT_NE(nodeOf(3).first, 0u);
  EXPECT_NE(nodeOf(0x10001).first, 0u) << "a D-blade id is 16 bits";
  auto [st, ips] = addressesOf("node1");
  EXPECT_EQ(st, 0u);
  ASSERT_FALSE(ips.empty());
  EXPECT_EQ(ips[0], 0x7F000001u) << "first octet in the high byte";
  ASSERT_GE(ips.size(), 2u);
  EXPECT_EQ(ips[1], 0x7F000002u) << "D-blade 2's address is the node's too";
  EXPECT_NE(addressesOf("node2").first, 0u);
}

// Each D-blade lists and describes its own LPs only.
TEST_F(NodeServicesTest, LpManagementListsStatesAndSizes) {
  EXPECT_EQ(listLps(1), (std::vector<LpEntry>{{lp(kLp1a), LP_STATUS_ONLINE, "lp1a"},
                                              {lp(kLp1b), LP_STATUS_ONLINE, "lp1b"}}));
  EXPECT_EQ(listLps(2), (std::vector<LpEntry>{{lp(kLp2a), LP_STATUS_ONLINE, "lp2a"},
                                              {lp(kLp2b), LP_STATUS_ONLINE, "lp2b"}}));
  ctl({"lp-state", "lp1b", "busy"});
  ctl({"lp-state", "020A0000000000000000000000000000", "3"});
  EXPECT_EQ(listLps(1).at(1).state, LP_STATUS_BUSY);
  EXPECT_EQ(listLps(2).at(0).state, LP_STATUS_WAITING_FOR_DISK);
  ctl({"lp-state", "lp9", "busy"}, /*expectOk=*/false);
  ctl({"lp-state", "lp1a", "sleepy"}, /*expectOk=*/false);

  // lp2b through D-blade 1 is as unknown as an LP that does not exist.
  CLIENT* one = client(DBLADE_LPM_PROG, DBLADE_LPM_VERS);
  XdrOut<LPGetAttrsOut> elsewhere(xdrProc(xdr_LPGetAttrsOut));
  ASSERT_EQ(lp_get_attrs_by_uuid_1(LpArg(kLp2b).b, &elsewhere.v, one), RPC_SUCCESS);
  EXPECT_EQ(elsewhere.v.status, 2);

  CLIENT* c = client(DBLADE_LPM_PROG, DBLADE_LPM_VERS, 10, dbladeAddress(2));
  XdrOut<LPGetAttrsOut> a(xdrProc(xdr_LPGetAttrsOut));
  ASSERT_EQ(lp_get_attrs_by_uuid_1(LpArg(kLp2b).b, &a.v, c), RPC_SUCCESS);
  ASSERT_EQ(a.v.status, 0);
  EXPECT_STREQ(a.v.attr.name, "lp2b");
  EXPECT_EQ(lp(a.v.attr.uuid), lp(kLp2b));
  EXPECT_EQ(a.v.attr.status, unsigned(LP_STATUS_ONLINE));
  EXPECT_EQ(a.v.attr.primaryDBladeId, 2u);
  EXPECT_EQ(a.v.attr.blockSize, 4096u);
  EXPECT_EQ(a.v.attr.sizeInBlocks, 262144u);
  // A fresh node holds no volumes.
  EXPECT_EQ(a.v.attr.spaceAvailableInBlocks, 262144u);
  EXPECT_EQ(a.v.attr.unreservedSpaceAvailableInBlocks, 262144u);

  XdrOut<LPGetAttrsOut> none(xdrProc(xdr_LPGetAttrsOut));
  unsigned char unknown[16] = {0x05};
  ASSERT_EQ(lp_get_attrs_by_uuid_1(unknown, &none.v, c), RPC_SUCCESS);
  EXPECT_NE(none.v.status, 0);
}

TEST_F(NodeServicesTest, LpsMadeAtRunTimeAreServedAndOutliveARestart) {
  std::string id = ctl({"lp-create", "lpx", "2", "64"});
  EXPECT_EQ(id, "02CC0000000000000000000000000001\n");
  ctl({"lp-create", "lpy", "1", "8", "AB000000000000000000000000000001"});
  ctl({"lp-create", "lpx", "1", "8"}, /*expectOk=*/false);
  ctl({"lp-create", "lpz", "9", "8"}, /*expectOk=*/false);
  ctl({"lp-state", "lpy", "formatting"});
  unsigned char lpy[16] = {0xAB, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01};
  for (bool restarted : {false, true}) {
    if (restarted) {
      dropClients();
      ASSERT_TRUE(sim->restart());
    }
    std::vector<LpEntry> lps = listLps(1);
    ASSERT_EQ(lps.size(), 3u) << (restarted ? "after a restart" : "");
    EXPECT_EQ(lps[2], (LpEntry{lp(lpy), LP_STATUS_FORMATTING, "lpy"}));
    ASSERT_EQ(listLps(2).size(), 3u);
    EXPECT_EQ(listLps(2)[2].name, "lpx");
    EXPECT_EQ(lidByName("lpy"), std::make_pair(0, lp(lpy)));
    CLIENT* c = client(DBLADE_LPM_PROG, DBLADE_LPM_VERS);
    XdrOut<LPGetAttrsOut> a(xdrProc(xdr_LPGetAttrsOut));
    ASSERT_EQ(lp_get_attrs_by_uuid_1(lpy, &a.v, c), RPC_SUCCESS);
    EXPECT_EQ(a.v.attr.sizeInBlocks, 8u * 256);
    EXPECT_EQ(a.v.attr.primaryDBladeId, 1u);
  }
}

TEST_F(NodeServicesTest, ControlToolListsTheLayout) {
  std::string lps = ctl({"lps", "--json"});
  EXPECT_NE(lps.find("{\"name\":\"lp1a\",\"lpid\":\"010A0000000000000000000000000000\",\"dblade\":1,\"state\":4"),
            std::string::npos)
      << lps;
  EXPECT_EQ(ctl({"dblades"}), "1 127.0.0.1 127.0.0.1\n2 127.0.0.2 127.0.0.2\n");
  EXPECT_EQ(ctl({"vservers"}), "1 vs1\n2 vs2\n");
  std::string help = ctl({"help"});
  for (const char* cmd : {"lps ", "lp-create ", "vldb ", "vodb ", "fault status ", "ping "})
    EXPECT_NE(help.find(cmd), std::string::npos) << cmd;
}

// A layout from a file: another node name, one D-blade named through the sandbox's hosts
// file, two LPs (one with its own id and state), one virtual server.
class ConfiguredNodeTest : public NodeServicesTest {
 protected:
  void SetUp() override {
    char path[] = "/tmp/vodsim-layout-XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    config = path;
    std::ofstream(config) << "# a small node\n"
                             "node   nodeA\n"
                             "dblade 7 dblade7   # the only D-blade\n"
                             "lp     data 7 16\n"
                             "lp     logs 7 4 0x11223344-5566-7788-99aa-bbccddeeff00 1\n"
                             "vserver 40 vsA\n";
    simArgs = {"--config", config};
    NodeServicesTest::SetUp();
  }
  void TearDown() override {
    NodeServicesTest::TearDown();
    std::remove(config.c_str());
  }
  std::string config;
};

TEST_F(ConfiguredNodeTest, ServesTheLayoutOfTheFile) {
  EXPECT_EQ(dblades(), (Dblades{{7, "dblade7"}}));
  EXPECT_EQ(ctl({"dblades"}), "7 dblade7 127.0.0.7\n");
  EXPECT_EQ(nodeOf(7), std::make_pair(0u, std::string("nodeA")));
  EXPECT_EQ(addressesOf("nodeA").first, 0u);
  unsigned char data[16] = {0x07, 0x0A};
  unsigned char logs[16] = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88,
                            0x99, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff, 0x00};
  EXPECT_EQ(listLps(7), (std::vector<LpEntry>{{lp(data), LP_STATUS_ONLINE, "data"},
                                             {lp(logs), LP_STATUS_FORMATTING, "logs"}}));
  EXPECT_EQ(vserverByName("vsA"), std::make_pair(0, 40u));
  EXPECT_EQ(vserverByName("vs1").first, DLDB_STATUS_NOT_FOUND);
}

TEST(VodsimStartTest, BadLayoutFileIsRefusedWithItsLine) {
  char path[] = "/tmp/vodsim-badlayout-XXXXXX";
  int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  close(fd);
  char dir[] = "/tmp/vodsim-baddir-XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  struct Case {
    const char* text;
    const char* says;
  };
  for (const Case& c : {Case{"dblade 1 127.0.0.1\nlp a 2 10\n", ":2: unknown D-blade 2"},
                        Case{"dblade 1 127.0.0.1\nlp a 1 ten\n", ":2: bad size ten"},
                        Case{"dblade 1 127.0.0.1\ndblade 1 g\n", ":2: D-blade 1 listed twice"},
                        Case{"dblade 1 127.0.0.1\ndblade 2 localhost\n",
                             ":2: D-blade 2 has the address of D-blade 1"},
                        Case{"dblade 1 no.such.host.invalid\n", ":1: host no.such.host.invalid"},
                        Case{"dblade 1 127.0.0.1\nlp a 1 1 0x12\n", ":2: bad LP id 0x12"},
                        Case{"node x\n", "no D-blade"},
                        Case{"disk 1\n", ":1: cannot parse"}}) {
    std::ofstream(path) << c.text;
    RunResult r = runProgram(VODSIM_BIN, {"--dir", dir, "--config", path}, 30);
    EXPECT_EQ(r.status, 1) << c.text;
    EXPECT_NE(r.err.find(c.says), std::string::npos) << c.text << " gave: " << r.err;
  }
  std::remove(path);
  runProgram("/bin/rm", {"-rf", dir});
}

}  // namespace
