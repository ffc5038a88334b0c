// The volume store: metadata in SQLite, contents as real files, kept in memory while the
// simulator runs and written through on every change.

#include "sim/volstore.h"

#include <dirent.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>

#include "dblade_vol.h"
#include "sim/dblade_sync.h"
#include "sim/simnode.h"

namespace {

// ---- small file-system helpers -------------------------------------------------------

bool mkdirs(const std::string& path) {
    if (path.empty()) return false;
    size_t pos = 0;
    while (true) {
        pos = path.find('/', pos + 1);
        std::string part = path.substr(0, pos);
        if (!part.empty() && mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) return false;
        if (pos == std::string::npos) break;
    }
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool exists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

bool isDir(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Removes a file or a whole tree; true when nothing is left.
bool removeTree(const std::string& path) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) return errno == ENOENT;
    if (!S_ISDIR(st.st_mode)) return unlink(path.c_str()) == 0;
    if (DIR* d = opendir(path.c_str())) {
        while (struct dirent* e = readdir(d)) {
            if (!strcmp(e->d_name, ".") || !strcmp(e->d_name, "..")) continue;
            removeTree(path + "/" + e->d_name);
        }
        closedir(d);
    }
    return rmdir(path.c_str()) == 0;
}

std::vector<std::string> listDir(const std::string& path) {
    std::vector<std::string> out;
    if (DIR* d = opendir(path.c_str())) {
        while (struct dirent* e = readdir(d)) {
            if (!strcmp(e->d_name, ".") || !strcmp(e->d_name, "..")) continue;
            out.push_back(e->d_name);
        }
        closedir(d);
    }
    return out;
}

std::string parentOf(const std::string& path) {
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

// Removes empty folders from `dir` up to, not including, `stop`.
void pruneEmptyParents(std::string dir, const std::string& stop) {
    while (dir.size() > stop.size() && dir.compare(0, stop.size(), stop) == 0) {
        if (rmdir(dir.c_str()) != 0) break;
        dir = parentOf(dir);
    }
}

bool copyFile(const std::string& from, const std::string& to) {
    int in = open(from.c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0) return false;
    int out = open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (out < 0) {
        close(in);
        return false;
    }
    char buf[65536];
    bool ok = true;
    while (true) {
        ssize_t n = read(in, buf, sizeof buf);
        if (n == 0) break;
        if (n < 0) {
            if (errno == EINTR) continue;
            ok = false;
            break;
        }
        for (ssize_t off = 0; off < n;) {
            ssize_t w = write(out, buf + off, n - off);
            if (w < 0) {
                if (errno == EINTR) continue;
                ok = false;
                break;
            }
            off += w;
        }
        if (!ok) break;
    }
    close(in);
    if (close(out) != 0) ok = false;
    return ok;
}

// Shares a file through a hard link, or copies it where links are not possible.
bool linkOrCopy(const std::string& from, const std::string& to) {
    if (link(from.c_str(), to.c_str()) == 0) return true;
    if (errno != EXDEV && errno != EPERM && errno != EMLINK) return false;
    return copyFile(from, to);
}

uint64_t nowCreateTime() {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return (static_cast<uint64_t>(ts.tv_sec) << 32) | static_cast<uint32_t>(ts.tv_nsec);
}

int64_t s64(uint64_t v) { return static_cast<int64_t>(v); }
uint64_t u64(int64_t v) { return static_cast<uint64_t>(v); }

// ---- SQLite ---------------------------------------------------------------------------

class Stmt {
public:
    Stmt(sqlite3* db, const char* sql) {
        if (sqlite3_prepare_v2(db, sql, -1, &_s, nullptr) != SQLITE_OK) _s = nullptr;
    }
    ~Stmt() { sqlite3_finalize(_s); }
    Stmt(const Stmt&) = delete;
    Stmt& operator=(const Stmt&) = delete;
    bool ok() const { return _s != nullptr; }
    Stmt& bind(int i, int64_t v) {
        if (_s) sqlite3_bind_int64(_s, i, v);
        return *this;
    }
    Stmt& bind(int i, const std::string& v) {
        if (_s) sqlite3_bind_blob(_s, i, v.data(), static_cast<int>(v.size()), SQLITE_TRANSIENT);
        return *this;
    }
    // One step of a statement without rows.
    bool run() { return _s && sqlite3_step(_s) == SQLITE_DONE; }
    bool row() { return _s && sqlite3_step(_s) == SQLITE_ROW; }
    int64_t i64(int col) { return sqlite3_column_int64(_s, col); }
    std::string str(int col) {
        const void* p = sqlite3_column_blob(_s, col);
        int n = sqlite3_column_bytes(_s, col);
        return p ? std::string(static_cast<const char*>(p), n) : std::string();
    }

private:
    sqlite3_stmt* _s = nullptr;
};

const char* const kSchema =
    "PRAGMA journal_mode=WAL;"
    "PRAGMA synchronous=NORMAL;"
    "CREATE TABLE IF NOT EXISTS volumes("
    " vkey INTEGER PRIMARY KEY, did INTEGER, lp BLOB, vfsid INTEGER, type INTEGER,"
    " minQuota INTEGER, maxQuota INTEGER, volname BLOB, mountedatvolname BLOB,"
    " mdirvnode INTEGER, mdirunique INTEGER, mparentvnode INTEGER, mparentunique INTEGER,"
    " createTime INTEGER, bkupLevel INTEGER, prevBkupTime INTEGER, prevVersion INTEGER,"
    " virtualServer INTEGER, mountedatVolumeId INTEGER, mgmId INTEGER, mgmExts BLOB,"
    " dmOptions INTEGER, phase INTEGER, percentFree INTEGER, rootVnode INTEGER,"
    " rootUnique INTEGER, dataVersion INTEGER, downstream INTEGER, upstream INTEGER,"
    " hidden INTEGER);"
    "CREATE TABLE IF NOT EXISTS files("
    " vkey INTEGER, path BLOB, version INTEGER, size INTEGER, deleted INTEGER,"
    " PRIMARY KEY(vkey, path));"
    // Folder renames that a renumbering or swap committed; finished at the next start
    // when the simulator stopped half-way.
    "CREATE TABLE IF NOT EXISTS renames(seq INTEGER PRIMARY KEY, src BLOB, dst BLOB);";

}  // namespace

// ---- the store --------------------------------------------------------------------------

struct SimVolStore::Impl {
    std::string dataDir;
    sqlite3* db = nullptr;
    std::map<int64_t, std::unique_ptr<SimVolume>> vols;
    int64_t nextKey = 1;
    uint64_t tmpSeq = 0;

    bool exec(const char* sql) { return sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK; }

    // A transaction that rolls back unless committed.
    class Txn {
    public:
        explicit Txn(Impl* impl) : _impl(impl) { _open = impl->exec("BEGIN IMMEDIATE"); }
        ~Txn() {
            if (_open) _impl->exec("ROLLBACK");
        }
        bool commit() {
            if (!_open) return false;
            _open = false;
            if (_impl->exec("COMMIT")) return true;
            _impl->exec("ROLLBACK");
            return false;
        }
        bool ok() const { return _open; }

    private:
        Impl* _impl;
        bool _open;
    };

    bool saveVolume(const SimVolume& v) {
        Stmt s(db,
               "INSERT OR REPLACE INTO volumes VALUES(?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,"
               "?,?,?,?,?,?,?,?)");
        const SimVolAttrs& a = v.attrs;
        int i = 0;
        auto b = [&](auto value) { s.bind(++i, value); };
        b(v.key);
        b(int64_t{v.did});
        b(std::string(reinterpret_cast<const char*>(v.lp.data()), 16));
        b(int64_t{v.vfsid});
        b(int64_t{v.type});
        b(s64(a.minQuota));
        b(s64(a.maxQuota));
        b(a.volname);
        b(a.mountedatvolname);
        b(int64_t{a.mountedatdirvnode});
        b(int64_t{a.mountedatdirunique});
        b(int64_t{a.mountedatparentvnode});
        b(int64_t{a.mountedatparentunique});
        b(s64(a.createTime));
        b(int64_t{a.bkupLevel});
        b(s64(a.prevBkupTime));
        b(s64(a.prevVersion));
        b(int64_t{a.virtualServer});
        b(int64_t{a.mountedatVolumeId});
        b(int64_t{a.mgmId});
        b(a.mgmExts);
        b(int64_t{a.dmOptions});
        b(int64_t{a.phase});
        b(int64_t{a.percentFreeThreshold});
        b(int64_t{v.rootVnode});
        b(int64_t{v.rootUnique});
        b(s64(v.dataVersion));
        b(int64_t{v.downstream});
        b(int64_t{v.upstream});
        b(int64_t{v.hidden ? 1 : 0});
        return s.run();
    }

    bool saveFile(const SimVolume& v, const std::string& path, const SimFileMeta& f) {
        Stmt s(db, "INSERT OR REPLACE INTO files VALUES(?,?,?,?,?)");
        s.bind(1, v.key).bind(2, path).bind(3, s64(f.version)).bind(4, s64(f.size));
        s.bind(5, f.deleted ? 1 : 0);
        return s.run();
    }

    bool dropFileRow(const SimVolume& v, const std::string& path) {
        Stmt s(db, "DELETE FROM files WHERE vkey=? AND path=?");
        s.bind(1, v.key).bind(2, path);
        return s.run();
    }

    bool dropVolumeRows(int64_t key) {
        Stmt f(db, "DELETE FROM files WHERE vkey=?");
        f.bind(1, key);
        Stmt v(db, "DELETE FROM volumes WHERE vkey=?");
        v.bind(1, key);
        return f.run() && v.run();
    }

    bool journalRename(const std::string& from, const std::string& to) {
        Stmt s(db, "INSERT INTO renames(src, dst) VALUES(?,?)");
        s.bind(1, from).bind(2, to);
        return s.run();
    }

    // Carries out the journalled renames in order.  Each step is done only while its source
    // is there and its target is not, so a journal replayed after a crash skips what was
    // already done.
    bool runRenames() {
        std::vector<std::pair<std::string, std::string>> steps;
        {
            Stmt s(db, "SELECT src, dst FROM renames ORDER BY seq");
            while (s.row()) steps.emplace_back(s.str(0), s.str(1));
        }
        bool ok = true;
        for (const auto& [from, to] : steps) {
            std::string a = dataDir + "/" + from, b = dataDir + "/" + to;
            if (exists(a) && !exists(b)) {
                mkdirs(parentOf(b));
                if (rename(a.c_str(), b.c_str()) != 0) {
                    std::fprintf(stderr, "vodsim: rename %s -> %s: %s\n", a.c_str(), b.c_str(),
                                 strerror(errno));
                    ok = false;
                }
            }
        }
        if (ok) exec("DELETE FROM renames");
        return ok;
    }

    std::string relDir(uint16_t did, const SimLpId& lp, uint32_t vfsid) const {
        return "dblade-" + std::to_string(did) + "/" + simLpHex(lp) + "/" + std::to_string(vfsid);
    }
    std::string relDir(const SimVolume& v) const { return relDir(v.did, v.lp, v.vfsid); }
    std::string absDir(const SimVolume& v) const { return dataDir + "/" + relDir(v); }

    std::string tmpName(const std::string& dir) {
        return dir + "/" + kSimTmpPrefix + "-" + std::to_string(getpid()) + "-" +
               std::to_string(++tmpSeq);
    }

    SimVolume* find(const SimLpId& lp, uint32_t vfsid) {
        for (auto& [key, v] : vols)
            if (v->vfsid == vfsid && v->lp == lp) return v.get();
        return nullptr;
    }

    bool idElsewhere(const SimLpId& lp, uint32_t vfsid) {
        for (auto& [key, v] : vols)
            if (v->vfsid == vfsid && v->lp != lp) return true;
        return false;
    }

    // References from other volumes of the LP follow a renumbered volume.
    void renumberRefs(const SimLpId& lp, uint32_t from, uint32_t to) {
        for (auto& [key, v] : vols) {
            if (v->lp != lp) continue;
            if (v->downstream == from) v->downstream = to;
            if (v->upstream == from) v->upstream = to;
        }
    }

    // Marks a sink hidden before the first change a stream makes to it.
    bool hideSink(SimVolume* sink) {
        if (sink->hidden) return true;
        sink->hidden = true;
        if (saveVolume(*sink)) return true;
        sink->hidden = false;
        return false;
    }

    bool load(std::string* err);
    void removeStale();
};

SimVolStore& SimVolStore::get() {
    static SimVolStore store;
    return store;
}

uint32_t SimVolume::flags() const {
    uint32_t f = type == VOLTYPE_RO ? VOLFLAG_RO : type == VOLTYPE_CLONE ? VOLFLAG_CLONE : VOLFLAG_RW;
    if (downstream) f |= VOLFLAG_HAS_DOWNSTREAM;
    return f;
}

bool SimVolStore::Impl::load(std::string* err) {
    {
        Stmt s(db, "SELECT * FROM volumes");
        if (!s.ok()) {
            *err = sqlite3_errmsg(db);
            return false;
        }
        while (s.row()) {
            auto v = std::make_unique<SimVolume>();
            SimVolAttrs& a = v->attrs;
            int i = 0;
            v->key = s.i64(i++);
            v->did = static_cast<uint16_t>(s.i64(i++));
            std::string lp = s.str(i++);
            if (lp.size() == 16) memcpy(v->lp.data(), lp.data(), 16);
            v->vfsid = static_cast<uint32_t>(s.i64(i++));
            v->type = static_cast<unsigned>(s.i64(i++));
            a.minQuota = u64(s.i64(i++));
            a.maxQuota = u64(s.i64(i++));
            a.volname = s.str(i++);
            a.mountedatvolname = s.str(i++);
            a.mountedatdirvnode = static_cast<uint32_t>(s.i64(i++));
            a.mountedatdirunique = static_cast<uint32_t>(s.i64(i++));
            a.mountedatparentvnode = static_cast<uint32_t>(s.i64(i++));
            a.mountedatparentunique = static_cast<uint32_t>(s.i64(i++));
            a.createTime = u64(s.i64(i++));
            a.bkupLevel = static_cast<uint32_t>(s.i64(i++));
            a.prevBkupTime = u64(s.i64(i++));
            a.prevVersion = u64(s.i64(i++));
            a.virtualServer = static_cast<uint32_t>(s.i64(i++));
            a.mountedatVolumeId = static_cast<uint32_t>(s.i64(i++));
            a.mgmId = static_cast<uint32_t>(s.i64(i++));
            a.mgmExts = s.str(i++);
            a.mgmExts.resize(24, '\0');
            a.dmOptions = static_cast<uint32_t>(s.i64(i++));
            a.phase = static_cast<uint32_t>(s.i64(i++));
            a.percentFreeThreshold = static_cast<uint32_t>(s.i64(i++));
            v->rootVnode = static_cast<uint32_t>(s.i64(i++));
            v->rootUnique = static_cast<uint32_t>(s.i64(i++));
            v->dataVersion = u64(s.i64(i++));
            v->downstream = static_cast<uint32_t>(s.i64(i++));
            v->upstream = static_cast<uint32_t>(s.i64(i++));
            v->hidden = s.i64(i++) != 0;
            a.volumeId = v->vfsid;
            if (v->key >= nextKey) nextKey = v->key + 1;
            vols[v->key] = std::move(v);
        }
    }
    Stmt f(db, "SELECT vkey, path, version, size, deleted FROM files");
    while (f.row()) {
        auto it = vols.find(f.i64(0));
        if (it == vols.end()) continue;
        SimFileMeta m;
        m.version = u64(f.i64(2));
        m.size = u64(f.i64(3));
        m.deleted = f.i64(4) != 0;
        it->second->files[f.str(1)] = m;
    }
    return true;
}

// Folders no volume owns (a create or delete the simulator did not finish), temporary
// files, and the frozen images of streams that died with the last run.
void SimVolStore::Impl::removeStale() {
    std::map<std::string, SimVolume*> owned;
    for (auto& [key, v] : vols) owned[relDir(*v)] = v.get();
    for (const std::string& d : listDir(dataDir)) {
        if (d.compare(0, 7, "dblade-") != 0 || !isDir(dataDir + "/" + d)) continue;
        removeTree(dataDir + "/" + d + "/streams");
        for (const std::string& lp : listDir(dataDir + "/" + d)) {
            std::string lpDir = d + "/" + lp;
            if (!isDir(dataDir + "/" + lpDir)) continue;
            for (const std::string& vol : listDir(dataDir + "/" + lpDir)) {
                std::string rel = lpDir + "/" + vol;
                auto it = owned.find(rel);
                if (it == owned.end()) {
                    std::fprintf(stderr, "vodsim: removing %s/%s: no volume owns it\n",
                                 dataDir.c_str(), rel.c_str());
                    removeTree(dataDir + "/" + rel);
                    continue;
                }
                for (const std::string& e : listDir(dataDir + "/" + rel))
                    if (e.compare(0, sizeof(kSimTmpPrefix) - 1, kSimTmpPrefix) == 0)
                        removeTree(dataDir + "/" + rel + "/" + e);
            }
        }
    }
}

bool SimVolStore::open(const std::string& dataDir, std::string* err) {
    if (_impl) return true;
    auto impl = std::make_unique<Impl>();
    impl->dataDir = dataDir;
    if (!mkdirs(dataDir)) {
        *err = "cannot make " + dataDir + ": " + strerror(errno);
        return false;
    }
    std::string dbPath = dataDir + "/volstore.db";
    if (sqlite3_open(dbPath.c_str(), &impl->db) != SQLITE_OK) {
        *err = dbPath + ": " + (impl->db ? sqlite3_errmsg(impl->db) : "cannot open");
        sqlite3_close(impl->db);
        return false;
    }
    sqlite3_busy_timeout(impl->db, 5000);
    if (!impl->exec(kSchema) || !impl->load(err)) {
        if (err->empty()) *err = dbPath + ": " + sqlite3_errmsg(impl->db);
        sqlite3_close(impl->db);
        return false;
    }
    impl->runRenames();
    impl->removeStale();
    _impl = impl.release();
    return true;
}

SimVolume* SimVolStore::find(const SimLpId& lp, uint32_t vfsid) { return _impl->find(lp, vfsid); }

unsigned SimVolStore::locate(const SimLpId& lp, uint32_t vfsid, SimVolume** out) {
    *out = nullptr;
    if (!SimNode::get().findLp(lp.data())) return TARN_ERR_LPMMISMATCH;
    if ((*out = _impl->find(lp, vfsid))) return TARN_OK;
    return _impl->idElsewhere(lp, vfsid) ? TARN_ERR_LPMMISMATCH : TARN_ERR_VOLNOTFOUND;
}

std::vector<SimVolume*> SimVolStore::volumes(const SimLpId* onlyLp) {
    std::vector<SimVolume*> out;
    for (auto& [key, v] : _impl->vols)
        if (!onlyLp || v->lp == *onlyLp) out.push_back(v.get());
    return out;
}

std::string SimVolStore::dirOf(const SimVolume& v) const { return _impl->absDir(v); }

std::string SimVolStore::streamDir(uint16_t did, uint64_t opId) const {
    return _impl->dataDir + "/dblade-" + std::to_string(did) + "/streams/" + std::to_string(opId);
}

unsigned SimVolStore::blockSizeOf(const SimLpId& lp) const {
    SimLp* l = SimNode::get().findLp(lp.data());
    return l && l->blockSize ? l->blockSize : 4096;
}

uint64_t SimVolStore::blocksUsed(const SimVolume& v) const {
    unsigned bs = blockSizeOf(v.lp);
    uint64_t n = 0;
    for (const auto& [path, f] : v.files)
        if (!f.deleted) n += simBlocks(f.size, bs);
    return n;
}

uint64_t SimVolStore::blocksUsedOnLp(const SimLpId& lp) const {
    uint64_t n = 0;
    if (!_impl) return 0;
    for (const auto& [key, v] : _impl->vols)
        if (v->lp == lp) n += blocksUsed(*v);
    return n;
}

uint64_t SimVolStore::blocksReservedOnLp(const SimLpId& lp) const {
    uint64_t n = 0;
    if (!_impl) return 0;
    for (const auto& [key, v] : _impl->vols) {
        if (v->lp != lp) continue;
        uint64_t used = blocksUsed(*v);
        if (v->attrs.minQuota > used) n += v->attrs.minQuota - used;
    }
    return n;
}

uint64_t SimVolStore::blocksFreeOnLp(const SimLpId& lp) const {
    SimLp* l = SimNode::get().findLp(lp.data());
    if (!l) return 0;
    uint64_t used = blocksUsedOnLp(lp);
    return used >= l->sizeBlocks ? 0 : l->sizeBlocks - used;
}

namespace {

void applyAttrs(SimVolAttrs* a, unsigned how, const SimVolAttrs& in) {
    if (how & VOLSET_MINQUOTA) a->minQuota = in.minQuota;
    if (how & VOLSET_MAXQUOTA) a->maxQuota = in.maxQuota;
    if (how & VOLSET_VOLNAME) a->volname = in.volname;
    if (how & VOLSET_MOUNTEDATVOLNAME) a->mountedatvolname = in.mountedatvolname;
    if (how & VOLSET_MOUNTEDATDIRVNODE) a->mountedatdirvnode = in.mountedatdirvnode;
    if (how & VOLSET_MOUNTEDATDIRUNIQUE) a->mountedatdirunique = in.mountedatdirunique;
    if (how & VOLSET_MOUNTEDATPARENTVNODE) a->mountedatparentvnode = in.mountedatparentvnode;
    if (how & VOLSET_MOUNTEDATPARENTUNIQUE) a->mountedatparentunique = in.mountedatparentunique;
    if (how & VOLSET_CREATETIME) a->createTime = in.createTime;
    if (how & VOLSET_BKUPLEVEL) a->bkupLevel = in.bkupLevel;
    if (how & VOLSET_PREVBKUPTIME) a->prevBkupTime = in.prevBkupTime;
    if (how & VOLSET_PREVVERSION) a->prevVersion = in.prevVersion;
    if (how & VOLSET_VIRTUALSERVER) a->virtualServer = in.virtualServer;
    if (how & VOLSET_MOUNTEDATVOLUMEID) a->mountedatVolumeId = in.mountedatVolumeId;
    if (how & VOLSET_MGMID) a->mgmId = in.mgmId;
    if (how & VOLSET_MGMEXTS) {
        a->mgmExts = in.mgmExts;
        a->mgmExts.resize(24, '\0');
    }
    if (how & VOLSET_DMOPTIONS) a->dmOptions = in.dmOptions;
    if (how & VOLSET_PHASE) a->phase = in.phase;
    if (how & VOLSET_PERCENTFREE) a->percentFreeThreshold = in.percentFreeThreshold;
}

bool busy(const SimVolume& v) { return v.readers > 0 || v.writerOpId != 0; }

}  // namespace

unsigned SimVolStore::create(const SimLpId& lp, uint32_t vfsid, unsigned how,
                             const SimVolAttrs& in) {
    SimLp* l = SimNode::get().findLp(lp.data());
    if (!l) return TARN_ERR_LPMMISMATCH;
    if (vfsid == 0 || ((how & VOLSET_MAKE_RW) && (how & VOLSET_MAKE_RO)) ||
        in.volname.size() > 128 || in.mountedatvolname.size() > 128)
        return TARN_ERR_EINVAL;
    if (SimVolume* old = _impl->find(lp, vfsid))
        return old->hidden ? TARN_ERR_VOLHIDDEN : TARN_ERR_EEXIST;
    if ((how & VOLSET_MINQUOTA)) {
        uint64_t free = blocksFreeOnLp(lp), reserved = blocksReservedOnLp(lp);
        if (in.minQuota > (free > reserved ? free - reserved : 0)) return TARN_ERR_ENOSPC;
    }
    auto v = std::make_unique<SimVolume>();
    v->key = _impl->nextKey;
    v->lp = lp;
    v->did = l->did;
    v->vfsid = vfsid;
    v->type = (how & VOLSET_MAKE_RO) ? VOLTYPE_RO : VOLTYPE_RW;
    applyAttrs(&v->attrs, how, in);
    if (!(how & VOLSET_CREATETIME)) v->attrs.createTime = nowCreateTime();
    v->attrs.volumeId = vfsid;
    std::string dir = _impl->absDir(*v);
    removeTree(dir);   // a folder a crashed create or delete left behind
    if (!mkdirs(dir)) return TARN_ERR_EIO;
    Impl::Txn txn(_impl);
    if (!txn.ok() || !_impl->saveVolume(*v) || !txn.commit()) {
        removeTree(dir);
        return TARN_ERR_EIO;
    }
    _impl->nextKey++;
    _impl->vols[v->key] = std::move(v);
    return TARN_OK;
}

unsigned SimVolStore::remove(const SimLpId& lp, uint32_t vfsid) {
    SimVolume* v;
    // Nothing of that id on the LP is one answer, 21, whether other LPs hold the id or not:
    // a delete that finds nothing counts it as already done.
    if (locate(lp, vfsid, &v) != TARN_OK) return TARN_ERR_LPMMISMATCH;
    if (busy(*v)) return TARN_ERR_ENORNUM;
    // References to the volume go with it.
    std::vector<SimVolume*> touched;
    for (auto& [key, w] : _impl->vols) {
        if (w.get() == v || w->lp != lp) continue;
        if (w->downstream == vfsid || w->upstream == vfsid) touched.push_back(w.get());
    }
    Impl::Txn txn(_impl);
    if (!txn.ok() || !_impl->dropVolumeRows(v->key)) return TARN_ERR_EIO;
    for (SimVolume* w : touched) {
        SimVolume copy = *w;
        if (copy.downstream == vfsid) copy.downstream = 0;
        if (copy.upstream == vfsid) copy.upstream = 0;
        if (!_impl->saveVolume(copy)) return TARN_ERR_EIO;
    }
    if (!txn.commit()) return TARN_ERR_EIO;
    for (SimVolume* w : touched) {
        if (w->downstream == vfsid) w->downstream = 0;
        if (w->upstream == vfsid) w->upstream = 0;
    }
    std::string dir = _impl->absDir(*v);
    _impl->vols.erase(v->key);
    removeTree(dir);
    return TARN_OK;
}

unsigned SimVolStore::clone(const SimLpId& lp, uint32_t srcVfsid, uint32_t cloneVfsid) {
    SimVolume* src;
    if (unsigned st = locate(lp, srcVfsid, &src)) return st;
    if (src->hidden) return TARN_ERR_VOLHIDDEN;
    if (src->writerOpId) return TARN_ERR_ENORNUM;
    if (cloneVfsid == 0 || cloneVfsid == srcVfsid) return TARN_ERR_EINVAL;
    if (SimVolume* old = _impl->find(lp, cloneVfsid))
        return old->hidden ? TARN_ERR_VOLHIDDEN : TARN_ERR_EEXIST;

    auto c = std::make_unique<SimVolume>();
    c->key = _impl->nextKey;
    c->lp = lp;
    c->did = src->did;
    c->vfsid = cloneVfsid;
    c->type = VOLTYPE_CLONE;
    c->attrs = src->attrs;
    c->attrs.minQuota = 0;   // the source keeps its own reservation; a clone adds none
    c->attrs.createTime = nowCreateTime();
    c->attrs.volumeId = cloneVfsid;
    c->rootVnode = src->rootVnode;
    c->rootUnique = src->rootUnique;
    c->dataVersion = src->dataVersion;
    c->upstream = srcVfsid;
    c->files = src->files;

    std::string from = _impl->absDir(*src), to = _impl->absDir(*c);
    removeTree(to);
    bool ok = mkdirs(to);
    for (const auto& [path, f] : c->files) {
        if (!ok) break;
        if (f.deleted) continue;
        std::string target = to + "/" + path;
        ok = mkdirs(parentOf(target)) && linkOrCopy(from + "/" + path, target);
    }
    if (ok) {
        Impl::Txn txn(_impl);
        SimVolume srcCopy = *src;
        srcCopy.downstream = cloneVfsid;
        ok = txn.ok() && _impl->saveVolume(*c) && _impl->saveVolume(srcCopy);
        for (const auto& [path, f] : c->files) ok = ok && _impl->saveFile(*c, path, f);
        ok = ok && txn.commit();
    }
    if (!ok) {
        removeTree(to);
        return TARN_ERR_EIO;
    }
    src->downstream = cloneVfsid;
    _impl->nextKey++;
    _impl->vols[c->key] = std::move(c);
    return TARN_OK;
}

unsigned SimVolStore::setAttrs(const SimLpId& lp, uint32_t vfsid, unsigned how,
                               const SimVolAttrs& in) {
    SimVolume* v;
    if (unsigned st = locate(lp, vfsid, &v)) return st;
    if (v->hidden) return TARN_ERR_VOLHIDDEN;
    if (v->writerOpId) return TARN_ERR_ENORNUM;
    if (((how & VOLSET_MAKE_RW) && (how & VOLSET_MAKE_RO)) || in.volname.size() > 128 ||
        in.mountedatvolname.size() > 128)
        return TARN_ERR_EINVAL;
    uint32_t newId = (how & VOLSET_VOLUMEID) ? in.volumeId : vfsid;
    bool renumber = newId != vfsid;
    if (renumber) {
        if (newId == 0) return TARN_ERR_EINVAL;
        if (SimVolume* old = _impl->find(lp, newId))
            return old->hidden ? TARN_ERR_VOLHIDDEN : TARN_ERR_EEXIST;
        if (v->readers > 0) return TARN_ERR_ENORNUM;
    }
    SimVolume next = *v;
    applyAttrs(&next.attrs, how, in);
    if (how & VOLSET_MAKE_RW) next.type = VOLTYPE_RW;
    if (how & VOLSET_MAKE_RO) next.type = VOLTYPE_RO;
    next.vfsid = newId;
    next.attrs.volumeId = newId;

    std::vector<SimVolume*> others;
    if (renumber)
        for (auto& [key, w] : _impl->vols)
            if (w.get() != v && w->lp == lp && (w->downstream == vfsid || w->upstream == vfsid))
                others.push_back(w.get());
    if (renumber) {
        if (next.downstream == vfsid) next.downstream = newId;
        if (next.upstream == vfsid) next.upstream = newId;
    }
    std::string fromRel = _impl->relDir(*v), toRel = _impl->relDir(next);
    Impl::Txn txn(_impl);
    bool ok = txn.ok() && _impl->saveVolume(next);
    for (SimVolume* w : others) {
        SimVolume copy = *w;
        if (copy.downstream == vfsid) copy.downstream = newId;
        if (copy.upstream == vfsid) copy.upstream = newId;
        ok = ok && _impl->saveVolume(copy);
    }
    if (renumber) {
        removeTree(_impl->dataDir + "/" + toRel);
        ok = ok && _impl->journalRename(fromRel, toRel);
    }
    if (!ok || !txn.commit()) return TARN_ERR_EIO;
    if (renumber) _impl->renumberRefs(lp, vfsid, newId);
    std::map<std::string, SimFileMeta> files = std::move(v->files);
    int readers = v->readers;
    *v = std::move(next);
    v->files = std::move(files);
    v->readers = readers;
    if (renumber && !_impl->runRenames()) return TARN_ERR_EIO;
    return TARN_OK;
}

unsigned SimVolStore::swapSteps(const SimLpId& lp1, uint32_t vfsid1, const SimLpId& lp2,
                                uint32_t vfsid2, uint32_t tempVfsid,
                                std::vector<SimRenumber>* steps) {
    steps->clear();
    SimVolume *v1, *v2;
    if (unsigned st = locate(lp1, vfsid1, &v1)) return st;
    if (unsigned st = locate(lp2, vfsid2, &v2)) return st;
    if (v1->hidden || v2->hidden) return TARN_ERR_VOLHIDDEN;
    if (busy(*v1) || busy(*v2)) return TARN_ERR_ENORNUM;
    if (v1 == v2 || vfsid1 == vfsid2 || tempVfsid == 0 || tempVfsid == vfsid1 ||
        tempVfsid == vfsid2)
        return TARN_ERR_EINVAL;
    // The spare id must be free where the first volume passes through it.
    for (auto [lp, id] : {std::pair{lp1, tempVfsid}, {lp2, vfsid1}, {lp1, vfsid2}}) {
        SimVolume* t = _impl->find(lp, id);
        if (t && t != v1 && t != v2) return t->hidden ? TARN_ERR_VOLHIDDEN : TARN_ERR_EEXIST;
    }
    *steps = {{lp1, vfsid1, tempVfsid}, {lp2, vfsid2, vfsid1}, {lp1, tempVfsid, vfsid2}};
    return TARN_OK;
}

unsigned SimVolStore::setHidden(SimVolume* v, bool hidden) {
    if (v->writerOpId) return TARN_ERR_ENORNUM;
    if (v->hidden == hidden) return TARN_OK;
    v->hidden = hidden;
    if (_impl->saveVolume(*v)) return TARN_OK;
    v->hidden = !hidden;
    return TARN_ERR_EIO;
}

unsigned SimVolStore::renumber(const std::vector<SimRenumber>& moves) {
    std::vector<SimVolume*> vs;
    for (const SimRenumber& m : moves) {
        SimVolume* v;
        if (unsigned st = locate(m.lp, m.from, &v)) return st;
        if (v->hidden) return TARN_ERR_VOLHIDDEN;
        if (busy(*v)) return TARN_ERR_ENORNUM;
        if (m.to == 0 || std::find(vs.begin(), vs.end(), v) != vs.end()) return TARN_ERR_EINVAL;
        vs.push_back(v);
    }
    auto mapId = [&](const SimLpId& lp, uint32_t id) -> uint32_t {
        for (const SimRenumber& m : moves)
            if (m.lp == lp && m.from == id) return m.to;
        return id;
    };
    for (size_t i = 0; i < moves.size(); ++i) {
        const SimRenumber& m = moves[i];
        for (size_t j = 0; j < i; ++j)
            if (moves[j].lp == m.lp && moves[j].to == m.to) return TARN_ERR_EINVAL;
        SimVolume* t = _impl->find(m.lp, m.to);
        if (t && mapId(m.lp, m.to) == m.to) return t->hidden ? TARN_ERR_VOLHIDDEN : TARN_ERR_EEXIST;
    }

    std::vector<std::pair<SimVolume*, SimVolume>> updates;
    for (auto& [key, w] : _impl->vols) {
        SimVolume next = *w;
        next.vfsid = mapId(w->lp, w->vfsid);
        next.attrs.volumeId = next.vfsid;
        next.downstream = next.downstream ? mapId(w->lp, next.downstream) : 0;
        next.upstream = next.upstream ? mapId(w->lp, next.upstream) : 0;
        if (next.vfsid != w->vfsid || next.downstream != w->downstream ||
            next.upstream != w->upstream)
            updates.emplace_back(w.get(), std::move(next));
    }
    std::vector<std::string> from, parking, to;
    for (size_t i = 0; i < vs.size(); ++i) {
        from.push_back(_impl->relDir(*vs[i]));
        parking.push_back(parentOf(from[i]) + "/" + kSimTmpPrefix + "-swap-" +
                          std::to_string(vs[i]->key));
        to.push_back(_impl->relDir(vs[i]->did, moves[i].lp, moves[i].to));
    }
    // A folder no volume owns (a create or delete the simulator did not finish) would stop
    // a rename; one that a volume of this step leaves is gone by then.
    for (const std::string& t : to)
        if (std::find(from.begin(), from.end(), t) == from.end())
            removeTree(_impl->dataDir + "/" + t);
    Impl::Txn txn(_impl);
    bool ok = txn.ok();
    for (auto& [w, next] : updates) ok = ok && _impl->saveVolume(next);
    // Every folder is parked before any lands, so the spare id's folder is never touched.
    for (size_t i = 0; i < vs.size(); ++i) ok = ok && _impl->journalRename(from[i], parking[i]);
    for (size_t i = 0; i < vs.size(); ++i) ok = ok && _impl->journalRename(parking[i], to[i]);
    if (!ok || !txn.commit()) return TARN_ERR_EIO;
    for (auto& [w, next] : updates) {
        w->vfsid = next.vfsid;
        w->attrs.volumeId = next.vfsid;
        w->downstream = next.downstream;
        w->upstream = next.upstream;
    }
    return _impl->runRenames() ? TARN_OK : TARN_ERR_EIO;
}

// Records one changed path and the data version it made, in one transaction.
unsigned SimVolStore::bumpAndRecord(SimVolume* v, const std::string& path, const SimFileMeta& m) {
    Impl::Txn txn(_impl);
    uint64_t before = v->dataVersion;
    v->dataVersion = m.version;
    bool ok = txn.ok() && _impl->saveVolume(*v) && _impl->saveFile(*v, path, m) && txn.commit();
    if (!ok) {
        v->dataVersion = before;
        return TARN_ERR_EIO;
    }
    v->files[path] = m;
    return TARN_OK;
}

unsigned SimVolStore::writeFile(SimVolume* v, const std::string& path, const std::string& data,
                                bool append, uint64_t dverStep) {
    if (v->hidden) return TARN_ERR_VOLHIDDEN;
    if (v->writerOpId || v->stoppedByOpId) return TARN_ERR_ENORNUM;
    if (!simValidVolPath(path) || dverStep == 0) return TARN_ERR_EINVAL;
    std::string dir = _impl->absDir(*v), target = dir + "/" + path;
    auto it = v->files.find(path);
    bool had = it != v->files.end() && !it->second.deleted;
    uint64_t oldSize = had ? it->second.size : 0;
    uint64_t newSize = append ? oldSize + data.size() : data.size();
    unsigned bs = blockSizeOf(v->lp);
    uint64_t grow = simBlocks(newSize, bs) > simBlocks(oldSize, bs)
                        ? simBlocks(newSize, bs) - simBlocks(oldSize, bs)
                        : 0;
    if (grow > blocksFreeOnLp(v->lp)) return TARN_ERR_ENOSPC;
    if (v->attrs.maxQuota && blocksUsed(*v) + grow > v->attrs.maxQuota) return TARN_ERR_ENOSPC;

    std::string tmp = _impl->tmpName(dir);
    bool ok = !append || !had || copyFile(target, tmp);
    if (ok) {
        int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        ok = fd >= 0;
        for (size_t off = 0; ok && off < data.size();) {
            ssize_t w = ::write(fd, data.data() + off, data.size() - off);
            if (w < 0 && errno == EINTR) continue;
            ok = w > 0;
            if (ok) off += w;
        }
        if (fd >= 0 && close(fd) != 0) ok = false;
    }
    ok = ok && mkdirs(parentOf(target)) && rename(tmp.c_str(), target.c_str()) == 0;
    if (!ok) {
        // A path that runs into a file, or names a folder, is the caller's mistake.
        int e = errno;
        unsigned st = e == ENOTDIR || e == EISDIR || e == EEXIST || isDir(target)
                          ? TARN_ERR_EINVAL
                          : TARN_ERR_EIO;
        unlink(tmp.c_str());
        return st;
    }
    return bumpAndRecord(v, path, SimFileMeta{v->dataVersion + dverStep, newSize, false});
}

unsigned SimVolStore::removeFile(SimVolume* v, const std::string& path) {
    if (v->hidden) return TARN_ERR_VOLHIDDEN;
    if (v->writerOpId || v->stoppedByOpId) return TARN_ERR_ENORNUM;
    auto it = v->files.find(path);
    if (it == v->files.end() || it->second.deleted) return TARN_ERR_VOLNOTFOUND;
    std::string dir = _impl->absDir(*v), target = dir + "/" + path;
    if (unlink(target.c_str()) != 0 && errno != ENOENT) return TARN_ERR_EIO;
    pruneEmptyParents(parentOf(target), dir);
    return bumpAndRecord(v, path, SimFileMeta{v->dataVersion + 1, 0, true});
}

std::string SimVolStore::checksum(const SimVolume& v) const {
    SimChecksum sum;
    std::string dir = _impl->absDir(v);
    std::vector<char> buf(65536);
    for (const auto& [path, f] : v.files) {
        if (f.deleted) continue;
        std::string p = dir + "/" + path;
        int fd = ::open(p.c_str(), O_RDONLY | O_CLOEXEC);
        struct stat st;
        if (fd < 0 || fstat(fd, &st) != 0) {
            if (fd >= 0) close(fd);
            return std::string();
        }
        sum.beginFile(path, static_cast<uint64_t>(st.st_size));
        ssize_t n;
        while ((n = read(fd, buf.data(), buf.size())) > 0) sum.add(buf.data(), n);
        close(fd);
        if (n < 0) return std::string();
    }
    return sum.hex();
}

bool SimVolStore::freezeImage(const SimVolume& v, const std::string& dir, std::string* err) {
    removeTree(dir);
    if (!mkdirs(dir)) {
        *err = "cannot make " + dir + ": " + strerror(errno);
        return false;
    }
    std::string from = _impl->absDir(v);
    for (const auto& [path, f] : v.files) {
        if (f.deleted) continue;
        std::string target = dir + "/" + path;
        if (!mkdirs(parentOf(target)) || !linkOrCopy(from + "/" + path, target)) {
            *err = "cannot freeze " + from + "/" + path + ": " + strerror(errno);
            removeTree(dir);
            return false;
        }
    }
    return true;
}

unsigned SimVolStore::commitFile(SimVolume* sink, const std::string& path,
                                 const std::string& tmpFile, uint64_t version, uint64_t size) {
    if (!simValidVolPath(path)) return TARN_ERR_EINVAL;
    if (!_impl->hideSink(sink)) return TARN_ERR_EIO;
    std::string dir = _impl->absDir(*sink), target = dir + "/" + path;
    // A folder where the source now has a file: whatever was under it is gone in the
    // source too, and the removals follow later in the send.
    if (isDir(target)) {
        removeTree(target);
        std::string prefix = path + "/";
        for (auto& [p, f] : sink->files)
            if (p.compare(0, prefix.size(), prefix) == 0) f.deleted = true;
    }
    if (!mkdirs(parentOf(target)) || rename(tmpFile.c_str(), target.c_str()) != 0)
        return TARN_ERR_EIO;
    SimFileMeta m{version, size, false};
    if (!_impl->saveFile(*sink, path, m)) return TARN_ERR_EIO;
    sink->files[path] = m;
    return TARN_OK;
}

unsigned SimVolStore::commitDelete(SimVolume* sink, const std::string& path, uint64_t version) {
    if (!simValidVolPath(path)) return TARN_ERR_EINVAL;
    if (!_impl->hideSink(sink)) return TARN_ERR_EIO;
    std::string dir = _impl->absDir(*sink), target = dir + "/" + path;
    if (!isDir(target) && unlink(target.c_str()) != 0 && errno != ENOENT) return TARN_ERR_EIO;
    pruneEmptyParents(parentOf(target), dir);
    SimFileMeta m{version, 0, true};
    if (!_impl->saveFile(*sink, path, m)) return TARN_ERR_EIO;
    sink->files[path] = m;
    return TARN_OK;
}

unsigned SimVolStore::finishSink(SimVolume* sink, uint64_t dataVersion) {
    uint64_t oldVersion = sink->dataVersion;
    bool oldHidden = sink->hidden;
    sink->dataVersion = dataVersion;
    sink->hidden = false;
    if (_impl->saveVolume(*sink)) return TARN_OK;
    sink->dataVersion = oldVersion;
    sink->hidden = oldHidden;
    return TARN_ERR_EIO;
}

// ---- LP ids -----------------------------------------------------------------------------

std::string simLpHex(const SimLpId& lp) {
    static const char digits[] = "0123456789ABCDEF";
    std::string s;
    for (unsigned char b : lp) {
        s += digits[b >> 4];
        s += digits[b & 15];
    }
    return s;
}

bool simParseLpHex(const std::string& s, SimLpId* out) {
    std::string h = s;
    if (h.size() == 34 && (h.compare(0, 2, "0x") == 0 || h.compare(0, 2, "0X") == 0))
        h = h.substr(2);
    if (h.size() != 32) return false;
    for (int i = 0; i < 16; ++i) {
        unsigned v = 0;
        for (int j = 0; j < 2; ++j) {
            char c = h[2 * i + j];
            v <<= 4;
            if (c >= '0' && c <= '9') v |= c - '0';
            else if (c >= 'a' && c <= 'f') v |= c - 'a' + 10;
            else if (c >= 'A' && c <= 'F') v |= c - 'A' + 10;
            else return false;
        }
        (*out)[i] = static_cast<unsigned char>(v);
    }
    return true;
}

SimLpId simLpId(const unsigned char uuid[16]) {
    SimLpId id;
    memcpy(id.data(), uuid, 16);
    return id;
}

bool simRemoveTree(const std::string& path) { return removeTree(path); }

bool simMakeDirs(const std::string& path) { return mkdirs(path); }

uint64_t simBlocksUsedOnLp(const unsigned char uuid[16]) {
    return SimVolStore::get().blocksUsedOnLp(simLpId(uuid));
}

uint64_t simBlocksReservedOnLp(const unsigned char uuid[16]) {
    return SimVolStore::get().blocksReservedOnLp(simLpId(uuid));
}
