#include "vorpccalls.h"

#include <dirent.h>
#include <errno.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "coord.h"
#include "dldb_server.h"
#include "fake_rpc_server.h"
#include "util/tarn_clnt_create.h"
#include "vldb_lit.h"
#include "vodldb.h"
#include "vorpcclient.h"

namespace {

using Action = FakeRpcServer::Action;

// What the tested helpers asked to sleep; they run on the test's thread.
std::vector<unsigned> gSlept;
void recordSleep(unsigned s) { gSlept.push_back(s); }

// Close makes the client see the connection end: RPC_CANTRECV.
constexpr unsigned kCut = RPC_CANTRECV;

unsigned composite(unsigned proc, unsigned low) { return 0x01000000u | (proc << 16) | low; }

// A scripted reply: the status to answer, or an action instead of a reply,
// after an optional delay (a slow server).
struct Step {
    unsigned status;
    Action action;
    int delayMs;
};
Step st(unsigned s) { return {s, FakeRpcServer::Reply, 0}; }
Step late(unsigned s, int ms) { return {s, FakeRpcServer::Reply, ms}; }
const Step kCutStep = {0, FakeRpcServer::Close, 0};

// Answers the script's steps in turn, then success.
class Script {
  public:
    void set(std::vector<Step> steps) {
        std::lock_guard<std::mutex> g(_m);
        _steps.assign(steps.begin(), steps.end());
    }
    Step next() {
        std::lock_guard<std::mutex> g(_m);
        if (_steps.empty()) return st(0);
        Step s = _steps.front();
        _steps.pop_front();
        return s;
    }

  private:
    std::mutex _m;
    std::deque<Step> _steps;
};

const unsigned char kLid[16] = {0xAB, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 0xCD};

class VoRpcCallsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        gSlept.clear();
        VoRpcCalls::setSleepForTest(recordSleep);
        VoDldb::initialize();
        serveVldb();
        serveDldb();
        serveDblade();
        serveCoord();
        reconnect();
    }
    void TearDown() override {
        VoRpcCalls::setSleepForTest(nullptr);
        VoDldb::destroy();
    }

    // Clients die with the connection a Close step cuts: make them afresh.
    void reconnect() {
        vldbClnt.clntdestroy();
        dldbClnt.clntdestroy();
        volClnt.clntdestroy();
        ASSERT_EQ(0u, vldbClnt.clnttcp_create("127.0.0.1", VLDB_PROG, VLDB_VERS));
        ASSERT_EQ(0u, dldbClnt.clnttcp_create("127.0.0.1", DLDB_PROG, DLDB_VERS));
        ASSERT_EQ(0u, volClnt.clnttcp_create("127.0.0.1", DBLADE_VOL_PROG, DBLADE_VOL_VERS));
    }

    void serveVldb() {
        vldb.on<vldb_record_lookup_input, vldb_record_lookup_result>(
            VLDB_RECORD_LOOKUP, xdr_vldb_record_lookup_input, xdr_vldb_record_lookup_result,
            [this](vldb_record_lookup_input& in, vldb_record_lookup_result& out) {
                Step s = lookup.next();
                lastMask = in.input_mask;
                lastName = in.r.vfsname ? in.r.vfsname : "";
                lastId = in.r.vfsid;
                out.result = s.status;
                out.r.r_len = static_cast<u_int>(records.size());
                out.r.r_val = records.data();
                return s.action;
            });
        vldb.on<tarn_uuid_t, vldb_lp_convert_result>(
            VLDB_LP_CONVERT, xdr_tarn_uuid_t, xdr_vldb_lp_convert_result,
            [this](tarn_uuid_t& lid, vldb_lp_convert_result& out) {
                Step s = convert.next();
                out.result = s.status;
                out.dblade_id = std::memcmp(lid, kLid, 16) == 0 ? 33 : 99;
                return s.action;
            });
        vldb.onVoid<new_vfsid_result>(NEW_VFSID, xdr_new_vfsid_result,
                                      [this](new_vfsid_result& out) {
                                          Step s = newId.next();
                                          out.result = s.status;
                                          out.newvfsid = 4242;
                                          return s.action;
                                      });
    }

    void serveDldb() {
        dldb.on<dldb_name_t, DldbGetLidRes>(GETLIDBYLPNAME, xdr_dldb_name_t, xdr_DldbGetLidRes,
                                            [this](dldb_name_t&, DldbGetLidRes& out) {
                                                Step s = lpName.next();
                                                out.status = static_cast<DldbStatus>(s.status);
                                                std::memcpy(out.lid, kLid, 16);
                                                return s.action;
                                            });
        dldb.on<dldb_name_t, DldbGetVserverIdRes>(
            GETVSERVERIDBYNAME, xdr_dldb_name_t, xdr_DldbGetVserverIdRes,
            [this](dldb_name_t&, DldbGetVserverIdRes& out) {
                Step s = vsName.next();
                out.status = static_cast<DldbStatus>(s.status);
                out.id = 7;
                return s.action;
            });
        dldb.onVoid<DldbIterateRes>(ITERATE, xdr_DldbIterateRes, [this](DldbIterateRes& out) {
            out.status = DLDB_STATUS_OK;
            out.rec.rec_len = 1;
            out.rec.rec_val = &blade33;
            return FakeRpcServer::Reply;
        });
    }

    // Every D-blade procedure answers from the one script.
    template <typename In, typename Out, typename AF, typename RF>
    void dbladeProc(unsigned long proc, AF af, RF rf) {
        dblade.on<In, Out>(proc, af, rf, [this](In&, Out& out) {
            Step s = vol.next();
            if (s.delayMs) std::this_thread::sleep_for(std::chrono::milliseconds(s.delayMs));
            out.returnCode = s.status;
            if constexpr (std::is_same_v<Out, VolGetattrOut_t>) {
                out.return_volattrs.volname = const_cast<char*>("vol1");
                out.return_volattrs.mountedatvolname = const_cast<char*>("");
            }
            return s.action;
        });
    }
    void serveDblade() {
        dbladeProc<VolCreateIn, VolCreateOut_t>(VOLCREATE, xdr_VolCreateIn, xdr_VolCreateOut_t);
        dbladeProc<VolDeleteIn, VolDeleteOut_t>(VOLDELETE, xdr_VolDeleteIn, xdr_VolDeleteOut_t);
        dbladeProc<VolCloneIn, VolCloneOut_t>(VOLCLONE, xdr_VolCloneIn, xdr_VolCloneOut_t);
        dbladeProc<VolGetattrIn, VolGetattrOut_t>(VOLGETATTR, xdr_VolGetattrIn,
                                                  xdr_VolGetattrOut_t);
        dbladeProc<VolSetattrIn, VolSetattrOut_t>(VOLSETATTR, xdr_VolSetattrIn,
                                                  xdr_VolSetattrOut_t);
        dbladeProc<VolSwapVolIdIn, VolSwapVolIdOut_t>(VOLSWAPVOLID, xdr_VolSwapVolIdIn,
                                                      xdr_VolSwapVolIdOut_t);
    }

    void serveCoord() {
        coord.on<admin_2_getnode_1_argument, admin_attr_nodeInfo_t>(
            ADMIN_2_GETNODE, xdr_admin_2_getnode_1_argument, xdr_admin_attr_nodeInfo_t,
            [this](admin_2_getnode_1_argument& in, admin_attr_nodeInfo_t& out) {
                Step s = getNode.next();
                out.status = s.status;
                out.dbladeId = in.dbladeId;
                out.nodeName = const_cast<char*>("node-1");
                return s.action;
            });
        coord.on<admin_node_name_t, admin_list_ips_t>(
            ADMIN_2_LISTALLIPS, xdr_admin_node_name_t, xdr_admin_list_ips_t,
            [this](admin_node_name_t& name, admin_list_ips_t& out) {
                Step s = listIps.next();
                askedNode = name;
                out.status = s.status;
                out.ips.ips_len = static_cast<u_int>(ips.size());
                out.ips.ips_val = ips.data();
                return s.action;
            });
    }

    static Rec vldbRec(unsigned vfsid, unsigned type) {
        Rec r;
        std::memset(&r, 0, sizeof r);
        r.vfsid = vfsid;
        r.family = const_cast<char*>("");
        r.vfsname = const_cast<char*>("vol1");
        r.vfstype = type;
        std::memcpy(r.lp_uuid, kLid, 16);
        return r;
    }

    Script lookup, convert, newId, lpName, vsName, vol, getNode, listIps;
    std::vector<Rec> records{vldbRec(100, RW_VFS)};
    std::vector<u_int> ips{0x7F000001, 0x0A000002};
    DldbRec blade33{33, {0, const_cast<char*>("blade33.host")}};
    unsigned lastMask = 0, lastId = 0;
    std::string lastName, askedNode;
    VoRPCClient vldbClnt, dldbClnt, volClnt;
    // Last, so that they stop before the members their handlers use go away.
    FakeRpcServer vldb{VLDB_PROG, VLDB_VERS};
    FakeRpcServer dldb{DLDB_PROG, DLDB_VERS};
    FakeRpcServer dblade{DBLADE_VOL_PROG, DBLADE_VOL_VERS};
    FakeRpcServer coord{COORD_PROG, COORD_VERS};
};

TEST_F(VoRpcCallsTest, LookupHelpersFoldTransportAndServiceFailures) {
    unsigned char lid[16];
    unsigned vfsid = 0, type = 0, vsid = 0;
    unsigned short did = 0;
    char host[VO_HOST_NAME_SIZE];
    struct Case {
        const char* what;
        Script* script;
        Step step;
        std::function<unsigned()> call;
        unsigned want;
    } cases[] = {
        {"by name, not found", &lookup, st(VLDB_RECORD_NOT_FOUND),
         [&] { return VoRpcCalls::findLpByVfsName(vldbClnt, "vol1", lid, vfsid, type); },
         0x1007737},
        {"by name, cut", &lookup, kCutStep,
         [&] { return VoRpcCalls::findLpByVfsName(vldbClnt, "vol1", lid, vfsid, type); },
         composite(0x00, 30300 + kCut)},
        {"by id, VLDB offline", &lookup, st(VLDB_OFFLINE),
         [&] { return VoRpcCalls::findLpByVfsId(vldbClnt, 100, lid, type); },
         composite(0x00, 30400 + VLDB_OFFLINE)},
        {"LP convert, refused", &convert, st(VLDB_LP_NOT_ON_DBLADE),
         [&] { return VoRpcCalls::findDbladeByLpId(vldbClnt, kLid, did); },
         composite(0x03, 30400 + VLDB_LP_NOT_ON_DBLADE)},
        {"LP convert, cut", &convert, kCutStep,
         [&] { return VoRpcCalls::findDbladeByLpId(vldbClnt, kLid, did); },
         composite(0x03, 30300 + kCut)},
        {"server of LP, refused", &convert, st(VLDB_LP_NOT_ON_DBLADE),
         [&] { return VoRpcCalls::findServerByLpId(vldbClnt, kLid, host); },
         composite(0x03, 30400 + VLDB_LP_NOT_ON_DBLADE)},
        {"new id, none left", &newId, st(VLDB_NO_VFSIDS_AVAILABLE),
         [&] { return VoRpcCalls::newVfsId(vldbClnt, vfsid); },
         composite(0x04, 30400 + VLDB_NO_VFSIDS_AVAILABLE)},
        {"new id, cut", &newId, kCutStep, [&] { return VoRpcCalls::newVfsId(vldbClnt, vfsid); },
         composite(0x04, 30300 + kCut)},
        {"LP name, not found", &lpName, st(DLDB_STATUS_NOT_FOUND),
         [&] { return VoRpcCalls::findLpByName(dldbClnt, "pool1", lid); },
         composite(0x40, 30600 + DLDB_STATUS_NOT_FOUND)},
        {"LP name, cut", &lpName, kCutStep,
         [&] { return VoRpcCalls::findLpByName(dldbClnt, "pool1", lid); },
         composite(0x40, 30300 + kCut)},
        {"vserver name, unhealthy", &vsName, st(DLDB_STATUS_NODE_UNHEALTHY),
         [&] { return VoRpcCalls::getVSIdByName(dldbClnt, "vs1", &vsid); },
         composite(0x42, 30600 + DLDB_STATUS_NODE_UNHEALTHY)},
        {"vserver name, cut", &vsName, kCutStep,
         [&] { return VoRpcCalls::getVSIdByName(dldbClnt, "vs1", &vsid); },
         composite(0x42, 30300 + kCut)},
    };
    for (Case& c : cases) {
        reconnect();
        c.script->set({c.step});
        EXPECT_EQ(c.want, c.call()) << c.what;
    }
}

TEST_F(VoRpcCallsTest, LookupsSucceed) {
    unsigned char lid[16] = {};
    unsigned vfsid = 0, type = 0;
    ASSERT_EQ(0u, VoRpcCalls::findLpByVfsName(vldbClnt, "vol1", lid, vfsid, type));
    EXPECT_EQ(0, std::memcmp(kLid, lid, 16));
    EXPECT_EQ(100u, vfsid);
    EXPECT_EQ(unsigned(RW_VFS), type);
    EXPECT_EQ(unsigned(VFS_NAME), lastMask);
    EXPECT_EQ("vol1", lastName);

    ASSERT_EQ(0u, VoRpcCalls::findLpByVfsId(vldbClnt, 100, lid, type));
    EXPECT_EQ(unsigned(VFS_ID), lastMask);
    EXPECT_EQ(100u, lastId);

    // The fake serves D-blade 33 only for the LP id sent intact.
    char host[VO_HOST_NAME_SIZE];
    ASSERT_EQ(0u, VoRpcCalls::findServerByLpId(vldbClnt, kLid, host));
    EXPECT_STREQ("blade33.host", host);
    const unsigned char otherLid[16] = {1};
    EXPECT_EQ(0x01419C4Eu, VoRpcCalls::findServerByLpId(vldbClnt, otherLid, host));
}

TEST_F(VoRpcCallsTest, NotExactlyOneVolume) {
    unsigned char lid[16];
    unsigned vfsid = 0, type = 0;
    records.clear();
    EXPECT_EQ(0x1007737u, VoRpcCalls::findLpByVfsName(vldbClnt, "vol1", lid, vfsid, type));
    EXPECT_EQ(0x1007737u, VoRpcCalls::findLpByVfsId(vldbClnt, 100, lid, type));
    records = {vldbRec(100, RW_VFS), vldbRec(101, RO_VFS)};
    EXPECT_EQ(0x1819C4Du, VoRpcCalls::findLpByVfsName(vldbClnt, "vol1", lid, vfsid, type));
    EXPECT_EQ(0x1819C4Du, VoRpcCalls::findLpByVfsId(vldbClnt, 100, lid, type));

    vldb_record_lookup_input in{};
    in.input_mask = VFS_NAME;
    vldb_record_lookup_result out;
    EXPECT_EQ(0u, VoRpcCalls::vldbFindVfs(vldbClnt, in, out));
    EXPECT_EQ(2u, out.r.r_len);
    xdr_free(xdrProc(xdr_vldb_record_lookup_result), reinterpret_cast<char*>(&out));
}

// The convenience forms of the D-blade family, one per member.
struct DbladeForm {
    const char* what;
    std::function<unsigned(CLIENT*)> call;
};
std::vector<DbladeForm> dbladeForms() {
    return {
        {"create",
         [](CLIENT* c) {
             tarn_volsetattrx_t a{};
             return VoRpcCalls::dbladeVolCreate(c, 100, kLid, a);
         }},
        {"clone", [](CLIENT* c) { return VoRpcCalls::dbladeVolClone(c, 100, kLid, 101); }},
        {"getattr",
         [](CLIENT* c) {
             VolGetattrOut_t out;
             unsigned rc = VoRpcCalls::dbladeGetAttrs(c, 100, kLid, out);
             xdr_free(xdrProc(xdr_VolGetattrOut_t), reinterpret_cast<char*>(&out));
             return rc;
         }},
        {"setattr",
         [](CLIENT* c) {
             VolSetattrIn in{};
             in.vfsID = 100;
             return VoRpcCalls::dbladeSetAttrs(c, in);
         }},
        {"swap",
         [](CLIENT* c) {
             VolSwapVolIdIn in{};
             VolSwapVolIdOut_t out{};
             unsigned rc = VoRpcCalls::swapVolId(&in, &out, c, 60);
             // The member itself leaves the D-blade's status in the result.
             if (rc == VOD_ERR_CANT_SET_TIMEOUT) return rc;
             return rc ? VO_ERR_RPC_BASE + rc : out.returnCode;
         }},
    };
}

TEST_F(VoRpcCallsTest, DbladeFamilyRetriesTryAgainAndFoldsTheRest) {
    struct Case {
        const char* what;
        std::vector<Step> steps;
        unsigned want;
        size_t sleeps;
    } cases[] = {
        {"try again twice", {st(TARN_ERR_ENORNUM), st(TARN_ERR_ENORNUM), st(0)}, 0, 2},
        {"volume not found", {st(16)}, 16, 0},
        {"cut", {kCutStep}, 30300 + kCut, 0},
        {"try again, then refused", {st(TARN_ERR_ENORNUM), st(0x1B)}, 0x1B, 1},
    };
    for (const DbladeForm& f : dbladeForms())
        for (const Case& c : cases) {
            reconnect();
            gSlept.clear();
            dblade.resetCalls();
            vol.set(c.steps);
            EXPECT_EQ(c.want, f.call(volClnt)) << f.what << ": " << c.what;
            EXPECT_EQ(std::vector<unsigned>(c.sleeps, 10), gSlept) << f.what << ": " << c.what;
        }
}

TEST_F(VoRpcCallsTest, DbladeFamilyGivesUpAfterSixtyCalls) {
    for (const DbladeForm& f : dbladeForms()) {
        gSlept.clear();
        dblade.resetCalls();
        vol.set(std::vector<Step>(70, st(TARN_ERR_ENORNUM)));
        EXPECT_EQ(TARN_ERR_ENORNUM, f.call(volClnt)) << f.what;
        EXPECT_EQ(59u, gSlept.size()) << f.what;
    }
}

TEST_F(VoRpcCallsTest, OnlyCloneRetriesABusyVolume) {
    vol.set({st(TARN_ERR_VFSBUSY), st(0)});
    EXPECT_EQ(0u, VoRpcCalls::dbladeVolClone(volClnt, 100, kLid, 101));
    EXPECT_EQ(1u, gSlept.size());

    vol.set({st(TARN_ERR_VFSBUSY), st(0)});
    VolGetattrOut_t out;
    EXPECT_EQ(TARN_ERR_VFSBUSY, VoRpcCalls::dbladeGetAttrs(volClnt, 100, kLid, out));
    xdr_free(xdrProc(xdr_VolGetattrOut_t), reinterpret_cast<char*>(&out));
}

// A client that refuses every control request.
bool_t refuseControl(CLIENT*, u_int, void*) { return FALSE; }

TEST_F(VoRpcCallsTest, AClientThatRefusesTheTimeOutGives5031) {
    __rpc_client::clnt_ops ops{};
    ops.cl_control = refuseControl;
    CLIENT refusing{};
    refusing.cl_ops = &ops;
    for (const DbladeForm& f : dbladeForms()) EXPECT_EQ(5031u, f.call(&refusing)) << f.what;
    VolDeleteIn in{};
    EXPECT_EQ(5031u, VoRpcCalls::dbladeVolDelete(&in, &refusing, 60, false));
    EXPECT_EQ(0, dblade.calls(VOLDELETE));
}

TEST_F(VoRpcCallsTest, DeleteStatuses) {
    struct Case {
        const char* what;
        std::vector<Step> steps;
        unsigned want;
        int calls;
        bool transportFailed;
    } cases[] = {
        {"deleted", {st(0)}, 0, 1, false},
        {"not on this LP", {st(TARN_ERR_LPMMISMATCH)}, TARN_ERR_LPMMISMATCH, 1, false},
        {"already gone", {st(TARN_ERR_DELETE_DONE)}, 0, 1, false},
        {"try again", {st(TARN_ERR_ENORNUM), st(0)}, 0, 2, false},
        {"still deleting",
         {st(TARN_ERR_DELETE_BUSY), st(TARN_ERR_DELETE_BUSY), st(0)},
         0,
         3,
         false},
        {"other status", {st(0x1B)}, 0x1B, 1, false},
        {"cut", {kCutStep}, kCut, 1, true},
    };
    for (const Case& c : cases) {
        reconnect();
        gSlept.clear();
        dblade.resetCalls();
        vol.set(c.steps);
        VolDeleteIn in{};
        in.vfsID = 100;
        std::memcpy(in.lpUUID, kLid, 16);
        clnt_stat transport = RPC_CANTSEND;
        EXPECT_EQ(c.want, VoRpcCalls::dbladeVolDelete(&in, volClnt, 60, false, &transport))
            << c.what;
        EXPECT_EQ(c.transportFailed, transport != RPC_SUCCESS) << c.what;
        EXPECT_EQ(c.calls, dblade.calls(VOLDELETE)) << c.what;
        EXPECT_EQ(static_cast<size_t>(c.calls - 1), gSlept.size()) << c.what;
    }
}

TEST_F(VoRpcCallsTest, ATimedOutDeleteIsAskedOnceMoreBriefly) {
    VolDeleteIn in{};
    in.vfsID = 100;

    // The first answer comes after the 1-second time-out, the second well
    // within the retry's 2 seconds.
    vol.set({late(0, 1200), st(0)});
    EXPECT_EQ(0u, VoRpcCalls::dbladeVolDelete(&in, volClnt, 1, false));
    EXPECT_EQ(2, dblade.calls(VOLDELETE));

    // The second time-out is the answer: no third call.
    reconnect();
    dblade.resetCalls();
    vol.set({late(0, 1200), late(0, 2300), st(0)});
    EXPECT_EQ(unsigned(RPC_TIMEDOUT), VoRpcCalls::dbladeVolDelete(&in, volClnt, 1, false));
    EXPECT_EQ(2, dblade.calls(VOLDELETE));

    // A call that is already the retry is not retried.
    reconnect();
    dblade.resetCalls();
    vol.set({late(0, 1200), st(0)});
    EXPECT_EQ(unsigned(RPC_TIMEDOUT), VoRpcCalls::dbladeVolDelete(&in, volClnt, 1, true));
    EXPECT_EQ(1, dblade.calls(VOLDELETE));
}

TEST_F(VoRpcCallsTest, HostAddresses) {
    unsigned count = 9, *addrs = nullptr;
    ASSERT_EQ(0u, VoRpcCalls::getHostAddrs(33, &count, &addrs));
    ASSERT_EQ(2u, count);
    EXPECT_EQ(0x7F000001u, addrs[0]);
    EXPECT_EQ(0x0A000002u, addrs[1]);
    EXPECT_EQ("node-1", askedNode);
    free(addrs);

    struct Case {
        const char* what;
        Script* script;
        Step step;
        unsigned want;
    } cases[] = {
        {"node refused", &getNode, st(7), (398u << 16) | (40600 + 7)},
        {"addresses cut", &listIps, kCutStep, (399u << 16) | (30300 + kCut)},
    };
    for (const Case& c : cases) {
        c.script->set({c.step});
        addrs = reinterpret_cast<unsigned*>(&count);
        EXPECT_EQ(c.want, VoRpcCalls::getHostAddrs(33, &count, &addrs)) << c.what;
        EXPECT_EQ(0u, count) << c.what;
        EXPECT_EQ(nullptr, addrs) << c.what;
    }
}

// ---- Client creation ----

int openFds() {
    int n = 0;
    if (DIR* d = opendir("/proc/self/fd")) {
        while (readdir(d)) n++;
        closedir(d);
    }
    return n;
}

// The in-process fake closes its end of a connection on its own thread: give
// it a moment before counting.
bool fdsBackTo(int n) {
    for (int i = 0; i < 200 && openFds() != n; i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return openFds() == n;
}

// A loopback port nothing listens on.
unsigned short closedPort() {
    int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a);
    getsockname(s, reinterpret_cast<sockaddr*>(&a), &len);
    close(s);
    return ntohs(a.sin_port);
}

// Makes a client, calls procedure 1 of the fake through it, destroys it.
template <typename Make, typename Destroy>
int callThrough(Make make, Destroy destroy) {
    CLIENT* c = make();
    if (c == nullptr) return -1;
    int out = 0;
    struct timeval tv = {5, 0};
    clnt_call(c, 1, xdrProc(xdr_void), nullptr, xdrProc(xdr_int), reinterpret_cast<char*>(&out),
              tv);
    destroy(c);
    return out;
}

TEST(ClientCreationTest, ClientsWorkAndReleaseTheirSocket) {
    FakeRpcServer srv(0x20000999, 1);
    srv.onVoid<int>(1, xdr_int, [](int& r) { r = 7; });
    const int before = openFds();
    VoRPCClient vo;
    EXPECT_EQ(7, callThrough(
                     [&] {
                         EXPECT_EQ(0u, vo.clnttcp_create("localhost", 0x20000999, 1));
                         return static_cast<CLIENT*>(vo);
                     },
                     [&](CLIENT*) { vo.clntdestroy(); }));
    vo.clntdestroy();  // a second time does nothing
    EXPECT_EQ(nullptr, static_cast<CLIENT*>(vo));
    EXPECT_EQ(7, callThrough([] { return tarn_clnt_create("127.0.0.1", 0x20000999, 1, "tcp"); },
                             [](CLIENT* c) { clnt_destroy(c); }));
    EXPECT_TRUE(fdsBackTo(before));
}

// A rollback or retry reuses its job's handle after a call failed in
// transport. That stream cannot be trusted (the library skips the answer it
// still expects there), so the next call must go over a fresh connection and
// get its own answer, and the failed connection must be closed.
TEST(ClientCreationTest, ACallAfterATransportFailureGetsItsAnswer) {
    FakeRpcServer srv(0x20000999, 1);
    FakeRpcServer::Action first = FakeRpcServer::Reply;
    int calls = 0;
    srv.onVoid<int>(1, xdr_int, [&](int& r) {
        r = 7;
        return calls++ == 0 ? first : FakeRpcServer::Reply;
    });
    struct Case {
        const char* what;
        FakeRpcServer::Action first;
        clnt_stat failed;
    } cases[] = {
        {"no answer", FakeRpcServer::Drop, RPC_TIMEDOUT},
        {"connection closed", FakeRpcServer::Close, RPC_CANTRECV},
    };
    for (const Case& c : cases) {
        first = c.first;
        calls = 0;
        const int before = openFds();
        VoRPCClient vo;
        ASSERT_EQ(0u, vo.clnttcp_create("localhost", 0x20000999, 1)) << c.what;
        CLIENT* h = vo;
        ASSERT_TRUE(VoRPCClient::setCallTimeout(h, 1)) << c.what;
        struct timeval tv = {25, 0};
        for (int i = 0; i < 3; i++) {
            int out = 0;
            clnt_stat st = clnt_call(h, 1, xdrProc(xdr_void), nullptr, xdrProc(xdr_int),
                                     reinterpret_cast<char*>(&out), tv);
            EXPECT_EQ(i == 0 ? c.failed : RPC_SUCCESS, st) << c.what << ", call " << i;
            EXPECT_EQ(i == 0 ? 0 : 7, out) << c.what << ", call " << i;
            rpc_err err;
            clnt_geterr(h, &err);
            EXPECT_EQ(st, err.re_status) << c.what << ", call " << i;
        }
        vo.clntdestroy();
        EXPECT_TRUE(fdsBackTo(before)) << c.what;
    }
    // The program gone from the port mapper: the next call says so.
    VoRPCClient vo;
    ASSERT_EQ(0u, vo.clnttcp_create("localhost", 0x20000999, 1));
    CLIENT* h = vo;
    first = FakeRpcServer::Close;
    calls = 0;
    tarn_set_port_lookup(
        [](unsigned long, unsigned long, unsigned) -> unsigned short { return 0; });
    struct timeval tv = {5, 0};
    int out = 0;
    EXPECT_EQ(RPC_CANTRECV, clnt_call(h, 1, xdrProc(xdr_void), nullptr, xdrProc(xdr_int),
                                      reinterpret_cast<char*>(&out), tv));
    EXPECT_EQ(RPC_PROGNOTREGISTERED, clnt_call(h, 1, xdrProc(xdr_void), nullptr, xdrProc(xdr_int),
                                               reinterpret_cast<char*>(&out), tv));
}

TEST(ClientCreationTest, EachFailureIsReportedAndLeavesNoSocket) {
    const unsigned short refused = closedPort();
    tarn_set_port_lookup([refused](unsigned long prog, unsigned long, unsigned) {
        return static_cast<unsigned short>(prog == 1 ? refused : 0);
    });
    struct Case {
        const char* what;
        const char* host;
        unsigned long prog;
        unsigned funcrc;  // ~0u: any non-zero value
    } cases[] = {
        {"host does not resolve", "no-such-host.invalid", 1, ~0u},
        {"program not registered", "127.0.0.1", 2, 0},
        {"connection refused", "127.0.0.1", 1, ECONNREFUSED},
    };
    for (const Case& c : cases) {
        const int before = openFds();
        VoRPCClient clnt;
        VoErr e = clnt.clnttcp_create(c.host, c.prog, 1);
        EXPECT_EQ(unsigned(voErrVodClntTcpCreate), static_cast<unsigned>(e)) << c.what;
        EXPECT_EQ(voErrVodClntTcpCreate, e.func()) << c.what;
        if (c.funcrc == ~0u) {
            EXPECT_NE(0u, e.funcrc()) << c.what;
        } else {
            EXPECT_EQ(c.funcrc, e.funcrc()) << c.what;
        }
        EXPECT_EQ(nullptr, static_cast<CLIENT*>(clnt)) << c.what;
        EXPECT_EQ(before, openFds()) << c.what;
    }

    struct TarnCase {
        const char* what;
        const char* host;
        const char* proto;
        clnt_stat stat;
        int err;
    } tarnCases[] = {
        {"unknown protocol", "127.0.0.1", "no-such-proto", RPC_UNKNOWNPROTO, EPFNOSUPPORT},
        {"refused", "127.0.0.1", "tcp", RPC_SYSTEMERROR, ECONNREFUSED},
        {"no local socket", "/nonexistent/vod-test.sock", "unix", RPC_SYSTEMERROR, ENOENT},
    };
    for (const TarnCase& k : tarnCases) {
        const int before = openFds();
        EXPECT_EQ(nullptr, tarn_clnt_create(k.host, 1, 1, k.proto)) << k.what;
        EXPECT_EQ(k.stat, rpc_createerr.cf_stat) << k.what;
        EXPECT_EQ(k.err, rpc_createerr.cf_error.re_errno) << k.what;
        EXPECT_EQ(before, openFds()) << k.what;
    }
}

}  // namespace
