#include "QuelinLib/DataSource.h"

#include <nlohmann/json.hpp>

namespace Quelin {

namespace {
// Identities outside any real volume: st_dev / volume serials never take these.
constexpr std::uint64_t MEMORY_VOLUME = ~std::uint64_t(0);
constexpr std::uint64_t UNIDENTIFIED_FILE_VOLUME = ~std::uint64_t(0) - 1;

std::atomic<std::uint64_t> sNextMemoryId{0};

class Builder final : public IDataObjectBuilder {
  public:
    SharedPtr<PropertyDefinition> addProperty(StringView name, SharedPtr<TypeDefinition const> type,
                                              PropertyKind kind = PropertyKind::Normal) override {
        auto p = createProperty(name, std::move(type), kind);
        mProperties.push_back(p);
        return p;
    }
    void add(StringView name, SharedPtr<TypeDefinition const> type, StringView uiName, StringView description) {
        auto p = addProperty(name, std::move(type));
        p->setMetadata(Metadata::UI_NAME, String(uiName));
        p->setMetadata(Metadata::UI_DESCRIPTION, String(description));
    }
};

/// A source's record: where its bytes are, then "contentType".
SharedPtr<DataObjectDefinition const> sourceDefinition(String typeName, StringView bytesName, SharedPtr<TypeDefinition const> bytesType,
                                                       StringView bytesUiName, StringView bytesDescription,
                                                       StringView contentTypeDescription) {
    Builder b;
    b.add(bytesName, std::move(bytesType), bytesUiName, bytesDescription);
    b.add("contentType", TypeDefinition::makeString(), "Content type", contentTypeDescription);
    return b.build(std::move(typeName));
}

/// A memory stream that keeps the bytes it reads alive.
class SharedBytesInputStream final : public Io::InputStream {
  public:
    explicit SharedBytesInputStream(SharedPtr<String const> bytes)
        : mBytes(std::move(bytes)), mStream(mBytes->data(), mBytes->size(), "memory") {}
    std::size_t readSome(void* destination, std::size_t size) override { return mStream.readSome(destination, size); }
    Expected<void> seek(std::int64_t offset, Io::SeekOrigin origin) override { return mStream.seek(offset, origin); }
    std::int64_t tell() const override { return mStream.tell(); }
    Expected<std::int64_t> getSize() const override { return mStream.getSize(); }
    String const& getName() const override { return mStream.getName(); }

  private:
    SharedPtr<String const> mBytes;
    Io::MemoryInputStream mStream;
};

constexpr char BASE64_DIGITS[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

String encodeBase64(String const& bytes) {
    String out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 2 < bytes.size(); i += 3) {
        std::uint32_t const v = std::uint32_t(std::uint8_t(bytes[i])) << 16 | std::uint32_t(std::uint8_t(bytes[i + 1])) << 8 |
                                std::uint8_t(bytes[i + 2]);
        for (int s = 18; s >= 0; s -= 6) out.push_back(BASE64_DIGITS[(v >> s) & 63]);
    }
    if (std::size_t const rest = bytes.size() - i; rest > 0) {
        std::uint32_t v = std::uint32_t(std::uint8_t(bytes[i])) << 16;
        if (rest == 2) v |= std::uint32_t(std::uint8_t(bytes[i + 1])) << 8;
        out.push_back(BASE64_DIGITS[(v >> 18) & 63]);
        out.push_back(BASE64_DIGITS[(v >> 12) & 63]);
        out.push_back(rest == 2 ? BASE64_DIGITS[(v >> 6) & 63] : '=');
        out.push_back('=');
    }
    return out;
}

Expected<String> decodeBase64(StringView text) {
    String out;
    out.reserve(text.size() / 4 * 3);
    std::uint32_t accumulated = 0;
    int bits = 0;
    std::size_t padding = 0;
    for (char c : text) {
        int digit;
        if (c >= 'A' && c <= 'Z') digit = c - 'A';
        else if (c >= 'a' && c <= 'z') digit = c - 'a' + 26;
        else if (c >= '0' && c <= '9') digit = c - '0' + 52;
        else if (c == '+') digit = 62;
        else if (c == '/') digit = 63;
        else if (c == '=') { ++padding; continue; }
        else return makeError("\"data\" is not base64 text");
        if (padding > 0) return makeError("\"data\" is not base64 text");
        accumulated = (accumulated << 6) | std::uint32_t(digit);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out.push_back(char((accumulated >> bits) & 0xFF));
        }
    }
    if (padding > 2 || (text.size() % 4 != 0 && padding > 0)) return makeError("\"data\" is not base64 text");
    return out;
}
} // namespace

// ---------------------------------------------------------------- file source

SharedPtr<DataObjectDefinition const> FileDataSource::Data::definition() {
    static SharedPtr<DataObjectDefinition const> const sDefinition =
        sourceDefinition("Zatho.FileDataSource", "path", TypeDefinition::makePath(), "File", "The image file",
                         "MIME type or extension of the file's format; empty: taken from the file's extension");
    return sDefinition;
}

FileDataSource::FileDataSource() : IDataSource(Data::definition()) {}
FileDataSource::FileDataSource(SharedPtr<DataObjectDefinition const> definition) : IDataSource(std::move(definition)) {}

SharedPtr<FileDataSource> FileDataSource::make(Io::Path const& path, String contentType) {
    auto source = makeSharedPtr<FileDataSource>();
    source->set("path", Io::pathToUtf8(path));
    source->set("contentType", std::move(contentType));
    return source;
}

SharedPtr<Entity> FileDataSource::createNewInstance() const { return makeSharedPtr<FileDataSource>(); }

Io::Path FileDataSource::getPhysicalPath() const {
    std::lock_guard lock(getMutex());
    return Io::pathFromUtf8(get<String>("path"));
}

Io::FileId FileDataSource::getFileId() const {
    Io::Path const path = getPhysicalPath();
    if (auto id = Io::FileId::fromPath(path))
        return *id;
    // Same text, same identity: requests for one missing file still share a record.
    return Io::FileId(UNIDENTIFIED_FILE_VOLUME, std::hash<String>{}(Io::pathToUtf8(path)));
}

Optional<Io::TimeStamp> FileDataSource::getTimeStamp() const {
    auto stamp = Io::TimeStamp::fromPath(getPhysicalPath());
    return stamp ? Optional<Io::TimeStamp>(*stamp) : std::nullopt;
}

String FileDataSource::getContentType() const {
    String type;
    {
        std::lock_guard lock(getMutex());
        type = get<String>("contentType");
    }
    if (!type.empty())
        return type;
    String const extension = Io::pathToUtf8(getPhysicalPath().extension());
    return extension.empty() ? String() : extension.substr(1);
}

Expected<std::unique_ptr<Io::InputStream>> FileDataSource::openStream() const {
    auto stream = Io::FileInputStream::open(getPhysicalPath());
    if (!stream)
        return makeError(stream.error());
    return std::unique_ptr<Io::InputStream>(std::move(*stream));
}

String FileDataSource::getDisplayName() const { return Io::pathToUtf8(getPhysicalPath()); }

// -------------------------------------------------------------- memory source

SharedPtr<DataObjectDefinition const> MemoryDataSource::Data::definition() {
    static SharedPtr<DataObjectDefinition const> const sDefinition =
        sourceDefinition("Zatho.MemoryDataSource", "data", TypeDefinition::makeString(), "Data", "The bytes of an image file",
                         "MIME type or extension of the data's image format");
    return sDefinition;
}

MemoryDataSource::MemoryDataSource()
    : IDataSource(Data::definition()), mId(MEMORY_VOLUME, ++sNextMemoryId), mBytes(makeSharedPtr<String const>()) {}

SharedPtr<MemoryDataSource> MemoryDataSource::make(String bytes, String contentType) {
    auto source = makeSharedPtr<MemoryDataSource>();
    source->set("data", std::move(bytes));
    source->set("contentType", std::move(contentType));
    return source;
}

SharedPtr<Entity> MemoryDataSource::createNewInstance() const { return makeSharedPtr<MemoryDataSource>(); }

Io::FileId MemoryDataSource::getFileId() const { return mId; }

String MemoryDataSource::getContentType() const {
    std::lock_guard lock(getMutex());
    return get<String>("contentType");
}

Expected<std::unique_ptr<Io::InputStream>> MemoryDataSource::openStream() const {
    std::lock_guard lock(mBytesMutex);
    return std::unique_ptr<Io::InputStream>(std::make_unique<SharedBytesInputStream>(mBytes));
}

void MemoryDataSource::onDataChanged(StringView propertyName) {
    if (!propertyName.empty() && propertyName != "data")
        return;
    SharedPtr<String const> bytes;
    {
        std::lock_guard lock(getMutex());
        bytes = makeSharedPtr<String const>(std::get<String>(getData().getValue("data")));
    }
    std::lock_guard lock(mBytesMutex);
    mBytes = std::move(bytes);
}

// Image bytes are binary; JSON text holds them as base64.
nlohmann::json MemoryDataSource::saveInternalData() const {
    nlohmann::json j = IDataSource::saveInternalData();
    std::lock_guard lock(mBytesMutex);
    j["data"] = encodeBase64(*mBytes);
    return j;
}

Expected<void> MemoryDataSource::loadInternalData(nlohmann::json const& data) {
    nlohmann::json copy = data;
    if (auto it = copy.find("data"); it != copy.end()) {
        if (!it->is_string())
            return makeError("\"Zatho.MemoryDataSource\": \"data\" must be base64 text");
        auto bytes = decodeBase64(it->get_ref<String const&>());
        if (!bytes)
            return makeError("\"Zatho.MemoryDataSource\": " + bytes.error());
        *it = std::move(*bytes);
    }
    return IDataSource::loadInternalData(copy);
}

} // namespace Quelin
