#include "vodldb.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "dldb_server.h"
#include "fake_rpc_server.h"
#include "vostate.h"

namespace {

std::atomic<unsigned> gNow{0};
unsigned fakeClock() { return gNow.load(); }

// A local DLDB whose table the test sets, and a clock the test moves.
class VoDldbTest : public ::testing::Test {
  protected:
    struct Answer {
        DldbStatus status = DLDB_STATUS_OK;
        FakeRpcServer::Action action = FakeRpcServer::Reply;
        std::vector<std::pair<unsigned short, std::string>> hosts;
        int delayMs = 0;
    };

    void SetUp() override {
        gNow = 1000000;
        VoState::setClockForTest(fakeClock);
        VoDldb::initialize();
        dldb.onVoid<DldbIterateRes>(ITERATE, xdr_DldbIterateRes, [this](DldbIterateRes& r) {
            Answer a;
            {
                std::lock_guard<std::mutex> g(m);
                a = answer;
                recs.clear();
                for (auto& h : answer.hosts) {
                    DldbRec rec{};
                    rec.did = h.first;
                    rec.host.port = 0;
                    rec.host.name = const_cast<char*>(h.second.c_str());
                    recs.push_back(rec);
                }
            }
            if (a.delayMs) std::this_thread::sleep_for(std::chrono::milliseconds(a.delayMs));
            r.status = a.status;
            r.rec.rec_len = static_cast<u_int>(recs.size());
            r.rec.rec_val = recs.data();
            return a.action;
        });
    }

    void TearDown() override {
        VoDldb::destroy();
        VoState::setClockForTest(nullptr);
    }

    void serve(Answer a) {
        std::lock_guard<std::mutex> g(m);
        answer = std::move(a);
    }

    int reads() const { return dldb.calls(ITERATE); }

    // The answer as a string; "(null)" for none.
    static std::string host(unsigned did) {
        char* h = VoDldb::getHostNameByDbladeId(did);
        std::string s = h ? h : "(null)";
        free(h);
        return s;
    }

    std::mutex m;
    Answer answer;              // guarded by m
    std::vector<DldbRec> recs;  // the last reply's records; server thread only
    // Last, so that it stops before the members its handler uses go away.
    FakeRpcServer dldb{VoDldb::DLDB_PROGRAM, VoDldb::DLDB_VERSION};
};

TEST_F(VoDldbTest, AnUnknownIdForcesAReadEvenWhenTheTableIsFresh) {
    serve({DLDB_STATUS_OK, FakeRpcServer::Reply, {{1, "blade1"}, {2, "blade2"}}, 0});
    EXPECT_EQ("blade1", host(1));
    EXPECT_EQ("blade2", host(2));
    EXPECT_EQ(1, reads());

    EXPECT_EQ("(null)", host(7));
    EXPECT_EQ(2, reads());
    EXPECT_EQ("(null)", host(7));
    EXPECT_EQ(3, reads());

    // A D-blade added to the DLDB is found by the read its first lookup makes.
    serve({DLDB_STATUS_OK, FakeRpcServer::Reply, {{1, "blade1"}, {7, "blade7"}}, 0});
    EXPECT_EQ("blade7", host(7));
    EXPECT_EQ(4, reads());
}

TEST_F(VoDldbTest, TheTableIsReadAgainOnlyAfter900Seconds) {
    serve({DLDB_STATUS_OK, FakeRpcServer::Reply, {{1, "old"}}, 0});
    EXPECT_EQ("old", host(1));
    serve({DLDB_STATUS_OK, FakeRpcServer::Reply, {{1, "new"}}, 0});

    gNow += 900;
    EXPECT_EQ("old", host(1));
    EXPECT_EQ(1, reads());

    gNow += 1;
    EXPECT_EQ("new", host(1));
    EXPECT_EQ(2, reads());
}

TEST_F(VoDldbTest, AFailedReadKeepsThePreviousTable) {
    const std::vector<std::pair<unsigned short, std::string>> good = {{1, "blade1"}};
    struct Case {
        const char* what;
        Answer answer;
    } cases[] = {
        {"status not found", {DLDB_STATUS_NOT_FOUND, FakeRpcServer::Reply, good, 0}},
        {"no entries", {DLDB_STATUS_OK, FakeRpcServer::Reply, {}, 0}},
        {"connection cut", {DLDB_STATUS_OK, FakeRpcServer::Close, good, 0}},
    };
    for (const Case& c : cases) {
        VoDldb::initialize();
        serve({DLDB_STATUS_OK, FakeRpcServer::Reply, {{1, "blade1"}}, 0});
        ASSERT_EQ("blade1", host(1)) << c.what;
        dldb.resetCalls();

        serve(c.answer);
        gNow += 1000;
        EXPECT_EQ("blade1", host(1)) << c.what;
        EXPECT_EQ(1, reads()) << c.what;
        // The failed read did not count as fresh: the next lookup tries again.
        EXPECT_EQ("blade1", host(1)) << c.what;
        EXPECT_EQ(2, reads()) << c.what;
    }
}

TEST_F(VoDldbTest, IdsSharingABucketAndDuplicates) {
    // 1 and 33 share bucket 1; of two entries for one id the later one wins.
    // An unhealthy node's answer is used like a good one.
    serve({DLDB_STATUS_NODE_UNHEALTHY,
           FakeRpcServer::Reply,
           {{1, "one"}, {33, "thirtythree"}, {65, "first65"}, {65, "second65"}},
           0});
    EXPECT_EQ("one", host(1));
    EXPECT_EQ("thirtythree", host(33));
    EXPECT_EQ("second65", host(65));
    EXPECT_EQ(1, reads());
}

TEST_F(VoDldbTest, ConcurrentLookupsShareOneReadAndAllResume) {
    serve({DLDB_STATUS_OK, FakeRpcServer::Reply, {{1, "blade1"}, {2, "blade2"}}, 300});
    const int n = 6;
    std::vector<std::string> got(n);
    std::vector<std::thread> threads;
    for (int i = 0; i < n; i++) threads.emplace_back([&got, i] { got[i] = host(1 + i % 2); });
    for (auto& t : threads) t.join();
    for (int i = 0; i < n; i++) EXPECT_EQ(i % 2 ? "blade2" : "blade1", got[i]) << i;
    EXPECT_EQ(1, reads());
}

}  // namespace
