#include "para_internal.h"

/* ---- conf line updates (host-owned key = value files) ------------------ */
