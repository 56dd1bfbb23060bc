/*
 * The object record: life cycle, accessors, chains and the activity-log
 * table.
 */
#include <new>

#include "kolvvessa/kolvvessa_object.h"
#include "object/object_internal.h"

const KOLVVESSAOBJECT_LOG_STRING KOLVVESSAOBJECT_LOG_STRING_MAP[6] = {
    {0, 0, "log", "object_create"},         {0, 1, "log", "object_set"},         {0, 2, "log", "object_delete"},
    {-1, 0, "log", "object_create_failed"}, {-1, 1, "log", "object_set_failed"}, {-1, 2, "log", "object_delete_failed"},
};

namespace {

// Construction leaves the owner 0; clear() sets it to UID_ERR. Both keep
// path_info and perm out of it: clear() must not lose them.
void ResetImpl(KOLV_VESSA_OBJECT_IMPL *pImpl, unsigned long owner) {
    pImpl->flags = 0;
    pImpl->ns.clear();
    pImpl->id.clear();
    pImpl->category.clear();
    pImpl->version.clear();
    pImpl->commit_msg = Json::Value();
    pImpl->parent_id.clear();
    pImpl->owner = owner;
    pImpl->metatext = Json::Value();
    pImpl->text = Json::Value();
    pImpl->metabinary_info = Json::Value();
    pImpl->binary_info = Json::Value();
    pImpl->acl = Json::Value();
    pImpl->ctime = 0;
    pImpl->mtime = 0;
    pImpl->scratch = Json::Value();
    pImpl->extra_info = Json::Value();
}

} // namespace

void *KOLV_VESSA_OBJECT::operator new(size_t cb) noexcept {
    return ::operator new(cb, std::nothrow);
}

void KOLV_VESSA_OBJECT::operator delete(void *p) noexcept {
    ::operator delete(p);
}

KOLV_VESSA_OBJECT::KOLV_VESSA_OBJECT()
    : m_next(NULL), m_param(Json::objectValue), m_impl(new (std::nothrow) KOLV_VESSA_OBJECT_IMPL) {
    if (m_impl) ResetImpl(m_impl, 0);
}

KOLV_VESSA_OBJECT::~KOLV_VESSA_OBJECT() {
    delete m_impl;
    m_impl = NULL;
}

void KOLV_VESSA_OBJECT::clear() {
    if (m_impl) ResetImpl(m_impl, UID_ERR);
}

// Getters give a copy, or the empty value when the record has no data;
// setters do nothing then.
#define KOLV_OBJECT_ACCESSORS(type, member, empty)                                                                     \
    type KOLV_VESSA_OBJECT::get_##member() const {                                                                     \
        return m_impl ? m_impl->member : (empty);                                                                      \
    }                                                                                                                  \
    void KOLV_VESSA_OBJECT::set_##member(const type &value) {                                                          \
        if (m_impl) m_impl->member = value;                                                                            \
    }

KOLV_OBJECT_ACCESSORS(std::string, ns, std::string())
KOLV_OBJECT_ACCESSORS(std::string, id, std::string())
KOLV_OBJECT_ACCESSORS(std::string, category, std::string())
KOLV_OBJECT_ACCESSORS(std::string, version, std::string())
KOLV_OBJECT_ACCESSORS(std::string, perm, std::string())
KOLV_OBJECT_ACCESSORS(Json::Value, commit_msg, Json::Value())
KOLV_OBJECT_ACCESSORS(std::string, parent_id, std::string())
KOLV_OBJECT_ACCESSORS(Json::Value, metatext, Json::Value())
KOLV_OBJECT_ACCESSORS(Json::Value, text, Json::Value())
KOLV_OBJECT_ACCESSORS(Json::Value, metabinary_info, Json::Value())
KOLV_OBJECT_ACCESSORS(Json::Value, binary_info, Json::Value())
KOLV_OBJECT_ACCESSORS(Json::Value, path_info, Json::Value())
KOLV_OBJECT_ACCESSORS(Json::Value, acl, Json::Value())
KOLV_OBJECT_ACCESSORS(Json::Value, extra_info, Json::Value())

#undef KOLV_OBJECT_ACCESSORS

unsigned long KOLV_VESSA_OBJECT::get_owner() const {
    return m_impl ? m_impl->owner : 0;
}
long KOLV_VESSA_OBJECT::get_ctime() const {
    return m_impl ? m_impl->ctime : 0;
}
long KOLV_VESSA_OBJECT::get_mtime() const {
    return m_impl ? m_impl->mtime : 0;
}

void KOLV_VESSA_OBJECT::set_owner(unsigned long owner) {
    if (m_impl) m_impl->owner = owner;
}

void KOLV_VESSA_OBJECT::set_ctime(long t) {
    if (m_impl) m_impl->ctime = t;
}

void KOLV_VESSA_OBJECT::set_mtime(long t) {
    if (m_impl) m_impl->mtime = t;
}

KOLV_VESSA_OBJECT_LIST::KOLV_VESSA_OBJECT_LIST() : m_head(NULL) {}

KOLV_VESSA_OBJECT_LIST::~KOLV_VESSA_OBJECT_LIST() {
    clear();
}

void KOLV_VESSA_OBJECT_LIST::clear() {
    KOLVVessaObjectFreeList(m_head);
    m_head = NULL;
}

extern "C" {

KOLV_VESSA_OBJECT *KOLVVessaObjectAlloc(void) {
    KOLV_VESSA_OBJECT *pObject = NULL;
    if (KOLV_FAIL_IF(1014, NULL == (pObject = (KOLV_VESSA_OBJECT *)new KOLV_VESSA_OBJECT))) return NULL;
    return pObject;
}

void KOLVVessaObjectFreeList(KOLV_VESSA_OBJECT *pObject) {
    while (pObject) {
        KOLV_VESSA_OBJECT *pNext = pObject->m_next;
        delete pObject;
        pObject = pNext;
    }
}

void KOLVVessaObjectClear(KOLV_VESSA_OBJECT *pObject) {
    if (pObject) pObject->clear();
}

KOLV_VESSA_OBJECT *KOLVVessaObjectNext(KOLV_VESSA_OBJECT *pObject) {
    return pObject ? pObject->m_next : NULL;
}

int KOLVVessaObjectLog(int, int, const KOLV_VESSA_OBJECT *, const KOLV_VESSA_OBJECT *) {
    return 1;
}

} // extern "C"
