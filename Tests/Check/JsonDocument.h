#pragma once
// The documents qxinspect --json prints, read back: a JSON reader for one
// document, and a check of a document against the subset of JSON Schema
// that qxinspect.schema.json uses (type, const, enum, pattern, minimum,
// properties, required, additionalProperties, items, oneOf, $ref).

#include <string>
#include <utility>
#include <vector>

namespace QXTest
{
struct JsonValue
{
    enum class Kind
    {
        Null,
        Bool,
        Number,
        String,
        Array,
        Object,
        Absent, // what a missing member or index reads as
    };
    Kind kind = Kind::Absent;
    bool boolean = false;
    double number = 0;
    bool integer = false;
    std::string text; // strings, as UTF-8
    std::vector<JsonValue> items;
    std::vector<std::pair<std::string, JsonValue>> members;

    const JsonValue& operator[](const std::string& key) const;
    const JsonValue& operator[](size_t index) const;
    bool Has(const std::string& key) const { return (*this)[key].kind != Kind::Absent; }
    // The string, "true"/"false", the number or "null"; "(absent)" when missing.
    std::string Str() const;
};

// The whole text is one JSON value (white space around it allowed).
bool ParseJson(const std::string& text, JsonValue& value, std::string& error);
// Where document breaks schema (the node at #/$defs/NAME of root, or root
// itself for an empty name): "path: reason" per break, none when it follows it.
std::vector<std::string> SchemaBreaks(const JsonValue& document, const JsonValue& root, const std::string& name = "");
} // namespace QXTest
