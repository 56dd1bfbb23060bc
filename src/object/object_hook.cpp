/*
 * The namespace hooks of one object operation.
 */
#include <dlfcn.h>

#include "kolvvessa/kolvvessa_ns_hook.h"
#include "object/object_internal.h"

namespace kolv {

NsHooks::NsHooks(const std::string &strNs, const char *szOperation, bool blClose)
    : m_dlHandle(KOLVVessaNsHookHandler(strNs)), m_blClose(blClose), m_pfnPre(NULL), m_pfnPost(NULL) {
    // A namespace without a library, or a library without this operation,
    // simply has no hooks.
    if (m_dlHandle && FALSE == KOLVVessaNsHookGet(m_dlHandle, szOperation, &m_pfnPre, &m_pfnPost)) {
        m_pfnPre = NULL;
        m_pfnPost = NULL;
    }
}

NsHooks::~NsHooks() {
    if (m_blClose && m_dlHandle) dlclose(m_dlHandle);
}

void NsHooks::Pre(const Json::Value &jParm, const KOLV_VESSA_OBJECT *pObject) const {
    if (m_pfnPre) m_pfnPre(jParm, pObject);
}

void NsHooks::Post(const Json::Value &jParm, const KOLV_VESSA_OBJECT *pObject) const {
    if (m_pfnPost) m_pfnPost(jParm, pObject);
}

} // namespace kolv
