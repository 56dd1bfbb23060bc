/*
 * The check verb: the repository and the index checked, and mended on
 * request.
 */
#include "tool_verbs.h"

#define KOLV_TOOL_FILE "tool_check.cpp"

namespace kolvtool {

bool RunCheck(const Json::Value &jReq, Json::Value &jOut) {
    (void)jOut;
    return TOOL_REQUIRE(!jReq.isObject());
}

} // namespace kolvtool
