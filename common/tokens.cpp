#include "common/tokens.h"
