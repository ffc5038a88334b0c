// The pool of detached worker threads that run operation steps.
#ifndef VOLOP_WORKERTHREADPOOL_H
#define VOLOP_WORKERTHREADPOOL_H

class WorkerThreadPool {
public:
    // Starts numOfThreads detached workers waiting for jobs.  Called once by the
    // service loop before its first pass; a thread-creation failure is fatal.
    static void initialize(int numOfThreads);

    // Number of workers started so far.
    static int size();
};

#endif
