/*
 * metabinary.h - the meta binary store of an object: named binary files
 * that are not versioned.
 *
 * Request. m_jParm["metabinary_files"] is an array of items, applied in
 * array order:
 *
 *   {"name": N, "format": F, "path": P}   store a copy of the file at P as N
 *   {"name": N, "format": "delete"}       remove N
 *
 * N is any non-empty text; F is recorded as given (it may be left out, and
 * is then recorded as ""); P must name a readable regular file. A name may
 * appear only once per request. Every item is checked before the first
 * file is touched (1007 for a malformed item).
 *
 * On disk, with E = KOLVVessaEncode(N) (never holds "/" or "."):
 *
 *   base/metabinary/E        the bytes, replaced atomically (a temporary
 *                            file in the same folder, then a rename), so a
 *                            reader sees the old file or the new one
 *   base/metabinary_info/E   the info record, a JSON object:
 *                            {"name": N, "format": F, "md5": 32 lowercase
 *                             hex digits of the stored bytes, "size": bytes,
 *                             "mtime": the request's mtime}
 *
 * Time rule, as for the keys of the JSON files: when the stored record's
 * "mtime" is as new as or newer than the request's, the item is skipped
 * (equal times lose), for a delete as for a store. A request without
 * "mtime" is stamped with the current time. A deleted name keeps no time
 * behind, so a later request of any time may store it again.
 *
 * Order of writes: a store writes the file, then its record; a delete
 * removes the record, then the file. The record is what readers list, so a
 * name is listed only once its bytes are in place, and a name being
 * deleted disappears from the list first.
 *
 * Reading: mf_GetMetaBinaryInfo fills the record's metabinary_info with
 * {N: info record} for every info file (only the names of the selection's
 * "metabinary_info" object unless blAll); mf_GetMetaBinaryInfoByName reads
 * one record (1008 when N has none).
 *
 * Callers hold the object's lock (object_lock.h) across a save.
 */
#ifndef KOLVVESSA_BACKEND_FS_METABINARY_H
#define KOLVVESSA_BACKEND_FS_METABINARY_H

#include <json/json.h>

#include <string>

namespace kolv {

/* The directory reader both binary stores share: every info file of strDir
 * into jOut[decoded name] (jOut becomes an object). With pjOnly an object,
 * only the names that are members of it. A missing directory holds no
 * file; names that no encoding yields (temporary files, dot files) and
 * files that do not parse are skipped. False when the directory cannot be
 * read or a name does not decode. */
bool ReadInfoDir(const std::string &strDir, Json::Value &jOut, const Json::Value *pjOnly);

} // namespace kolv

#endif /* KOLVVESSA_BACKEND_FS_METABINARY_H */
