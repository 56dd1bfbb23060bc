/*
 * Fault points: a test arms the nth call of KOLVFaultCheck from now to fail,
 * and every file, process and database operation of the platform (and the
 * object library's own file primitives) asks before it acts. Disarmed, a
 * check is one relaxed atomic load.
 */
#include <errno.h>
#include <syslog.h>

#include <atomic>

#include "kolvplatform/kolv_platform.h"

namespace {

std::atomic<long> g_cCountdown{0};
std::atomic<bool> g_blFired{false};

} // namespace

extern "C" {

void KOLVFaultArm(long n) {
    g_blFired.store(false);
    g_cCountdown.store(n > 0 ? n : 0);
}

BOOL KOLVFaultCheck(const char *szSite) {
    if (g_cCountdown.load(std::memory_order_relaxed) <= 0) return FALSE;
    if (g_cCountdown.fetch_sub(1) != 1) return FALSE;
    g_blFired.store(true);
    syslog(LOG_ERR, "injected fault at %s", szSite ? szSite : "?");
    errno = EIO;
    return TRUE;
}

BOOL KOLVFaultFired(void) {
    return g_blFired.load() ? TRUE : FALSE;
}

} // extern "C"
