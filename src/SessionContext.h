// SessionContext.h: the session context of the call running on the calling thread.
//
// Service::call(session, ...) and Interface::call(in, out, context) make a context current for the
// duration of the method; Interface's session operations read and replace it. Scopes nest (a method that
// calls another service through Service::call makes that call's context current, and the outer one comes
// back when it returns).
#pragma once

#include "tarvik/Tuple.h"

namespace tarvik {

class SessionScope {
public:
    explicit SessionScope(Tuple* context);
    ~SessionScope();
    SessionScope(SessionScope const&) = delete;
    SessionScope& operator=(SessionScope const&) = delete;

    // The context of the innermost scope on this thread; null when none (or a scope of null) is open.
    static Tuple* current();

private:
    Tuple* saved_;
};

}  // namespace tarvik
