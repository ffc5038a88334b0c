// The registry of live operations.
//
// The service loop asks it, once per pass, to retire finished operations and
// how long it may sleep.  Operations themselves arrive with the operation
// engine; until then the registry is always empty.
#ifndef VOLOP_VOSTATELIST_H
#define VOLOP_VOSTATELIST_H

#include <mutex>

class VoStateList {
public:
    // Drops operations that are finished and no longer wanted from memory.
    // Service thread only.
    void retireCompletedOps();

    // Seconds the loop may wait before the next scan: at most 300, and each
    // operation is looked at no more than once per 30 seconds.
    unsigned long computeSleepTime();

    static const unsigned long kMaxSleepSec = 300;

private:
    std::mutex _lock;  // guards the list; taken before any operation's own lock
};

extern VoStateList voStateList;

#endif
