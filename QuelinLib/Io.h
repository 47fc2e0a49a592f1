#pragma once
// Files, streams, file identities and the standard folders. Failures a caller
// can act on come back as Expected with a message that names the file.
#include "QuelinLib/Base.h"
#include "QuelinLib/Half.h"
#include <bit>
#include <compare>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <type_traits>

namespace Quelin::Io {

using Path = std::filesystem::path;

/// UTF-8 text of a path (for messages, JSON and libraries that take UTF-8).
String pathToUtf8(Path const& path);
Path pathFromUtf8(StringView text);

/// Identity of a file on its volume: two files are the same file when their
/// identities are equal, whatever the paths used to reach them.
struct FileId {
    std::uint64_t volume = 0; // device (POSIX) or volume serial (Windows)
    std::uint64_t file = 0;   // inode (POSIX) or file index (Windows)

    constexpr FileId() = default;
    constexpr FileId(std::uint64_t volume_, std::uint64_t file_) : volume(volume_), file(file_) {}
    static Expected<FileId> fromPath(Path const& path);

    bool operator==(FileId const&) const = default;
    std::size_t getHash() const;
};

/// Last-write time of a file, in the file system clock's ticks (full
/// resolution), with the file's size: a rewrite within one tick of the clock
/// that stamps files usually changes the size.
struct TimeStamp {
    std::int64_t ticks = 0;
    std::int64_t size = -1; // bytes; -1 when unknown
    static Expected<TimeStamp> fromPath(Path const& path);
    auto operator<=>(TimeStamp const&) const = default;
};

bool fileExists(Path const& path); // a regular file (or a link to one)
bool folderExists(Path const& path);
Expected<std::int64_t> getFileSize(Path const& path);
/// Creates the folder and its missing parents; an existing folder is success.
Expected<void> createDirs(Path const& folder);
/// Creates a new empty file with a random, unused name in `folder`.
Expected<Path> createRandomNamedFile(Path const& folder, StringView prefix = "", StringView extension = "");
/// Removes one file. A missing file is an error.
Expected<void> removeFile(Path const& path);
/// The whole content of a regular file. Anything else (a folder, a device such
/// as /dev/zero that never ends) and files above `maxBytes` are refused before
/// anything is read. Errors read "<path>: <problem>".
Expected<String> readTextFile(Path const& path, std::int64_t maxBytes);

struct DiskSpace {
    std::int64_t total = 0;     // capacity of the volume
    std::int64_t free = 0;      // free bytes
    std::int64_t available = 0; // free bytes this process may use
};
Expected<DiskSpace> getDiskSpace(Path const& folder);

namespace StandardPaths {
/// The system's temporary folder.
Path temporary();
/// Full path of the running program.
Path getExecutableFilePath();
/// Root of the development workspace: QUELIN_WORKSPACE_DIR, or the current folder.
Path quelinWorkspaceDir();
/// Installed sky-model data: the folder set by setPrgSkyModelData, else
/// FERRIM_SKY_DATA_DIR, else the program's folder.
Path prgSkyModelData();
/// Lets a host (or the `ferrim sky --data-dir` option) name the installed
/// sky-model data folder; an empty path returns to the default. Thread-safe.
void setPrgSkyModelData(Path const& folder);
} // namespace StandardPaths

// ---------------------------------------------------------------- streams

enum class SeekOrigin { Begin, Current, End };

class InputStream : public Polymorphic, Noncopyable {
  public:
    /// Reads up to `size` bytes; returns how many were read (0 at the end).
    virtual std::size_t readSome(void* destination, std::size_t size) = 0;
    virtual Expected<void> seek(std::int64_t offset, SeekOrigin origin = SeekOrigin::Current) = 0;
    virtual std::int64_t tell() const = 0;
    virtual Expected<std::int64_t> getSize() const = 0;
    /// What the stream reads from, for messages (the file's path).
    virtual String const& getName() const = 0;

    /// Reads exactly `size` bytes; a short read is an error naming the stream.
    Expected<void> read(void* destination, std::size_t size);
    Expected<void> skip(std::int64_t bytes) { return seek(bytes, SeekOrigin::Current); }
    /// Everything from the current position to the end.
    Expected<Stack<std::byte>> readAll();
};

class OutputStream : public Polymorphic, Noncopyable {
  public:
    virtual Expected<void> write(void const* source, std::size_t size) = 0;
    virtual Expected<void> seek(std::int64_t offset, SeekOrigin origin = SeekOrigin::Current) = 0;
    virtual std::int64_t tell() const = 0;
    virtual Expected<void> flush() = 0;
    virtual String const& getName() const = 0;
};

class FileInputStream final : public InputStream {
  public:
    static Expected<std::unique_ptr<FileInputStream>> open(Path const& path);

    std::size_t readSome(void* destination, std::size_t size) override;
    Expected<void> seek(std::int64_t offset, SeekOrigin origin = SeekOrigin::Current) override;
    std::int64_t tell() const override { return mPosition; }
    Expected<std::int64_t> getSize() const override { return mSize; }
    String const& getName() const override { return mName; }
    Path const& getPath() const { return mPath; }

  private:
    FileInputStream() = default;
    std::ifstream mFile;
    Path mPath;
    String mName;
    std::int64_t mPosition = 0;
    std::int64_t mSize = 0;
};

class FileOutputStream final : public OutputStream {
  public:
    enum class Mode { Truncate, Append };
    static Expected<std::unique_ptr<FileOutputStream>> open(Path const& path, Mode mode = Mode::Truncate);
    ~FileOutputStream() override;

    Expected<void> write(void const* source, std::size_t size) override;
    Expected<void> seek(std::int64_t offset, SeekOrigin origin = SeekOrigin::Current) override;
    std::int64_t tell() const override { return mPosition; }
    Expected<void> flush() override;
    /// Flushes and closes; later writes fail. Errors of the last flush show here.
    Expected<void> close();
    String const& getName() const override { return mName; }

  private:
    FileOutputStream() = default;
    std::ofstream mFile;
    Path mPath;
    String mName;
    std::int64_t mPosition = 0;
};

/// Reads from a block of bytes that the stream does not own.
class MemoryInputStream final : public InputStream {
  public:
    MemoryInputStream(void const* data, std::size_t size, String name = "memory")
        : mData(static_cast<std::byte const*>(data)), mSize(size), mName(std::move(name)) {}

    std::size_t readSome(void* destination, std::size_t size) override;
    Expected<void> seek(std::int64_t offset, SeekOrigin origin = SeekOrigin::Current) override;
    std::int64_t tell() const override { return std::int64_t(mPosition); }
    Expected<std::int64_t> getSize() const override { return std::int64_t(mSize); }
    String const& getName() const override { return mName; }

  private:
    std::byte const* mData;
    std::size_t mSize;
    std::size_t mPosition = 0;
    String mName;
};

// ---------------------------------------------------------- binary layer

namespace Detail {
// std::byteswap is C++23; this header is also read by C++20 users.
template <typename U> constexpr U byteSwap(U value) {
    U swapped = 0;
    for (std::size_t i = 0; i < sizeof(U); ++i, value >>= 8)
        swapped = static_cast<U>((swapped << 8) | (value & 0xff));
    return swapped;
}
template <typename T> T fromLittleEndian(T value) {
    if constexpr (std::endian::native == std::endian::big && sizeof(T) > 1) {
        using U = std::conditional_t<sizeof(T) == 2, std::uint16_t,
                                     std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint64_t>>;
        return std::bit_cast<T>(byteSwap(std::bit_cast<U>(value)));
    } else {
        return value;
    }
}
template <typename T> constexpr bool IS_BINARY_SCALAR = std::is_arithmetic_v<T> && !std::is_same_v<T, bool>;
} // namespace Detail

/// Little-endian values from an input stream.
class BinaryInputStream {
  public:
    explicit BinaryInputStream(InputStream& stream) : mStream(stream) {}

    template <typename T>
    requires Detail::IS_BINARY_SCALAR<T> Expected<T> read() {
        T value;
        if (auto r = mStream.read(&value, sizeof(T)); !r)
            return makeError(r.error());
        return Detail::fromLittleEndian(value);
    }
    /// `count` values into `destination`.
    template <typename T>
    requires Detail::IS_BINARY_SCALAR<T> Expected<void> read(T* destination, std::size_t count) {
        if (auto r = mStream.read(destination, count * sizeof(T)); !r)
            return r;
        if constexpr (std::endian::native == std::endian::big && sizeof(T) > 1)
            for (std::size_t i = 0; i < count; ++i)
                destination[i] = Detail::fromLittleEndian(destination[i]);
        return {};
    }
    /// Raw bytes, as stored.
    Expected<void> read(void* destination, std::size_t size) { return mStream.read(destination, size); }
    /// One binary16 value, converted exactly.
    Expected<float> readHalf() {
        auto bits = read<std::uint16_t>();
        if (!bits)
            return makeError(bits.error());
        return halfToFloat(*bits);
    }
    Expected<void> readHalves(float* destination, std::size_t count);
    Expected<void> skip(std::int64_t bytes) { return mStream.skip(bytes); }
    InputStream& getStream() { return mStream; }

  private:
    InputStream& mStream;
};

/// Little-endian values to an output stream.
class BinaryOutputStream {
  public:
    explicit BinaryOutputStream(OutputStream& stream) : mStream(stream) {}

    template <typename T>
    requires Detail::IS_BINARY_SCALAR<T> Expected<void> write(T value) {
        value = Detail::fromLittleEndian(value); // the swap is its own inverse
        return mStream.write(&value, sizeof(T));
    }
    Expected<void> write(void const* source, std::size_t size) { return mStream.write(source, size); }
    Expected<void> writeHalf(float value) { return write(floatToHalf(value)); }
    OutputStream& getStream() { return mStream; }

  private:
    OutputStream& mStream;
};

} // namespace Quelin::Io

template <> struct std::hash<Quelin::Io::FileId> {
    std::size_t operator()(Quelin::Io::FileId const& id) const noexcept { return id.getHash(); }
};
