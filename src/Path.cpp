#include "tarvik/Path.h"

#include "LogUnit.h"

TARVIK_LOG_UNIT()

namespace tarvik {

namespace {

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

}  // namespace tarvik
