#include "para_internal.h"

// Placeholder until the module lands: keeps the handler table linkable.
extern "C" int para_init_af(char*){return 0;}
extern "C" int para_get_af_opt(char*,void*,void**,char*){return 0;}
extern "C" int para_need_save_af(char*){return 0;}
extern "C" int para_save_af(char*){return 0;}
