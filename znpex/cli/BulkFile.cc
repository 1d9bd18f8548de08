#include "znpex/cli/BulkFile.h"

#include <set>

namespace znpex::cli {
namespace {

// Deeper than an object of arrays of scalars is never a value of an attribute.
constexpr int kMaxJsonDepth = 4;

// Stops the JSON parser from its callback with a reason.
struct JsonStop {
    std::string why;
};

bool blank(const std::string& s) {
    return s.find_first_not_of(" \t\r") == std::string::npos;
}

// nlohmann's message without its code and its "line 1" (a JSON line is one line).
std::string jsonProblem(const std::string& what) {
    size_t at = what.find("column ");
    return at == std::string::npos ? what : what.substr(at);
}

}  // namespace

BulkFileReader::BulkFileReader(std::istream& in, BulkLimits limits) : in_(in), limits_(limits) {}

// Past maxFileBytes the file reads as ended, and next() reports why.
int BulkFileReader::peek() {
    int c = in_.rdbuf()->sgetc();
    if (c != std::char_traits<char>::eof() && bytes_ >= limits_.maxFileBytes) {
        overflow_ = true;
        return std::char_traits<char>::eof();
    }
    return c;
}

int BulkFileReader::get() {
    if (peek() == std::char_traits<char>::eof()) {
        return std::char_traits<char>::eof();
    }
    int c = in_.rdbuf()->sbumpc();
    ++bytes_;
    if (c == '\n') {
        ++line_;
    }
    return c;
}

bool BulkFileReader::fail(size_t line, const std::string& why) {
    error_ = "line " + std::to_string(line) + ": " + why;
    done_ = true;
    return false;
}

bool BulkFileReader::start() {
    if (peek() == 0xEF) {
        get();
        if (get() != 0xBB || get() != 0xBF) {
            return fail(1, "the file starts with a broken byte order mark");
        }
    }
    for (int c = peek(); c == ' ' || c == '\t' || c == '\r' || c == '\n'; c = peek()) {
        get();
    }
    int first = peek();
    if (first == std::char_traits<char>::eof()) {
        return fail(line_, "the file is empty");
    }
    format_ = first == '{' ? BulkFormat::JsonLines : BulkFormat::Csv;
    if (format_ == BulkFormat::JsonLines) {
        return true;
    }
    headerLine_ = line_;
    if (!readRecord(header_, headerLine_)) {
        return false;
    }
    std::set<std::string> seen;
    for (size_t i = 0; i < header_.size(); ++i) {
        if (header_[i].empty()) {
            return fail(headerLine_,
                        "column " + std::to_string(i + 1) + " of the header has no name");
        }
        if (!seen.insert(header_[i]).second) {
            return fail(headerLine_, "the header names " + header_[i] + " twice");
        }
    }
    return true;
}

bool BulkFileReader::next(BulkRow& row) {
    if (done_) {
        return false;
    }
    bool ok = (format_ != BulkFormat::Unknown || start()) &&
              (format_ == BulkFormat::Csv ? nextCsv(row) : nextJson(row));
    if (overflow_) {
        return fail(line_,
                    "the file is longer than " + std::to_string(limits_.maxFileBytes) + " bytes");
    }
    if (ok && ++rows_ > limits_.maxRows) {
        return fail(row.line, "more than " + std::to_string(limits_.maxRows) + " rows");
    }
    if (!ok) {
        done_ = true;
    }
    return ok;
}

bool BulkFileReader::nextCsv(BulkRow& row) {
    std::vector<std::string> fields;
    size_t start = 0;
    while (readRecord(fields, start)) {
        bool empty = true;
        for (const auto& f : fields) {
            empty = empty && f.empty();
        }
        if (empty) {
            continue;  // a blank line, or only empty fields
        }
        if (fields.size() != header_.size()) {
            return fail(start, std::to_string(fields.size()) +
                                   (fields.size() == 1 ? " field" : " fields") +
                                   " where the header has " + std::to_string(header_.size()));
        }
        row.line = start;
        row.cells.clear();
        for (size_t i = 0; i < fields.size(); ++i) {
            if (!fields[i].empty()) {
                row.cells.push_back({header_[i], proto::Json(std::move(fields[i]))});
            }
        }
        return true;
    }
    return false;
}

bool BulkFileReader::readRecord(std::vector<std::string>& fields, size_t& startLine) {
    constexpr int kEof = std::char_traits<char>::eof();
    fields.clear();
    if (peek() == kEof) {
        return false;
    }
    startLine = line_;
    std::string field;
    size_t bytes = 0;
    size_t quoteLine = 0;
    bool inQuotes = false;
    bool afterQuote = false;  // the field's closing quote was read
    bool atFieldStart = true;
    auto endField = [&]() {
        fields.push_back(std::move(field));
        field.clear();
        afterQuote = false;
        atFieldStart = true;
        return fields.size() <= limits_.maxFields;
    };
    auto tooMany = [&]() {
        return fail(startLine, "more than " + std::to_string(limits_.maxFields) + " fields");
    };
    for (;;) {
        size_t at = line_;
        int c = get();
        if (c == kEof) {
            if (inQuotes) {
                return fail(quoteLine, "a quoted field is not closed");
            }
            return endField() || tooMany();
        }
        if (++bytes > limits_.maxRecordBytes) {
            return fail(startLine, "a record longer than " +
                                       std::to_string(limits_.maxRecordBytes) + " bytes");
        }
        if (c == 0) {
            return fail(at, "a NUL byte");
        }
        if (inQuotes) {
            if (c != '"') {
                field.push_back(static_cast<char>(c));
            } else if (peek() == '"') {
                get();
                ++bytes;
                field.push_back('"');
            } else {
                inQuotes = false;
                afterQuote = true;
            }
            continue;
        }
        if (c == ',') {
            if (!endField()) {
                return tooMany();
            }
            continue;
        }
        if (c == '\n' || (c == '\r' && peek() == '\n')) {
            if (c == '\r') {
                get();
            }
            return endField() || tooMany();
        }
        if (afterQuote) {
            return fail(at, "text after the closing quote of a field");
        }
        if (c == '"') {
            if (!atFieldStart) {
                return fail(at,
                            "a quote inside an unquoted field (quote the whole field and "
                            "double the quotes in it)");
            }
            inQuotes = true;
            quoteLine = at;
            atFieldStart = false;
            continue;
        }
        field.push_back(static_cast<char>(c));
        atFieldStart = false;
    }
}

bool BulkFileReader::readLine(std::string& line, size_t& lineNo) {
    constexpr int kEof = std::char_traits<char>::eof();
    line.clear();
    if (peek() == kEof) {
        return false;
    }
    lineNo = line_;
    for (int c = get(); c != '\n' && c != kEof; c = get()) {
        if (line.size() >= limits_.maxRecordBytes) {
            return fail(lineNo,
                        "a line longer than " + std::to_string(limits_.maxRecordBytes) + " bytes");
        }
        if (c == 0) {
            return fail(lineNo, "a NUL byte");
        }
        line.push_back(static_cast<char>(c));
    }
    if (!line.empty() && line.back() == '\r') {
        line.pop_back();
    }
    return true;
}

bool BulkFileReader::nextJson(BulkRow& row) {
    std::string text;
    size_t lineNo = 0;
    while (readLine(text, lineNo)) {
        if (blank(text)) {
            continue;
        }
        proto::Json j;
        std::set<std::string> keys;
        std::vector<std::string> order;  // the object's names as written
        try {
            j = proto::Json::parse(text, [&](int depth, proto::Json::parse_event_t ev,
                                             proto::Json& parsed) {
                using Ev = proto::Json::parse_event_t;
                if ((ev == Ev::object_start || ev == Ev::array_start) && depth >= kMaxJsonDepth) {
                    throw JsonStop{"nested too deeply"};
                }
                if (ev == Ev::key && depth == 1) {
                    const auto& k = parsed.get_ref<const std::string&>();
                    if (k.find('\0') != std::string::npos) {
                        throw JsonStop{"a NUL character in a name"};
                    }
                    if (!keys.insert(k).second) {
                        throw JsonStop{"the name " + k + " appears twice"};
                    }
                    order.push_back(k);
                    if (keys.size() > limits_.maxFields) {
                        throw JsonStop{"more than " + std::to_string(limits_.maxFields) + " names"};
                    }
                }
                return true;
            });
        } catch (const JsonStop& stop) {
            return fail(lineNo, stop.why);
        } catch (const proto::Json::exception& e) {
            return fail(lineNo, "malformed JSON: " + jsonProblem(e.what()));
        }
        if (!j.is_object()) {
            return fail(lineNo, "not a JSON object");
        }
        row.line = lineNo;
        row.cells.clear();
        for (const std::string& name : order) {
            proto::Json& v = j[name];
            if (!v.is_null()) {
                row.cells.push_back({name, std::move(v)});
            }
        }
        if (!row.cells.empty()) {
            return true;
        }
    }
    return false;
}

}  // namespace znpex::cli
