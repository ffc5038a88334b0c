// The VLDB and its VODB table, kept in SQLite under the data dir so that both survive a
// restart of the simulator.  Every call is one transaction.  Statuses are the VLDB's own
// table (volop/vldb_lit.h): 0 on success.
//
// Not thread-safe by itself: every caller holds SimNode::lock().
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <string>
#include <vector>

#include "simnode.h"

// One volume's VLDB record.
struct VldbRecord {
  unsigned vfsid = 0;
  std::string family;
  std::string name;
  unsigned vserver = 0;
  unsigned vfstype = 0;  // vldb_vfs_types
  unsigned crSec = 0, crUsec = 0;
  unsigned char lp[16] = {};
  unsigned isRoot = 0;
  uint64_t dataVer = 0;
  unsigned appId = 0;
  unsigned appData[8] = {};
  unsigned short exportRuleset = 0;
};

// One VODB record: one volume's part in one operation.
struct VodbRecord {
  uint64_t opid = 0;
  int optype = 0;
  unsigned vfsid = 0;
  unsigned char lp[16] = {};
  int role = 0;
};

class VldbStore {
 public:
  static VldbStore& get();

  // Opens (creating when needed) the database file.  False with *err set on failure.
  bool open(const std::string& path, std::string* err);
  void close();

  // A new VFS id: above every id handed out before, never 0, never with the mirror bit
  // 0x40000000, and not in use by a record (as itself or as its mirror id).
  int newVfsid(unsigned* out);
  // 101 when another VFS holds the name as a read-write volume and this one is read-write
  // too; 103 when (vfsid, LP) exists; 102 for an empty name; 105 for VFS id 0; 106 for a
  // type beyond CLONE.
  int createRecord(const VldbRecord& r);
  // 105 when there is no such record: the caller may have deleted it already.
  int deleteRecord(unsigned vfsid, const unsigned char lp[16]);
  // Records matching every key named by mask (vldb_lookup_flags; ALL_RECORDS alone matches
  // all), in creation order.  119 and no records when nothing matches, 111 for a mask
  // that names no key or a key the simulator does not support.  An all-zero LP key
  // matches every LP.
  int lookup(unsigned mask, const VldbRecord& key, std::vector<VldbRecord>* out);
  // Changes the fields named by mask in the record (vfsid, lp), or in every record of
  // vfsid when lp is all zeros.  119 when none matches, 111 for an empty or unsupported
  // mask, 101/103/109 when the change would clash with another record.
  int modify(unsigned mask, unsigned vfsid, const unsigned char lp[16], const VldbRecord& newrec);
  int modifyDataVer(unsigned vfsid, const unsigned char lp[16], uint64_t dataVer);  // 119
  // Moves the record to newLp: 119 when there is none, 109 when newLp holds that id.
  int vfsMove(unsigned vfsid, const unsigned char oldLp[16], const unsigned char newLp[16]);

  // Stores the records under opid, or under a newly allocated id when opid is 0 (the id
  // used goes to *outOpid).  144 when opid already has records, 113 for no record.
  int vodbCreate2(uint64_t opid, const std::vector<VodbRecord>& recs, uint64_t* outOpid);
  // Adds records under opid (146 for 0).  With checkOpids the operation must exist already
  // (145 otherwise) and every record's own opid must be 0 or opid (146 otherwise).
  int vodbCreate(uint64_t opid, bool checkOpids, const std::vector<VodbRecord>& recs);
  int vodbDeleteByOpid(uint64_t opid);                 // 145 when opid has no records
  int vodbUpdateOptype(uint64_t opid, int optype);     // 145 when opid has no records
  // The whole table in creation order, with the last created and last deleted operation
  // ids; an empty table reports both ids as 0.
  int vodbLookup(uint64_t* lastCreate, uint64_t* lastDelete, std::vector<VodbRecord>* out);
  // 135 (VLDB_RECORD_UNAVAILABLE) with both ids 0 when the table is empty.
  int vodbOpidLookup(uint64_t* lastCreate, uint64_t* lastDelete);
  // The ids as stored, whether or not the table is empty (for listings).
  void vodbLastIds(uint64_t* lastCreate, uint64_t* lastDelete);

  // LPs created or changed at run time, so that they outlive a restart: merges them into
  // the node's layout (the layout's own definitions win on a name clash; a stored state
  // wins over the layout's) and stores one LP.
  void mergeStoredLps(SimNode& node);
  bool storeLp(const SimLp& lp);

 private:
  VldbStore() = default;
  sqlite3* db_ = nullptr;
};
