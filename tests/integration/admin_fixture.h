// What the administration, delete and resurrection tests share: a node with
// the simulated cluster and vod, the administration calls on the wire, the
// simulator's faults, and the cluster as a user sees it afterwards (VLDB
// records, VODB records, D-blade volumes).
//
// After every test the fixture checks that the VODB holds exactly the records
// the test said it expects (none unless told) and that every VLDB record has
// its D-blade volume and every D-blade volume its VLDB record.
#ifndef TESTS_INTEGRATION_ADMIN_FIXTURE_H
#define TESTS_INTEGRATION_ADMIN_FIXTURE_H

#include <cstdint>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "node.h"
#include "vo.h"

namespace vodtest {

// A volume as the simulated D-blades list it.
struct SimVolumeRow {
    std::string lp;  // LP name
    uint32_t vfsid = 0;
    std::string type;  // rw, ro, clone
    bool hidden = false;
    std::string name;
};

// (LP name, VFS id).
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

class AdminTest : public NodeTest {
  protected:
    void SetUp() override;     // the simulator, then vod in the foreground
    void TearDown() override;  // the checks above, then NodeTest's

    // ---- the simulator's control tool; a failure is a test failure
    std::string sim(const std::vector<std::string>& args);
    nlohmann::json vldb();         // every VLDB record
    nlohmann::json vodbRecords();  // every VODB record
    std::vector<SimVolumeRow> volumes();
    std::set<VolumeKey> volumeKeys();
    std::set<VolumeKey> vldbKeys();
    // Adds a VODB record; opid 0 makes a new operation. Returns its opid.
    uint64_t addVodbRecord(uint64_t opid, const std::string& type, uint32_t vfsid,
                           const std::string& lp, const std::string& role);
    void fault(const std::vector<std::string>& args);  // vodsimctl fault ARGS
    uint64_t callCount(const std::string& proc);
    // The LP's id as 32 hex digits, and as bytes.
    std::string lpHex(const std::string& lp);
    void lpBytes(const std::string& lp, u_char out[16]);

    // ---- vod
    void startVod();    // vod -d, with a fresh client
    void restartVod();  // SIGKILL, then start again
    CLIENT* vo();
    CreateVfsOut create(const std::string& name, const std::string& lp,
                        const std::string& vserver = "vs1", u_int flags = 0);
    // A volume that must be created; its VFS id.
    uint32_t makeVolume(const std::string& name, const std::string& lp);
    CloneResult clone(uint32_t vfsid);
    FindResult find(const std::string& name);
    u_int deleteByName(const std::string& name);
    u_int deleteById(uint32_t vfsid);
    VoOut vodelete(uint32_t vfsid, const std::string& lp);
    VoOut setRo(uint32_t vfsid, const std::string& lp);
    VoOut setRw(uint32_t vfsid, const std::string& lp);

    // ---- the state of the cluster
    // Polls until the VODB holds exactly n records; false after timeoutSec.
    bool waitVodbCount(size_t n, double timeoutSec);
    // Every VLDB record has its volume and every volume its record; no
    // volume is hidden.
    void expectVldbAgreesWithDblades();
    // How many VODB records the end-of-test check expects.
    size_t expectedVodbRecords = 0;

  private:
    VoOut voInCall(clnt_stat (*stub)(VoIn*, VoOut*, CLIENT*), uint32_t vfsid, const std::string& lp,
                   const char* what);
    CLIENT* _vo = nullptr;
};

// "(proc << 16) | low" as vod composes its codes.
constexpr u_int codeOf(u_int proc, u_int low) { return (proc << 16) | low; }

}  // namespace vodtest

#endif  // TESTS_INTEGRATION_ADMIN_FIXTURE_H
