// The shared library exports the RegAPI functions and nothing else.
#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <string>

namespace {

TEST(SharedLibrary, ExportsOnlyTheRegApiFunctions) {
    std::string command = std::string("nm -D --defined-only ") + TAMVIK_SHARED_LIBRARY + " | c++filt";
    FILE* pipe = popen(command.c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    std::set<std::string> names;
    char line[1024];
    while (std::fgets(line, sizeof line, pipe) != nullptr) {
        std::string text(line);
        std::size_t space = text.find(' ', text.find(' ') + 1);
        std::string symbol = text.substr(space + 1);
        while (!symbol.empty() && (symbol.back() == '\n' || symbol.back() == '\r')) symbol.pop_back();
        EXPECT_EQ(symbol.rfind("RegAPI::", 0), 0u) << "unexpected export: " << symbol;
        names.insert(symbol.substr(0, symbol.find('(')));
    }
    pclose(pipe);
    EXPECT_EQ(names.size(), 28u);
}

}  // namespace
