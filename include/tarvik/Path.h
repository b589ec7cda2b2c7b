// Path.h: a file path held as text, the rules that split and combine it, and questions about the file it
// names.
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
// The root of a path is a leading separator ("/etc"), or a drive letter, ':' and a separator ("C:\data"),
// on every platform. A path with a root is absolute; every other path (the empty one included) is relative
// to the current directory. The text operations below work on the text alone: they never ask the system,
// and ".." is a name like any other for them except in normalise().
//
//   join(name)     this path, one '/', then name: "dir" + "f.txt" is "dir/f.txt"; no separator is added
//                  when this path is empty or already ends with one ("dir/" + "f.txt" is "dir/f.txt"). An
//                  absolute name replaces this path ("dir" + "/etc" is "/etc"); an empty name leaves it.
//   get_parent()   the path without its last name and the separators before it, trailing separators
//                  ignored: "a/b/c" gives "a/b", "a/b/" gives "a", "/a" gives "/", "C:\a" gives "C:\". A
//                  root is its own parent ("/" stays "/"); a bare name's parent is "" ("a" gives "").
//                  get_directory() differs only on these boundaries: it cuts at the last separator as is.
//   normalise()    the same place written plainly: runs of separators become one, "." names go, and a
//                  name followed by ".." goes with it ("a//b", "a/./b", "a/x/../b" all give "a/b"). The
//                  root stays (written "/" or "C:/"), ".." right after a root goes ("/../a" gives "/a"),
//                  and the leading ".." of a relative path stay ("../../a/../b" gives "../../b"). Trailing
//                  separators go; '/' is written between names. A relative path that reduces to nothing is
//                  "." ("a/.." gives "."), and "" stays "". Symbolic links are not consulted, so
//                  "link/.." may name another place than "." on the disk.
//
// The questions about the file (exists, is_directory, is_file, size, get_modified) ask the system at every
// call, follow symbolic links, and take the text as the system reads it (on Linux only '/' separates
// there). exists(), is_directory() and is_file() answer false without a record when the path cannot be
// examined. size() and get_modified() fail with a record at ERR naming the path and the system error text
// (module "TVK", unit "PATH"): "CANNOT GET SIZE OF %0 [%1]" and "CANNOT GET MODIFICATION TIME OF %0 [%1]".
//
// Thread safety: a Path is used by one thread at a time; the questions about files may be asked from any
// thread.
#pragma once

#include <cstdint>

#include "tarvik/AString.h"
#include "tarvik/Time.h"
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

    // The text rules of the header comment.
    Path join(Path const& name) const;
    Path get_parent() const;
    Path normalise() const;
    bool is_absolute() const;

    // Whether the path names anything: a file, a directory or another kind of entry.
    bool exists() const;
    bool is_directory() const;
    // A regular file (not a directory, device, socket or pipe).
    bool is_file() const;
    // The size in bytes of a regular file; -1 (and a record) for anything else or when it cannot be read.
    std::int64_t size() const;
    // The time the file or directory was last written, in local time to the millisecond;
    // TimeDate::epoch() (and a record) when it cannot be read.
    TimeDate get_modified() const;

    // The process's current directory, read at every call ("" when it cannot be read).
    static Path get_current_directory();
    // The directory for temporary files: on Linux $TMPDIR when it is set and not empty, else "/tmp".
    static Path get_temp_directory();

    friend bool operator==(Path const& a, Path const& b) { return a.text_ == b.text_; }

private:
    AString text_;
};

}  // namespace tarvik
