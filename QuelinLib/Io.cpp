#include "QuelinLib/Io.h"
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <system_error>

#include "QuelinLib/PlatformHeaders.h"

namespace Quelin::Io {

namespace {
namespace fs = std::filesystem;

String quoted(Path const& path) {
    String text = pathToUtf8(path);
    text.insert(text.begin(), '"');
    text.push_back('"');
    return text;
}

String systemErrorText(int code) { return std::error_code(code, std::generic_category()).message(); }
} // namespace

String pathToUtf8(Path const& path) {
    auto const text = path.u8string();
    return String(reinterpret_cast<char const*>(text.data()), text.size());
}

Path pathFromUtf8(StringView text) {
    return Path(std::u8string(reinterpret_cast<char8_t const*>(text.data()), text.size()));
}

// ------------------------------------------------------------ identities

std::size_t FileId::getHash() const {
    // splitmix64 finaliser over both words: inode numbers are dense, so mix well.
    std::uint64_t h = volume * 0x9E3779B97F4A7C15ull ^ file;
    h ^= h >> 30;
    h *= 0xBF58476D1CE4E5B9ull;
    h ^= h >> 27;
    h *= 0x94D049BB133111EBull;
    h ^= h >> 31;
    return std::size_t(h);
}

Expected<FileId> FileId::fromPath(Path const& path) {
#if defined(_WIN32)
    HANDLE const handle = CreateFileW(path.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                      OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (handle == INVALID_HANDLE_VALUE)
        return makeError("Could not identify file " + quoted(path) + ": error " + std::to_string(GetLastError()));
    BY_HANDLE_FILE_INFORMATION info;
    BOOL const ok = GetFileInformationByHandle(handle, &info);
    CloseHandle(handle);
    if (!ok)
        return makeError("Could not identify file " + quoted(path) + ": error " + std::to_string(GetLastError()));
    return FileId(info.dwVolumeSerialNumber, (std::uint64_t(info.nFileIndexHigh) << 32) | info.nFileIndexLow);
#else
    struct stat info;
    if (::stat(path.c_str(), &info) != 0)
        return makeError("Could not identify file " + quoted(path) + ": " + systemErrorText(errno));
    return FileId(std::uint64_t(info.st_dev), std::uint64_t(info.st_ino));
#endif
}

Expected<TimeStamp> TimeStamp::fromPath(Path const& path) {
    std::error_code ec;
    auto const time = fs::last_write_time(path, ec);
    if (ec)
        return makeError("Could not read the time stamp of " + quoted(path) + ": " + ec.message());
    auto const size = fs::file_size(path, ec);
    return TimeStamp{std::int64_t(time.time_since_epoch().count()), ec ? -1 : std::int64_t(size)};
}

// ------------------------------------------------------------ files and folders

bool fileExists(Path const& path) {
    std::error_code ec;
    return fs::is_regular_file(path, ec);
}

bool folderExists(Path const& path) {
    std::error_code ec;
    return fs::is_directory(path, ec);
}

Expected<std::int64_t> getFileSize(Path const& path) {
    std::error_code ec;
    auto const size = fs::file_size(path, ec);
    if (ec)
        return makeError("Could not read the size of " + quoted(path) + ": " + ec.message());
    return std::int64_t(size);
}

Expected<String> readTextFile(Path const& path, std::int64_t maxBytes) {
    String const name = pathToUtf8(path);
    std::error_code ec;
    auto const status = fs::status(path, ec);
    if (ec || !fs::exists(status))
        return makeError(name + ": cannot open the file (" + (ec ? ec.message() : systemErrorText(ENOENT)) + ")");
    if (!fs::is_regular_file(status))
        return makeError(name + ": not a regular file");
    auto const size = fs::file_size(path, ec);
    if (ec)
        return makeError(name + ": cannot read the file (" + ec.message() + ")");
    auto const tooLarge = [&] {
        return makeError(name + ": the file is larger than the limit of " + std::to_string(maxBytes) + " bytes");
    };
    if (size > std::uint64_t(std::max<std::int64_t>(maxBytes, 0)))
        return tooLarge();
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return makeError(name + ": cannot open the file (" + systemErrorText(errno) + ")");
    String text(std::size_t(size), '\0');
    in.read(text.data(), std::streamsize(text.size()));
    text.resize(std::size_t(in.gcount()));
    if (in.bad())
        return makeError(name + ": cannot read the file");
    // The file may have grown since its size was taken.
    if (in && in.peek() != std::char_traits<char>::eof())
        return tooLarge();
    return text;
}

Expected<void> createDirs(Path const& folder) {
    std::error_code ec;
    fs::create_directories(folder, ec);
    if (ec)
        return makeError("Could not create folder " + quoted(folder) + ": " + ec.message());
    if (!fs::is_directory(folder, ec))
        return makeError("Could not create folder " + quoted(folder) + ": a file of that name exists");
    return {};
}

Expected<Path> createRandomNamedFile(Path const& folder, StringView prefix, StringView extension) {
    static thread_local std::mt19937_64 generator{
        std::random_device{}() ^ std::uint64_t(std::hash<std::thread::id>{}(std::this_thread::get_id()))};
    char const* const hex = "0123456789abcdef";
    String lastError = "no attempt made";
    // A clash with an existing name is retried; anything else is final.
    for (int attempt = 0; attempt < 16; ++attempt) {
        String name(prefix);
        std::uint64_t bits = generator();
        for (int i = 0; i < 16; ++i, bits >>= 4)
            name += hex[bits & 15];
        name += extension;
        Path const path = folder / pathFromUtf8(name);
#if defined(_WIN32)
        FILE* const file = _wfopen(path.c_str(), L"wbx");
#else
        int const fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
        FILE* const file = fd >= 0 ? ::fdopen(fd, "wb") : nullptr;
#endif
        if (file) {
            std::fclose(file);
            return path;
        }
        int const error = errno;
        lastError = systemErrorText(error);
        if (error != EEXIST)
            break;
    }
    return makeError("Unable to create a file in folder " + quoted(folder) + ": " + lastError);
}

Expected<void> removeFile(Path const& path) {
    std::error_code ec;
    if (!fs::remove(path, ec)) {
        return makeError("Could not remove " + quoted(path) + ": " + (ec ? ec.message() : String("no such file")));
    }
    return {};
}

Expected<DiskSpace> getDiskSpace(Path const& folder) {
    std::error_code ec;
    auto const info = fs::space(folder, ec);
    if (ec)
        return makeError("Could not query the disk space of " + quoted(folder) + ": " + ec.message());
    return DiskSpace{std::int64_t(info.capacity), std::int64_t(info.free), std::int64_t(info.available)};
}

// ------------------------------------------------------------ standard folders

namespace StandardPaths {

Path temporary() {
    std::error_code ec;
    Path path = fs::temp_directory_path(ec);
#if defined(_WIN32)
    if (ec)
        path = L"C:\\Windows\\Temp";
#else
    if (ec)
        path = "/tmp";
#endif
    return path;
}

Path getExecutableFilePath() {
#if defined(_WIN32)
    std::wstring buffer(MAX_PATH, L'\0');
    for (;;) {
        DWORD const length = GetModuleFileNameW(nullptr, buffer.data(), DWORD(buffer.size()));
        if (length == 0)
            return {};
        if (length < buffer.size()) {
            buffer.resize(length);
            return Path(buffer);
        }
        buffer.resize(buffer.size() * 2);
    }
#else
    std::error_code ec;
    Path path = fs::read_symlink("/proc/self/exe", ec);
    return ec ? Path() : path;
#endif
}

namespace {
Optional<Path> pathFromEnvironment(char const* name) {
    char const* const value = std::getenv(name);
    if (!value || !*value)
        return std::nullopt;
    return pathFromUtf8(value);
}
} // namespace

Path quelinWorkspaceDir() {
    if (auto path = pathFromEnvironment("QUELIN_WORKSPACE_DIR"))
        return *path;
    std::error_code ec;
    return fs::current_path(ec);
}

namespace {
struct SkyDataOverride {
    Mutex mutex;
    Path folder;
};
SkyDataOverride& skyDataOverride() {
    static SkyDataOverride s;
    return s;
}
} // namespace

void setPrgSkyModelData(Path const& folder) {
    auto& o = skyDataOverride();
    std::lock_guard lock(o.mutex);
    o.folder = folder;
}

Path prgSkyModelData() {
    {
        auto& o = skyDataOverride();
        std::lock_guard lock(o.mutex);
        if (!o.folder.empty())
            return o.folder;
    }
    if (auto path = pathFromEnvironment("FERRIM_SKY_DATA_DIR"))
        return *path;
    return getExecutableFilePath().parent_path();
}

} // namespace StandardPaths

// ------------------------------------------------------------ streams

namespace {
std::ios_base::seekdir toSeekDir(SeekOrigin origin) {
    switch (origin) {
    case SeekOrigin::Begin:
        return std::ios_base::beg;
    case SeekOrigin::End:
        return std::ios_base::end;
    default:
        return std::ios_base::cur;
    }
}

std::int64_t seekTarget(std::int64_t position, std::int64_t size, std::int64_t offset, SeekOrigin origin) {
    switch (origin) {
    case SeekOrigin::Begin:
        return offset;
    case SeekOrigin::End:
        return size + offset;
    default:
        return position + offset;
    }
}
} // namespace

Expected<void> InputStream::read(void* destination, std::size_t size) {
    std::int64_t const start = tell();
    std::size_t done = 0;
    while (done < size) {
        std::size_t const got = readSome(static_cast<std::byte*>(destination) + done, size - done);
        if (got == 0)
            break;
        done += got;
    }
    if (done != size) {
        return makeError("Unexpected end of " + getName() + ": wanted " + std::to_string(size) + " bytes at offset " +
                         std::to_string(start) + ", got " + std::to_string(done));
    }
    return {};
}

Expected<Stack<std::byte>> InputStream::readAll() {
    auto const size = getSize();
    if (!size)
        return makeError(size.error());
    std::int64_t const remaining = std::max<std::int64_t>(0, *size - tell());
    Stack<std::byte> bytes(static_cast<std::size_t>(remaining));
    if (auto r = read(bytes.data(), bytes.size()); !r)
        return makeError(r.error());
    return bytes;
}

Expected<std::unique_ptr<FileInputStream>> FileInputStream::open(Path const& path) {
    std::unique_ptr<FileInputStream> stream(new FileInputStream());
    stream->mPath = path;
    stream->mName = quoted(path);
    // Checked before opening: opening a FIFO blocks until a writer comes, and
    // a device such as /dev/zero never ends.
    std::error_code ec;
    auto const status = fs::status(path, ec);
    if (ec || !fs::exists(status))
        return makeError("Could not open " + stream->mName + " for reading: no such file");
    if (fs::is_directory(status))
        return makeError("Could not open " + stream->mName + " for reading: it is a folder");
    if (!fs::is_regular_file(status))
        return makeError("Could not open " + stream->mName + " for reading: not a regular file");
    stream->mFile.open(path, std::ios::binary | std::ios::in);
    if (!stream->mFile)
        return makeError("Could not open " + stream->mName + " for reading: access denied");
    auto const size = getFileSize(path);
    if (!size)
        return makeError(size.error());
    stream->mSize = *size;
    return stream;
}

std::size_t FileInputStream::readSome(void* destination, std::size_t size) {
    if (!mFile.good() || size == 0)
        return 0;
    mFile.read(static_cast<char*>(destination), std::streamsize(size));
    auto const got = std::size_t(mFile.gcount());
    mPosition += std::int64_t(got);
    if (mFile.eof())
        mFile.clear(); // stay usable for seeks after hitting the end
    return got;
}

Expected<void> FileInputStream::seek(std::int64_t offset, SeekOrigin origin) {
    std::int64_t const target = seekTarget(mPosition, mSize, offset, origin);
    if (target < 0 || target > mSize) {
        return makeError("Seek outside of " + mName + ": offset " + std::to_string(target) + " of a file of " +
                         std::to_string(mSize) + " bytes");
    }
    mFile.clear();
    mFile.seekg(std::streamoff(offset), toSeekDir(origin));
    if (!mFile)
        return makeError("Could not seek in " + mName);
    mPosition = target;
    return {};
}

Expected<std::unique_ptr<FileOutputStream>> FileOutputStream::open(Path const& path, Mode mode) {
    std::unique_ptr<FileOutputStream> stream(new FileOutputStream());
    stream->mPath = path;
    stream->mName = quoted(path);
    // An existing FIFO or device would block or swallow the data: files only.
    std::error_code ec;
    auto const status = fs::status(path, ec);
    if (!ec && fs::exists(status) && !fs::is_regular_file(status))
        return makeError("Could not open " + stream->mName + " for writing: not a regular file");
    auto const flags = std::ios::binary | std::ios::out | (mode == Mode::Append ? std::ios::app : std::ios::trunc);
    stream->mFile.open(path, flags);
    if (!stream->mFile) {
        int const error = errno;
        return makeError("Could not open " + stream->mName + " for writing: " + systemErrorText(error));
    }
    if (mode == Mode::Append) {
        auto const size = getFileSize(path);
        stream->mPosition = size ? *size : 0;
    }
    return stream;
}

FileOutputStream::~FileOutputStream() = default;

Expected<void> FileOutputStream::write(void const* source, std::size_t size) {
    if (!mFile.is_open())
        return makeError("Could not write to " + mName + ": the stream is closed");
    mFile.write(static_cast<char const*>(source), std::streamsize(size));
    if (!mFile)
        return makeError("Could not write " + std::to_string(size) + " bytes to " + mName);
    mPosition += std::int64_t(size);
    return {};
}

Expected<void> FileOutputStream::seek(std::int64_t offset, SeekOrigin origin) {
    mFile.seekp(std::streamoff(offset), toSeekDir(origin));
    if (!mFile)
        return makeError("Could not seek in " + mName);
    mPosition = std::int64_t(mFile.tellp());
    return {};
}

Expected<void> FileOutputStream::flush() {
    mFile.flush();
    if (!mFile)
        return makeError("Could not write to " + mName);
    return {};
}

Expected<void> FileOutputStream::close() {
    if (!mFile.is_open())
        return {};
    mFile.close();
    if (!mFile)
        return makeError("Could not finish writing " + mName);
    return {};
}

std::size_t MemoryInputStream::readSome(void* destination, std::size_t size) {
    std::size_t const got = std::min(size, mSize - mPosition);
    if (got)
        std::memcpy(destination, mData + mPosition, got);
    mPosition += got;
    return got;
}

Expected<void> MemoryInputStream::seek(std::int64_t offset, SeekOrigin origin) {
    std::int64_t const target = seekTarget(std::int64_t(mPosition), std::int64_t(mSize), offset, origin);
    if (target < 0 || target > std::int64_t(mSize)) {
        return makeError("Seek outside of " + mName + ": offset " + std::to_string(target) + " of " +
                         std::to_string(mSize) + " bytes");
    }
    mPosition = std::size_t(target);
    return {};
}

Expected<void> BinaryInputStream::readHalves(float* destination, std::size_t count) {
    // Converted in place from the back, so the halves can share the float buffer.
    auto* const halves = reinterpret_cast<std::uint16_t*>(destination);
    if (auto r = read(halves, count); !r)
        return r;
    for (std::size_t i = count; i-- > 0;) {
        std::uint16_t bits;
        std::memcpy(&bits, reinterpret_cast<std::byte const*>(destination) + i * 2, 2);
        destination[i] = halfToFloat(bits);
    }
    return {};
}

} // namespace Quelin::Io
