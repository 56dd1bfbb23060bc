/*
 * field_table.cpp - the exported field table: for every object field, the
 * storage unit that holds it, whether a read returns it by default, and two
 * flags kept as data only (nothing in the library reads them).
 *
 * The key "listable_commit_cmt" is spelled so on purpose; git_info.json
 * itself holds "listable_commit_cnt". Both spellings stay as they are.
 */
#include "kolvvessa/kolvvessa_field.h"

const char *gszKOLVVES_OBJ_FIELD = "{"
                                   "\"ns\":[\"id_path\",true,false,false],"
                                   "\"owner\":[\"id_path\",true,false,false],"
                                   "\"id\":[\"id_path\",true,false,false],"
                                   "\"category\":[\"basic.json\",true,false,false],"
                                   "\"parent_id\":[\"basic.json\",true,true,false],"
                                   "\"ctime\":[\"basic.json\",true,false,false],"
                                   "\"acl\":[\"basic.json\",true,true,false],"
                                   "\"ver\":[\"version\",true,false,false],"
                                   "\"mtime\":[\"version\",true,false,false],"
                                   "\"commit_msg\":[\"version\",false,false,false],"
                                   "\"text\":[\"version\",false,false,true],"
                                   "\"binary_info\":[\"version\",false,false,true],"
                                   "\"binary\":[\"version\",false,false,true],"
                                   "\"commit_cnt\":[\"git_info.json\",false,false,false],"
                                   "\"listable_commit_cmt\":[\"git_info.json\",false,false,false],"
                                   "\"metatext\":[\"metatext.json\",false,true,true],"
                                   "\"metabinary_info\":[\"metabinary_info\",false,false,true],"
                                   "\"metabinary_files\":[\"metabinary\",false,true,true]"
                                   "}";
