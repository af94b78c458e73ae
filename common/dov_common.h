/* Stand-in for the device's common service library: trace output, the
 * configure key/value store, file helpers and the deferred-work queue.
 * A board build links the device's own library instead, so nothing here
 * may depend on the parameter library. */
#ifndef DOV_COMMON_H
#define DOV_COMMON_H

#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define DOV_API __attribute__((visibility("default")))
#else
#define DOV_API
#endif

/* ---- trace output ---------------------------------------------------- */

/* Receives every line that passes the level filter (line ends in '\n').
 * When set, the line is not written to stderr. */
typedef void (*dov_log_cb)(int level, const char* line);

typedef struct dbgout_profile_s {
    int lib_level;
    int para_level;
    int cc_level;
    int visca_level;
    int net_protocol_level;
    int module_level;
    int mpp_level;
    int others;
    int time_enable; /* nonzero: prefix lines with the monotonic time */
    dov_log_cb log_cb;
} dbgout_profile_s;

DOV_API extern dbgout_profile_s dbgout_profile;

/* Writes the formatted text when dbgout_profile.para_level >= level, adding
 * nothing: the format carries its own line feeds. A text longer than 4 KiB
 * is cut and then ends in a line feed. */
DOV_API void dov_traceout(int level, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

/* ---- small helpers --------------------------------------------------- */

/* Whole file as a NUL-terminated heap text (free()), or NULL. */
DOV_API char* read_file_to_buf(const char* path);
/* Same, also reporting the number of bytes read (the file may hold NULs). */
DOV_API char* read_file_to_buf_len(const char* path, size_t* len);

/* dir + "/" (when dir does not end in one) + name into buf of size bytes.
 * A NULL or empty dir yields the bare name. Returns the length, or -1 with
 * buf set to "" when the result does not fit. */
DOV_API int cat_file_name(char* buf, int size, const char* dir, const char* name);

DOV_API char* lib_strdup(const char* text);
/* Decimal text of value into buf (at least 12 bytes); returns buf. */
DOV_API char* lib_itoa(int value, char* buf);
/* Runs a shell command and waits; returns its exit status or -1.
 * When lib_system_hook is set it is called instead (tests count "sync"). */
DOV_API int lib_system(const char* command);
DOV_API extern int (*lib_system_hook)(const char* command);
/* Milliseconds from start to end. */
DOV_API int64_t lib_common_diff_msec_timespec(const struct timespec* start,
                                              const struct timespec* end);

/* ---- deferred-work queue -------------------------------------------- */

typedef void (*fifo_work_handle)(const char* value, void* argv);

typedef struct fifo_worker {
    const char* key;
    const char* value;
    fifo_work_handle key_handle;
    void* argv;
} fifo_worker;

/* Registers count records (copied). Records run only when triggered. */
DOV_API int add_fifo_work(const fifo_worker* records, int count);
/* Queues one run of every record registered under key (all records when
 * key is NULL) on the queue's own thread. value (may be NULL: the record's
 * own value is passed) is copied. Returns the number of records queued. */
DOV_API int fifo_work_trigger(const char* key, const char* value);
/* Runs the matching records now, on the caller's thread. */
DOV_API int fifo_work_run(const char* key, const char* value);
/* Waits until every queued run has finished. */
DOV_API void fifo_work_drain(void);

/* ---- configure key/value store -------------------------------------- */

#define CONFIGURE_TEXT_MAX 256

typedef struct entry {
    char key[CONFIGURE_TEXT_MAX];
    char value[CONFIGURE_TEXT_MAX];
    uint8_t key_len;
    uint8_t value_len;
    char status; /* CONFIGURE_CHANGED while a change was not reported */
} entry;

#define CONFIGURE_CHANGED 'c'

typedef struct buffer_entry {
    entry* ptr;
    uint32_t used;
    uint32_t sized;
    uint32_t curIdx;
} buffer_entry;

/* Strict ISO C (-std=c99 and later without a POSIX level) hides
 * pthread_rwlock_t in glibc; the store then shows the same bytes under a
 * name of its own, so C consumers need no feature macros. */
#if defined(__GLIBC__) && !defined(__cplusplus) && !defined(__USE_XOPEN2K) && !defined(__USE_UNIX98)
typedef union {
    char size_[__SIZEOF_PTHREAD_RWLOCK_T];
    long align_;
} dov_rwlock_t;
#else
typedef pthread_rwlock_t dov_rwlock_t;
#endif

typedef struct configure configure;
typedef int (*configure_loop_cb)(void* argv, const char* key, const char* value);

struct configure {
    buffer_entry list;
    dov_rwlock_t lock;
    /* 0 and the terminated text in buf; nonzero when absent or buf is NULL
     * or too small (buf then holds the cut text). */
    int (*get)(configure* store, const char* key, char* buf, int size);
    /* Calls cb once per entry in store order; stops early when cb returns
     * nonzero. Holds the read lock, so cb must not write the store. */
    int (*loop)(configure* store, configure_loop_cb cb, void* argv);
    /* 1 changed or added, 0 equal text, -1 refused (NULL, key empty or
     * longer than 255 bytes, value longer than 255 bytes or holding a line
     * break, key holding "=", starting with '#' or ';' or with a blank at
     * either end: what no .conf line could carry). */
    int (*put)(configure* store, const char* key, const char* value);
    /* The entry inside the store, or NULL. Entries never move: it follows
     * later puts and parses until configure_free. */
    entry* (*getparameter)(configure* store, const char* key);
};

typedef struct config_keys {
    const char* k; /* NULL marks the end of an array */
    uint8_t klen;
    uint8_t ktype;
} config_keys;

typedef struct loop_buf_s {
    char* buf;
    int buf_size;
    int used;
    int ret;
} loop_buf_s;

DOV_API configure* configure_init(void);
/* Reads a .conf file into the store: lines "key=value" or key = "value";
 * blank lines and lines starting with '#' or ';' are skipped. keys, when
 * not NULL, limits the keys taken. A key already present is replaced in
 * place (it keeps its position); new keys are appended. Entries whose text
 * changes (or that are new) are marked changed, except in a parse into an
 * empty store: a first load changes nothing. 0, or -1 when the file cannot
 * be read (a read error partway is one: nothing of the file is taken). */
DOV_API int configure_parse(configure* store, const config_keys* keys, const char* path);
/* The same for the len bytes of a .conf text already read. *dropped (when
 * not NULL) counts the key = value lines the store could not hold as they
 * stand (a key or value over 255 bytes, a NUL or line break inside one, a
 * full store). 0, or -1 for a NULL store or text. */
DOV_API int configure_parse_buf(configure* store, const config_keys* keys, const char* text,
                                size_t len, int* dropped);
DOV_API void configure_free(configure* store);
/* Array of count+1 records (last one with k NULL); free() it. */
DOV_API config_keys* config_keys_format(const char** keys, uint8_t count);
/* Index in keys of the first key whose entry is marked changed (the mark
 * is then cleared: a change is reported once), or -1. */
DOV_API int configure_key_IsChanged(configure* store, const config_keys* keys);
/* loop callbacks: argv is a FILE* / a loop_buf_s*. */
DOV_API int loop_2_conf(void* file, const char* key, const char* value);
DOV_API int loop_2_buf(void* loop_buf, const char* key, const char* value);

#ifdef __cplusplus
}
#endif

#endif
