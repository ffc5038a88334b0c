// Injected faults as a caller of the simulated node sees them: a status N times, a delay,
// a dropped reply, a refused connection, and a call held until the control tool lets it go.

#include <chrono>
#include <cstring>
#include <functional>
#include <future>
#include <thread>

#include "dblade_lpm.h"
#include "dldb_server.h"
#include "simtest.h"
#include "util/xdrproc.h"
#include "vldb_server.h"

using namespace simtest;

namespace {

using Clock = std::chrono::steady_clock;

double since(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

// A status field as the number on the wire: an injected status need not be one of its
// enum's names.
template <typename E>
unsigned raw(const E& e) {
  unsigned u;
  std::memcpy(&u, &e, sizeof u);
  return u;
}

class FaultTest : public SimTest {
 protected:
  // new_vfsid over a fresh connection with the given time-out: transport status and
  // VLDB status.
  std::pair<clnt_stat, unsigned> newVfsid(unsigned timeoutSec = 10) {
    CLIENT* c = clnt_create("127.0.0.1", VLDB_PROG, VLDB_VERS, "tcp");
    if (!c) return {RPC_SYSTEMERROR, 0};
    timeval tv{static_cast<time_t>(timeoutSec), 0};
    clnt_control(c, CLSET_TIMEOUT, reinterpret_cast<char*>(&tv));
    new_vfsid_result res{};
    clnt_stat st = new_vfsid_3(nullptr, &res, c);
    clnt_destroy(c);
    return {st, res.result};
  }

  int createOp(CLIENT* c, unsigned vfsid) {
    vodbRec rec{};
    rec.optype = 1;
    rec.vfsid = vfsid;
    std::memcpy(rec.lp_uuid, kLp1a, 16);
    rec.vfsrole = 1;
    vodb_create2_input in{0, {1, &rec}};
    vodb_create2_result res{};
    clnt_stat st = vodb_create2_3(&in, &res, c);
    return st == RPC_SUCCESS ? res.result : -static_cast<int>(st);
  }
};

// One procedure of each kind of result: a u_int status, an enum status, an int status.
TEST_F(FaultTest, StatusIsAnsweredTheGivenNumberOfTimesThenTheCallWorks) {
  CLIENT* vldb = client(VLDB_PROG, VLDB_VERS);
  CLIENT* dldb = client(DLDB_PROG, DLDB_VERS);
  CLIENT* lpm = client(DBLADE_LPM_PROG, DBLADE_LPM_VERS);
  ASSERT_TRUE(vldb && dldb && lpm);
  struct Case {
    const char* proc;
    std::function<unsigned()> call;  // the status the caller sees
  };
  const Case cases[] = {
      {"vldb_lp_convert",
       [&] {
         vldb_lp_convert_result r{};
         EXPECT_EQ(vldb_lp_convert_3(LpArg(kLp2a).b, &r, vldb), RPC_SUCCESS);
         EXPECT_EQ(r.dblade_id, r.result ? 0 : 2) << "a faulted answer carries nothing else";
         return r.result;
       }},
      {"iterate",
       [&] {
         XdrOut<DldbIterateRes> r(xdrProc(xdr_DldbIterateRes));
         EXPECT_EQ(iterate_1(nullptr, &r.v, dldb), RPC_SUCCESS);
         EXPECT_EQ(r.v.rec.rec_len, raw(r.v.status) ? 0u : 2u);
         return raw(r.v.status);
       }},
      {"lp_get_attrs_by_uuid",
       [&] {
         XdrOut<LPGetAttrsOut> r(xdrProc(xdr_LPGetAttrsOut));
         EXPECT_EQ(lp_get_attrs_by_uuid_1(LpArg(kLp1b).b, &r.v, lpm), RPC_SUCCESS);
         EXPECT_EQ(r.v.attr.sizeInBlocks, r.v.status ? 0u : 262144u);
         return static_cast<unsigned>(r.v.status);
       }},
  };
  for (const Case& c : cases) {
    ctl({"fault", "status", c.proc, "147", "2"});
    EXPECT_EQ(c.call(), 147u) << c.proc;
    EXPECT_EQ(c.call(), 147u) << c.proc;
    EXPECT_EQ(c.call(), 0u) << c.proc << ": the fault should be used up";
  }
  ctl({"fault", "status", "new_vfsid", "121", "always"});
  for (int i = 0; i < 3; ++i) EXPECT_EQ(newVfsid().second, 121u);
  ctl({"fault", "clear", "new_vfsid"});
  EXPECT_EQ(newVfsid().second, 0u);
}

TEST_F(FaultTest, DelayHoldsTheAnswerBack) {
  ctl({"fault", "delay", "new_vfsid", "400"});
  auto t = Clock::now();
  EXPECT_EQ(newVfsid(), std::make_pair(RPC_SUCCESS, 0u));
  EXPECT_GE(since(t), 0.4);
  t = Clock::now();
  EXPECT_EQ(newVfsid(), std::make_pair(RPC_SUCCESS, 0u));
  EXPECT_LT(since(t), 0.4) << "one delay was asked for";
}

TEST_F(FaultTest, DroppedReplyTimesTheCallerOut) {
  ctl({"fault", "drop", "new_vfsid"});
  EXPECT_EQ(newVfsid(1).first, RPC_TIMEDOUT);
  EXPECT_EQ(newVfsid(1), std::make_pair(RPC_SUCCESS, 0u));
}

TEST_F(FaultTest, RefusedConnectionFailsTheCallOfThatProgramOnly) {
  ctl({"fault", "refuse", "vldb", "2"});
  CLIENT* dldb = client(DLDB_PROG, DLDB_VERS);
  ASSERT_NE(dldb, nullptr);
  for (int i = 0; i < 2; ++i) {
    clnt_stat st = newVfsid(5).first;
    EXPECT_NE(st, RPC_SUCCESS);
    EXPECT_NE(st, RPC_TIMEDOUT) << "a refused connection fails at once";
    XdrOut<DldbIterateRes> r(xdrProc(xdr_DldbIterateRes));
    EXPECT_EQ(iterate_1(nullptr, &r.v, dldb), RPC_SUCCESS) << "other programs still answer";
  }
  EXPECT_EQ(newVfsid().first, RPC_SUCCESS);

  ctl({"fault", "refuse", "vldb", "always"});
  EXPECT_NE(newVfsid().first, RPC_SUCCESS);
  EXPECT_NE(newVfsid().first, RPC_SUCCESS);
  ctl({"fault", "clear", "vldb"});
  EXPECT_EQ(newVfsid().first, RPC_SUCCESS);
}

TEST_F(FaultTest, HeldCallWaitsForReleaseWhileTheNodeGoesOn) {
  CLIENT* held = client(VLDB_PROG, VLDB_VERS, 30);
  ASSERT_NE(held, nullptr);
  ctl({"fault", "hold", "vodb_create2"});
  auto call = std::async(std::launch::async, [&] { return createOp(held, 80); });
  EXPECT_EQ(ctl({"fault", "wait-held", "vodb_create2", "10"}), "1 held\n");

  // Other calls, even to the same program, and the control tool are not held up, and the
  // held call has not done anything yet.
  EXPECT_EQ(newVfsid(5), std::make_pair(RPC_SUCCESS, 0u));
  EXPECT_EQ(ctl({"vodb", "--json"}).find("\"vfsid\":80"), std::string::npos);
  EXPECT_EQ(call.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);

  EXPECT_EQ(ctl({"fault", "release", "vodb_create2"}), "1 released\n");
  EXPECT_EQ(call.get(), 0);
  EXPECT_NE(ctl({"vodb", "--json"}).find("\"vfsid\":80"), std::string::npos);
  EXPECT_EQ(createOp(held, 81), 0) << "the hold was for one call";
}

TEST_F(FaultTest, HeldCallReleasedAsDroppedLeavesNoTrace) {
  CLIENT* held = client(VLDB_PROG, VLDB_VERS, 2);
  ASSERT_NE(held, nullptr);
  ctl({"fault", "hold", "vodb_create2"});
  auto call = std::async(std::launch::async, [&] { return createOp(held, 90); });
  ctl({"fault", "wait-held", "vodb_create2", "10"});
  ctl({"fault", "release", "vodb_create2", "drop"});
  EXPECT_EQ(call.get(), -static_cast<int>(RPC_TIMEDOUT));
  EXPECT_EQ(ctl({"vodb", "--json"}).find("\"vfsid\":90"), std::string::npos);
}

// What the crash matrix stops vod with: the n-th call of a procedure held before it is
// carried out (--skip) or after it, with only its reply held back; and the log that says
// which calls came in, in order.
TEST_F(FaultTest, TheNthCallIsHeldBeforeOrAfterItIsCarriedOutAndEveryCallIsLogged) {
  ctl({"calls", "reset"});
  struct Case {
    const char* verb;
    bool drop;      // released as dropped
    bool recorded;  // the call's effect is there afterwards
    int result;     // what the caller sees
  } cases[] = {
      {"hold", false, true, 0},
      {"hold", true, false, -static_cast<int>(RPC_TIMEDOUT)},
      {"hold-reply", false, true, 0},
      {"hold-reply", true, true, -static_cast<int>(RPC_TIMEDOUT)},
  };
  unsigned vfsid = 100;
  auto recorded = [&](unsigned v) {
    return ctl({"vodb", "--json"}).find("\"vfsid\":" + std::to_string(v)) != std::string::npos;
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.verb) + (c.drop ? " drop" : ""));
    // A connection of its own: the last case's may still wait for its lost reply.
    CLIENT* held = client(VLDB_PROG, VLDB_VERS, 2);
    ASSERT_NE(held, nullptr);
    ctl({"fault", c.verb, "vodb_create2", "--skip", "1"});
    EXPECT_EQ(createOp(held, vfsid++), 0) << "the first call goes by";
    const unsigned mine = vfsid++;
    auto call = std::async(std::launch::async, [&] { return createOp(held, mine); });
    EXPECT_EQ(ctl({"fault", "wait-held", "vodb_create2", "10"}), "1 held\n");
    EXPECT_EQ(recorded(mine), std::string(c.verb) == "hold-reply") << "held before or after";
    std::vector<std::string> release = {"fault", "release", "vodb_create2"};
    if (c.drop) release.push_back("drop");
    ctl(release);
    EXPECT_EQ(call.get(), c.result);
    EXPECT_EQ(recorded(mine), c.recorded);
    EXPECT_EQ(ctl({"fault", "list"}), "") << "one call was held";
  }
  newVfsid();
  std::string want;
  for (int i = 1; i <= 8; ++i) want += std::to_string(i) + " vodb_create2 0\n";
  EXPECT_EQ(ctl({"calls", "--log"}), want + "9 new_vfsid 0\n");
  ctl({"calls", "reset"});
  EXPECT_EQ(ctl({"calls", "--log"}), "");
  EXPECT_NE(sim->ctl({"fault", "refuse", "vldb", "--skip", "1"}).status, 0);
  EXPECT_NE(sim->ctl({"fault", "hold", "new_vfsid", "--skip"}).status, 0);
}

TEST_F(FaultTest, ControlToolRefusesWhatItCannotDo) {
  auto t = Clock::now();
  RunResult r = sim->ctl({"fault", "wait-held", "new_vfsid", "1"});
  EXPECT_NE(r.status, 0) << "nothing was held";
  EXPECT_GE(since(t), 1.0);
  EXPECT_NE(sim->ctl({"fault", "release", "new_vfsid"}).status, 0);
  EXPECT_NE(sim->ctl({"fault", "status", "no_such_proc", "1"}).status, 0);
  EXPECT_NE(sim->ctl({"fault", "refuse", "no_such_program"}).status, 0);
  EXPECT_NE(sim->ctl({"fault", "status", "new_vfsid", "x"}).status, 0);
  EXPECT_NE(sim->ctl({"fault", "drop", "new_vfsid", "0"}).status, 0);
  EXPECT_NE(sim->ctl({"no-such-command"}).status, 0);
  // Faults are listed until used up; the call counter counts every call.
  ctl({"fault", "status", "new_vfsid", "121", "3"});
  EXPECT_EQ(ctl({"fault", "list"}), "new_vfsid status 121 3x\n");
  newVfsid();
  EXPECT_EQ(ctl({"fault", "list"}), "new_vfsid status 121 2x\n");
  EXPECT_EQ(ctl({"calls", "new_vfsid"}), "1\n");
  ctl({"fault", "clear"});
  EXPECT_EQ(ctl({"fault", "list"}), "");
}

}  // namespace
