// Temporary files, and where the shared real hives are.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace TamvikTest {

using Bytes = std::vector<std::uint8_t>;

// A file in the temporary folder, removed when the object goes.
class TempFile {
public:
    explicit TempFile(const Bytes& bytes = {});
    static TempFile CopyOf(const std::string& path);
    TempFile(TempFile&& other) noexcept;
    TempFile& operator=(TempFile&&) = delete;
    ~TempFile();

    const std::string& Path() const { return path_; }
    std::u16string WidePath() const { return std::u16string(path_.begin(), path_.end()); }
    Bytes Read() const;
    void Write(const Bytes& bytes) const;

private:
    std::string path_;
};

Bytes ReadFileBytes(const std::string& path);
// The folder of shared real hives, or empty when this machine doesn't have it.
std::string SharedHives();
// Regular files in a folder of the shared hives, sorted; one empty name when
// there are none, so that a suite over them is still made and can skip.
std::vector<std::string> SharedHiveNames(const std::string& folder);

}  // namespace TamvikTest

#define SKIP_WITHOUT_SHARED_HIVES()                                                                 \
    if (TamvikTest::SharedHives().empty()) GTEST_SKIP() << "../shared/hives is absent on this machine"
