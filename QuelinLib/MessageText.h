#pragma once
// Text taken from files or other libraries, made fit for a one-line error
// message: errors are printed one per line, and a damaged file must not write
// raw binary to the user's terminal.
#include "QuelinLib/Base.h"

namespace Quelin {

/// `text` with control characters and bytes that are not valid UTF-8 written
/// as \xNN, cut to about `maxBytes` bytes (ending in "...") when longer.
/// Valid UTF-8 (accented file names) is kept as it is.
String printableText(StringView text, std::size_t maxBytes = 80);

/// `text` as one line: line breaks (and the blank space around them) become
/// "; ", leading and trailing blank space is dropped, and the rest is made
/// printable as by printableText, without a length limit.
String singleLine(StringView text);

} // namespace Quelin
