#include "common/string_utils.h"
