/*
 * kolvvessaobjectgetter.h - plain-function getters of KOLV_VESSA_OBJECT.
 *
 * All return 0, or -1 on a bad argument, reported on the platform error
 * stack (ERR_INVALID_ARG), not on the library's. Text getters write the
 * value (JSON members as their serialised text) into szBuf, truncated to
 * cbBuf and terminated.
 */
#ifndef KOLVVESSAOBJECTGETTER_H
#define KOLVVESSAOBJECTGETTER_H

#include <stddef.h>

#include "kolvvessa_export.h"

class KOLV_VESSA_OBJECT;

extern "C" {

KOLV_EXPORT int KOLVVessaObjectItemGetNameSpace(char *szBuf, size_t cbBuf, const KOLV_VESSA_OBJECT *pObject);
KOLV_EXPORT int KOLVVessaObjectItemGetID(char *szBuf, size_t cbBuf, const KOLV_VESSA_OBJECT *pObject);
KOLV_EXPORT int KOLVVessaObjectItemGetCategory(char *szBuf, size_t cbBuf, const KOLV_VESSA_OBJECT *pObject);
KOLV_EXPORT int KOLVVessaObjectItemGetVersion(char *szBuf, size_t cbBuf, const KOLV_VESSA_OBJECT *pObject);
KOLV_EXPORT int KOLVVessaObjectItemGetPerm(char *szBuf, size_t cbBuf, const KOLV_VESSA_OBJECT *pObject);
KOLV_EXPORT int KOLVVessaObjectItemGetCommitMsg(char *szBuf, size_t cbBuf, const KOLV_VESSA_OBJECT *pObject);
KOLV_EXPORT int KOLVVessaObjectItemGetParentID(char *szBuf, size_t cbBuf, const KOLV_VESSA_OBJECT *pObject);
KOLV_EXPORT int KOLVVessaObjectItemGetOwner(unsigned long *pVal, const KOLV_VESSA_OBJECT *pObject);
KOLV_EXPORT int KOLVVessaObjectItemGetMetaText(char *szBuf, size_t cbBuf, const KOLV_VESSA_OBJECT *pObject);
KOLV_EXPORT int KOLVVessaObjectItemGetText(char *szBuf, size_t cbBuf, const KOLV_VESSA_OBJECT *pObject);
KOLV_EXPORT int KOLVVessaObjectItemGetMetaBinary_info(char *szBuf, size_t cbBuf, const KOLV_VESSA_OBJECT *pObject);
KOLV_EXPORT int KOLVVessaObjectItemGetBinary_info(char *szBuf, size_t cbBuf, const KOLV_VESSA_OBJECT *pObject);
KOLV_EXPORT int KOLVVessaObjectItemGetPath_info(char *szBuf, size_t cbBuf, const KOLV_VESSA_OBJECT *pObject);
KOLV_EXPORT int KOLVVessaObjectItemGetACL(char *szBuf, size_t cbBuf, const KOLV_VESSA_OBJECT *pObject);
KOLV_EXPORT int KOLVVessaObjectItemGetCreateTime(long *pVal, const KOLV_VESSA_OBJECT *pObject);
KOLV_EXPORT int KOLVVessaObjectItemGetModifyTime(long *pVal, const KOLV_VESSA_OBJECT *pObject);
KOLV_EXPORT int KOLVVessaObjectItemGetExtraInfo(char *szBuf, size_t cbBuf, const KOLV_VESSA_OBJECT *pObject);

} /* extern "C" */

#endif /* KOLVVESSAOBJECTGETTER_H */
