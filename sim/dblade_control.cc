// The D-blade's control commands (volumes, files, streams) and its start-up.

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iomanip>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "dblade_vol.h"
#include "sim/dblade_sync.h"
#include "sim/incrcopy.h"
#include "sim/incrcopy_move.h"
#include "sim/simcontrol.h"
#include "sim/simnode.h"
#include "sim/volstore.h"
#include "sim/writer.h"

namespace {

using Args = std::vector<std::string>;

// Files bigger than this are refused: generated contents are built in memory.
constexpr uint64_t kMaxGeneratedFile = 256ull << 20;

bool parseU64(const std::string& s, uint64_t* out) {
    if (s.empty() || s[0] == '-') return false;
    errno = 0;
    char* end = nullptr;
    unsigned long long v = strtoull(s.c_str(), &end, 0);
    if (errno || !end || *end) return false;
    *out = v;
    return true;
}

bool parseU32(const std::string& s, uint32_t* out) {
    uint64_t v;
    if (!parseU64(s, &v) || v > 0xffffffffull) return false;
    *out = static_cast<uint32_t>(v);
    return true;
}

// An LP by name or by its 32 hex digits.  The caller holds the lock.
SimLp* findLp(const std::string& s) {
    SimNode& node = SimNode::get();
    if (SimLp* lp = node.findLpByName(s)) return lp;
    SimLpId id;
    return simParseLpHex(s, &id) ? node.findLp(id.data()) : nullptr;
}

std::string lpName(const SimLpId& id) {
    SimLp* lp = SimNode::get().findLp(id.data());
    return lp ? lp->name : simLpHex(id);
}

const char* typeName(unsigned t) {
    return t == VOLTYPE_RO ? "ro" : t == VOLTYPE_CLONE ? "clone" : "rw";
}

std::string statusText(unsigned st) {
    switch (st) {
    case TARN_ERR_EIO: return "I/O error in the volume store";
    case TARN_ERR_VOLNOTFOUND: return "no such volume";
    case TARN_ERR_EEXIST: return "the id is taken on that LP";
    case TARN_ERR_LPMMISMATCH: return "the volume is not on that LP";
    case TARN_ERR_EINVAL: return "invalid argument";
    case TARN_ERR_ENOSPC: return "no space (LP full or over the maximum quota)";
    case TARN_ERR_VOLHIDDEN: return "a hidden volume holds the id";
    case TARN_ERR_ENORNUM: return "busy: a stream uses the volume";
    default: return "status " + std::to_string(st);
    }
}

std::string fail(bool* ok, const std::string& text) {
    *ok = false;
    return text;
}

// Looks up the VFSID and LP words; on failure *reply says why.
SimVolume* volumeArg(const Args& a, size_t at, std::string* reply) {
    uint32_t vfsid;
    if (a.size() < at + 2 || !parseU32(a[at], &vfsid)) {
        *reply = "expected VFSID LP";
        return nullptr;
    }
    SimLp* lp = findLp(a[at + 1]);
    if (!lp) {
        *reply = "no LP " + a[at + 1];
        return nullptr;
    }
    SimVolume* v;
    unsigned st = SimVolStore::get().locate(simLpId(lp->uuid), vfsid, &v);
    if (st) *reply = "volume " + a[at] + " on " + lp->name + ": " + statusText(st);
    return v;
}

// Pseudo-random contents: a new write of the same path and size still gives new bytes,
// because the seed takes the data version the write will make.
std::string generated(const std::string& path, uint64_t version, uint64_t size) {
    SimChecksum seed;
    seed.beginFile(path, version);
    uint64_t x = strtoull(seed.hex().c_str(), nullptr, 16) | 1;
    std::string out(size, '\0');
    for (size_t i = 0; i < out.size(); i += 8) {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        for (size_t j = 0; j < 8 && i + j < out.size(); ++j)
            out[i + j] = static_cast<char>(x >> (8 * j));
    }
    return out;
}

std::string volLine(const SimVolume& v) {
    SimVolStore& store = SimVolStore::get();
    size_t live = 0;
    for (const auto& [p, f] : v.files) live += f.deleted ? 0 : 1;
    std::ostringstream o;
    o << "lp=" << lpName(v.lp) << " vfsid=" << v.vfsid << " type=" << typeName(v.type)
      << " dv=" << v.dataVersion << " files=" << live << " blocks=" << store.blocksUsed(v)
      << " hidden=" << (v.hidden ? 1 : 0) << " busy=" << ((v.readers || v.writerOpId) ? 1 : 0)
      << " name=" << v.attrs.volname;
    return o.str();
}

std::string cmdList(const Args& a, bool* ok) {
    std::lock_guard<std::mutex> lk(SimNode::get().lock());
    SimLpId only;
    if (!a.empty()) {
        SimLp* lp = findLp(a[0]);
        if (!lp) return fail(ok, "no LP " + a[0]);
        only = simLpId(lp->uuid);
    }
    std::string out;
    for (SimVolume* v : SimVolStore::get().volumes(a.empty() ? nullptr : &only))
        out += volLine(*v) + "\n";
    return out;
}

std::string cmdShow(const Args& a, bool* ok) {
    std::lock_guard<std::mutex> lk(SimNode::get().lock());
    std::string err;
    SimVolume* v = volumeArg(a, 0, &err);
    if (!v) return fail(ok, err);
    SimVolStore& store = SimVolStore::get();
    const SimVolAttrs& at = v->attrs;
    std::ostringstream o;
    o << "vfsid: " << v->vfsid << "\nlp: " << simLpHex(v->lp) << " (" << lpName(v->lp) << ")"
      << "\ndblade: " << v->did << "\nname: " << at.volname << "\ntype: " << typeName(v->type)
      << "\nflags: 0x" << std::hex << v->flags() << std::dec << "\nhidden: " << v->hidden
      << "\ndataVersion: " << v->dataVersion << "\nblocksUsed: " << store.blocksUsed(*v)
      << "\nminQuota: " << at.minQuota << "\nmaxQuota: " << at.maxQuota
      << "\nmountedatvolname: " << at.mountedatvolname << "\nmountedatdir: "
      << at.mountedatdirvnode << "." << at.mountedatdirunique
      << "\nmountedatparent: " << at.mountedatparentvnode << "." << at.mountedatparentunique
      << "\nmountedatVolumeId: " << at.mountedatVolumeId << "\ncreateTime: " << (at.createTime >> 32)
      << "." << std::setw(9) << std::setfill('0') << (at.createTime & 0xffffffffu)
      << std::setfill(' ') << "\nroot: " << v->rootVnode << "."
      << v->rootUnique << "\nvirtualServer: " << at.virtualServer
      << "\ndownstream: " << v->downstream << "\nupstream: " << v->upstream
      << "\nreaders: " << v->readers << "\nwriterOpId: " << v->writerOpId
      << "\ndir: " << store.dirOf(*v) << "\n";
    return o.str();
}

std::string cmdCreate(const Args& a, bool* ok) {
    std::lock_guard<std::mutex> lk(SimNode::get().lock());
    uint32_t vfsid;
    if (a.size() != 3 || !parseU32(a[0], &vfsid)) return fail(ok, "expected VFSID LP NAME");
    SimLp* lp = findLp(a[1]);
    if (!lp) return fail(ok, "no LP " + a[1]);
    SimVolAttrs attrs;
    attrs.volname = a[2];
    unsigned st = SimVolStore::get().create(simLpId(lp->uuid), vfsid, VOLSET_VOLNAME, attrs);
    if (st) return fail(ok, "vol-create: " + statusText(st));
    return "created " + std::to_string(vfsid) + " on " + lp->name + "\n";
}

// The by-hand volume changes that build what a crash leaves behind: VFSID LP and
// `extra` more words; fn makes the change and returns a store status, or sets *why.
// Nothing here touches the VLDB.
template <typename Fn>
std::string byHand(const Args& a, bool* ok, size_t extra, const char* usage, Fn fn) {
    std::lock_guard<std::mutex> lk(SimNode::get().lock());
    if (a.size() != 2 + extra) return fail(ok, std::string("expected ") + usage);
    std::string err;
    SimVolume* v = volumeArg(a, 0, &err);
    if (!v) return fail(ok, err);
    std::string done;
    unsigned st = fn(v, &done, &err);
    if (!err.empty()) return fail(ok, err + "; expected " + usage);
    if (st) return fail(ok, a[0] + " on " + a[1] + ": " + statusText(st));
    return done + "\n";
}

// The NEWID word of vol-clone and vol-renumber.
bool newIdArg(const std::string& word, uint32_t* id, std::string* err) {
    if (parseU32(word, id) && *id != 0) return true;
    *err = "bad NEWID " + word;
    return false;
}

std::string cmdClone(const Args& a, bool* ok) {
    return byHand(a, ok, 1, "VFSID LP NEWID", [&](SimVolume* v, std::string* done, std::string* err) {
        uint32_t id;
        if (!newIdArg(a[2], &id, err)) return 0u;
        *done = "cloned " + a[0] + " as " + std::to_string(id) + " on " + lpName(v->lp);
        return SimVolStore::get().clone(v->lp, v->vfsid, id);
    });
}

std::string cmdRenumber(const Args& a, bool* ok) {
    return byHand(a, ok, 1, "VFSID LP NEWID", [&](SimVolume* v, std::string* done, std::string* err) {
        uint32_t id;
        if (!newIdArg(a[2], &id, err)) return 0u;
        *done = "renumbered " + a[0] + " to " + std::to_string(id) + " on " + lpName(v->lp);
        return SimVolStore::get().renumber({{v->lp, v->vfsid, id}});
    });
}

std::string cmdHide(const Args& a, bool* ok) {
    return byHand(a, ok, 1, "VFSID LP on|off", [&](SimVolume* v, std::string* done, std::string* err) {
        if (a[2] != "on" && a[2] != "off") {
            *err = "bad word " + a[2];
            return 0u;
        }
        *done = (a[2] == "on" ? "hid " : "showed ") + a[0] + " on " + lpName(v->lp);
        return SimVolStore::get().setHidden(v, a[2] == "on");
    });
}

std::string cmdDelete(const Args& a, bool* ok) {
    return byHand(a, ok, 0, "VFSID LP", [&](SimVolume* v, std::string* done, std::string*) {
        *done = "deleted " + a[0] + " on " + lpName(v->lp);
        return SimVolStore::get().remove(v->lp, v->vfsid);
    });
}

// The contents option of vol-write and vol-append: --size N or --text T.
bool contentArg(const Args& a, size_t at, const std::string& path, const SimVolume& v,
                std::string* data, std::string* err) {
    if (a.size() != at + 2) {
        *err = "expected --size N or --text T";
        return false;
    }
    if (a[at] == "--text") {
        *data = a[at + 1];
        return true;
    }
    uint64_t n;
    if (a[at] != "--size" || !parseU64(a[at + 1], &n) || n > kMaxGeneratedFile) {
        *err = "expected --size N (at most " + std::to_string(kMaxGeneratedFile) +
               ") or --text T";
        return false;
    }
    *data = generated(path, v.dataVersion + 1, n);
    return true;
}

std::string cmdWrite(const Args& a, bool* ok, bool append) {
    std::lock_guard<std::mutex> lk(SimNode::get().lock());
    std::string err, data;
    SimVolume* v = volumeArg(a, 0, &err);
    if (!v) return fail(ok, err);
    if (a.size() < 3) return fail(ok, "expected VFSID LP PATH --size N | --text T");
    if (!contentArg(a, 3, a[2], *v, &data, &err)) return fail(ok, err);
    unsigned st = SimVolStore::get().writeFile(v, a[2], data, append);
    if (st) return fail(ok, a[2] + ": " + statusText(st));
    return "dv=" + std::to_string(v->dataVersion) + "\n";
}

std::string cmdRm(const Args& a, bool* ok) {
    std::lock_guard<std::mutex> lk(SimNode::get().lock());
    std::string err;
    SimVolume* v = volumeArg(a, 0, &err);
    if (!v) return fail(ok, err);
    if (a.size() != 3) return fail(ok, "expected VFSID LP PATH");
    unsigned st = SimVolStore::get().removeFile(v, a[2]);
    if (st == TARN_ERR_VOLNOTFOUND) return fail(ok, a[2] + ": no such file");
    if (st) return fail(ok, a[2] + ": " + statusText(st));
    return "dv=" + std::to_string(v->dataVersion) + "\n";
}

std::string cmdFiles(const Args& a, bool* ok) {
    std::lock_guard<std::mutex> lk(SimNode::get().lock());
    std::string err;
    SimVolume* v = volumeArg(a, 0, &err);
    if (!v) return fail(ok, err);
    std::string out;
    for (const auto& [path, f] : v->files) {
        out += "v=" + std::to_string(f.version) + " ";
        out += f.deleted ? std::string("deleted") : "size=" + std::to_string(f.size);
        out += " " + path + "\n";
    }
    return out;
}

std::string cmdChecksum(const Args& a, bool* ok) {
    std::lock_guard<std::mutex> lk(SimNode::get().lock());
    std::string err;
    SimVolume* v = volumeArg(a, 0, &err);
    if (!v) return fail(ok, err);
    std::string sum = SimVolStore::get().checksum(*v);
    if (sum.empty()) return fail(ok, "cannot read the volume's files");
    return sum + "\n";
}

std::string cmdFill(const Args& a, bool* ok) {
    std::lock_guard<std::mutex> lk(SimNode::get().lock());
    std::string err;
    SimVolume* v = volumeArg(a, 0, &err);
    if (!v) return fail(ok, err);
    uint64_t files = 0, size = 0;
    bool haveFiles = false, haveSize = false;
    for (size_t i = 2; i < a.size(); i += 2) {
        if (i + 1 >= a.size()) return fail(ok, "expected --files N --size BYTES");
        if (a[i] == "--files" && parseU64(a[i + 1], &files) && files <= 100000)
            haveFiles = true;
        else if (a[i] == "--size" && parseU64(a[i + 1], &size) && size <= kMaxGeneratedFile)
            haveSize = true;
        else
            return fail(ok, "expected --files N (at most 100000) --size BYTES");
    }
    if (!haveFiles || !haveSize) return fail(ok, "expected --files N --size BYTES");
    for (uint64_t i = 0; i < files; ++i) {
        char name[32];
        snprintf(name, sizeof name, "fill/%05llu", static_cast<unsigned long long>(i));
        unsigned st =
            SimVolStore::get().writeFile(v, name, generated(name, v->dataVersion + 1, size), false);
        if (st) return fail(ok, std::string(name) + ": " + statusText(st));
    }
    return "dv=" + std::to_string(v->dataVersion) + "\n";
}

const char* streamStatusName(unsigned s) {
    return s == SIMSTREAM_DONE ? "done" : s == SIMSTREAM_PAUSED ? "paused" : "running";
}

std::string streamLine(const SimStreamProgress& p) {
    std::ostringstream o;
    o << "opid=" << p.opId << " src=" << p.srcVfsid << "@" << lpName(p.srcLp)
      << " status=" << streamStatusName(p.status) << " code=" << p.completionCode
      << " dv=" << p.dataVersion << " vnodes=" << p.vnodesProcessed << "/" << p.vnodesTotal
      << " blksRead=" << p.blksRead << " speed=" << p.speedKiBps << " sinks=" << p.sinks.size();
    return o.str();
}

std::string cmdStreamList(const Args&, bool*) {
    std::lock_guard<std::mutex> lk(SimNode::get().lock());
    std::string out;
    for (uint64_t id : simStreamIds()) {
        SimStreamProgress p;
        if (simStreamProgress(id, &p)) out += streamLine(p) + "\n";
    }
    return out;
}

std::string cmdStreamShow(const Args& a, bool* ok) {
    std::lock_guard<std::mutex> lk(SimNode::get().lock());
    uint64_t id;
    if (a.size() != 1 || !parseU64(a[0], &id)) return fail(ok, "expected OPID");
    SimStreamProgress p;
    if (!simStreamProgress(id, &p)) return fail(ok, "no stream " + a[0]);
    std::string out = streamLine(p) + "\n";
    for (const SimSinkProgress& s : p.sinks)
        out += "sink vfsid=" + std::to_string(s.vfsid) + " lp=" + lpName(s.lp) +
               " done=" + std::to_string(s.done ? 1 : 0) +
               " code=" + std::to_string(s.completionCode) +
               " blksSent=" + std::to_string(s.blksSent) + "\n";
    return out;
}

std::string cmdStreamSpeed(const Args& a, bool* ok) {
    std::lock_guard<std::mutex> lk(SimNode::get().lock());
    uint64_t id, kibps;
    if (a.size() == 1 && parseU64(a[0], &kibps) && kibps <= 0xffffffffull) {
        simStreamSetGlobalSpeed(static_cast<unsigned>(kibps));
        return "global speed " + a[0] + " KiB/s\n";
    }
    if (a.size() == 2 && parseU64(a[0], &id) && parseU64(a[1], &kibps) && kibps <= 0xffffffffull) {
        if (!simStreamSetSpeed(id, static_cast<unsigned>(kibps)))
            return fail(ok, "no stream " + a[0]);
        return "stream " + a[0] + " speed " + a[1] + " KiB/s\n";
    }
    return fail(ok, "expected [OPID] KIBPS (0 = unlimited)");
}

void registerCommands() {
    simRegisterCommand("vol-list", "vol-list [LP]: the D-blades' volumes", cmdList);
    simRegisterCommand("vol-show", "vol-show VFSID LP: every attribute of a volume", cmdShow);
    simRegisterCommand("vol-create", "vol-create VFSID LP NAME: a read-write volume (no VLDB record)",
                       cmdCreate);
    simRegisterCommand("vol-clone",
                       "vol-clone VFSID LP NEWID: a clone of a volume on its LP (no VLDB record)",
                       cmdClone);
    simRegisterCommand("vol-renumber",
                       "vol-renumber VFSID LP NEWID: give a volume another id (VLDB untouched)",
                       cmdRenumber);
    simRegisterCommand("vol-hide",
                       "vol-hide VFSID LP on|off: hide a volume as an unfinished stream leaves "
                       "it (it answers 32 and blocks its id), or show it again",
                       cmdHide);
    simRegisterCommand("vol-delete", "vol-delete VFSID LP: delete a volume (VLDB untouched)",
                       cmdDelete);
    simRegisterCommand("vol-write",
                       "vol-write VFSID LP PATH --size N | --text T: create or replace a file",
                       [](const Args& a, bool* ok) { return cmdWrite(a, ok, false); });
    simRegisterCommand("vol-append",
                       "vol-append VFSID LP PATH --size N | --text T: add to the end of a file",
                       [](const Args& a, bool* ok) { return cmdWrite(a, ok, true); });
    simRegisterCommand("vol-rm", "vol-rm VFSID LP PATH: delete a file", cmdRm);
    simRegisterCommand("vol-files", "vol-files VFSID LP: files and deletions with their versions",
                       cmdFiles);
    simRegisterCommand("vol-checksum", "vol-checksum VFSID LP: checksum of the volume's contents",
                       cmdChecksum);
    simRegisterCommand("vol-fill", "vol-fill VFSID LP --files N --size BYTES: write fill/00000...",
                       cmdFill);
    simRegisterCommand("stream-list", "stream-list: the incremental-copy streams", cmdStreamList);
    simRegisterCommand("stream-show", "stream-show OPID: a stream and its sinks", cmdStreamShow);
    simRegisterCommand("stream-speed",
                       "stream-speed [OPID] KIBPS: speed limit of a stream, or of all (0 = none)",
                       cmdStreamSpeed);
}

}  // namespace

void simDbladeInit() {
    {
        std::lock_guard<std::mutex> lk(SimNode::get().lock());
        std::string err;
        if (!SimVolStore::get().open(SimNode::get().dataDir(), &err)) {
            std::fprintf(stderr, "vodsim: volume store: %s\n", err.c_str());
            std::exit(1);
        }
    }
    registerCommands();
    simMoveRegisterCommands();
    simWriterRegisterCommands();
}
