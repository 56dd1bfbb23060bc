/*
 * kolvvessa-download.cgi - serves one binary file of an object over HTTP.
 *
 * The web server authenticates the user and runs this program with the
 * request in its environment: the query string names the file (ns, id,
 * segment, field, format; version, mode, filename optional), REMOTE_USER
 * the login that acts, HTTP_IF_NONE_MATCH and HTTP_RANGE the headers. The
 * library writes the response; when it fails before a byte went out, the
 * client gets a status that fits the error and a JSON body.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <map>
#include <string>

#include "cgi_answer.h"
#include "cgi_request.h"
#include "kolvvessa/kolvvessa.h"

namespace {

/* Request headers and the method, passed on under their CGI names. */
const char *const kPassedEnv[] = {"HTTP_IF_NONE_MATCH", "HTTP_RANGE", "REQUEST_METHOD"};

bool AllowedMethod(const char *szMethod) {
    return !szMethod || 0 == strcmp(szMethod, "GET") || 0 == strcmp(szMethod, "HEAD");
}

/* The library's parameter hash; NULL when it cannot be built. */
TRABSZHASH *BuildHash(const std::map<std::string, std::string> &mapQuery, unsigned requester) {
    TRABSZHASH *pHash = TRABCSzHashAlloc(16);
    bool blOk = NULL != pHash;
    for (const auto &kv : mapQuery) {
        blOk = blOk && 0 == TRABCSzHashSetValue(&pHash, kv.first.c_str(), kv.second.c_str());
    }
    blOk = blOk && 0 == TRABCSzHashSetValue(&pHash, "requester", std::to_string(requester).c_str());
    for (const char *szName : kPassedEnv) {
        const char *szValue = getenv(szName);
        if (szValue) blOk = blOk && 0 == TRABCSzHashSetValue(&pHash, szName, szValue);
    }
    if (!blOk && pHash) TRABCSzHashFree(pHash);
    return blOk ? pHash : NULL;
}

/* The origin's text of the error stack ("" when it has none). */
std::string OriginMsg() {
    const Json::Value &jStack = KOLVVessaErrMsgGet();
    if (!jStack.isArray() || jStack.empty() || !jStack[0].isObject()) return "";
    return jStack[0].get("msg", "").asString();
}

int Refuse(const kolvcgi::Refusal &r) {
    kolvcgi::PrintFailure(r.status, r.code, r.strMsg);
    return 0;
}

int Serve() {
    if (!AllowedMethod(getenv("REQUEST_METHOD"))) return Refuse({405, 1007, "only GET and HEAD are served"});
    // Who asks comes first: an anonymous client learns nothing of the rest.
    unsigned requester = 0;
    kolvcgi::Refusal r = kolvcgi::WebRequester(getenv("REMOTE_USER"), requester);
    if (0 != r.status) return Refuse(r);
    std::map<std::string, std::string> mapQuery;
    r = kolvcgi::ParseQuery(getenv("QUERY_STRING"), mapQuery);
    if (0 == r.status) r = kolvcgi::CheckForm(mapQuery);
    if (0 != r.status) return Refuse(r);
    TRABSZHASH *pHash = BuildHash(mapQuery, requester);
    if (!pHash) return Refuse({500, 1036, "cannot build the request"});
    bool blOk = KOLVVessaObjectDownload(pHash);
    TRABCSzHashFree(pHash);
    if (blOk) return 0;
    KOLVVessaErrPrint(stderr);
    // Once a response has started it cannot be taken back: the client sees
    // it cut short.
    if (kolvcgi::PrintedAnything()) return 1;
    int code = KOLVVessaErrCodeGet();
    return Refuse({kolvcgi::StatusForCode(code), code, OriginMsg()});
}

} // namespace

int main() {
    if (!kolvcgi::WatchOutput()) {
        fprintf(stderr, "kolvvessa-download.cgi: cannot set up standard output\n");
        return 1;
    }
    int ret = Serve();
    fflush(stdout);
    return ret;
}
