#include "tarvik/Path.h"

#include "LogUnit.h"
#include "PathImpl.h"
#include "tarvik/System.h"

TARVIK_LOG_UNIT()

namespace tarvik {

namespace {

bool is_separator(char c) { return c == '/' || c == '\\'; }

// Index just after the last separator (0 when there is none).
unsigned int name_start(AString const& text) {
    unsigned int sep = text.find_last_of("/\\");
    return sep == npos ? 0 : sep + 1;
}

// Index of the extension's dot within the text, or npos.
unsigned int extension_dot(AString const& text) {
    unsigned int start = name_start(text);
    unsigned int dot = text.rfind('.');
    if (dot == npos || dot <= start) return npos;
    return dot;
}

// Length of the root: 1 for a leading separator, 3 for a drive letter, ':' and a separator, else 0.
unsigned int root_length(AString const& text) {
    unsigned int n = text.length();
    if (n >= 1 && is_separator(text[0])) return 1;
    char d = text[0];
    bool letter = (d >= 'A' && d <= 'Z') || (d >= 'a' && d <= 'z');
    if (n >= 3 && letter && text[1] == ':' && is_separator(text[2])) return 3;
    return 0;
}

}  // namespace

AString Path::get_file_name() const { return text_.substr(name_start(text_)); }

AString Path::get_base() const {
    unsigned int start = name_start(text_);
    unsigned int dot = extension_dot(text_);
    return text_.substr(start, dot == npos ? npos : dot - start);
}

AString Path::get_extension() const {
    unsigned int dot = extension_dot(text_);
    return dot == npos ? AString() : text_.substr(dot + 1);
}

AString Path::get_directory() const {
    unsigned int start = name_start(text_);
    return start == 0 ? AString() : text_.substr(0, start - 1);
}

bool Path::is_absolute() const { return root_length(text_) > 0; }

Path Path::join(Path const& name) const {
    if (name.is_empty()) return *this;
    if (text_.is_empty() || name.is_absolute()) return name;
    if (is_separator(text_[text_.length() - 1])) return Path(text_ + name.text_);
    return Path(text_ + "/" + name.text_);
}

Path Path::get_parent() const {
    unsigned int root = root_length(text_);
    unsigned int end = text_.length();
    while (end > root && is_separator(text_[end - 1])) --end;
    // The last separator before `end` that lies after the root; none means the parent is the root itself.
    unsigned int sep = end > root ? text_.find_last_of("/\\", end - 1) : npos;
    if (sep == npos || sep < root) return Path(text_.substr(0, root));
    while (sep > root && is_separator(text_[sep - 1])) --sep;
    return Path(text_.substr(0, sep > root ? sep : root));
}

Path Path::normalise() const {
    unsigned int const n = text_.length();
    unsigned int const root = root_length(text_);
    AString out;
    if (root == 1) out = "/";
    if (root == 3) {
        out.assign(text_, 0, 1);
        out += ":/";
    }
    unsigned int const out_root = out.length();
    // Names at the end of `out` that a following ".." removes (the leading ".." of a relative path are not).
    unsigned int removable = 0;
    auto append = [&](unsigned int pos, unsigned int count) {
        if (out.length() > out_root) out += '/';
        out.append(text_, pos, count);
    };
    for (unsigned int i = root; i < n;) {
        if (is_separator(text_[i])) {
            ++i;
            continue;
        }
        unsigned int j = i;
        while (j < n && !is_separator(text_[j])) ++j;
        unsigned int const start = i, count = j - i;
        i = j;
        if (count == 1 && text_[start] == '.') continue;
        if (count == 2 && text_[start] == '.' && text_[start + 1] == '.') {
            if (removable > 0) {
                unsigned int cut = out.find_last_of('/');
                out.erase(cut == npos || cut < out_root ? out_root : cut);
                --removable;
            } else if (root == 0) {
                append(start, count);
            }  // else: ".." of a root is the root
            continue;
        }
        append(start, count);
        ++removable;
    }
    if (out.is_empty() && n > 0) out = ".";
    return Path(out);
}

bool Path::exists() const { return path_impl::kind(c_str()) != path_impl::Kind::none; }

bool Path::is_directory() const { return path_impl::kind(c_str()) == path_impl::Kind::directory; }

bool Path::is_file() const { return path_impl::kind(c_str()) == path_impl::Kind::file; }

std::int64_t Path::size() const {
    std::int64_t bytes = path_impl::size(c_str());
    if (bytes < 0) {
        AString why = get_last_system_error_text();
        TVK_LOG(LEVEL_ERR, "CANNOT GET SIZE OF %0 [%1]") << text_ << why;
        return -1;
    }
    return bytes;
}

TimeDate Path::get_modified() const {
    TimeDate when = TimeDate::epoch();
    if (!path_impl::modified(c_str(), when)) {
        AString why = get_last_system_error_text();
        TVK_LOG(LEVEL_ERR, "CANNOT GET MODIFICATION TIME OF %0 [%1]") << text_ << why;
        return TimeDate::epoch();
    }
    return when;
}

Path Path::get_current_directory() { return Path(get_working_dir()); }

Path Path::get_temp_directory() { return Path(path_impl::temp_directory()); }

}  // namespace tarvik
