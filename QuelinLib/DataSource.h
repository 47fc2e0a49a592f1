#pragma once
// Sources of image bytes: a file on disk or a block of memory. The image-texture
// cache identifies a source by its file identity and decides by its time stamp
// whether a texture built from it is still fresh.
#include "QuelinLib/DataObjects.h"
#include "QuelinLib/Io.h"

namespace Quelin {

/// Where an image's bytes come from. Sources are entities, so scenes store them
/// inside the records of the maps that use them.
class IDataSource : public Entity {
  public:
    using Entity::Entity;

    /// Two sources of the same file have the same identity; every memory source
    /// has its own. Never fails: a file that cannot be identified (missing,
    /// unreadable) gets an identity made from its path, so that asking again
    /// after it appears gives the real one.
    virtual Io::FileId getFileId() const = 0;
    /// When the bytes last changed, as far as the source can tell; empty for
    /// sources that never change behind the caller's back (memory).
    virtual Optional<Io::TimeStamp> getTimeStamp() const = 0;
    /// MIME type ("image/png") or a file extension ("png", ".exr"); empty: unknown.
    virtual String getContentType() const = 0;
    /// A fresh stream over the bytes, positioned at the start; its name (for
    /// messages) is the file's path or "memory".
    virtual Expected<std::unique_ptr<Io::InputStream>> openStream() const = 0;
    /// Text for messages and reports: the path, or "memory".
    virtual String getDisplayName() const = 0;
};

/// A file on disk. Properties: "path" (path) and "contentType" (text; when empty
/// the file's extension is used).
class FileDataSource : public IDataSource {
  public:
    struct Data {
        /// "Zatho.FileDataSource".
        static SharedPtr<DataObjectDefinition const> definition();
    };

    FileDataSource();
    /// A source for `path`; `contentType` empty takes the path's extension.
    static SharedPtr<FileDataSource> make(Io::Path const& path, String contentType = {});

    SharedPtr<Entity> createNewInstance() const override;
    Io::FileId getFileId() const override;
    /// The file's last-write time at the file system's full resolution, with
    /// its size, so that a rewrite within one clock tick is still seen; empty
    /// while the file cannot be read.
    Optional<Io::TimeStamp> getTimeStamp() const override;
    String getContentType() const override;
    Expected<std::unique_ptr<Io::InputStream>> openStream() const override;
    String getDisplayName() const override;

    /// The "path" property as a path.
    Io::Path getPhysicalPath() const;

  protected:
    explicit FileDataSource(SharedPtr<DataObjectDefinition const> definition);
};

/// A block of bytes held by the source (an image embedded in a scene).
/// Properties: "data" (the bytes, as text; saved to JSON in base64) and
/// "contentType" (required: memory has no extension to guess from).
class MemoryDataSource : public IDataSource {
  public:
    struct Data {
        /// "Zatho.MemoryDataSource".
        static SharedPtr<DataObjectDefinition const> definition();
    };

    MemoryDataSource();
    static SharedPtr<MemoryDataSource> make(String bytes, String contentType);

    SharedPtr<Entity> createNewInstance() const override;
    Io::FileId getFileId() const override;
    Optional<Io::TimeStamp> getTimeStamp() const override { return std::nullopt; }
    String getContentType() const override;
    /// The stream shares the bytes it reads, so it stays valid when "data" is
    /// replaced meanwhile.
    Expected<std::unique_ptr<Io::InputStream>> openStream() const override;
    String getDisplayName() const override { return "memory"; }

    nlohmann::json saveInternalData() const override;
    Expected<void> loadInternalData(nlohmann::json const& data) override;

  protected:
    void onDataChanged(StringView propertyName) override;

  private:
    Io::FileId mId;
    mutable Mutex mBytesMutex;
    SharedPtr<String const> mBytes;
};

} // namespace Quelin
