// Where a command's hive lies, and where its bytes and the logs beside it are
// read from: a file in a folder on disk, or a file on an NTFS volume inside a
// disk image (--image IMAGE [--partition N] [--overlay NEW.qcow2]). info,
// check, replay and the edit guard read through this, whichever it is.
#pragma once

#include <cstddef>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "Args.h"
#include "Text.h"
#include "api/HiveAccess.h"

namespace TamvikTool {

struct HivePlace {
    std::string hive;     // the file, or its path inside the image's file system
    std::string image;    // empty: hive is a local file
    int partition = -1;   // -1: the one NTFS partition that holds the hive
    std::string overlay;  // edits go into this new qcow2 file; the image stays as it is

    // From the command's first argument and its --image, --partition and --overlay.
    static HivePlace From(const Args& args);
    bool InImage() const { return !image.empty(); }
    // What tamvik replay takes to name this hive (an image's needs -o OUT).
    std::string ReplayArguments() const;
    // Where a reading command reads it from.
    std::unique_ptr<class HiveSource> Source() const;
};

class HiveSource {
public:
    virtual ~HiveSource() = default;
    // How messages name the hive: its path, or IMAGE:PATH.
    const std::string& Name() const { return name_; }
    // The hive file's bytes, at most limit of them; false with *error when it can't be read.
    virtual bool ReadHive(Bytes* bytes, std::string* error,
                          std::size_t limit = std::numeric_limits<std::size_t>::max()) = 0;
    // The logs beside the hive: NAME.LOG, NAME.LOG1, ... in any letter case.
    virtual std::vector<std::string> Logs() = 0;
    virtual bool ReadLog(const std::string& path, Bytes* bytes, std::string* error) = 0;

protected:
    explicit HiveSource(std::string name) : name_(std::move(name)) {}

private:
    std::string name_;
};

class FileSource : public HiveSource {
public:
    explicit FileSource(const std::string& path) : HiveSource(path) {}
    bool ReadHive(Bytes* bytes, std::string* error, std::size_t limit) override;
    std::vector<std::string> Logs() override;
    bool ReadLog(const std::string& path, Bytes* bytes, std::string* error) override;
};

// A hive inside a disk image. The image and the volume stay open while this
// lives; the hive opens through them once.
class ImageSource : public HiveSource {
public:
    // Opens the image and the volume, for writing when forEdit. Throws
    // ToolError: status 4 when another process has the image, 6 when Windows
    // left the volume unsafe to write, 2 when the partition must be named.
    ImageSource(const HivePlace& place, bool forEdit);
    ~ImageSource() override;
    bool ReadHive(Bytes* bytes, std::string* error, std::size_t limit) override;
    std::vector<std::string> Logs() override;
    bool ReadLog(const std::string& path, Bytes* bytes, std::string* error) override;

    // Reads the hive through a device on the volume; throws ToolError.
    Tamvik::HiveAccess& OpenHive(bool writable);
    // Closes the hive, then the volume and the image, each flushed; throws
    // ToolError when a change may not have reached the image.
    void Close();

    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
};

}  // namespace TamvikTool
