#include "vodldb.h"

#include <errno.h>
#include <string.h>

#include <cstdlib>

#include "dldb_server.h"
#include "vorpcclient.h"
#include "vostate.h"
#include "votrace.h"

VoDldb::Record** VoDldb::hostTablep = nullptr;
int VoDldb::_syncTime = 0;
bool VoDldb::syncInProcess = false;
pthread_mutex_t VoDldb::_lock;
pthread_cond_t VoDldb::_cond;

namespace {

const char* const kDldbHost = "127.0.0.1";
const long kDldbTimeoutSec = 120;

// Whether _lock and _cond exist; only initialize and destroy touch it.
bool gInitialized = false;

[[noreturn]] void fatalExit() { exit(1); }

}  // namespace

void VoDldb::initialize() {
    if (gInitialized) destroy();
    hostTablep = static_cast<Record**>(calloc(BUCKETS, sizeof(Record*)));
    if (hostTablep == nullptr) {
        VO_TR_RAW(vo_vod, vo_fatal, "%s, %d malloc can't allocate memory for the host table\n",
                  __func__, __LINE__);
        fatalExit();
    }
    _syncTime = 0;
    syncInProcess = false;
    int rc = pthread_mutex_init(&_lock, nullptr);
    if (rc != 0) {
        VO_TR_RAW(vo_vod, vo_fatal, "%s, %d pthread_mutex_init: error = %d, %s\n", __func__,
                  __LINE__, rc, strerror(rc));
        fatalExit();
    }
    rc = pthread_cond_init(&_cond, nullptr);
    if (rc != 0) {
        VO_TR_RAW(vo_vod, vo_fatal, "%s, %d pthread_cond_init: error = %d, %s\n", __func__,
                  __LINE__, rc, strerror(rc));
        fatalExit();
    }
    gInitialized = true;
}

void VoDldb::destroy() {
    if (!gInitialized) return;
    pthread_mutex_destroy(&_lock);
    pthread_cond_destroy(&_cond);
    freeHashTable(hostTablep);
    hostTablep = nullptr;
    _syncTime = 0;
    syncInProcess = false;
    gInitialized = false;
}

void VoDldb::lock(pthread_mutex_t* m) {
    int rc = pthread_mutex_lock(m);
    if (rc != 0) {
        VO_TR_RAW(vo_vod, vo_fatal, "%s, %d mutex lock hostTablep: error = %d, %s\n", __func__,
                  __LINE__, rc, strerror(rc));
        fatalExit();
    }
}

void VoDldb::unlock(pthread_mutex_t* m) {
    int rc = pthread_mutex_unlock(m);
    if (rc != 0) {
        VO_TR_RAW(vo_vod, vo_fatal, "%s, %d mutex unlock hostTablep: error = %d, %s\n", __func__,
                  __LINE__, rc, strerror(rc));
        fatalExit();
    }
}

VoDldb::Record* VoDldb::getCacheEntry(unsigned did) {
    if (hostTablep == nullptr) return nullptr;
    for (Record* r = hostTablep[did & (BUCKETS - 1)]; r != nullptr; r = r->next)
        if (r->bladeId == did) return r;
    return nullptr;
}

bool VoDldb::isPresentInCache(unsigned did) { return getCacheEntry(did) != nullptr; }

char* VoDldb::getHostNameByDbladeId(unsigned did) {
    lock(&_lock);
    bool didRead = false;
    unsigned now = VoState::getCurrentTime();
    if (!isPresentInCache(did) ||
        now - static_cast<unsigned>(_syncTime) > static_cast<unsigned>(REFRESH_SECONDS)) {
        if (!syncInProcess) {
            syncInProcess = true;
            unlock(&_lock);
            Record** fresh = dldbSync();
            lock(&_lock);
            syncInProcess = false;
            didRead = true;
            if (fresh != nullptr) {
                freeHashTable(hostTablep);
                hostTablep = fresh;
                _syncTime = static_cast<int>(VoState::getCurrentTime());
            }
        }
    }
    bool waited = false;
    while (syncInProcess) {
        waited = true;
        int rc = pthread_cond_wait(&_cond, &_lock);
        if (rc != 0) {
            VO_TR_RAW(vo_vod, vo_fatal, "%s, %d cond variable: error = %d, %s\n", __func__,
                      __LINE__, rc, strerror(rc));
            fatalExit();
        }
    }
    char* host = nullptr;
    if (Record* r = getCacheEntry(did)) {
        host = strdup(r->hostNamep);
        if (host == nullptr)
            VO_TR_RAW(vo_vod, vo_warn, "%s, %d strdup couldn't allocate mem for hostname\n",
                      __func__, __LINE__);
    }
    unlock(&_lock);
    // One signal per finished read. A waiter it wakes passes it on once, so
    // that every thread that waited for this read resumes, one after another.
    if (didRead || waited) {
        int rc = pthread_cond_signal(&_cond);
        if (rc != 0) {
            VO_TR_RAW(vo_vod, vo_fatal, "%s, %d cond var error = %d, %s\n", __func__, __LINE__, rc,
                      strerror(rc));
            fatalExit();
        }
    }
    return host;
}

VoDldb::Record** VoDldb::dldbSync() {
    VoRPCClient clnt;
    VoErr err = clnt.clnttcp_create(kDldbHost, DLDB_PROGRAM, DLDB_VERSION);
    CLIENT* c = clnt;
    if (err != 0 || c == nullptr) {
        VO_TR_RAW(vo_vldb, vo_warn, "%s, %d failed to connect to DLDB server\n", __func__,
                  __LINE__);
        return nullptr;
    }
    if (!VoRPCClient::setCallTimeout(c, kDldbTimeoutSec)) {
        VO_TR_RAW(vo_vldb, vo_warn, "Couldn't set the timeout for dldb handle\n");
        return nullptr;
    }
    VoXdrResult<DldbIterateRes> res(xdr_DldbIterateRes);
    enum clnt_stat st = iterate_1(nullptr, res.get(), c);
    if (st != RPC_SUCCESS) {
        VO_TR_RAW(vo_vldb, vo_warn, "%s, %d DLDB iterate_1 failed: %s\n", __func__, __LINE__,
                  clnt_sperrno(st));
        return nullptr;
    }
    // A node reported unhealthy still knows its D-blades: use its answer.
    if (res->status != DLDB_STATUS_OK && res->status != DLDB_STATUS_NODE_UNHEALTHY) {
        VO_TR(vo_vldb, vo_warn, "iterate_1 err=%#X\n", static_cast<unsigned>(res->status));
        return nullptr;
    }
    if (res->rec.rec_len == 0) {
        VO_TR(vo_vldb, vo_warn, "iterate_1 found no entries\n");
        return nullptr;
    }
    return constructNewHostTable(res.get());
}

VoDldb::Record** VoDldb::constructNewHostTable(DldbIterateRes* answer) {
    Record** table = static_cast<Record**>(calloc(BUCKETS, sizeof(Record*)));
    if (table == nullptr) {
        VO_TR_RAW(vo_vod, vo_warn, "%s, %d malloc can't allocate memory for the newTable\n",
                  __func__, __LINE__);
        return nullptr;
    }
    for (u_int i = 0; i < answer->rec.rec_len; i++)
        insertDbladeIntoHostTable(table, &answer->rec.rec_val[i]);
    return table;
}

void VoDldb::insertDbladeIntoHostTable(Record** table, DldbRec* rec) {
    Record* e = static_cast<Record*>(malloc(sizeof(Record)));
    if (e == nullptr) {
        VO_TR_RAW(vo_vod, vo_fatal, "%s, %d malloc can't allocate memory for newEntry\n", __func__,
                  __LINE__);
        fatalExit();
    }
    e->bladeId = rec->did;
    e->hostNamep = strdup(rec->host.name ? rec->host.name : "");
    if (e->hostNamep == nullptr) {
        VO_TR_RAW(vo_vod, vo_fatal, "%s, %d strdup can't allocate memory for the hostName\n",
                  __func__, __LINE__);
        fatalExit();
    }
    // At the head of the chain: a later duplicate id shadows an earlier one.
    Record** bucket = &table[rec->did & (BUCKETS - 1)];
    e->next = *bucket;
    *bucket = e;
}

void VoDldb::freeHashTable(Record** table) {
    if (table == nullptr) return;
    for (unsigned b = 0; b < BUCKETS; b++) {
        Record* r = table[b];
        while (r != nullptr) {
            Record* next = r->next;
            free(r->hostNamep);
            free(r);
            r = next;
        }
    }
    free(table);
}
