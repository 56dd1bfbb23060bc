/*
 * One row of the table "object": from an object in hand, and as the value
 * tuple of a multi-row INSERT.
 */
#include "index/index_row.h"

#include <string.h>

#include <vector>

#include "common/kolvvessa_json_internal.h"
#include "kolvvessa/kolvvessa_object.h"

namespace {

const char szSQLValueTemplate[] =
    " ('@KOLV:VAR', '@KOLV:VAR', @KOLV:LLINT, '@KOLV:VAR', '@KOLV:VAR', '@KOLV:VAR', '@KOLV:VAR', '@KOLV:VAR', "
    "'@KOLV:VAR', '@KOLV:VAR', '@KOLV:VAR', '@KOLV:VAR', @KOLV:INT, @KOLV:INT, '@KOLV:VAR')";

} // namespace

namespace kolv {

std::string IndexJsonText(const Json::Value &j) {
    return j.isNull() ? std::string("{}") : JsonToString(j);
}

IndexRow IndexRowFromObject(const KOLV_VESSA_OBJECT &Object) {
    IndexRow r;
    r.strId = Object.get_id();
    r.strNs = Object.get_ns();
    r.strCategory = Object.get_category();
    r.strParentId = Object.get_parent_id();
    r.strVersion = Object.get_version();
    r.strCommitMsg = IndexJsonText(Object.get_commit_msg());
    r.strAcl = IndexJsonText(Object.get_acl());
    r.strText = IndexJsonText(Object.get_text());
    r.strMetatext = IndexJsonText(Object.get_metatext());
    r.strBinaryInfo = IndexJsonText(Object.get_binary_info());
    r.strMetabinaryInfo = IndexJsonText(Object.get_metabinary_info());
    r.strExtraInfo = IndexJsonText(Object.get_extra_info());
    // The uid is unsigned 32-bit: widen without sign.
    r.owner = (long long)(uint32_t)Object.get_owner();
    r.ctime = (int)Object.get_ctime();
    r.mtime = (int)Object.get_mtime();
    return r;
}

// Walked without recursion, so that no depth of hand-made JSON can
// exhaust the stack.
bool JsonHoldsNul(const Json::Value &jRoot) {
    std::vector<const Json::Value *> vStack{&jRoot};
    while (!vStack.empty()) {
        const Json::Value *pVal = vStack.back();
        vStack.pop_back();
        if (pVal->isString()) {
            const char *szBegin = NULL, *szEnd = NULL;
            if (pVal->getString(&szBegin, &szEnd) && memchr(szBegin, '\0', szEnd - szBegin)) return true;
        } else if (pVal->isObject()) {
            for (Json::Value::const_iterator it = pVal->begin(); it != pVal->end(); ++it) {
                const char *szEnd = NULL;
                const char *szName = it.memberName(&szEnd);
                if (szName && memchr(szName, '\0', szEnd - szName)) return true;
                vStack.push_back(&*it);
            }
        } else if (pVal->isArray()) {
            for (const Json::Value &jElem : *pVal)
                vStack.push_back(&jElem);
        }
    }
    return false;
}

char *FormatIndexRowValues(KOLVDB *pConn, const IndexRow &r) {
    return KOLVDBEscapeStringEX3(1, pConn, szSQLValueTemplate, r.strId.c_str(), r.strNs.c_str(), r.owner,
                                 r.strCategory.c_str(), r.strParentId.c_str(), r.strVersion.c_str(),
                                 r.strCommitMsg.c_str(), r.strAcl.c_str(), r.strText.c_str(), r.strMetatext.c_str(),
                                 r.strBinaryInfo.c_str(), r.strMetabinaryInfo.c_str(), r.ctime, r.mtime,
                                 r.strExtraInfo.c_str());
}

} // namespace kolv
