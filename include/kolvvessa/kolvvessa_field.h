/*
 * kolvvessa_field.h - the field table: where each object field is stored.
 *
 * A JSON object: field -> [storage, fetched by default, flag 3, flag 4].
 * Storage names double as file names and path-info keys.
 */
#ifndef KOLVVESSA_FIELD_H
#define KOLVVESSA_FIELD_H

#include "kolvvessa_export.h"

extern KOLV_EXPORT const char *gszKOLVVES_OBJ_FIELD;

#define KOLVVES_ID_PATH "id_path"
#define KOLVVES_BASIC "basic.json"
#define KOLVVES_META_TEXT "metatext.json"
#define KOLVVES_META_BIN "metabinary"
#define KOLVVES_META_BIN_INFO "metabinary_info"
#define KOLVVES_VERSION "version"
#define KOLVVES_TEXT_PATH "version/text"
#define KOLVVES_BIN_PATH "version/binary"
#define KOLVVES_BIN_INFO_PATH "version/binary_info"
#define KOLVVES_GIT_INFO "git_info.json"
#define KOLVVES_TMP "tmp"

#define KOLVVES_META_TEXT_KEY "metatext"

#endif /* KOLVVESSA_FIELD_H */
