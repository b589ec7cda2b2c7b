#include "tarvik/LogHook.h"

#include <cstdio>

#include "Console.h"
#include "LogHookImpl.h"
#include "LogUnit.h"
#include "Memory.h"
#include "tarvik/CriticalSection.h"
#include "tarvik/IOBStream.h"
#include "tarvik/Log.h"
#include "tarvik/Path.h"
#include "tarvik/System.h"
#include "tarvik/Time.h"

TARVIK_LOG_UNIT()

namespace tarvik {

namespace {

constexpr int kLineWidth = 132;

// The registered hooks, their lock and the one dispatching mark of the process; made on first use and never
// destroyed, so records raised during static destruction still find it.
struct Registry {
    CriticalSection lock;
    List<AutoRef<LogHook>> hooks TARVIK_GUARDED_BY(lock);
    bool dispatching TARVIK_GUARDED_BY(lock) = false;
};

Registry& registry() {
    static Registry* const instance = memory::create<Registry>();
    return *instance;
}

struct RecordNames {
    Symbol key{"key"}, level{"level"}, args{""}, time{"time"}, module{"module"}, unit{"unit"}, line{"line"},
        thread{"thread"}, context{"context"};
};

RecordNames const& names() {
    static RecordNames const* const n = memory::create<RecordNames>();
    return *n;
}

// A log line being made, with the column a text stream would be at (so that wrapping and the continuation
// indent match what the stream shows), written to the stream in one piece at the end.
class LineBuilder {
public:
    explicit LineBuilder(int column) : column_(column) {}

    void put(char c) {
        line_.append(1, c);
        if (c == '\n') {
            column_ = -1;
        } else if (c == '\t') {
            column_ = (column_ / 8 + 1) * 8;
        } else {
            ++column_;
        }
    }
    void put(char const* text) {
        for (; *text; ++text) put(*text);
    }
    void put(AString const& text) {
        for (unsigned int i = 0; i < text.length(); ++i) put(text.c_str()[i]);
    }
    int column() const { return column_; }
    AString const& text() const { return line_; }

    // Writes text with the escapes of the header comment: line feeds continue on a new line indented by
    // `indent` spaces (or print as "\n" when width < 1), "\r" and "\\", "\|" when asked, and wrapping.
    void escaped(AString const& text, bool escape_separators, int width, int indent) {
        auto new_line = [&] {
            put('\n');
            for (int i = 0; i < indent; ++i) put(' ');
        };
        for (unsigned int i = 0; i < text.length(); ++i) {
            char c = text.c_str()[i];
            if (width >= 1 && column_ >= width - 2) new_line();
            switch (c) {
                case '|':
                    if (escape_separators) put('\\');
                    put(c);
                    break;
                case '\n':
                    if (width >= 1) {
                        new_line();
                    } else {
                        put("\\n");
                    }
                    break;
                case '\r': put("\\r"); break;
                case '\\': put("\\\\"); break;
                default: put(c);
            }
        }
    }

private:
    AString line_;
    int column_;
};

}  // namespace

// --- LogHook -----------------------------------------------------------------------------------------------

LogHook::LogHook() = default;
LogHook::~LogHook() = default;

void LogHook::notify_activated(bool) {}

void LogHook::message(Tuple const& record) { print_on_console(record); }

bool LogHook::hook() {
    Registry& r = registry();
    {
        CriticalSectionHolder hold(r.lock);
        for (AutoRef<LogHook> const& h : r.hooks)
            if (h.get() == this) return false;
        r.hooks.push_back(AutoRef<LogHook>(this));
    }
    notify_activated(true);
    return true;
}

bool LogHook::unhook() {
    Registry& r = registry();
    AutoRef<LogHook> keep(this);  // the registry's reference may be the last one
    {
        CriticalSectionHolder hold(r.lock);
        auto i = r.hooks.begin();
        while (i != r.hooks.end() && i->get() != this) ++i;
        if (i == r.hooks.end()) return false;
        r.hooks.erase(i);
    }
    notify_activated(false);
    return true;
}

bool LogHook::is_activated() const {
    Registry& r = registry();
    CriticalSectionHolder hold(r.lock);
    for (AutoRef<LogHook> const& h : r.hooks)
        if (h.get() == this) return true;
    return false;
}

unsigned int LogHook::registered_count() {
    Registry& r = registry();
    CriticalSectionHolder hold(r.lock);
    return r.hooks.size();
}

void LogHook::dispatch(Tuple const& record) {
    Registry& r = registry();
    List<AutoRef<LogHook>> hooks;
    {
        CriticalSectionHolder hold(r.lock);
        hooks = r.hooks;
    }
    if (hooks.is_empty()) {
        print_on_console(record);
        return;
    }
    {
        CriticalSectionHolder hold(r.lock);
        if (r.dispatching) {
            hooks.clear();
        } else {
            r.dispatching = true;
        }
    }
    if (hooks.is_empty()) {  // another dispatch is running, in this thread or another: the console only
        print_on_console(record);
        return;
    }
    for (AutoRef<LogHook>& h : hooks) h->message(record);
    CriticalSectionHolder hold(r.lock);
    r.dispatching = false;
}

void LogHook::format_line(Tuple const& record, OBStream& out, bool escape_separators, int width) {
    RecordNames const& n = names();
    LineBuilder line(out.get_current_col());
    line.put(record.get_time_date(n.time).to_string("%H:%M:%S.%Q\t"));
    int indent = line.column();
    line.put(level_name(record.get_int(n.level, -1)));
    line.put('|');
    line.put(record.get_astring(n.module));
    line.put('|');
    line.put(record.get_astring(n.unit));
    line.put('|');
    char number[48];
    std::snprintf(number, sizeof number, "%d|%lx|", record.get_int(n.line, 0),
                  static_cast<unsigned long>(record.get_long(n.thread, 0)));
    line.put(number);
    line.escaped(record.get_astring(n.context), escape_separators, width, indent);
    line.put('|');
    line.escaped(record.format(record.get_astring(n.key).c_str()), escape_separators, width, indent);
    line.put('\n');
    out.put(line.text().c_str(), line.text().length());
    out.flush();
}

void LogHook::print_on_console(Tuple const& record) {
    // The line is made first and written in one piece, so that output of other writers cannot cut it.
    AString line;
    {
        OBStream out(line, true);
        format_line(record, out, false, kLineWidth);
    }
    CriticalSectionHolder hold(console_lock());
    OBStream& console = bcout();
    bool colours = log_hook_impl::console_has_colours();
    if (colours) log_hook_impl::console_colour_for(record.get_int(names().level, -1));
    console.put(line.c_str(), colours && line.length() ? line.length() - 1 : line.length());
    if (colours) {
        log_hook_impl::console_restore();
        console.put('\n');
    }
    console.flush();
}

// --- the console hook --------------------------------------------------------------------------------------

namespace {

class ConsoleLogHookImpl final : public LogHook {
public:
    void message(Tuple const& record) override { print_on_console(record); }
};

}  // namespace

ConsoleLogHook::ConsoleLogHook(bool on) : AutoRef<LogHook>(memory::create<ConsoleLogHookImpl>()) {
    if (on) get()->hook();
}

bool ConsoleLogHook::activate(bool on) { return on ? get()->hook() : get()->unhook(); }

// --- the file hook -----------------------------------------------------------------------------------------

namespace {

class FileLogHookImpl final : public LogHook {
public:
    explicit FileLogHookImpl(char const* directory) : directory_(directory ? directory : "") {
        AString config = directory_.get_text();
        if (!config.is_empty() && config[config.length() - 1] != '/') config += '/';
        config += "config.xml";
        // Only an existing file is read: a directory without settings is the usual case and not worth a
        // record about a file that cannot be opened.
        Path config_path(config);
        if (!config_path.is_file()) return;
        Tuple settings;
        IBStream in(config_path, true);
        if (in.is_open() && settings.read_xml(in) >= 0) {
            if (TimePeriod const* max = settings.get_ptime_period(Symbol("max"))) {
                if (*max > TimePeriod()) period_ = *max;
            }
        }
    }

    void notify_activated(bool on) override {
        CriticalSectionHolder hold(lock_);
        active_ = on;
    }

    void message(Tuple const& record) override {
        CriticalSectionHolder hold(lock_);
        if (!active_) return;
        TimeDate now = TimeDate::now();
        if (out_.is_open() && now - opened_ >= period_) out_.close();
        if (!out_.is_open()) {
            AString name = directory_.get_text();
            if (!name.is_empty() && name[name.length() - 1] != '/') name += '/';
            name += get_program_name();
            name += '-';
            name += now.to_string("%Y%m%dh%H%M%S.log");
            // Appending: a file of the same second (a rotation within one second) is carried on, not lost.
            if (!out_.open(Path(name), true, true)) return;  // dropped; the next record tries again
            opened_ = now;
        }
        format_line(record, out_, false, kLineWidth);
    }

    TimePeriod period() const { return period_; }

private:
    CriticalSection lock_;
    bool active_ TARVIK_GUARDED_BY(lock_) = false;
    Path directory_;  // set once by the constructor
    OBStream out_ TARVIK_GUARDED_BY(lock_);
    TimePeriod period_{3600, 0, false};  // set once by the constructor
    TimeDate opened_ TARVIK_GUARDED_BY(lock_);
};

}  // namespace

FileLogHook::FileLogHook(char const* directory) : AutoRef<LogHook>(memory::create<FileLogHookImpl>(directory)) {}

bool FileLogHook::activate(bool on) { return on ? get()->hook() : get()->unhook(); }

TimePeriod FileLogHook::get_period() const { return static_cast<FileLogHookImpl*>(get())->period(); }

// --- the catcher ---------------------------------------------------------------------------------------

namespace {

class CatcherLogHookImpl final : public LogHook {
public:
    void message(Tuple const& record) override {
        CriticalSectionHolder hold(lock_);
        caught_.push_back(record);
    }
    void hand_over(ListTuple& out) {
        CriticalSectionHolder hold(lock_);
        out.splice(caught_);
    }

private:
    CriticalSection lock_;
    ListTuple caught_ TARVIK_GUARDED_BY(lock_);
};

}  // namespace

CatcherLogHook::CatcherLogHook(bool on) : AutoRef<LogHook>(memory::create<CatcherLogHookImpl>()) {
    if (on) get()->hook();
}

bool CatcherLogHook::activate() { return get()->hook(); }

void CatcherLogHook::deactivate(ListTuple& out) {
    get()->unhook();
    static_cast<CatcherLogHookImpl*>(get())->hand_over(out);
}

// --- the system-log hook ----------------------------------------------------------------------------------

namespace {

class SysLogHookImpl final : public LogHook {
public:
    SysLogHookImpl(char const* host, int port) : host_(host ? host : ""), port_(port) {}
    // Where a deployment that needs delivery would send records.
    AString const& host() const { return host_; }
    int port() const { return port_; }
    void message(Tuple const& record) override {
        // The record is formatted and its level read; nothing is sent (this hook is harmless by design).
        StringBuffer text(128);
        {
            OBStream out(text, true);
            format_line(record, out, false, kLineWidth);
        }
        [[maybe_unused]] int level = record.get_int(names().level, -1);
    }

private:
    AString host_;
    int port_;
};

}  // namespace

SysLogHook::SysLogHook(char const* host, int port, bool on) : AutoRef<LogHook>(memory::create<SysLogHookImpl>(host, port)) {
    if (on) get()->hook();
}

bool SysLogHook::activate(bool on) { return on ? get()->hook() : get()->unhook(); }

}  // namespace tarvik
