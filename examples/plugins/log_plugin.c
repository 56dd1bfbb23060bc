/*
 * log_plugin.c - an example "object" plugin.
 *
 * Each call appends one JSON line to the file named by the environment
 * variable KOLV_PLUGIN_LOG (nothing is written when it is unset):
 *
 *     {"action":2,"args":[["RESULT","0"],["New_NameSpace","note"],...]}
 *
 * The arguments stay in the order they arrived, as [name, value] pairs.
 * The file is opened without following a link at its last component and
 * created with mode 0600. A log that cannot be written makes the call
 * fail (-1), which the caller sees as a failed plugin run.
 *
 * Build (only the platform header is needed; nothing to link):
 *     cc -std=c99 -fPIC -shared -I PREFIX/include log_plugin.c -o log_plugin.so
 *
 * LOG_PLUGIN_MODULE, LOG_PLUGIN_MAJOR and LOG_PLUGIN_MINOR change what the
 * plugin claims to serve (the tests build refused variants this way).
 */
#define _POSIX_C_SOURCE 200809L
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <kolvplatform/kolv_plugin.h>

#ifndef LOG_PLUGIN_MODULE
#define LOG_PLUGIN_MODULE "object"
#endif
#ifndef LOG_PLUGIN_MAJOR
#define LOG_PLUGIN_MAJOR 1
#endif
#ifndef LOG_PLUGIN_MINOR
#define LOG_PLUGIN_MINOR 0
#endif

#define LOG_PLUGIN_EXPORT __attribute__((visibility("default")))

static const KOLV_PLUGIN_INFO gInfo = {LOG_PLUGIN_MODULE, LOG_PLUGIN_MAJOR, LOG_PLUGIN_MINOR};

/* A growing output line. */
typedef struct {
    char *sz;
    size_t cb;
    size_t cap;
    int failed;
} Line;

static void Put(Line *pLine, const char *szData, size_t cb) {
    if (pLine->failed) return;
    if (pLine->cb + cb + 1 > pLine->cap) {
        size_t cap = (pLine->cap ? pLine->cap : 256);
        while (cap < pLine->cb + cb + 1)
            cap *= 2;
        char *sz = realloc(pLine->sz, cap);
        if (!sz) {
            pLine->failed = 1;
            return;
        }
        pLine->sz = sz;
        pLine->cap = cap;
    }
    memcpy(pLine->sz + pLine->cb, szData, cb);
    pLine->cb += cb;
    pLine->sz[pLine->cb] = '\0';
}

static void PutText(Line *pLine, const char *sz) {
    Put(pLine, sz, strlen(sz));
}

/* A JSON string: quotes, backslashes and control characters escaped;
 * every other byte (UTF-8 included) passes as it is. */
static void PutString(Line *pLine, const char *sz) {
    Put(pLine, "\"", 1);
    for (const unsigned char *p = (const unsigned char *)sz; *p; ++p) {
        char szEsc[8];
        if (*p == '"' || *p == '\\') {
            szEsc[0] = '\\';
            szEsc[1] = (char)*p;
            Put(pLine, szEsc, 2);
        } else if (*p == '\n') {
            Put(pLine, "\\n", 2);
        } else if (*p < 0x20 || *p == 0x7f) {
            snprintf(szEsc, sizeof(szEsc), "\\u%04x", *p);
            Put(pLine, szEsc, 6);
        } else {
            Put(pLine, (const char *)p, 1);
        }
    }
    Put(pLine, "\"", 1);
}

static int Append(const char *szLog, const Line *pLine) {
    int fd = open(szLog, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) return -1;
    /* One write per line: concurrent writers do not interleave lines. */
    ssize_t n = write(fd, pLine->sz, pLine->cb);
    int err = (n < 0 || (size_t)n != pLine->cb) ? -1 : 0;
    if (close(fd) != 0) err = -1;
    return err;
}

LOG_PLUGIN_EXPORT const KOLV_PLUGIN_INFO *KOLVPluginInfo(void) {
    return &gInfo;
}

LOG_PLUGIN_EXPORT int KOLVPluginMain(int action, const KOLV_PLUGIN_ARG *args, size_t count) {
    const char *szLog = getenv("KOLV_PLUGIN_LOG");
    if (!szLog || !*szLog) return 0;
    Line line = {NULL, 0, 0, 0};
    char szAction[32];
    snprintf(szAction, sizeof(szAction), "{\"action\":%d,\"args\":[", action);
    PutText(&line, szAction);
    for (size_t i = 0; i < count; ++i) {
        if (i) Put(&line, ",", 1);
        Put(&line, "[", 1);
        PutString(&line, args[i].szName);
        Put(&line, ",", 1);
        PutString(&line, args[i].szValue);
        Put(&line, "]", 1);
    }
    PutText(&line, "]}\n");
    int ret = line.failed ? -1 : Append(szLog, &line);
    free(line.sz);
    return ret;
}
