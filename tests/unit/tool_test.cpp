// Guards the tamvik command-line tool end to end: the built binary is run
// through the shell, and its output, exit status and the files it leaves are
// looked at; the peers (hivexregedit, regfinfo) serve as oracles.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <set>
#include <thread>

#include "edit/NameForms.h"
#include "store/ByteOrder.h"
#include "store/Finding.h"
#include "store/Format.h"
#include "support/Fixture.h"
#include "support/Listing.h"
#include "support/Peers.h"
#include "support/ToolRun.h"

namespace {

namespace fs = std::filesystem;
using namespace TamvikTest;

using Tool = ToolTest;

TEST_F(Tool, NewWritesASoundEmptyHiveThePeersRead) {
    const std::string hive = NewHive();
    const Image image(ReadFileBytes(hive));
    ASSERT_EQ(image.file.size(), 8192u);
    const std::vector<std::uint32_t> base = {image.Word(0), image.Word(4), image.Word(8), image.Word(0x14),
                                             image.Minor(), image.Word(0x1C), image.Word(0x20), image.BinsSize(),
                                             image.Word(0x2C)};
    EXPECT_EQ(base, (std::vector<std::uint32_t>{Tamvik::kRegfSignature, 1, 1, 1, 5, 0, 1, 4096, 1}));
    EXPECT_EQ(image.Word(0x1FC), ChecksumOf(image.file.data()));
    const std::uint32_t root = image.Root(), sk = image.U32(root, Tamvik::NkField::SecurityCell);
    EXPECT_EQ(image.Name(root), "ROOT");
    EXPECT_EQ(image.U16(root, Tamvik::NkField::Flags), 0x2Cu);
    EXPECT_EQ(image.Sig(sk), "sk");
    EXPECT_EQ(std::vector<std::uint32_t>({image.U32(sk, 4), image.U32(sk, 8), image.U32(sk, 12)}),
              std::vector<std::uint32_t>({sk, sk, 1})) << "a ring of one, one reference";
    EXPECT_EQ(Cli({"check", hive}).status, 0);
    EXPECT_EQ(Capture("hivexregedit --export " + Quoted(hive) + " '\\\\' 2>&1").first, 0);
    const auto [regf, info] = Capture("regfinfo " + Quoted(hive) + " 2>&1");
    EXPECT_NE(info.find("Version:\t1.5"), std::string::npos) << info;

    EXPECT_EQ(Cli({"new", At("a.hiv"), "--minor", "3", "--root-name", "CMI-CreateHive{X}"}).status, 0);
    EXPECT_EQ(Image(ReadFileBytes(At("a.hiv"))).Minor(), 3u);
    WriteText(At("keep"), "precious");
    EXPECT_NE(Cli({"new", At("keep")}).status, 0);
    EXPECT_EQ(ReadText(At("keep")), "precious") << "an existing file stays without --force";
    EXPECT_EQ(Cli({"new", At("keep"), "--force"}).status, 0);
    EXPECT_EQ(Cli({"new", At("b.hiv"), "--minor", "1"}).status + Cli({"new", At("b.hiv"), "--minor", "7"}).status, 4);
    EXPECT_FALSE(fs::exists(At("b.hiv")));
}

TEST_F(Tool, TheSampleImportsListsAndExportsWithEveryType) {
    const std::string hive = NewHive();
    ASSERT_EQ(Cli({"import", hive, std::string(TAMVIK_SOURCE_DIR) + "/tools/sample/demo.reg"}).status, 0);
    const ToolRun ls = Cli({"ls", hive, "-r"});
    EXPECT_EQ(ls.out, "\\\n\\Demo\n"
              "  \"Greeting\" = REG_SZ \"Hello, world\"\n"
              "  \"Chinese\" = REG_SZ \"你好，世界\"\n"
              "  \"Quoted\" = REG_SZ \"a \"quoted\" C:\\path\\\"\n"
              "  \"Counter\" = REG_DWORD 0x0000002a (42)\n"
              "  \"Blob\" = REG_BINARY hex:de,ad,be,ef,00,01,02,03\n"
              "  \"Path\" = REG_EXPAND_SZ \"%SystemRoot%\\system32\"\n"
              "  \"List\" = REG_MULTI_SZ [\"first\", \"second\", \"第三\"]\n"
              "  \"Big\" = REG_QWORD 0x0000010000000000 (1099511627776)\n"
              "  \"BigEndian\" = REG_DWORD_BIG_ENDIAN 0x00000100 (256)\n"
              "  \"Nothing\" = REG_NONE hex:01\n"
              "  \"Link\" = REG_LINK hex:5c,00,52,00,65,00,67,00,69,00,73,00,74,00,72,00,79,00,5c,00,4d,00,61,00,63,"
              "00,68,00,69,00,6e,00,65,00,5c,00,53,00,6f,00,66,00,74,00,77,00,61,00,72,00,65,00\n"
              "  \"Resources\" = REG_RESOURCE_LIST hex:01,00,00,00\n"
              "  \"Custom\" = REG_0x1234 hex:ca,fe\n"
              "\\Demo\\Sub Key\n  \"Name\" = REG_SZ \"inner\"\n"
              "\\Demo\\Sub Key\\Deeper\n  \"Level\" = REG_DWORD 0x00000003 (3)\n"
              "\\Other\n");
    EXPECT_EQ(Cli({"ls", hive}).out, "Demo\\\nOther\\\n");
    const std::pair<std::vector<std::string>, std::string> gets[] = {
        {{"Demo", "Chinese"}, "你好，世界\n"},  {{"\\demo", "counter"}, "42\n"},  {{"Demo", "List"}, "first\nsecond\n第三\n"},
        {{"Demo", "Big"}, "1099511627776\n"}, {{"Demo", "BigEndian", "--type"}, "REG_DWORD_BIG_ENDIAN\n256\n"},
        {{"Demo", "Blob"}, "deadbeef00010203\n"},
        {{"Demo", "Greeting", "--raw"}, std::string("H\0e\0l\0l\0o\0,\0 \0w\0o\0r\0l\0d\0\0\0", 26)},
    };
    for (const auto& [args, expected] : gets) {
        std::vector<std::string> call = {"get", hive};
        call.insert(call.end(), args.begin(), args.end());
        EXPECT_EQ(Cli(call).out, expected) << args[1];
    }
    // Both encodings of an export read back to the same hive, and a subtree under a prefix moves.
    const ToolRun wide = Cli({"export", hive}), narrow = Cli({"export", hive, "--utf8"});
    EXPECT_EQ(wide.out.substr(0, 4), std::string("\xFF\xFEW\0", 4));
    EXPECT_EQ(narrow.out.rfind("Windows Registry Editor Version 5.00\n\n[\\]\n", 0), 0u);
    for (const char* text : {"\"Quoted\"=\"a \\\"quoted\\\" C:\\\\path\\\\\"\n", "\"Counter\"=dword:0000002a\n",
                                    "\"Big\"=hex(b):00,00,00,00,00,01,00,00\n", "\"Custom\"=hex(1234):ca,fe\n", ",\\\n  00,"})
        EXPECT_NE(narrow.out.find(text), std::string::npos) << text;
    for (const auto& [name, text] : {std::pair{"w.reg", wide.out}, {"n.reg", narrow.out}}) {
        WriteText(At(name), text);
        const std::string copy = NewHive(std::string(name) + ".hiv");
        EXPECT_EQ(Cli({"import", copy, At(name)}).status, 0);
        EXPECT_EQ(ListFile(copy).lines, ListFile(hive).lines) << name;
    }
    ASSERT_EQ(Cli({"export", hive, "Demo\\Sub Key", "--prefix", "HKEY_LOCAL_MACHINE\\SOFTWARE", "-o", At("sub.reg")}).status, 0);
    const std::string other = NewHive("other.hiv");
    EXPECT_EQ(Cli({"import", other, At("sub.reg")}).status, 2) << "outside the default prefix";
    EXPECT_EQ(Cli({"import", other, At("sub.reg"), "--prefix", "hkey_local_machine\\software"}).status, 0);
    EXPECT_EQ(Cli({"get", other, "Demo\\Sub Key\\Deeper", "Level"}).out, "3\n");
}

TEST_F(Tool, OneOffEditsAndTheirFailures) {
    const std::string hive = NewHive();
    const std::vector<std::vector<std::string>> edits = {
        {"mkkey", hive, "A\\B\\C"},          {"set", hive, "A", "s", "sz", "text ü"},
        {"set", hive, "A", "n", "dword", "0x10"}, {"set", hive, "A", "q", "REG_QWORD", "18446744073709551615"},
        {"set", hive, "A", "m", "multi_sz", "one", "two"}, {"set", hive, "A", "b", "binary", "00,ff,10"},
        {"set", hive, "A", "x", "0x20000", "abcd"}, {"set", hive, "A", "n", "sz", "now text"},
        {"set", hive, "A", "s", "sz", std::string(20000, 'x')}, {"rm", hive, "A", "b"},
        {"mkkey", hive, "A\\B\\C\\D"},      {"rmkey", hive, "A\\B\\C\\D"},
        {"set", hive, "A", "", "sz", "default"}, {"set", hive, "A", "e", "binary", ""},
        {"set", hive, "A", "i", "sz", "in place", "--in-place"}, {"set", hive, "A", "f", "binary", "01,02,03,04,05"},
        {"set", hive, "A", "g", "binary", "01"},  {"set", hive, "A", "g", "binary", "0a,0b,0c,0d,0e"},
        {"set", hive, "A", std::string(65535, 'n'), "dword", "1"},  // the longest name a record can hold
    };
    for (const auto& edit : edits) EXPECT_EQ(Cli(edit).status, 0) << edit[0] << " " << edit[2];
    const std::pair<std::string, std::string> gets[] = {
        {"q", "18446744073709551615\n"}, {"m", "one\ntwo\n"}, {"n", "now text\n"}, {"s", std::string(20000, 'x') + "\n"},
        {"f", "0102030405\n"}, {"g", "0a0b0c0d0e\n"}};
    for (const auto& [name, expected] : gets) EXPECT_EQ(Cli({"get", hive, "A", name}).out, expected) << name;
    EXPECT_EQ(Cli({"get", hive, "A", "", "--type"}).out + Cli({"get", hive, "A", "e"}).out, "REG_SZ\ndefault\n\n");
    const std::string ls = Cli({"ls", hive, "A"}).out;
    EXPECT_LT(ls.find("\"n\" = REG_SZ"), ls.find("\"q\" = REG_QWORD")) << "a replaced value keeps its place";
    // Failures: one line naming the hive or key and the result's meaning, status 1.
    const std::pair<std::vector<std::string>, std::string> failures[] = {
        {{"mkkey", hive, "a\\b\\c"}, "\\a\\b\\c: can't create (already exists, result 72)"}, {{"rm", hive, "A", "b"}, "87"},
        {{"get", hive, "A", "b"}, "\\A"}, {{"rmkey", hive, "A\\B"}, "subkeys"},
        {{"ls", hive, "Nope\\Deeper"}, "\\Nope\\Deeper"}, {{"set", hive, "Nope", "v", "sz", "x"}, "\\Nope"},
        {{"ls", At("absent.hiv")}, "absent.hiv"},
    };
    for (const auto& [args, text] : failures) {
        const ToolRun run = Cli(args);
        EXPECT_EQ(run.status, 1) << args[0] << " " << args.back();
        EXPECT_NE(run.err.find(text), std::string::npos) << run.err;
        EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
    }
    EXPECT_EQ(Cli({"rmkey", hive, "A", "-r"}).status, 0);
    EXPECT_EQ(Cli({"ls", hive}).out, "");
    EXPECT_EQ(Cli({"check", hive}).status, 0);
    // An edit through a symbolic link replaces the file behind it, not the link.
    fs::create_symlink(hive, At("link.hiv"));
    EXPECT_EQ(Cli({"mkkey", At("link.hiv"), "L"}).status, 0);
    EXPECT_TRUE(fs::is_symlink(At("link.hiv")));
    EXPECT_EQ(Cli({"ls", hive}).out, "L\\\n");
}

// set takes its data from a file or standard input; ls -l shows each key's
// stored time with the clock it was read on; ls and get write JSON.
TEST_F(Tool, DataFromFilesTimesAndJson) {
    const std::string hive = NewHive(), blob(100000, '\xab');
    WriteText(At("blob"), blob);
    const std::pair<std::vector<std::string>, std::string> sets[] = {
        {{"", "b", "binary", "@" + At("blob")}, ""}, {{"K", "s", "sz", "-"}, "t\xc3\xa9\n"},
        {{"K", "m", "multi_sz", "-"}, "a\nb\r\n"},       {{"K", "n", "qword", "-"}, "0x10\n"}};
    ASSERT_EQ(Cli({"mkkey", hive, "K\\q\"\x01"}).status, 0);
    for (const auto& [args, input] : sets) {
        std::vector<std::string> call = {"set", hive};
        call.insert(call.end(), args.begin(), args.end());
        EXPECT_EQ(Cli(call, input).status, 0) << args[1];
    }
    EXPECT_TRUE(Cli({"get", hive, "", "b", "--raw"}).out == blob);
    EXPECT_EQ(Cli({"get", hive, "K", "s"}).out + Cli({"get", hive, "K", "m"}).out + Cli({"get", hive, "K", "n"}).out,
              "t\xc3\xa9\na\nb\n16\n");
    EXPECT_EQ(Cli({"--version"}).out.rfind("tamvik 0.", 0), 0u);
    // The root of a new hive has a FILETIME; keys the library makes, seconds since 1970.
    char year[8];
    const std::time_t now = std::time(nullptr);
    std::strftime(year, sizeof year, "%Y-", std::gmtime(&now));
    const std::string longList = Cli({"ls", hive, "-r", "-l"}).out;
    EXPECT_EQ(longList.rfind(year, 0), 0u) << longList;
    for (const std::string line : {" UTC  filetime  \\\n", " UTC  unix      \\K\n", " UTC  unix      \\K\\q\"\\x01\n"})
        EXPECT_NE(longList.find(line), std::string::npos) << line << longList;
    EXPECT_EQ(Cli({"get", hive, "K", "s", "--json"}).out,
              "{\"path\": \"\\\\K\", \"name\": \"s\", \"type\": \"REG_SZ\", \"type_number\": 1, \"data\": \"t\xc3\xa9\"}\n");
    const std::string json = Cli({"ls", hive, "K", "--json"}).out;
    for (const char* part : {"{\"path\": \"\\\\K\", \"last_write\": \"", "\"clock\": \"unix\", \"subkey_count\": 1, \"value_count\": 3",
                             "\"subkeys\": [{\"name\": \"q\\\"\\u0001\", ", "{\"name\": \"m\", \"type\": \"REG_MULTI_SZ\", \"type_number\": 7, \"data\": \"a\\nb\"}"})
        EXPECT_NE(json.find(part), std::string::npos) << part << "\n" << json;
    const std::string parse = " | /usr/bin/python3 -c 'import json, sys; json.load(sys.stdin)'";
    for (const char* args : {" ls --json ", " ls -r --json "})
        EXPECT_EQ(Capture(Quoted(TAMVIK_TOOL) + args + Quoted(hive) + parse).first, 0) << args;
}

// A command that fails its argument checks writes nothing and says why, with status 2.
TEST_F(Tool, BadArgumentsLeaveTheHiveUntouched) {
    const std::string hive = NewHive();
    ASSERT_EQ(Cli({"mkkey", hive, "K"}).status, 0);
    const Bytes before = ReadFileBytes(hive);
    WriteText(At("bad.reg"), "Windows Registry Editor Version 5.00\n\n[\\K]\n\"a\"=dword:1\n\"b\"=hex:zz\n");
    WriteText(At("notreg.reg"), "hello\n");
    WriteText(At("outside.reg"), "Windows Registry Editor Version 5.00\n\n[HKEY_CURRENT_USER\\K]\n\"a\"=dword:1\n");
    WriteText(At("emptyname.reg"), "Windows Registry Editor Version 5.00\n\n[\\K]\n\"a\"=dword:1\n[\\K\\\\B]\n");
    const std::vector<std::vector<std::string>> calls = {
        {"set", hive, "K", "v", "nosuchtype", "1"}, {"set", hive, "K", "v", "dword", "0x100000000"},
        {"set", hive, "K", "v", "dword", "12x"},    {"set", hive, "K", "v", "binary", "0g"},
        {"set", hive, "K", "v", "qword", "18446744073709551616"}, {"import", hive, At("emptyname.reg")},
        {"set", hive, "K", "v", "dword"},           {"set", hive, "K", "v", "dword", "1", "2"},
        {"set", hive, "K", "v", "multi_sz", "a", ""}, {"mkkey", hive, "\\"}, {"rmkey", hive, ""},
        {"import", hive, At("bad.reg")},            {"import", hive, At("notreg.reg")},
        {"import", hive, At("outside.reg")},        {"import", hive, At("absent.reg")},
        {"ls", hive, "--bogus"},                    {"export", hive, "--prefix"}, {"get", hive, "K"},
    };
    for (const auto& call : calls) {
        const ToolRun run = Cli(call);
        EXPECT_EQ(run.status, 2) << call[0] << " " << call.back() << ": " << run.err;
        EXPECT_EQ(run.err.rfind("tamvik " + call[0] + ": ", 0), 0u) << run.err;
        EXPECT_EQ(run.err.find(call[0] + ": " + call[0] + ": "), std::string::npos) << run.err;
        EXPECT_EQ(ReadFileBytes(hive), before) << call[0] << " " << call.back();
    }
    EXPECT_NE(Cli({"import", hive, At("bad.reg")}).err.find("line 5"), std::string::npos);
    EXPECT_EQ(Cli({"frobnicate"}).status + Cli({}).status, 4);
    for (const char* command : {"info", "ls", "get", "export", "import", "set", "mkkey", "rm", "rmkey", "check", "new"})
        EXPECT_EQ(Cli({command, "--help"}).out.rfind(std::string("usage: tamvik ") + command, 0), 0u) << command;
}

// What the exported functions can't create, the tool stores as written: the
// default value, empty data, names in any script, in the name form that fits.
TEST_F(Tool, EveryEntryStoresAsWritten) {
    const std::string text = "Windows Registry Editor Version 5.00\n\n[\\]\n\n[\\F]\n@=\"default\"\n"
                             "\"empty\"=hex(0):\n\"emptysz\"=hex(1):\n\"caf\xc3\xa9\"=dword:00000001\n"
                             "\"\xe5\x90\x8d\"=\"\xe4\xb8\xad\"\n\"\xf0\x9f\x98\x80\"=hex:01\n\n"
                             "[\\F\\\xc3\xbf]\n\n[\\F\\\xd0\x9a\xd0\xbb]\n\n";
    WriteText(At("f.reg"), text);
    const std::string hive = NewHive();
    const ToolRun import = Cli({"import", hive, At("f.reg")});
    EXPECT_EQ(import.status + import.err.size(), 0u) << import.err;
    EXPECT_EQ(Cli({"export", hive, "--utf8"}).out, text);
    // Latin-1 names compressed, the others UTF-16 (flag 0x20 of an nk, 1 of a vk).
    const Image image(ReadFileBytes(hive));
    const std::uint32_t key = image.SubKeys(image.Root()).at(0);
    std::vector<std::pair<std::string, bool>> forms;
    for (std::uint32_t nk : image.SubKeys(key))
        forms.emplace_back(image.Name(nk), (image.U16(nk, Tamvik::NkField::Flags) & 0x20) != 0);
    const std::uint32_t list = image.U32(key, Tamvik::NkField::ValueListCell);
    for (std::uint32_t i = 0; i < image.U32(key, Tamvik::NkField::ValueCount); ++i) {
        const std::uint32_t vk = image.U32(list, 4 * i);
        forms.emplace_back(image.Name(vk), (image.U16(vk, Tamvik::VkField::Flags) & 1) != 0);
    }
    const std::vector<std::pair<std::string, bool>> expected = {
        {"\xff", true}, {"\x1a\x04\x3b\x04", false}, {"", true}, {"empty", true}, {"emptysz", true},
        {"caf\xe9", true}, {"\x0d\x54", false}, {std::string("\x3d\xd8\x00\xde", 4), false}};
    EXPECT_EQ(forms, expected);
    // The longest names in bytes of UTF-16: two units among the keys, seven among the values.
    EXPECT_EQ(image.U32(key, Tamvik::NkField::MaxSubKeyName) & 0xFFFF, 4u);
    EXPECT_EQ(image.U32(key, Tamvik::NkField::MaxValueName), 14u);
    EXPECT_EQ(Cli({"check", hive}).status, 0);
    // REGEDIT4 string data in hex is ANSI (code page 1252), stored as UTF-16.
    WriteText(At("4.reg"), "REGEDIT4\n\n[\\R]\n\"p\"=hex(2):25,53,80,00\n\"m\"=hex(7):61,00,62,00,00\n");
    ASSERT_EQ(Cli({"import", hive, At("4.reg")}).status, 0);
    EXPECT_EQ(Cli({"get", hive, "R", "p"}).out + Cli({"get", hive, "R", "m"}).out, "%S\xe2\x82\xac\na\nb\n");
}

// A file the library refuses is named with the reason, by every command.
TEST_F(Tool, UnopenableFilesSayWhy) {
    Bytes badSum = ReadFileBytes(NewHive());
    badSum[0x1FC] ^= 1;
    const std::pair<Bytes, std::string> files[] = {
        {{}, "(empty file)"}, {Bytes(12, 1), "(only 12 bytes"}, {Bytes(8192, 0), "(no regf signature)"},
        {badSum, "(base block checksum is wrong: stored"}};
    for (const auto& [bytes, why] : files) {
        WriteText(At("x.hiv"), std::string(bytes.begin(), bytes.end()));
        for (const std::vector<std::string>& call : {std::vector<std::string>{"ls", At("x.hiv")},
                                                     {"info", At("x.hiv")}, {"mkkey", At("x.hiv"), "K", "--force"}}) {
            const ToolRun run = Cli(call);
            if (call[0] == "info" && !bytes.empty() && bytes[0] == 'r') {
                EXPECT_EQ(run.status, 0) << "info shows the facts of a damaged base block";
                continue;
            }
            EXPECT_EQ(run.status, 1) << call[0] << " " << why;
            EXPECT_NE(run.err.find("x.hiv: "), std::string::npos) << run.err;
            EXPECT_NE(run.err.find(why), std::string::npos) << call[0] << ": " << run.err;
        }
    }
}

// The file as it would be without the times the library stamps in keys and bins.
Bytes Unstamped(Bytes bytes) {
    const Image image(bytes);
    Bytes file = image.WithoutBinTimes();
    for (const auto& [cell, size] : image.Cells())
        if (size < 0 && image.Sig(cell) == "nk") std::fill_n(file.begin() + 4096 + cell + 4 + Tamvik::NkField::Timestamp, 8, 0);
    return file;
}

// An edit is made on a copy beside the hive and renamed over it once it is
// on disk: killed or interrupted at any moment, the hive is the old one or the
// new one. Meanwhile its lock keeps every other editor out.
TEST_F(Tool, InterruptedImportsLeaveTheOldHiveOrTheNew) {
    std::string text = "Windows Registry Editor Version 5.00\n";
    for (int k = 0; k < 1500; ++k)
        text += "\n[\\K" + std::to_string(k) + "]\n\"s\"=\"" + std::string(40, 's') + "\"\n\"b\"=hex:" +
                std::string(300, '7') + "\n";
    WriteText(At("r.reg"), text);
    const std::string hive = NewHive(), full = At("full.hiv");
    fs::copy_file(hive, full);
    const Bytes before = ReadFileBytes(hive);
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(Cli({"import", full, At("r.reg")}).status, 0);
    const auto duration = std::chrono::steady_clock::now() - start;
    const Bytes after = Unstamped(ReadFileBytes(full));
    int untouched = 0;
    for (int i = 1; i <= 5; ++i) {
        const pid_t pid = Start({"import", hive, At("r.reg")});
        std::this_thread::sleep_for(duration * i / 6);
        const int signal = i % 2 == 0 ? SIGINT : SIGKILL;
        kill(pid, signal);
        const int status = Finish(pid);
        const Bytes now = ReadFileBytes(hive);
        if (now == before) ++untouched;
        else EXPECT_TRUE(Unstamped(now) == after) << "moment " << i << ": neither the old hive nor the new one";
        for (const auto& entry : fs::directory_iterator(dir)) {
            if (entry.path().filename().string().rfind("h.hiv.tmp-", 0) != 0) continue;
            EXPECT_EQ(signal, SIGKILL) << "an interrupted edit removes its copy (exit status " << status << ")";
            fs::remove(entry.path());
        }
        WriteText(hive, std::string(before.begin(), before.end()));
    }
    EXPECT_GT(untouched, 0) << "no interruption came before the end of the import";

    const int fd = open(hive.c_str(), O_RDONLY);
    ASSERT_EQ(flock(fd, LOCK_EX), 0);
    const std::vector<std::vector<std::string>> edits = {
        {"mkkey", hive, "A"}, {"set", hive, "", "v", "dword", "1"}, {"rm", hive, "", "v"}, {"rmkey", hive, "A"},
        {"import", hive, At("r.reg")}, {"mkkey", hive, "A", "--in-place"},
        {"replay", hive, "-o", hive, "--force"}, {"new", hive, "--force"}};
    for (const auto& edit : edits) {
        const ToolRun run = Cli(edit);
        EXPECT_EQ(run.status, 4) << edit[0];
        EXPECT_NE(run.err.find("h.hiv: can't edit (another process holds its lock"), std::string::npos) << run.err;
    }
    EXPECT_TRUE(ReadFileBytes(hive) == before);
    close(fd);
    EXPECT_EQ(Cli({"mkkey", hive, "A"}).status, 0);
}

// With --library-order new subkeys join a list where the library puts them
// (_stricmp order); check tells a list out of Windows' order (upper case,
// ordinal), and --repair or the default order puts it in that order, changing
// the list cells alone.
TEST_F(Tool, LibraryOrderOnRequestWindowsOrderByDefault) {
    const std::string hive = NewHive();
    for (const char* name : {"TCPIP6TUNNEL", "tcpipreg", "Tcpip_Helper", "[x]", "\xc3\xa9", "E"})
        ASSERT_EQ(Cli({"mkkey", hive, std::string("A\\") + name, "--library-order"}).status, 0) << name;
    EXPECT_EQ(Cli({"ls", hive, "A"}).out, "[x]\\\nE\\\nTCPIP6TUNNEL\\\nTcpip_Helper\\\ntcpipreg\\\n\xc3\xa9\\\n");
    const ToolRun check = Cli({"check", hive});
    EXPECT_EQ(check.status, 0);
    EXPECT_NE(check.out.find("warning at key \\A: subkey list not in Windows order: \"[x]\" before \"E\""),
              std::string::npos) << check.out;
    const Bytes before = ReadFileBytes(hive);
    EXPECT_EQ(Cli({"check", hive, "--repair"}).status, 0);
    const std::string windows = "E\\\nTCPIP6TUNNEL\\\ntcpipreg\\\nTcpip_Helper\\\n[x]\\\n\xc3\xa9\\\n";
    EXPECT_EQ(Cli({"ls", hive, "A"}).out, windows);
    const Bytes after = ReadFileBytes(hive);
    const std::map<std::uint32_t, std::int32_t> cells = Image(after).Cells();
    for (std::size_t i = 0; i < after.size(); ++i) {
        if (before.at(i) == after[i]) continue;
        EXPECT_EQ(Image(after).Sig(std::prev(cells.upper_bound(static_cast<std::uint32_t>(i - 4096)))->first), "lf")
            << "byte " << i << " changed outside a list";
    }
    // Each key keeps its own hint beside it when the entries move.
    const auto hints = [](const Image& image) {
        std::map<std::uint32_t, std::uint32_t> byKey;
        for (const auto& [cell, size] : image.Cells())
            if (size < 0 && (image.Sig(cell) == "lf" || image.Sig(cell) == "lh"))
                for (std::uint32_t i = 0; i < image.U16(cell, 2); ++i) byKey[image.U32(cell, 4 + 8 * i)] = image.U32(cell, 8 + 8 * i);
        return byKey;
    };
    EXPECT_EQ(hints(Image(after)), hints(Image(before)));
    EXPECT_EQ(Cli({"check", hive}).out.find("warning at"), std::string::npos);
    for (const char* name : {"B\\_", "B\\a"}) ASSERT_EQ(Cli({"mkkey", hive, name, "--library-order"}).status, 0);
    EXPECT_EQ(Cli({"mkkey", hive, "B\\Z"}).status, 0);
    EXPECT_EQ(Cli({"ls", hive, "B"}).out, "a\\\nZ\\\n_\\\n");
    // A unit past 0xFF among the first four clears an lf hint's low byte; U+00FF still fits.
    for (const char* name : {"C\\\xc3\xbfz", "C\\\xc4\x81" "b"})
        ASSERT_EQ(Cli({"mkkey", hive, name, "--windows-order"}).status, 0);
    std::set<std::uint32_t> written;
    for (const auto& [key, hint] : hints(Image(ReadFileBytes(hive)))) written.insert(hint);
    EXPECT_TRUE(written.count(0x7AFF) == 1 && written.count(0x6200) == 1);
    // An ri naming a cell that isn't a leaf, or a list cell that is no cell,
    // takes no key, even forced, and keeps its bytes.
    for (const bool riOverAKey : {true, false}) {
        HiveBuilder lying;
        lying.AddTree(TreeKey{"R", {}, {TreeKey{"A"}}});
        const std::uint32_t a = lying.KeyOffset("A");
        const std::uint32_t list = riOverAKey ? lying.AddList("ri", {lying.AddList("lf", {a}, {"A"}), a}) : 0xFFFFFFFF;
        lying.Patch32(lying.KeyOffset(""), Tamvik::NkField::SubKeyListCell, list);
        const Bytes bytes = lying.Build();
        WriteText(At("ri"), std::string(bytes.begin(), bytes.end()));
        EXPECT_EQ(Cli({"mkkey", "--force", At("ri"), "B", "--windows-order"}).status, 1) << riOverAKey;
        EXPECT_EQ(ReadFileBytes(At("ri")), bytes);
    }
}

TEST_F(Tool, InfoAndCheckLookAtTheFileItself) {
    const std::string hive = NewHive();
    ASSERT_EQ(Cli({"mkkey", hive, "A\\B"}).status, 0);
    ASSERT_EQ(Cli({"set", hive, "A", "v", "binary", "0102030405060708"}).status, 0);
    const ToolRun info = Cli({"info", hive});
    const Bytes good = ReadFileBytes(hive);
    std::uint32_t lastFree = 0, space[2][2] = {};  // bytes and cells, used and free
    for (const auto& [offset, size] : Image(good).Cells())
        space[size > 0][0] += static_cast<std::uint32_t>(std::abs(size)), ++space[size > 0][1], lastFree = size > 0 ? offset : lastFree;
    const auto spaceIn = [&](int free) { return std::to_string(space[free][0]) + " bytes in " + std::to_string(space[free][1]); };
    for (const std::string& line : std::initializer_list<std::string>{"signature       regf\n", "keys            3\n", "values          1\n",
             "bins            1\n", "security cells  1\n", "(ok)", "used space      " + spaceIn(0), "free space      " + spaceIn(1),
             "clustering      1\n", "file name       ROOT\n"})
        EXPECT_NE(info.out.find(line), std::string::npos) << line << info.out;
    // Damage of each kind, and the lines check gives for it; a base block field is changed with its checksum.
    const auto put = [](Bytes& b, std::size_t at, std::uint32_t value) { Tamvik::StoreU32(b.data() + at, value); };
    const auto field = [&](std::size_t at, std::uint32_t v) { return [=](Bytes& b) { put(b, at, v), put(b, 0x1FC, ChecksumOf(b.data())); }; };
    const std::tuple<std::function<void(Bytes&)>, std::vector<std::string>, int> damage[] = {
        {[](Bytes& b) { b[0x1FC] ^= 1; }, {"offset 0x1fc"}, 1},
        {[](Bytes& b) { b[4096 + 0x20] ^= 0x04; }, {"offset 0x1020: cell 0x20"}, 1},
        {[&](Bytes& b) { put(b, 4096 + Image(b).Root() + 4 + Tamvik::NkField::SubKeyListCell, lastFree); }, {"names a free cell"}, 1},
        {[](Bytes& b) { std::fill(b.begin(), b.begin() + 4, 'j'); }, {"signature is not \"regf\""}, 1},
        {[](Bytes& b) { b.resize(100); }, {"offset 0x0: file of 100 bytes is shorter than a base block", "(4096 bytes)"}, 1},
        {[](Bytes& b) { b.resize(4096); }, {"offset 0x28: bins cover 0x0 bytes, the base block says 0x1000", "!shorter than"}, 1},
        {[&](Bytes& b) { b.resize(8224), field(0x28, 0x1020)(b); }, {"offset 0x2000: bin at 0x1000: signature is not \"hbin\""}, 1},
        {field(4, 2), {"offset 0x4: base block: sequence numbers 2 and 1 differ: the hive is dirty, its last write", "(see tamvik replay)"}, 1},
        {field(0x14, 0), {"offset 0x14: base block: major version 0, expected 1"}, 1},
        {field(0x18, 7), {"offset 0x18: base block: minor version 7 is unknown"}, 1},
        {field(0x1C, 6), {"warning at file offset 0x1c: base block: file type 6 is not a primary file"}, 0},
        {field(0x20, 0), {"offset 0x20: base block: format 0, expected 1"}, 1},
        {field(0x28, 0x1008), {"0x28: base block: bins size 0x1008 is not a positive multiple of 4096", "0x28: base block: bins "
                               "size 0x1008 runs past the end of the file (8192 bytes)", "0x28: bins cover 0x1000 bytes, the base block says 0x1008"}, 1},
        {[](Bytes& b) { b[4096] = 'x'; }, {"offset 0x1000: bin at 0x0: signature is not \"hbin\"; the bins behind"}, 1},
        {[&](Bytes& b) { put(b, 4100, 8); }, {"offset 0x1004: bin at 0x0: records its offset as 0x8"}, 1},
        {[&](Bytes& b) { put(b, 4104, 0x1008); }, {"offset 0x1008: bin at 0x0: size 0x1008 is not a multiple of 4096"}, 1},
        {[&](Bytes& b) { put(b, 4104, 0x2000); }, {"offset 0x1008: bin at 0x0: size 0x2000 runs past the bins area"}, 1},
        {[&](Bytes& b) { put(b, 4096 + 0x20, 0); }, {"offset 0x1020: cell 0x20: size 0 ends the cells early"}, 1},
        {[&](Bytes& b) { put(b, 4096 + 0x20, -Image(b).Size(0x20)); }, {"root cell 0x20 names no allocated cell", "!follows a free"}, 1},
        {[&](Bytes& b) { put(b, 4096 + lastFree, -Image(b).Size(lastFree)), put(b, 4100 + lastFree, ~0u), field(0x24, lastFree + 1)(b); },
         {"offset 0x24: base block: root cell " + Tamvik::Hex(lastFree + 1) + " names no allocated cell"}, 1},  // 1 byte into a cell
        {[&](Bytes& b) { put(b, 4096 + lastFree, -Image(b).Size(lastFree)); },
         {"warning at file offset 0x1000: 1 allocated cell(s) not reached from the root key (first: " + Tamvik::Hex(lastFree) + ")\n"}, 0},
        {[&](Bytes& b) { put(b, 4096 + lastFree, space[1][0] + 8); }, {" runs past the end of its bin"}, 1},
        {[&](Bytes& b) { put(b, 4096 + lastFree, 8), put(b, 4104 + lastFree, space[1][0] - 8); },
         {"free cell follows a free cell (not merged)\n"}, 0},
    };
    for (const auto& [harm, texts, status] : damage) {
        Bytes bytes = good;
        harm(bytes);
        WriteText(At("bad.hiv"), std::string(bytes.begin(), bytes.end()));
        const ToolRun check = Cli({"check", At("bad.hiv")});
        EXPECT_EQ(check.status, status) << texts[0];
        for (const std::string& text : texts)  // "!..." is not printed
            EXPECT_EQ(check.out.find(text.substr(text[0] == '!')) == std::string::npos, text[0] == '!') << text << check.out;
    }
}

// Every clean real hive passes check, and its export, imported into a new
// hive in Windows order, exports again to the very same text: every entry is
// stored as it was, none refused, and the lists come out in the same order.
class ToolOnRealHives : public Tool, public ::testing::WithParamInterface<std::string> {};

TEST_P(ToolOnRealHives, CheckAndExportImportIdentity) {
    SKIP_WITHOUT_SHARED_HIVES();
    const std::string original = SharedHives() + "/clean/" + GetParam();
    EXPECT_EQ(Cli({"check", original}).status, 0);
    EXPECT_NE(Cli({"info", original}).out.find("(ok)"), std::string::npos);
    ASSERT_EQ(Cli({"export", original, "-o", At("x.reg")}).status, 0);
    const std::string copy = NewHive();
    const ToolRun import = Cli({"import", copy, At("x.reg")});
    EXPECT_EQ(import.status, 0);
    EXPECT_EQ(import.err, "") << "no entry refused";
    EXPECT_EQ(Cli({"check", copy, "-q"}).status, 0);
    ASSERT_EQ(Cli({"export", copy, "-o", At("y.reg")}).status, 0);
    EXPECT_TRUE(ReadFileBytes(At("x.reg")) == ReadFileBytes(At("y.reg"))) << "the export of the copy differs";
    // The hints new entries get are those Windows wrote beside every name.
    const Image image(ReadFileBytes(original));
    for (const auto& [cell, size] : image.Cells()) {
        const std::string sig = size < 0 ? image.Sig(cell) : "";
        for (std::uint32_t i = 0; (sig == "lf" || sig == "lh") && i < image.U16(cell, 2); ++i) {
            const std::uint32_t nk = image.U32(cell, 4 + 8 * i), hint = image.U32(cell, 8 + 8 * i);
            const std::string bytes = image.Name(nk);
            std::u16string name;
            for (std::size_t k = 0; k < bytes.size(); ++k) {
                if (image.U16(nk, Tamvik::NkField::Flags) & 0x20) name += static_cast<unsigned char>(bytes[k]);
                else if (k % 2 == 1) name += static_cast<char16_t>(static_cast<unsigned char>(bytes[k - 1]) | static_cast<unsigned char>(bytes[k]) << 8);
            }
            EXPECT_EQ(Tamvik::HintFor(sig == "lf" ? Tamvik::kLfSignature : Tamvik::kLhSignature, name), hint)
                << sig << " entry of " << Utf8(name);
        }
    }
}

// A real hive's ri list (512 keys in lh leaves) takes new keys where the
// library puts them; --repair moves them across the leaves into Windows order,
// and the peers read every key.
TEST_F(Tool, AnRiListTakesNewKeysAndSorts) {
    SKIP_WITHOUT_SHARED_HIVES();
    const std::string hive = At("t.hiv");
    fs::copy_file(SharedHives() + "/clean/nt-hive__testhive", hive);
    fs::permissions(hive, fs::perms::owner_read | fs::perms::owner_write);
    for (const char* name : {"[x]", "keyA", "key_", "\xc3\xbf"})
        ASSERT_EQ(Cli({"mkkey", hive, std::string("subkey-test\\") + name, "--library-order"}).status, 0) << name;
    EXPECT_TRUE(Cli({"ls", hive, "subkey-test"}).out.starts_with("\xc3\xbf\\\n[x]\\\nKey0\\\n"));
    EXPECT_NE(Cli({"check", hive}).out.find("at key \\subkey-test: subkey list not in Windows order"), std::string::npos);
    EXPECT_EQ(Cli({"check", hive, "--repair"}).status, 0);
    const std::string sorted = Cli({"ls", hive, "subkey-test"}).out;
    EXPECT_TRUE(sorted.starts_with("Key0\\\nkey1\\\n") && sorted.ends_with("keyA\\\nkey_\\\n[x]\\\n\xc3\xbf\\\n"))
        << sorted;
    EXPECT_EQ(Cli({"check", hive}).out.find("warning at key"), std::string::npos);
    if (!PeersMissing().empty()) GTEST_SKIP() << PeersMissing();
    for (const char* reader : {"hivex", "libregf"})
        EXPECT_EQ(CompareListings(ListFile(hive).lines, RunPeer(reader, hive).lines, reader), "");
}

INSTANTIATE_TEST_SUITE_P(Clean, ToolOnRealHives, ::testing::ValuesIn(SharedHiveNames("clean")),
                         [](const ::testing::TestParamInfo<std::string>& info) {
                             std::string id = info.param.empty() ? "NoSharedHives" : info.param;
                             for (char& c : id) c = std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
                             return id;
                         });

TEST_F(Tool, DamagedHivesEndWithAStatus) {
    SKIP_WITHOUT_SHARED_HIVES();
    for (const auto& entry : fs::recursive_directory_iterator(SharedHives() + "/damaged")) {
        if (!entry.is_regular_file()) continue;
        for (const char* command : {"check", "info", "export"})
            EXPECT_LT(Cli({command, entry.path().string()}).status, 3) << command << " " << entry.path();
    }
    const ToolRun sum = Cli({"check", SharedHives() + "/damaged/EZ-Registry__SAN_OTHER"});
    EXPECT_NE(sum.out.find("offset 0x1fc: base block: checksum"), std::string::npos) << sum.out;

    // Hives an edit would harm more are refused whole, and taken with --force:
    // a file shorter than its bins, a list two keys share, a lying cell size.
    const auto write = [](const std::string& path, const Bytes& bytes) { WriteText(path, std::string(bytes.begin(), bytes.end())); };
    Bytes lying = ReadFileBytes(SharedHives() + "/clean/nt-hive__testhive");
    Tamvik::StoreU32(lying.data() + Tamvik::kBaseBlockSize + 0x3C8, static_cast<std::uint32_t>(-32));
    write(At("lying"), lying);
    for (const std::string name : {"truncated", "shared", "lying"}) {
        if (name != "lying")
            fs::copy_file(SharedHives() + (name == "truncated" ? "/damaged/yarp__TruncatedHive" : "/damaged/yarp__BadListHive"),
                          At(name));
        fs::permissions(At(name), fs::perms::owner_write, fs::perm_options::add);
        const Bytes before = ReadFileBytes(At(name));
        const ToolRun refused = Cli({"mkkey", At(name), "New"});
        EXPECT_EQ(refused.status, 5) << name << refused.err;
        EXPECT_EQ(ReadFileBytes(At(name)), before) << name;
        EXPECT_EQ(Cli({"mkkey", "--force", At(name), "New"}).status, 0) << name;
    }
    EXPECT_NE(Cli({"mkkey", At("shared"), "X"}).err.find("cross-linked"), std::string::npos);

    // A count of billions ends a walk at the list's real end, at once.
    const Bytes clean = ReadFileBytes(SharedHives() + "/clean/plaso__100_sub_keys.hiv");
    for (std::uint32_t field : {Tamvik::NkField::SubKeyCount, Tamvik::NkField::ValueCount}) {
        for (std::uint32_t count : {0xFFFFFFFFu, 7667712u}) {
            Bytes bytes = clean;
            Tamvik::StoreU32(bytes.data() + Tamvik::kBaseBlockSize + Tamvik::LoadU32(bytes.data() + Tamvik::BaseBlockField::RootCell) + 4 +
                         field, count);
            write(At("counted"), bytes);
            for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
                     {"ls", "-r", At("counted")}, {"export", At("counted")}, {"check", At("counted")}}) {
                const auto start = std::chrono::steady_clock::now();
                const ToolRun run = Cli(args);
                EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1)) << args[0] << " " << count;
                EXPECT_LT(run.out.size(), 64u << 10) << args[0];
            }
        }
    }
}

}  // namespace
