#include "para_internal.h"

// Placeholder until the module lands: keeps the handler table linkable.
extern "C" int para_init_video(char*){return 0;}
extern "C" int para_set_video_opt(char*,void*,char*){return 0;}
extern "C" int para_get_video_opt(char*,void*,void**,char*){return 0;}
extern "C" int para_need_save_video(char*){return 0;}
extern "C" int para_save_video(char*){return 0;}
extern "C" void para_set_video_save_param_time(int){}
