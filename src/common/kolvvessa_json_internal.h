/*
 * kolvvessa_json_internal.h - Json::Value with the four conveniences the
 * store uses everywhere: parse from a file or a string, write to a file,
 * serialise compactly.
 */
#ifndef KOLVVESSA_JSON_INTERNAL_H
#define KOLVVESSA_JSON_INTERNAL_H

#include <json/json.h>

#include <string>

namespace kolv {

/* Compact one-line serialisation (no trailing newline). */
std::string JsonToString(const Json::Value &j);
/* Parses text into j; false (j untouched) when it does not parse. */
bool JsonFromString(Json::Value &j, const std::string &str);
/* Parses a whole file into j; false (j untouched) when it cannot be read or
 * does not parse. */
bool JsonFromFile(Json::Value &j, const std::string &strPath);

/* A Json::Value that reads and writes itself. */
class KolvJson : public Json::Value {
  public:
    using Json::Value::Value;
    KolvJson() : Json::Value() {}
    KolvJson(const Json::Value &j) : Json::Value(j) {}
    KolvJson &operator=(const Json::Value &j) {
        Json::Value::operator=(j);
        return *this;
    }

    bool fromFile(const std::string &strPath) { return JsonFromFile(*this, strPath); }
    bool fromString(const std::string &str) { return JsonFromString(*this, str); }
    /* Writes the value safely (KOLVVessaJsonToFile). */
    bool toFile(const std::string &strPath) const;
    std::string toString() const { return JsonToString(*this); }
};

} // namespace kolv

#endif /* KOLVVESSA_JSON_INTERNAL_H */
