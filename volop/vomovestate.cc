#include "vomovestate.h"

int VoMoveState::_keepSrc = 0;
