/*
 * kolvvessaobjectsetter.h - plain-function setters of KOLV_VESSA_OBJECT.
 *
 * All return 0, or -1 on a bad argument, reported on the platform error
 * stack (ERR_INVALID_ARG). JSON members parse szVal as JSON text.
 */
#ifndef KOLVVESSAOBJECTSETTER_H
#define KOLVVESSAOBJECTSETTER_H

#include "kolvvessa_export.h"

class KOLV_VESSA_OBJECT;

extern "C" {

KOLV_EXPORT int KOLVVessaObjectItemSetNameSpace(KOLV_VESSA_OBJECT *pObject, const char *szVal);
KOLV_EXPORT int KOLVVessaObjectItemSetID(KOLV_VESSA_OBJECT *pObject, const char *szVal);
KOLV_EXPORT int KOLVVessaObjectItemSetCategory(KOLV_VESSA_OBJECT *pObject, const char *szVal);
KOLV_EXPORT int KOLVVessaObjectItemSetVersion(KOLV_VESSA_OBJECT *pObject, const char *szVal);
KOLV_EXPORT int KOLVVessaObjectItemSetPerm(KOLV_VESSA_OBJECT *pObject, const char *szVal);
KOLV_EXPORT int KOLVVessaObjectItemSetCommitMsg(KOLV_VESSA_OBJECT *pObject, const char *szVal);
KOLV_EXPORT int KOLVVessaObjectItemSetParentID(KOLV_VESSA_OBJECT *pObject, const char *szVal);
KOLV_EXPORT int KOLVVessaObjectItemSetOwner(KOLV_VESSA_OBJECT *pObject, unsigned long val);
KOLV_EXPORT int KOLVVessaObjectItemSetMetaText(KOLV_VESSA_OBJECT *pObject, const char *szVal);
KOLV_EXPORT int KOLVVessaObjectItemSetText(KOLV_VESSA_OBJECT *pObject, const char *szVal);
KOLV_EXPORT int KOLVVessaObjectItemSetMetaBinaryInfo(KOLV_VESSA_OBJECT *pObject, const char *szVal);
KOLV_EXPORT int KOLVVessaObjectItemSetBinaryInfo(KOLV_VESSA_OBJECT *pObject, const char *szVal);
KOLV_EXPORT int KOLVVessaObjectItemSetPathInfo(KOLV_VESSA_OBJECT *pObject, const char *szVal);
KOLV_EXPORT int KOLVVessaObjectItemSetACL(KOLV_VESSA_OBJECT *pObject, const char *szVal);
KOLV_EXPORT int KOLVVessaObjectItemSetCreateTime(KOLV_VESSA_OBJECT *pObject, long val);
KOLV_EXPORT int KOLVVessaObjectItemSetModifyTime(KOLV_VESSA_OBJECT *pObject, long val);
KOLV_EXPORT int KOLVVessaObjectItemSetExtraInfo(KOLV_VESSA_OBJECT *pObject, const char *szVal);

} /* extern "C" */

#endif /* KOLVVESSAOBJECTSETTER_H */
