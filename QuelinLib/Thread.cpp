#include "QuelinLib/Thread.h"
#include <algorithm>

#include "QuelinLib/PlatformHeaders.h"

namespace Quelin {

#if defined(_WIN32)

void setThreadName(StringView name) {
    int const length = MultiByteToWideChar(CP_UTF8, 0, name.data(), int(name.size()), nullptr, 0);
    std::wstring wide(std::size_t(length), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, name.data(), int(name.size()), wide.data(), length);
    SetThreadDescription(GetCurrentThread(), wide.c_str());
}

String getThreadName() {
    PWSTR wide = nullptr;
    if (FAILED(GetThreadDescription(GetCurrentThread(), &wide)))
        return {};
    int const length = WideCharToMultiByte(CP_UTF8, 0, wide, -1, nullptr, 0, nullptr, nullptr);
    String name(std::size_t(length > 0 ? length - 1 : 0), '\0');
    if (length > 1)
        WideCharToMultiByte(CP_UTF8, 0, wide, -1, name.data(), length, nullptr, nullptr);
    LocalFree(wide);
    return name;
}

#else

namespace {
/// The kernel's thread name buffer holds 16 bytes with the terminator.
constexpr std::size_t MAX_NAME_BYTES = 15;
} // namespace

void setThreadName(StringView name) {
    std::size_t length = std::min(name.size(), MAX_NAME_BYTES);
    // Do not cut a UTF-8 sequence: back off over continuation bytes.
    if (length < name.size())
        while (length > 0 && (static_cast<unsigned char>(name[length]) & 0xC0) == 0x80)
            --length;
    String const shortName(name.substr(0, length));
#if defined(__APPLE__)
    pthread_setname_np(shortName.c_str());
#else
    pthread_setname_np(pthread_self(), shortName.c_str());
#endif
}

String getThreadName() {
    char buffer[64] = {};
    if (pthread_getname_np(pthread_self(), buffer, sizeof(buffer)) != 0)
        return {};
    return buffer;
}

#endif

} // namespace Quelin
