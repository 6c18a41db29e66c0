#include "common/debug_log.h"
