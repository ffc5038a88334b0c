// voctl move: how a pass is labelled and how a dry run judges a move. A dry
// run gathers what vod would look at (the VLDB, the VODB, the source
// D-blade's volume attributes, the target LP's free space) into MoveFacts and
// applies vod's refusals to it here, in the order vod checks them.
//
// Header-only so that the unit tests can use it without linking the tool.
#ifndef VOCTL_MOVE_PLAN_H
#define VOCTL_MOVE_PLAN_H

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>

#include "vldb_lit.h"
#include "vo.h"
#include "voctl/copy_report.h"
#include "voctl/lpid.h"
#include "voerrors.h"

namespace voctl {

// The label of a pass's progress bar: "move pass 2", "move pass 3 (final)".
// A move's next pass, or its pass turning final, starts a new bar.
inline std::string passLabel(const StreamReport& r) {
    return "move pass " + std::to_string(r.pass) + (r.finalPass ? " (final)" : "");
}

// The space a move reserves on the target LP, in blocks: the volume's
// minimum quota, or what it uses when that is more.
inline uint64_t moveSpaceNeeded(uint64_t minQuota, uint64_t blocksUsed) {
    return std::max(minQuota, blocksUsed);
}

// A VODB record that keeps vod from moving the volume.
struct MoveConflict {
    uint64_t opid = 0;
    int opType = 0;
    uint32_t vfsid = 0;
    LpId lp{};
    int role = 0;
    unsigned busyCode = 0;  // 5021..5026, after opType
};

// The first record (of n, vodbRec-shaped: vfsid, lp_uuid) that names the
// volume on its own LP or on the target LP; n when none does. A recorded
// operation on either end of the move, whatever its type and role, holds it.
template <typename Rec>
size_t findMoveConflict(const Rec* recs, size_t n, uint32_t vfsid, const LpId& srcLp,
                        const LpId& dstLp) {
    for (size_t i = 0; i < n; ++i) {
        if (recs[i].vfsid != vfsid) continue;
        if (std::equal(srcLp.begin(), srcLp.end(), recs[i].lp_uuid) ||
            std::equal(dstLp.begin(), dstLp.end(), recs[i].lp_uuid))
            return i;
    }
    return n;
}

// What a dry run learnt. Optional parts stay empty when the step that
// learns them did not run (no source volume, say).
struct MoveFacts {
    uint32_t vfsid = 0;
    LpId srcLp{}, dstLp{};
    bool sourceFound = false;               // the VLDB holds the volume on srcLp
    unsigned vfsType = 0;                   // its VLDB type: 1 read-write, 2 read-only, 3 clone
    uint16_t srcDblade = 0, dstDblade = 0;  // the D-blades serving the two LPs
    std::string dstHost;
    unsigned blockSize = 0;  // the target LP's; 0 while unknown
    std::optional<MoveConflict> conflict;
    // From the source D-blade and the target LP, in blocks.
    std::optional<uint64_t> minQuota, blocksUsed, unreservedFree;

    bool sameLp() const { return srcLp == dstLp; }
    bool local() const { return srcDblade == dstDblade; }
    // A read-write source stays on line: it is moved in regular passes from
    // clones until few enough changes are left for the final pass.
    bool readWrite() const { return vfsType == 1; }
    bool spaceKnown() const { return minQuota && blocksUsed && unreservedFree; }
    uint64_t needed() const { return moveSpaceNeeded(*minQuota, *blocksUsed); }
    bool fits() const { return needed() <= *unreservedFree; }
};

// The error triple vod would refuse the move with, in the order it checks:
// the same LP at both ends, no such volume on the source LP, a recorded
// operation holding it, too little room on the target LP. All zero when it
// would accept the move.
inline VoOut moveVerdict(const MoveFacts& f) {
    if (f.sameLp()) return {voErrValidate, voErrVodAddStream, VOD_ERR_SAME_LP};
    if (!f.sourceFound) return {voErrSrcVFSNotExist, voErrVldbRecordLookup, VLDB_RECORD_NOT_FOUND};
    if (f.conflict) return {voErrValidate, voErrVodValidate, f.conflict->busyCode};
    if (f.spaceKnown() && !f.fits()) return {voErrNotEnoughSpaceSinkLP, voErrFuncSuccess, 0};
    return {voErrRcSuccess, voErrFuncSuccess, 0};
}

}  // namespace voctl

#endif  // VOCTL_MOVE_PLAN_H
