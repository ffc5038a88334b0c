// The D-blade volume store of the simulated node: volumes as directories of real files
// with durable metadata, shared by the volume service, the incremental-copy streams and
// the control commands.
//
// On disk, under SimNode::dataDir():
//   volstore.db                          volume and file metadata (SQLite)
//   dblade-<did>/<LP>/<vfsid>/...        the files of one volume (LP as 32 hex digits)
//   dblade-<did>/streams/<opid>/         a running stream's frozen image of its source
//
// Files inside a volume are never changed in place: every writer puts the new contents in a
// temporary file and renames it over the old one.  That is what lets a clone and a stream's
// frozen image share the source's files through hard links.
//
// A volume is hidden while its contents are not a consistent image: from the moment a
// stream first writes into it until that stream brings it to the source's data version.  A
// sink whose stream was cancelled, or ran when the simulator stopped, stays hidden (with the
// data version it had before) until it is deleted or a later stream completes into it.  A
// hidden volume answers 32 to every call but voldelete and blocks its id on its LP.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

// Called once by main after the node's layout is known: opens the store under
// SimNode::dataDir(), recovers volumes left by an earlier run and registers the volume
// and stream control commands.  Streams are never recovered.
void simDbladeInit();

// Blocks used by all volumes on the LP, in the LP's block size.  The caller holds
// SimNode::lock().
uint64_t simBlocksUsedOnLp(const unsigned char uuid[16]);

// Blocks set aside by the volumes' minimum quotas on the LP and not yet used by them.
// The caller holds SimNode::lock().
uint64_t simBlocksReservedOnLp(const unsigned char uuid[16]);

// D-blade volume statuses.
enum SimVolStatus : unsigned {
    TARN_OK = 0,
    TARN_ERR_EIO = 5,            // the store could not read or write its own data
    TARN_ERR_VOLNOTFOUND = 16,   // no volume with that id on any LP of the node
    TARN_ERR_EEXIST = 17,        // the id is taken on that LP
    TARN_ERR_LPMMISMATCH = 21,   // the volume is not on that LP (or the LP is unknown)
    TARN_ERR_EINVAL = 22,
    TARN_ERR_ENOSPC = 28,        // over the LP's free space or the volume's maximum quota
    TARN_ERR_VOLHIDDEN = 32,     // a hidden volume holds the id
    TARN_ERR_ENORNUM = 33,       // busy: a stream reads or writes the volume; try again later
};

// The how bits of a set-attributes request are the protocol's VOLSET_ constants.


// Volume types, numbered as the VLDB numbers them.
enum SimVolType : unsigned { VOLTYPE_RW = 1, VOLTYPE_RO = 2, VOLTYPE_CLONE = 3 };

// Bits of tarn_volgattrx_t.flags as this D-blade reports them.  None of them is a state
// that makes a volume's data version unusable.
enum SimVolFlags : unsigned {
    VOLFLAG_RW = 0x1,
    VOLFLAG_RO = 0x2,
    VOLFLAG_CLONE = 0x10,
    VOLFLAG_HAS_DOWNSTREAM = 0x20,
};

using SimLpId = std::array<unsigned char, 16>;

// One volume's new id in SimVolStore::renumber.
struct SimRenumber {
    SimLpId lp{};
    uint32_t from = 0, to = 0;
};

// One file of a volume, or the tombstone of a deleted one.  `version` is the volume's data
// version of the last change to that path.
struct SimFileMeta {
    uint64_t version = 0;
    uint64_t size = 0;
    bool deleted = false;
};

// Settable attributes with the store's own types (wire strings become std::string).
struct SimVolAttrs {
    uint64_t minQuota = 0, maxQuota = 0;
    std::string volname, mountedatvolname;
    uint32_t mountedatdirvnode = 0, mountedatdirunique = 0;
    uint32_t mountedatparentvnode = 0, mountedatparentunique = 0;
    uint64_t createTime = 0;   // seconds in the high 32 bits, nanoseconds in the low 32
    uint32_t bkupLevel = 0;
    uint64_t prevBkupTime = 0, prevVersion = 0;
    uint32_t virtualServer = 0, mountedatVolumeId = 0, volumeId = 0, mgmId = 0;
    std::string mgmExts = std::string(24, '\0');
    uint32_t dmOptions = 0, phase = 0, percentFreeThreshold = 0;
};

struct SimVolume {
    int64_t key = 0;   // the store's own row id; survives renumbering
    SimLpId lp{};
    uint16_t did = 0;  // D-blade that owned the LP when the volume was made (its folder)
    uint32_t vfsid = 0;
    unsigned type = VOLTYPE_RW;
    SimVolAttrs attrs;
    uint32_t rootVnode = 1, rootUnique = 1;
    uint64_t dataVersion = 0;
    uint32_t downstream = 0, upstream = 0;
    bool hidden = false;
    std::map<std::string, SimFileMeta> files;   // live files and tombstones
    // Not kept on disk: streams reading this volume, the stream writing into it, and the
    // final move that stopped writes to it (file changes answer 33 while it is set).
    int readers = 0;
    uint64_t writerOpId = 0;
    uint64_t stoppedByOpId = 0;

    uint32_t flags() const;
};

// The store.  Every member requires SimNode::lock() held by the caller, except where said;
// D-blade statuses are returned as SimVolStatus values.
class SimVolStore {
public:
    static SimVolStore& get();

    // Opens (creating) the metadata under dataDir, finishes renames a crash interrupted,
    // loads every volume and removes stream images of an earlier run.
    bool open(const std::string& dataDir, std::string* err);

    SimVolume* find(const SimLpId& lp, uint32_t vfsid);
    // 0 with *out set when (lp, vfsid) exists (hidden or not); 21 when the LP is unknown
    // or the id lives only on other LPs; 16 when no LP has it.
    unsigned locate(const SimLpId& lp, uint32_t vfsid, SimVolume** out);
    std::vector<SimVolume*> volumes(const SimLpId* onlyLp = nullptr);

    unsigned create(const SimLpId& lp, uint32_t vfsid, unsigned how, const SimVolAttrs& in);
    unsigned remove(const SimLpId& lp, uint32_t vfsid);
    unsigned clone(const SimLpId& lp, uint32_t srcVfsid, uint32_t cloneVfsid);
    unsigned setAttrs(const SimLpId& lp, uint32_t vfsid, unsigned how, const SimVolAttrs& in);
    // An id swap through a spare id is three renumberings, in this order: vfsid1 -> temp
    // on lp1, vfsid2 -> vfsid1 on lp2, temp -> vfsid2 on lp1.  Checks that the swap may
    // start (both volumes there, neither hidden nor busy, distinct ids, the spare id free
    // on lp1) and gives the steps; the caller runs each with renumber(), so a swap stopped
    // between two steps leaves the earlier ones done, on disk.
    unsigned swapSteps(const SimLpId& lp1, uint32_t vfsid1, const SimLpId& lp2, uint32_t vfsid2,
                       uint32_t tempVfsid, std::vector<SimRenumber>* steps);
    // Gives several volumes new ids as one step (one transaction; the folders move through
    // parking names of the store's own), so an id may pass from one volume of the step to
    // another.  Every other target must be free on its LP (17, or 32 when hidden); the
    // volumes must be neither hidden nor busy.  References from the LP's volumes follow.
    unsigned renumber(const std::vector<SimRenumber>& moves);

    // Hides or shows a volume by hand: the state a stream leaves in a sink it did not
    // finish.  33 while a stream writes into it, since the stream owns the flag then.
    unsigned setHidden(SimVolume* v, bool hidden);

    // File changes of the control interface; each bumps the data version once, by dverStep.
    // append: add to the end instead of replacing.
    unsigned writeFile(SimVolume* v, const std::string& path, const std::string& data,
                       bool append, uint64_t dverStep = 1);
    unsigned removeFile(SimVolume* v, const std::string& path);

    uint64_t blocksUsed(const SimVolume& v) const;
    uint64_t blocksUsedOnLp(const SimLpId& lp) const;
    uint64_t blocksReservedOnLp(const SimLpId& lp) const;
    // Free blocks on the LP (capacity minus used), 0 when the LP is unknown.
    uint64_t blocksFreeOnLp(const SimLpId& lp) const;
    unsigned blockSizeOf(const SimLpId& lp) const;

    // The volume's folder; the path does not change while a stream uses the volume.
    std::string dirOf(const SimVolume& v) const;
    std::string streamDir(uint16_t did, uint64_t opId) const;

    // Content checksum over the live files, read from disk: equal contents give equal
    // sums whatever the volume's id or LP.  Empty string when a file cannot be read.
    std::string checksum(const SimVolume& v) const;

    // For streams.  freezeImage links the live files of v into dir (as it stands now) and
    // returns false when it cannot.  commitFile renames a fully written temporary file into
    // the sink and records it; commitDelete removes a path and leaves a tombstone; both
    // hide the sink first.  finishSink gives the sink the source's data version and shows it.
    bool freezeImage(const SimVolume& v, const std::string& dir, std::string* err);
    unsigned commitFile(SimVolume* sink, const std::string& path, const std::string& tmpFile,
                        uint64_t version, uint64_t size);
    unsigned commitDelete(SimVolume* sink, const std::string& path, uint64_t version);
    unsigned finishSink(SimVolume* sink, uint64_t dataVersion);

    struct Impl;

private:
    SimVolStore() = default;
    unsigned bumpAndRecord(SimVolume* v, const std::string& path, const SimFileMeta& m);
    Impl* _impl = nullptr;
};

// LP ids as 32 upper-case hex digits, and back (false unless exactly 32 hex digits).
std::string simLpHex(const SimLpId& lp);
bool simParseLpHex(const std::string& s, SimLpId* out);
SimLpId simLpId(const unsigned char uuid[16]);

// Removes a file or a whole folder tree; true when nothing is left of it.
bool simRemoveTree(const std::string& path);
// Makes a folder and its missing parents; true when it is there.
bool simMakeDirs(const std::string& path);
