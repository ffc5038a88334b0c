// What the whole-node tests on the simulated cluster share: a node running
// the simulator and vod in the foreground, the simulator's control tool
// (faults, holds, listings), vod's administration and copy calls on the wire,
// and the cluster as a user sees it afterwards: VLDB records, VODB records,
// D-blade volumes and their checksums.
//
// A failing control-tool command or remote call is a test failure; the
// helpers then return a zeroed result, so a test reads on to its assertions.
#ifndef TESTS_INTEGRATION_CLUSTER_FIXTURE_H
#define TESTS_INTEGRATION_CLUSTER_FIXTURE_H

#include <cstdint>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "node.h"
#include "vo.h"

namespace vodtest {

// A volume on a D-blade, as the simulator lists it.
struct DbladeVolume {
    std::string lp;  // LP name
    uint32_t vfsid = 0;
    std::string type;  // rw, ro, clone
    uint64_t dv = 0;
    bool hidden = false;
    std::string name;
};

// (LP name, VFS id): how the agreement checks compare volumes and records.
using VolumeKey = std::pair<std::string, uint32_t>;

struct CloneResult {
    u_int code = 0;
    u_int vfsid = 0;
    std::string name;
};

struct FindResult {
    u_int code = 0;
    u_int vfsid = 0;
    u_int modifiable = 0;
    std::vector<u_int> addrs;
};

// One copy as vod finds it; LPs by name.
struct CopyKey {
    uint32_t srcVid = 0;
    std::string srcLp;
    uint32_t sinkVid = 0;
    std::string sinkLp;
};

class ClusterTest : public NodeTest {
  protected:
    void SetUp() override;  // the simulator, then vod -d

    // ---- the simulator's control tool
    // Runs vodsimctl ARGS; returns its standard output.
    std::string sim(const std::vector<std::string>& args);
    void fault(const std::vector<std::string>& args);  // vodsimctl fault ARGS
    nlohmann::json vldb();                             // every VLDB record
    nlohmann::json vodbRecords();                      // every VODB record
    // The VLDB record of (vfsid, lp), or null.
    nlohmann::json vldbRecord(uint32_t vfsid, const std::string& lp);
    std::vector<DbladeVolume> volumes();
    std::set<VolumeKey> volumeKeys();  // of the D-blades' volumes
    std::set<VolumeKey> vldbKeys();    // of the VLDB's records
    std::string checksum(uint32_t vfsid, const std::string& lp);
    // Calls of proc the simulator served, in all or (did) at one D-blade's
    // address: D-blade n answers at 127.0.0.n, the local one being 1.
    uint64_t callCount(const std::string& proc, unsigned did = 0);
    // Adds a VODB record; opid 0 makes a new operation. Returns its opid.
    uint64_t addVodbRecord(uint64_t opid, const std::string& type, uint32_t vfsid,
                           const std::string& lp, const std::string& role);
    void speed(unsigned kibps);  // every stream's speed limit, 0 = none
    // The LP's id as 32 hex digits (a name the layout does not know comes
    // back as it is), and as bytes.
    std::string lpHex(const std::string& lp);
    void lpBytes(const std::string& lp, u_char out[16]);

    // ---- fault holds: stop vod at an exact remote call
    void hold(const std::string& proc, unsigned count = 1);
    // Waits until a call of proc is held; false after timeoutSec.
    bool waitHeld(const std::string& proc, unsigned timeoutSec = 30);
    // Waits until a call of any of procs is held and returns which, "" on time-out.
    std::string waitAnyHeld(const std::vector<std::string>& procs, double timeoutSec = 30);
    // Lets the held calls of proc go on, or with drop makes them vanish
    // unanswered. False when none was held.
    bool release(const std::string& proc, bool drop = false);
    // Holds proc, lets the call held now (if any) go on, and waits until proc
    // is held: the remote calls of a step run one by one this way.
    bool advanceTo(const std::string& proc);

    // ---- vod's life; each gives new clients from then on
    void startVod(const std::vector<std::string>& args = {"-d"});  // vod -d unless told
    void restartVod();  // SIGKILL, then start again
    void killVod();     // SIGKILL
    CLIENT* vo();       // a client to the current vod

    // ---- administration calls
    CreateVfsOut create(const std::string& name, const std::string& lp,
                        const std::string& vserver = "vs1", u_int flags = 0);
    // A volume that must be created, filled with files of fileSize bytes
    // through the simulator; its VFS id, 0 when refused.
    uint32_t makeVolume(const std::string& name, const std::string& lp, unsigned files = 0,
                        unsigned fileSize = 0);
    CloneResult clone(uint32_t vfsid);
    FindResult find(const std::string& name);
    u_int deleteByName(const std::string& name);
    u_int deleteById(uint32_t vfsid);
    VoOut vodelete(uint32_t vfsid, const std::string& lp);
    VoOut setRo(uint32_t vfsid, const std::string& lp);
    VoOut setRw(uint32_t vfsid, const std::string& lp);

    // ---- copies
    VoVidOut startCopy(uint32_t srcVid, const std::string& srcLp, const std::string& sinkLp,
                       const std::string& name);
    // Starts a copy that must be accepted; returns its key.
    CopyKey copyOf(uint32_t srcVid, const std::string& srcLp, const std::string& sinkLp,
                   const std::string& name);
    VoCopyPgrsOut progress(const CopyKey& key);
    VoOut cancel(const CopyKey& key);
    VoOut pause(const CopyKey& key);
    VoOut resume(const CopyKey& key);
    // Polls until the report satisfies pred; false after timeoutSec. *last
    // gets the last report seen, rcs every rc seen on the way.
    bool waitForReport(const CopyKey& key, bool (*pred)(const VoCopyPgrsOut&), double timeoutSec,
                       VoCopyPgrsOut* last, std::vector<int>* rcs = nullptr);
    // Slows every stream to 128 KiB/s, starts the copy and waits until it has
    // sent something, so that it is caught mid-stream. A fatal failure when
    // it does not get there.
    void startSlowCopy(uint32_t srcVid, const std::string& srcLp, const std::string& sinkLp,
                       const std::string& name, CopyKey* key);
    // Polls until the final report (or until vod no longer knows the copy)
    // and returns it.
    VoCopyPgrsOut waitForEnd(const CopyKey& key, double timeoutSec = 60,
                             std::vector<int>* rcs = nullptr);

    // ---- what must hold once every operation has ended
    // Polls until the VODB holds exactly n records; false after timeoutSec.
    bool waitVodbCount(size_t n, double timeoutSec);
    bool waitVodbEmpty(double timeoutSec) { return waitVodbCount(0, timeoutSec); }
    // No volume is hidden, every VLDB record has its volume and every volume
    // its record.
    void expectVldbAgreesWithDblades();
    // The VODB is empty, the D-blades hold exactly `expected`, and they agree
    // with the VLDB.
    void expectSettled(const std::set<VolumeKey>& expected);

  private:
    void loadLps();
    VoOut voInCall(clnt_stat (*stub)(VoIn*, VoOut*, CLIENT*), uint32_t vfsid, const std::string& lp,
                   const char* what);
    VoVidLidIn wire(const CopyKey& key);
    VoOut copyControl(clnt_stat (*stub)(VoVidLidIn*, VoOut*, CLIENT*), const CopyKey& key,
                      const char* what);

    std::vector<std::pair<std::string, std::string>> _lps;  // name, 32 hex digits
    CLIENT* _vo = nullptr;
};

// The administration, delete and resurrection tests: after every test the
// VODB holds exactly the records the test said it expects (none unless told)
// and the VLDB agrees with the D-blades.
class AdminTest : public ClusterTest {
  protected:
    void TearDown() override;

    size_t expectedVodbRecords = 0;
};

// The copy tests check the settled cluster themselves, against the volumes
// each expects to be left.
using CopyNodeTest = ClusterTest;

// "(proc << 16) | low" as vod composes its codes.
constexpr u_int codeOf(u_int proc, u_int low) { return (proc << 16) | low; }

// Expects an operation's error triple; what names the case in the failure.
template <typename Out>
void expectTriple(const Out& out, int rc, int func, unsigned funcrc, const std::string& what = "") {
    EXPECT_EQ(out.rc, rc) << what;
    EXPECT_EQ(out.func, func) << what;
    EXPECT_EQ(out.funcrc, funcrc) << what;
}

// Report predicates for waitForReport.
bool isStreamingWithProgress(const VoCopyPgrsOut& r);  // some vnodes sent, stream running
bool isRollingBack(const VoCopyPgrsOut& r);

}  // namespace vodtest

#endif  // TESTS_INTEGRATION_CLUSTER_FIXTURE_H
