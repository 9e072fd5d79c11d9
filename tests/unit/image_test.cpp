// Guards hives inside disk images: every format and partition table reads a
// hive through the image as the extracted file reads, an edit lands in the
// file (growing it) and leaves a volume that independent NTFS checkers and
// hivex accept, reading changes no byte of the image, and the refusals
// (damaged tables, hibernated volumes, locks, stream-optimized vmdk, read-only
// volumes, encrypted files) come with their kind.
#include <gtest/gtest.h>

#include <TamvikImage.h>

#include <algorithm>
#include <functional>
#include <tuple>

#include "support/DiskImage.h"
#include "support/HiveBuilder.h"
#include "support/Listing.h"
#include "support/Peers.h"

namespace {

using namespace RegAPI;
using namespace TamvikTest;
namespace ti = TamvikImage;

std::unique_ptr<ti::Image> OpenImage(const std::string& path, ti::OpenOptions options = {}) {
    ti::Error error;
    std::unique_ptr<ti::Image> image = ti::Image::Open(path, options, error);
    EXPECT_TRUE(image) << error.text;
    return image;
}

std::unique_ptr<ti::Volume> OpenVolume(ti::Image& image, int number, bool writable) {
    ti::Error error;
    std::unique_ptr<ti::Volume> volume = ti::Volume::Open(image, number, writable, error);
    EXPECT_TRUE(volume) << error.text;
    return volume;
}

// The listing of a hive through a device on the volume, after an optional
// edit; beforeClose runs while the hive is still open.
Listing ListThroughDevice(ti::Volume& volume, const std::u16string& path, bool edit = false,
                          const std::function<void()>& beforeClose = {}) {
    ti::VolumeDevice device(volume);
    HKEY hive = nullptr, root = nullptr, key = nullptr;
    Listing listing;
    if (OpenHiveByVolumeW(path.c_str(), &device, &hive) != Result::Ok) {
        listing.problems.push_back("open: " + device.LastError().text);
        return listing;
    }
    const Bytes big(200000, 0x5A);  // a db value: the hive grows past its clusters
    if (edit && (RegOpenKeyExW(hive, u"ROOT", 0, 0, &root) != Result::Ok ||
                 RegCreateKeyExW(root, u"FromImage", &key) != Result::Ok ||
                 RegSetValueNewW(key, u"Big", 0, 3, big.data(), static_cast<DWORD>(big.size())) != Result::Ok))
        listing.problems.push_back("edit: " + device.LastError().text);
    Listing walked = ListKey(hive);
    if (beforeClose) beforeClose();
    walked.problems.insert(walked.problems.end(), listing.problems.begin(), listing.problems.end());
    EXPECT_EQ(CloseHiveByVolume(&hive, &device), Result::Ok);
    EXPECT_FALSE(device.LastError()) << device.LastError().text;
    return walked;
}

Listing ListBytes(const Bytes& bytes) { return ListFile(TempFile(bytes).Path()); }

struct FormatCase {
    const char* id;
    Table table;
    const char* format;
    const char* options;
    int partition;
    const char* scheme;
};

class ImageFormats : public ::testing::TestWithParam<FormatCase> {};

TEST_P(ImageFormats, AHiveReadsAsExtractedAndAnEditLandsInTheImage) {
    SKIP_WITHOUT_IMAGE_TOOLS();
    const FormatCase& row = GetParam();
    ScratchDir scratch;
    const Kit kit = MakeImage(scratch, row.table, row.format, row.options);
    const std::string before = FileDigest(kit.image);
    {
        auto image = OpenImage(kit.image);
        ASSERT_TRUE(image);
        EXPECT_EQ(image->Format(), row.format);
        EXPECT_EQ(image->Table(), row.scheme);
        EXPECT_TRUE(image->Warnings().empty()) << image->Warnings().front();
        const auto& partitions = image->Partitions();
        const auto ntfs = std::find_if(partitions.begin(), partitions.end(),
                                       [](const ti::Partition& p) { return p.fileSystem == ti::FileSystem::Ntfs; });
        ASSERT_NE(ntfs, partitions.end());
        EXPECT_EQ(ntfs->number, row.partition);
        EXPECT_EQ(ntfs->start, kit.start);
        EXPECT_EQ(ntfs->label, "Windows");
        ASSERT_EQ(partitions.size(), row.table == Table::None ? 1u : 2u);
        if (row.table != Table::None) {
            EXPECT_EQ(std::tie(partitions[0].number, partitions[0].start, partitions[0].size, partitions[0].label,
                               partitions[0].typeName),
                      std::make_tuple(1, 1u << 20, 1025u * 512, std::string("linux"),
                                      std::string(row.table == Table::Gpt ? "Linux filesystem" : "Linux")));
        }
        EXPECT_EQ(ti::FileSystemName(partitions[0].fileSystem), std::string(row.table == Table::None ? "ntfs" : "ext2"));
        EXPECT_EQ(image->PartitionsHolding("\\windows\\system32\\CONFIG\\system"), std::vector<int>{row.partition});

        auto volume = OpenVolume(*image, row.partition, false);
        ASSERT_TRUE(volume);
        const std::string jose = "Users/Jos\xc3\xa9";
        std::vector<std::pair<std::string, std::vector<std::string>>> found;
        for (const ti::HiveFile& hive : volume->Hives()) found.emplace_back(hive.path, hive.logs);
        EXPECT_EQ(found, (decltype(found){{kSystem, {kSystem + ".LOG1"}},
                                          {"Windows/System32/config/SOFTWARE", {}},
                                          {"EFI/Microsoft/Boot/BCD", {}},
                                          {jose + "/NTUSER.DAT", {}},
                                          {jose + "/AppData/Local/Microsoft/Windows/UsrClass.dat", {}}}));
        const Listing extracted = ListBytes(ExtractFile(kit.image, kit.start, kSystem, scratch));
        ASSERT_TRUE(extracted.opened);
        const Listing listed = ListThroughDevice(*volume, u"/WINDOWS\\System32/config\\System");
        EXPECT_TRUE(listed.problems.empty()) << listed.problems.front();
        EXPECT_EQ(listed.lines, extracted.lines);
    }
    EXPECT_EQ(FileDigest(kit.image), before) << "reading changed the image";

    Listing edited;
    {
        auto image = OpenImage(kit.image, {true, "", ""});
        ASSERT_TRUE(image);
        auto volume = OpenVolume(*image, row.partition, true);
        ASSERT_TRUE(volume);
        // A raw image can be read behind our back: each change is in it when its call returns.
        const auto grown = [&] { EXPECT_GT(ExtractFile(kit.image, kit.start, kSystem, scratch).size(), 200000u); };
        edited = ListThroughDevice(*volume, u"windows/system32/config/SYSTEM", true,
                                   std::string(row.format) == "raw" ? grown : std::function<void()>());
        EXPECT_TRUE(edited.problems.empty()) << edited.problems.front();
        volume.reset();
        EXPECT_FALSE(image->Close()) << "closing flushes and stops the server cleanly";
    }
    const Bytes hive = ExtractFile(kit.image, kit.start, kSystem, scratch);
    EXPECT_GT(hive.size(), 200000u);
    EXPECT_EQ(ListBytes(hive).lines, edited.lines);
    EXPECT_NE(std::find(edited.lines.begin(), edited.lines.end(), "K\t\\FromImage"), edited.lines.end());
    if (PeersMissing().empty()) {
        const TempFile file(hive);
        EXPECT_EQ(CompareListings(edited.lines, RunPeer("hivex", file.Path()).lines, "hivex"), "");
    }
    EXPECT_EQ(NtfsComplaints(kit.image, kit.start, scratch), "");
}

INSTANTIATE_TEST_SUITE_P(
    Images, ImageFormats,
    ::testing::Values(FormatCase{"RawGpt", Table::Gpt, "raw", "", 2, "gpt"},
                      FormatCase{"RawMbrLogical", Table::Mbr, "raw", "", 5, "mbr"},
                      FormatCase{"RawNoTable", Table::None, "raw", "", 0, "none"},
                      FormatCase{"Qcow2", Table::Gpt, "qcow2", "", 2, "gpt"},
                      FormatCase{"Vmdk", Table::Mbr, "vmdk", "", 5, "mbr"},
                      FormatCase{"Vhdx", Table::Gpt, "vhdx", "", 2, "gpt"},
                      FormatCase{"Vdi", Table::Mbr, "vdi", "", 5, "mbr"},
                      FormatCase{"Vhd", Table::None, "vpc", "", 0, "none"},
                      FormatCase{"VhdFixed", Table::Gpt, "vpc", "subformat=fixed", 2, "gpt"}),
    [](const ::testing::TestParamInfo<FormatCase>& info) { return std::string(info.param.id); });

// Tables damaged in the places a reader must not trust: a bad GPT copy is
// named and the other one used, two bad copies are refused, and a chain of
// logical partitions that loops ends at once.
TEST(ImageTables, DamageIsNamedOrRefusedWithoutHanging) {
    SKIP_WITHOUT_IMAGE_TOOLS();
    struct Row {
        const char* what;
        Table table;
        std::vector<std::pair<std::int64_t, Bytes>> patches;  // negative offsets count from the end
        const char* warning;  // empty: no warning; null: the open fails as damaged
        std::vector<int> numbers;
    };
    const std::int64_t lastSector = -512;
    const Row rows[] = {
        {"a good GPT", Table::Gpt, {}, "", {1, 2}},
        {"primary header", Table::Gpt, {{512 + 24, {9}}}, "primary GPT header", {1, 2}},
        {"primary entries", Table::Gpt, {{1024 + 40, {9}}}, "primary GPT header", {1, 2}},
        {"backup header", Table::Gpt, {{lastSector + 24, {9}}}, "backup GPT header", {1, 2}},
        {"both headers", Table::Gpt, {{512 + 24, {9}}, {lastSector + 24, {9}}}, nullptr, {}},
        {"an unsigned MBR", Table::Mbr, {{511, {0}}}, "", {0}},
        {"a looping chain", Table::Mbr, {{4096 * 512 + 446 + 16 + 4, {5}}}, "loops", {1, 5}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        ScratchDir scratch;
        const Kit kit = MakeImage(scratch, row.table, "raw", "", {});
        const std::int64_t size = static_cast<std::int64_t>(ReadFileBytes(kit.image).size());
        for (const auto& [offset, bytes] : row.patches)
            PatchFile(kit.image, static_cast<std::uint64_t>(offset < 0 ? size + offset : offset), bytes);
        ti::Error error;
        auto image = ti::Image::Open(kit.image, {}, error);
        if (row.warning == nullptr) {
            EXPECT_FALSE(image);
            EXPECT_EQ(error.kind, ti::ErrorKind::Damaged) << error.text;
            continue;
        }
        ASSERT_TRUE(image) << error.text;
        std::vector<int> numbers;
        for (const ti::Partition& partition : image->Partitions()) numbers.push_back(partition.number);
        EXPECT_EQ(numbers, row.numbers);
        const std::string warnings = image->Warnings().empty() ? "" : image->Warnings().front();
        EXPECT_EQ(image->Warnings().size(), *row.warning ? 1u : 0u) << warnings;
        EXPECT_NE(warnings.find(row.warning), std::string::npos) << warnings;
    }
}

// The refusals, each with its kind: a volume Windows left unsafe to write
// (hibernated, fast startup, an unclean journal, the dirty flag) can still
// be read; so can a file a device won't write.
TEST(ImageRefusals, EachComesWithItsKind) {
    SKIP_WITHOUT_IMAGE_TOOLS();
    Bytes hibernated(4096, 0);
    std::copy_n("HIBR", 4, hibernated.begin());
    struct Unsafe {
        const char* spoil;
        const char* reason;
    };
    for (const Unsafe& row : {Unsafe{"", "hibernated"}, Unsafe{"fast-startup", "Windows cache"},
                              Unsafe{"unclean", "journal isn't clean"}, Unsafe{"dirty", "marked the volume dirty"}}) {
        SCOPED_TRACE(row.reason);
        ScratchDir scratch;
        std::vector<NtfsFile> files = WindowsFiles();
        if (!*row.spoil) files.push_back({"hiberfil.sys", hibernated});
        const Kit kit = MakeImage(scratch, Table::None, "raw", "", files, row.spoil);
        auto image = OpenImage(kit.image, {true, "", ""});
        ASSERT_TRUE(image);
        ti::Error error;
        EXPECT_FALSE(ti::Volume::Open(*image, 0, true, error));
        EXPECT_EQ(error.kind, ti::ErrorKind::Unsafe) << error.text;
        EXPECT_NE(error.text.find(row.reason), std::string::npos) << error.text;
        auto volume = OpenVolume(*image, 0, false);
        Bytes head;
        EXPECT_TRUE(volume && volume->Read(kSystem, head, error, 4096) && head.size() == 4096) << error.text;
    }
    ScratchDir scratch;
    std::vector<NtfsFile> files = WindowsFiles();
    files.push_back({"Packed/hive", SmallHive("Packed"), false, true});
    const Kit kit = MakeImage(scratch, Table::Gpt, "qcow2", "", files);
    auto image = OpenImage(kit.image, {true, "", ""});
    ASSERT_TRUE(image);
    ti::Error error;
    {
        auto writable = OpenVolume(*image, 2, true);
        ASSERT_TRUE(writable);
        ti::VolumeDevice device(*writable);
        void* handle = nullptr;
        EXPECT_FALSE(device.DeviceOpen(&handle, u"packed/HIVE", 3, 0, 3)) << "a compressed file isn't written";
        EXPECT_EQ(device.LastError().kind, ti::ErrorKind::Unsupported) << device.LastError().text;
    }
    EXPECT_FALSE(ti::Volume::Open(*image, 1, false, error));
    EXPECT_EQ(error.kind, ti::ErrorKind::Unsupported) << error.text;
    EXPECT_FALSE(ti::Volume::Open(*image, 7, false, error));
    EXPECT_EQ(error.kind, ti::ErrorKind::NotFound) << error.text;

    auto volume = OpenVolume(*image, 2, false);
    ASSERT_TRUE(volume);
    ti::VolumeDevice device(*volume);
    struct Open {
        const char16_t* path;
        ti::ErrorKind kind;
    };
    for (const Open& row : {Open{u"secret.dat", ti::ErrorKind::Encrypted}, Open{u"Windows", ti::ErrorKind::Unsupported},
                            Open{u"Windows/System32/config/SAM", ti::ErrorKind::NotFound}}) {
        void* handle = nullptr;
        EXPECT_FALSE(device.DeviceOpen(&handle, row.path, 3, 0, 3));
        EXPECT_EQ(device.LastError().kind, row.kind) << device.LastError().text;
    }
    EXPECT_EQ(ListThroughDevice(*volume, u"Packed/hive").lines, ListBytes(SmallHive("Packed")).lines)
        << "a compressed file reads";
    void* handle = nullptr;
    ASSERT_TRUE(device.DeviceOpen(&handle, u"\\windows\\system32\\config\\software", 3, 0, 3));
    std::uint32_t one = 1;
    char bytes[4096];
    EXPECT_TRUE(device.DeviceSeek(handle, 0, 0) && device.DeviceRead(handle, bytes, 4096, &one));
    EXPECT_EQ(std::string(bytes, 4), "regf");
    EXPECT_FALSE(device.DeviceWrite(handle, bytes, 4096, &one));
    EXPECT_EQ(device.LastError().kind, ti::ErrorKind::Unsupported);
    EXPECT_TRUE(device.DeviceSeek(handle, static_cast<std::uint64_t>(-100), 2));
    EXPECT_FALSE(device.DeviceRead(handle, bytes, 101, &one)) << "a read past the end";
    EXPECT_TRUE(device.DeviceClose(handle));
    EXPECT_FALSE(device.DeviceClose(handle)) << "a handle closes once";
}

// A second user of an image being written is refused as locked, by flock for
// raw files and by qemu's locks for the rest, until the writer closes.
TEST(ImageLocks, ASecondUserWaitsForTheWriter) {
    SKIP_WITHOUT_IMAGE_TOOLS();
    for (const char* format : {"raw", "qcow2"}) {
        SCOPED_TRACE(format);
        ScratchDir scratch;
        const Kit kit = MakeImage(scratch, Table::None, format, "", {});
        auto writer = OpenImage(kit.image, {true, "", ""});
        ASSERT_TRUE(writer);
        for (bool writable : {true, false}) {
            ti::Error error;
            EXPECT_FALSE(ti::Image::Open(kit.image, {writable, "", ""}, error));
            EXPECT_EQ(error.kind, ti::ErrorKind::Locked) << error.text;
        }
        EXPECT_FALSE(writer->Close());
        EXPECT_TRUE(OpenImage(kit.image, {true, "", ""}));
    }
}

// An overlay takes the edit and leaves its backing image as it was; a
// stream-optimized vmdk is refused for writing but takes an overlay.
TEST(ImageOverlays, TheBackingImageStaysAsItWas) {
    SKIP_WITHOUT_IMAGE_TOOLS();
    for (const auto& [format, options] : {std::pair{"raw", ""}, std::pair{"vmdk", "subformat=streamOptimized"}}) {
        SCOPED_TRACE(format);
        ScratchDir scratch;
        const Kit kit = MakeImage(scratch, Table::Mbr, format, options);
        const std::string before = FileDigest(kit.image);
        ti::Error error;
        EXPECT_EQ(!ti::Image::Open(kit.image, {true, "", ""}, error), *options != 0);
        EXPECT_EQ(error.kind, *options ? ti::ErrorKind::Unsupported : ti::ErrorKind::None) << error.text;
        EXPECT_FALSE(ti::Image::Open(kit.image, {false, "", kit.image}, error)) << "an overlay is a new file";
        Listing edited;
        {
            auto image = OpenImage(kit.image, {false, "", scratch / "overlay.qcow2"});
            ASSERT_TRUE(image);
            EXPECT_EQ(image->Format(), "qcow2");
            auto volume = OpenVolume(*image, 5, true);
            ASSERT_TRUE(volume);
            edited = ListThroughDevice(*volume, u"Windows/System32/config/SYSTEM", true);
        }
        EXPECT_EQ(FileDigest(kit.image), before);
        EXPECT_EQ(ListBytes(ExtractFile(scratch / "overlay.qcow2", kit.start, kSystem, scratch)).lines, edited.lines);
        EXPECT_EQ(Capture("qemu-img info -U " + Quoted(scratch / "overlay.qcow2") + " | grep -c '^backing file: /'")
                      .second,
                  "1\n");
    }
}

}  // namespace
