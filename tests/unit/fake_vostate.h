// FakeOp: a VoState with no remote side, for the engine's unit tests. Every
// step answers what the test set and counts its calls; the source (and, for
// copies, the sink) volume decide what isUsing answers.
#ifndef TESTS_UNIT_FAKE_VOSTATE_H
#define TESTS_UNIT_FAKE_VOSTATE_H

#include <string.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "vorpcclient.h"
#include "vostate.h"
#include "vostatelist.h"
#include "workerThreadPool.h"

class FakeOp : public VoState {
  public:
    using VoState::isUsing;

    FakeOp(unsigned long long opid, VoRec::VoType type, unsigned vid, unsigned char lidByte) {
        _opid = opid;
        _srcRec.setOpid(opid);
        _srcRec.setOpType(type);
        _srcRec.setRole(VoRec::VODB_ROLE_SRC);
        _srcRec.setVid(vid);
        unsigned char lid[16];
        memset(lid, lidByte, sizeof lid);
        _srcRec.setLid(lid);
    }
    ~FakeOp() override {
        if (destroyed != nullptr) *destroyed = true;
    }

    // The copy's sink, for the four-argument isUsing.
    void setSink(unsigned vid, unsigned char lidByte) {
        sinkVid = vid;
        memset(sinkLid, lidByte, sizeof sinkLid);
    }

    void dbgDump() override {}
    void getErr(voErrRc* rc, voErrFunc* func, unsigned* funcrc) override {
        err.get(rc, func, funcrc);
    }
    void getErr(voErrFunc* func, unsigned* funcrc) override { err.get(func, funcrc); }
    void setHiLvlErr(voErrRc rc) override { err.setHiLvl(rc); }
    void setErr(voErrFunc func, unsigned funcrc) override { err.set(func, funcrc); }
    void setAllErr(voErrRc rc, voErrFunc func, unsigned funcrc) override {
        err.setAll(rc, func, funcrc);
    }
    void setAllErr(VoErr& e) override { err.setAll(e); }

    bool isUsing(unsigned vid, const unsigned char* lid, VoRec::VoType type,
                 VoRec::VfsRole role) override {
        if (type != _srcRec.opType()) return false;
        if (role == VoRec::VODB_ROLE_SRC)
            return vid == _srcRec.vid() && memcmp(lid, _srcRec.lid(), 16) == 0;
        if (role == VoRec::VODB_ROLE_SINK) return vid == sinkVid && memcmp(lid, sinkLid, 16) == 0;
        return false;
    }

    unsigned progress(CLIENT*) override { return 0; }
    void concludeDbladeIncrCopy(CLIENT*) override {
        concludeIncrThread = std::this_thread::get_id();
        if (onConcludeIncr) onConcludeIncr(this);
        concludeIncrCalls++;
        if (streamEndsWhenConcluded) {
            _dbladeIncrCopyRunning = false;
            _incrcopyGotConclude = true;
        }
    }
    unsigned conclude(CLIENT*, CLIENT*, CLIENT*) override {
        concludeCalls++;
        return 0;
    }
    unsigned resurrectFromVoRec(unsigned long long, CLIENT*) override { return 0; }
    unsigned recoverFromCrash(CLIENT*, CLIENT*, CLIENT*) override {
        if (onRecover) onRecover(this);
        recoverCalls++;
        return recoverRc;
    }

    // Lifecycle fields the tests arrange directly.
    void setConcluded(bool v) { _incrcopyGotConclude = v; }
    void setOpComplete(bool v) { _opCompleteReceived = v; }
    void setRunning(bool v) { _dbladeIncrCopyRunning = v; }
    void setRecoveryAttempts(unsigned n) { _recoveryAttempted = n; }
    void setRollForward(bool v) { _rollForward = v; }

    VoErrTriple err;
    bool* destroyed = nullptr;
    unsigned sinkVid = 0;
    unsigned char sinkLid[16] = {};
    unsigned mkOpSrcSinkRc = 0;
    unsigned startStreamRc = 0;
    unsigned recoverRc = 0;
    bool streamEndsWhenConcluded = false;
    std::function<void(FakeOp*)> onRecover;
    // Runs first in concludeDbladeIncrCopy: a D-blade that answers late.
    std::function<void(FakeOp*)> onConcludeIncr;
    std::thread::id concludeIncrThread;
    std::atomic<int> mkOpSrcSinkCalls{0}, startStreamCalls{0}, concludeIncrCalls{0},
        concludeCalls{0}, recoverCalls{0};

  protected:
    bool validate(CLIENT*, CLIENT*) override { return true; }
    unsigned mkRec(CLIENT*) override { return 0; }
    unsigned mkOpSrcSink(CLIENT*, CLIENT*) override {
        mkOpSrcSinkCalls++;
        return mkOpSrcSinkRc;
    }
    unsigned startStream(CLIENT*, CLIENT*) override {
        startStreamCalls++;
        return startStreamRc;
    }
};

// The pool's client maker for unit tests: no clients, success unless a test
// asks for a failure code.
inline std::atomic<unsigned>& fakeClientMakerRc() {
    static std::atomic<unsigned> rc{0};
    return rc;
}
inline unsigned fakeClientMaker(VoRPCClient&, VoRPCClient&, VoRPCClient&) {
    return fakeClientMakerRc();
}

// A pool of at least n workers using the fake client maker. Workers cannot be
// stopped, so tests share them; the pool only grows.
inline void ensurePool(int n) {
    WorkerThreadPool::setClientMakerForTest(fakeClientMaker);
    int have = WorkerThreadPool::size();
    if (have < n) WorkerThreadPool::initialize(n - have);
}

// Polls cond until it holds or the deadline passes; true when it held.
inline bool waitFor(const std::function<bool()>& cond, int ms = 5000) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (!cond()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

// The test clock: VoState::getCurrentTime answers fakeNow() while installed.
inline std::atomic<unsigned>& fakeNow() {
    static std::atomic<unsigned> now{1000000};
    return now;
}
inline unsigned fakeClock() { return fakeNow(); }

// Empties a registry: every operation is made retirable and retired.
inline void drainRegistry(VoStateList& list) {
    list.iterator(
        [](void*, VoState* op) {
            op->setRetiredFromVodb();
            op->setMgmtGotLastProgress();
            op->clearRetainOpAfterLastProgress();
        },
        nullptr);
    list.retireCompletedOps();
}

#endif  // TESTS_UNIT_FAKE_VOSTATE_H
