/*
 * The verbs of the kolvvessa tool: each turns a JSON request into one
 * library call and its result into JSON.
 */
#include "tool_verbs.h"

#include <string.h>

#include "common/kolvvessa_raii.h"

#define KOLV_TOOL_FILE "tools/tool_verbs"

namespace kolvtool {

Json::Value ObjectJson(const KOLV_VESSA_OBJECT &object) {
    Json::Value jSelection = KOLVVessaObjectFieldAll();
    Json::Value jOut(Json::objectValue);
    object.toJson(jSelection, jOut, false);
    return jOut;
}

namespace {

bool RunGet(const Json::Value &jReq, Json::Value &jOut) {
    KOLV_VESSA_OBJECT object;
    Json::Value jParm = jReq;
    if (!jParm.isMember("field")) jParm["field"] = KOLVVessaObjectFieldAll();
    if (!object.Get(jParm)) return false;
    jOut = ObjectJson(object);
    return true;
}

bool RunCreate(const Json::Value &jReq, Json::Value &jOut) {
    KOLV_VESSA_OBJECT object;
    if (!object.Create(jReq)) return false;
    jOut = ObjectJson(object);
    return true;
}

bool RunCopy(const Json::Value &jReq, Json::Value &jOut) {
    KOLV_VESSA_OBJECT object;
    if (!object.Copy(jReq)) return false;
    jOut = ObjectJson(object);
    return true;
}

bool RunSet(const Json::Value &jReq, Json::Value &jOut) {
    KOLV_VESSA_OBJECT object;
    if (!object.Set(jReq)) return false;
    jOut = ObjectJson(object);
    return true;
}

bool RunList(const Json::Value &jReq, Json::Value &jOut) {
    Json::Value jParm = jReq;
    if (!jParm.isMember("offset")) jParm["offset"] = 0;
    if (!jParm.isMember("limit")) jParm["limit"] = -1;
    KOLV_VESSA_OBJECT_LIST list;
    unsigned int total = 0;
    int count = list.ListObject(jParm, total);
    if (count < 0) return false;
    jOut["count"] = count;
    jOut["total"] = total;
    jOut["objects"] = Json::Value(Json::arrayValue);
    for (KOLV_VESSA_OBJECT *p = list.m_head; p; p = p->m_next)
        jOut["objects"].append(ObjectJson(*p));
    // The "after" of the next page, when a part of this one was full.
    Json::Value jNext = KOLVVessaObjectListNext(jParm, list.m_head);
    if (!jNext.isNull()) jOut["next"] = jNext;
    return true;
}

// The namespace of a settings request: NULL for the master switch.
const char *NsOf(const Json::Value &jReq) {
    return jReq.isMember("ns") && jReq["ns"].isString() ? jReq["ns"].asCString() : NULL;
}

// A uid is an unsigned 32-bit integer, never written as a double.
bool RequireOwner(const Json::Value &jReq) {
    return TOOL_REQUIRE(jReq["owner"].isUInt() && Json::realValue != jReq["owner"].type());
}

bool RequireEnable(const Json::Value &jReq) {
    return TOOL_REQUIRE(jReq["enable"].isInt());
}

bool RunAccessGet(const Json::Value &jReq, Json::Value &jOut) {
    jOut["enabled"] = TRUE == KOLVVessaSettingsAccessGet(NsOf(jReq));
    if (!jOut["enabled"].asBool()) jOut["reason"] = KOLVVessaErrMsgGet();
    return true;
}

bool RunAccessCheck(const Json::Value &jReq, Json::Value &jOut) {
    if (FALSE == KOLVVessaAccessCheck(NsOf(jReq))) return false;
    jOut["enabled"] = true;
    return true;
}

bool RunAccessSet(const Json::Value &jReq, Json::Value &jOut) {
    if (!RequireEnable(jReq) || 0 > KOLVVessaSettingsAccessSet(NsOf(jReq), jReq["enable"].asInt())) return false;
    jOut["enabled"] = 1 == jReq["enable"].asInt();
    return true;
}

bool RunSharingGet(const Json::Value &jReq, Json::Value &jOut) {
    if (!RequireOwner(jReq)) return false;
    jOut["sharing"] = TRUE == KOLVVessaSettingsSharingGet(NsOf(jReq), (uid_t)jReq["owner"].asUInt());
    return true;
}

bool RunSharingCheck(const Json::Value &jReq, Json::Value &jOut) {
    if (!RequireOwner(jReq) || FALSE == KOLVVessaSharingCheck(NsOf(jReq), (uid_t)jReq["owner"].asUInt())) return false;
    jOut["sharing"] = true;
    return true;
}

bool RunSharingSet(const Json::Value &jReq, Json::Value &jOut) {
    if (!RequireOwner(jReq) || !RequireEnable(jReq)) return false;
    if (0 > KOLVVessaSettingsSharingSet(NsOf(jReq), (uid_t)jReq["owner"].asUInt(), jReq["enable"].asInt()))
        return false;
    jOut["sharing"] = 1 == jReq["enable"].asInt();
    return true;
}

bool RunNoSharingList(const Json::Value &jReq, Json::Value &jOut) {
    kolv::SzListRef list(TRABCSzListAlloc(BUFSIZ));
    if (0 > KOLVVessaSettingsNoSharingUserList(NsOf(jReq), list.addr())) return false;
    jOut["owners"] = Json::Value(Json::arrayValue);
    for (int i = 0; i < TRABCSzListCount(list.get()); ++i)
        jOut["owners"].append(TRABCSzListGet(list.get(), i));
    return true;
}

const Switch kRecursive[] = {{"recursive", "recursive", Switch::kTrue, NULL}, {}};
const Switch kListSwitches[] = {{"search", "search", Switch::kText, "WORDS"}, {}};
const Switch kCheckSwitches[] = {
    {"repair", "repair", Switch::kTrue, NULL},   {"ns", "ns", Switch::kText, "NS"},
    {"id", "id", Switch::kText, "ID"},           {"safe-age", "safe_age", Switch::kSeconds, "SECONDS"},
    {"no-blobs", "blobs", Switch::kFalse, NULL}, {}};

const std::vector<Verb> gVerbs = {
    {"create", "create an object",
     "Keys: \"ns\", \"category\", \"requester\" (required); \"owner\" (for requester 0), \"parent_id\",\n"
     "\"acl\", \"commit_msg\", \"ctime\", \"mtime\", \"text\" {name: JSON}, \"metatext\" {name: JSON},\n"
     "\"binary_files\" [{\"name\", \"format\", \"path\"}], \"metabinary_files\" (same form).\n"
     "Prints the new object with its id and version.",
     "{\"ns\":\"note\",\"category\":\"memo\",\"requester\":1101,\"text\":{\"title\":\"Hello\"}}", RunCreate, NULL,
     true},
    {"copy", "copy an object into a new one of the requester",
     "Keys: \"ns\", \"id\" (the source), \"requester\"; \"parent_id\" optional. Prints the copy.",
     "{\"ns\":\"note\",\"id\":\"1101_...\",\"requester\":1101}", RunCopy, NULL, true},
    {"get", "read an object (the latest version unless \"version\" is given)",
     "Keys: \"ns\", \"id\", \"requester\"; \"version\" (an older version), \"field\" (selection;\n"
     "default: every field). Prints the object as the requester may see it.",
     "{\"ns\":\"note\",\"id\":\"1101_...\",\"requester\":1101}", RunGet, NULL, true},
    {"set", "change an object (text and binary files make a new version)",
     "Keys: \"ns\", \"id\", \"requester\"; and at least one of \"ctime\", \"parent_id\", \"metatext\",\n"
     "\"text\", \"metabinary_files\", \"binary_files\"; \"version\" (the version the change is based\n"
     "on) with \"text\" or \"binary_files\"; \"commit_msg\", \"mtime\", \"reset_parent_id\".",
     "{\"ns\":\"note\",\"id\":\"1101_...\",\"requester\":1101,\"version\":\"<40 hex>\",\"text\":{\"title\":\"Hi\"}}",
     RunSet, NULL, true},
    {"list", "list objects from the index: own first, then shared ones",
     "Keys: \"ns\" (\"*\" for every namespace, requester 0 only), \"requester\"; \"filter\"\n"
     "{\"owner\" (user name), \"owner_uid\", \"parent_id\", \"category\", \"text\", \"metatext\", \"binary\",\n"
     "\"metabinary\"}, \"field\" (JSON columns to read), \"offset\" (default 0), \"limit\" (default -1: all),\n"
     "\"after\" (the \"next\" of the page before), \"search\" (words that string values of text or meta\n"
     "text must hold, each as a word or a word's start; also --search WORDS), \"order\": \"rank\" (best\n"
     "matches first; paged by offset only).",
     "{\"ns\":\"note\",\"requester\":1102,\"field\":{\"text\":true}}", RunList, kListSwitches, true},
    {"versions", "a page of an object's versions, newest first, with the totals",
     "Keys: \"ns\", \"id\", \"requester\"; \"offset\", \"limit\" (default: all), \"sort_direction\"\n"
     "(\"ASC\": oldest first). Prints the records with \"total\" (every version) and \"listable_total\"\n"
     "(versions made with \"commit_msg\" {\"listable\": true}). Needs read permission on the object.",
     "{\"ns\":\"note\",\"id\":\"1101_...\",\"requester\":1101,\"offset\":0,\"limit\":10}", RunVersions, NULL, true},
    {"version", "one version's record and the object as it stood at that version",
     "Keys: \"ns\", \"id\", \"requester\", \"version\" (the version; the latest when absent).\n"
     "Prints {\"record\": author, time, commit message, parents; \"object\": the object then}.",
     "{\"ns\":\"note\",\"id\":\"1101_...\",\"requester\":1101,\"version\":\"<40 hex>\"}", RunVersion, NULL, true},
    {"diff", "the text fields and binary files that differ between two versions",
     "Keys: \"ns\", \"id\", \"requester\", \"old_version\"; \"new_version\" (default: the latest).\n"
     "Prints {\"text\": {name: status}, \"binary\": {name: status}}, status created, deleted or modified.",
     "{\"ns\":\"note\",\"id\":\"1101_...\",\"requester\":1101,\"old_version\":\"<40 hex>\"}", RunDiff, NULL, true},
    {"rename", "rename a text field, binary file, meta text key or meta binary file (owner only)",
     "Keys: \"ns\", \"id\", \"requester\", \"segment\" (\"text\", \"binary\", \"metatext\" or \"metabinary\"),\n"
     "\"old_field\", \"new_field\"; \"version\" (the version renamed from; required for \"text\" and\n"
     "\"binary\", which make a new version), \"commit_msg\", \"mtime\". Prints the object afterwards.",
     "{\"ns\":\"note\",\"id\":\"1101_...\",\"requester\":1101,\"segment\":\"text\",\"old_field\":\"body\","
     "\"new_field\":\"recipe\",\"version\":\"<40 hex>\"}",
     RunRename, NULL, true},
    {"delete", "delete an object (owner or requester 0), with --recursive its descendants too",
     "Keys: \"ns\", \"id\", \"requester\"; \"recursive\" (true: also every object below it, found by\n"
     "\"parent_id\" in the index; a child that fails is logged and the others are still deleted).\n"
     "The switch --recursive sets \"recursive\": true. Deleting a missing object succeeds.",
     "{\"ns\":\"note\",\"id\":\"1101_...\",\"requester\":1101}", RunDelete, kRecursive, true},
    {"share", "change an object's ACL; with --recursive as a grant inherited from above",
     "Keys: \"ns\", \"id\", \"requester\", \"type\" (\"global\", \"public\", \"user\" or \"group\"), \"op\"\n"
     "(\"set\" or \"delete\"); \"enabled\" (a bool, \"global\"/\"set\"), \"perm\" (\"ro\" or \"rw\"), \"uid\" or\n"
     "\"gid\" (a number, or a user or group name), \"recursive\" (--recursive: the change counts as one\n"
     "inherited from above; leave it out for a grant of the object's own). A change goes down to\n"
     "every child as an inherited grant, which never weakens a grant set on the child itself. The\n"
     "owner, requester 0 and a user with \"rw\" may share. Prints the object afterwards.",
     "{\"ns\":\"note\",\"id\":\"1101_...\",\"requester\":1101,\"type\":\"user\",\"op\":\"set\",\"uid\":\"bob\","
     "\"perm\":\"ro\"}",
     RunShare, kRecursive, true},
    {"batch-set", "change many objects of one namespace alike",
     "Keys: \"ns\", \"requester\", \"id\" (an array; when absent, one id per line on standard input),\n"
     "and the keys of \"set\" (\"reset_parent_id\": true moves the objects to their owner's root).\n"
     "Every object is checked first: one the requester may not change fails the whole call and\n"
     "nothing changes. Prints {\"result\": {id: true|false}, \"done\", \"failed\"}.",
     "{\"ns\":\"note\",\"requester\":1101,\"id\":[\"1101_...\",\"1101_...\"],\"metatext\":{\"tag\":\"x\"}}",
     RunBatchSet, NULL, true},
    {"batch-delete", "delete many objects of one namespace (owner or requester 0)",
     "Keys: \"ns\", \"requester\", \"id\" (an array; when absent, one id per line on standard input),\n"
     "\"recursive\" (the objects below too; without it they move to their owner's root).\n"
     "Prints {\"result\": {id: true|false}, \"done\", \"failed\"}.",
     "{\"ns\":\"note\",\"requester\":1101,\"id\":[\"1101_...\",\"1101_...\"]}", RunBatchDelete, kRecursive, true},
    {"batch-share", "change the ACL of many objects of one namespace alike",
     "Keys: \"ns\", \"requester\", \"id\" (an array; when absent, one id per line on standard input),\n"
     "and the keys of \"share\". Prints {\"result\": {id: true|false}, \"done\", \"failed\"}.",
     "{\"ns\":\"note\",\"requester\":1101,\"type\":\"public\",\"op\":\"set\",\"perm\":\"ro\"}", RunBatchShare,
     kRecursive, true},
    {"cleanup-user", "delete every object of one user, in every namespace",
     "Keys: \"uid\" (a number or a user name; not 0). Objects that cannot be deleted are left. A\n"
     "user who no longer exists is cleaned up by cleanup-orphans.",
     "{\"uid\":\"alice\"}", RunCleanupUser, NULL, false},
    {"cleanup-orphans", "delete every object whose owner is no longer a local user",
     "No keys. Lists the local users, then deletes the objects of every other owner.", "{}", RunCleanupOrphans, NULL,
     false},
    {"reindex", "rebuild the index from the repository", "Keys: \"ns\" (optional: only that namespace).",
     "{\"ns\":\"note\"}", RunReindex, NULL, false},
    {"check", "check the repository and the index, and mend what can be mended",
     "Checks the repository and the index: rows missing, orphaned or drifted, objects a reindex\n"
     "skips, broken histories, JSON files that do not parse, leftovers of interrupted writes, links\n"
     "where the store keeps its own files. --repair re-indexes, deletes orphaned rows and removes\n"
     "leftovers older than the safe age (3600 s); it never changes an object's content, history or\n"
     "meta files. Keys (or the switches): \"ns\", \"id\" (one namespace, one object), \"repair\",\n"
     "\"safe_age\", \"blobs\" (false: only ask whether each blob is there). The report is JSON on\n"
     "standard output; exit status 0 when clean, 1 when findings remain, 2 when the check cannot run.",
     "{\"ns\":\"note\"}", RunCheck, kCheckSwitches, false},
    {"access-get", "whether the store (no \"ns\") or a namespace is switched on",
     "Keys: \"ns\" (optional). Prints {\"enabled\": bool} and, when off, the reason.", "{\"ns\":\"note\"}",
     RunAccessGet, NULL, false},
    {"access-check", "the access check of every operation: master switch, then namespace",
     "Keys: \"ns\" (optional). Fails with the reason when access is off.", "{\"ns\":\"note\"}", RunAccessCheck, NULL,
     false},
    {"access-set", "switch the store (no \"ns\") or a namespace on (1) or off",
     "Keys: \"ns\" (optional), \"enable\" (1 switches on, anything else off).", "{\"ns\":\"note\",\"enable\":1}",
     RunAccessSet, NULL, false},
    {"sharing-get", "whether an owner shares, globally (no \"ns\") or in a namespace",
     "Keys: \"owner\" (uid), \"ns\" (optional). Lenient: a missing or corrupt settings file shares.",
     "{\"ns\":\"note\",\"owner\":1101}", RunSharingGet, NULL, false},
    {"sharing-check", "the sharing check of reads: the owner's global entry, then the namespace",
     "Keys: \"owner\" (uid), \"ns\" (optional). Fails with the reason when sharing is off.",
     "{\"ns\":\"note\",\"owner\":1101}", RunSharingCheck, NULL, false},
    {"sharing-set", "let an owner share (1) or withdraw sharing (anything else)",
     "Keys: \"owner\" (uid), \"enable\", \"ns\" (optional: only that namespace).",
     "{\"ns\":\"note\",\"owner\":1101,\"enable\":0}", RunSharingSet, NULL, false},
    {"no-sharing-list", "owners whose objects others may not see in a namespace", "Keys: \"ns\" (required).",
     "{\"ns\":\"note\"}", RunNoSharingList, NULL, false},
};

} // namespace

const std::vector<Verb> &Verbs() {
    return gVerbs;
}

const Verb *FindVerb(const char *szName) {
    for (const Verb &verb : gVerbs) {
        if (!strcmp(verb.szName, szName)) return &verb;
    }
    return NULL;
}

} // namespace kolvtool
