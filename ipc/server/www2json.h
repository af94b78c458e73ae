/* Web-form converter internals, shared with the tests. Not installed.
 *
 * The web server writes forms (name=value&name=value); the mapping file
 * (para_config) names, per module member, the form field, its value kind
 * ("S" = text, anything else = number) and an optional mark:
 *   "K"      form shows thousands (4.5 <-> 4500)
 *   "P"      form shows the member plus one
 *   "F"      read shows the floating value with two decimals
 *   "Greedy" one form field feeds every later module entry mapping it
 *
 * Limits chosen here: a form field name or value longer than
 * WWW_FIELD_MAX - 1 (31) characters is refused (the pair is skipped with a
 * log line) rather than cut, since a cut name could hit another field and
 * a cut value would store something the user never typed. A read without
 * "msg_name" is answered "msg_name=null". */
#ifndef PARA_WWW2JSON_H
#define PARA_WWW2JSON_H

#include "para_internal.h"

#define WWW_FIELD_MAX 32
#define WWW_PAIR_MAX 64
#define WWW_TEXT_START 512
#define WWW_TEXT_LIMIT 65535

struct json_char_p {
    char* item_name;
    char* json_name;
    char* is_string;
};

cJSON* get_http2json(cJSON* jsonIn);
cJSON* set_http2json(cJSON* jsonIn);
char* get_json2http(cJSON* json);
char* get_http_name(char* item_name, char* json_name, char** value_type, char** sub_describe);
struct json_char_p get_json_name(char* http_name, char** sub_describe, int greedy);

/* Form texts of the "K" (fraction) and "F" marks, printf-exact. */
void www_format_thousands(int v, char (&out)[48]);
void www_format_hundredths(double d, char (&out)[48]);

#endif
