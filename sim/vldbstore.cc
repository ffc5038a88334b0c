// The VLDB and VODB in SQLite.

#include "vldbstore.h"

#include <cstring>

#include "volop/vldb_lit.h"

namespace {

constexpr unsigned kMirrorBit = 0x40000000;
constexpr unsigned kFirstVfsid = 1000;  // low ids stay free for volumes tests number themselves

// Lookup and modify keys (vldb_lookup_flags).
constexpr unsigned kAll = 1, kName = 2, kId = 4, kVserver = 8, kLp = 16, kRw = 32, kRo = 64,
                   kClone = 128, kCrtime = 256, kDataVer = 32768, kIsRoot = 65536,
                   kFamily = 131072, kAppId = 262144, kAppData = 524288, kRuleset = 1048576;
constexpr unsigned kTypeBits = kRw | kRo | kClone;
constexpr unsigned kLookupBits = kAll | kName | kId | kVserver | kLp | kTypeBits | kIsRoot | kFamily | kAppId;
constexpr unsigned kModifyBits = kName | kId | kVserver | kLp | kTypeBits | kCrtime | kDataVer | kIsRoot |
                                 kFamily | kAppId | kAppData | kRuleset;
constexpr unsigned kRwVfs = 1, kCloneVfs = 3;

bool zeroLp(const unsigned char lp[16]) {
  static const unsigned char zero[16] = {};
  return std::memcmp(lp, zero, 16) == 0;
}

// One prepared statement, finalized when the owner goes.
class Stmt {
 public:
  Stmt(sqlite3* db, const std::string& sql) { ok_ = sqlite3_prepare_v2(db, sql.c_str(), -1, &s_, nullptr) == SQLITE_OK; }
  ~Stmt() { sqlite3_finalize(s_); }
  Stmt(const Stmt&) = delete;
  Stmt& operator=(const Stmt&) = delete;
  bool ok() const { return ok_; }
  // Parameters beyond the statement's own are skipped, so that one set of numbered keys
  // can be bound to any query built from them.
  Stmt& bind(int i, int64_t v) {
    if (ok_ && i > sqlite3_bind_parameter_count(s_)) return *this;
    ok_ = ok_ && sqlite3_bind_int64(s_, i, v) == SQLITE_OK;
    return *this;
  }
  Stmt& bind(int i, const std::string& v) {
    if (ok_ && i > sqlite3_bind_parameter_count(s_)) return *this;
    ok_ = ok_ && sqlite3_bind_text(s_, i, v.c_str(), static_cast<int>(v.size()), SQLITE_TRANSIENT) == SQLITE_OK;
    return *this;
  }
  Stmt& bindBlob(int i, const void* p, int n) {
    if (ok_ && i > sqlite3_bind_parameter_count(s_)) return *this;
    ok_ = ok_ && sqlite3_bind_blob(s_, i, p, n, SQLITE_TRANSIENT) == SQLITE_OK;
    return *this;
  }
  // True while there is a row; ok() tells a failure from the end.
  bool step() {
    if (!ok_) return false;
    int rc = sqlite3_step(s_);
    if (rc == SQLITE_ROW) return true;
    ok_ = rc == SQLITE_DONE;
    return false;
  }
  int64_t i64(int c) const { return sqlite3_column_int64(s_, c); }
  std::string text(int c) const {
    const unsigned char* t = sqlite3_column_text(s_, c);
    return t ? reinterpret_cast<const char*>(t) : "";
  }
  void blob(int c, void* out, size_t n) const {
    std::memset(out, 0, n);
    const void* p = sqlite3_column_blob(s_, c);
    size_t have = static_cast<size_t>(sqlite3_column_bytes(s_, c));
    if (p) std::memcpy(out, p, have < n ? have : n);
  }

 private:
  sqlite3_stmt* s_ = nullptr;
  bool ok_;
};

// A write transaction: rolled back unless committed.
class Txn {
 public:
  explicit Txn(sqlite3* db) : db_(db) { ok_ = exec("BEGIN IMMEDIATE"); }
  ~Txn() {
    if (ok_ && !done_) exec("ROLLBACK");
  }
  bool ok() const { return ok_; }
  // Status for the caller: 0, or VLDB_COMMIT_FAILED.
  int commit() {
    done_ = true;
    return exec("COMMIT") ? 0 : (exec("ROLLBACK"), VLDB_COMMIT_FAILED);
  }

 private:
  bool exec(const char* sql) { return sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK; }
  sqlite3* db_;
  bool ok_ = false;
  bool done_ = false;
};

const char* kRecordColumns =
    "vfsid, family, name, vserver, vfstype, crsec, crusec, lp, isroot, dataver, appid, appdata, ruleset";

VldbRecord readRecord(const Stmt& s) {
  VldbRecord r;
  r.vfsid = static_cast<unsigned>(s.i64(0));
  r.family = s.text(1);
  r.name = s.text(2);
  r.vserver = static_cast<unsigned>(s.i64(3));
  r.vfstype = static_cast<unsigned>(s.i64(4));
  r.crSec = static_cast<unsigned>(s.i64(5));
  r.crUsec = static_cast<unsigned>(s.i64(6));
  s.blob(7, r.lp, sizeof r.lp);
  r.isRoot = static_cast<unsigned>(s.i64(8));
  r.dataVer = static_cast<uint64_t>(s.i64(9));
  r.appId = static_cast<unsigned>(s.i64(10));
  s.blob(11, r.appData, sizeof r.appData);
  r.exportRuleset = static_cast<unsigned short>(s.i64(12));
  return r;
}

// Binds the thirteen columns of kRecordColumns from index `first` on.
void bindRecord(Stmt& s, int first, const VldbRecord& r) {
  s.bind(first, r.vfsid).bind(first + 1, r.family).bind(first + 2, r.name).bind(first + 3, r.vserver);
  s.bind(first + 4, r.vfstype).bind(first + 5, r.crSec).bind(first + 6, r.crUsec);
  s.bindBlob(first + 7, r.lp, 16).bind(first + 8, r.isRoot).bind(first + 9, static_cast<int64_t>(r.dataVer));
  s.bind(first + 10, r.appId).bindBlob(first + 11, r.appData, sizeof r.appData).bind(first + 12, r.exportRuleset);
}

int64_t metaGet(sqlite3* db, const char* key, int64_t dflt) {
  Stmt s(db, "SELECT value FROM meta WHERE key = ?");
  s.bind(1, key);
  return s.step() ? s.i64(0) : dflt;
}

bool metaSet(sqlite3* db, const char* key, int64_t v) {
  Stmt s(db, "INSERT INTO meta(key, value) VALUES(?, ?) ON CONFLICT(key) DO UPDATE SET value = excluded.value");
  s.bind(1, key).bind(2, v);
  s.step();
  return s.ok();
}

// Counts rows of a query with bound parameters; -1 on failure.
template <typename Binder>
int64_t countRows(sqlite3* db, const std::string& sql, Binder bindFn) {
  Stmt s(db, sql);
  bindFn(s);
  if (!s.step()) return -1;
  return s.i64(0);
}

// Is name held by a read-write record of a VFS other than vfsid (not counting the record
// numbered exceptSeq, which is about to change)?
int64_t rwNameTaken(sqlite3* db, const std::string& name, unsigned vfsid, int64_t exceptSeq = 0) {
  return countRows(db, "SELECT COUNT(*) FROM vldb WHERE name = ? AND vfstype = 1 AND vfsid <> ? AND seq <> ?",
                   [&](Stmt& s) { s.bind(1, name).bind(2, vfsid).bind(3, exceptSeq); });
}

int64_t recordCount(sqlite3* db, unsigned vfsid, const unsigned char lp[16]) {
  return countRows(db, "SELECT COUNT(*) FROM vldb WHERE vfsid = ? AND lp = ?",
                   [&](Stmt& s) { s.bind(1, vfsid).bindBlob(2, lp, 16); });
}

int64_t opidCount(sqlite3* db, uint64_t opid) {
  return countRows(db, "SELECT COUNT(*) FROM vodb WHERE opid = ?",
                   [&](Stmt& s) { s.bind(1, static_cast<int64_t>(opid)); });
}

bool insertVodb(sqlite3* db, uint64_t opid, const VodbRecord& r) {
  Stmt s(db, "INSERT INTO vodb(opid, optype, vfsid, lp, role) VALUES(?, ?, ?, ?, ?)");
  s.bind(1, static_cast<int64_t>(opid)).bind(2, r.optype).bind(3, r.vfsid).bindBlob(4, r.lp, 16).bind(5, r.role);
  s.step();
  return s.ok();
}

}  // namespace

VldbStore& VldbStore::get() {
  static VldbStore store;
  return store;
}

bool VldbStore::open(const std::string& path, std::string* err) {
  if (sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) != SQLITE_OK) {
    *err = "cannot open " + path + ": " + (db_ ? sqlite3_errmsg(db_) : "out of memory");
    close();
    return false;
  }
  sqlite3_busy_timeout(db_, 5000);
  const char* schema =
      "PRAGMA journal_mode = WAL;"
      "PRAGMA synchronous = FULL;"
      "CREATE TABLE IF NOT EXISTS vldb(seq INTEGER PRIMARY KEY AUTOINCREMENT, vfsid INTEGER NOT NULL,"
      " family TEXT NOT NULL, name TEXT NOT NULL, vserver INTEGER, vfstype INTEGER, crsec INTEGER,"
      " crusec INTEGER, lp BLOB NOT NULL, isroot INTEGER, dataver INTEGER, appid INTEGER, appdata BLOB,"
      " ruleset INTEGER, UNIQUE(vfsid, lp));"
      "CREATE INDEX IF NOT EXISTS vldb_name ON vldb(name);"
      "CREATE TABLE IF NOT EXISTS vodb(seq INTEGER PRIMARY KEY AUTOINCREMENT, opid INTEGER NOT NULL,"
      " optype INTEGER, vfsid INTEGER, lp BLOB, role INTEGER);"
      "CREATE INDEX IF NOT EXISTS vodb_opid ON vodb(opid);"
      "CREATE TABLE IF NOT EXISTS meta(key TEXT PRIMARY KEY, value INTEGER);"
      "CREATE TABLE IF NOT EXISTS lps(uuid BLOB PRIMARY KEY, name TEXT NOT NULL, state INTEGER,"
      " did INTEGER, blocksize INTEGER, blocks INTEGER);";
  char* msg = nullptr;
  if (sqlite3_exec(db_, schema, nullptr, nullptr, &msg) != SQLITE_OK) {
    *err = "cannot set up " + path + ": " + (msg ? msg : "?");
    sqlite3_free(msg);
    close();
    return false;
  }
  return true;
}

void VldbStore::close() {
  if (db_) sqlite3_close(db_);
  db_ = nullptr;
}

int VldbStore::newVfsid(unsigned* out) {
  *out = 0;
  Txn t(db_);
  if (!t.ok()) return VLDB_CREATERWTXN_FAILED;
  int64_t next = metaGet(db_, "next_vfsid", kFirstVfsid);
  for (;; ++next) {
    if (next >= kMirrorBit) return VLDB_NO_VFSIDS_AVAILABLE;
    int64_t used = countRows(db_, "SELECT COUNT(*) FROM vldb WHERE vfsid = ? OR vfsid = ?", [&](Stmt& s) {
      s.bind(1, next).bind(2, next | kMirrorBit);
    });
    if (used < 0) return VLDB_RECORD_GET_FAILED;
    if (used == 0) break;
  }
  if (!metaSet(db_, "next_vfsid", next + 1)) return VLDB_RECORD_SET_FAILED;
  int rc = t.commit();
  if (rc == 0) *out = static_cast<unsigned>(next);
  return rc;
}

int VldbStore::createRecord(const VldbRecord& r) {
  if (r.vfsid == 0) return VLDB_INVALID_VFSID;
  if (r.name.empty()) return VLDB_INVALID_NAME;
  if (r.vfstype > kCloneVfs) return VLDB_INVALID_VFS_TYPE;
  Txn t(db_);
  if (!t.ok()) return VLDB_CREATERWTXN_FAILED;
  int64_t n = recordCount(db_, r.vfsid, r.lp);
  if (n < 0) return VLDB_RECORD_GET_FAILED;
  if (n > 0) return VLDB_VFSID_EXISTS;
  if (r.vfstype == kRwVfs) {
    n = rwNameTaken(db_, r.name, r.vfsid);
    if (n < 0) return VLDB_RECORD_GET_FAILED;
    if (n > 0) return VLDB_NAME_EXISTS;
  }
  Stmt s(db_, std::string("INSERT INTO vldb(") + kRecordColumns + ") VALUES(?,?,?,?,?,?,?,?,?,?,?,?,?)");
  bindRecord(s, 1, r);
  s.step();
  if (!s.ok()) return VLDB_RECORD_CREATE_FAILED;
  return t.commit();
}

int VldbStore::deleteRecord(unsigned vfsid, const unsigned char lp[16]) {
  Txn t(db_);
  if (!t.ok()) return VLDB_CREATERWTXN_FAILED;
  Stmt s(db_, "DELETE FROM vldb WHERE vfsid = ? AND lp = ?");
  s.bind(1, vfsid).bindBlob(2, lp, 16);
  s.step();
  if (!s.ok()) return VLDB_RECORD_DELETE_FAILED;
  if (sqlite3_changes(db_) == 0) return VLDB_INVALID_VFSID;
  return t.commit();
}

int VldbStore::lookup(unsigned mask, const VldbRecord& key, std::vector<VldbRecord>* out) {
  out->clear();
  if (mask == 0 || (mask & ~kLookupBits)) return VLDB_INVALID_MASK;
  std::string where = "1";
  if (mask & kName) where += " AND name = ?2";
  if (mask & kId) where += " AND vfsid = ?1";
  if (mask & kVserver) where += " AND vserver = ?3";
  if ((mask & kLp) && !zeroLp(key.lp)) where += " AND lp = ?4";
  if (mask & kTypeBits) {
    where += " AND vfstype IN (-1";
    if (mask & kRw) where += ",1";
    if (mask & kRo) where += ",2";
    if (mask & kClone) where += ",3";
    where += ")";
  }
  if (mask & kIsRoot) where += " AND isroot <> 0";
  if (mask & kFamily) where += " AND family = ?5";
  if (mask & kAppId) where += " AND appid = ?6";
  Stmt s(db_, std::string("SELECT ") + kRecordColumns + " FROM vldb WHERE " + where + " ORDER BY seq");
  s.bind(1, key.vfsid).bind(2, key.name).bind(3, key.vserver).bindBlob(4, key.lp, 16);
  s.bind(5, key.family).bind(6, key.appId);
  while (s.step()) out->push_back(readRecord(s));
  if (!s.ok()) {
    out->clear();
    return VLDB_DB_ITERATOR_FAILED;
  }
  return out->empty() ? VLDB_RECORD_NOT_FOUND : 0;
}

int VldbStore::modify(unsigned mask, unsigned vfsid, const unsigned char lp[16], const VldbRecord& nr) {
  if (mask == 0 || (mask & ~kModifyBits)) return VLDB_INVALID_MASK;
  if ((mask & kId) && (nr.vfsid == 0)) return VLDB_INVALID_VFSID;
  if ((mask & kName) && nr.name.empty()) return VLDB_INVALID_NAME;
  if ((mask & kTypeBits) && nr.vfstype > kCloneVfs) return VLDB_INVALID_VFS_TYPE;
  Txn t(db_);
  if (!t.ok()) return VLDB_CREATERWTXN_FAILED;
  std::vector<std::pair<int64_t, VldbRecord>> recs;
  {
    Stmt s(db_, std::string("SELECT ") + kRecordColumns + ", seq FROM vldb WHERE vfsid = ?1" +
                    (zeroLp(lp) ? "" : " AND lp = ?2") + " ORDER BY seq");
    s.bind(1, vfsid).bindBlob(2, lp, 16);
    while (s.step()) recs.emplace_back(s.i64(13), readRecord(s));
    if (!s.ok()) return VLDB_DB_ITERATOR_FAILED;
  }
  if (recs.empty()) return VLDB_RECORD_NOT_FOUND;
  for (auto& [seq, r] : recs) {
    VldbRecord n = r;
    if (mask & kName) n.name = nr.name;
    if (mask & kId) n.vfsid = nr.vfsid;
    if (mask & kVserver) n.vserver = nr.vserver;
    if (mask & kLp) std::memcpy(n.lp, nr.lp, 16);
    if (mask & kTypeBits) n.vfstype = nr.vfstype;
    if (mask & kCrtime) n.crSec = nr.crSec, n.crUsec = nr.crUsec;
    if (mask & kDataVer) n.dataVer = nr.dataVer;
    if (mask & kIsRoot) n.isRoot = nr.isRoot;
    if (mask & kFamily) n.family = nr.family;
    if (mask & kAppId) n.appId = nr.appId;
    if (mask & kAppData) std::memcpy(n.appData, nr.appData, sizeof n.appData);
    if (mask & kRuleset) n.exportRuleset = nr.exportRuleset;
    if (n.vfsid != r.vfsid || std::memcmp(n.lp, r.lp, 16) != 0) {
      int64_t c = recordCount(db_, n.vfsid, n.lp);
      if (c < 0) return VLDB_RECORD_GET_FAILED;
      if (c > 0) return n.vfsid != r.vfsid ? VLDB_VFSID_EXISTS : VLDB_VFSID_LOCATION_EXISTS;
    }
    if (n.vfstype == kRwVfs && (n.name != r.name || r.vfstype != kRwVfs || n.vfsid != r.vfsid)) {
      int64_t c = rwNameTaken(db_, n.name, n.vfsid, seq);
      if (c < 0) return VLDB_RECORD_GET_FAILED;
      if (c > 0) return VLDB_NAME_EXISTS;
    }
    Stmt u(db_, "UPDATE vldb SET vfsid=?1, family=?2, name=?3, vserver=?4, vfstype=?5, crsec=?6, crusec=?7,"
                " lp=?8, isroot=?9, dataver=?10, appid=?11, appdata=?12, ruleset=?13 WHERE seq=?14");
    bindRecord(u, 1, n);
    u.bind(14, seq);
    u.step();
    if (!u.ok()) return VLDB_RECORD_SET_FAILED;
  }
  return t.commit();
}

int VldbStore::modifyDataVer(unsigned vfsid, const unsigned char lp[16], uint64_t dataVer) {
  Txn t(db_);
  if (!t.ok()) return VLDB_CREATERWTXN_FAILED;
  Stmt s(db_, "UPDATE vldb SET dataver = ? WHERE vfsid = ? AND lp = ?");
  s.bind(1, static_cast<int64_t>(dataVer)).bind(2, vfsid).bindBlob(3, lp, 16);
  s.step();
  if (!s.ok()) return VLDB_RECORD_SET_FAILED;
  if (sqlite3_changes(db_) == 0) return VLDB_RECORD_NOT_FOUND;
  return t.commit();
}

int VldbStore::vfsMove(unsigned vfsid, const unsigned char oldLp[16], const unsigned char newLp[16]) {
  Txn t(db_);
  if (!t.ok()) return VLDB_CREATERWTXN_FAILED;
  int64_t n = recordCount(db_, vfsid, oldLp);
  if (n < 0) return VLDB_RECORD_GET_FAILED;
  if (n == 0) return VLDB_RECORD_NOT_FOUND;
  if (std::memcmp(oldLp, newLp, 16) == 0) return 0;
  n = recordCount(db_, vfsid, newLp);
  if (n < 0) return VLDB_RECORD_GET_FAILED;
  if (n > 0) return VLDB_VFSID_LOCATION_EXISTS;
  Stmt s(db_, "UPDATE vldb SET lp = ? WHERE vfsid = ? AND lp = ?");
  s.bindBlob(1, newLp, 16).bind(2, vfsid).bindBlob(3, oldLp, 16);
  s.step();
  if (!s.ok()) return VLDB_RECORD_SET_FAILED;
  return t.commit();
}

int VldbStore::vodbCreate2(uint64_t opid, const std::vector<VodbRecord>& recs, uint64_t* outOpid) {
  *outOpid = 0;
  if (recs.empty()) return VLDB_VALUE_REQUIRED;
  Txn t(db_);
  if (!t.ok()) return VLDB_CREATERWTXN_FAILED;
  int64_t next = metaGet(db_, "next_opid", 1);
  if (opid == 0) {
    opid = static_cast<uint64_t>(next);
  } else {
    int64_t n = opidCount(db_, opid);
    if (n < 0) return VLDB_RECORD_GET_FAILED;
    if (n > 0) return VODB_OPID_IN_USE;
  }
  // Ids are never handed out twice, not even after the table was emptied or a restart.
  if (static_cast<int64_t>(opid) >= next && !metaSet(db_, "next_opid", static_cast<int64_t>(opid) + 1))
    return VLDB_RECORD_SET_FAILED;
  for (const VodbRecord& r : recs)
    if (!insertVodb(db_, opid, r)) return VLDB_RECORD_CREATE_FAILED;
  if (!metaSet(db_, "last_create_opid", static_cast<int64_t>(opid))) return VLDB_RECORD_SET_FAILED;
  int rc = t.commit();
  if (rc == 0) *outOpid = opid;
  return rc;
}

int VldbStore::vodbCreate(uint64_t opid, bool checkOpids, const std::vector<VodbRecord>& recs) {
  if (opid == 0) return VODB_ILLEGAL_OPID;
  if (recs.empty()) return VLDB_VALUE_REQUIRED;
  Txn t(db_);
  if (!t.ok()) return VLDB_CREATERWTXN_FAILED;
  if (checkOpids) {
    int64_t n = opidCount(db_, opid);
    if (n < 0) return VLDB_RECORD_GET_FAILED;
    if (n == 0) return VODB_OPID_NOT_IN_USE;
    for (const VodbRecord& r : recs)
      if (r.opid != 0 && r.opid != opid) return VODB_ILLEGAL_OPID;
  }
  if (static_cast<int64_t>(opid) >= metaGet(db_, "next_opid", 1) &&
      !metaSet(db_, "next_opid", static_cast<int64_t>(opid) + 1))
    return VLDB_RECORD_SET_FAILED;
  for (const VodbRecord& r : recs)
    if (!insertVodb(db_, opid, r)) return VLDB_RECORD_CREATE_FAILED;
  if (!metaSet(db_, "last_create_opid", static_cast<int64_t>(opid))) return VLDB_RECORD_SET_FAILED;
  return t.commit();
}

int VldbStore::vodbDeleteByOpid(uint64_t opid) {
  if (opid == 0) return VODB_ILLEGAL_OPID;
  Txn t(db_);
  if (!t.ok()) return VLDB_CREATERWTXN_FAILED;
  Stmt s(db_, "DELETE FROM vodb WHERE opid = ?");
  s.bind(1, static_cast<int64_t>(opid));
  s.step();
  if (!s.ok()) return VLDB_RECORD_DELETE_FAILED;
  if (sqlite3_changes(db_) == 0) return VODB_OPID_NOT_IN_USE;
  if (!metaSet(db_, "last_delete_opid", static_cast<int64_t>(opid))) return VLDB_RECORD_SET_FAILED;
  return t.commit();
}

int VldbStore::vodbUpdateOptype(uint64_t opid, int optype) {
  Txn t(db_);
  if (!t.ok()) return VLDB_CREATERWTXN_FAILED;
  Stmt s(db_, "UPDATE vodb SET optype = ? WHERE opid = ?");
  s.bind(1, optype).bind(2, static_cast<int64_t>(opid));
  s.step();
  if (!s.ok()) return VLDB_RECORD_SET_FAILED;
  if (sqlite3_changes(db_) == 0) return VODB_OPID_NOT_IN_USE;
  return t.commit();
}

void VldbStore::vodbLastIds(uint64_t* lastCreate, uint64_t* lastDelete) {
  *lastCreate = static_cast<uint64_t>(metaGet(db_, "last_create_opid", 0));
  *lastDelete = static_cast<uint64_t>(metaGet(db_, "last_delete_opid", 0));
}

int VldbStore::vodbLookup(uint64_t* lastCreate, uint64_t* lastDelete, std::vector<VodbRecord>* out) {
  out->clear();
  *lastCreate = *lastDelete = 0;
  Stmt s(db_, "SELECT opid, optype, vfsid, lp, role FROM vodb ORDER BY seq");
  while (s.step()) {
    VodbRecord r;
    r.opid = static_cast<uint64_t>(s.i64(0));
    r.optype = static_cast<int>(s.i64(1));
    r.vfsid = static_cast<unsigned>(s.i64(2));
    s.blob(3, r.lp, sizeof r.lp);
    r.role = static_cast<int>(s.i64(4));
    out->push_back(r);
  }
  if (!s.ok()) {
    out->clear();
    return VLDB_DB_ITERATOR_FAILED;
  }
  // An empty table reports the pair that vodb_opid_lookup's 135 stands for, so that a
  // reader comparing the two sees no change until the next create.
  if (!out->empty()) vodbLastIds(lastCreate, lastDelete);
  return 0;
}

int VldbStore::vodbOpidLookup(uint64_t* lastCreate, uint64_t* lastDelete) {
  *lastCreate = *lastDelete = 0;
  int64_t n = countRows(db_, "SELECT COUNT(*) FROM vodb", [](Stmt&) {});
  if (n < 0) return VLDB_RECORD_GET_FAILED;
  if (n == 0) return VLDB_RECORD_UNAVAILABLE;
  vodbLastIds(lastCreate, lastDelete);
  return 0;
}

void VldbStore::mergeStoredLps(SimNode& node) {
  Stmt s(db_, "SELECT uuid, name, state, did, blocksize, blocks FROM lps ORDER BY rowid");
  while (s.step()) {
    SimLp lp{};
    s.blob(0, lp.uuid, sizeof lp.uuid);
    lp.name = s.text(1);
    lp.state = static_cast<int>(s.i64(2));
    lp.did = static_cast<uint16_t>(s.i64(3));
    lp.blockSize = static_cast<unsigned>(s.i64(4));
    lp.sizeBlocks = static_cast<uint64_t>(s.i64(5));
    if (SimLp* have = node.findLp(lp.uuid)) {
      have->state = lp.state;
      continue;
    }
    if (node.findLpByName(lp.name) || !node.findDblade(lp.did) || lp.blockSize == 0) continue;
    node.lps.push_back(lp);
  }
}

bool VldbStore::storeLp(const SimLp& lp) {
  Stmt s(db_,
         "INSERT INTO lps(uuid, name, state, did, blocksize, blocks) VALUES(?, ?, ?, ?, ?, ?)"
         " ON CONFLICT(uuid) DO UPDATE SET name = excluded.name, state = excluded.state, did = excluded.did,"
         " blocksize = excluded.blocksize, blocks = excluded.blocks");
  s.bindBlob(1, lp.uuid, 16).bind(2, lp.name).bind(3, lp.state).bind(4, lp.did).bind(5, lp.blockSize);
  s.bind(6, static_cast<int64_t>(lp.sizeBlocks));
  s.step();
  return s.ok();
}
