/*
 * tool_verbs.h - the verbs of the kolvvessa tool.
 */
#ifndef KOLVVESSA_TOOL_VERBS_H
#define KOLVVESSA_TOOL_VERBS_H

#include <kolvvessa/kolvvessa.h>

#include <vector>

namespace kolvtool {

/* Runs a verb on a request; fills jOut and answers true, or answers false
 * with the reason on the library's error stack. */
typedef bool (*VerbFn)(const Json::Value &jReq, Json::Value &jOut);

struct Verb {
    const char *szName;
    const char *szSummary;
    const char *szHelp;
    const char *szExample;
    VerbFn pfnRun;
};

const std::vector<Verb> &Verbs();
/* The verb of that name, NULL when none. */
const Verb *FindVerb(const char *szName);

} // namespace kolvtool

#endif /* KOLVVESSA_TOOL_VERBS_H */
