/*
 * kolvvessa - the object store from the command line.
 *
 *     kolvvessa VERB [--SWITCH] [JSON]   (JSON from the argument, or standard input)
 *
 * Prints the result as JSON on standard output; on failure prints the
 * error stack on standard error and exits with status 1 (2 for a usage
 * error).
 */
#include <stdio.h>
#include <string.h>

#include <exception>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>

#include "tool_verbs.h"

namespace {

void PrintUsage(FILE *pOut) {
    fprintf(pOut, "usage: kolvvessa VERB [--SWITCH] [JSON]\n"
                  "       kolvvessa VERB --help\n\n"
                  "The request is a JSON object, given as the argument or on standard input.\n"
                  "\"requester\" is the acting uid (0: the system). Verbs:\n\n");
    for (const kolvtool::Verb &verb : kolvtool::Verbs())
        fprintf(pOut, "  %-16s %s\n", verb.szName, verb.szSummary);
    fprintf(pOut, "\nThe appliance paths (settings, platform config, repository volume) are taken\n"
                  "below $KOLV_SYSROOT when it is set.\n");
}

void PrintVerbHelp(const kolvtool::Verb &verb) {
    std::string strSwitch = verb.szSwitch ? std::string(" --") + verb.szSwitch : std::string();
    printf("kolvvessa %s - %s\n\n%s\n\nExample:\n  kolvvessa %s%s '%s'\n", verb.szName, verb.szSummary, verb.szHelp,
           verb.szName, strSwitch.c_str(), verb.szExample);
}

// The verb's switch, when given, comes before the request: "--NAME" sets
// "NAME": true. Anything else starting with "--" is a usage error.
bool ReadSwitch(const kolvtool::Verb &verb, int &argi, int argc, char **argv, bool &blSwitch) {
    blSwitch = false;
    if (argi >= argc || strncmp(argv[argi], "--", 2) != 0) return true;
    if (!verb.szSwitch || strcmp(argv[argi] + 2, verb.szSwitch) != 0) {
        fprintf(stderr, "kolvvessa: %s takes no switch \"%s\"\n", verb.szName, argv[argi]);
        return false;
    }
    blSwitch = true;
    ++argi;
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

// Runs the verb and prints its result; 1 with the reason on failure.
int RunVerb(const kolvtool::Verb &verb, const Json::Value &jReq) {
    Json::Value jOut;
    if (!verb.pfnRun(jReq, jOut)) {
        KOLVVessaErrPrint(stderr);
        return 1;
    }
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    std::cout << Json::writeString(builder, jOut) << std::endl;
    return 0;
}

} // namespace

int main(int argc, char **argv) {
    if (argc < 2 || !strcmp(argv[1], "--help") || !strcmp(argv[1], "-h")) {
        PrintUsage(argc < 2 ? stderr : stdout);
        return argc < 2 ? 2 : 0;
    }
    const kolvtool::Verb *pVerb = kolvtool::FindVerb(argv[1]);
    if (!pVerb) {
        fprintf(stderr, "kolvvessa: unknown verb \"%s\"\n\n", argv[1]);
        PrintUsage(stderr);
        return 2;
    }
    if (argc > 2 && (!strcmp(argv[2], "--help") || !strcmp(argv[2], "-h"))) {
        PrintVerbHelp(*pVerb);
        return 0;
    }
    int argi = 2;
    bool blSwitch = false;
    if (!ReadSwitch(*pVerb, argi, argc, argv, blSwitch)) return 2;
    Json::Value jReq;
    if (!ReadRequest(argi, argc, argv, jReq)) return 2;
    if (blSwitch) jReq[pVerb->szSwitch] = true;
    try {
        return RunVerb(*pVerb, jReq);
    } catch (const std::exception &e) {
        fprintf(stderr, "kolvvessa: %s failed: %s\n", pVerb->szName, e.what());
    }
    return 1;
}
