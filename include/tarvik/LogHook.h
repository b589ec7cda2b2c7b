// LogHook.h: where log records go.
//
// A Log (Log.h) becomes a record, a Tuple with the attributes "key" (the message text with its
// placeholders), "level" (int), "" (the arguments, a list of narrow strings), "time" (TimeDate, UTC),
// "module", "unit" and "line" when given, and "thread" (64-bit), and is handed to every registered LogHook
// in registration order. Hooks decide what to do with it: print it, append it to a rotating file, keep it,
// or hand it to a system logger. Without any hook a record is printed on the console, so a program that
// never installs one still sees its messages.
//
// One dispatch runs at a time in the whole process: a record raised while another is being delivered, by a
// hook from inside its own message() or by any other thread meanwhile, goes to the console printer only and
// does not reach the hooks. That keeps hooks free of recursion and lets them see records one at a time.
//
// The line printed for a record (by the console printer, the file hook and the system-log hook) is
//     HH:MM:SS.mmm<TAB>LEVEL|module|unit|line|thread|context|message
// the time of "time" to the millisecond, the level's name (LOG_LEVEL in Log.h), the line number (0 when
// absent), the thread id as the stream writes a pointer (hexadecimal), the attribute "context" when a
// record carries one, and the message: "key" with each "%n" replaced by argument n (Tuple::format). In the
// context and the message a line feed continues on a new line indented to the column after the time, a
// carriage return prints as "\r", a backslash as "\\", and a line that reaches the width less 2 wraps the same
// way. The built-in hooks use the width 132 and leave "|" unescaped.
//
// The hooks (each public class is an AutoRef<LogHook> handle to its implementation):
//   ConsoleLogHook   prints each record on standard output under the console lock; on a terminal the
//                    level sets the colour (ERR red, WARN magenta, INFO green, through ANSI sequences on
//                    Linux); otherwise plain text.
//   FileLogHook      appends each record to a file in its directory named program name, "-", and the time
//                    the file was opened as "%Y%m%dh%H%M%S.log"; once the rotation period has passed since
//                    then, the next record opens a new file. The period is the attribute "max" (a time
//                    period) of the directory's "config.xml" (a tuple in XML form) when there is one, else
//                    one hour. A file that cannot be opened drops the record; the next record tries again.
//   CatcherLogHook   keeps a copy of each record until deactivate() hands them over.
//   SysLogHook       formats each record and reads its level, and sends nothing: installing it is harmless.
//
// Thread safety: registering, unregistering and dispatching may happen in any thread; the registry lock is
// never held while a hook runs. The console printer takes the process-wide console lock.
#pragma once

#include "tarvik/AutoRef.h"
#include "tarvik/List.h"
#include "tarvik/Tuple.h"
#include "tarvik/Types.h"

namespace tarvik {

class TARVIK_EXPORT LogHook : public RefObject {
public:
    LogHook();
    ~LogHook() override;

    // Called with true when the hook joins the registry and false when it leaves it.
    virtual void notify_activated(bool activated);
    // Receives one record (not to be kept: copy it to keep it). Here: the console printer.
    virtual void message(Tuple const& record);

    // Adds the hook to the registry (notify_activated(true) when it was not there); whether it was added.
    bool hook();
    // Removes it (notify_activated(false) when it was there); whether it was removed.
    bool unhook();
    bool is_activated() const;

    // Delivers a record to the registered hooks (see the header comment).
    static void dispatch(Tuple const& record);
    // Prints a record on standard output under the console lock, in colour on a terminal.
    static void print_on_console(Tuple const& record);
    // Writes a record's line on a stream: escaped separators when asked, wrapping at `width` (below 1: line
    // feeds print as "\n" and nothing wraps). Ends with a line feed and a flush.
    static void format_line(Tuple const& record, OBStream& out, bool escape_separators, int width);
    // How many hooks are registered.
    static unsigned int registered_count();
};

class TARVIK_EXPORT ConsoleLogHook : public AutoRef<LogHook> {
public:
    explicit ConsoleLogHook(bool activate = true);
    bool activate(bool on);
};

class TARVIK_EXPORT FileLogHook : public AutoRef<LogHook> {
public:
    // Logs into `directory` (which must exist) once activated: unlike the hooks whose constructor takes an
    // activation flag, it is not registered at once.
    explicit FileLogHook(char const* directory);
    bool activate(bool on);
    // The rotation period in use.
    TimePeriod get_period() const;
};

class TARVIK_EXPORT CatcherLogHook : public AutoRef<LogHook> {
public:
    explicit CatcherLogHook(bool activate = true);
    bool activate();
    // Unregisters the hook and moves every caught record, in arrival order, to the end of `out`.
    void deactivate(ListTuple& out);
};

class TARVIK_EXPORT SysLogHook : public AutoRef<LogHook> {
public:
    SysLogHook(char const* host, int port, bool activate = true);
    bool activate(bool on);
};

}  // namespace tarvik
