/*
 * The check verb: the repository and the index checked, and mended on
 * request. On a terminal, standard error shows the progress of a long
 * walk and a closing summary line; the report itself goes to standard
 * output as JSON.
 */
#include <stdio.h>
#include <unistd.h>

#include <string>

#include "tool_verbs.h"

#define KOLV_TOOL_FILE "tool_check.cpp"

namespace kolvtool {

namespace {

// Every hundredth object, and the last: a terminal is slower than the walk.
void ShowProgress(unsigned int done, unsigned int total, void *) {
    if (0 != done % 100 && done != total) return;
    fprintf(stderr, "\rkolvvessa check: %u of %u objects", done, total);
    if (done == total) fprintf(stderr, "\r\033[K");
    fflush(stderr);
}

void PrintSummary(const Json::Value &jReport) {
    std::string strKinds;
    for (const std::string &strKind : jReport["by_kind"].getMemberNames())
        strKinds += (strKinds.empty() ? " (" : ", ") + strKind + " " + jReport["by_kind"][strKind].asString();
    if (!strKinds.empty()) strKinds += ")";
    fprintf(stderr, "kolvvessa check: %u objects checked, %u findings%s, %u repaired, %u remain, %.2f s\n",
            jReport["checked"].asUInt(), jReport["findings"].size(), strKinds.c_str(), jReport["repaired"].asUInt(),
            jReport["remaining"].asUInt(), jReport["seconds"].asDouble());
}

} // namespace

bool RunCheck(const Json::Value &jReq, Json::Value &jOut) {
    if (!TOOL_REQUIRE(jReq.isObject())) return false;
    bool blTerminal = isatty(STDERR_FILENO);
    if (!KOLVVessaCheckEx(jReq, jOut, blTerminal ? ShowProgress : NULL, NULL)) return false;
    if (blTerminal) PrintSummary(jOut);
    return true;
}

} // namespace kolvtool
