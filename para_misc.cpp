#include "para_internal.h"

// Placeholder until the module lands: keeps the handler table linkable.
extern "C" int para_init_misc(char*){return 0;}
extern "C" int para_set_misc_opt(char*,void*,char*){return 0;}
extern "C" int para_get_misc_opt(char*,void*,void**,char*){return 0;}
extern "C" int para_need_save_misc(char*){return 0;}
extern "C" int para_save_misc(char*){return 0;}
