/*
 * index_row_store.h - the row of a stored object built from its files
 * (its JSON files and its repository's HEAD commit) without a full object
 * read: what reindex writes, and what the check compares a row with.
 */
#ifndef KOLVVESSA_INDEX_ROW_STORE_H
#define KOLVVESSA_INDEX_ROW_STORE_H

#include <memory>
#include <string>

#include "index/index_row.h"

namespace kolv {

/* The code of a settings file that exists but cannot be read or parsed:
 * such settings say nothing about a namespace, so a reader asks again and
 * a reindex stops before anything is deleted. */
const int kErrSettingsUnreadable = 1026;

/* One reader per run over a repository: the settings file and the field
 * table are read once, when it is made. Not shared between threads. */
class IndexRowReader {
  public:
    explicit IndexRowReader(const std::string &strRepo);
    ~IndexRowReader();
    IndexRowReader(const IndexRowReader &) = delete;
    IndexRowReader &operator=(const IndexRowReader &) = delete;

    /* The row of object szId of namespace szNs, exactly as indexing the
     * object after a change would write it. False when the object gets no
     * row: strWhy then says why in a few words (a disabled namespace, an
     * expired or missing owner, a file that does not parse, a NUL in a
     * value), and the error stack holds the failure. */
    bool Read(const char *szNs, const char *szId, IndexRow &Row, std::string &strWhy);

  private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace kolv

#endif /* KOLVVESSA_INDEX_ROW_STORE_H */
