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

const char szCheckUsage[] = "kolvvessa check [--repair] [--ns NS] [--id ID] [--safe-age SECONDS] [--no-blobs]\n"
                            "  checks the repository and the index: rows missing, orphaned or drifted, objects\n"
                            "  a reindex skips, broken histories, JSON files that do not parse, leftovers of\n"
                            "  interrupted writes, links where the store keeps its own files. --repair re-indexes,\n"
                            "  deletes orphaned rows and removes leftovers older than the safe age (3600 s);\n"
                            "  it never changes an object's content, history or meta files. The report is JSON\n"
                            "  on standard output; exit status 0 when clean, 1 when findings remain, 2 when the\n"
                            "  check cannot run.";

bool IsCheck(const kolvtool::Verb &verb) {
    return !strcmp(verb.szName, "check");
}

void PrintUsage(FILE *pOut) {
    fprintf(pOut, "usage: kolvvessa [--pretty] VERB [--SWITCH] [JSON]\n"
                  "       kolvvessa VERB --help\n"
                  "       kolvvessa --version\n\n"
                  "The request is a JSON object, given as the argument or on standard input.\n"
                  "\"requester\" is the acting uid (0: the system). The result is printed as JSON\n"
                  "on one line; --pretty indents it. Verbs:\n\n");
    for (const kolvtool::Verb &verb : kolvtool::Verbs())
        fprintf(pOut, "  %-16s %s\n", verb.szName, verb.szSummary);
    fprintf(pOut,
            "\n%s\n\nThe appliance paths (settings, platform config, repository volume) are taken\n"
            "below $KOLV_SYSROOT when it is set.\n",
            szCheckUsage);
}

void PrintVerbHelp(const kolvtool::Verb &verb) {
    std::string strSwitch = verb.szSwitch ? std::string(" --") + verb.szSwitch : std::string();
    printf("kolvvessa %s - %s\n\n%s\n\nExample:\n  kolvvessa %s%s '%s'\n", verb.szName, verb.szSummary, verb.szHelp,
           verb.szName, strSwitch.c_str(), verb.szExample);
    if (IsCheck(verb)) printf("\n%s\n", szCheckUsage);
}

// The check's switches, before the request: --repair, --no-blobs, and
// --ns, --id, --safe-age with a value.
bool ReadCheckSwitches(int &argi, int argc, char **argv, Json::Value &jSwitches) {
    jSwitches = Json::Value(Json::objectValue);
    for (; argi < argc && 0 == strncmp(argv[argi], "--", 2); ++argi) {
        const char *szName = argv[argi] + 2;
        if (!strcmp(szName, "repair")) {
            jSwitches["repair"] = true;
        } else if (!strcmp(szName, "no-blobs")) {
            jSwitches["blobs"] = false;
        } else if ((!strcmp(szName, "ns") || !strcmp(szName, "id") || !strcmp(szName, "safe-age")) && argi + 1 < argc) {
            const char *szValue = argv[++argi];
            if (strcmp(szName, "safe-age")) {
                jSwitches[szName] = szValue;
                continue;
            }
            char *pEnd = NULL;
            long long age = strtoll(szValue, &pEnd, 10);
            if (!*szValue || *pEnd || age < 0) {
                fprintf(stderr, "kolvvessa: --safe-age takes a number of seconds, not \"%s\"\n", szValue);
                return false;
            }
            jSwitches["safe_age"] = (Json::Int64)age;
        } else {
            fprintf(stderr, "kolvvessa: check takes no switch \"%s\"%s\n", argv[argi],
                    argi + 1 < argc ? "" : " (or it lacks its value)");
            return false;
        }
    }
    return true;
}

// Switches with a value: "--NAME VALUE" sets "NAME": "VALUE" in the
// request of that verb.
bool TakesValue(const kolvtool::Verb &verb, const char *szName) {
    return !strcmp(verb.szName, "list") && !strcmp(szName, "search");
}

// The verb's switches, when given, come before the request: "--NAME" sets
// "NAME": true (once), a switch with a value its value. Anything else
// starting with "--" is a usage error.
bool ReadSwitch(const kolvtool::Verb &verb, int &argi, int argc, char **argv, bool &blSwitch, Json::Value &jSwitches) {
    blSwitch = false;
    for (; argi < argc && strncmp(argv[argi], "--", 2) == 0; ++argi) {
        const char *szName = argv[argi] + 2;
        if (TakesValue(verb, szName) && argi + 1 < argc) {
            jSwitches[szName] = argv[++argi];
            continue;
        }
        if (blSwitch || !verb.szSwitch || strcmp(szName, verb.szSwitch) != 0) {
            fprintf(stderr, "kolvvessa: %s takes no switch \"%s\"%s\n", verb.szName, argv[argi],
                    TakesValue(verb, szName) ? " without its value" : "");
            return false;
        }
        blSwitch = true;
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
    bool blSwitch = false;
    Json::Value jSwitches(Json::objectValue);
    if (IsCheck(*pVerb) ? !ReadCheckSwitches(argi, argc, argv, jSwitches)
                        : !ReadSwitch(*pVerb, argi, argc, argv, blSwitch, jSwitches))
        return 2;
    // The check's switches say it all: without a request it reads none.
    Json::Value jReq(Json::objectValue);
    if (!(IsCheck(*pVerb) && argi >= argc) && !ReadRequest(argi, argc, argv, jReq)) return 2;
    if (blSwitch) jReq[pVerb->szSwitch] = true;
    for (const std::string &strName : jSwitches.getMemberNames())
        jReq[strName] = jSwitches[strName];
    try {
        return RunVerb(*pVerb, jReq, blPretty);
    } catch (const std::exception &e) {
        fprintf(stderr, "kolvvessa: %s failed: %s\n", pVerb->szName, e.what());
    }
    return 1;
}
