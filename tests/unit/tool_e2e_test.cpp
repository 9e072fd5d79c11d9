// End-to-end tests of the tamvik command-line tool: the built binary is run
// through the shell, and its output, its exit status and the hive files it
// leaves are looked at. The peers hivex (hivexregedit) and libregf serve as
// oracles where they are installed.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "support/TempFile.h"

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<std::uint8_t>;

// The tool: given by the build, or found beside this test binary's folder.
std::string ToolPath() {
#ifdef TAMVIK_TOOL
    return TAMVIK_TOOL;
#else
    std::error_code error;
    fs::path self = fs::read_symlink("/proc/self/exe", error);
    return (self.parent_path().parent_path() / "tools" / "tamvik").string();
#endif
}

std::string SourceDir() {
#ifdef TAMVIK_SOURCE_DIR
    return TAMVIK_SOURCE_DIR;
#else
    return ".";
#endif
}

std::string Quote(const std::string& text) {
    std::string out = "'";
    for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

bool OnPath(const std::string& program) {
    return std::system(("command -v " + program + " >/dev/null 2>&1").c_str()) == 0;
}

// What one run of a command gave.
struct Outcome {
    int status = -1;
    std::string out;
    std::string err;
};

std::string ReadText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

Bytes ReadBytes(const std::string& path) {
    std::string text = ReadText(path);
    return Bytes(text.begin(), text.end());
}

void WriteText(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

std::uint32_t U32(const Bytes& b, std::size_t at) {
    return b[at] | (b[at + 1] << 8) | (b[at + 2] << 16) | (static_cast<std::uint32_t>(b[at + 3]) << 24);
}
std::uint16_t U16(const Bytes& b, std::size_t at) { return static_cast<std::uint16_t>(b[at] | (b[at + 1] << 8)); }

// ---------------------------------------------------------------------------
// A .reg reader of the tests' own, independent of the tool's: it turns an
// export into keys -> values -> (type, bytes), so that two exports can be
// compared by content, not by text. hivexregedit prints each line either as
// UTF-8 or as Latin-1, so lines that aren't UTF-8 are taken as Latin-1.

using Value = std::pair<std::uint32_t, Bytes>;
using Listing = std::map<std::u16string, std::map<std::u16string, Value>>;

std::optional<std::u16string> DecodeUtf8(const std::string& s) {
    std::u16string out;
    for (std::size_t i = 0; i < s.size();) {
        auto b = static_cast<std::uint8_t>(s[i]);
        std::uint32_t c;
        std::size_t n = b < 0x80 ? 1 : (b & 0xE0) == 0xC0 ? 2 : (b & 0xF0) == 0xE0 ? 3 : (b & 0xF8) == 0xF0 ? 4 : 0;
        if (n == 0 || i + n > s.size()) return std::nullopt;
        c = n == 1 ? b : b & (0x7F >> n);
        for (std::size_t k = 1; k < n; ++k) {
            auto t = static_cast<std::uint8_t>(s[i + k]);
            if ((t & 0xC0) != 0x80) return std::nullopt;
            c = (c << 6) | (t & 0x3F);
        }
        if (c >= 0x10000) {
            c -= 0x10000;
            out += static_cast<char16_t>(0xD800 + (c >> 10));
            out += static_cast<char16_t>(0xDC00 + (c & 0x3FF));
        } else {
            out += static_cast<char16_t>(c);
        }
        i += n;
    }
    return out;
}

std::string Utf8(const std::u16string& s) {
    std::string out;
    for (std::size_t i = 0; i < s.size(); ++i) {
        std::uint32_t c = s[i];
        if (c >= 0xD800 && c < 0xDC00 && i + 1 < s.size()) c = 0x10000 + ((c - 0xD800) << 10) + (s[++i] - 0xDC00);
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (c < 0x800) {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            out += static_cast<char>(0xE0 | (c >> 12));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (c >> 18));
            out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

std::vector<std::u16string> RegLines(const Bytes& file) {
    std::vector<std::u16string> lines;
    std::u16string line;
    if (file.size() >= 2 && file[0] == 0xFF && file[1] == 0xFE) {
        for (std::size_t i = 2; i + 1 < file.size(); i += 2) {
            char16_t c = U16(file, i);
            if (c == u'\n') {
                if (!line.empty() && line.back() == u'\r') line.pop_back();
                lines.push_back(line);
                line.clear();
            } else {
                line += c;
            }
        }
        lines.push_back(line);
        return lines;
    }
    std::string raw;
    auto flush = [&] {
        if (!raw.empty() && raw.back() == '\r') raw.pop_back();
        std::optional<std::u16string> wide = DecodeUtf8(raw);
        if (!wide) {
            wide = std::u16string();
            for (char c : raw) *wide += static_cast<char16_t>(static_cast<std::uint8_t>(c));
        }
        lines.push_back(*wide);
        raw.clear();
    };
    for (std::uint8_t b : file) {
        if (b == '\n') flush();
        else raw += static_cast<char>(b);
    }
    flush();
    return lines;
}

Bytes HexList(const std::u16string& text) {
    Bytes out;
    int high = -1;
    for (char16_t c : text) {
        int d = c >= u'0' && c <= u'9' ? c - u'0' : c >= u'a' && c <= u'f' ? c - u'a' + 10 : -1;
        if (d < 0) continue;
        if (high < 0) {
            high = d;
        } else {
            out.push_back(static_cast<std::uint8_t>(high * 16 + d));
            high = -1;
        }
    }
    return out;
}

Listing ParseReg(const Bytes& file) {
    Listing listing;
    std::vector<std::u16string> lines = RegLines(file);
    std::u16string key;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        std::u16string line = lines[i];
        if (line.empty() || line[0] == u';' || line.rfind(u"Windows Registry", 0) == 0) continue;
        if (line[0] == u'[') {
            key = line.substr(1, line.size() - 2);
            listing[key];
            continue;
        }
        while (!line.empty() && line.back() == u'\\' && i + 1 < lines.size()) {
            line.pop_back();
            std::u16string next = lines[++i];
            line += next.substr(next.find_first_not_of(u' '));
        }
        std::u16string name;
        std::size_t pos = 1;
        if (line[0] == u'"') {
            while (line[pos] != u'"') {
                if (line[pos] == u'\\') ++pos;
                name += line[pos++];
            }
            ++pos;
        }
        std::u16string data = line.substr(pos + 1);
        Value value;
        if (data.rfind(u"dword:", 0) == 0) {
            std::uint32_t v = std::stoul(Utf8(data.substr(6)), nullptr, 16);
            value = {4, {static_cast<std::uint8_t>(v), static_cast<std::uint8_t>(v >> 8),
                         static_cast<std::uint8_t>(v >> 16), static_cast<std::uint8_t>(v >> 24)}};
        } else if (data[0] == u'"') {
            value.first = 1;
            for (std::size_t k = 1; k + 1 < data.size(); ++k) {
                char16_t c = data[k] == u'\\' ? data[++k] : data[k];
                value.second.push_back(static_cast<std::uint8_t>(c));
                value.second.push_back(static_cast<std::uint8_t>(c >> 8));
            }
            value.second.push_back(0);
            value.second.push_back(0);
        } else if (data.rfind(u"hex:", 0) == 0) {
            value = {3, HexList(data.substr(4))};
        } else {
            std::size_t close = data.find(u')');
            value = {static_cast<std::uint32_t>(std::stoul(Utf8(data.substr(4, close - 4)), nullptr, 16)),
                     HexList(data.substr(close + 2))};
        }
        listing[key][name] = value;
    }
    return listing;
}

// Differences between two listings, one line each (empty when equal).
std::vector<std::string> Differences(const Listing& expected, const Listing& actual) {
    std::vector<std::string> out;
    for (const auto& [key, values] : expected) {
        auto it = actual.find(key);
        if (it == actual.end()) {
            out.push_back("missing key " + Utf8(key));
            continue;
        }
        for (const auto& [name, value] : values) {
            auto v = it->second.find(name);
            if (v == it->second.end()) out.push_back("missing value " + Utf8(key) + " : " + Utf8(name));
            else if (v->second != value) out.push_back("different value " + Utf8(key) + " : " + Utf8(name));
        }
        for (const auto& [name, value] : it->second)
            if (values.count(name) == 0) out.push_back("extra value " + Utf8(key) + " : " + Utf8(name));
    }
    for (const auto& [key, values] : actual)
        if (expected.count(key) == 0) out.push_back("extra key " + Utf8(key));
    return out;
}

bool Ascii(const std::u16string& s) {
    for (char16_t c : s)
        if (c >= 0x80) return false;
    return true;
}

// What a hive made from an export can hold: the library can't create values
// without a name or without data, and stores only ASCII names faithfully.
Listing Storable(const Listing& listing) {
    Listing out;
    for (const auto& [key, values] : listing) {
        if (!Ascii(key)) continue;
        auto& kept = out[key];
        for (const auto& [name, value] : values)
            if (!name.empty() && !value.second.empty() && Ascii(name)) kept[name] = value;
    }
    return out;
}

// ---------------------------------------------------------------------------

// Each test gets a scratch folder and runs the tool inside it.
class ToolTest : public ::testing::Test {
protected:
    void SetUp() override {
        tool_ = ToolPath();
        if (access(tool_.c_str(), X_OK) != 0) GTEST_SKIP() << "tamvik binary not built at " << tool_;
        const char* tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp != nullptr ? tmp : "/tmp") + "/tamvik-tool-XXXXXX";
        std::vector<char> name(pattern.begin(), pattern.end());
        name.push_back('\0');
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        dir_ = name.data();
    }
    void TearDown() override {
        if (!dir_.empty()) {
            std::error_code ignored;
            fs::remove_all(dir_, ignored);
        }
    }

    std::string At(const std::string& name) const { return dir_ + "/" + name; }

    // Runs "tamvik ARGS" with each argument quoted; stdout and stderr kept apart.
    Outcome Tool(const std::vector<std::string>& args, const std::string& input = "") const {
        std::string command = Quote(tool_);
        for (const auto& a : args) command += " " + Quote(a);
        return Shell(command, input);
    }

    Outcome Shell(const std::string& command, const std::string& input = "") const {
        const std::string errFile = At(".stderr");
        std::string full = command + " 2>" + Quote(errFile);
        if (!input.empty()) {
            WriteText(At(".stdin"), input);
            full += " <" + Quote(At(".stdin"));
        }
        Outcome run;
        FILE* pipe = popen(full.c_str(), "r");
        if (pipe == nullptr) return run;
        char buffer[65536];
        std::size_t n;
        while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) run.out.append(buffer, n);
        int status = pclose(pipe);
        run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        run.err = ReadText(errFile);
        return run;
    }

    // A new empty hive in the scratch folder.
    std::string NewHive(const std::string& name = "h.hiv") const {
        Outcome run = Tool({"new", At(name)});
        EXPECT_EQ(run.status, 0) << run.err;
        return At(name);
    }

    std::string tool_;
    std::string dir_;
};

// --- new --------------------------------------------------------------------

TEST_F(ToolTest, NewWritesASoundEmptyHive) {
    const std::string hive = NewHive();
    Bytes b = ReadBytes(hive);
    ASSERT_EQ(b.size(), 8192u);
    EXPECT_EQ(std::string(b.begin(), b.begin() + 4), "regf");
    EXPECT_EQ(U32(b, 0x04), 1u);
    EXPECT_EQ(U32(b, 0x08), 1u);
    EXPECT_EQ(U32(b, 0x14), 1u);
    EXPECT_EQ(U32(b, 0x18), 5u);
    EXPECT_EQ(U32(b, 0x1C), 0u);
    EXPECT_EQ(U32(b, 0x20), 1u);
    EXPECT_EQ(U32(b, 0x28), 4096u);
    EXPECT_EQ(U32(b, 0x2C), 1u);
    std::uint32_t sum = 0;
    for (int i = 0; i < 127; ++i) sum ^= U32(b, 4 * i);
    EXPECT_EQ(U32(b, 0x1FC), sum);
    EXPECT_EQ(std::string(b.begin() + 4096, b.begin() + 4100), "hbin");

    // Root nk: flags, no lists, a name, and an sk of its own.
    const std::size_t root = 4096 + U32(b, 0x24);
    ASSERT_EQ(b[root + 4], 'n');
    EXPECT_EQ(U16(b, root + 6), 0x2Cu);
    EXPECT_EQ(U32(b, root + 4 + 0x1C), 0xFFFFFFFFu);
    EXPECT_EQ(U32(b, root + 4 + 0x28), 0xFFFFFFFFu);
    EXPECT_EQ(std::string(b.begin() + root + 4 + 0x4C, b.begin() + root + 4 + 0x4C + U16(b, root + 4 + 0x48)), "ROOT");
    const std::uint32_t skCell = U32(b, root + 4 + 0x2C);
    const std::size_t sk = 4096 + skCell;
    ASSERT_EQ(b[sk + 4], 's');
    EXPECT_EQ(U32(b, sk + 8), skCell);   // ring of one
    EXPECT_EQ(U32(b, sk + 12), skCell);
    EXPECT_EQ(U32(b, sk + 16), 1u);      // one reference

    // The descriptor: self-relative, owner Administrators, group SYSTEM, a
    // DACL of three ACEs whose last grants read access to Everyone.
    const std::size_t sd = sk + 24;
    EXPECT_EQ(U16(b, sd + 2) & 0x8004, 0x8004);
    const std::size_t owner = sd + U32(b, sd + 4), group = sd + U32(b, sd + 8), dacl = sd + U32(b, sd + 16);
    EXPECT_EQ(b[owner + 1], 2);
    EXPECT_EQ(U32(b, owner + 8), 32u);
    EXPECT_EQ(U32(b, owner + 12), 544u);
    EXPECT_EQ(U32(b, group + 8), 18u);
    EXPECT_EQ(U16(b, dacl + 4), 3u);
    std::size_t ace = dacl + 8;
    ace += U16(b, ace + 2);
    ace += U16(b, ace + 2);
    EXPECT_EQ(U32(b, ace + 4), 0x20019u);
    EXPECT_EQ(b[ace + 15], 1);  // S-1-1-0: authority 1
    EXPECT_LE(U32(b, sd - 4) + 0u, 4096u);

    Outcome check = Tool({"check", hive});
    EXPECT_EQ(check.status, 0) << check.out;
}

TEST_F(ToolTest, NewHiveIsAcceptedByThePeers) {
    const std::string hive = NewHive();
    bool tried = false;
    if (OnPath("hivexregedit")) {
        tried = true;
        Outcome run = Shell("hivexregedit --export " + Quote(hive) + " '\\\\'");
        EXPECT_EQ(run.status, 0) << run.err;
        EXPECT_NE(run.out.find("[\\]"), std::string::npos);
    }
    if (OnPath("regfinfo")) {
        tried = true;
        Outcome run = Shell("regfinfo " + Quote(hive));
        EXPECT_EQ(run.status, 0) << run.err;
        EXPECT_NE(run.out.find("Version:\t1.5"), std::string::npos) << run.out;
    }
    if (!tried) GTEST_SKIP() << "neither hivexregedit nor regfinfo is installed";
}

TEST_F(ToolTest, NewTakesMinorVersionAndRootNameAndKeepsExistingFiles) {
    Outcome run = Tool({"new", At("a.hiv"), "--minor", "3", "--root-name", "CMI-CreateHive{X}"});
    ASSERT_EQ(run.status, 0) << run.err;
    Bytes b = ReadBytes(At("a.hiv"));
    EXPECT_EQ(U32(b, 0x18), 3u);
    Outcome info = Tool({"info", At("a.hiv")});
    EXPECT_NE(info.out.find("version         1.3"), std::string::npos) << info.out;

    WriteText(At("keep"), "precious");
    run = Tool({"new", At("keep")});
    EXPECT_NE(run.status, 0);
    EXPECT_NE(run.err.find("keep"), std::string::npos);
    EXPECT_EQ(ReadText(At("keep")), "precious");
    EXPECT_EQ(Tool({"new", At("keep"), "--force"}).status, 0);
    EXPECT_EQ(ReadBytes(At("keep")).size(), 8192u);

    EXPECT_EQ(Tool({"new", At("b.hiv"), "--minor", "1"}).status, 2);
    EXPECT_EQ(Tool({"new", At("b.hiv"), "--minor", "7"}).status, 2);
    EXPECT_FALSE(fs::exists(At("b.hiv")));
}

// --- import of the sample, ls, get ------------------------------------------

TEST_F(ToolTest, SampleImportsAndListsWithEveryType) {
    const std::string hive = NewHive();
    const std::string sample = SourceDir() + "/tools/sample/demo.reg";
    if (!fs::exists(sample)) GTEST_SKIP() << "sample not found at " << sample;
    Outcome run = Tool({"import", hive, sample});
    ASSERT_EQ(run.status, 0) << run.err;

    Outcome ls = Tool({"ls", hive, "-r"});
    ASSERT_EQ(ls.status, 0) << ls.err;
    EXPECT_EQ(ls.out,
              "\\\n"
              "\\Demo\n"
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
              "\\Demo\\Sub Key\n"
              "  \"Name\" = REG_SZ \"inner\"\n"
              "\\Demo\\Sub Key\\Deeper\n"
              "  \"Level\" = REG_DWORD 0x00000003 (3)\n"
              "\\Other\n");

    Outcome top = Tool({"ls", hive});
    EXPECT_EQ(top.out, "Demo\\\nOther\\\n");
    EXPECT_EQ(Tool({"get", hive, "Demo", "Chinese"}).out, "你好，世界\n");
    EXPECT_EQ(Tool({"get", hive, "\\demo", "counter"}).out, "42\n");  // any case, leading backslash
    EXPECT_EQ(Tool({"get", hive, "Demo", "List"}).out, "first\nsecond\n第三\n");
    EXPECT_EQ(Tool({"get", hive, "Demo", "Big"}).out, "1099511627776\n");
    EXPECT_EQ(Tool({"get", hive, "Demo", "BigEndian", "--type"}).out, "REG_DWORD_BIG_ENDIAN\n256\n");
    EXPECT_EQ(Tool({"get", hive, "Demo", "Blob"}).out, "deadbeef00010203\n");
    Outcome raw = Tool({"get", hive, "Demo", "Greeting", "--raw"});
    EXPECT_EQ(raw.out, std::string("H\0e\0l\0l\0o\0,\0 \0w\0o\0r\0l\0d\0\0\0", 26));
    EXPECT_EQ(Tool({"check", hive}).status, 0);
}

TEST_F(ToolTest, ExportOfTheSampleReadsBackTheSameInBothEncodings) {
    const std::string hive = NewHive();
    const std::string sample = SourceDir() + "/tools/sample/demo.reg";
    if (!fs::exists(sample)) GTEST_SKIP() << "sample not found at " << sample;
    ASSERT_EQ(Tool({"import", hive, sample}).status, 0);
    Outcome wide = Tool({"export", hive});
    Outcome narrow = Tool({"export", hive, "--utf8"});
    ASSERT_EQ(wide.status, 0);
    ASSERT_GE(wide.out.size(), 4u);
    EXPECT_EQ(wide.out.substr(0, 4), std::string("\xFF\xFEW\0", 4));
    EXPECT_NE(wide.out.find(std::string("\r\0\n\0", 4)), std::string::npos);  // CR LF in UTF-16
    EXPECT_EQ(narrow.out.rfind("Windows Registry Editor Version 5.00\n\n[\\]\n", 0), 0u);
    const Listing a = ParseReg(Bytes(wide.out.begin(), wide.out.end()));
    const Listing b = ParseReg(Bytes(narrow.out.begin(), narrow.out.end()));
    EXPECT_EQ(a, b);
    EXPECT_EQ(Differences(ParseReg(ReadBytes(sample)), a).size(), 1u);  // only the root [\] is extra
    EXPECT_NE(narrow.out.find("\"Quoted\"=\"a \\\"quoted\\\" C:\\\\path\\\\\"\n"), std::string::npos);
    EXPECT_NE(narrow.out.find("\"Counter\"=dword:0000002a\n"), std::string::npos);
    EXPECT_NE(narrow.out.find("\"Blob\"=hex:de,ad,be,ef,00,01,02,03\n"), std::string::npos);
    EXPECT_NE(narrow.out.find("\"Big\"=hex(b):00,00,00,00,00,01,00,00\n"), std::string::npos);
    EXPECT_NE(narrow.out.find("\"Custom\"=hex(1234):ca,fe\n"), std::string::npos);
    // Long hex data is wrapped as the registry editor wraps it.
    EXPECT_NE(narrow.out.find(",\\\n  00,"), std::string::npos);

    // A subtree with a prefix, read back under the same prefix into another hive.
    Outcome sub = Tool({"export", hive, "Demo\\Sub Key", "--prefix", "HKEY_LOCAL_MACHINE\\SOFTWARE", "-o", At("sub.reg")});
    ASSERT_EQ(sub.status, 0) << sub.err;
    std::string subText = ReadText(At("sub.reg"));
    EXPECT_NE(subText.find(std::string("[\0H\0K\0E\0Y\0_\0L\0O\0C\0A\0L\0_\0M\0A\0C\0H\0I\0N\0E\0\\\0S\0O\0F\0T\0W\0A\0R\0E\0"
                                       "\\\0D\0e\0m\0o\0\\\0S\0u\0b\0 \0K\0e\0y\0]\0",
                                       76)),
              std::string::npos);
    const std::string other = NewHive("other.hiv");
    EXPECT_EQ(Tool({"import", other, At("sub.reg")}).status, 2);  // outside the default prefix
    Outcome merged = Tool({"import", other, At("sub.reg"), "--prefix", "hkey_local_machine\\software"});
    EXPECT_EQ(merged.status, 0) << merged.err;
    EXPECT_EQ(Tool({"get", other, "Demo\\Sub Key\\Deeper", "Level"}).out, "3\n");
}

// --- one-off edits ----------------------------------------------------------

TEST_F(ToolTest, SetMkkeyRmAndRmkeyEditTheHive) {
    const std::string hive = NewHive();
    EXPECT_EQ(Tool({"mkkey", hive, "A\\B\\C"}).status, 0);
    Outcome again = Tool({"mkkey", hive, "a\\b\\c"});
    EXPECT_EQ(again.status, 1);
    EXPECT_NE(again.err.find("72 (already exists)"), std::string::npos) << again.err;
    EXPECT_NE(again.err.find(hive), std::string::npos);

    EXPECT_EQ(Tool({"set", hive, "A", "s", "sz", "text ü"}).status, 0);
    EXPECT_EQ(Tool({"set", hive, "A", "n", "dword", "0x10"}).status, 0);
    EXPECT_EQ(Tool({"set", hive, "A", "q", "REG_QWORD", "18446744073709551615"}).status, 0);
    EXPECT_EQ(Tool({"set", hive, "A", "m", "multi_sz", "one", "two"}).status, 0);
    EXPECT_EQ(Tool({"set", hive, "A", "b", "binary", "00,ff,10"}).status, 0);
    EXPECT_EQ(Tool({"set", hive, "A", "x", "0x20000", "abcd"}).status, 0);
    EXPECT_EQ(Tool({"get", hive, "A", "s"}).out, "text ü\n");
    EXPECT_EQ(Tool({"get", hive, "A", "n"}).out, "16\n");
    EXPECT_EQ(Tool({"get", hive, "A", "q"}).out, "18446744073709551615\n");
    EXPECT_EQ(Tool({"get", hive, "A", "m"}).out, "one\ntwo\n");
    EXPECT_EQ(Tool({"get", hive, "A", "x", "--type"}).out, "REG_0x20000\nabcd\n");

    // Same type: rewritten; another type: replaced; bigger data: moved.
    EXPECT_EQ(Tool({"set", hive, "A", "n", "dword", "7"}).status, 0);
    EXPECT_EQ(Tool({"get", hive, "A", "n"}).out, "7\n");
    EXPECT_EQ(Tool({"set", hive, "A", "n", "sz", "now text"}).status, 0);
    EXPECT_EQ(Tool({"get", hive, "A", "n", "--type"}).out, "REG_SZ\nnow text\n");
    std::string big(20000, 'x');
    EXPECT_EQ(Tool({"set", hive, "A", "s", "sz", big}).status, 0);
    EXPECT_EQ(Tool({"get", hive, "A", "s"}).out, big + "\n");

    EXPECT_EQ(Tool({"rm", hive, "A", "b"}).status, 0);
    Outcome missing = Tool({"rm", hive, "A", "b"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_NE(missing.err.find("87"), std::string::npos);
    Outcome gone = Tool({"get", hive, "A", "b"});
    EXPECT_EQ(gone.status, 1);
    EXPECT_NE(gone.err.find("\\A"), std::string::npos);

    Outcome busy = Tool({"rmkey", hive, "A\\B"});
    EXPECT_EQ(busy.status, 1);
    EXPECT_NE(busy.err.find("subkeys"), std::string::npos);
    EXPECT_EQ(Tool({"ls", hive, "A\\B"}).out, "C\\\n");
    EXPECT_EQ(Tool({"rmkey", hive, "A\\B\\C"}).status, 0);
    EXPECT_EQ(Tool({"ls", hive, "A\\B"}).out, "");
    EXPECT_EQ(Tool({"mkkey", hive, "A\\B\\C\\D"}).status, 0);
    EXPECT_EQ(Tool({"mkkey", hive, "A\\B\\E"}).status, 0);
    EXPECT_EQ(Tool({"rmkey", hive, "A", "-r"}).status, 0);
    EXPECT_EQ(Tool({"ls", hive}).out, "");
    Outcome check = Tool({"check", hive});
    EXPECT_EQ(check.status, 0) << check.out;
}

TEST_F(ToolTest, BadArgumentsLeaveTheHiveUntouched) {
    const std::string hive = NewHive();
    ASSERT_EQ(Tool({"mkkey", hive, "K"}).status, 0);
    const Bytes before = ReadBytes(hive);
    WriteText(At("bad.reg"), "Windows Registry Editor Version 5.00\n\n[\\K]\n\"a\"=dword:1\n\"b\"=hex:zz\n");
    WriteText(At("notreg.reg"), "hello\n");
    WriteText(At("outside.reg"), "Windows Registry Editor Version 5.00\n\n[HKEY_CURRENT_USER\\K]\n\"a\"=dword:1\n");
    const std::vector<std::vector<std::string>> calls = {
        {"set", hive, "K", "v", "nosuchtype", "1"},
        {"set", hive, "K", "v", "dword", "0x100000000"},
        {"set", hive, "K", "v", "dword", "12x"},
        {"set", hive, "K", "v", "binary", "0g"},
        {"set", hive, "K", "v", "dword"},
        {"set", hive, "K", "v", "dword", "1", "2"},
        {"set", hive, "K", "v", "multi_sz", "a", ""},
        {"mkkey", hive, "Ключ"},
        {"mkkey", hive, "\\"},
        {"rmkey", hive, ""},
        {"import", hive, At("bad.reg")},
        {"import", hive, At("notreg.reg")},
        {"import", hive, At("outside.reg")},
        {"import", hive, At("absent.reg")},
        {"ls", hive, "--bogus"},
        {"export", hive, "--prefix"},
        {"get", hive, "K"},
    };
    for (const auto& call : calls) {
        Outcome run = Tool(call);
        EXPECT_EQ(run.status, 2) << call[0] << " " << call.back() << ": " << run.err;
        EXPECT_FALSE(run.err.empty());
        EXPECT_EQ(ReadBytes(hive), before) << call[0] << " " << call.back();
    }
    Outcome bad = Tool({"import", hive, At("bad.reg")});
    EXPECT_NE(bad.err.find("line 5"), std::string::npos) << bad.err;
    EXPECT_EQ(Tool({"frobnicate"}).status, 2);
    EXPECT_EQ(Tool({}).status, 2);
    for (const char* command : {"info", "ls", "get", "export", "import", "set", "mkkey", "rm", "rmkey", "check", "new"}) {
        Outcome help = Tool({command, "--help"});
        EXPECT_EQ(help.status, 0) << command;
        EXPECT_EQ(help.out.rfind(std::string("usage: tamvik ") + command, 0), 0u) << help.out;
    }
}

TEST_F(ToolTest, FailuresNameThePathAndTheResult) {
    Outcome missing = Tool({"ls", At("absent.hiv")});
    EXPECT_EQ(missing.status, 1);
    EXPECT_NE(missing.err.find("absent.hiv"), std::string::npos);
    EXPECT_EQ(std::count(missing.err.begin(), missing.err.end(), '\n'), 1);

    WriteText(At("junk.hiv"), std::string(8192, 'j'));
    Outcome junk = Tool({"ls", At("junk.hiv")});
    EXPECT_EQ(junk.status, 1);
    EXPECT_NE(junk.err.find("result 5 (hive refused)"), std::string::npos) << junk.err;
    Outcome junkCheck = Tool({"check", At("junk.hiv")});
    EXPECT_EQ(junkCheck.status, 1);
    EXPECT_NE(junkCheck.out.find("signature is not \"regf\""), std::string::npos);

    const std::string hive = NewHive();
    Outcome noKey = Tool({"ls", hive, "Nope\\Deeper"});
    EXPECT_EQ(noKey.status, 1);
    EXPECT_NE(noKey.err.find("\\Nope\\Deeper"), std::string::npos);
    EXPECT_NE(noKey.err.find("87 (invalid argument or not found)"), std::string::npos);
    Outcome noSet = Tool({"set", hive, "Nope", "v", "sz", "x"});
    EXPECT_EQ(noSet.status, 1);
    EXPECT_NE(noSet.err.find("\\Nope"), std::string::npos);

    // A read command opens read-only: a hive the process can't write is read.
    fs::permissions(hive, fs::perms::owner_read, fs::perm_options::replace);
    if (access(hive.c_str(), W_OK) != 0) {
        EXPECT_EQ(Tool({"ls", hive}).status, 0);
        EXPECT_EQ(Tool({"mkkey", hive, "X"}).status, 1);
    }
}

// --- the .reg reader --------------------------------------------------------

TEST_F(ToolTest, ImportMergesDeletesAndReadsBothEncodings) {
    const std::string hive = NewHive();
    const std::string first =
        "Windows Registry Editor Version 5.00\r\n\r\n"
        "; a comment\r\n"
        "[\\Soft\\App]\r\n"
        "\"s\"=\"C:\\\\dir\\\\\"\r\n"
        "\"d\"=dword:ffffffff\r\n"
        "\"h\"=hex:01,02,\\\r\n"
        "    03,04\r\n"
        "\"x\"=hex(2):41,00,00,00\r\n"
        "\"gone\"=dword:00000001\r\n"
        "\r\n[\\Soft\\App\\Old\\Leaf]\r\n"
        "\"v\"=\"w\"\r\n";
    WriteText(At("first.reg"), first);
    Outcome run = Tool({"import", hive, At("first.reg")});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(Tool({"get", hive, "Soft\\App", "s"}).out, "C:\\dir\\\n");
    EXPECT_EQ(Tool({"get", hive, "Soft\\App", "d"}).out, "4294967295\n");
    EXPECT_EQ(Tool({"get", hive, "Soft\\App", "h"}).out, "01020304\n");

    // The second file in UTF-16LE with a BOM: replace, retype, delete.
    const std::u16string second =
        u"Windows Registry Editor Version 5.00\r\n\r\n"
        u"[-\\Soft\\App\\Old]\r\n"
        u"[-\\Soft\\Never\\There]\r\n"
        u"[\\Soft\\App]\r\n"
        u"\"d\"=\"was a number\"\r\n"
        u"\"h\"=hex:05\r\n"
        u"\"gone\"=-\r\n"
        u"\"absent\"=-\r\n"
        u"\"中文\"=\"名字不行\"\r\n"
        u"\"t\"=\"数据可以\"\r\n";
    std::string bytes = "\xFF\xFE";
    for (char16_t c : second) {
        bytes += static_cast<char>(c & 0xFF);
        bytes += static_cast<char>(c >> 8);
    }
    WriteText(At("second.reg"), bytes);
    run = Tool({"import", hive, At("second.reg")});
    // Only the value with a Chinese name can't be stored; the rest goes in.
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.err.find("line 10"), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("1 of 9 entries not imported"), std::string::npos) << run.err;
    EXPECT_EQ(Tool({"get", hive, "Soft\\App", "d", "--type"}).out, "REG_SZ\nwas a number\n");
    EXPECT_EQ(Tool({"get", hive, "Soft\\App", "h"}).out, "05\n");
    EXPECT_EQ(Tool({"get", hive, "Soft\\App", "t"}).out, "数据可以\n");
    EXPECT_EQ(Tool({"get", hive, "Soft\\App", "gone"}).status, 1);
    EXPECT_EQ(Tool({"ls", hive, "Soft\\App"}).out.find("Old"), std::string::npos);
    EXPECT_EQ(Tool({"check", hive}).status, 0);

    // Standard input works as the file "-".
    run = Tool({"import", hive, "-"}, "Windows Registry Editor Version 5.00\n\n[\\In]\n\"a\"=hex(0):00\n");
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(Tool({"get", hive, "In", "a", "--type"}).out, "REG_NONE\n00\n");
}

TEST_F(ToolTest, ValuesTheLibraryCantCreateAreReportedNotLost) {
    const std::string hive = NewHive();
    WriteText(At("v.reg"),
              "Windows Registry Editor Version 5.00\n\n[\\K]\n@=\"default\"\n\"empty\"=hex:\n\"ok\"=dword:00000002\n");
    Outcome run = Tool({"import", hive, At("v.reg")});
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.err.find("empty name"), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("no data"), std::string::npos) << run.err;
    EXPECT_EQ(Tool({"get", hive, "K", "ok"}).out, "2\n");
    // An existing default value is rewritten in place; its type can't change.
    Outcome set = Tool({"set", hive, "K", "", "sz", "x"});
    EXPECT_EQ(set.status, 1);
    EXPECT_NE(set.err.find("empty name"), std::string::npos);
}

// --- info and check ---------------------------------------------------------

TEST_F(ToolTest, InfoCountsWhatTheFileHolds) {
    const std::string hive = NewHive();
    ASSERT_EQ(Tool({"mkkey", hive, "A\\B"}).status, 0);
    ASSERT_EQ(Tool({"set", hive, "A", "v", "sz", "a longer string value"}).status, 0);
    ASSERT_EQ(Tool({"set", hive, "A\\B", "w", "dword", "1"}).status, 0);
    Outcome info = Tool({"info", hive});
    ASSERT_EQ(info.status, 0) << info.err;
    EXPECT_NE(info.out.find("signature       regf\n"), std::string::npos) << info.out;
    EXPECT_NE(info.out.find("checksum        "), std::string::npos);
    EXPECT_NE(info.out.find("(ok)"), std::string::npos);
    EXPECT_NE(info.out.find("keys            3\n"), std::string::npos) << info.out;
    EXPECT_NE(info.out.find("values          2\n"), std::string::npos) << info.out;
    EXPECT_NE(info.out.find("bins            1\n"), std::string::npos) << info.out;
    EXPECT_NE(info.out.find("security cells  1\n"), std::string::npos) << info.out;
}

TEST_F(ToolTest, CheckFindsDamageWithOffsets) {
    const std::string hive = NewHive();
    ASSERT_EQ(Tool({"mkkey", hive, "A"}).status, 0);
    ASSERT_EQ(Tool({"set", hive, "A", "v", "binary", "0102030405060708"}).status, 0);
    ASSERT_EQ(Tool({"check", hive}).status, 0);
    Bytes good = ReadBytes(hive);

    // A flipped checksum bit.
    Bytes b = good;
    b[0x1FC] ^= 1;
    WriteText(At("sum.hiv"), std::string(b.begin(), b.end()));
    Outcome run = Tool({"check", At("sum.hiv")});
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.out.find("offset 0x1fc"), std::string::npos) << run.out;

    // A cell size that isn't a multiple of 8.
    b = good;
    b[4096 + 0x20] ^= 0x04;
    WriteText(At("cell.hiv"), std::string(b.begin(), b.end()));
    run = Tool({"check", At("cell.hiv")});
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.out.find("offset 0x1020: cell 0x20"), std::string::npos) << run.out;

    // The root's subkey list pointed at the free cell that ends the bin.
    b = good;
    const std::size_t root = 4096 + U32(b, 0x24) + 4;
    std::uint32_t lastFree = 0;
    for (std::uint32_t at = 0x20; at < 4096;) {
        auto size = static_cast<std::int32_t>(U32(b, 4096 + at));
        if (size > 0) lastFree = at;
        at += static_cast<std::uint32_t>(size < 0 ? -size : size);
        if (size == 0) break;
    }
    ASSERT_NE(lastFree, 0u);
    b[root + 0x1C] = static_cast<std::uint8_t>(lastFree);
    b[root + 0x1D] = static_cast<std::uint8_t>(lastFree >> 8);
    WriteText(At("ref.hiv"), std::string(b.begin(), b.end()));
    run = Tool({"check", At("ref.hiv")});
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.out.find("names a free cell"), std::string::npos) << run.out;
}

// --- the clean real hives ---------------------------------------------------

// The clean real hives by path; empty (so no case runs) when the shared folder is absent.
std::vector<std::string> CleanHives() {
    std::vector<std::string> hives;
    const std::string dir = TamvikTest::SharedHivesDir();
    if (dir.empty()) return hives;
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(dir + "/clean", ignored))
        if (entry.is_regular_file()) hives.push_back(entry.path().string());
    std::sort(hives.begin(), hives.end());
    return hives;
}

// One clean real hive per case, with the tool's scratch folder.
class CleanHiveTest : public ToolTest, public ::testing::WithParamInterface<std::string> {};

TEST_P(CleanHiveTest, CheckAndInfoAcceptIt) {
    Outcome check = Tool({"check", GetParam()});
    EXPECT_EQ(check.status, 0) << check.out;
    Outcome info = Tool({"info", GetParam()});
    EXPECT_EQ(info.status, 0);
    EXPECT_NE(info.out.find("(ok)"), std::string::npos);
}

TEST_P(CleanHiveTest, ExportAgreesWithHivex) {
    if (!OnPath("hivexregedit")) GTEST_SKIP() << "hivexregedit (package libwin-hivex-perl) is not installed";
    Outcome ours = Tool({"export", GetParam()});
    Outcome theirs = Shell("hivexregedit --export " + Quote(GetParam()) + " '\\\\'");
    ASSERT_EQ(theirs.status, 0) << theirs.err;
    Listing expected = ParseReg(Bytes(theirs.out.begin(), theirs.out.end()));
    // Keys whose names hold a NUL can't be opened by path through the library.
    bool unreachable = false;
    for (auto it = expected.begin(); it != expected.end();) {
        if (it->first.find(u'\0') != std::u16string::npos) {
            it = expected.erase(it);
            unreachable = true;
        } else {
            ++it;
        }
    }
    EXPECT_EQ(ours.status, unreachable ? 1 : 0) << ours.err;
    std::vector<std::string> diff = Differences(expected, ParseReg(Bytes(ours.out.begin(), ours.out.end())));
    EXPECT_TRUE(diff.empty()) << diff.size() << " differences, first: " << diff.front();
}

TEST_P(CleanHiveTest, ImportIntoANewHiveReproducesIt) {
    Outcome exported = Tool({"export", GetParam(), "-o", At("x.reg")});
    const Listing original = ParseReg(ReadBytes(At("x.reg")));
    const std::string hive = NewHive();
    Outcome imported = Tool({"import", hive, At("x.reg")});
    const Listing expected = Storable(original);
    const bool lossy = expected != original;
    EXPECT_EQ(imported.status, lossy ? 1 : 0) << imported.err.substr(0, 2000);
    Outcome again = Tool({"export", hive, "--utf8"});
    ASSERT_EQ(again.status, 0) << again.err;
    std::vector<std::string> diff = Differences(expected, ParseReg(Bytes(again.out.begin(), again.out.end())));
    EXPECT_TRUE(diff.empty()) << diff.size() << " differences, first: " << diff.front();
    Outcome check = Tool({"check", hive, "-q"});
    EXPECT_EQ(check.status, 0) << check.out;
}

INSTANTIATE_TEST_SUITE_P(RealHives, CleanHiveTest, ::testing::ValuesIn(CleanHives()),
                         [](const ::testing::TestParamInfo<std::string>& info) {
                             std::string name = fs::path(info.param).filename().string();
                             for (char& c : name)
                                 if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
                             return name;
                         });
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(CleanHiveTest);

TEST_F(ToolTest, DamagedHivesEndWithAStatusNeverACrash) {
    const std::string dir = TamvikTest::SharedHivesDir();
    if (dir.empty()) GTEST_SKIP() << "shared hives folder absent";
    int files = 0;
    for (const auto& entry : fs::recursive_directory_iterator(dir + "/damaged")) {
        if (!entry.is_regular_file()) continue;
        ++files;
        for (const char* command : {"check", "info", "export"}) {
            Outcome run = Tool({command, entry.path().string()});
            EXPECT_LT(run.status, 3) << command << " " << entry.path() << ": " << run.err;
        }
    }
    EXPECT_GT(files, 0);
    const std::string bad = dir + "/damaged/EZ-Registry__SAN_OTHER";
    if (fs::exists(bad)) {
        Outcome run = Tool({"check", bad});
        EXPECT_EQ(run.status, 1);
        EXPECT_NE(run.out.find("offset 0x1fc: base block: checksum"), std::string::npos) << run.out;
    }
}

}  // namespace
