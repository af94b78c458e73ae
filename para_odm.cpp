#include "para_internal.h"

// Placeholder until the module lands: keeps the handler table linkable.
extern "C" int para_init_odm(char*){return 0;}
extern "C" void para_init_stage2_odm(char*){}
extern "C" int para_need_save_odm(char*){return 0;}
extern "C" int para_save_odm(char*){return 0;}
