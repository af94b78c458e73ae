#include "para_internal.h"

// Placeholder until the module lands: keeps the handler table linkable.
extern "C" int para_init_isp(char*){return 0;}
extern "C" int para_set_isp_opt(char*,void*,char*){return 0;}
extern "C" int para_get_isp_opt(char*,void*,void**,char*){return 0;}
extern "C" int para_need_save_isp(char*){return 0;}
extern "C" int para_save_isp(char*){return 0;}
