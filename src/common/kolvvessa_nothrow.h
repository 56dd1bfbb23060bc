/*
 * kolvvessa_nothrow.h - no exception crosses an exported function.
 *
 * The JSON library throws on a type error deep inside an operation; the
 * store turns that into an ordinary failure (code 1000 unless the caller
 * names another):
 *
 *     return KOLV_NO_THROW(false, [&]() -> bool { ... });
 */
#ifndef KOLVVESSA_NOTHROW_H
#define KOLVVESSA_NOTHROW_H

#include <exception>

#include "common/kolvvessa_fail.h"

namespace kolv {

/* body(), or failValue with code and the text "WHAT: exception text"
 * when it throws. */
template <typename T, typename F>
T NoThrow(T failValue, int code, const char *szWhat, const char *szFile, int line, F body) {
    try {
        return body();
    } catch (const std::exception &e) {
        FailOriginFmt(code, szFile, line, "%s: %s", szWhat, e.what());
    } catch (...) {
        FailOriginFmt(code, szFile, line, "%s", szWhat);
    }
    return failValue;
}

} // namespace kolv

/* Variadic: a lambda body holds commas the preprocessor would split. */
#define KOLV_NO_THROW(failValue, ...)                                                                                 \
    kolv::NoThrow((failValue), 1000, "unexpected exception", __FILE__, __LINE__, __VA_ARGS__)
/* The same with the caller's code and context: a member of the wrong type
 * in a request is the caller's error (1007), not the store's. */
#define KOLV_NO_THROW_AS(failValue, code, szWhat, ...)                                                                \
    kolv::NoThrow((failValue), (code), (szWhat), __FILE__, __LINE__, __VA_ARGS__)

#endif /* KOLVVESSA_NOTHROW_H */
