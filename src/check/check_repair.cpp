/*
 * check_repair.cpp - what a repair may do: write an object's row afresh,
 * delete a row whose object is gone, remove a leftover. Nothing here
 * writes below an object's folder.
 */
#include <errno.h>
#include <string.h>

#include <string>

#include "backend_fs/object_lock.h"
#include "check/check_internal.h"
#include "common/kolvvessa_raii.h"
#include "common/kolvvessa_safe_fs.h"
#include "index/index_row_store.h"
#include "kolvvessa/kolvvessa_common.h"

namespace kolv {
namespace check {

namespace {

const char szDelete[] = "DELETE FROM object WHERE id='@KOLV:VAR' AND ns='@KOLV:VAR';";
const char szInsertPrefix[] = "INSERT INTO object(id, ns, owner, category, parent_id, version, commit_msg, acl, text, "
                              "metatext, binary_info, metabinary_info, ctime, mtime, extra_info) VALUES ";

bool Execute(Run &run, const std::string &strSQL, std::string &strWhy) {
    if (0 == KOLVDBExecute(run.pConn, strSQL.c_str(), NULL)) return true;
    strWhy = KOLVDBErrorGet(run.pConn);
    return false;
}

} // namespace

bool RepairRow(Run &run, const std::string &strNs, const std::string &strId, std::string &strWhy) {
    // Read and written under the object's shared lock: a save waits, so
    // the row written is that of the files as they stand, and a save that
    // came first has finished writing them.
    const std::string strDir = run.strRepo + "/" + strNs + "/" + strId;
    ObjectLock lock;
    if (!lock.AcquireSharedIfExists(strDir, KOLVVessaObjectGetOwnerByID(strId)) || !lock.Held()) {
        strWhy = "the object cannot be locked";
        return false;
    }
    IndexRow row;
    if (!run.pReader->Read(strNs.c_str(), strId.c_str(), row, strWhy)) return false;
    CString values(FormatIndexRowValues(run.pConn, row));
    CString del(KOLVDBEscapeStringEX3(1, run.pConn, szDelete, strId.c_str(), strNs.c_str()));
    if (NULL == values || NULL == del) {
        strWhy = "the row cannot be written as SQL";
        return false;
    }
    // One execution is one transaction: the old row goes only with the
    // new one in.
    return Execute(run, std::string(del.get()) + szInsertPrefix + values.get() + ";", strWhy);
}

bool DeleteRow(Run &run, const std::string &strNs, const std::string &strId, std::string &strWhy) {
    if (fs::Exists(run.strRepo + "/" + strNs + "/" + strId)) {
        strWhy = "the object is on disk again";
        return false;
    }
    CString del(KOLVDBEscapeStringEX3(1, run.pConn, szDelete, strId.c_str(), strNs.c_str()));
    if (NULL == del) {
        strWhy = "the id cannot be written as SQL";
        return false;
    }
    return Execute(run, del.get(), strWhy);
}

bool RemoveLeftover(int fdDir, const std::string &strName, std::string &strWhy) {
    if (0 == fs::RemoveTreeAt(fdDir, strName.c_str())) return true;
    strWhy = strerror(errno);
    return false;
}

} // namespace check
} // namespace kolv
