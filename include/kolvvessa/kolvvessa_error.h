/*
 * kolvvessa_error.h - the process-wide error stack and the error codes.
 *
 * Every failing operation leaves on the stack the record of the place where
 * the failure arose (with its code) and, above it, one record per caller
 * that passed the failure on. Records are {"code", "file", "line", "msg"};
 * only the origin has "code". A new origin replaces the whole stack; a
 * successful call leaves the last failure's stack in place.
 */
#ifndef KOLVVESSA_ERROR_H
#define KOLVVESSA_ERROR_H

#include <json/json.h>
#include <stdio.h>

#include "kolvvessa_export.h"

/* Codes used without a row in rgErrorString. */
#define KOLV_ERR_ID_EXISTS 1031
#define KOLV_ERR_MKDIR 1032
#define KOLV_ERR_RENAME 1033
#define KOLV_ERR_HASH_INSERT 1036
#define KOLV_ERR_VERSION_REPO 1037

/* One row of the error table. */
typedef struct _tag_kolv_error_string_ {
    int code;
    const char *szMsg;
    const char *szSection; /* localised table section, NULL but for 1000 */
    const char *szKey;     /* localised table key, NULL but for 1000 */
} KOLV_ERROR_STRING;

#define KOLV_ERROR_STRING_ROWS 31

/* The error table: codes 1000 to 1030 with their messages. */
extern KOLV_EXPORT const KOLV_ERROR_STRING rgErrorString[KOLV_ERROR_STRING_ROWS];
/* The error stack itself (an array); read it through KOLVVessaErrMsgGet. */
extern KOLV_EXPORT Json::Value jErrMsg;

extern "C" {

/* Replaces the stack with one origin record: code, file ("" for NULL),
 * line and the printf-formatted text ("" for a NULL format). Never fails
 * visibly. */
KOLV_EXPORT void KOLVVessaErrSetEx(int code, const char *szFile, int line, const char *szFmt, ...)
    __attribute__((format(printf, 4, 5)));
/* Appends a record without code above the existing ones (an empty stack is
 * allowed). */
KOLV_EXPORT void KOLVVessaErrAppendEx(const char *szFile, int line, const char *szFmt, ...)
    __attribute__((format(printf, 3, 4)));
/* The origin's code: 0 for an empty stack, -1 when element 0 has no
 * code. */
KOLV_EXPORT int KOLVVessaErrCodeGet(void);
/* Writes the stack to syslog at error priority, outermost record first,
 * then the ErrNo line of the origin's code. Nothing for an empty stack. */
KOLV_EXPORT void KOLVVessaErrSyslog(void);
/* Prints the stack to pFile (stderr for NULL). Returns 0 when the stack is
 * empty or its origin has no code, non-zero otherwise. */
KOLV_EXPORT int KOLVVessaErrPrint(FILE *pFile);

} /* extern "C" */

/* The stack itself (not a copy). Read it only after the failing call has
 * returned, and not while other threads may fail. */
KOLV_EXPORT Json::Value &KOLVVessaErrMsgGet();
/* The localised key of a code (NULL for every row but 1000) and, through
 * pszSection when given, its section ("" where none). A code without a row
 * returns "" and leaves *pszSection untouched. */
KOLV_EXPORT const char *KOLVVessaErrGetString(int code, const char **pszSection);

#endif /* KOLVVESSA_ERROR_H */
