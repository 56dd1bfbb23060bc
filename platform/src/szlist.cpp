/*
 * The growable string list: one block, header and slots, that grows by
 * doubling (so a push may move the list).
 */
#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include "kolvplatform/kolv_platform.h"

struct _tag_trab_sz_list_ {
    int nCount;
    int nCapacity;
    char *rgszItems[];
};

namespace {

TRABCSzList *AllocList(int capacity) {
    size_t cb = sizeof(TRABCSzList) + sizeof(char *) * (size_t)capacity;
    TRABCSzList *pList = static_cast<TRABCSzList *>(malloc(cb));
    if (!pList) return NULL;
    pList->nCount = 0;
    pList->nCapacity = capacity;
    return pList;
}

} // namespace

extern "C" {

TRABCSzList *TRABCSzListAlloc(int size) {
    if (size <= 0) return NULL;
    return AllocList(size);
}

int TRABCSzListPush(TRABCSzList **ppList, const char *szValue) {
    if (!ppList || !*ppList || !szValue) return -1;
    TRABCSzList *pList = *ppList;
    if (pList->nCount == INT_MAX) return -1;
    if (pList->nCount == pList->nCapacity) {
        int nNew = pList->nCapacity > INT_MAX / 2 ? INT_MAX : pList->nCapacity * 2;
        size_t cb = sizeof(TRABCSzList) + sizeof(char *) * (size_t)nNew;
        TRABCSzList *pGrown = static_cast<TRABCSzList *>(realloc(pList, cb));
        if (!pGrown) return -1;
        pGrown->nCapacity = nNew;
        *ppList = pList = pGrown;
    }
    char *szCopy = strdup(szValue);
    if (!szCopy) return -1;
    pList->rgszItems[pList->nCount++] = szCopy;
    return pList->nCount;
}

const char *TRABCSzListGet(const TRABCSzList *pList, int idx) {
    if (!pList || idx < 0 || idx >= pList->nCount) return NULL;
    return pList->rgszItems[idx];
}

int TRABCSzListCount(const TRABCSzList *pList) {
    return pList ? pList->nCount : 0;
}

void TRABCSzListFree(TRABCSzList *pList) {
    if (!pList) return;
    for (int i = 0; i < pList->nCount; ++i)
        free(pList->rgszItems[i]);
    free(pList);
}

} // extern "C"
