#include "support/TempFile.h"

#include <unistd.h>

#include <dirent.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <sys/stat.h>

namespace TamvikTest {

TempFile::TempFile(const std::vector<std::uint8_t>& bytes) {
    const char* dir = std::getenv("TMPDIR");
    std::string pattern = std::string(dir != nullptr ? dir : "/tmp") + "/tamvik-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    int fd = mkstemp(name.data());
    if (fd < 0) throw std::runtime_error("mkstemp failed");
    close(fd);
    path_ = name.data();
    Write(bytes);
}

TempFile TempFile::CopyOf(const std::string& path) { return TempFile(ReadFileBytes(path)); }

TempFile::TempFile(TempFile&& other) noexcept : path_(std::move(other.path_)) { other.path_.clear(); }

TempFile::~TempFile() {
    if (!path_.empty()) {
        chmod(path_.c_str(), 0600);
        std::remove(path_.c_str());
    }
}

std::u16string TempFile::WidePath() const { return std::u16string(path_.begin(), path_.end()); }

std::vector<std::uint8_t> TempFile::Read() const { return ReadFileBytes(path_); }

void TempFile::Write(const std::vector<std::uint8_t>& bytes) const {
    std::ofstream out(path_, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

std::vector<std::uint8_t> ReadFileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string SharedHivesDir() {
    const char* env = std::getenv("TAMVIK_HIVES");
#ifdef TAMVIK_SHARED_HIVES
    std::string dir = env != nullptr ? env : TAMVIK_SHARED_HIVES;
#else
    std::string dir = env != nullptr ? env : "";
#endif
    struct stat info {};
    if (dir.empty() || stat((dir + "/clean").c_str(), &info) != 0) return "";
    return dir;
}

std::vector<std::string> CleanHiveNames() {
    std::vector<std::string> names;
    const std::string dir = SharedHivesDir();
    if (DIR* folder = dir.empty() ? nullptr : opendir((dir + "/clean").c_str())) {
        while (const dirent* entry = readdir(folder)) {
            const std::string name = entry->d_name;
            struct stat info {};
            if (stat((dir + "/clean/" + name).c_str(), &info) == 0 && S_ISREG(info.st_mode)) names.push_back(name);
        }
        closedir(folder);
    }
    std::sort(names.begin(), names.end());
    if (names.empty()) names.emplace_back();
    return names;
}

}  // namespace TamvikTest
