/*
 * The web API's request body, read and parsed with limits, and the
 * download links of its answers.
 */
#include "api_body.h"

#include <ctype.h>
#include <stdlib.h>
#include <string.h>

#include <exception>
#include <memory>
#include <string>
#include <vector>

namespace kolvcgi {

namespace {

bool ParseLength(const char *sz, size_t &cb) {
    if (!sz || !*sz) return false;
    char *pEnd = NULL;
    unsigned long long ull = strtoull(sz, &pEnd, 10);
    if (*pEnd || '-' == sz[0] || ull > kMaxBody) return false;
    cb = (size_t)ull;
    return true;
}

std::string UrlEscape(const std::string &str) {
    static const char szHex[] = "0123456789ABCDEF";
    std::string strOut;
    for (unsigned char c : str) {
        if (isalnum(c) || strchr("-_.~", c)) {
            strOut += (char)c;
        } else {
            strOut += '%';
            strOut += szHex[c >> 4];
            strOut += szHex[c & 15];
        }
    }
    return strOut;
}

/* The download program's path: as the server names it, or the API's own
 * folder. */
std::string DownloadPath(const char *szDownloadUrl, const char *szScriptName) {
    if (szDownloadUrl && *szDownloadUrl) return szDownloadUrl;
    std::string str = szScriptName ? szScriptName : "";
    size_t slash = str.rfind('/');
    return (std::string::npos == slash ? std::string() : str.substr(0, slash)) + "/kolvvessa-download.cgi";
}

/* The links of one record's files of one segment. */
Json::Value SegmentLinks(const std::string &strBase, const Json::Value &jRecord, const char *szSegment) {
    Json::Value jLinks(Json::objectValue);
    const Json::Value &jInfo = jRecord[std::string(szSegment) + "_info"];
    std::string strQuery = strBase + "?ns=" + UrlEscape(jRecord["ns"].asString()) +
                           "&id=" + UrlEscape(jRecord["id"].asString()) + "&segment=" + szSegment;
    if (jRecord["version"].isString() && !jRecord["version"].asString().empty())
        strQuery += "&version=" + UrlEscape(jRecord["version"].asString());
    for (const std::string &strName : jInfo.getMemberNames())
        jLinks[strName] = strQuery + "&field=" + UrlEscape(strName) + "&format=raw";
    return jLinks;
}

bool HasFiles(const Json::Value &j, const char *szMember) {
    return j.isMember(szMember) && j[szMember].isObject() && !j[szMember].empty();
}

void LinkRecord(const std::string &strBase, Json::Value &jRecord) {
    // Looked at through a const view: asking must not add the members.
    const Json::Value &jSeen = jRecord;
    if (!jSeen["ns"].isString() || !jSeen["id"].isString()) return;
    for (const char *szSegment : {"binary", "metabinary"}) {
        if (HasFiles(jRecord, (std::string(szSegment) + "_info").c_str()))
            jRecord["download"][szSegment] = SegmentLinks(strBase, jRecord, szSegment);
    }
}

} // namespace

Refusal ReadJsonBody(const char *szContentLength, FILE *pIn, Json::Value &jReq) {
    size_t cb = 0;
    if (!ParseLength(szContentLength, cb)) return BadRequest("the body must have a length of at most 1 MiB");
    std::string strBody(cb, '\0');
    if (cb && 1 != fread(&strBody[0], cb, 1, pIn)) return BadRequest("the body is shorter than its length");
    Json::CharReaderBuilder builder;
    builder["stackLimit"] = kMaxDepth;
    builder["failIfExtra"] = true;
    builder["rejectDupKeys"] = true;
    std::unique_ptr<Json::CharReader> pReader(builder.newCharReader());
    std::string strErr;
    bool blParsed = false;
    // Past its nesting limit the reader throws instead of answering false.
    try {
        blParsed = pReader->parse(strBody.data(), strBody.data() + strBody.size(), &jReq, &strErr);
    } catch (const std::exception &e) {
        strErr = e.what();
    }
    if (!blParsed) return BadRequest("the body is not JSON: " + strErr);
    if (!jReq.isObject()) return BadRequest("the body must be a JSON object");
    return Refusal();
}

void AddDownloadLinks(const char *szDownloadUrl, const char *szScriptName, Json::Value &jOut) {
    if (!jOut.isObject()) return;
    std::string strBase = DownloadPath(szDownloadUrl, szScriptName);
    // The answers are the tool's: a record, or records one level down in
    // an array ("objects", "versions").
    LinkRecord(strBase, jOut);
    for (const std::string &strName : jOut.getMemberNames()) {
        Json::Value &jMember = jOut[strName];
        if (!jMember.isArray()) continue;
        for (Json::Value &jRecord : jMember) {
            if (jRecord.isObject()) LinkRecord(strBase, jRecord);
        }
    }
}

} // namespace kolvcgi
