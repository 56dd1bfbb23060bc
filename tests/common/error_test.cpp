// The error stack: origins replace it, callers append above, and the print
// and syslog forms list it outermost first.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <syslog.h>
#include <unistd.h>

#include <regex>
#include <string>

#include "kolvvessa/kolvvessa_error.h"

namespace {

// What KOLVVessaErrPrint writes, and its result.
std::string Printed(int *pResult) {
    char *pBuf = nullptr;
    size_t cb = 0;
    FILE *pFile = open_memstream(&pBuf, &cb);
    *pResult = KOLVVessaErrPrint(pFile);
    fclose(pFile);
    std::string str(pBuf, cb);
    free(pBuf);
    return str;
}

// What KOLVVessaErrSyslog writes: syslog copies every line to standard
// error under LOG_PERROR, which goes to a file meanwhile.
std::string Syslogged() {
    FILE *pFile = tmpfile();
    fflush(stderr);
    int fdSaved = dup(STDERR_FILENO);
    dup2(fileno(pFile), STDERR_FILENO);
    openlog("error_test", LOG_PERROR, LOG_USER);
    KOLVVessaErrSyslog();
    closelog();
    dup2(fdSaved, STDERR_FILENO);
    close(fdSaved);
    std::string str(lseek(fileno(pFile), 0, SEEK_END), '\0');
    EXPECT_EQ((ssize_t)str.size(), pread(fileno(pFile), &str[0], str.size(), 0));
    fclose(pFile);
    return str;
}

} // namespace

TEST(ErrorStack, OriginReplacesAndCallersAppend) {
    int result = -7;
    EXPECT_EQ(0, KOLVVessaErrCodeGet());
    EXPECT_EQ("", Printed(&result));
    EXPECT_EQ(0, result);
    EXPECT_EQ("", Syslogged());
    // A caller's record with no origin below it has no code.
    KOLVVessaErrAppendEx("object/object_get", 40, "%s", "!Get()");
    EXPECT_EQ(-1, KOLVVessaErrCodeGet());
    EXPECT_EQ("kolvvessa call stack:\n  !Get() (object/object_get:40)\n", Printed(&result));
    EXPECT_EQ(0, result);

    KOLVVessaErrSetEx(1008, "a", 1, "first");
    KOLVVessaErrAppendEx("b", 2, "caller %d", 2);
    KOLVVessaErrSetEx(1002, "c", 3, "second");
    ASSERT_EQ(1u, KOLVVessaErrMsgGet().size());
    KOLVVessaErrAppendEx("d", 4, "outer");
    KOLVVessaErrAppendEx(NULL, 5, NULL);
    Json::Value &jStack = KOLVVessaErrMsgGet();
    ASSERT_EQ(3u, jStack.size());
    EXPECT_EQ(1002, KOLVVessaErrCodeGet()); // the origin's, never an appended one
    EXPECT_EQ("second", jStack[0]["msg"].asString());
    EXPECT_FALSE(jStack[1].isMember("code"));
    EXPECT_EQ("outer", jStack[1]["msg"].asString());
    EXPECT_EQ("", jStack[2]["msg"].asString());
    EXPECT_EQ(5, jStack[2]["line"].asInt());

    // A text past the first 1024-byte buffer is kept whole.
    std::string strLong = std::string(5000, 'x') + "end";
    KOLVVessaErrSetEx(1000, "e", 6, "%s", strLong.c_str());
    EXPECT_EQ(strLong, KOLVVessaErrMsgGet()[0]["msg"].asString());
}

TEST(ErrorStack, PrintSyslogFormsAndLocalisedKeys) {
    KOLVVessaErrSetEx(1007, "common/kolvvessa_id", 12, "NULL == id");
    KOLVVessaErrAppendEx("object/object_get", 34, "!KOLVVessaObjectIDIsValid(szID)");
    KOLVVessaErrAppendEx("object/object_set", 56, "outer");
    // Missing members print as "----" and 0.
    Json::Value &jOuter = KOLVVessaErrMsgGet()[2];
    for (const char *szKey : {"msg", "file", "line"})
        jOuter.removeMember(szKey);
    int result = 0;
    EXPECT_EQ("kolvvessa call stack:\n"
              "  ---- (----:0)\n"
              "  !KOLVVessaObjectIDIsValid(szID) (object/object_get:34)\n"
              "  NULL == id (common/kolvvessa_id:12)\n"
              "  ErrNo=[1007] (User input error.)\n",
              Printed(&result));
    EXPECT_NE(0, result);
    std::string strLog = Syslogged();
    std::regex reLog("error_test: common/kolvvessa_error:[0-9]+ kolvvessa call stack:\n"
                     "error_test: common/kolvvessa_error:[0-9]+   ---- \\(----:0\\)\n"
                     "error_test: common/kolvvessa_error:[0-9]+   !KOLVVessaObjectIDIsValid\\(szID\\) "
                     "\\(object/object_get:34\\)\n"
                     "error_test: common/kolvvessa_error:[0-9]+   NULL == id \\(common/kolvvessa_id:12\\)\n"
                     "error_test: common/kolvvessa_error:[0-9]+   ErrNo=\\[1007\\] \\(User input error.\\)\n");
    EXPECT_TRUE(std::regex_match(strLog, reLog)) << strLog;

    // A code without a row in the table prints no ErrNo line.
    KOLVVessaErrSetEx(KOLV_ERR_ID_EXISTS, "object/object_create", 7, "exists");
    EXPECT_EQ("kolvvessa call stack:\n  exists (object/object_create:7)\n", Printed(&result));
    EXPECT_NE(0, result);
    EXPECT_EQ(std::string::npos, Syslogged().find("ErrNo"));

    const char *szSection = "untouched";
    EXPECT_STREQ("error_system", KOLVVessaErrGetString(1000, &szSection));
    EXPECT_STREQ("common", szSection);
    EXPECT_EQ(nullptr, KOLVVessaErrGetString(1001, &szSection));
    EXPECT_STREQ("", szSection);
    szSection = "untouched";
    EXPECT_STREQ("", KOLVVessaErrGetString(KOLV_ERR_ID_EXISTS, &szSection));
    EXPECT_STREQ("untouched", szSection);
    EXPECT_STREQ("error_system", KOLVVessaErrGetString(1000, NULL));
}
