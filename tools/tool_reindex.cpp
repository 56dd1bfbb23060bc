/*
 * The reindex verb: the index rebuilt from the repository.
 */
#include "tool_verbs.h"

namespace kolvtool {

bool RunReindex(const Json::Value &jReq, Json::Value &jOut) {
    if (!KOLVVessaReindex(jReq)) return false;
    jOut["reindexed"] = jReq.isMember("ns") ? jReq["ns"] : Json::Value("*");
    return true;
}

} // namespace kolvtool
