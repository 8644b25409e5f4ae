#include "JsonDocument.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <regex>

namespace QXTest
{
namespace
{
const JsonValue Absent;
using Kind = JsonValue::Kind;

// A reader of the JSON qxinspect writes: text is UTF-8, and \u escapes
// occur only for control characters.
struct Reader
{
    const std::string& text;
    size_t at = 0;

    void Blanks()
    {
        while (at < text.size() && std::strchr(" \t\r\n", text[at]) != nullptr && text[at] != '\0')
            ++at;
    }
    bool Next(char c) { return Blanks(), at < text.size() && text[at] == c && ++at; }
    bool Word(const std::string& w, JsonValue& v, Kind kind, bool boolean)
    {
        v.kind = kind, v.boolean = boolean;
        return text.compare(at, w.size(), w) == 0 && (at += w.size());
    }
    bool String(std::string& out)
    {
        for (++at; at < text.size() && text[at] != '"'; ++at)
        {
            if (text[at] != '\\')
            {
                out += text[at];
                continue;
            }
            const char e = text[++at];
            const char* simple = std::strchr("\"\\/b\bf\fn\nr\rt\t", e);
            if (e == 'u' && at + 4 < text.size())
                out += static_cast<char>(std::strtoul(text.substr(at + 1, 4).c_str(), nullptr, 16)), at += 4;
            else if (simple != nullptr && e != '\0')
                out += e == '"' || e == '\\' || e == '/' ? e : simple[1];
            else
                return false;
        }
        return at++ < text.size();
    }
    bool Value(JsonValue& v, int depth)
    {
        Blanks();
        if (depth > 64 || at >= text.size())
            return false;
        switch (text[at])
        {
        case 'n': return Word("null", v, Kind::Null, false);
        case 't': return Word("true", v, Kind::Bool, true);
        case 'f': return Word("false", v, Kind::Bool, false);
        case '"': return v.kind = Kind::String, String(v.text);
        case '[':
        case '{':
        {
            const bool object = text[at++] == '{';
            v.kind = object ? Kind::Object : Kind::Array;
            if (Next(object ? '}' : ']'))
                return true;
            do
            {
                if (object)
                {
                    v.members.emplace_back();
                    if (!Next('"') || (--at, !String(v.members.back().first)) || !Next(':') ||
                        !Value(v.members.back().second, depth + 1))
                        return false;
                }
                else if (v.items.emplace_back(), !Value(v.items.back(), depth + 1))
                    return false;
            } while (Next(','));
            return Next(object ? '}' : ']');
        }
        default:
        {
            char* end = nullptr;
            v.number = std::strtod(text.c_str() + at, &end);
            const size_t length = static_cast<size_t>(end - (text.c_str() + at));
            v.kind = Kind::Number;
            v.integer = text.substr(at, length).find_first_of(".eE") == std::string::npos;
            at += length;
            return length > 0;
        }
        }
    }
};

const char* KindName(const JsonValue& v)
{
    const char* names[] = {"null", "boolean", "number", "string", "array", "object", "absent"};
    return v.kind == Kind::Number && v.integer ? "integer" : names[static_cast<int>(v.kind)];
}

bool Same(const JsonValue& a, const JsonValue& b)
{
    return a.kind == b.kind && a.Str() == b.Str();
}

void Check(const JsonValue& v, const JsonValue& schema, const JsonValue& root, const std::string& path,
           std::vector<std::string>& breaks)
{
    auto broken = [&](const std::string& why) { breaks.push_back((path.empty() ? "/" : path) + ": " + why); };
    if (schema.Has("$ref"))
    {
        const std::string ref = schema["$ref"].text, prefix = "#/$defs/";
        if (ref.compare(0, prefix.size(), prefix) != 0 || !root["$defs"].Has(ref.substr(prefix.size())))
            return broken("unknown $ref " + ref);
        return Check(v, root["$defs"][ref.substr(prefix.size())], root, path, breaks);
    }
    if (schema.Has("oneOf"))
    {
        size_t holding = 0;
        std::vector<std::string> closest;
        for (const JsonValue& option : schema["oneOf"].items)
        {
            std::vector<std::string> found;
            Check(v, option, root, path, found);
            holding += found.empty() ? 1 : 0;
            if (closest.empty() || (!found.empty() && found.size() < closest.size()))
                closest = found;
        }
        if (holding != 1)
            broken(std::to_string(holding) + " of the oneOf alternatives hold"),
                breaks.insert(breaks.end(), closest.begin(), closest.end());
        return;
    }
    if (schema.Has("type"))
    {
        const JsonValue& type = schema["type"];
        bool any = false;
        for (const JsonValue& t : type.kind == Kind::Array ? type.items : std::vector<JsonValue>{type})
            any = any || t.text == KindName(v) || (t.text == "number" && v.kind == Kind::Number);
        if (!any)
            return broken(std::string("a ") + KindName(v) + ", not " + type.Str());
    }
    if (schema.Has("const") && !Same(v, schema["const"]))
        broken("not " + schema["const"].Str());
    bool listed = !schema.Has("enum");
    for (const JsonValue& e : schema["enum"].items)
        listed = listed || Same(v, e);
    if (!listed)
        broken(v.Str() + ": not one of the listed values");
    if (schema.Has("pattern") && !std::regex_search(v.text, std::regex(schema["pattern"].text)))
        broken("\"" + v.text + "\" does not match " + schema["pattern"].text);
    if (schema.Has("minimum") && v.number < schema["minimum"].number)
        broken("below the minimum");
    for (size_t k = 0; k < v.items.size(); ++k)
        Check(v.items[k], schema["items"], root, path + "/" + std::to_string(k), breaks);
    for (const JsonValue& name : schema["required"].items)
        if (!v.Has(name.text))
            broken("\"" + name.text + "\" is missing");
    const JsonValue& extra = schema["additionalProperties"];
    for (const auto& [name, member] : v.members)
        if (schema["properties"].Has(name) || extra.kind == Kind::Object)
            Check(member, schema["properties"].Has(name) ? schema["properties"][name] : extra, root, path + "/" + name,
                  breaks);
        else if (extra.kind == Kind::Bool && !extra.boolean)
            broken("\"" + name + "\" is not in the schema");
}
} // namespace

const JsonValue& JsonValue::operator[](const std::string& key) const
{
    for (const auto& [name, value] : members)
        if (name == key)
            return value;
    return Absent;
}

const JsonValue& JsonValue::operator[](size_t index) const
{
    return index < items.size() ? items[index] : Absent;
}

std::string JsonValue::Str() const
{
    char number[32];
    std::snprintf(number, sizeof number, "%.17g", this->number);
    switch (kind)
    {
    case Kind::String: return text;
    case Kind::Bool: return boolean ? "true" : "false";
    case Kind::Number: return number;
    case Kind::Null: return "null";
    case Kind::Absent: return "(absent)";
    default: return kind == Kind::Array ? "[...]" : "{...}";
    }
}

bool ParseJson(const std::string& text, JsonValue& value, std::string& error)
{
    Reader reader{text};
    value = JsonValue();
    const bool read = reader.Value(value, 0);
    reader.Blanks();
    error = read && reader.at == text.size() ? "" : "not one JSON document: stopped at offset " + std::to_string(reader.at);
    return error.empty();
}

std::vector<std::string> SchemaBreaks(const JsonValue& document, const JsonValue& root, const std::string& name)
{
    std::vector<std::string> breaks;
    Check(document, name.empty() ? root : root["$defs"][name], root, "", breaks);
    return breaks;
}
} // namespace QXTest
