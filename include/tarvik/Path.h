// Path.h: a file path held as text.
//
// A Path is a value: the text it was given, unchanged. Both '/' and '\' separate directories, so that a
// path written on either platform (a source file name in a log record, a path read from a configuration)
// splits the same way everywhere.
//
//   Path("logs/srv-1.log").get_base()      == "srv-1"      the file name without directory and extension
//   Path("logs/srv-1.log").get_extension() == "log"        after the last '.' of the file name, no dot
//   Path("logs/srv-1.log").get_file_name() == "srv-1.log"
//   Path("logs/srv-1.log").get_directory() == "logs"       empty when there is none
//
// A file name that starts with its only '.' (".profile") has no extension.
//
// Thread safety: a Path is used by one thread at a time.
#pragma once

#include "tarvik/AString.h"
#include "tarvik/Types.h"

namespace tarvik {

class TARVIK_EXPORT Path {
public:
    Path() = default;
    Path(char const* text) : text_(text) {}
    Path(AString const& text) : text_(text) {}

    AString const& get_text() const { return text_; }
    char const* c_str() const { return text_.c_str(); }
    bool is_empty() const { return text_.is_empty(); }
    Path& operator=(char const* text) {
        text_ = text;
        return *this;
    }

    AString get_base() const;
    AString get_extension() const;
    AString get_file_name() const;
    AString get_directory() const;

    friend bool operator==(Path const& a, Path const& b) { return a.text_ == b.text_; }

private:
    AString text_;
};

}  // namespace tarvik
