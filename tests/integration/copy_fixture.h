// What the copy tests share: a node running the simulated cluster and vod,
// volumes made through vod and filled through the simulator, the copy calls on
// the wire, the simulator's fault holds, and the views of the cluster a user
// has afterwards (VLDB, VODB, D-blade volumes and their checksums).
#ifndef TESTS_INTEGRATION_COPY_FIXTURE_H
#define TESTS_INTEGRATION_COPY_FIXTURE_H

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

// (LP name, VFS id): how the invariant checks compare volumes and records.
using VolumeId = std::pair<std::string, uint32_t>;

// One copy as vod finds it; LPs by name.
struct CopyKey {
    uint32_t srcVid = 0;
    std::string srcLp;
    uint32_t sinkVid = 0;
    std::string sinkLp;
};

class CopyNodeTest : public NodeTest {
  protected:
    void SetUp() override;  // simulator, then vod in the foreground (-d)

    // ---- the simulator's control tool
    // Runs vodsimctl; a failure is a test failure. Returns its standard output.
    std::string sim(const std::vector<std::string>& args);
    nlohmann::json vldb();         // every VLDB record
    nlohmann::json vodbRecords();  // every VODB record
    std::vector<DbladeVolume> volumes();
    std::string checksum(uint32_t vfsid, const std::string& lp);
    uint64_t callCount(const std::string& proc);  // calls the simulator served
    // The VLDB record of (vfsid, lp), or null.
    nlohmann::json vldbRecord(uint32_t vfsid, const std::string& lp);

    // ---- fault holds: stop vod at an exact remote call
    void hold(const std::string& proc, unsigned count = 1);
    // Waits until a call of proc is held; false after timeoutSec.
    bool waitHeld(const std::string& proc, unsigned timeoutSec = 30);
    // Waits until a call of any of procs is held and returns which, "" on time-out.
    std::string waitAnyHeld(const std::vector<std::string>& procs, double timeoutSec = 30);
    // Lets the held calls of proc go on, or with drop makes them vanish unanswered.
    void release(const std::string& proc, bool drop = false);
    // Holds proc, lets the call held now (if any) go on, and waits until proc
    // is held: the remote calls of a step run one by one this way.
    bool advanceTo(const std::string& proc);
    void speed(unsigned kibps);  // every stream's speed limit, 0 = none

    // ---- volumes, through vod's createvfs and the simulator's fill
    uint32_t makeVolume(const std::string& name, const std::string& lp, unsigned files,
                        unsigned fileSize);
    void setReadOnly(uint32_t vfsid, const std::string& lp);

    // ---- copies on the wire
    CLIENT* vo();  // a client to the current vod
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
    // gets the last report seen.
    bool waitForReport(const CopyKey& key, bool (*pred)(const VoCopyPgrsOut&), double timeoutSec,
                       VoCopyPgrsOut* last, std::vector<int>* rcs = nullptr);
    // Polls until the final report (or until vod no longer knows the copy)
    // and returns it; rcs gets every rc seen on the way.
    VoCopyPgrsOut waitForEnd(const CopyKey& key, double timeoutSec = 60,
                             std::vector<int>* rcs = nullptr);

    // ---- vod's life
    void restartVod();  // SIGKILL and start again; new clients from then on
    void killVod();

    // ---- what must hold once every operation has ended
    bool waitVodbEmpty(double timeoutSec);
    // No VODB record, no hidden volume, the D-blades hold exactly `expected`,
    // and every D-blade volume has its VLDB record and no record lacks its
    // volume.
    void expectSettled(const std::set<VolumeId>& expected);
    std::set<VolumeId> volumeIds();

    // LP id bytes of an LP name of the layout.
    void lpBytes(const std::string& lp, u_char out[16]);
    VoVidLidIn wire(const CopyKey& key);
    VoOut control(clnt_stat (*stub)(VoVidLidIn*, VoOut*, CLIENT*), const CopyKey& key,
                  const char* what);

    std::vector<std::pair<std::string, std::string>> _lps;  // name, 32 hex digits
    CLIENT* _vo = nullptr;
};

// Report predicates for waitForReport.
bool isStreamingWithProgress(const VoCopyPgrsOut& r);  // some vnodes sent, stream running
bool isRollingBack(const VoCopyPgrsOut& r);

std::string lpHexOf(const u_char lp[16]);

}  // namespace vodtest

#endif  // TESTS_INTEGRATION_COPY_FIXTURE_H
