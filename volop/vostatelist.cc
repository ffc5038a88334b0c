#include "vostatelist.h"

// Transitional: the registry's implementation follows its header.
VoStateList voStateList;

VoStateList::VoStateList() {}
VoStateList::~VoStateList() {}
void VoStateList::retireCompletedOps() {}
unsigned long VoStateList::computeSleepTime() { return kMaxSleepSec; }
