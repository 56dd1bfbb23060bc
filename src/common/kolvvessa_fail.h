/*
 * kolvvessa_fail.h - the failure idiom, in one place.
 *
 * At the origin of a failure: a syslog line "FILE:LINE Failed [COND],
 * err=%m", then the code with the condition's text on the error stack.
 * Where a caller gives up in turn: the same line with the caller's
 * condition, then an appended record. The condition is written once and
 * stringified, so the code and its message cannot drift apart:
 *
 *     if (KOLV_FAIL_IF(1007, !jParm.isMember("owner"))) return false;
 *     if (KOLV_APPEND_IF(!KOLVVessaGetRepoPath(strRepo))) return false;
 *
 * Both macros evaluate to the truth of the condition.
 */
#ifndef KOLVVESSA_FAIL_H
#define KOLVVESSA_FAIL_H

namespace kolv {

/* Syslog line, then KOLVVessaErrSetEx(code, file, line, cond). */
void FailOrigin(int code, const char *szFile, int line, const char *szCond);
/* Syslog line, then KOLVVessaErrAppendEx(file, line, cond). */
void FailAppend(const char *szFile, int line, const char *szCond);
/* Origin with a formatted text; the syslog line carries the text too. */
void FailOriginFmt(int code, const char *szFile, int line, const char *szFmt, ...)
    __attribute__((format(printf, 4, 5)));
/* Origin with a formatted text and no syslog line. */
void SetNoLog(int code, const char *szFile, int line, const char *szFmt, ...) __attribute__((format(printf, 4, 5)));
/* A version-repository failure: the line "Failed [COND][ret][git error]",
 * then 1008 when ret is libgit2's not-found (-3), otherwise 1037. */
void FailGit(int ret, const char *szFile, int line, const char *szCond);
/* The source path as reported: __FILE__ relative to the source tree,
 * without its extension. */
const char *SourceName(const char *szFile, char *szBuf, unsigned cbBuf);
/* The plain accessor family's report: the line "Invaild Argument (COND)
 * =[0]" and ERR_INVALID_ARG on the platform's own stack. */
void FailArgument(const char *szFile, int line, const char *szCond);

} // namespace kolv

#define KOLV_FAIL_IF(code, cond)                                                                                      \
    (__builtin_expect(!!(cond), 0) ? (kolv::FailOrigin((code), __FILE__, __LINE__, #cond), true) : false)

#define KOLV_APPEND_IF(cond)                                                                                          \
    (__builtin_expect(!!(cond), 0) ? (kolv::FailAppend(__FILE__, __LINE__, #cond), true) : false)

/* Origin with a printf-style text, for the few reports that carry values. */
#define KOLV_FAIL_FMT(code, ...) kolv::FailOriginFmt((code), __FILE__, __LINE__, __VA_ARGS__)

/* Assigns call's result to ret and reports a negative one as a
 * version-repository failure with the call's text. */
#define KOLV_GIT_FAIL_IF(ret, call)                                                                                   \
    (__builtin_expect(((ret) = (call)) < 0, 0) ? (kolv::FailGit((ret), __FILE__, __LINE__, #call), true) : false)

/* A bad argument of the plain accessor family: true when cond does NOT
 * hold (the test names what must be true, as "NULL != pObject"). */
#define KOLV_ARG_FAILS(cond)                                                                                          \
    (__builtin_expect(!(cond), 0) ? (kolv::FailArgument(__FILE__, __LINE__, #cond), true) : false)

#endif /* KOLVVESSA_FAIL_H */
