// WorkerThreadPool: the detached threads that run the long steps of
// operations off the service thread, fed by one first-in, first-out queue.
//
// A job names one operation and what to do with it. Each job makes its own
// three RPC clients (VoServer::batchClntCreate), runs, and destroys them.
// From queueJob until the job is over the operation is "assigned": the
// registry neither retires it nor queues anything else for it.
//
// Lock order: the caller may hold the registry's voStateLock; queueJob takes
// the operation's _voStateLock and releases it before _qLock. _qLock is never
// held while a job runs. Every mutex, condition or thread failure is fatal.
#ifndef VOLOP_WORKERTHREADPOOL_H
#define VOLOP_WORKERTHREADPOOL_H

#include <pthread.h>

class VoState;
class VoRPCClient;

class WorkerThreadPool {
  public:
    // Job types.
    enum JobType {
        JOB_START = 0,        // start the operation (concluded at once if that fails)
        JOB_RECOVER = 1,      // crash recovery
        JOB_OP_COMPLETE = 2,  // conclude the D-blade stream, then the operation
        // The registry's 30-second look at a stream: conclude it once it has
        // ended and, when its completion never came, go on as JOB_OP_COMPLETE.
        JOB_STATUS_CHECK = 3,
    };

    // Starts numOfThreads detached workers waiting for jobs. Called once by
    // the service loop before its first pass.
    static void initialize(int numOfThreads);
    // Releases the queue's lock and condition; the threads are not joined.
    static void destroy();

    // Marks the operation assigned and appends a job for it; one worker is
    // woken. Any thread.
    static void queueJob(VoState* jobState, int jobtype);

    // Number of workers started so far.
    static int size();

    // How a job makes its clients (VLDB, source incremental copy, source
    // volume): VoServer::batchClntCreate unless a test says otherwise. Set
    // before queueing jobs; null restores the default.
    typedef unsigned (*ClientMaker)(VoRPCClient& vldb, VoRPCClient& incrcopy,
                                    VoRPCClient& dbladeVol);
    static void setClientMakerForTest(ClientMaker maker);

  private:
    struct job {
        VoState* state;
        job* next;
        int jobType;
    };
    struct Queue {
        job* head;
        job* tail;  // meaningful only while head is non-null
    };

    static void* workerThreadStarFunc(void*);
    static void runJob(job* j);

    static pthread_cond_t _qCond;
    static pthread_mutex_t _qLock;  // guards jobQueue and the thread count
    static Queue jobQueue;
    static int _threads;
};

#endif  // VOLOP_WORKERTHREADPOOL_H
