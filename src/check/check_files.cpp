/*
 * check_files.cpp - one object's folder: its JSON files parse and hold
 * the keys the store reads, each entry the store expects is its own kind
 * of entry (a file or a folder, never a link), and what writers left
 * behind is found.
 *
 * These files are the object's meta data: the check never rewrites them.
 */
#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "check/check_internal.h"
#include "common/kolvvessa_json_internal.h"
#include "common/kolvvessa_raii.h"
#include "common/kolvvessa_safe_fs.h"

namespace kolv {
namespace check {

namespace {

const char szCannotMeta[] = "none: the object's meta files are never rewritten; set the object again or restore it";
const char szCannotEntry[] = "none: an entry the store did not make is left to the administrator, never followed";

enum Shape { kFile, kFolder };

struct Expected {
    const char *szName;
    Shape shape;
};

// The entries of an object folder the store makes itself.
const Expected rgObjectEntries[] = {{"basic.json", kFile}, {"metatext.json", kFile}, {"git_info.json", kFile},
                                    {".lock", kFile},      {"metabinary", kFolder},  {"metabinary_info", kFolder},
                                    {"version", kFolder}};
// The entries of the version folder: the repository and the work tree.
const Expected rgVersionEntries[] = {
    {".git", kFolder}, {"text", kFolder}, {"binary", kFolder}, {"binary_info", kFolder}};

template <size_t N> const Expected *FindExpected(const Expected (&table)[N], const std::string &strName) {
    for (const Expected &e : table) {
        if (strName == e.szName) return &e;
    }
    return NULL;
}

bool HasShape(const struct stat &st, Shape shape) {
    return kFile == shape ? S_ISREG(st.st_mode) : S_ISDIR(st.st_mode);
}

void Unexpected(Run &run, const std::string &strNs, const std::string &strId, const std::string &strRel,
                const struct stat &st, const char *szWant) {
    run.Add("unexpected_entry", strNs, strId, strRel, std::string(EntryWord(st)) + " where the store keeps " + szWant,
            szCannotEntry);
}

/* Files of a folder that holds only files (meta binary files, a version's
 * text and binary files); temporary ones are leftovers. */
void CheckFileFolder(Run &run, const std::string &strNs, const std::string &strId, int fdParent, const char *szName,
                     const std::string &strRel) {
    Fd fdDir(OpenDirAt(fdParent, szName));
    std::vector<Entry> entries;
    if (0 > fdDir.get() || !kolv::fs::ListDirAt(fdDir.get(), entries)) return;
    for (const Entry &entry : entries) {
        std::string strPath = strRel + "/" + entry.strName;
        if (IsTemporaryName(entry.strName)) {
            Leftover(run, strNs, strId, fdDir.get(), entry, strPath, "a temporary file");
        } else if (!S_ISREG(entry.st.st_mode)) {
            Unexpected(run, strNs, strId, strPath, entry.st, "a file");
        }
    }
}

/* The version folder: the repository's leftovers and the work tree. */
void CheckVersionFolder(Run &run, const std::string &strNs, const std::string &strId, int fdObj,
                        const std::string &strRel) {
    Fd fdVer(OpenDirAt(fdObj, "version"));
    std::vector<Entry> entries;
    if (0 > fdVer.get() || !kolv::fs::ListDirAt(fdVer.get(), entries)) return;
    for (const Entry &entry : entries) {
        const Expected *pWant = FindExpected(rgVersionEntries, entry.strName);
        std::string strPath = strRel + "/" + entry.strName;
        if (pWant && !HasShape(entry.st, pWant->shape)) {
            Unexpected(run, strNs, strId, strPath, entry.st, "a folder");
        } else if (pWant && ".git" == entry.strName) {
            Fd fdGit(OpenDirAt(fdVer.get(), ".git"));
            if (0 <= fdGit.get()) CheckGitLeftovers(run, strNs, strId, fdGit.get(), strPath);
        } else if (pWant) {
            CheckFileFolder(run, strNs, strId, fdVer.get(), pWant->szName, strPath);
        } else if (IsTemporaryName(entry.strName)) {
            Leftover(run, strNs, strId, fdVer.get(), entry, strPath, "a temporary file");
        }
    }
}

/* The keys a JSON file must hold for the store to read it; "" when all
 * are there. */
std::string MissingKeys(const std::string &strName, const Json::Value &j) {
    std::string strMissing;
    auto need = [&](bool blHas, const char *szKey) {
        if (!blHas) strMissing += (strMissing.empty() ? "" : ", ") + std::string(szKey);
    };
    if (!j.isObject()) return "the file is not a JSON object";
    if ("basic.json" == strName) {
        need(j["basic"].isObject(), "\"basic\" (an object)");
        need(j["auto_mtime"].isObject(), "\"auto_mtime\" (an object)");
        if (j["basic"].isObject()) need(j["basic"]["category"].isString(), "\"basic\".\"category\"");
    } else if ("metatext.json" == strName) {
        need(j["metatext"].isObject(), "\"metatext\" (an object)");
    } else {
        need(j["commit_cnt"].isIntegral(), "\"commit_cnt\" (an integer)");
        need(j["listable_commit_cnt"].isIntegral(), "\"listable_commit_cnt\" (an integer)");
    }
    return strMissing;
}

/* One JSON file of the object: parsed into jOut when it is there. */
void CheckJsonFile(Run &run, const std::string &strNs, const std::string &strId, int fdObj, const char *szName,
                   const std::string &strRel, Json::Value &jOut) {
    std::string strText;
    // The JSON writer locks the target itself, creating it empty: a first
    // write cut short leaves an empty file, which the store reads as none.
    bool blRead = fs::ReadFileAt(fdObj, szName, strText);
    if (blRead && strText.empty()) {
        blRead = false;
        errno = ENOENT;
    }
    if (!blRead) {
        // Only basic.json is always there: metatext.json comes with the
        // first meta text, git_info.json with the first version.
        if (ENOENT == errno && 0 != strcmp(szName, "basic.json")) return;
        run.Add("json_unparsable", strNs, strId, strRel,
                std::string("cannot be read: ") + (ENOENT == errno ? "missing" : strerror(errno)), szCannotMeta);
        return;
    }
    Json::Value j;
    if (!JsonFromString(j, strText)) {
        run.Add("json_unparsable", strNs, strId, strRel,
                "does not parse as JSON (" + std::to_string(strText.size()) + " bytes)", szCannotMeta);
        return;
    }
    std::string strMissing = MissingKeys(szName, j);
    if (!strMissing.empty()) {
        run.Add("json_missing_keys", strNs, strId, strRel, "lacks " + strMissing, szCannotMeta);
        return;
    }
    jOut.swap(j);
}

} // namespace

void CheckObjectFiles(Run &run, const std::string &strNs, const std::string &strId, int fdObj, Json::Value &jGitInfo) {
    const std::string strRel = strNs + "/" + strId;
    std::vector<Entry> entries;
    if (!kolv::fs::ListDirAt(fdObj, entries)) return;
    bool blHaveBasic = false;
    for (const Entry &entry : entries) {
        const Expected *pWant = FindExpected(rgObjectEntries, entry.strName);
        std::string strPath = strRel + "/" + entry.strName;
        if (pWant && !HasShape(entry.st, pWant->shape)) {
            Unexpected(run, strNs, strId, strPath, entry.st, kFile == pWant->shape ? "a file" : "a folder");
            if ("basic.json" == entry.strName) blHaveBasic = true; // reported once, as what stands there
        } else if (pWant && kFolder == pWant->shape) {
            if ("version" == entry.strName) {
                CheckVersionFolder(run, strNs, strId, fdObj, strPath);
            } else {
                CheckFileFolder(run, strNs, strId, fdObj, pWant->szName, strPath);
            }
        } else if (pWant && ".lock" != entry.strName) {
            Json::Value jDummy;
            bool blGitInfo = "git_info.json" == entry.strName;
            CheckJsonFile(run, strNs, strId, fdObj, pWant->szName, strPath, blGitInfo ? jGitInfo : jDummy);
            if ("basic.json" == entry.strName) blHaveBasic = true;
        } else if (!pWant && IsTemporaryName(entry.strName)) {
            Leftover(run, strNs, strId, fdObj, entry, strPath,
                     S_ISDIR(entry.st.st_mode) ? "a half-made folder" : "a temporary file");
        }
    }
    if (!blHaveBasic) {
        Json::Value jDummy;
        CheckJsonFile(run, strNs, strId, fdObj, "basic.json", strRel + "/basic.json", jDummy);
    }
}

} // namespace check
} // namespace kolv
