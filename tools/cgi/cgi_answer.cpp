/*
 * Failure answers of the download CGI program and the watch on what the
 * library printed.
 */
#include "cgi_answer.h"

#include <errno.h>
#include <stdio.h>
#include <stdio_ext.h>
#include <unistd.h>

#include <json/json.h>

namespace kolvcgi {

namespace {

bool g_blPrinted = false;

const char *Reason(int status) {
    switch (status) {
    case 400:
        return "Bad Request";
    case 401:
        return "Unauthorized";
    case 403:
        return "Forbidden";
    case 404:
        return "Not Found";
    case 405:
        return "Method Not Allowed";
    default:
        return "Internal Server Error";
    }
}

/* The stream's only sink: every byte goes to fd 1, and is noted. */
ssize_t WriteWatched(void *, const char *p, size_t cb) {
    g_blPrinted = true;
    size_t done = 0;
    while (done < cb) {
        ssize_t n = write(STDOUT_FILENO, p + done, cb - done);
        if (n < 0 && EINTR == errno) continue;
        if (n <= 0) return done > 0 ? static_cast<ssize_t>(done) : -1;
        done += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(cb);
}

} // namespace

int StatusForCode(int code) {
    switch (code) {
    case 1007: // user input error
    case 1015: // bad parameters
        return 400;
    case 1008: // no such object, version or file
        return 404;
    case 1009: // demo mode
    case 1011: // user home disabled
    case 1012: // namespace disabled
    case 1020: // sharing not enabled
    case 1021: // group list
    case 1022: // no such user
    case 1023: // no permission
    case 1027: // the store is disabled
    case 1028: // no application privilege
    case 1030: // owner disabled or expired
        return 403;
    default:
        return 500;
    }
}

void PrintFailure(int status, int code, const std::string &strMsg) {
    Json::Value jBody(Json::objectValue);
    jBody["code"] = code;
    jBody["msg"] = strMsg;
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    std::string strBody = Json::writeString(builder, jBody);
    printf("Status: %d %s\r\nContent-Type: application/json\r\nContent-Length: %zu\r\n", status, Reason(status),
           strBody.size());
    if (405 == status) printf("Allow: GET, HEAD\r\n");
    printf("\r\n%s", strBody.c_str());
    fflush(stdout);
}

bool WatchOutput() {
    cookie_io_functions_t io = {NULL, WriteWatched, NULL, NULL};
    FILE *pOut = fopencookie(NULL, "w", io);
    if (!pOut) return false;
    setvbuf(pOut, NULL, _IOFBF, 1 << 16);
    stdout = pOut;
    return true;
}

bool PrintedAnything() {
    return g_blPrinted || __fpending(stdout) > 0;
}

} // namespace kolvcgi
