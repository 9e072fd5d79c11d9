// Temporary files and the shared hives' folder (see Files.h).
#include "support/Files.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace TamvikTest {

TempFile::TempFile(const Bytes& bytes) {
    const char* dir = std::getenv("TMPDIR");
    std::string pattern = std::string(dir != nullptr ? dir : "/tmp") + "/tamvik-XXXXXX";
    const int fd = mkstemp(pattern.data());
    if (fd < 0) throw std::runtime_error("mkstemp failed");
    close(fd);
    path_ = pattern;
    Write(bytes);
}

TempFile TempFile::CopyOf(const std::string& path) { return TempFile(ReadFileBytes(path)); }

TempFile::TempFile(TempFile&& other) noexcept : path_(std::move(other.path_)) { other.path_.clear(); }

TempFile::~TempFile() {
    if (path_.empty()) return;
    chmod(path_.c_str(), 0600);
    std::remove(path_.c_str());
}

Bytes TempFile::Read() const { return ReadFileBytes(path_); }

void TempFile::Write(const Bytes& bytes) const {
    std::ofstream out(path_, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

Bytes ReadFileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string SharedHives() {
    const char* env = std::getenv("TAMVIK_HIVES");
    const std::string dir = env != nullptr ? env : TAMVIK_SHARED_HIVES;
    struct stat info {};
    return stat((dir + "/clean").c_str(), &info) == 0 ? dir : "";
}

std::vector<std::string> SharedHiveNames(const std::string& folder) {
    std::vector<std::string> names;
    const std::string dir = SharedHives().empty() ? "" : SharedHives() + "/" + folder;
    if (DIR* listing = dir.empty() ? nullptr : opendir(dir.c_str())) {
        while (const dirent* entry = readdir(listing)) {
            struct stat info {};
            if (stat((dir + "/" + entry->d_name).c_str(), &info) == 0 && S_ISREG(info.st_mode))
                names.emplace_back(entry->d_name);
        }
        closedir(listing);
    }
    std::sort(names.begin(), names.end());
    if (names.empty()) names.emplace_back();
    return names;
}

}  // namespace TamvikTest
