// Reader of bulk-definition files, which come from anywhere and are read as
// untrusted input. Two formats, told apart by the first non-blank character
// ('{': JSON lines, anything else: CSV):
// - CSV: a header row of attribute names, then one row per resource; fields
//   separated by commas, quoted with '"' when they hold commas, quotes
//   (doubled) or line breaks; LF or CRLF line ends. An empty field gives no
//   value.
// - JSON lines: one object per line, attribute name to value; null gives no
//   value; blank lines are skipped.
// A row that gives no value at all is skipped. Records, fields and the row
// count are bounded (BulkLimits); a violation or a syntax error stops the
// reading with an error that names the line. A UTF-8 byte order mark is
// skipped; NUL bytes are refused. Single-threaded; reads the stream only as
// far as the row it returns.
#pragma once

#include <cstddef>
#include <istream>
#include <string>
#include <vector>

#include "znpex/proto/Json.h"

namespace znpex::cli {

struct BulkLimits {
    size_t maxRecordBytes = 64 * 1024;  // one CSV record (all its lines) or one JSON line
    size_t maxFields = 256;             // CSV columns, members of a JSON object
    size_t maxRows = 1000000;
    size_t maxFileBytes = 256u * 1024 * 1024;  // the whole file, which is held in memory
};

enum class BulkFormat { Unknown, Csv, JsonLines };

// One value a row gives: CSV fields are JSON strings, JSON values as written.
struct BulkCell {
    std::string name;
    proto::Json value;
};

struct BulkRow {
    size_t line = 0;  // where the row starts, from 1
    std::vector<BulkCell> cells;
};

class BulkFileReader {
public:
    explicit BulkFileReader(std::istream& in, BulkLimits limits = {});

    // The next row; false at the end of the input or on an error, which
    // error() then holds ("line 7: ...").
    bool next(BulkRow& row);
    const std::string& error() const { return error_; }
    // Known after the first next().
    BulkFormat format() const { return format_; }
    // CSV: the header's names, with the line of the header; JSON lines: none.
    const std::vector<std::string>& header() const { return header_; }
    size_t headerLine() const { return headerLine_; }

private:
    bool start();
    bool nextCsv(BulkRow& row);
    bool nextJson(BulkRow& row);
    // One CSV record; false at the end (error_ empty) or on an error.
    bool readRecord(std::vector<std::string>& fields, size_t& startLine);
    // One physical line without its end; false at the end or on an error.
    bool readLine(std::string& line, size_t& lineNo);
    bool fail(size_t line, const std::string& why);
    int peek();
    int get();

    std::istream& in_;
    BulkLimits limits_;
    BulkFormat format_ = BulkFormat::Unknown;
    std::vector<std::string> header_;
    size_t headerLine_ = 0;
    size_t line_ = 1;  // the line the next byte is on
    size_t rows_ = 0;
    size_t bytes_ = 0;       // read so far
    bool overflow_ = false;  // the file goes on past maxFileBytes
    bool done_ = false;
    std::string error_;
};

}  // namespace znpex::cli
