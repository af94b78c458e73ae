/* A host application that embeds the parameter library in the server role:
 * it fills the start-up profile, takes the member and page callbacks,
 * registers an API command, starts the library and stops it on SIGINT or
 * SIGTERM (the stop saves every module).
 *
 *   para_host_example RO_DIR RW_DIR
 *
 * Try it beside paramctl:
 *   paramctl api getStatus hostStatus          the host's own answer
 *   paramctl api setStatus hostStatus gop=25   the command sets a member
 *   paramctl set video0 bitRate=6000           a request through the port */
#define _POSIX_C_SOURCE 200809L
#include <para.h>

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>

static volatile sig_atomic_t stop_errors;

/* Log lines of the final save: written as before, error lines counted. */
static void count_errors(int level, const char* line)
{
    if (level <= 3)
        ++stop_errors;
    fputs(line, stderr);
}

static volatile sig_atomic_t member_changes;
static volatile sig_atomic_t page_changes;

/* Member callback: runs on the thread that called the setter; the setter's
 * own address tells which member changed. */
static void on_video_member(void* setter, int stream, int value)
{
    const char* name = setter == (void*)para_set_video_gop_cur       ? "gop"
                       : setter == (void*)para_set_video_bitRate_cur ? "bitRate"
                                                                     : "another member";
    printf("host: video%d %s is now %d\n", stream, name, value);
    fflush(stdout);
    member_changes++;
}

/* Page callback: a request through port 6800 changed the video module. */
static void on_video_page(void* json)
{
    char* text = cJSON_PrintUnformatted((cJSON*)json);
    printf("host: video page changed: %s\n", text ? text : "?");
    fflush(stdout);
    free(text);
    page_changes++;
}

/* "hostStatus": a set kind (msg_type holding "set") may carry "gop" for
 * stream 0; every kind answers with the host's counters and two members. */
static int host_status(int type, para_server_message_info* info, cJSON** out)
{
    if (type == 1) {
        cJSON* request = cJSON_Parse(info->buffer);
        cJSON* gop = cJSON_GetObjectItem(request, "gop");
        int ok = cJSON_IsNumber(gop);
        if (ok)
            para_set_video_gop_cur(0, gop->valueint);
        cJSON_Delete(request);
        if (!ok)
            return -1; /* the server answers "Invalid API command" */
    }
    *out = cJSON_CreateObject();
    cJSON_AddStringToObject(*out, "host", "example");
    cJSON_AddNumberToObject(*out, "gop", para_get_video_gop_cur(0));
    cJSON_AddNumberToObject(*out, "bitRate", para_get_video_bitRate_cur(0));
    cJSON_AddNumberToObject(*out, "memberChanges", member_changes);
    cJSON_AddNumberToObject(*out, "pageChanges", page_changes);
    return 0;
}

static param_handle_t host_commands[] = {{"hostStatus", host_status, 0}};

int main(int argc, char** argv)
{
    if (argc != 3) {
        fprintf(stderr, "usage: %s RO_DIR RW_DIR\n", argv[0]);
        return 2;
    }
    para_profile.param_rofile_dir = argv[1];
    para_profile.param_rwfile_dir = argv[2];
    para_profile.video_caller = on_video_member;
    para_profile.video_page_caller = on_video_page;
    register_param_command((char*)"host", host_commands, 1);

    /* Block the stop signals before the library starts its thread, so that
     * only sigwait below receives them. */
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, NULL);

    platformparam_init();
    printf("host: serving %s, values in %s\n", argv[1], argv[2]);
    fflush(stdout);

    int sig = 0;
    sigwait(&stop, &sig);
    /* The stop saves every module and returns 0 whatever happened; a save
     * that fails says so in an error line, which the host counts here. */
    dbgout_profile.log_cb = count_errors;
    platformparam_stop(1);
    dbgout_profile.log_cb = NULL;
    if (stop_errors)
        printf("host: stopped by signal %d; the final save logged %d error(s), see above\n", sig, (int)stop_errors);
    else
        printf("host: stopped by signal %d, every module saved\n", sig);
    return stop_errors ? 1 : 0;
}
