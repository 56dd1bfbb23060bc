/*
 * cgi_request.h - a request as the web server hands it over: the
 * authenticated login (for the download program and the web API), and the
 * download's query string.
 */
#ifndef KOLV_CGI_REQUEST_H
#define KOLV_CGI_REQUEST_H

#include <map>
#include <string>

namespace kolvcgi {

/* Why a request cannot be served before the library is asked. */
struct Refusal {
    int status = 0; /* HTTP status; 0 when the request can go on */
    int code = 0;   /* the library's code for the answer's body */
    std::string strMsg;
};

/* A request the client got wrong: 400 with code 1007. */
Refusal BadRequest(const std::string &strMsg);

/* Splits and decodes a query string ("a=b&c=d", %XX and '+'). Only the
 * members a download takes are kept; a malformed escape, a NUL byte or a
 * member given twice refuses the request (400). */
Refusal ParseQuery(const char *szQuery, std::map<std::string, std::string> &mapQuery);

/* The uid of the login the web server authenticated (REMOTE_USER): 401
 * when there is none or no such user, 403 for a login that maps to uid 0,
 * which the web may never act as. */
Refusal WebRequester(const char *szRemoteUser, unsigned &requester);

/* The download members the library checks for itself are still worth a
 * plain 400 when the segment or format is not one it serves. */
Refusal CheckForm(const std::map<std::string, std::string> &mapQuery);

} // namespace kolvcgi

#endif /* KOLV_CGI_REQUEST_H */
