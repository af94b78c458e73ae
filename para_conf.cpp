#include "para_internal.h"

// Placeholder until the module lands: keeps the handler table linkable.
extern "C" int para_init_conf(char*){return 0;}
extern "C" int para_set_conf_opt(char*,void*,char*){return 0;}
extern "C" int para_get_conf_opt(char*,void*,void**,char*){return 0;}
extern "C" int para_need_save_conf(char*){return 0;}
extern "C" int para_save_conf(char*){return 0;}
