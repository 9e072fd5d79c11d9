// Guards the tool on hives inside disk images (--image): through every format
// and table, reading commands say what they say of the extracted file and
// change no byte of the image, and edits land in the hive (growing it, new
// keys in Windows' order) on a volume that hivex and the NTFS checkers
// accept; then the partition choice, the refusals with their statuses, the
// logs beside a hive inside the image, overlays and tamvik hives.
#include <gtest/gtest.h>

#include <TamvikImage.h>

#include "support/DiskImage.h"
#include "support/HiveBuilder.h"
#include "support/Listing.h"
#include "support/LogBuilder.h"
#include "support/Peers.h"
#include "support/ToolRun.h"

namespace {

using namespace TamvikTest;

struct FormatCase {
    const char* id;
    Table table;
    const char* format;
};

class ToolInImages : public ToolTest, public ::testing::WithParamInterface<FormatCase> {};

TEST_P(ToolInImages, ReadAsExtractedAndEditInPlace) {
    SKIP_WITHOUT_IMAGE_TOOLS();
    ScratchDir scratch;
    const Kit kit = MakeImage(scratch, GetParam().table, GetParam().format);
    const std::string before = FileDigest(kit.image), extracted = At("extracted");
    // The hive named in another case and with the other slash; messages name it so.
    const std::string hive = "\\windows\\SYSTEM32\\config\\system", shown = kit.image + ":" + hive;
    const auto both = [&](const std::vector<std::string>& command) {
        std::vector<std::string> local = command, through = command;
        local.insert(local.begin() + 1, extracted);
        through.insert(through.begin() + 1, {"--image", kit.image, hive});
        ToolRun run = Cli(through);
        for (std::size_t at; (at = run.out.find(shown)) != std::string::npos;) run.out.replace(at, shown.size(), extracted);
        return std::pair{Cli(local), run};
    };
    const auto extract = [&] {
        const Bytes hive = ExtractFile(kit.image, kit.start, kSystem, scratch);
        WriteText(extracted, std::string(hive.begin(), hive.end()));
    };
    extract();
    for (const std::vector<std::string>& command : std::vector<std::vector<std::string>>{
             {"ls", "-r", "-l"}, {"info"}, {"check", "-q"}, {"export", "Select"}, {"get", "Select", "B"}}) {
        const auto [local, through] = both(command);
        EXPECT_EQ(through.status, 0) << command[0] << ": " << through.err;
        EXPECT_EQ(through.out, local.out) << command[0];
    }
    EXPECT_EQ(FileDigest(kit.image), before) << "reading changed the image";

    // Edits, each in the image when the command ends; 200 kB grow the hive past its clusters.
    WriteText(At("big"), std::string(200000, 'x'));
    WriteText(At("in.reg"), "Windows Registry Editor Version 5.00\n\n[\\Imported]\n\"a\"=\"b\"\n\n[-\\Other]\n");
    for (const std::vector<std::string>& command : std::vector<std::vector<std::string>>{
             {"set", "Select", "Big", "binary", "@" + At("big")}, {"mkkey", "Select\\tcpipreg"},
             {"mkkey", "Select\\Tcpip_Helper"}, {"mkkey", "Select\\TCPIP6TUNNEL"}, {"rm", "Select", "N"},
             {"import", At("in.reg")}, {"rmkey", "Select\\TCPIP6TUNNEL"}}) {
        const ToolRun run = both(command).second;
        EXPECT_EQ(run.status, 0) << command[0] << ": " << run.err;
    }
    extract();
    EXPECT_GT(ReadFileBytes(extracted).size(), 200000u);
    const auto [local, through] = both({"ls", "-r"});
    EXPECT_EQ(through.out, local.out);
    for (const char* edited : {"\\Imported\n  \"a\" = REG_SZ \"b\"\n\\Select\n", "\\Select\\tcpipreg\n\\Select\\Tcpip_Helper\n"})
        EXPECT_NE(local.out.find(edited), std::string::npos) << edited << " in\n" << local.out;
    const ToolRun check = Cli({"check", "-q", extracted});
    EXPECT_EQ(check.status, 0) << check.out;
    EXPECT_EQ(check.out, "") << "new keys stand in Windows' order";
    if (PeersMissing().empty()) {
        EXPECT_EQ(CompareListings(ListFile(extracted).lines, RunPeer("hivex", extracted).lines, "hivex"), "");
    }
    EXPECT_EQ(NtfsComplaints(kit.image, kit.start, scratch), "");
}

INSTANTIATE_TEST_SUITE_P(Images, ToolInImages,
                         ::testing::Values(FormatCase{"RawGpt", Table::Gpt, "raw"},
                                           FormatCase{"RawMbrLogical", Table::Mbr, "raw"},
                                           FormatCase{"RawNoTable", Table::None, "raw"},
                                           FormatCase{"Qcow2", Table::Gpt, "qcow2"},
                                           FormatCase{"Vmdk", Table::Mbr, "vmdk"},
                                           FormatCase{"Vhdx", Table::Gpt, "vhdx"},
                                           FormatCase{"Vdi", Table::None, "vdi"}),
                         [](const auto& info) { return std::string(info.param.id); });

// On one disk whose partitions 2 and 3 hold the same volume: which partition a
// command takes; a dirty hive (3, its logs found beside it in the image) and a
// damaged one (5) refused for edits; replay writing only a local file; an
// overlay taking an edit that leaves the image as it was; a second writer
// refused (4); tamvik hives listing it all. Then a hibernated volume, refused
// for edits (6) and still read.
using ImageTool = ToolTest;

TEST_F(ImageTool, ChoicesRefusalsAndListing) {
    SKIP_WITHOUT_IMAGE_TOOLS();
    ScratchDir scratch;
    const std::string sam = "Windows/System32/config/SAM", security = "Windows/System32/config/SECURITY";
    Bytes dirty = SmallHive("Dirty");
    SetBaseBlock(dirty.data(), 3, 2);
    LogBuilder log(dirty, LogBuilder::kNew, 2);
    log.AddEntry(2, {{0, Bytes(dirty.begin() + 4096, dirty.begin() + 8192)}});
    HiveBuilder damaged;
    damaged.AddTree(TreeKey{"ROOT"});
    damaged.SetBinsSize(1 << 20);
    std::vector<NtfsFile> files = WindowsFiles();
    files.insert(files.end(), {{sam, dirty}, {sam + ".LOG1", log.Build()}, {security, damaged.Build()}});
    const Kit kit = MakeImage(scratch, Table::Gpt, "raw", "", files, "", true);
    const std::string& image = kit.image;
    const std::string before = FileDigest(image);
    struct Row {
        std::vector<std::string> args;
        int status;
        std::string says;
    };
    const Row rows[] = {
        {{"ls", "--image", image, kSystem}, 2, "partitions 2 and 3 each hold " + kSystem + ": name one with --partition N"},
        {{"ls", "--image", image, "--partition", "3", kSystem, "Select"}, 0, "\"N\" = REG_DWORD"},
        {{"ls", "--image", image, "Windows/none"}, 1, "no NTFS partition holds Windows/none (partitions: 1 ext2, 2 ntfs, 3 ntfs)"},
        {{"ls", "--image", image, "--partition", "1", kSystem}, 1, "partition 1 holds ext2, not NTFS"},
        {{"ls", "--partition", "2", kSystem}, 2, "--partition needs --image"},
        {{"set", "--image", image, "--partition", "2", sam, "Dirty", "v", "dword", "1"}, 3, "sequence numbers 3 and 2 differ"},
        {{"info", "--image", image, "--partition", "2", sam}, 0,
         "log             Windows/System32/config/SAM.LOG1: new format, 1 entry of 1 page; applies 1 entry\n"
         "replay          would apply 1 entry (sequence 2 to 2, 1 page): tamvik replay --image " + image +
             " --partition 2 " + sam + " -o OUT"},
        {{"replay", "--image", image, "--partition", "2", sam}, 2, "-o OUT names the local file"},
        {{"replay", "--image", image, "--partition", "2", sam, "-o", At("replayed")}, 0, "applied 1 entry"},
        {{"rmkey", "--image", image, "--partition", "3", security, "x"}, 5, "the hive is damaged"},
        {{"mkkey", "--image", image, "--partition", "2", "--overlay", At("new.qcow2"), kSystem, "Overlaid"}, 0, ""},
        {{"ls", "--image", At("new.qcow2"), "--partition", "2", kSystem}, 0, "Other\\\nOverlaid\\\nSelect\\\n"},
        {{"hives", image}, 0,
         "partition 1: ext2 \"linux\", start 1048576, size 524800, type Linux filesystem (0FC63DAF-8483-4772-8E79-3D69D8477DE4)\n"
         "partition 2: ntfs \"Windows\", start 2097152, size 16777216, type Microsoft basic data (EBD0A0A2-B9E5-4433-87C0-68B6B72699C7)\n"
         "  Windows/System32/config/SYSTEM: 8192 bytes, clean; logs SYSTEM.LOG1\n"
         "  Windows/System32/config/SOFTWARE: 8192 bytes, clean\n"
         "  Windows/System32/config/SAM: 8192 bytes, dirty (sequence numbers 3 and 2 differ); logs SAM.LOG1\n"},
        {{"hives", "--json", image}, 0,
         "{\"path\": \"Windows/System32/config/SAM\", \"size\": 8192, \"state\": \"dirty (sequence numbers 3 and 2 "
         "differ)\", \"dirty\": true, \"logs\": [\"Windows/System32/config/SAM.LOG1\"]}"},
    };
    for (const Row& row : rows) {
        const ToolRun run = Cli(row.args);
        EXPECT_EQ(run.status, row.status) << row.args[0] << " " << row.args.back() << ": " << run.Text();
        EXPECT_NE(run.Text().find(row.says), std::string::npos) << row.says << " in\n" << run.Text();
    }
    EXPECT_EQ(FileDigest(image), before);
    // The replay of the hive and log inside the image is the replay of the same files outside.
    WriteText(At("SAM"), std::string(dirty.begin(), dirty.end()));
    const Bytes logBytes = log.Build();
    WriteText(At("SAM.LOG1"), std::string(logBytes.begin(), logBytes.end()));
    ASSERT_EQ(Cli({"replay", At("SAM")}).status, 0);
    EXPECT_EQ(ReadFileBytes(At("replayed")), ReadFileBytes(At("SAM.replayed")));
    {
        TamvikImage::Error error;
        const auto writer = TamvikImage::Image::Open(image, {true, "", ""}, error);
        ASSERT_TRUE(writer) << error.text;
        const ToolRun second = Cli({"mkkey", "--image", image, "--partition", "2", kSystem, "Second"});
        EXPECT_EQ(second.status, 4) << second.Text();
    }

    ScratchDir hibernated;
    Bytes hiberfil(4096, 0);
    std::copy_n("HIBR", 4, hiberfil.begin());
    files = WindowsFiles();
    files.push_back({"hiberfil.sys", hiberfil});
    const Kit sleeping = MakeImage(hibernated, Table::None, "qcow2", "", files);
    const std::string asleep = FileDigest(sleeping.image);
    const ToolRun refused = Cli({"set", "--image", sleeping.image, kSystem, "Select", "v", "dword", "1"});
    EXPECT_EQ(refused.status, 6) << refused.Text();
    EXPECT_NE(refused.err.find("hibernated"), std::string::npos) << refused.err;
    EXPECT_EQ(Cli({"get", "--image", sleeping.image, kSystem, "Select", "N"}).Text(), "1\n");
    EXPECT_EQ(FileDigest(sleeping.image), asleep);
}

}  // namespace
