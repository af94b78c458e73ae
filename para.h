/* Parameter library of the camera: the one public header.
 *
 * Every name declared here is exported with C linkage; nothing else in the
 * library is visible to the linker. Per-member function families are
 * declared from the member tables (PARA_*_MEMBERS) so the header and the
 * implementation can never disagree. */
#ifndef PARA_H
#define PARA_H

#include <netinet/in.h>
#include <stdint.h>
#include <time.h>

#include <cjson/cJSON.h>

#include "dov_common.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define PARA_API __attribute__((visibility("default")))
#else
#define PARA_API
#endif

/* ========================================================================
 * Core: profile, module handler table, lifecycle
 * ======================================================================== */

typedef void (*para_version_conflict_callback_fun)(char* para_file, int old_version, int new_version);
typedef void (*para_isp_set_callback_fun)(void* setter, int pipe, int value);
typedef void (*para_video_set_callback_fun)(void* setter, int stream, int value);
typedef void (*para_audio_set_callback_fun)(void* setter, int value);
typedef void (*para_af_set_callback_fun)(void* setter, int value);
typedef void (*para_misc_set_callback_fun)(char* file_name, const void* setter, char* key, int value);
typedef void (*para_odm_set_callback_fun)(void* key);
typedef void (*para_conf_set_callback_fun)(char* file_name, const char* key);
typedef void (*para_isp_page_set_callback_fun)(void* json);
typedef void (*para_video_page_set_callback_fun)(void* json);
typedef void (*para_audio_page_set_callback_fun)(void* json);
typedef void (*para_af_page_set_callback_fun)(void* json);
typedef void (*para_misc_page_set_callback_fun)(char* parse_name, void* json);
typedef void (*para_conf_page_set_callback_fun)(char* file_name);

typedef struct dov_para_profile {
    char* param_rofile_dir;  /* "/home" */
    char* param_rwfile_dir;  /* "/data" */
    int client;              /* 0 server, nonzero client */
    char* config_file_name;  /* NULL: "www2json.json" */
    para_version_conflict_callback_fun para_version_conflict;
    para_isp_set_callback_fun isp_caller;
    para_video_set_callback_fun video_caller;
    para_audio_set_callback_fun audio_caller;
    para_af_set_callback_fun af_caller;
    para_misc_set_callback_fun misc_caller;
    para_odm_set_callback_fun odm_caller;
    para_conf_set_callback_fun conf_caller_in;
    para_isp_page_set_callback_fun isp_page_caller;
    para_video_page_set_callback_fun video_page_caller;
    para_audio_page_set_callback_fun audio_page_caller;
    para_af_page_set_callback_fun af_page_caller;
    para_misc_page_set_callback_fun misc_page_caller;
    para_conf_page_set_callback_fun conf_caller;
    int conf_save;
    int p_shutter_isp;
} dov_para_profile;

PARA_API extern dov_para_profile para_profile;

typedef struct module_para_handle_s {
    char* parse_name;
    int (*init)(char* parse_name);
    void (*init_stage2)(char* parse_name);
    int (*set_buf)(char* req_name, void* jsonIn, char* parse_name);
    int (*get_buf)(char* req_name, void* jsonIn, void** jsonOut, char* parse_name);
    int (*need_save)(char* parse_name);
    int (*save)(char* parse_name);
} module_para_handle_s;

typedef struct module_para_protocol_handle_s {
    char* parse_name;
    int (*init)(void);
    void* (*convert)(char* in, char* err_msg, int err_msg_buf_size);
    char* (*reverse_convert)(void* json);
} module_para_protocol_handle_s;

#define PARA_MODULE_ROWS 64
#define PARA_EXTERN_ROWS 32

PARA_API extern module_para_handle_s module_para_handle[PARA_MODULE_ROWS];
PARA_API extern int module_para_handle_num;
/* Extern rows as registered, before start-up appends them to the table. */
PARA_API extern module_para_handle_s module_para_handle_extern_temp[PARA_EXTERN_ROWS];
PARA_API extern int module_para_handle_num_extern_temp;
PARA_API extern module_para_protocol_handle_s module_para_protocol_handle[1];
PARA_API extern int module_para_protocol_handle_num;
PARA_API extern cJSON* para_config;

PARA_API void platformparam_init(void);
PARA_API int platformparam_stop(int IsStop);
PARA_API int platformparam_save(void);
PARA_API void platformparam_set_save_param_time(int audio_ms, int video_ms);
PARA_API void register_para_handle_extern(module_para_handle_s* handle);
PARA_API int para_conflict_callback(char* para_file, int old_version, int new_version);

PARA_API int update_conf(char* path, char* keyword, char* item);
PARA_API int update_line_conf(char* path, char* keyword, char* new_key_word_value);
PARA_API int update_line_conf_str(char* path, char* keyword, char* keyvalue, char* format);
PARA_API int update_line_conf_int(char* path, char* keyword, int keyvalue, char* format);

/* ========================================================================
 * Message server and API commands
 * ======================================================================== */

#define PARA_SERVER_PORT 6800
#define PARA_MESSAGE_BUF 4096

typedef struct para_server_message_info {
    char buffer[PARA_MESSAGE_BUF];
    int fd;
    struct sockaddr_in addressRec;
} para_server_message_info;

typedef struct param_handle_t {
    const char* content;
    int (*pfunc)(int type, para_server_message_info* info, cJSON** jsonout);
    int size;
} param_handle_t;

PARA_API int register_param_command(char* customer_name, param_handle_t* param_list, int array_size);

/* Our extension, not part of the device's interface: the message server
 * binds every local address unless the host names one IPv4 address (dotted
 * text) here before platformparam_init(). NULL or "" restores every
 * address. 0, or -1 (nothing changed) for text that is no IPv4 address. */
PARA_API int para_server_bind_address(const char* ipv4);

/* The five table operations that the typed and store modules offer alike. */
#define PARA_DECLARE_TABLE_OPS(mod)                                                          \
    PARA_API int para_init_##mod(char* parse_name);                                          \
    PARA_API int para_set_##mod##_opt(char* req_name, void* jsonIn, char* parse_name);       \
    PARA_API int para_get_##mod##_opt(char* req_name, void* jsonIn, void** jsonOut, char* parse_name); \
    PARA_API int para_need_save_##mod(char* parse_name);                                     \
    PARA_API int para_save_##mod(char* parse_name);

/* ======================== BEGIN stores (json / conf / misc / odm) ======= */
/* Table operations of the JSON-described modules and the .conf modules. */
PARA_DECLARE_TABLE_OPS(misc)
PARA_DECLARE_TABLE_OPS(conf)

/* .conf modules: key = value text files without ranges. */
PARA_API int para_init_single_conf(char* parse_name);
PARA_API char* para_conf_get_member(const char* file_name, const char* key);
PARA_API int para_conf_get_member_safe(const char* file_name, const char* key, char* buf, int size);
PARA_API int para_conf_get_def_member_safe(const char* file_name, const char* key, char* buf, int size);
PARA_API int _para_conf_set_member(const char* file_name, const char* key, const char* text);
PARA_API int para_conf_set_member(const char* file_name, const char* key, const char* text);
PARA_API int para_conf_need_update(char* file_name);
PARA_API int para_conf_key_IsChanged(const char* file_name, const char** keys, uint8_t count);
PARA_API int para_save_conf_2_buf(const char* file_name, char* buf, int size);
PARA_API void Create_Json_4_conf_Object(cJSON* json, int is_def, const char* file_name);

/* JSON-described modules: a range file plus default and current stores. */
typedef struct loop_json_s {
    cJSON* json;
    const char* parse_name;
} loop_json_s;

PARA_API int peek_array_enum_type(cJSON* array);
PARA_API int peek_json_enum_type(const char* file_name, const char* key);
PARA_API char* para_get_json_emum_str(const char* file_name, const char* key, int index);
PARA_API int para_get_json_enum_index(const char* file_name, const char* key, const char* name);
PARA_API int para_get_json_item_number(const char* file_name, cJSON* item, const char* key);
PARA_API char* para_get_item_str(cJSON* item);
PARA_API int para_get_json_min(const char* file_name, const char* key);
PARA_API int para_get_json_max(const char* file_name, const char* key);
PARA_API int para_get_json_def(const char* file_name, const char* key);
PARA_API int para_get_json_cur(const char* file_name, const char* key);
PARA_API int para_get_json_string(const char* file_name, const char* key, char* buf, int size);
PARA_API int para_set_json_cur_str(const char* file_name, const char* key, const char* name);
PARA_API int para_set_json_cur_number(const char* file_name, const char* key, int number);
PARA_API int _para_set_json_cur(const char* file_name, const char* key, int value);
PARA_API int para_set_json_cur(const char* file_name, const char* key, int value);
PARA_API int para_save_misc_conf_2_buf(const char* file_name, char* buf, int size);
PARA_API void Create_Json_Misc_Object(const char* file_name, cJSON* json, int is_def);

/* JSON helpers shared by the modules. */
PARA_API void cJSON_Print_safe(cJSON* json);
PARA_API void cJSON_Print2_safe(cJSON* json, const char* dbg_msg);
PARA_API int json_object_get_int(cJSON* item);
PARA_API char* json_object_get_string(cJSON* item);
PARA_API int json_object_load_number(cJSON* obj, const char* key, int* value);
PARA_API int json_object_load_u8_array(cJSON* obj, const char* key, uint8_t* buf, int size);
PARA_API int json_object_load_string(cJSON* obj, const char* key, char** buf, const char* def);

/* "misc": both file layouts. */
PARA_API int para_init_misc_legacy(char* file_name, configure** cur, configure** def, cJSON** range);
PARA_API int para_save_misc_legacy(char* file_name, configure* cur);
PARA_API cJSON* fix_old_misc_range_conf(cJSON* old_range);
PARA_API int fix_old_misc_def_cur_conf(const char* path, configure* store);
PARA_API void para_init_misc_legacy_test(void);

/* Members of "misc" with functions of their own: X(member, kind), kind being
 * number or name (a name member's value is an index into its range list). */
#define PARA_MISC_MEMBERS(X) \
    X(mirror, number)        \
    X(flip, number)          \
    X(vi_framerate, number)  \
    X(ezoom_limit, number)   \
    X(lock, number)          \
    X(osdmirror, number)     \
    X(freeze, number)        \
    X(dvimode, number)       \
    X(videoformat, number)   \
    X(language, number)      \
    X(viewsetting, number)   \
    X(tipicon, number)       \
    X(hdmivideoformat, name) \
    X(ViStrategy, name)      \
    X(ndi_mode, name)

#define PARA_MISC_DECL_name(m)                                   \
    PARA_API char* para_get_misc_##m##_str(int index);           \
    PARA_API int para_get_misc_##m##_num(const char* name);      \
    PARA_API int para_set_misc_##m##_cur_bystr(const char* name);
#define PARA_MISC_DECL_number(m)
#define PARA_MISC_DECL(m, kind)                 \
    PARA_API int para_get_misc_##m##_min(void); \
    PARA_API int para_get_misc_##m##_max(void); \
    PARA_API int para_get_misc_##m##_def(void); \
    PARA_API int para_get_misc_##m##_cur(void); \
    PARA_API int para_set_misc_##m##_cur(int value); \
    PARA_MISC_DECL_##kind(m)
PARA_MISC_MEMBERS(PARA_MISC_DECL)

/* Named accessors of .conf modules: X(function suffix, module). */
#define PARA_CONF_MEMBER_GETTERS(X) \
    X(overlay, "overlay")           \
    X(netport, "netport")           \
    X(ndi_config, "ndi_config")
#define PARA_CONF_CHANGE_QUERIES(X) \
    X(netport, "netport")           \
    X(ndi, "ndi_config")            \
    X(devinfo, "devinfo")
#define PARA_CONF_DECL_GETTER(f, module) PARA_API char* para_get_##f##_member(const char* key);
#define PARA_CONF_DECL_QUERY(f, module) \
    PARA_API int para_key_IsChanged_##f(const char** keys, uint8_t count);
PARA_CONF_MEMBER_GETTERS(PARA_CONF_DECL_GETTER)
PARA_CONF_CHANGE_QUERIES(PARA_CONF_DECL_QUERY)
PARA_API int para_need_update_netport(void);

/* Factory (ODM) overrides. */
PARA_API int para_init_odm(char* parse_name);
PARA_API void para_init_stage2_odm(char* parse_name);
PARA_API int para_need_save_odm(char* parse_name);
PARA_API int para_save_odm(char* parse_name);
PARA_API extern cJSON* json_odm_file;
PARA_API extern struct timespec odm_item_start_time;
/* Values are integers or texts; keys are looked up without regard to case.
 * Setters refuse a NULL key or value with a log line and change nothing;
 * _para_set_odm_* answer 1 when the store changed, else 0. Reads answer 0,
 * -1 when no store exists, -2 when the key is missing (a string read also
 * when the key holds no text), -3 for a NULL key or output, -4 when the
 * text did not fit (the buffer then holds it cut and terminated).
 * para_get_odm_string cannot know its caller's buffer: it writes at most
 * PARA_ODM_STRING_MAX bytes, the terminating NUL included; callers that
 * know their size use para_get_odm_string_safe. */
#define PARA_ODM_STRING_MAX 256
#define PARA_ODM_KINDS(X) \
    X(int, int, int*)     \
    X(string, char*, char*)
#define PARA_ODM_DECLARE(kind, type, out_type)                  \
    PARA_API void para_set_odm_##kind(char* key, type value);   \
    PARA_API int _para_set_odm_##kind(char* key, type value);   \
    PARA_API int para_get_odm_##kind(char* key, out_type value);
PARA_ODM_KINDS(PARA_ODM_DECLARE)
PARA_API int para_get_odm_string_safe(char* key, char* buf, int size);
/* ======================== END stores ==================================== */

/* ======================== BEGIN video =================================== */
/* Members of a typed module are listed once, X(member, kind, name table),
 * kind being named (the value indexes the name table) or num (a plain
 * number, table null_stream); every per-member family is stamped from it. */
#define PARA_VIDEO_MEMBERS(X)        \
    X(protocol, named, protocol)     \
    X(size, named, size)             \
    X(frameRate, num, null_stream)   \
    X(qfactor, num, null_stream)     \
    X(rcMode, named, rcMode)         \
    X(bitRate, num, null_stream)     \
    X(gop, num, null_stream)         \
    X(profile, named, profile)       \
    X(sliceEn, num, null_stream)     \
    X(sliceMode, num, null_stream)   \
    X(sliceSize, num, null_stream)

/* x only for named members. */
#define PARA_TYPED_IF_NAMED_named(x) x
#define PARA_TYPED_IF_NAMED_num(x)
#define PARA_TYPED_IF_NAMED(kind, x) PARA_TYPED_IF_NAMED_##kind(x)
#define PARA_TYPED_FIELD(M, kind, table) int32_t M;

#define PARA_VIDEO_STREAMS 6

typedef struct dov_video_param_s {
    PARA_VIDEO_MEMBERS(PARA_TYPED_FIELD)
} dov_video_param_s;

/* The parameter set: range, default, current, start-up copy, exist words. */
#define PARA_TYPED_DECL_SET(type, prefix, dims) \
    PARA_API extern type prefix##_min dims;     \
    PARA_API extern type prefix##_max dims;     \
    PARA_API extern type prefix##_def dims;     \
    PARA_API extern type prefix##_cur dims;     \
    PARA_API extern type prefix##_init dims;    \
    PARA_API extern type prefix##_exist dims;
PARA_TYPED_DECL_SET(dov_video_param_s, para_video, [PARA_VIDEO_STREAMS])
PARA_API extern int g_num_stream;
PARA_API extern struct timespec video_item_start_time;

/* Name tables; a named member stores the index of its name. */
PARA_API extern const char* const protocol[3];
PARA_API extern const char* const size[47];
PARA_API extern const char* const rcMode[5];
PARA_API extern const char* const profile[4];
PARA_API extern const char* const null_stream[1];

/* Picture size by name; flag -1 fits any flag, 1 is the 50 Hz variant. */
typedef struct image_size_s {
    const char* name;
    int flag;
    int w;
    int h;
} image_size_s;
PARA_API extern const image_size_s size_name[43];

/* Declarations shared by the typed modules: GP getter parameters ("int
 * stream" or "void"), SP what comes before a setter's value. */
#define PARA_TYPED_STREAM_PARAM int stream,
#define PARA_TYPED_DECL_GETTERS(tag, M, GP)                \
    PARA_API int para_get_##tag##_##M##_min(GP);          \
    PARA_API int para_get_##tag##_##M##_max(GP);          \
    PARA_API int para_get_##tag##_##M##_def(GP);          \
    PARA_API int para_get_##tag##_##M##_init(GP);         \
    PARA_API int para_get_##tag##_##M##_cur(GP);          \
    PARA_API int get_range_param_##M(cJSON* json);        \
    PARA_API int get_def_param_##M(cJSON* json);          \
    PARA_API int get_cur_param_##M(cJSON* json);
#define PARA_TYPED_DECL_SETTERS(tag, M, SP)               \
    PARA_API int _para_set_##tag##_##M##_cur(SP int val); \
    PARA_API int para_set_##tag##_##M##_cur(SP int val);  \
    PARA_API int para_get_##tag##_##M##_num(char* str);

#define PARA_VIDEO_DECL(M, kind, table)                                \
    PARA_TYPED_DECL_GETTERS(video, M, int stream)                      \
    PARA_TYPED_DECL_SETTERS(video, M, PARA_TYPED_STREAM_PARAM)         \
    PARA_TYPED_IF_NAMED(kind, PARA_API const char* para_get_video_##M##_str(int index); \
                        PARA_API int para_set_video_##M##_cur_bystr(int index, char* str);)
PARA_VIDEO_MEMBERS(PARA_VIDEO_DECL)

PARA_DECLARE_TABLE_OPS(video)
PARA_API void para_set_video_save_param_time(int ms);
PARA_API int save_cur_video_param_delay(int msec);
PARA_API int para_get_video_streamNum(void);
PARA_API int check_video_num(cJSON* json);
PARA_API void _parse_video_range_json(cJSON* json);
PARA_API void _parse_video_def_json(cJSON* json);
PARA_API void _parse_video_cur_json(cJSON* json);
PARA_API int para_get_video_member(char* memberName, int chn, int* val, char** valString);
PARA_API int para_set_video_member(char* memberName, int chn, int val, char* valString);
PARA_API cJSON* Create_Json_Video_Object(int i);
PARA_API void video_page(void);
PARA_API int para_get_video_size_byname(const char* name, int flag, int* w, int* h);
PARA_API void para_video_enum(const char* value, void* argv);
PARA_API void para_video_size_enum(const char* value, void* argv);
/* ======================== END video ===================================== */

/* ======================== BEGIN isp ===================================== */
/* The ISP record, described once. X(member, file, set, out), record order:
 *   file: read from the range, style and current-values files (37);
 *   set:  has per-member getters/setters and by-name access (34);
 *   out:  written into ISP objects, i.e. replies and the saved file (37).
 * Every member is numeric (its text form is looked up in the one-entry
 * table "null"). */
#define PARA_ISP_MEMBERS(X)               \
    X(struct_ver,             0, 0, 0)    \
    X(style,                  1, 1, 1)    \
    X(exposure_mode_priority, 1, 0, 0)    \
    X(exposure_mode,          1, 1, 1)    \
    X(shutter,                1, 1, 1)    \
    X(iris,                   1, 1, 1)    \
    X(bright,                 1, 1, 1)    \
    X(expcomp_mode,           1, 1, 1)    \
    X(expcomp_level,          1, 1, 1)    \
    X(backlight,              1, 1, 1)    \
    X(gain_limit,             1, 1, 1)    \
    X(manual_gain,            1, 1, 1)    \
    X(antiflicker,            1, 1, 1)    \
    X(meter,                  1, 1, 1)    \
    X(wdr_strength,           1, 1, 1)    \
    X(wb_mode,                1, 1, 1)    \
    X(awb_sens,               1, 1, 1)    \
    X(rgain,                  1, 1, 1)    \
    X(bgain,                  1, 1, 1)    \
    X(rgain_tuning,           1, 1, 1)    \
    X(bgain_tuning,           1, 1, 1)    \
    X(ggain_tuning,           1, 1, 1)    \
    X(rgain_onepush,          1, 1, 1)    \
    X(bgain_onepush,          1, 1, 1)    \
    X(saturation,             1, 1, 1)    \
    X(hue,                    1, 1, 1)    \
    X(temperature,            1, 1, 1)    \
    X(len_type,               1, 0, 1)    \
    X(luminance,              1, 1, 1)    \
    X(contrast,               1, 1, 1)    \
    X(sharpness,              1, 1, 1)    \
    X(blackwhite_mode,        1, 1, 1)    \
    X(gamma,                  1, 1, 1)    \
    X(drc,                    1, 1, 1)    \
    X(ccm_style,              1, 0, 1)    \
    X(nr2d,                   1, 1, 1)    \
    X(nr3d,                   1, 1, 1)    \
    X(hotpixel,               0, 0, 1)    \
    X(skin_saturation,        1, 1, 1)

/* Row filters for the table columns. */
#define PARA_ISP_IF_0(...)
#define PARA_ISP_IF_1(...) __VA_ARGS__

#define PARA_ISP_NUM 2 /* ISP numbers 0 and 1 */

#define PARA_ISP_FIELD(m, file, set, out) int m;
typedef struct dov_isp_param_s {
    PARA_ISP_MEMBERS(PARA_ISP_FIELD)
} dov_isp_param_s;
#undef PARA_ISP_FIELD

/* Exist word of a present member loaded from a file. */
#define PARA_ISP_EXIST 0x81

/* Parameter set, indexed by ISP number. */
PARA_API extern dov_isp_param_s para_isp_min[PARA_ISP_NUM];
PARA_API extern dov_isp_param_s para_isp_max[PARA_ISP_NUM];
PARA_API extern dov_isp_param_s para_isp_def[PARA_ISP_NUM];
PARA_API extern dov_isp_param_s para_isp_cur[PARA_ISP_NUM];
PARA_API extern dov_isp_param_s para_isp_init[PARA_ISP_NUM];
PARA_API extern dov_isp_param_s para_isp_exist[PARA_ISP_NUM];
/* Monotonic time of the latest accepted member change. */
PARA_API extern struct timespec isp_item_start_time;

/* Per-member families. ISP numbers other than 0 and 1 are refused: the
 * getters then return -1, the setters return 0 and change nothing. These
 * functions and the requests serialise on one module lock; callbacks run
 * outside it. The exported arrays above are read without it.
 *   para_get_isp_<m>_def/_min/_max/_init/_cur(pipe)  value in that record
 *   _para_set_isp_<m>_cur(pipe, value)  1 changed; 0 absent, out of range,
 *                                       equal or bad pipe; no callback
 *   para_set_isp_<m>_cur(pipe, value)   always 0; on a change calls
 *                                       isp_caller(its own address, pipe, value)
 *   para_get_isp_<m>_num(str)  0 for a prefix of "null" (also ""), else the
 *                              leading decimal number, else -1000
 *   get_range_param_<m>(json, min, max), get_def_param_<m>(json, def, exist),
 *   get_cur_param_<m>(json, rec, unused), get_style_param_<m>(json, rec, unused)
 *                              read one member key of an ISP/style object */
#define PARA_ISP_DECL_GET(m, kind) PARA_API int para_get_isp_##m##_##kind(int pipe);
#define PARA_ISP_DECL_READ(m, kind) \
    PARA_API void get_##kind##_param_##m(cJSON* json, dov_isp_param_s* isp_para0, dov_isp_param_s* isp_para1);
#define PARA_ISP_GET_KINDS(G, m) G(m, def) G(m, min) G(m, max) G(m, init) G(m, cur)
#define PARA_ISP_READ_KINDS(R, m) R(m, range) R(m, def) R(m, cur) R(m, style)
#define PARA_ISP_DECL_SET(m)                                     \
    PARA_ISP_GET_KINDS(PARA_ISP_DECL_GET, m)                     \
    PARA_API int _para_set_isp_##m##_cur(int pipe, int value);   \
    PARA_API int para_set_isp_##m##_cur(int pipe, int value);
#define PARA_ISP_DECL_FILE(m)                                    \
    PARA_API int para_get_isp_##m##_num(char* str);              \
    PARA_ISP_READ_KINDS(PARA_ISP_DECL_READ, m)
#define PARA_ISP_DECL(m, file, set, out) \
    PARA_ISP_IF_##file(PARA_ISP_DECL_FILE(m)) PARA_ISP_IF_##set(PARA_ISP_DECL_SET(m))
PARA_ISP_MEMBERS(PARA_ISP_DECL)
#undef PARA_ISP_DECL

/* Walkers: one reader kind for all file members (json may be NULL). */
PARA_API void _parse_isp_range_json(cJSON* json, dov_isp_param_s* isp_para0, dov_isp_param_s* isp_para1);
PARA_API void _parse_isp_def_json(cJSON* json, dov_isp_param_s* isp_para0, dov_isp_param_s* isp_para1);
PARA_API void _parse_isp_cur_json(cJSON* json, dov_isp_param_s* isp_para0, dov_isp_param_s* isp_para1);
PARA_API void _parse_isp_style_json(cJSON* json, dov_isp_param_s* isp_para0, dov_isp_param_s* isp_para1);

/* By name, settable members only: stores the value and returns the exist
 * word; 0 for any other name or a bad ISP number (nothing stored then). */
PARA_API int para_get_isp_cur_member(char* memberName, int chn, int* val, char** valString);
PARA_API int para_get_isp_def_member(char* memberName, int chn, int* val, char** valString);

/* Handler-table operations (rows "isp0" and "isp1"). */
PARA_DECLARE_TABLE_OPS(isp)

/* Maintenance of defaults. A bad ISP number is refused with -1. */
PARA_API int para_set_isp_antiflicker_def(int pipe, int value);
PARA_API int para_set_isp_style_def(int pipe, int value);
PARA_API int para_isp_cur_restore_isp_def(void);

/* Image styles ("isp0_def.json", "isp1_def.json"). Lookups refuse ISP
 * numbers other than 0 and 1 and indexes outside 0..count-1 (NULL or -1);
 * para_get_isp_style_def_index answers -1 and para_isp_style_excute_by_arm
 * 0 for a bad ISP number. */
PARA_API extern cJSON* json_style_file;
PARA_API extern cJSON** style_list_isp0;
PARA_API extern cJSON** style_list_isp1;
PARA_API extern dov_isp_param_s* isp0_para_in_style;
PARA_API extern dov_isp_param_s* isp1_para_in_style;
PARA_API int para_init_isp_style(int isp_id);
PARA_API int para_get_isp_style_def_index(int isp_id);
PARA_API int para_set_isp_style_def_index(int isp_id, int def_style);
PARA_API cJSON* get_isp_style_json(int isp_id, int index);
PARA_API dov_isp_param_s* para_get_isp_style_param(int isp_id, int index);
PARA_API char* para_get_isp_style_string(int isp_id, int index);
PARA_API int para_get_isp_style_index(int isp_id, char* style);
PARA_API int para_isp_style_excute_by_arm(int isp_id);
/* Writes the factory anti-flicker default into *param when one exists;
 * 0, or -1 for a bad ISP number or a NULL param. */
PARA_API int parse_isp_def_odm(int isp_id, dov_isp_param_s* param);
/* ======================== END isp ======================================= */

/* ======================== BEGIN audio / af ============================== */
/* Audio members, X(member, kind, name table) as for video. */
#define PARA_AUDIO_MEMBERS(X)          \
    X(audioEnable, num, null_stream)   \
    X(aeFormat, named, aeFormat)       \
    X(adtsFlag, num, null_stream)      \
    X(sampleRate, num, null_stream)    \
    X(streamRate, num, null_stream)    \
    X(audioInput, named, audioInput)   \
    X(volLeftIn, num, null_stream)     \
    X(volRightIn, num, null_stream)    \
    X(audioInputVol, num, null_stream) \
    X(audioOut, named, audioOut)       \
    X(audioOutVol, num, null_stream)   \
    X(mute, num, null_stream)          \
    X(denoise, num, null_stream)       \
    X(agcEnable, num, null_stream)

typedef struct dov_audio_param_s {
    PARA_AUDIO_MEMBERS(PARA_TYPED_FIELD)
} dov_audio_param_s;

PARA_TYPED_DECL_SET(dov_audio_param_s, para_audio, )
PARA_API extern struct timespec audio_item_start_time;

PARA_API extern const char* const aeFormat[2];
PARA_API extern const char* const audioInput[2];
PARA_API extern const char* const audioOut[2];

#define PARA_AUDIO_DECL(M, kind, table)          \
    PARA_TYPED_DECL_GETTERS(audio, M, void)      \
    PARA_TYPED_DECL_SETTERS(audio, M, )          \
    PARA_TYPED_IF_NAMED(kind, PARA_API const char* para_get_audio_##M##_str(int index);)
PARA_AUDIO_MEMBERS(PARA_AUDIO_DECL)

PARA_DECLARE_TABLE_OPS(audio)
PARA_API void para_set_audio_save_param_time(int ms);
PARA_API int save_cur_audio_param_delay(int msec);
PARA_API void _parse_audio_range_json(cJSON* json);
PARA_API void _parse_audio_def_json(cJSON* json);
PARA_API void _parse_audio_cur_json(cJSON* json);
PARA_API int para_get_audio_member_json(char* memberName, int* val, char** valString);
PARA_API int para_set_audio_member_json(char* memberName, int val, char* valString);
PARA_API void audio_page(void);

/* Focus and zoom: plain numbers, X(member). struct_ver is not a member and
 * stays 0. */
#define PARA_AF_MEMBERS(X) \
    X(focus_mode)          \
    X(focus_zone)          \
    X(focus_sens)          \
    X(focus_value)         \
    X(focus_lock)          \
    X(zoom_value)
#define PARA_AF_FIELD(M) int32_t M;

typedef struct dov_af_param_s {
    int32_t struct_ver;
    PARA_AF_MEMBERS(PARA_AF_FIELD)
} dov_af_param_s;

PARA_TYPED_DECL_SET(dov_af_param_s, para_af, )
PARA_API extern struct timespec af_item_start_time;

#define PARA_AF_DECL(M)                 \
    PARA_TYPED_DECL_GETTERS(af, M, void) \
    PARA_API int para_set_af_##M##_cur(int value);
PARA_AF_MEMBERS(PARA_AF_DECL)

PARA_API int para_init_af(char* parse_name);
PARA_API int para_get_af_opt(char* req_name, void* jsonIn, void** jsonOut, char* parse_name);
PARA_API int para_need_save_af(char* parse_name);
PARA_API int para_save_af(char* parse_name);
PARA_API void _parse_af_range_json(cJSON* json);
PARA_API void _parse_af_def_json(cJSON* json);
PARA_API void _parse_af_cur_json(cJSON* json);
PARA_API int para_get_af_member_json(char* memberName, int* val, char** valString);
PARA_API void af_page(void);
/* ======================== END audio / af ================================ */

/* ======================== BEGIN www / client ============================ */
/* Protocol converter "www" (the web server's form requests). */
PARA_API int para_init_www(void);
PARA_API void para_exit_www(void);
PARA_API void* para_convert_www_opt(char* in, char* err_msg, int err_msg_buf_size);
PARA_API char* para_reverse_convert_www_opt(void* json);

/* Client role: every changed value travels as one raw st_data record (76
 * bytes, native byte order) to 127.0.0.1:6800. Names and text are
 * zero-padded and carry no terminator of their own; a text longer than 32
 * bytes is cut to 32. */
typedef struct st_data {
    int32_t type;    /* 0: number in value; 1: text in string */
    int32_t chn;     /* instance of the module (stream, ISP) */
    int32_t value;
    char mod[16];    /* "video", "audio", "isp" */
    char member[16];
    char string[32];
} st_data;

/* Start of a shared map: the header, then num maps of size bytes each. */
typedef struct dov_share_head_s {
    int32_t flag; /* 1 once the main application has published the module */
    int32_t num;
    int32_t size;
} dov_share_head_s;

/* Share module numbers 0..PARA_SHARE_MODULES-1; which module each number
 * stands for is agreed between the main application and its clients. The
 * map of module n is the POSIX shared memory object "/para_share_<n>"
 * (PARA_SHARE_NAME_FMT), created by the main application through
 * para_share_publish and opened read-write by para_share_register. */
#define PARA_SHARE_MODULES 4
#define PARA_SHARE_NAME_FMT "/para_share_%d"

/* (module, member) of every value a client can send, as the datagram
 * carries them; each pair gets a _number and a _string sender. Member
 * names fit 15 characters, so they always arrive terminated. */
#define PARA_SHARE_MEMBERS(X)                                                              \
    X(video, protocol) X(video, size) X(video, frameRate) X(video, qfactor)                \
    X(video, rcMode) X(video, bitRate) X(video, gop) X(video, profile)                     \
    X(video, sliceMode) X(video, sliceSize)                                                \
    X(audio, audioEnable) X(audio, adtsFlag) X(audio, aeFormat) X(audio, sampleRate)       \
    X(audio, streamRate) X(audio, audioInput) X(audio, volLeftIn) X(audio, volRightIn)     \
    X(isp, exposure_mode) X(isp, shutter) X(isp, iris) X(isp, bright)                      \
    X(isp, expcomp_mode) X(isp, expcomp_level) X(isp, backlight) X(isp, gain_limit)        \
    X(isp, manual_gain) X(isp, antiflicker) X(isp, meter) X(isp, wb_mode)                  \
    X(isp, awb_sens) X(isp, rgain) X(isp, bgain) X(isp, rgain_tuning)                      \
    X(isp, bgain_tuning) X(isp, ggain_tuning) X(isp, saturation) X(isp, skin_saturation)   \
    X(isp, hue) X(isp, temperature) X(isp, luminance) X(isp, contrast)                     \
    X(isp, sharpness) X(isp, blackwhite_mode) X(isp, gamma) X(isp, style)                  \
    X(isp, drc) X(isp, nr2d) X(isp, nr3d)

/* Both always return 0: a lost datagram is not reported. */
#define PARA_SHARE_DECLARE(mod, member)                                                    \
    PARA_API int para_set_share_##mod##_##member##_number(int chn, int val);               \
    PARA_API int para_set_share_##mod##_##member##_string(int chn, const char* str);
PARA_SHARE_MEMBERS(PARA_SHARE_DECLARE)

/* Opens the sending socket (once per process) and sets the destination. */
PARA_API void Send_Initial(void);
/* 0 when the main application published module mod (then the sending
 * socket is ready too); -1 for a bad number or an unpublished module. */
PARA_API int para_share_register(int mod);
/* Map mapIdx (from 1) of a registered module, or NULL. */
PARA_API void* para_get_share_map(int mod, int mapIdx);
PARA_API int para_client_init(void);
/* Main application side: creates (or reuses) the shared memory object of
 * module mod with num maps of size bytes, zeroes it, fills the header and
 * returns its start (NULL on bad arguments or failure). Calling it again
 * with the same geometry returns the same mapping. */
PARA_API void* para_share_publish(int mod, int num, int size);
/* Clears the header's flag and removes the object's name; clients that
 * mapped it keep their memory but no longer register. 0 or -1. */
PARA_API int para_share_unpublish(int mod);
PARA_API extern void* g_shareMap;
PARA_API extern unsigned int g_shareMapLen;
/* ======================== END www / client ============================== */

#ifdef __cplusplus
}
#endif

#endif
