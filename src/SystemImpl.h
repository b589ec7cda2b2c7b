// SystemImpl.h: what a platform half of System provides.
//
// Each function returns false (or an empty text) when the platform cannot answer, with the system error
// left for get_last_system_error_num().
#pragma once

#include "tarvik/AString.h"

namespace tarvik::system_impl {

bool computer_name(AString& out);
bool executable_path(AString& out);
bool working_directory(AString& out);
unsigned long thread_id();
unsigned long process_id();
int last_error();
// The system's message for an error number, or empty.
AString error_message(int error);
// 16 bytes from the system's source of unique (random) identifiers.
bool random_guid(unsigned char bytes[16]);

}  // namespace tarvik::system_impl
