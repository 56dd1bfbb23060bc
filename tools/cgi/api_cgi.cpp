/*
 * kolvvessa-api.cgi - the object verbs of the kolvvessa tool as a JSON web
 * API: POST /VERB with the JSON request as body.
 *
 * The web server authenticates the user (REMOTE_USER), who is the
 * requester of every call: a "requester" in the body is replaced. The
 * answer is the verb's JSON as the tool prints it, with links to the
 * download program (KOLV_DOWNLOAD_URL, when the server sets it) for every
 * binary file; a failure is an HTTP status that
 * fits the error code and the error stack's message.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "api_body.h"
#include "cgi_answer.h"
#include "cgi_request.h"
#include "kolvvessa/kolvvessa.h"
#include "tool_verbs.h"

namespace {

int Refuse(const kolvcgi::Refusal &r) {
    kolvcgi::PrintFailure(r.status, r.code, r.strMsg);
    return 0;
}

/* The verb named by the path ("/create"); NULL for none or one the web
 * does not serve. */
const kolvtool::Verb *WebVerb(const char *szPath) {
    if (!szPath || '/' != szPath[0]) return NULL;
    const kolvtool::Verb *pVerb = kolvtool::FindVerb(szPath + 1);
    return pVerb && pVerb->blWeb ? pVerb : NULL;
}

/* The origin's text of the error stack ("" when it has none). */
std::string OriginMsg() {
    const Json::Value &jStack = KOLVVessaErrMsgGet();
    if (!jStack.isArray() || jStack.empty() || !jStack[0].isObject()) return "";
    return jStack[0].get("msg", "").asString();
}

void PrintAnswer(const Json::Value &jOut) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    std::string strBody = Json::writeString(builder, jOut);
    printf("Status: 200 OK\r\nContent-Type: application/json\r\nContent-Length: %zu\r\n\r\n%s", strBody.size(),
           strBody.c_str());
}

int Serve() {
    const char *szMethod = getenv("REQUEST_METHOD");
    if (!szMethod || strcmp(szMethod, "POST")) return Refuse({405, 1007, "only POST is served"});
    // Who asks comes first: an anonymous client learns nothing of the rest.
    unsigned requester = 0;
    kolvcgi::Refusal r = kolvcgi::WebRequester(getenv("REMOTE_USER"), requester);
    if (0 != r.status) return Refuse(r);
    const kolvtool::Verb *pVerb = WebVerb(getenv("PATH_INFO"));
    if (!pVerb) return Refuse({404, 1007, "no such verb"});
    Json::Value jReq;
    r = kolvcgi::ReadJsonBody(getenv("CONTENT_LENGTH"), stdin, jReq);
    if (0 != r.status) return Refuse(r);
    jReq["requester"] = requester;
    Json::Value jOut;
    if (!pVerb->pfnRun(jReq, jOut)) {
        KOLVVessaErrPrint(stderr);
        int code = KOLVVessaErrCodeGet();
        return Refuse({kolvcgi::StatusForCode(code), code, OriginMsg()});
    }
    kolvcgi::AddDownloadLinks(getenv("KOLV_DOWNLOAD_URL"), getenv("SCRIPT_NAME"), jOut);
    PrintAnswer(jOut);
    return 0;
}

} // namespace

int main() {
    int ret = 1;
    try {
        ret = Serve();
    } catch (const std::exception &e) {
        fprintf(stderr, "kolvvessa-api.cgi: %s\n", e.what());
        ret = Refuse({500, 1036, "the request could not be served"});
    }
    fflush(stdout);
    return ret;
}
