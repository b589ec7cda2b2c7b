// LogUnit.h: the log variable of a library source file, and its record macro.
//
// Every source file of the library says TARVIK_LOG_UNIT() once, at file scope. That declares the file's
// log variable: a GlobVarLog in module "TVK" named after the file ("src/Blob.cpp" is "BLOB"), built when
// the library loads (so a host can list and set it at once) and never destroyed (so code running during
// static destruction can still log). Records are then written with
//
//     TVK_LOG(LEVEL_ERR, "WRONG ADD SIZE %0 [%1/%2]") << n << used << page_size;
//
// which passes the variable's module and name as the record's module and unit, and the line. Traces are
// guarded by the variable's level: above 0 for lifecycle messages, above 1 for events, above 2 per item:
//
//     if (tvk_log() > 2) TVK_LOG(LEVEL_LOG, "Add submitted action %0") << action;
#pragma once

#include "Memory.h"
#include "tarvik/GlobVar.h"
#include "tarvik/Log.h"
#include "tarvik/Symbol.h"

#define TARVIK_LOG_UNIT()                                                                                     \
    namespace {                                                                                               \
    [[maybe_unused]] ::tarvik::GlobVarLog& tvk_log() {                                                        \
        static ::tarvik::GlobVarLog* const variable =                                                         \
            ::tarvik::memory::create<::tarvik::GlobVarLog>(::tarvik::Symbol("TVK"), __FILE__);                \
        return *variable;                                                                                     \
    }                                                                                                         \
    /* NOLINTNEXTLINE(cert-err58-cpp): built at load on purpose; a throw there fails the load */              \
    [[maybe_unused]] ::tarvik::GlobVarLog& tvk_log_at_load = tvk_log();                                       \
    }

#define TVK_LOG(level, key) \
    ::tarvik::Log((key), (level), tvk_log().get_module().c_str(), tvk_log().get_name().c_str(), __LINE__)
