/* Private to the ISP module (para_isp.cpp, para_isp_style.cpp) and tests. */
#ifndef PARA_ISP_INTERNAL_H
#define PARA_ISP_INTERNAL_H

#include "para_internal.h"

/* Writes one settable member by name (without member callback): 1 when the
 * current value changed. */
int para_set_member(char* memberName, int chn, int val, char* valString);
/* ISP object of ISP i (defaults when is_def), members in output order.
 * NULL for a bad ISP number. The caller owns the tree. */
cJSON* Create_Json_ISPObject(int i, int is_def);
/* Parameter dump to the log. */
void isp_page(void);
/* Number of "isp0"/"isp1" objects in the range file's top level. */
int check_isp_num(cJSON* json);

inline bool isp_valid_pipe(int pipe)
{
    return pipe >= 0 && pipe < PARA_ISP_NUM;
}

/* Unsaved-change flag of the module, for tests. */
bool isp_change_pending(void);

namespace para {
/* The parsed style file of each ISP, kept for the life of the process. */
extern cJSON* isp_style_tree[PARA_ISP_NUM];
} // namespace para

#endif
