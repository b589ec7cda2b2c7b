// Table.h: rows of tuples under named columns.
//
// A Table has a name, an ordered list of column names, and lines; each line is a Tuple whose attributes are
// the line's values, normally one per column (a line may lack a column, or hold more). The XML form is
//
//     <tbl n="orders">
//         <c>id</c>
//         <c>price</c>
//         <l>
//             <i a="id">7</i>
//             <d a="price">9.5</d>
//         </l>
//     </tbl>
//
// with the values of a line written as a tuple's attributes are (see Tuple.h). Reading reports malformed
// input like a tuple's XML ("MARKUP %0 EXPECTED %1", "ATT NAME EXPECTED %0 %1", "XML: ...") and returns -1,
// leaving the table unchanged. Limits: the XML parser's (Parser.h), XmlParser::kMaxDepth (256) open
// elements; columns and lines take only what their elements bring.
//
// Thread safety: a table is used by one thread at a time.
#pragma once

#include "tarvik/Path.h"
#include "tarvik/Symbol.h"
#include "tarvik/Tuple.h"
#include "tarvik/Types.h"

namespace tarvik {

class XmlParser;

class TARVIK_EXPORT Table {
public:
    Table() = default;
    explicit Table(Symbol const& name) : name_(name) {}

    Symbol const& get_name() const { return name_; }
    void set_name(Symbol const& name) { name_ = name; }

    ListSymbol const& get_columns() const { return columns_; }
    // Adds a column at the end; false (nothing added) when it is there already.
    bool add_column(Symbol const& column);
    // The position of a column (from 0), or -1.
    int find_column(Symbol const& column) const;

    ListTuple& get_lines() { return lines_; }
    ListTuple const& get_lines() const { return lines_; }
    unsigned int size() const { return lines_.size(); }
    // Appends a line and returns it.
    Tuple& add_line(Tuple const& line) { return lines_.push_back(line); }
    Tuple& add_line() { return lines_.emplace_back(); }
    void clear();

    bool operator==(Table const& other) const;

    // The tbl element (text mode streams indent it); the number of lines written.
    long write_xml(OBStream& out) const;
    // Reads a tbl element from the stream; the number of lines, or -1.
    long read_xml(IBStream& in);
    // The same inside a document being parsed: the parser has just given the tbl start tag.
    bool read_xml(XmlParser& in);
    // A file: the XML declaration, then the table.
    long write_xml(Path const& path) const;
    long read_xml(Path const& path);

private:
    Symbol name_;
    ListSymbol columns_;
    ListTuple lines_;
};

}  // namespace tarvik
