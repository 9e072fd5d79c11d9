// Guards reading against a peer and the library's surface: every clean real
// hive, walked whole through the public functions, lists exactly as hivex
// reads it (apart from its short read of tight db segments); and the shared
// library exports the 28 functions and nothing else.
#include <gtest/gtest.h>

#include <set>
#include <sstream>

#include "support/Fixture.h"
#include "support/Listing.h"
#include "support/Peers.h"

namespace {

using namespace TamvikTest;

class Interop : public ::testing::TestWithParam<std::string> {};

TEST_P(Interop, OurWalkListsAsThePeersRead) {
    SKIP_WITHOUT_SHARED_HIVES();
    if (!PeersMissing().empty()) GTEST_SKIP() << PeersMissing();
    const std::string path = SharedHives() + "/clean/" + GetParam();
    const Listing ours = ListFile(path);
    ASSERT_TRUE(ours.opened);
    EXPECT_TRUE(ours.problems.empty()) << ours.problems.front();
    const std::uint32_t minor = Image(ReadFileBytes(path)).Minor();
    const PeerListing hivex = RunPeer("hivex", path);
    EXPECT_EQ(hivex.status, 0);
    EXPECT_TRUE(hivex.errors.empty()) << hivex.errors.front();
    int tolerated = 0;
    EXPECT_EQ(CompareListings(ours.lines, hivex.lines, "hivex",
                              [&](const std::string& want, const std::string& got) {
                                  return KnownPeerQuirk("hivex", want, got, minor);
                              },
                              &tolerated),
              "");
    EXPECT_LT(tolerated, 10) << "hivex differs in more than its db quirk";
}

INSTANTIATE_TEST_SUITE_P(Clean, Interop, ::testing::ValuesIn(SharedHiveNames("clean")),
                         [](const ::testing::TestParamInfo<std::string>& info) {
                             std::string id = info.param.empty() ? "NoSharedHives" : info.param;
                             for (char& c : id) c = std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
                             return id;
                         });

TEST(Exports, TheSharedLibraryExportsTheTwentyEightFunctionsAlone) {
    const auto [status, output] = Capture(std::string("nm -D --defined-only ") + TAMVIK_SHARED_LIBRARY + " | c++filt");
    ASSERT_EQ(status, 0);
    std::set<std::string> names;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        const std::string symbol = line.substr(line.find(' ', line.find(' ') + 1) + 1);
        EXPECT_EQ(symbol.rfind("RegAPI::", 0), 0u) << "unexpected export: " << symbol;
        names.insert(symbol.substr(0, symbol.find('(')));
    }
    EXPECT_EQ(names.size(), 28u);
}

}  // namespace
