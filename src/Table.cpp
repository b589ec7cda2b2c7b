#include "tarvik/Table.h"

#include "LogUnit.h"
#include "TupleXml.h"
#include "tarvik/IOBStream.h"
#include "tarvik/Parser.h"

TARVIK_LOG_UNIT()

namespace tarvik {

bool Table::add_column(Symbol const& column) {
    if (find_column(column) >= 0) return false;
    columns_.push_back(column);
    return true;
}

int Table::find_column(Symbol const& column) const {
    int i = 0;
    for (Symbol const& c : columns_) {
        if (c == column) return i;
        ++i;
    }
    return -1;
}

void Table::clear() {
    columns_.clear();
    lines_.clear();
}

bool Table::operator==(Table const& other) const {
    return name_ == other.name_ && columns_.compare(other.columns_) == 0 && lines_.compare(other.lines_) == 0 &&
           columns_.size() == other.columns_.size() && lines_.size() == other.lines_.size();
}

long Table::write_xml(OBStream& out) const {
    out.put("<tbl n=\"");
    tuple_xml::write(out, name_);
    out.put("\">");
    out.indent(1);
    for (Symbol const& c : columns_) {
        out.put("\n<c>");
        tuple_xml::write(out, c);
        out.put("</c>");
    }
    for (Tuple const& line : lines_) {
        out.put("\n<l>");
        out.indent(1);
        tuple_xml::write(out, line);
        out.unindent(1);
        out.put(line.is_empty() ? "</l>" : "\n</l>");
    }
    out.unindent(1);
    out.put("\n</tbl>");
    return lines_.size();
}

bool Table::read_xml(XmlParser& in) {
    Table parsed;
    if (AString const* name = in.attribute("n")) parsed.name_ = Symbol(*name);
    for (;;) {
        XmlParser::Event e = in.next_markup();
        if (e == XmlParser::kEnd) break;
        if (e == XmlParser::kStart && in.name() == "c") {
            Symbol column;
            if (!tuple_xml::read(in, column)) return false;
            parsed.add_column(column);
        } else if (e == XmlParser::kStart && in.name() == "l") {
            if (!tuple_xml::read(in, parsed.add_line())) return false;
        } else {
            if (e != XmlParser::kError) {
                TVK_LOG(LEVEL_ERR, "MARKUP %0 EXPECTED %1") << "c or l" << (e == XmlParser::kStart ? in.name() : AString("text"));
                in.fail("MARKUP EXPECTED");
            }
            return false;
        }
    }
    *this = static_cast<Table&&>(parsed);
    return true;
}

long Table::read_xml(IBStream& in) {
    XmlParser parser(in);
    if (!tuple_xml::root_element(parser, "tbl")) return -1;
    // The document ends with the table, as with a tuple's; this table changes only when both hold.
    Table parsed;
    if (!parsed.read_xml(parser) || parser.next_markup() != XmlParser::kDone) return -1;
    *this = static_cast<Table&&>(parsed);
    return static_cast<long>(lines_.size());
}

long Table::write_xml(Path const& path) const {
    return tuple_xml::write_document(path, [this](OBStream& out) { return write_xml(out); });
}

long Table::read_xml(Path const& path) {
    return tuple_xml::read_document(path, [this](IBStream& in) { return read_xml(in); });
}

}  // namespace tarvik
