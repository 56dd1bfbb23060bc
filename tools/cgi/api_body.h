/*
 * api_body.h - the web API's request body and the links its answers carry
 * to the download program.
 */
#ifndef KOLV_API_BODY_H
#define KOLV_API_BODY_H

#include <stdio.h>

#include <json/json.h>

#include "cgi_request.h"

namespace kolvcgi {

/* The largest body served, and how deep its JSON may nest. */
const size_t kMaxBody = 1 << 20;
const int kMaxDepth = 64;

/* Reads CONTENT_LENGTH bytes from pIn and parses them as one JSON object:
 * 400 for a length that is missing, malformed or past kMaxBody, a body
 * cut short, text that is not JSON, nesting past kMaxDepth, or a value
 * that is not an object. */
Refusal ReadJsonBody(const char *szContentLength, FILE *pIn, Json::Value &jReq);

/* Adds "download" {"binary": {name: url}, "metabinary": {...}} to every
 * object or version record of the answer that has binary files. The urls
 * start with szDownloadUrl when given (the server's KOLV_DOWNLOAD_URL),
 * else name kolvvessa-download.cgi beside this program (szScriptName). */
void AddDownloadLinks(const char *szDownloadUrl, const char *szScriptName, Json::Value &jOut);

} // namespace kolvcgi

#endif /* KOLV_API_BODY_H */
