/*
 * kolvvessa - the object store from the command line.
 *
 *     kolvvessa [--pretty] VERB [--SWITCH] [JSON]   (JSON from the argument, or standard input)
 *     kolvvessa --version
 *
 * Prints the result as JSON on standard output (one line; indented with
 * --pretty); on failure prints the error stack on standard error and exits
 * with status 1 (2 for a usage error). The check exits 0 when the store is
 * clean, 1 when findings remain, 2 when it cannot run.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <exception>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>

#include "tool_verbs.h"

namespace {

bool IsCheck(const kolvtool::Verb &verb) {
    return !strcmp(verb.szName, "check");
}

// " [--NAME VALUE]…" of a verb's switches.
std::string SwitchUsage(const kolvtool::Verb &verb) {
    std::string str;
    for (const kolvtool::Switch *p = verb.pSwitches; p && p->szName; ++p)
        str += std::string(" [--") + p->szName + (p->szValue ? std::string(" ") + p->szValue : "") + "]";
    return str;
}

void PrintUsage(FILE *pOut) {
    fprintf(pOut, "usage: kolvvessa [--pretty] VERB [--SWITCH [VALUE]]... [JSON]\n"
                  "       kolvvessa VERB --help\n"
                  "       kolvvessa --version\n\n"
                  "The request is a JSON object, given as the argument or on standard input.\n"
                  "\"requester\" is the acting uid (0: the system). The result is printed as JSON\n"
                  "on one line; --pretty indents it. Verbs (and their switches):\n\n");
    for (const kolvtool::Verb &verb : kolvtool::Verbs()) {
        fprintf(pOut, "  %-16s %s\n", verb.szName, verb.szSummary);
        std::string strSwitches = SwitchUsage(verb);
        if (!strSwitches.empty()) fprintf(pOut, "  %-16s%s\n", "", strSwitches.c_str());
    }
    fprintf(pOut, "\nThe appliance paths (settings, platform config, repository volume) are taken\n"
                  "below $KOLV_SYSROOT when it is set.\n");
}

// The example shows the verb's first switch when it is a plain one.
void PrintVerbHelp(const kolvtool::Verb &verb) {
    const kolvtool::Switch *pFirst = verb.pSwitches;
    std::string strExample = pFirst && pFirst->szName && kolvtool::Switch::kTrue == pFirst->kind
                                 ? std::string(" --") + pFirst->szName
                                 : std::string();
    printf("kolvvessa %s%s - %s\n\n%s\n\nExample:\n  kolvvessa %s%s '%s'\n", verb.szName, SwitchUsage(verb).c_str(),
           verb.szSummary, verb.szHelp, verb.szName, strExample.c_str(), verb.szExample);
}

const kolvtool::Switch *FindSwitch(const kolvtool::Verb &verb, const char *szName) {
    for (const kolvtool::Switch *p = verb.pSwitches; p && p->szName; ++p) {
        if (!strcmp(p->szName, szName)) return p;
    }
    return NULL;
}

// One switch's member of the request, its value (if it takes one) read
// from the next argument; false with the reason on standard error.
bool ReadSwitch(const kolvtool::Verb &verb, const kolvtool::Switch &sw, int &argi, int argc, char **argv,
                Json::Value &jSwitches) {
    if (kolvtool::Switch::kTrue == sw.kind || kolvtool::Switch::kFalse == sw.kind) {
        jSwitches[sw.szKey] = kolvtool::Switch::kTrue == sw.kind;
        return true;
    }
    if (argi + 1 >= argc) {
        fprintf(stderr, "kolvvessa: %s: --%s without its value\n", verb.szName, sw.szName);
        return false;
    }
    const char *szValue = argv[++argi];
    if (kolvtool::Switch::kText == sw.kind) {
        jSwitches[sw.szKey] = szValue;
        return true;
    }
    char *pEnd = NULL;
    long long seconds = strtoll(szValue, &pEnd, 10);
    if (!*szValue || *pEnd || seconds < 0) {
        fprintf(stderr, "kolvvessa: --%s takes a number of seconds, not \"%s\"\n", sw.szName, szValue);
        return false;
    }
    jSwitches[sw.szKey] = (Json::Int64)seconds;
    return true;
}

// The verb's switches come before the request. Anything else starting
// with "--" is a usage error.
bool ReadSwitches(const kolvtool::Verb &verb, int &argi, int argc, char **argv, Json::Value &jSwitches) {
    for (; argi < argc && 0 == strncmp(argv[argi], "--", 2); ++argi) {
        const kolvtool::Switch *pSwitch = FindSwitch(verb, argv[argi] + 2);
        if (!pSwitch) {
            fprintf(stderr, "kolvvessa: %s takes no switch \"%s\"\n", verb.szName, argv[argi]);
            return false;
        }
        if (!ReadSwitch(verb, *pSwitch, argi, argc, argv, jSwitches)) return false;
    }
    return true;
}

bool ReadRequest(int argi, int argc, char **argv, Json::Value &jReq) {
    std::string strText;
    if (argi < argc && strcmp(argv[argi], "-") != 0) {
        strText = argv[argi];
    } else {
        strText.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    }
    if (strText.find_first_not_of(" \t\r\n") == std::string::npos) {
        jReq = Json::Value(Json::objectValue);
        return true;
    }
    Json::CharReaderBuilder builder;
    std::string strErr;
    std::istringstream iss(strText);
    bool blParsed = false;
    // The reader throws instead of answering false past its nesting
    // limit; either way the request is refused, never the tool aborted.
    try {
        blParsed = Json::parseFromStream(builder, iss, &jReq, &strErr);
    } catch (const std::exception &e) {
        strErr = e.what();
    }
    if (!blParsed || !jReq.isObject()) {
        fprintf(stderr, "kolvvessa: the request must be a JSON object: %s\n",
                strErr.empty() ? "it is not an object" : strErr.c_str());
        return false;
    }
    return true;
}

// Runs the verb and prints its result; 1 with the reason on failure. The
// check fails with 2 and answers 1 when findings remain.
int RunVerb(const kolvtool::Verb &verb, const Json::Value &jReq, bool blPretty) {
    Json::Value jOut;
    if (!verb.pfnRun(jReq, jOut)) {
        KOLVVessaErrPrint(stderr);
        return IsCheck(verb) ? 2 : 1;
    }
    Json::StreamWriterBuilder builder;
    builder["indentation"] = blPretty ? "  " : "";
    std::cout << Json::writeString(builder, jOut) << std::endl;
    return IsCheck(verb) && jOut["remaining"].asUInt() > 0 ? 1 : 0;
}

} // namespace

int main(int argc, char **argv) {
    int argv0 = 1;
    bool blPretty = argc > 1 && !strcmp(argv[1], "--pretty");
    if (blPretty) ++argv0;
    if (argc == 2 && !strcmp(argv[1], "--version")) {
        printf("kolvvessa %s\n", KOLVVessaVersion());
        return 0;
    }
    if (argc <= argv0 || !strcmp(argv[argv0], "--help") || !strcmp(argv[argv0], "-h")) {
        PrintUsage(argc <= argv0 ? stderr : stdout);
        return argc <= argv0 ? 2 : 0;
    }
    const kolvtool::Verb *pVerb = kolvtool::FindVerb(argv[argv0]);
    if (!pVerb) {
        fprintf(stderr, "kolvvessa: unknown verb \"%s\"\n\n", argv[argv0]);
        PrintUsage(stderr);
        return 2;
    }
    int argi = argv0 + 1;
    if (argc > argi && (!strcmp(argv[argi], "--help") || !strcmp(argv[argi], "-h"))) {
        PrintVerbHelp(*pVerb);
        return 0;
    }
    Json::Value jSwitches(Json::objectValue);
    if (!ReadSwitches(*pVerb, argi, argc, argv, jSwitches)) return 2;
    // The check's switches say it all: without a request it reads none.
    Json::Value jReq(Json::objectValue);
    if (!(IsCheck(*pVerb) && argi >= argc) && !ReadRequest(argi, argc, argv, jReq)) return 2;
    for (const std::string &strName : jSwitches.getMemberNames())
        jReq[strName] = jSwitches[strName];
    try {
        return RunVerb(*pVerb, jReq, blPretty);
    } catch (const std::exception &e) {
        fprintf(stderr, "kolvvessa: %s failed: %s\n", pVerb->szName, e.what());
    }
    return 1;
}
