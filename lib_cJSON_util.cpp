#include "para_internal.h"
