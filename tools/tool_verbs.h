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
    /* A switch "--NAME" the verb takes on the command line, which sets
     * "NAME": true in the request; NULL for none. */
    const char *szSwitch;
};

const std::vector<Verb> &Verbs();
/* The verb of that name, NULL when none. */
const Verb *FindVerb(const char *szName);

/* Every field of an object, the ACL as far as the requester may see it. */
Json::Value ObjectJson(const KOLV_VESSA_OBJECT &object);

/* The verbs of tool_history.cpp. */
bool RunVersions(const Json::Value &jReq, Json::Value &jOut);
bool RunVersion(const Json::Value &jReq, Json::Value &jOut);
bool RunDiff(const Json::Value &jReq, Json::Value &jOut);
bool RunRename(const Json::Value &jReq, Json::Value &jOut);
bool RunDelete(const Json::Value &jReq, Json::Value &jOut);

} // namespace kolvtool

#endif /* KOLVVESSA_TOOL_VERBS_H */
