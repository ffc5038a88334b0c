#include "vostatelist.h"

VoStateList voStateList;

void VoStateList::retireCompletedOps() {
    std::lock_guard<std::mutex> g(_lock);
}

unsigned long VoStateList::computeSleepTime() {
    std::lock_guard<std::mutex> g(_lock);
    return kMaxSleepSec;  // an empty registry needs no status checks
}
