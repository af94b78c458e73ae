#include "para_internal.h"

// Placeholder until the module lands: keeps the handler table linkable.
extern "C" int para_init_odm(char*){return 0;}
extern "C" void para_init_stage2_odm(char*){}
extern "C" int para_need_save_odm(char*){return 0;}
extern "C" int para_save_odm(char*){return 0;}
cJSON* json_odm_file = nullptr;
struct timespec odm_item_start_time;
extern "C" void para_set_odm_int(char*, int){}
extern "C" void para_set_odm_string(char*, char*){}
extern "C" int _para_set_odm_int(char*, int){return 0;}
extern "C" int _para_set_odm_string(char*, char*){return 0;}
extern "C" int para_get_odm_int(char*, int*){return -1;}
extern "C" int para_get_odm_string(char*, char*){return -1;}
