#include "para_internal.h"

// Placeholder until the module lands: keeps the handler table linkable.
extern "C" int para_init_www(void){return 0;}
extern "C" void* para_convert_www_opt(char*,char*,int){return nullptr;}
extern "C" char* para_reverse_convert_www_opt(void*){return nullptr;}
