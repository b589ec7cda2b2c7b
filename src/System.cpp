#include "tarvik/System.h"

#include <cstdio>
#include <cstring>

#include "LogUnit.h"
#include "Memory.h"
#include "SystemImpl.h"
#include "tarvik/CriticalSection.h"
#include "tarvik/Path.h"

TARVIK_LOG_UNIT()

namespace tarvik {

namespace {

// The process-wide caches, made on first use and never destroyed.
struct Caches {
    CriticalSection lock;
    AString system_name TARVIK_GUARDED_BY(lock);
    AString program_file_path TARVIK_GUARDED_BY(lock);
    AString program_name TARVIK_GUARDED_BY(lock);
    AString application_name TARVIK_GUARDED_BY(lock);
};

Caches& caches() {
    static Caches* const instance = memory::create<Caches>();
    return *instance;
}

// The caller holds the caches' lock.
bool store_if_different(AString& stored, char const* name) {
    if (stored == (name ? name : "")) return false;
    stored = name;
    return true;
}

}  // namespace

AString get_system_name() {
    Caches& c = caches();
    CriticalSectionHolder hold(c.lock);
    if (c.system_name.is_empty()) system_impl::computer_name(c.system_name);
    return c.system_name;
}

unsigned long get_current_thread_id() { return system_impl::thread_id(); }

unsigned long get_current_process_id() { return system_impl::process_id(); }

AString get_program_file_path() {
    Caches& c = caches();
    CriticalSectionHolder hold(c.lock);
    if (c.program_file_path.is_empty()) system_impl::executable_path(c.program_file_path);
    return c.program_file_path;
}

AString get_program_name() {
    Caches& c = caches();
    CriticalSectionHolder hold(c.lock);
    if (c.program_name.is_empty()) {
        AString path;
        if (system_impl::executable_path(path)) c.program_name = Path(path).get_base();
    }
    return c.program_name;
}

bool set_program_name(char const* name) {
    Caches& c = caches();
    CriticalSectionHolder hold(c.lock);
    return store_if_different(c.program_name, name);
}

AString get_application_name() {
    Caches& c = caches();
    CriticalSectionHolder hold(c.lock);
    if (c.application_name.is_empty()) c.application_name = "TVK";
    return c.application_name;
}

bool set_application_name(char const* name) {
    Caches& c = caches();
    CriticalSectionHolder hold(c.lock);
    return store_if_different(c.application_name, name);
}

AString get_working_dir() {
    AString dir;
    system_impl::working_directory(dir);
    return dir;
}

int get_last_system_error_num() { return system_impl::last_error(); }

AString get_last_system_error_text() {
    int error = system_impl::last_error();
    AString text;
    text.Format("#%d.", error);
    text += system_impl::error_message(error);
    text.Replace("\r\n", "");
    return text;
}

AString create_guid() {
    unsigned char b[16] = {};
    system_impl::random_guid(b);
    // The registry form reads Data1, Data2 and Data3 as little-endian numbers, then Data4 byte by byte.
    AString text;
    text.Format("{%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X}", b[3], b[2], b[1], b[0],
                b[5], b[4], b[7], b[6], b[8], b[9], b[10], b[11], b[12], b[13], b[14], b[15]);
    return text;
}

AString create_tvk_guid() {
    static constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_$";
    unsigned char b[16] = {};
    system_impl::random_guid(b);
    char text[24];
    for (std::size_t w = 0; w < 4; ++w) {
        unsigned int word = static_cast<unsigned int>(b[w * 4]) | static_cast<unsigned int>(b[w * 4 + 1]) << 8 |
                            static_cast<unsigned int>(b[w * 4 + 2]) << 16 | static_cast<unsigned int>(b[w * 4 + 3]) << 24;
        for (std::size_t k = 0; k < 6; ++k) text[w * 6 + k] = kAlphabet[(word >> (30 - 6 * k)) & 63];
    }
    return AString(text, 24);
}

}  // namespace tarvik
