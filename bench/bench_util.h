/*
 * bench_util.h - what the benchmarks share: a clock, the median of a run
 * and a private sysroot for the library.
 */
#ifndef KOLV_BENCH_UTIL_H
#define KOLV_BENCH_UTIL_H

#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

namespace kolvbench {

/* Seconds on the monotonic clock. */
inline double Now() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

inline double Median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

inline void WriteText(const std::string &strPath, const std::string &strText) {
    std::ofstream(strPath) << strText;
}

/* A private sysroot under /tmp, KOLV_SYSROOT pointing at it: the homes
 * share, the platform users given as the text of a JSON array, the
 * namespace "note" switched on. */
inline std::string MakeSysroot(const std::string &strUsers) {
    char szTemplate[] = "/tmp/kolvbench.XXXXXX";
    std::string strRoot = mkdtemp(szTemplate);
    setenv("KOLV_SYSROOT", strRoot.c_str(), 1);
    std::string strCmd = "mkdir -p " + strRoot + "/volume1/homes " + strRoot + "/usr/kolv/etc " + strRoot + "/tmp";
    if (system(strCmd.c_str()) != 0) exit(1);
    WriteText(strRoot + "/usr/kolv/etc/platform.conf",
              R"({"shares":{"homes":"/volume1/homes"},"user_home":{"local":true,"domain":false,"directory":true},)"
              R"("users":)" +
                  strUsers + "}");
    WriteText(strRoot + "/usr/kolv/etc/kolvvessa.conf", R"({"Access":{"enable":true,"enable_ns_note":true}})");
    return strRoot;
}

/* The platform entry of a demo user in group 100 (and more groups). */
inline std::string UserEntry(unsigned uid, const std::string &strName, const std::string &strMoreGroups = "") {
    return "{\"uid\":" + std::to_string(uid) + ",\"name\":\"" + strName +
           "\",\"gid\":100,\"mail\":\"u@x\",\"expired\":false,\"groups\":[100" + strMoreGroups + "]}";
}

} // namespace kolvbench

#endif /* KOLV_BENCH_UTIL_H */
