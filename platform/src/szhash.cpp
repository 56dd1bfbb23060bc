/*
 * The string hash: entries in insertion order (a deque, so their texts
 * never move) and a hash index over the keys.
 */
#include <deque>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>

#include "kolvplatform/kolv_platform.h"

struct _tag_trab_sz_hash_ {
    struct Entry {
        std::string strKey;
        std::string strValue;
    };
    std::deque<Entry> entries;
    // Keys view the entries' own key texts.
    std::unordered_map<std::string_view, size_t> index;
};

extern "C" {

TRABCSzHash *TRABCSzHashAlloc(int size) {
    try {
        TRABCSzHash *pHash = new TRABCSzHash;
        if (size > 0) pHash->index.reserve(static_cast<size_t>(size));
        return pHash;
    } catch (const std::exception &) {
        return NULL;
    }
}

int TRABCSzHashSetValue(TRABCSzHash **ppHash, const char *szKey, const char *szValue) {
    if (!ppHash || !*ppHash || !szKey || !szValue) return -1;
    TRABCSzHash *pHash = *ppHash;
    try {
        auto it = pHash->index.find(std::string_view(szKey));
        if (it != pHash->index.end()) {
            pHash->entries[it->second].strValue = szValue;
            return 0;
        }
        pHash->entries.push_back({szKey, szValue});
        try {
            pHash->index.emplace(std::string_view(pHash->entries.back().strKey), pHash->entries.size() - 1);
        } catch (...) {
            pHash->entries.pop_back();
            throw;
        }
        return 0;
    } catch (const std::exception &) {
        return -1;
    }
}

const char *TRABCSzHashGetValue(const TRABCSzHash *pHash, const char *szKey) {
    if (!pHash || !szKey) return NULL;
    auto it = pHash->index.find(std::string_view(szKey));
    return it == pHash->index.end() ? NULL : pHash->entries[it->second].strValue.c_str();
}

int TRABCSzHashEnumKey(const TRABCSzHash *pHash, TRABCSzList **ppList) {
    if (!pHash || !ppList || !*ppList) return -1;
    for (const auto &entry : pHash->entries) {
        if (TRABCSzListPush(ppList, entry.strKey.c_str()) < 0) return -1;
    }
    return static_cast<int>(pHash->entries.size());
}

int TRABCSzHashCount(const TRABCSzHash *pHash) {
    return pHash ? static_cast<int>(pHash->entries.size()) : 0;
}

void TRABCSzHashFree(TRABCSzHash *pHash) {
    delete pHash;
}

} // extern "C"
