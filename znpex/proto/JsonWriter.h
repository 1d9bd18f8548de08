// Appends compact JSON to a string, for the hot paths where building a Json
// tree first would cost more than the message itself. Strings come out as
// dumpJson prints them (invalid UTF-8 replaced); numbers as the shortest text
// that reads back to the same value. The caller keeps the structure right:
// a key before each value in an object, every container closed.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace znpex::proto {

class JsonWriter {
public:
    explicit JsonWriter(std::string& out) : out_(out) {}

    JsonWriter& beginObject();
    JsonWriter& endObject();
    JsonWriter& beginArray();
    JsonWriter& endArray();
    JsonWriter& key(std::string_view k);
    JsonWriter& string(std::string_view s);
    JsonWriter& integer(int64_t v);
    JsonWriter& unsignedInteger(uint64_t v);
    // Finite values only; the value codec writes the others as text.
    JsonWriter& number(double v);
    JsonWriter& boolean(bool v);
    JsonWriter& null();
    // One JSON value already in text form.
    JsonWriter& raw(std::string_view json);

private:
    void separate();

    std::string& out_;
    bool comma_ = false;  // a value precedes at this level
};

}  // namespace znpex::proto
