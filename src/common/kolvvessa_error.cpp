/*
 * The process-wide error stack, the error table, and the failure idiom
 * behind KOLV_FAIL_IF / KOLV_APPEND_IF.
 */
#include <errno.h>
#include <stdarg.h>
#include <string.h>
#include <syslog.h>

#include <git2.h>
#include <kolvplatform/kolv_platform.h>

#include <mutex>
#include <string>

#include "common/kolvvessa_fail.h"
#include "kolvvessa/kolvvessa_error.h"

const KOLV_ERROR_STRING rgErrorString[KOLV_ERROR_STRING_ROWS] = {
    {1000, "Operation failed.", "common", "error_system"},
    {1001, "Lock failed.", NULL, NULL},
    {1002, "Open File failed.", NULL, NULL},
    {1003, "Read file/data failed.", NULL, NULL},
    // 1005 deliberately stands before 1004.
    {1005, "Write DB data failed.", NULL, NULL},
    {1004, "Create DB data failed.", NULL, NULL},
    {1006, "Delete DB data failed.", NULL, NULL},
    {1007, "User input error.", NULL, NULL},
    {1008, "Object not exists.", NULL, NULL},
    {1009, "Operation is unavailable in demo mode.", NULL, NULL},
    {1010, "No such backend.", NULL, NULL},
    {1011, "User home is disabled.", NULL, NULL},
    {1012, "Namespace is disabled.", NULL, NULL},
    {1013, "No function table in namespace module.", NULL, NULL},
    {1014, "Allocate memory failed.", NULL, NULL},
    {1015, "Bad use by passing parameters.", NULL, NULL},
    {1016, "Should not have the error, please check it.", NULL, NULL},
    {1017, "Plugin is not initialized.", NULL, NULL},
    {1018, "Plugin initialized failed.", NULL, NULL},
    {1019, "Execute plugin failed.", NULL, NULL},
    {1020, "Sharing is not enabled for the object.", NULL, NULL},
    {1021, "Failed to get user group list.", NULL, NULL},
    {1022, "User not exists.", NULL, NULL},
    {1023, "No permission for the object.", NULL, NULL},
    {1024, "PostgresSQL service is disabled.", NULL, NULL},
    {1025, "Create DB failed.", NULL, NULL},
    {1026, "Configuration file is corrupted.", NULL, NULL},
    {1027, "kolvvessa is disabled.", NULL, NULL},
    {1028, "No application privilege for the namespace.", NULL, NULL},
    {1029, "Update configuration file failed.", NULL, NULL},
    {1030, "Object owner is disabled or expired.", NULL, NULL},
};

Json::Value jErrMsg(Json::arrayValue);

namespace {

// The stack is one process-wide value; the mutex keeps concurrent failures
// from tearing it (they still overwrite each other, as a shared stack
// does).
std::mutex &StackMutex() {
    static std::mutex m;
    return m;
}

// printf into a string: 1024 bytes first, then the size the formatter
// asks for. A formatter error leaves the text empty.
std::string FormatV(const char *szFmt, va_list ap) {
    if (!szFmt) return "";
    std::string str(1024, '\0');
    for (;;) {
        va_list apCopy;
        va_copy(apCopy, ap);
        int n = vsnprintf(&str[0], str.size(), szFmt, apCopy);
        va_end(apCopy);
        if (n < 0) return "";
        if ((size_t)n < str.size()) {
            str.resize(n);
            return str;
        }
        str.assign((size_t)n + 1, '\0');
    }
}

Json::Value MakeRecord(const char *szFile, int line, const std::string &strMsg) {
    Json::Value jRecord(Json::objectValue);
    jRecord["file"] = szFile ? szFile : "";
    jRecord["line"] = line;
    jRecord["msg"] = strMsg;
    return jRecord;
}

const char *MemberText(const Json::Value &jRecord, const char *szKey) {
    return jRecord.isMember(szKey) && jRecord[szKey].isString() ? jRecord[szKey].asCString() : "----";
}

int MemberLine(const Json::Value &jRecord) { return jRecord.isMember("line") ? jRecord["line"].asInt() : 0; }

} // namespace

extern "C" {

void KOLVVessaErrSetEx(int code, const char *szFile, int line, const char *szFmt, ...) {
    va_list ap;
    va_start(ap, szFmt);
    Json::Value jRecord = MakeRecord(szFile, line, FormatV(szFmt, ap));
    va_end(ap);
    jRecord["code"] = code;
    std::lock_guard<std::mutex> guard(StackMutex());
    jErrMsg = Json::Value(Json::arrayValue);
    jErrMsg.append(jRecord);
}

void KOLVVessaErrAppendEx(const char *szFile, int line, const char *szFmt, ...) {
    va_list ap;
    va_start(ap, szFmt);
    Json::Value jRecord = MakeRecord(szFile, line, FormatV(szFmt, ap));
    va_end(ap);
    std::lock_guard<std::mutex> guard(StackMutex());
    if (!jErrMsg.isArray()) jErrMsg = Json::Value(Json::arrayValue);
    jErrMsg.append(jRecord);
}

int KOLVVessaErrCodeGet(void) {
    std::lock_guard<std::mutex> guard(StackMutex());
    if (!jErrMsg.isArray() || jErrMsg.empty()) return 0;
    if (!jErrMsg[0].isMember("code")) return -1;
    return jErrMsg[0]["code"].asInt();
}

void KOLVVessaErrSyslog(void) {
    Json::Value jStack;
    {
        std::lock_guard<std::mutex> guard(StackMutex());
        jStack = jErrMsg;
    }
    if (!jStack.isArray() || jStack.empty()) return;
    syslog(LOG_ERR, "%s:%d kolvvessa call stack:", "common/kolvvessa_error", __LINE__);
    for (int i = (int)jStack.size() - 1; i >= 0; --i) {
        syslog(LOG_ERR, "%s:%d   %s (%s:%d)", "common/kolvvessa_error", __LINE__, MemberText(jStack[i], "msg"),
               MemberText(jStack[i], "file"), MemberLine(jStack[i]));
    }
    if (!jStack[0].isMember("code")) return;
    int code = jStack[0]["code"].asInt();
    for (const KOLV_ERROR_STRING &row : rgErrorString) {
        if (row.code == code) {
            syslog(LOG_ERR, "%s:%d   ErrNo=[%u] (%s)", "common/kolvvessa_error", __LINE__, (unsigned)row.code,
                   row.szMsg);
        }
    }
}

int KOLVVessaErrPrint(FILE *pFile) {
    Json::Value jStack;
    {
        std::lock_guard<std::mutex> guard(StackMutex());
        jStack = jErrMsg;
    }
    if (!jStack.isArray() || jStack.empty()) return 0;
    if (!pFile) pFile = stderr;
    fprintf(pFile, "kolvvessa call stack:\n");
    for (int i = (int)jStack.size() - 1; i >= 0; --i) {
        fprintf(pFile, "  %s (%s:%d)\n", MemberText(jStack[i], "msg"), MemberText(jStack[i], "file"),
                MemberLine(jStack[i]));
    }
    if (!jStack[0].isMember("code")) return 0;
    int code = jStack[0]["code"].asInt();
    for (const KOLV_ERROR_STRING &row : rgErrorString) {
        if (row.code == code) fprintf(pFile, "  ErrNo=[%u] (%s)\n", (unsigned)row.code, row.szMsg);
    }
    return code ? code : 1;
}

} // extern "C"

Json::Value &KOLVVessaErrMsgGet() { return jErrMsg; }

const char *KOLVVessaErrGetString(int code, const char **pszSection) {
    const KOLV_ERROR_STRING *pFound = NULL;
    for (const KOLV_ERROR_STRING &row : rgErrorString) {
        if (row.code == code) pFound = &row; // the last matching row wins
    }
    if (!pFound) return "";
    if (pszSection) *pszSection = pFound->szSection ? pFound->szSection : "";
    return pFound->szKey;
}

namespace kolv {

const char *SourceName(const char *szFile, char *szBuf, unsigned cbBuf) {
    if (!szFile) return "";
    snprintf(szBuf, cbBuf, "%s", szFile);
    char *szDot = strrchr(szBuf, '.');
    char *szSlash = strrchr(szBuf, '/');
    if (szDot && (!szSlash || szDot > szSlash)) *szDot = '\0';
    return szBuf;
}

void FailOrigin(int code, const char *szFile, int line, const char *szCond) {
    int savedErrno = errno;
    char szName[512];
    const char *szSource = SourceName(szFile, szName, sizeof(szName));
    errno = savedErrno;
    syslog(LOG_ERR, "%s:%d Failed [%s], err=%m\n", szSource, line, szCond);
    KOLVVessaErrSetEx(code, szSource, line, "%s", szCond);
}

void FailAppend(const char *szFile, int line, const char *szCond) {
    int savedErrno = errno;
    char szName[512];
    const char *szSource = SourceName(szFile, szName, sizeof(szName));
    errno = savedErrno;
    syslog(LOG_ERR, "%s:%d Failed [%s], err=%m\n", szSource, line, szCond);
    KOLVVessaErrAppendEx(szSource, line, "%s", szCond);
}

void FailOriginFmt(int code, const char *szFile, int line, const char *szFmt, ...) {
    int savedErrno = errno;
    va_list ap;
    va_start(ap, szFmt);
    std::string strMsg = FormatV(szFmt, ap);
    va_end(ap);
    char szName[512];
    const char *szSource = SourceName(szFile, szName, sizeof(szName));
    errno = savedErrno;
    syslog(LOG_ERR, "%s:%d Failed [%s], err=%m\n", szSource, line, strMsg.c_str());
    KOLVVessaErrSetEx(code, szSource, line, "%s", strMsg.c_str());
}

void SetNoLog(int code, const char *szFile, int line, const char *szFmt, ...) {
    va_list ap;
    va_start(ap, szFmt);
    std::string strMsg = FormatV(szFmt, ap);
    va_end(ap);
    char szName[512];
    KOLVVessaErrSetEx(code, SourceName(szFile, szName, sizeof(szName)), line, "%s", strMsg.c_str());
}

void FailGit(int ret, const char *szFile, int line, const char *szCond) {
    int savedErrno = errno;
    const git_error *pErr = git_error_last();
    char szName[512];
    const char *szSource = SourceName(szFile, szName, sizeof(szName));
    errno = savedErrno;
    syslog(LOG_ERR, "%s:%d Failed [%s][%d][%s], err=%m\n", szSource, line, szCond, ret,
           pErr && pErr->message ? pErr->message : "");
    KOLVVessaErrSetEx(GIT_ENOTFOUND == ret ? 1008 : KOLV_ERR_VERSION_REPO, szSource, line, "%s", szCond);
}

void FailArgument(const char *szFile, int line, const char *szCond) {
    syslog(LOG_ERR, "%s:%d Invaild Argument (%s)=[%d]\n", szFile, line, szCond, 0);
    TRABCErrSetEx(ERR_INVALID_ARG, szFile, line);
}

} // namespace kolv
