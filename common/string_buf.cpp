#include "common/string_buf.h"
