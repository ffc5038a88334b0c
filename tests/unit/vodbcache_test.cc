#include "vodbCache.h"

#include <gtest/gtest.h>

#include <cstring>
#include <mutex>
#include <vector>

#include "fake_rpc_server.h"
#include "vldb_lit.h"
#include "vorpcclient.h"
#include "vostate.h"

namespace {

// A VLDB whose VODB answers are set by the test.
class VodbCacheTest : public ::testing::Test {
  protected:
    struct Answer {
        int opidStatus = 0;
        FakeRpcServer::Action opidAction = FakeRpcServer::Reply;
        int lookupStatus = 0;
        FakeRpcServer::Action lookupAction = FakeRpcServer::Reply;
        unsigned long long lastCreate = 0, lastDelete = 0;
        std::vector<vodbRec> recs;
    };

    void SetUp() override {
        vldb.onVoid<vodb_opid_lookup_result>(VODB_OPID_LOOKUP, xdr_vodb_opid_lookup_result,
                                             [this](vodb_opid_lookup_result& r) {
                                                 std::lock_guard<std::mutex> g(m);
                                                 r.result = answer.opidStatus;
                                                 r.last_create_opid = answer.lastCreate;
                                                 r.last_delete_opid = answer.lastDelete;
                                                 return answer.opidAction;
                                             });
        vldb.onVoid<vodb_lookup_result>(VODB_LOOKUP, xdr_vodb_lookup_result,
                                        [this](vodb_lookup_result& r) {
                                            std::lock_guard<std::mutex> g(m);
                                            r.result = answer.lookupStatus;
                                            r.last_create_opid = answer.lastCreate;
                                            r.last_delete_opid = answer.lastDelete;
                                            r.rec.rec_len = static_cast<u_int>(answer.recs.size());
                                            r.rec.rec_val = answer.recs.data();
                                            return answer.lookupAction;
                                        });
        // Start from an empty cache: any remembered ids differ from (0, 0).
        VoState::_lastCreatedOpid = ~0ULL;
        ASSERT_EQ(0u, refresh());
        ASSERT_TRUE(cache().empty());
        vldb.resetCalls();
    }

    void TearDown() override {
        // Leave the process-wide cache empty for whatever test runs next.
        set({});
        VoState::_lastCreatedOpid = ~0ULL;
        refresh();
    }

    static vodbRec rec(unsigned long long opid, unsigned vid, int role = VoRec::VODB_ROLE_SRC) {
        vodbRec r;
        std::memset(&r, 0, sizeof r);
        r.opid = opid;
        r.optype = VoRec::VODB_VOLOP_DELETE;
        r.vfsid = vid;
        r.lp_uuid[0] = static_cast<u_char>(vid);
        r.lp_uuid[15] = 0xEE;
        r.vfsrole = role;
        return r;
    }

    void set(std::vector<vodbRec> recs, unsigned long long create = 0, unsigned long long del = 0) {
        std::lock_guard<std::mutex> g(m);
        answer.recs = std::move(recs);
        answer.lastCreate = create;
        answer.lastDelete = del;
    }

    VoErr refresh() {
        VoRPCClient c;
        VoErr e = c.clnttcp_create("127.0.0.1", VLDB_PROG, VLDB_VERS);
        EXPECT_EQ(0u, e);
        return VodbCacheLock::refreshVodbCache(c);
    }

    static std::vector<VoRec*> cache() {
        VodbCacheLock l;
        return VodbCacheLock::getVodbCache();
    }

    static std::vector<unsigned> vids() {
        std::vector<unsigned> v;
        for (VoRec* r : cache()) v.push_back(r->vid());
        return v;
    }

    std::mutex m;
    Answer answer;  // guarded by m
    // Last, so that it stops before the members its handlers use go away.
    FakeRpcServer vldb{VLDB_PROG, VLDB_VERS};
};

TEST_F(VodbCacheTest, RecordsAreReadOnlyWhenTheIdsMove) {
    set({rec(5, 100), rec(5, 101, VoRec::VODB_ROLE_SINK), rec(6, 200)}, 6, 2);
    ASSERT_EQ(0u, refresh());
    EXPECT_EQ(1, vldb.calls(VODB_LOOKUP));
    EXPECT_EQ((std::vector<unsigned>{100, 101, 200}), vids());
    EXPECT_EQ(6u, VoState::_lastCreatedOpid);
    EXPECT_EQ(2u, VoState::_lastDeletedOpid);
    const VoRec* r1 = cache()[1];
    EXPECT_EQ(5u, r1->opid());
    EXPECT_EQ(VoRec::VODB_ROLE_SINK, r1->role());
    EXPECT_EQ(VoRec::VODB_VOLOP_DELETE, r1->opType());
    EXPECT_EQ(101, r1->lid()[0]);
    EXPECT_EQ(0xEE, r1->lid()[15]);

    // Same ids, other records: the cache trusts the ids and stays as it is.
    set({rec(9, 900)}, 6, 2);
    ASSERT_EQ(0u, refresh());
    EXPECT_EQ(2, vldb.calls(VODB_OPID_LOOKUP));
    EXPECT_EQ(1, vldb.calls(VODB_LOOKUP));
    EXPECT_EQ((std::vector<unsigned>{100, 101, 200}), vids());

    // A delete moves the last deleted id.
    set({rec(6, 200)}, 6, 5);
    ASSERT_EQ(0u, refresh());
    EXPECT_EQ(2, vldb.calls(VODB_LOOKUP));
    EXPECT_EQ((std::vector<unsigned>{200}), vids());

    // Forced (what forceNextRefreshVodbCache does): read again, ids unchanged.
    set({rec(6, 201)}, 6, 5);
    VoState::_lastCreatedOpid = VoState::_lastDeletedOpid = 0;
    ASSERT_EQ(0u, refresh());
    EXPECT_EQ(3, vldb.calls(VODB_LOOKUP));
    EXPECT_EQ((std::vector<unsigned>{201}), vids());
}

TEST_F(VodbCacheTest, EmptyVodb) {
    set({rec(5, 100), rec(5, 101)}, 5, 0);
    ASSERT_EQ(0u, refresh());

    // 135 stands for (0, 0) whatever ids come with it. With both remembered ids
    // already 0 nothing is read and nothing is cleared.
    {
        std::lock_guard<std::mutex> g(m);
        answer.opidStatus = VLDB_RECORD_UNAVAILABLE;
        answer.lastCreate = 77;
    }
    VoState::_lastCreatedOpid = VoState::_lastDeletedOpid = 0;
    ASSERT_EQ(0u, refresh());
    EXPECT_EQ(1, vldb.calls(VODB_LOOKUP));
    EXPECT_EQ(2u, cache().size());

    // With ids remembered, the empty VODB is read and empties the cache.
    VoState::_lastCreatedOpid = 5;
    set({}, 0, 0);
    ASSERT_EQ(0u, refresh());
    EXPECT_EQ(2, vldb.calls(VODB_LOOKUP));
    EXPECT_TRUE(cache().empty());
    EXPECT_EQ(0u, VoState::_lastCreatedOpid);
}

TEST_F(VodbCacheTest, NoRecordsFromTheRecordReadIsAnEmptyVodbNotAFailure) {
    set({rec(5, 100)}, 5, 0);
    ASSERT_EQ(0u, refresh());

    // A VLDB that answers 135 to both reads once the last record went: the
    // cache empties, and the next refresh has nothing more to read.
    {
        std::lock_guard<std::mutex> g(m);
        answer.opidStatus = VLDB_RECORD_UNAVAILABLE;
        answer.lookupStatus = VLDB_RECORD_UNAVAILABLE;
    }
    set({rec(9, 900)}, 0, 5);  // records that a "no records" answer must not carry in
    ASSERT_EQ(0u, refresh());
    EXPECT_TRUE(cache().empty());
    EXPECT_EQ(0u, VoState::_lastCreatedOpid);
    EXPECT_EQ(0u, VoState::_lastDeletedOpid);
    const int reads = vldb.calls(VODB_LOOKUP);
    ASSERT_EQ(0u, refresh());
    EXPECT_EQ(reads, vldb.calls(VODB_LOOKUP));
}

TEST_F(VodbCacheTest, RecordsOfUnknownTypeOrRoleAreKeptRawAndMarkedUnknown) {
    vodbRec badType = rec(5, 100);
    badType.optype = 99;
    vodbRec badRole = rec(6, 200);
    badRole.vfsrole = -2;
    set({badType, badRole, rec(7, 300)}, 7, 0);
    ASSERT_EQ(0u, refresh());
    std::vector<VoRec*> recs = cache();
    ASSERT_EQ(3u, recs.size());
    EXPECT_FALSE(recs[0]->isKnown());
    EXPECT_EQ(VoRec::VODB_VOLOP_NULL, recs[0]->opType());
    EXPECT_EQ(99u, recs[0]->rawOpType());
    EXPECT_FALSE(recs[1]->isKnown());
    EXPECT_EQ(VoRec::VODB_ROLE_NULL, recs[1]->role());
    EXPECT_TRUE(recs[2]->isKnown());
    // What goes back to the VODB is what came from it.
    vodbRec out;
    recs[0]->toVodbRec(&out);
    EXPECT_EQ(99, out.optype);
}

TEST_F(VodbCacheTest, ObjectsAreReusedInPlaceWhenTheCacheShrinksOrGrows) {
    set({rec(1, 10), rec(2, 20), rec(3, 30), rec(4, 40), rec(5, 50)}, 5, 0);
    ASSERT_EQ(0u, refresh());
    std::vector<VoRec*> five = cache();
    ASSERT_EQ(5u, five.size());
    five[0]->setVname("kept");  // a field the VODB does not carry

    set({rec(4, 40), rec(5, 50)}, 5, 3);
    ASSERT_EQ(0u, refresh());
    std::vector<VoRec*> two = cache();
    ASSERT_EQ(2u, two.size());
    EXPECT_EQ(five[0], two[0]);
    EXPECT_EQ(five[1], two[1]);
    EXPECT_EQ((std::vector<unsigned>{40, 50}), vids());
    EXPECT_EQ(4u, two[0]->opid());
    EXPECT_STREQ("kept", two[0]->getVname());

    set({rec(4, 40), rec(5, 50), rec(6, 60), rec(7, 70)}, 7, 3);
    ASSERT_EQ(0u, refresh());
    std::vector<VoRec*> four = cache();
    ASSERT_EQ(4u, four.size());
    EXPECT_EQ(two[0], four[0]);
    EXPECT_EQ(two[1], four[1]);
    EXPECT_EQ((std::vector<unsigned>{40, 50, 60, 70}), vids());
}

TEST_F(VodbCacheTest, FailuresGiveTheirCodesAndLeaveTheCacheAlone) {
    set({rec(1, 10)}, 1, 0);
    ASSERT_EQ(0u, refresh());

    struct Case {
        const char* what;
        int opidStatus;
        FakeRpcServer::Action opidAction;
        int lookupStatus;
        FakeRpcServer::Action lookupAction;
        unsigned code;
        voErrFunc func;
        unsigned funcrc;  // 0: the transport status, whatever it is
    } cases[] = {
        {"id query cut off", 0, FakeRpcServer::Close, 0, FakeRpcServer::Reply, 10300,
         voErrVodbOpidLookUpRpc, 0},
        {"id query refused", VODB_NO_DATABASE, FakeRpcServer::Reply, 0, FakeRpcServer::Reply, 300,
         voErrVodbOpidLookUp, VODB_NO_DATABASE},
        {"record read cut off", 0, FakeRpcServer::Reply, 0, FakeRpcServer::Close, 10301,
         voErrVodbLookupRpc, 0},
        {"record read refused", 0, FakeRpcServer::Reply, VLDB_DB_ITERATOR_FAILED,
         FakeRpcServer::Reply, 301, voErrVodbLookup, VLDB_DB_ITERATOR_FAILED},
    };
    for (const Case& c : cases) {
        {
            std::lock_guard<std::mutex> g(m);
            answer.opidStatus = c.opidStatus;
            answer.opidAction = c.opidAction;
            answer.lookupStatus = c.lookupStatus;
            answer.lookupAction = c.lookupAction;
            answer.recs = {rec(8, 80)};
            answer.lastCreate = 8;
        }
        VoErr e = refresh();
        EXPECT_EQ(c.code, static_cast<unsigned>(e)) << c.what;
        EXPECT_EQ(c.func, e.func()) << c.what;
        if (c.funcrc) {
            EXPECT_EQ(c.funcrc, e.funcrc()) << c.what;
        } else {
            EXPECT_NE(0u, e.funcrc()) << c.what;
        }
        EXPECT_EQ((std::vector<unsigned>{10}), vids()) << c.what;
        EXPECT_EQ(1u, VoState::_lastCreatedOpid) << c.what;
    }

    VoErr none = VodbCacheLock::refreshVodbCache(nullptr);
    EXPECT_EQ(5003u, static_cast<unsigned>(none));
    EXPECT_EQ(voErrVodSanityCheck, none.func());
    EXPECT_EQ(5003u, none.funcrc());
}

}  // namespace
