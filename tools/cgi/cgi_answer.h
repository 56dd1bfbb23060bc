/*
 * cgi_answer.h - what the client gets when a download cannot be served:
 * an HTTP status that fits the library's error code and a small JSON body.
 */
#ifndef KOLV_CGI_ANSWER_H
#define KOLV_CGI_ANSWER_H

#include <string>

namespace kolvcgi {

/* The HTTP status for a library error code: 400 for a bad request, 403
 * where access or the service is refused, 404 for a missing object,
 * version or file, 500 for anything else. */
int StatusForCode(int code);

/* Prints "Status: ...", a JSON content type and {"code":..,"msg":..}. */
void PrintFailure(int status, int code, const std::string &strMsg);

/* Puts a watch on standard output's stdio stream so that PrintedAnything()
 * can tell whether the library has started a response. */
bool WatchOutput();
bool PrintedAnything();

} // namespace kolvcgi

#endif /* KOLV_CGI_ANSWER_H */
