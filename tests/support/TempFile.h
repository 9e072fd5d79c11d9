// Temporary files for tests, removed when the object goes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace TamvikTest {

class TempFile {
public:
    // A new file holding bytes.
    explicit TempFile(const std::vector<std::uint8_t>& bytes = {});
    // A copy of an existing file.
    static TempFile CopyOf(const std::string& path);
    TempFile(TempFile&& other) noexcept;
    TempFile& operator=(TempFile&&) = delete;
    ~TempFile();

    const std::string& Path() const { return path_; }
    std::u16string WidePath() const;
    std::vector<std::uint8_t> Read() const;
    void Write(const std::vector<std::uint8_t>& bytes) const;

private:
    std::string path_;
};

// Reads a whole file; empty when it can't be read.
std::vector<std::uint8_t> ReadFileBytes(const std::string& path);
// The folder of shared real hives, or empty when it isn't there.
std::string SharedHivesDir();
// File names in the shared clean folder, sorted. When the folder is missing,
// one empty name stands in, so that a suite over them is made and can skip.
std::vector<std::string> CleanHiveNames();

}  // namespace TamvikTest
