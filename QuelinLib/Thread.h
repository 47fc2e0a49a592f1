#pragma once
// Thread naming (shows in debuggers, profilers and crash reports).
#include "QuelinLib/Base.h"

namespace Quelin {

/// Names the calling thread. Linux keeps at most 15 bytes; longer names are cut
/// there at a character boundary.
void setThreadName(StringView name);
/// The calling thread's name as the system reports it; empty where unsupported.
String getThreadName();

} // namespace Quelin
