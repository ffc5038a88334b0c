#include "workerThreadPool.h"

#include <pthread.h>

#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "votrace.h"

namespace {

std::mutex gQueueLock;
std::condition_variable gQueueCv;
int gThreads = 0;

void* workerMain(void*) {
    // Jobs arrive with the operation engine; a worker without jobs waits.
    std::unique_lock<std::mutex> lk(gQueueLock);
    for (;;) gQueueCv.wait(lk);
    return nullptr;
}

}  // namespace

void WorkerThreadPool::initialize(int numOfThreads) {
    for (int i = 0; i < numOfThreads; i++) {
        pthread_t t;
        pthread_attr_t attr;
        pthread_attr_init(&attr);
        pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
        // Workers only wait and make RPC calls: a small stack keeps many of
        // them cheap.
        pthread_attr_setstacksize(&attr, 256 * 1024);
        int rc = pthread_create(&t, &attr, workerMain, nullptr);
        pthread_attr_destroy(&attr);
        if (rc != 0) {
            VO_TR(vo_vod, vo_fatal, "pthread_create failed: errno=%d %s\n", rc, strerror(rc));
            exit(1);
        }
        std::lock_guard<std::mutex> g(gQueueLock);
        gThreads++;
    }
}

int WorkerThreadPool::size() {
    std::lock_guard<std::mutex> g(gQueueLock);
    return gThreads;
}
