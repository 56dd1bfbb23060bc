/*
 * Failures injected through the platform's fault point at every call in
 * turn: create, set, copy, field rename, version listing and delete through
 * the object interface must fail cleanly at each one, leaving the object
 * whole at its old or its new version (or names), no temporary or scratch
 * file behind, and the index row old or new.
 */
#include <stdlib.h>

#include <filesystem>
#include <functional>
#include <set>

#include "object/object_test_util.h"

namespace {

namespace stdfs = std::filesystem;
using kolvtest::StackText;
using objtest::J;

const char kName[] = "b.bin";
const char kMetaName[] = "mb";

/* What a read shows of an object: version, texts and file infos. */
Json::Value Snapshot(const KOLV_VESSA_OBJECT &obj) {
    Json::Value j;
    j["version"] = obj.get_version();
    j["text"] = obj.get_text();
    j["metatext"] = obj.get_metatext();
    j["binary_info"] = obj.get_binary_info();
    j["metabinary_info"] = obj.get_metabinary_info();
    return j;
}

/* The content alone: what a request decides (no version, no file times). */
Json::Value Content(const Json::Value &jSnap) {
    Json::Value j;
    j["text"] = jSnap["text"];
    j["metatext"] = jSnap["metatext"];
    j["bin"] = jSnap["binary_info"].get(kName, Json::Value())["md5"];
    j["mbin"] = jSnap["metabinary_info"].get(kMetaName, Json::Value())["md5"];
    return j;
}

/* Names and content: texts, and the md5 of each file under its name. */
Json::Value Shape(const Json::Value &jSnap) {
    Json::Value j;
    j["text"] = jSnap["text"];
    j["metatext"] = jSnap["metatext"];
    for (const std::string strPart : {"binary", "metabinary"})
        for (const std::string &strName : jSnap[strPart + "_info"].getMemberNames())
            j[strPart][strName] = jSnap[strPart + "_info"][strName]["md5"];
    return j;
}

class FaultTest : public objtest::ObjectStoreTest {
  protected:
    void SetUp() override {
        if (!kolvtest::HavePostgres()) GTEST_SKIP() << "PGHOST is not set: no PostgreSQL server for the index";
        const std::string strPgHost = getenv("PGHOST");
        ObjectStoreTest::SetUp(); // the namespace on, the index server forgotten
        setenv("PGHOST", strPgHost.c_str(), 1);
        kolvtest::DropIndexDatabase();
        for (int v = 0; v < 2; ++v) {
            // Sizes differ too, so a file cut short cannot pass for the other.
            kolvtest::WriteFile(Src(v), std::string(1000 + 3000 * v, static_cast<char>('a' + v)));
            kolvtest::WriteFile(MetaSrc(v), "meta binary " + std::to_string(v));
            m_rgMd5[v] = Md5(Src(v));
            m_rgMetaMd5[v] = Md5(MetaSrc(v));
        }
    }

    std::string Src(int v) const { return m_sys.Path("/tmp/src" + std::to_string(v)); }
    std::string MetaSrc(int v) const { return m_sys.Path("/tmp/meta" + std::to_string(v)); }
    std::string NsDir() const { return m_sys.Repo() + "/note"; }
    static std::string Md5(const std::string &strPath) { return kolvtest::Md5(kolvtest::ReadFile(strPath)); }

    /* The request members that put variant v of each part of strParts in
     * place (t text, b binary file, m meta text, M meta binary file), and
     * the content (as Content gives it) they leave on jContent. */
    Json::Value Request(const std::string &strParts, int v) const {
        Json::Value j(Json::objectValue);
        if (Has(strParts, 't')) j["text"]["t"] = "text " + std::to_string(v);
        if (Has(strParts, 'b')) j["binary_files"][0] = Item(kName, "raw", Src(v));
        if (Has(strParts, 'm')) j["metatext"]["m"] = "meta " + std::to_string(v);
        if (Has(strParts, 'M')) j["metabinary_files"][0] = Item(kMetaName, "png", MetaSrc(v));
        return j;
    }
    Json::Value PartContent(Json::Value jContent, const std::string &strParts, int v) const {
        Json::Value jReq = Request(strParts, v);
        for (const char *szKey : {"text", "metatext"})
            for (const std::string &strName : jReq[szKey].getMemberNames())
                jContent[szKey][strName] = jReq[szKey][strName];
        if (Has(strParts, 'b')) jContent["bin"] = m_rgMd5[v];
        if (Has(strParts, 'M')) jContent["mbin"] = m_rgMetaMd5[v];
        return jContent;
    }
    static bool Has(const std::string &strParts, char c) { return std::string::npos != strParts.find(c); }
    static Json::Value Item(const char *szName, const char *szFormat, const std::string &strPath) {
        Json::Value j;
        j["name"] = szName;
        j["format"] = szFormat;
        j["path"] = strPath;
        return j;
    }
    /* A create of alice's with id strID and variant v of strParts. */
    bool CreateWith(const std::string &strID, const std::string &strParts, int v) const {
        Json::Value jParm = Request(strParts, v);
        jParm["ns"] = "note";
        jParm["category"] = "memo";
        jParm["requester"] = kolvtest::kAlice;
        jParm["id"] = strID;
        KOLV_VESSA_OBJECT obj;
        return obj.Create(jParm);
    }

    /* The object as alice reads it; null when it cannot be read. */
    static Json::Value Read(const std::string &strID) {
        KOLV_VESSA_OBJECT obj;
        Json::Value jGet = GetParm(strID, kolvtest::kAlice);
        jGet["field"] = KOLVVessaObjectFieldAll();
        return obj.Get(jGet) ? Snapshot(obj) : Json::Value();
    }
    /* The object's index row in the form of Snapshot; null when none.
     * Read over a connection of the test's own (psql for every row would
     * cost a process each). */
    Json::Value Row(const std::string &strID) {
        if (!m_pDB) m_pDB = KOLVDBConnect(NULL, "postgres", NULL, "kolvvessa");
        KOLVDBRESULT *pRes = NULL;
        std::string strSQL = "SELECT json_build_object('version', version, 'text', text, 'metatext', metatext, "
                             "'binary_info', binary_info, 'metabinary_info', metabinary_info) AS j FROM object "
                             "WHERE id = '" +
                             strID + "'";
        // No database or no table yet: the index has no row.
        if (!m_pDB || 0 != KOLVDBExecute(m_pDB, strSQL.c_str(), &pRes)) return Json::Value();
        int row = -1;
        Json::Value jRow;
        if (pRes && 0 == KOLVDBFetchRow(pRes, &row)) jRow = J(KOLVDBFetchField(pRes, row, "j"));
        KOLVDBFreeResult(pRes);
        return jRow;
    }
    void TearDown() override {
        if (m_pDB) KOLVDBClose(m_pDB);
    }

    /* Whatever a call may leave behind by mistake: anything in the scratch
     * folder, hidden folders and temporary files ("." names) in the
     * namespace and object folders, and git lock files. */
    std::vector<std::string> Strays() const {
        std::vector<std::string> strays;
        std::error_code ec;
        for (const stdfs::path &p : {stdfs::path(m_sys.Repo() + "/@tmp"), stdfs::path(NsDir())}) {
            for (auto it = stdfs::recursive_directory_iterator(p, ec); !ec && it != stdfs::end(it); it.increment(ec)) {
                const std::string strName = it->path().filename().string();
                const std::string strParent = it->path().parent_path().filename().string();
                bool blKnown = (".git" == strName && "version" == strParent) || (".lock" == strName && 1 == it.depth());
                bool blLock = strName.size() > 5 && 0 == strName.compare(strName.size() - 5, 5, ".lock");
                if (p.filename() == "@tmp" || (!blKnown && ('.' == strName[0] || blLock)))
                    strays.push_back(it->path().string());
            }
        }
        return strays;
    }
    std::set<std::string> Objects() const {
        std::set<std::string> ids;
        for (const auto &ent : stdfs::directory_iterator(NsDir()))
            ids.insert(ent.path().filename().string());
        return ids;
    }

    /* Runs op with a failure at the 1st, 2nd, ... fault check until it
     * runs without reaching the armed one; prepare(n) runs before each,
     * unarmed, and check(blOk) judges the store after it. Answers the
     * number of fault points passed. */
    long EveryFault(const char *szOp, const std::function<void(long)> &prepare, const std::function<bool(long)> &op,
                    const std::function<void(bool, long)> &check) {
        long n = 1;
        for (; n < 5000; ++n) {
            prepare(n);
            KOLVFaultArm(n);
            bool blOk = op(n);
            bool blFired = TRUE == KOLVFaultFired();
            KOLVFaultArm(0);
            SCOPED_TRACE(std::string(szOp) + " with a fault at check " + std::to_string(n));
            if (!blOk) {
                EXPECT_NE(0, KOLVVessaErrCodeGet()) << "a failure with an empty error stack";
            }
            if (!blFired) {
                EXPECT_TRUE(blOk) << StackText();
            }
            check(blOk, n);
            EXPECT_EQ(std::vector<std::string>(), Strays());
            if (!blFired || HasFailure()) break;
        }
        return n;
    }

    std::string m_rgMd5[2], m_rgMetaMd5[2];
    KOLVDB *m_pDB = nullptr;
};

TEST_F(FaultTest, EveryFailedCallLeavesTheObjectWholeAndNoTrace) {
    // Create: with a caller-chosen id, so a failed one can be looked for.
    std::string strID;
    long cCreate = EveryFault(
        "create",
        [&](long n) {
            char szHex[97];
            snprintf(szHex, sizeof(szHex), "%096lX", n);
            strID = std::to_string(kolvtest::kAlice) + "_" + szHex;
        },
        [&](long) { return CreateWith(strID, "tbmM", 0); },
        [&](bool blOk, long) {
            Json::Value jNow = Read(strID);
            Json::Value jRow = Row(strID);
            if (blOk) {
                ASSERT_FALSE(jNow.isNull()) << "a created object cannot be read: " << StackText();
                EXPECT_EQ(PartContent(Content(jNow), "tbmM", 0), Content(jNow));
                EXPECT_TRUE(jRow.isNull() || jRow == jNow) << jRow;
                return;
            }
            EXPECT_FALSE(stdfs::exists(NsDir() + "/" + strID)) << "a failed create left its folder";
            EXPECT_TRUE(jRow.isNull()) << jRow;
            EXPECT_TRUE(CreateWith(strID, "t", 1)) << StackText(); // the same id again
        });
    EXPECT_GT(cCreate, 10);
    if (HasFailure()) return;

    // Set, one part or several at once: alternate variants so every call
    // changes something.
    const char *const rgParts[] = {"tb", "b", "m", "M"};
    long cCall = 0;
    for (const char *szParts : rgParts) {
        std::string strParts(szParts);
        Json::Value jBefore, jRowBefore;
        int v = 0;
        long cSet =
            EveryFault((std::string("set ") + szParts).c_str(),
                       [&](long) {
                           jBefore = Read(strID);
                           jRowBefore = Row(strID);
                           // The variant the object does not hold yet, so the call changes it.
                           v = PartContent(Content(jBefore), strParts, 0) == Content(jBefore) ? 1 : 0;
                       },
                       [&](long) {
                           Json::Value jParm = Request(strParts, v);
                           jParm["ns"] = "note";
                           jParm["id"] = strID;
                           jParm["requester"] = kolvtest::kAlice;
                           jParm["version"] = jBefore["version"];
                           // A later time each call: a key's older or
                           // equal time loses to the stored one.
                           jParm["mtime"] = static_cast<Json::Int64>(time(NULL)) + (++cCall);
                           KOLV_VESSA_OBJECT obj;
                           return obj.Set(jParm);
                       },
                       [&](bool blOk, long) {
                           Json::Value jNow = Read(strID);
                           ASSERT_FALSE(jNow.isNull()) << "unreadable after set: " << StackText();
                           bool blVersioned = strParts.find_first_of("tb") != std::string::npos;
                           bool blOld = Content(jNow) == Content(jBefore) && jNow["version"] == jBefore["version"];
                           bool blNew = Content(jNow) == PartContent(Content(jBefore), strParts, v) &&
                                        (jNow["version"] != jBefore["version"]) == blVersioned;
                           EXPECT_TRUE(blOld || blNew) << "before " << jBefore << "\nnow " << jNow;
                           if (blOk) {
                               EXPECT_TRUE(blNew) << "before " << jBefore << "\nnow " << jNow;
                           }
                           Json::Value jRow = Row(strID);
                           EXPECT_TRUE(jRow == jRowBefore || jRow == jNow) << "row " << jRow << "\nnow " << jNow;
                       });
        EXPECT_GT(cSet, 10) << szParts;
        if (HasFailure()) return;
    }

    // Copy: a new object whole, or none.
    std::set<std::string> before = Objects();
    long cCopy = EveryFault(
        "copy", [](long) {},
        [&](long) {
            KOLV_VESSA_OBJECT obj;
            return obj.Copy(GetParm(strID, kolvtest::kAlice));
        },
        [&](bool blOk, long) {
            std::set<std::string> now = Objects();
            std::vector<std::string> added;
            for (const std::string &str : now)
                if (!before.count(str)) added.push_back(str);
            ASSERT_GE(1u, added.size());
            EXPECT_EQ(blOk ? 1u : added.size(), added.size());
            if (added.empty()) return;
            Json::Value jCopy = Read(added[0]);
            ASSERT_FALSE(jCopy.isNull()) << "the copy cannot be read: " << StackText();
            EXPECT_EQ(Content(Read(strID)), Content(jCopy));
            Json::Value jRow = Row(added[0]);
            EXPECT_TRUE(jRow.isNull() || jRow == jCopy) << jRow;
            before = now;
        });
    EXPECT_GT(cCopy, 10);
}

TEST_F(FaultTest, AFailedRenameListingOrDeleteLeavesTheObjectWholeAtItsOldNames) {
    const std::string strID = KOLVVessaObjectGenerateID(kolvtest::kAlice), strDir = NsDir() + "/" + strID;
    ASSERT_TRUE(CreateWith(strID, "tbmM", 0)) << StackText();
    long long mtime = time(NULL);
    auto rename = [&](const char *szSegment, const char *szOld, const char *szNew) {
        Json::Value j = GetParm(strID, kolvtest::kAlice);
        j["segment"] = szSegment;
        j["old_field"] = szOld;
        j["new_field"] = szNew;
        j["version"] = Read(strID)["version"];
        j["mtime"] = static_cast<Json::Int64>(++mtime);
        return KOLV_VESSA_OBJECT().FieldRename(j);
    };
    // Each segment renamed (and put back for the next fault point), or
    // whole under its old names after a failure.
    const char *const rgRename[][3] = {
        {"text", "t", "u"}, {"binary", kName, "c.bin"}, {"metatext", "m", "k"}, {"metabinary", kMetaName, "mc"}};
    Json::Value jBefore;
    for (const auto &r : rgRename) {
        long cRename = EveryFault((std::string("rename ") + r[0]).c_str(), [&](long) { jBefore = Read(strID); },
                                  [&](long) { return rename(r[0], r[1], r[2]); },
                                  [&](bool blOk, long) {
                                      Json::Value jNow = Read(strID), jDone = Shape(jBefore);
                                      jDone[r[0]][r[2]] = jDone[r[0]][r[1]];
                                      jDone[r[0]].removeMember(r[1]);
                                      bool blDone = Shape(jNow) == jDone;
                                      EXPECT_TRUE(blDone || (!blOk && Shape(jNow) == Shape(jBefore)))
                                          << jBefore << "\nnow " << jNow;
                                      ASSERT_TRUE(!blDone || rename(r[0], r[2], r[1])) << StackText();
                                  });
        EXPECT_GT(cRename, 10) << r[0];
    }

    // A version listing: every version, or a failure and no chain.
    const int cVersions = std::stoi(Git(strID, "rev-list --all --count"));
    int cChain = 0;
    long cList = EveryFault(
        "version list", [](long) {},
        [&](long) {
            KOLV_VESSA_OBJECT_VERSION *pHead = NULL;
            unsigned total = 0, listable = 0;
            int count = KOLVVessaObjectVersionList(GetParm(strID, kolvtest::kAlice), &pHead, total, listable);
            cChain = 0;
            for (KOLV_VESSA_OBJECT_VERSION *p = pHead; p; p = p->m_next)
                cChain++;
            KOLVVessaObjectVersionFreeList(pHead);
            return 0 <= count;
        },
        [&](bool blOk, long) { EXPECT_EQ(blOk ? cVersions : 0, cChain); });
    EXPECT_GT(cList, 1);

    // A delete: the folder gone, or the object whole after a failure (and
    // made again for the next fault point).
    long cDelete = EveryFault(
        "delete",
        [&](long) {
            ASSERT_TRUE(stdfs::exists(stdfs::symlink_status(strDir)) || CreateWith(strID, "tbmM", 0));
            jBefore = Read(strID);
        },
        [&](long) { return KOLV_VESSA_OBJECT().Delete(GetParm(strID, kolvtest::kAlice)); },
        [&](bool blOk, long) {
            EXPECT_TRUE(!stdfs::exists(stdfs::symlink_status(strDir)) ||
                        (!blOk && Shape(Read(strID)) == Shape(jBefore)));
        });
    EXPECT_GT(cDelete, 2);
}

} // namespace
