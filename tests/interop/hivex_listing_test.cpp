// Reading against a peer: every sound real hive is walked completely through
// the public functions, and the listing must equal the one that hivex gives
// (tests/interop/hivex_listing.py, run with the system's Python).
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/ApiListing.h"
#include "support/Shell.h"
#include "support/TempFile.h"

namespace {

using TamvikTest::Capture;
using TamvikTest::Quoted;

constexpr const char* kPython = "/usr/bin/python3";

bool PythonHasHivex() {
    static const bool has =
        Capture(std::string(kPython) + " -c 'import hivex' >/dev/null 2>&1 && echo yes").second == "yes\n";
    return has;
}

std::string ScriptPath() { return std::string(TAMVIK_SOURCE_DIR) + "/tests/interop/hivex_listing.py"; }

// hivex's listing of one hive, with the script's notes kept apart.
struct PeerListing {
    int status = -1;
    std::vector<std::string> lines;
    std::vector<std::string> notes;
};

PeerListing RunHivexScript(const std::string& hivePath) {
    PeerListing peer;
    auto [status, output] = Capture(std::string(kPython) + " " + Quoted(ScriptPath()) + " " + Quoted(hivePath));
    peer.status = status;
    std::istringstream stream(output);
    for (std::string line; std::getline(stream, line);) {
        (line.rfind('#', 0) == 0 ? peer.notes : peer.lines).push_back(line);
    }
    return peer;
}

// A readable account of how two listings differ: where they part, and what
// each has that the other lacks.
std::string DescribeDifference(const std::vector<std::string>& ours, const std::vector<std::string>& theirs) {
    std::ostringstream out;
    std::size_t first = 0;
    while (first < ours.size() && first < theirs.size() && ours[first] == theirs[first]) ++first;
    out << "listings part at line " << first + 1 << " (ours " << ours.size() << " lines, hivex " << theirs.size()
        << ")\n";
    std::multiset<std::string> left(ours.begin(), ours.end());
    std::multiset<std::string> right(theirs.begin(), theirs.end());
    std::vector<std::string> onlyOurs;
    std::vector<std::string> onlyTheirs;
    std::set_difference(left.begin(), left.end(), right.begin(), right.end(), std::back_inserter(onlyOurs));
    std::set_difference(right.begin(), right.end(), left.begin(), left.end(), std::back_inserter(onlyTheirs));
    auto show = [&out](const char* title, const std::vector<std::string>& lines) {
        out << title << " (" << lines.size() << "):\n";
        for (std::size_t i = 0; i < lines.size() && i < 15; ++i) out << "  " << lines[i].substr(0, 200) << "\n";
    };
    show("only in ours", onlyOurs);
    show("only in hivex", onlyTheirs);
    if (onlyOurs.empty() && onlyTheirs.empty()) out << "same lines, different order\n";
    return out.str();
}

// One case per file of the clean folder.
class HivexListing : public ::testing::TestWithParam<std::string> {};

TEST_P(HivexListing, ApiWalkEqualsHivex) {
    const std::string& name = GetParam();
    if (name.empty()) GTEST_SKIP() << "shared hives folder absent (set TAMVIK_HIVES to the hives folder)";
    if (!PythonHasHivex()) GTEST_SKIP() << kPython << " lacks the hivex module (Debian package python3-hivex)";
    const std::string path = TamvikTest::SharedHivesDir() + "/clean/" + name;

    const TamvikTest::ApiListing ours = TamvikTest::ListHiveFile(path);
    ASSERT_TRUE(ours.opened) << (ours.problems.empty() ? "" : ours.problems.front());
    for (const std::string& problem : ours.problems) ADD_FAILURE() << problem;

    const PeerListing theirs = RunHivexScript(path);
    ASSERT_EQ(theirs.status, 0) << "hivex_listing.py failed on " << path;
    ASSERT_FALSE(theirs.lines.empty());
    // Notes say where libregf stood in for hivex's short segmented reads.
    for (const std::string& note : theirs.notes) {
        std::cout << "[ note     ] " << note << "\n";
        EXPECT_EQ(note.rfind("#error", 0), std::string::npos) << "hivex could not read a value: " << note;
    }
    EXPECT_TRUE(ours.lines == theirs.lines) << DescribeDifference(ours.lines, theirs.lines);
}

INSTANTIATE_TEST_SUITE_P(CleanHives, HivexListing, ::testing::ValuesIn(TamvikTest::CleanHiveNames()),
                         [](const ::testing::TestParamInfo<std::string>& info) {
                             std::string id = info.param.empty() ? "NoSharedHives" : info.param;
                             for (char& c : id) {
                                 if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
                             }
                             return id;
                         });

// The two sides must escape names alike, or the comparison would report
// differences that aren't there: controls, the escape and separator
// characters, C1 controls, non-BMP pairs and lone surrogates.
TEST(HivexListingFormat, NameEscapingMatchesTheScript) {
    if (!PythonHasHivex()) GTEST_SKIP() << kPython << " lacks the hivex module (Debian package python3-hivex)";
    const std::vector<std::u16string> names = {
        u"plain",     u"50%",         u"a\\b",        std::u16string(u"nul\0in", 6), u"tab\tcr\r",
        u"\x7F\x80\x9F\xA0", u"\xE4\xDF\x20AC", u"\xD83D\xDE00", u"\xD800x",   u"x\xDC00",
        u"",
    };
    // Python decodes each name from its UTF-16 units, as hivex does, and prints its
    // escaped form; a lone surrogate survives the decoding as itself.
    std::string units = "[";
    for (const std::u16string& name : names) {
        units += "[";
        for (char16_t unit : name) units += std::to_string(unit) + ",";
        units += "],";
    }
    units += "]";
    const std::string program =
        "import struct, sys; sys.path.insert(0, sys.argv[1]); from hivex_listing import escape_name\n"
        "for units in " + units + ":\n"
        "    raw = struct.pack('<%dH' % len(units), *units)\n"
        "    print(escape_name(raw.decode('utf-16-le', 'surrogatepass')))\n";
    auto [status, output] = Capture(std::string(kPython) + " -c " + Quoted(program) + " " +
                                    Quoted(std::string(TAMVIK_SOURCE_DIR) + "/tests/interop"));
    ASSERT_EQ(status, 0);
    std::istringstream stream(output);
    for (const std::u16string& name : names) {
        std::string line;
        ASSERT_TRUE(std::getline(stream, line));
        EXPECT_EQ(TamvikTest::EscapeName(name), line);
    }
}

}  // namespace
