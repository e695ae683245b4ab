#include "dbg.h"

uint8_t verbose = 0;
