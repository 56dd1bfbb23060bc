/*
 * bench_note.h - the note the benchmarks store: three text fields and one
 * binary file, owned and written by alice in the namespace "bench".
 */
#ifndef KOLV_BENCH_NOTE_H
#define KOLV_BENCH_NOTE_H

#include <json/json.h>

#include <string>

#include "support/kolv_test_support.h"

namespace kolvbench {

const char *const kTitle = "\"Quarterly notes\"";
const char *const kBody = "\"The first draft of the body text, long enough to look like a note.\"";
const char *const kTags = "[\"work\",\"draft\",\"q3\"]";

/* The file store's create request of the note, its binary file read from
 * strBinary. */
inline Json::Value NoteCreateRequest(const std::string &strBinary, long long mtime) {
    Json::Value j;
    j["ns"] = "bench";
    j["owner"] = kolvtest::kAlice;
    j["requester"] = kolvtest::kAlice;
    j["mtime"] = (Json::Int64)mtime;
    j["category"] = "note";
    j["text"]["title"] = kolvtest::ParseJson(kTitle);
    j["text"]["body"] = kolvtest::ParseJson(kBody);
    j["text"]["tags"] = kolvtest::ParseJson(kTags);
    Json::Value jBin;
    jBin["name"] = "attachment";
    jBin["format"] = "raw";
    jBin["path"] = strBinary;
    j["binary_files"].append(jBin);
    return j;
}

} // namespace kolvbench

#endif /* KOLV_BENCH_NOTE_H */
