// Start-up resurrection against fake local services: a VLDB whose VODB holds
// the records, the local D-blade's LP list, and the two D-blade programs that
// only need to accept connections.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "dblade_incrcopy.h"
#include "dblade_lpm.h"
#include "dblade_vol.h"
#include "fake_rpc_server.h"
#include "fake_vostate.h"
#include "vldb_server.h"
#include "vodbCache.h"
#include "voserver.h"
#include "vostate.h"
#include "vostatelist.h"

namespace {

void fillLid(u_char* lid, unsigned char b) { memset(lid, b, 16); }

vodbRec rec(unsigned long long opid, int opType, unsigned vid, unsigned char lidByte) {
    vodbRec r;
    memset(&r, 0, sizeof r);
    r.opid = opid;
    r.optype = opType;
    r.vfsid = vid;
    fillLid(r.lp_uuid, lidByte);
    r.vfsrole = VoRec::VODB_ROLE_SRC;
    return r;
}

class ResurrectTest : public ::testing::Test {
  protected:
    void SetUp() override {
        fakeNow() = 3000000;
        VoState::setClockForTest(fakeClock);
        startVldb();
        lpm.on<u_int, LPGetAllOut>(LP_LIST_ALL, xdr_u_int, xdr_LPGetAllOut,
                                   [this](u_int&, LPGetAllOut& out) {
                                       out.entries.entries_len = static_cast<u_int>(lps.size());
                                       out.entries.entries_val = lps.data();
                                   });
        ensurePool(1);
        fakeClientMakerRc() = 0;
    }

    void TearDown() override {
        drainRegistry(voStateList);
        setRecords({});
        VoRPCClient c;
        c.clnttcp_create("127.0.0.1", VLDB_PROG, VLDB_VERS);
        VodbCacheLock::refreshVodbCache(c);
        VoState::setClockForTest(nullptr);
    }

    void startVldb() {
        vldb.reset(new FakeRpcServer(VLDB_PROG, VLDB_VERS));
        vldb->onVoid<vodb_opid_lookup_result>(VODB_OPID_LOOKUP, xdr_vodb_opid_lookup_result,
                                              [this](vodb_opid_lookup_result& r) {
                                                  std::lock_guard<std::mutex> g(m);
                                                  r.last_create_opid = lastCreate;
                                              });
        vldb->onVoid<vodb_lookup_result>(VODB_LOOKUP, xdr_vodb_lookup_result,
                                         [this](vodb_lookup_result& r) {
                                             std::lock_guard<std::mutex> g(m);
                                             r.last_create_opid = lastCreate;
                                             r.rec.rec_len = static_cast<u_int>(recs.size());
                                             r.rec.rec_val = recs.data();
                                         });
    }

    void setRecords(std::vector<vodbRec> r) {
        std::lock_guard<std::mutex> g(m);
        recs = std::move(r);
        lastCreate++;
    }

    void addLp(unsigned char lidByte, DBladeLPStatus state) {
        LPGetAllEntry e;
        memset(&e, 0, sizeof e);
        fillLid(e.uuid, lidByte);
        e.state = state;
        e.name = emptyName;
        lps.push_back(e);
    }

    // Registered operations by opid, with their status stamps.
    static std::map<unsigned long long, unsigned> registered() {
        std::map<unsigned long long, unsigned> ops;
        voStateList.iterator(
            [](void* arg, VoState* op) {
                (*static_cast<std::map<unsigned long long, unsigned>*>(arg))[op->getOpid()] =
                    op->getStatusCheckedAtTime();
            },
            &ops);
        return ops;
    }

    // The fakes are declared last so that they stop before what their handlers use.
    std::mutex m;
    std::vector<vodbRec> recs;
    unsigned long long lastCreate = 100;
    std::vector<LPGetAllEntry> lps;  // set before the first call
    char emptyName[1] = "";
    std::unique_ptr<FakeRpcServer> vldb;
    FakeRpcServer lpm{DBLADE_LPM_PROG, DBLADE_LPM_VERS};
    FakeRpcServer incrcopy{DBLADE_INCRCOPY_PROG, DBLADE_INCRCOPY_VERS};
    FakeRpcServer dbladeVol{DBLADE_VOL_PROG, DBLADE_VOL_VERS};
};

TEST_F(ResurrectTest, LocalOnlineOperationsComeBackWithStaggeredStamps) {
    addLp(0xA, LP_STATUS_ONLINE);
    addLp(0xB, LP_STATUS_ONLINE);
    addLp(0xD, LP_STATUS_BUSY);
    setRecords({
        rec(11, VoRec::VODB_VOLOP_DELETE, 1, 0xA),
        rec(12, VoRec::VODB_VOLOP_DELETE, 2, 0xC),  // another D-blade's LP
        rec(13, VoRec::VODB_VOLOP_DELETE, 3, 0xB),
        rec(14, VoRec::VODB_VOLOP_DELETE, 4, 0xD),  // listed but not on line
        rec(15, 9, 5, 0xA),                         // no such operation type
        rec(16, VoRec::VODB_VOLOP_DELETE, 6, 0xA),
    });
    gVoServer->setFirstCallForTest();
    gVoServer->populateMissingVoStateFromVodb(lidZero);
    EXPECT_FALSE(gVoServer->isFirstCall());
    EXPECT_EQ(lpm.calls(LP_LIST_ALL), 1);

    const unsigned now = fakeNow();
    std::map<unsigned long long, unsigned> want = {{11, now - 29}, {13, now - 28}, {16, now - 27}};
    EXPECT_EQ(registered(), want);

    // Resurrected, not queued: the registry's status checks will pick them up.
    voStateList.iterator(
        [](void*, VoState* op) {
            EXPECT_EQ(op->opResurrected, 1);
            EXPECT_FALSE(op->retiredFromVodb());
            EXPECT_FALSE(op->isJobAssignedToThread());
            EXPECT_TRUE(op->opCompleteReceived());
        },
        nullptr);

    // A second pass finds them all known.
    gVoServer->populateMissingVoStateFromVodb(lidZero);
    EXPECT_EQ(registered(), want);
}

TEST_F(ResurrectTest, AnLpComingOnLineBringsBackOnlyItsOperationsWithoutAskingTheDblade) {
    setRecords({
        rec(21, VoRec::VODB_VOLOP_DELETE, 1, 0xA),
        rec(22, VoRec::VODB_VOLOP_DELETE, 2, 0xB),
    });
    unsigned char lidB[16];
    fillLid(lidB, 0xB);
    gVoServer->populateMissingVoStateFromVodb(lidB);
    EXPECT_EQ(lpm.calls(LP_LIST_ALL), 0);
    EXPECT_EQ(registered(), (std::map<unsigned long long, unsigned>{{22, fakeNow() - 29}}));
}

TEST_F(ResurrectTest, RegisteredOperationWhoseRecordsVanishedIsRetiredFromTheVodb) {
    addLp(0xA, LP_STATUS_ONLINE);
    setRecords({rec(31, VoRec::VODB_VOLOP_DELETE, 1, 0xA)});
    gVoServer->populateMissingVoStateFromVodb(lidZero);
    ASSERT_EQ(registered().count(31), 1u);

    setRecords({});
    gVoServer->populateMissingVoStateFromVodb(lidZero);
    VoStateRef ref;
    VoState* op = voStateList.findVoState(31, ref);
    ASSERT_NE(op, nullptr);
    EXPECT_TRUE(op->retiredFromVodb());

    // Records that come back make it stored again.
    setRecords({rec(31, VoRec::VODB_VOLOP_DELETE, 1, 0xA)});
    gVoServer->populateMissingVoStateFromVodb(lidZero);
    EXPECT_FALSE(op->retiredFromVodb());
}

TEST_F(ResurrectTest, WithoutAVldbThePassIsRetriedAndEveryOperationStamped) {
    addLp(0xA, LP_STATUS_ONLINE);
    FakeOp* op = new FakeOp(41, VoRec::VODB_VOLOP_COPY, 1, 0xA);
    voStateList.addNewOp(op, 0);
    vldb.reset();  // no VLDB: the client cannot be made
    gVoServer->setFirstCallForTest();
    fakeNow() += 5;
    gVoServer->populateMissingVoStateFromVodb(lidZero);
    startVldb();
    EXPECT_TRUE(gVoServer->isFirstCall());
    EXPECT_EQ(op->getStatusCheckedAtTime(), fakeNow());
    EXPECT_EQ(lpm.calls(LP_LIST_ALL), 0);
}

TEST(BatchClntCreate, NamesTheServiceThatCouldNotBeReached) {
    struct {
        bool vldb, incrcopy, vol;
        unsigned code;
    } cases[] = {
        {true, true, true, 0},
        {false, true, true, 5003},
        {true, false, true, 5004},
        {true, true, false, 5004},
    };
    for (const auto& c : cases) {
        std::unique_ptr<FakeRpcServer> v, i, d;
        if (c.vldb) v.reset(new FakeRpcServer(VLDB_PROG, VLDB_VERS));
        if (c.incrcopy) i.reset(new FakeRpcServer(DBLADE_INCRCOPY_PROG, DBLADE_INCRCOPY_VERS));
        if (c.vol) d.reset(new FakeRpcServer(DBLADE_VOL_PROG, DBLADE_VOL_VERS));
        VoRPCClient vldb, incrcopy, vol;
        EXPECT_EQ(VoServer::batchClntCreate(vldb, incrcopy, vol), c.code);
        // On failure nothing is left open.
        bool made = static_cast<CLIENT*>(vldb) && static_cast<CLIENT*>(incrcopy) &&
                    static_cast<CLIENT*>(vol);
        EXPECT_EQ(made, c.code == 0);
        if (c.code != 0) {
            EXPECT_EQ(static_cast<CLIENT*>(vldb), nullptr);
            EXPECT_EQ(static_cast<CLIENT*>(incrcopy), nullptr);
        }
    }
}

TEST(OperationFactory, BuildsTheDeleteAndRefusesUnknownTypes) {
    VoState* del = VoServer::newVoStateOfType(VoRec::VODB_VOLOP_DELETE);
    ASSERT_NE(del, nullptr);
    delete del;
    for (int t : {0, 8, 9, -1}) EXPECT_EQ(VoServer::newVoStateOfType(t), nullptr) << t;
}

}  // namespace
