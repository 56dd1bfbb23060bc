/*
 * The version record: life cycle, accessors and chains, and the list that
 * owns a chain.
 */
#include <new>

#include "common/kolvvessa_fail.h"
#include "kolvvessa/kolvvessa_version.h"
#include "version/version_internal.h"

namespace {

void ResetImpl(KOLV_VESSA_OBJECT_VERSION_IMPL *pImpl) {
    pImpl->ns.clear();
    pImpl->id.clear();
    pImpl->author = 0;
    pImpl->mtime = 0;
    pImpl->version.clear();
    pImpl->commit_msg = Json::Value();
    pImpl->last_version = Json::Value(Json::arrayValue);
    pImpl->extra_info = Json::Value();
}

} // namespace

void *KOLV_VESSA_OBJECT_VERSION::operator new(size_t cb) noexcept {
    return ::operator new(cb, std::nothrow);
}

void KOLV_VESSA_OBJECT_VERSION::operator delete(void *p) noexcept {
    ::operator delete(p);
}

KOLV_VESSA_OBJECT_VERSION::KOLV_VESSA_OBJECT_VERSION()
    : m_next(NULL), m_impl(new (std::nothrow) KOLV_VESSA_OBJECT_VERSION_IMPL) {
    if (m_impl) ResetImpl(m_impl);
}

KOLV_VESSA_OBJECT_VERSION::~KOLV_VESSA_OBJECT_VERSION() {
    delete m_impl;
    m_impl = NULL;
}

void KOLV_VESSA_OBJECT_VERSION::clear() {
    if (m_impl) ResetImpl(m_impl);
}

// Getters give a copy, or the empty value when the record has no data;
// setters do nothing then.
#define KOLV_VERSION_ACCESSORS(type, member, empty)                                                                    \
    type KOLV_VESSA_OBJECT_VERSION::get_##member() const {                                                             \
        return m_impl ? m_impl->member : (empty);                                                                      \
    }                                                                                                                  \
    void KOLV_VESSA_OBJECT_VERSION::set_##member(const type &value) {                                                  \
        if (m_impl) m_impl->member = value;                                                                            \
    }

KOLV_VERSION_ACCESSORS(std::string, ns, std::string())
KOLV_VERSION_ACCESSORS(std::string, id, std::string())
KOLV_VERSION_ACCESSORS(std::string, version, std::string())
KOLV_VERSION_ACCESSORS(Json::Value, commit_msg, Json::Value())
KOLV_VERSION_ACCESSORS(Json::Value, last_version, Json::Value(Json::arrayValue))
KOLV_VERSION_ACCESSORS(Json::Value, extra_info, Json::Value())

#undef KOLV_VERSION_ACCESSORS

unsigned long KOLV_VESSA_OBJECT_VERSION::get_author() const {
    return m_impl ? m_impl->author : 0;
}
long KOLV_VESSA_OBJECT_VERSION::get_mtime() const {
    return m_impl ? m_impl->mtime : 0;
}

void KOLV_VESSA_OBJECT_VERSION::set_author(unsigned long author) {
    if (m_impl) m_impl->author = author;
}

void KOLV_VESSA_OBJECT_VERSION::set_mtime(long t) {
    if (m_impl) m_impl->mtime = t;
}

KOLV_VESSA_OBJECT_VERSION_LIST::KOLV_VESSA_OBJECT_VERSION_LIST() : m_head(NULL) {}

KOLV_VESSA_OBJECT_VERSION_LIST::~KOLV_VESSA_OBJECT_VERSION_LIST() {
    clear();
}

void KOLV_VESSA_OBJECT_VERSION_LIST::clear() {
    KOLVVessaObjectVersionFreeList(m_head);
    m_head = NULL;
}

extern "C" {

KOLV_VESSA_OBJECT_VERSION *KOLVVessaObjectVersionAlloc(void) {
    KOLV_VESSA_OBJECT_VERSION *pVer = NULL;
    if (KOLV_FAIL_IF(1014, NULL == (pVer = (KOLV_VESSA_OBJECT_VERSION *)new KOLV_VESSA_OBJECT_VERSION))) return NULL;
    return pVer;
}

void KOLVVessaObjectVersionFreeList(KOLV_VESSA_OBJECT_VERSION *pVer) {
    while (pVer) {
        KOLV_VESSA_OBJECT_VERSION *pNext = pVer->m_next;
        delete pVer;
        pVer = pNext;
    }
}

KOLV_VESSA_OBJECT_VERSION *KOLVVessaObjectVersionNext(KOLV_VESSA_OBJECT_VERSION *pVer) {
    return pVer ? pVer->m_next : NULL;
}

void KOLVVessaObjectVersionClear(KOLV_VESSA_OBJECT_VERSION *pVer) {
    if (pVer) pVer->clear();
}

} // extern "C"
