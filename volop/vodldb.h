// VoDldb: the D-blade host cache. Answers which host serves a D-blade id,
// for every client the daemon makes to a D-blade, from a small table read
// from the local DLDB.
//
// The table is read again when an id is missing or when it is older than 900
// seconds (VoState::getCurrentTime, which tests replace through
// VoState::setClockForTest). Only one thread reads the DLDB at a time; others
// wait for it. A failed read keeps the previous table.
//
// Lock order: _lock is a leaf and is never held across the DLDB call.
#ifndef VOLOP_VODLDB_H
#define VOLOP_VODLDB_H

#include <pthread.h>

struct DldbIterateRes;
struct DldbRec;

class VoDldb {
  public:
    static constexpr unsigned long DLDB_PROGRAM = 0x20000700;
    static constexpr unsigned long DLDB_VERSION = 1;
    static constexpr int REFRESH_SECONDS = 900;

    // Allocates the empty table and the lock; any failure is fatal. Called
    // once at start-up before any lookup. The table itself is read lazily, on
    // the first lookup, so a DLDB that is not up yet does not delay start-up.
    static void initialize();
    // Frees the lock and the table. No lookup may run or follow, except after
    // another initialize() (tests start each case afresh this way).
    static void destroy();

    // The host name of D-blade did as a malloc'd copy the caller free()s, or
    // null when the id is unknown even after a fresh read, or the copy failed.
    // Safe from any thread; may block on the DLDB call (120-second time-out)
    // or on another thread's read.
    static char* getHostNameByDbladeId(unsigned did);

  private:
    struct Record {
        unsigned bladeId;
        char* hostNamep;
        Record* next;
    };
    static constexpr unsigned BUCKETS = 32;  // bucket = did & 0x1f

    static void lock(pthread_mutex_t* m);
    static void unlock(pthread_mutex_t* m);
    // Caller holds _lock.
    static Record* getCacheEntry(unsigned did);
    static bool isPresentInCache(unsigned did);
    // Reads the DLDB into a new table; null on any failure. Runs without _lock.
    static Record** dldbSync();
    static Record** constructNewHostTable(DldbIterateRes* answer);
    static void insertDbladeIntoHostTable(Record** table, DldbRec* rec);
    static void freeHashTable(Record** table);

    static Record** hostTablep;
    static int _syncTime;  // second of the last good read; 0 = never
    static bool syncInProcess;
    static pthread_mutex_t _lock;
    static pthread_cond_t _cond;  // signalled once per finished read
};

#endif  // VOLOP_VODLDB_H
