#include "QuelinLib/MessageText.h"

#include <algorithm>

namespace Quelin {

namespace {

/// Length of the valid UTF-8 sequence at the start of `s`, 0 if there is none.
std::size_t utf8SequenceLength(StringView s) {
    auto const b = [&](std::size_t i) { return static_cast<unsigned char>(s[i]); };
    unsigned char const lead = b(0);
    std::size_t n = 0;
    unsigned char lo = 0x80, hi = 0xBF; // allowed range of the second byte
    if (lead < 0x80) return 1;
    if (lead >= 0xC2 && lead <= 0xDF) n = 2;
    else if (lead >= 0xE0 && lead <= 0xEF) {
        n = 3;
        if (lead == 0xE0) lo = 0xA0;      // overlong
        else if (lead == 0xED) hi = 0x9F; // surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        n = 4;
        if (lead == 0xF0) lo = 0x90;      // overlong
        else if (lead == 0xF4) hi = 0x8F; // beyond U+10FFFF
    } else {
        return 0;
    }
    if (s.size() < n || b(1) < lo || b(1) > hi) return 0;
    for (std::size_t i = 2; i < n; ++i)
        if (b(i) < 0x80 || b(i) > 0xBF) return 0;
    return n;
}

void appendEscaped(String& out, unsigned char c) {
    static char const HEX[] = "0123456789ABCDEF";
    out += "\\x";
    out += HEX[c >> 4];
    out += HEX[c & 0xF];
}

String printable(StringView text, std::size_t maxBytes) {
    String out;
    out.reserve(std::min(text.size(), maxBytes) + 8);
    std::size_t i = 0;
    while (i < text.size()) {
        if (out.size() >= maxBytes) {
            out += "...";
            break;
        }
        StringView const rest = text.substr(i);
        std::size_t const n = utf8SequenceLength(rest);
        unsigned char const c = static_cast<unsigned char>(rest[0]);
        if (n == 1 && c == '\t') {
            out += ' ';
        } else if (n == 0 || (n == 1 && (c < 0x20 || c == 0x7F))) {
            appendEscaped(out, c);
            i += 1;
            continue;
        } else {
            out.append(rest.substr(0, n));
        }
        i += n;
    }
    return out;
}

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

} // namespace

String printableText(StringView text, std::size_t maxBytes) { return printable(text, maxBytes); }

String singleLine(StringView text) {
    String joined;
    std::size_t start = 0;
    while (start <= text.size()) {
        std::size_t end = text.find_first_of("\r\n", start);
        if (end == StringView::npos) end = text.size();
        StringView piece = text.substr(start, end - start);
        while (!piece.empty() && isBlank(piece.front())) piece.remove_prefix(1);
        while (!piece.empty() && isBlank(piece.back())) piece.remove_suffix(1);
        if (!piece.empty()) {
            if (!joined.empty()) joined += "; ";
            joined.append(piece);
        }
        start = end + 1;
    }
    return printable(joined, String::npos);
}

} // namespace Quelin
