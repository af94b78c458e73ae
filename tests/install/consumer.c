/* Built against an installed copy only: proves the public header is plain C
 * and that both the pkg-config file and the CMake package link it. */
#include <para.h>
#include <stdio.h>

int main(void)
{
    int version = 7;
    int r = para_get_odm_int((char*)"version", &version);
    printf("odm read %d, profile ro %s, records %zu %zu\n", r, para_profile.param_rofile_dir,
           sizeof(module_para_handle_s), sizeof(para_server_message_info));
    return r == -1 ? 0 : 1;
}
