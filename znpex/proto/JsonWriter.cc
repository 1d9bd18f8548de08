#include "znpex/proto/JsonWriter.h"

#include <charconv>
#include <cmath>
#include <stdexcept>

#include "znpex/proto/Json.h"

namespace znpex::proto {
namespace {

// Printable ASCII other than the two characters JSON escapes.
bool plain(std::string_view s) {
    for (char ch : s) {
        auto c = static_cast<unsigned char>(ch);
        if (c < 0x20 || c > 0x7e || c == '"' || c == '\\') {
            return false;
        }
    }
    return true;
}

template <typename T>
void appendNumber(std::string& out, T v) {
    char buf[32];
    auto r = std::to_chars(buf, buf + sizeof buf, v);
    out.append(buf, r.ptr);
}

}  // namespace

void JsonWriter::separate() {
    if (comma_) {
        out_ += ',';
    }
    comma_ = true;
}

JsonWriter& JsonWriter::beginObject() {
    separate();
    out_ += '{';
    comma_ = false;
    return *this;
}

JsonWriter& JsonWriter::endObject() {
    out_ += '}';
    comma_ = true;
    return *this;
}

JsonWriter& JsonWriter::beginArray() {
    separate();
    out_ += '[';
    comma_ = false;
    return *this;
}

JsonWriter& JsonWriter::endArray() {
    out_ += ']';
    comma_ = true;
    return *this;
}

JsonWriter& JsonWriter::key(std::string_view k) {
    string(k);
    out_ += ':';
    comma_ = false;
    return *this;
}

JsonWriter& JsonWriter::string(std::string_view s) {
    separate();
    if (plain(s)) {
        out_ += '"';
        out_.append(s);
        out_ += '"';
    } else {
        // Escapes and UTF-8 repair exactly as everywhere else.
        out_ += dumpJson(Json(std::string(s)));
    }
    return *this;
}

JsonWriter& JsonWriter::integer(int64_t v) {
    separate();
    appendNumber(out_, v);
    return *this;
}

JsonWriter& JsonWriter::unsignedInteger(uint64_t v) {
    separate();
    appendNumber(out_, v);
    return *this;
}

JsonWriter& JsonWriter::number(double v) {
    if (!std::isfinite(v)) {
        throw std::invalid_argument("JSON has no text for a number that is not finite");
    }
    separate();
    if (v == 0 && std::signbit(v)) {
        out_ += "-0.0";  // "-0" would read back as the integer 0
    } else {
        appendNumber(out_, v);
    }
    return *this;
}

JsonWriter& JsonWriter::boolean(bool v) {
    separate();
    out_ += v ? "true" : "false";
    return *this;
}

JsonWriter& JsonWriter::null() {
    separate();
    out_ += "null";
    return *this;
}

JsonWriter& JsonWriter::raw(std::string_view json) {
    separate();
    out_.append(json);
    return *this;
}

}  // namespace znpex::proto
