#include "para_internal.h"

// Placeholder until the module lands: keeps the handler table linkable.
extern "C" int para_client_init(void){return 0;}
