/*
 * kolvvessa_nothrow.h - no exception crosses an exported function.
 *
 * The JSON library throws on a type error deep inside an operation; the
 * store turns that into an ordinary failure with code 1000:
 *
 *     return KOLV_NO_THROW(false, [&]() -> bool { ... });
 */
#ifndef KOLVVESSA_NOTHROW_H
#define KOLVVESSA_NOTHROW_H

#include <exception>

#include "common/kolvvessa_fail.h"

namespace kolv {

/* body(), or failValue with code 1000 "unexpected exception: ..." when it
 * throws. */
template <typename T, typename F> T NoThrow(T failValue, const char *szFile, int line, F body) {
    try {
        return body();
    } catch (const std::exception &e) {
        FailOriginFmt(1000, szFile, line, "unexpected exception: %s", e.what());
    } catch (...) {
        FailOriginFmt(1000, szFile, line, "unexpected exception");
    }
    return failValue;
}

} // namespace kolv

/* Variadic: a lambda body holds commas the preprocessor would split. */
#define KOLV_NO_THROW(failValue, ...) kolv::NoThrow((failValue), __FILE__, __LINE__, __VA_ARGS__)

#endif /* KOLVVESSA_NOTHROW_H */
