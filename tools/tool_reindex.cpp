/*
 * The reindex verb: the index rebuilt from the repository. On a terminal
 * it shows its progress on standard error (objects done of total, rate);
 * elsewhere it stays quiet.
 */
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include "tool_verbs.h"

namespace {

double Now() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

void ShowProgress(unsigned done, unsigned total, void *pv) {
    double seconds = Now() - *static_cast<double *>(pv);
    double rate = seconds > 0 ? done / seconds : 0;
    fprintf(stderr, "\rreindex: %u of %u objects, %.0f/s", done, total, rate);
    if (done == total) fputc('\n', stderr);
    fflush(stderr);
}

} // namespace

namespace kolvtool {

bool RunReindex(const Json::Value &jReq, Json::Value &jOut) {
    double start = Now();
    bool blTerminal = 1 == isatty(STDERR_FILENO);
    if (!KOLVVessaReindexEx(jReq, blTerminal ? ShowProgress : NULL, &start)) return false;
    jOut["reindexed"] = jReq.isMember("ns") ? jReq["ns"] : Json::Value("*");
    return true;
}

} // namespace kolvtool
