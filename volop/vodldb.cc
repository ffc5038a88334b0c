#include "vodldb.h"

void VoDldb::initialize() {}
