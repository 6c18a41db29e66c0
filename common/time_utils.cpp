#include "common/time_utils.h"
