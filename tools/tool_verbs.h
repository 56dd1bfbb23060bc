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

/* A switch a verb takes on the command line, before its request. */
struct Switch {
    enum Kind {
        kTrue,    /* "--NAME" sets KEY: true */
        kFalse,   /* "--NAME" sets KEY: false */
        kText,    /* "--NAME VALUE" sets KEY: "VALUE" */
        kSeconds, /* "--NAME VALUE" sets KEY to VALUE, a number of seconds */
    };
    const char *szName;
    const char *szKey;
    Kind kind;
    /* What the value is called in the usage ("NS"); NULL for kTrue and
     * kFalse. */
    const char *szValue;
};

struct Verb {
    const char *szName;
    const char *szSummary;
    const char *szHelp;
    const char *szExample;
    VerbFn pfnRun;
    /* Its switches, ended by one without a name; NULL for none. */
    const Switch *pSwitches;
    /* Whether the web API serves it: not the administrator's verbs. */
    bool blWeb;
};

const std::vector<Verb> &Verbs();
/* The verb of that name, NULL when none. */
const Verb *FindVerb(const char *szName);

/* Every field of an object, the ACL as far as the requester may see it. */
Json::Value ObjectJson(const KOLV_VESSA_OBJECT &object);

/* A request the tool itself refuses: code 1007 with the failed test, the
 * file named by KOLV_TOOL_FILE (each verb file defines it). */
#define TOOL_REQUIRE(cond)                                                                                             \
    ((cond) ? true : (KOLVVessaErrSetEx(1007, KOLV_TOOL_FILE, __LINE__, "%s", "!(" #cond ")"), false))

/* The verbs of tool_history.cpp. */
bool RunVersions(const Json::Value &jReq, Json::Value &jOut);
bool RunVersion(const Json::Value &jReq, Json::Value &jOut);
bool RunDiff(const Json::Value &jReq, Json::Value &jOut);
bool RunRename(const Json::Value &jReq, Json::Value &jOut);
bool RunDelete(const Json::Value &jReq, Json::Value &jOut);

/* The verbs of tool_share.cpp. */
bool RunShare(const Json::Value &jReq, Json::Value &jOut);
/* A "uid" or "gid" given as a user or group name becomes its number (a
 * name that is all digits and unknown is taken as the number); 1022 for
 * an unknown name. */
bool ResolvePrincipal(Json::Value &jParm);

/* The verbs of tool_batch.cpp. */
bool RunBatchSet(const Json::Value &jReq, Json::Value &jOut);
bool RunBatchDelete(const Json::Value &jReq, Json::Value &jOut);
bool RunBatchShare(const Json::Value &jReq, Json::Value &jOut);
bool RunCleanupUser(const Json::Value &jReq, Json::Value &jOut);
bool RunCleanupOrphans(const Json::Value &jReq, Json::Value &jOut);

/* The administrator's verbs of tool_reindex.cpp and tool_check.cpp. */
bool RunReindex(const Json::Value &jReq, Json::Value &jOut);
bool RunCheck(const Json::Value &jReq, Json::Value &jOut);

} // namespace kolvtool

#endif /* KOLVVESSA_TOOL_VERBS_H */
