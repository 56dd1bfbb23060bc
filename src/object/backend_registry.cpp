/*
 * The backend registry: name -> factory, filled by the static
 * registrations below while the library loads.
 */
#include <mutex>

#include "kolvvessa/kolvvessa_backend.h"

namespace {

// Registrations run at load time and, in tests, later; lookups may come
// from worker threads. One lock keeps the map consistent.
std::mutex &RegistryMutex() {
    static std::mutex m;
    return m;
}

} // namespace

std::map<std::string, KOLVVESSA_BACKEND_FACTORY> &RegisterBackend::get_list() {
    static std::map<std::string, KOLVVESSA_BACKEND_FACTORY> mapBackends;
    return mapBackends;
}

RegisterBackend::RegisterBackend(const std::string &strName, KOLVVESSA_BACKEND_FACTORY factory) {
    std::lock_guard<std::mutex> guard(RegistryMutex());
    get_list()[strName] = factory; // a later registration of a name wins
}

KOLVVESSA_BACKEND_OP *RegisterBackend::New(const std::string &strName) {
    KOLVVESSA_BACKEND_FACTORY factory = NULL;
    {
        std::lock_guard<std::mutex> guard(RegistryMutex());
        std::map<std::string, KOLVVESSA_BACKEND_FACTORY> &mapBackends = get_list();
        std::map<std::string, KOLVVESSA_BACKEND_FACTORY>::const_iterator it = mapBackends.find(strName);
        if (it == mapBackends.end()) return NULL;
        factory = it->second;
    }
    if (!factory) return NULL;
    try {
        return factory();
    } catch (...) {
        return NULL; // out of memory: the caller reports the missing backend
    }
}

RegisterBackend registerFs("fs", CreateFsBackend);
RegisterBackend registerPgsql("pgsql", CreatePgsqlBackend);
