#include "Files.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

#include <sys/stat.h>

namespace TamvikLogs {

namespace fs = std::filesystem;

bool ReadFile(const std::string& path, Bytes* out, std::string* error, std::size_t maxBytes) {
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> f(std::fopen(path.c_str(), "rb"), &std::fclose);
    if (!f) {
        *error = std::strerror(errno);
        return false;
    }
    out->clear();
    // A file of known size is read in one call into a buffer of its size;
    // chunks appended one by one copied it again at each growth. What a
    // growing or special file holds beyond that is read by chunks.
    struct stat info {};
    if (::fstat(::fileno(f.get()), &info) == 0 && S_ISREG(info.st_mode) && info.st_size > 0) {
        out->resize(std::min<std::uint64_t>(static_cast<std::uint64_t>(info.st_size), maxBytes));
        out->resize(std::fread(out->data(), 1, out->size(), f.get()));
    }
    std::uint8_t chunk[65536];
    while (out->size() < maxBytes) {
        const std::size_t want = std::min(sizeof chunk, maxBytes - out->size());
        const std::size_t got = std::fread(chunk, 1, want, f.get());
        out->insert(out->end(), chunk, chunk + got);
        if (got < want) break;
    }
    if (std::ferror(f.get()) != 0) {
        *error = "read error";
        return false;
    }
    return true;
}

namespace {

bool SameIgnoringCase(const std::string& a, const std::string& b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               auto up = [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; };
               return up(x) == up(y);
           });
}

}  // namespace

std::vector<std::string> FindLogs(const std::string& hivePath) {
    const fs::path hive(hivePath);
    const std::string name = hive.filename().string();
    const fs::path dir = hive.has_parent_path() ? hive.parent_path() : fs::path(".");
    std::vector<std::pair<std::size_t, std::string>> found;  // suffix index, path
    std::error_code error;
    for (fs::directory_iterator it(dir, error), end; !error && it != end; it.increment(error)) {
        const std::string candidate = it->path().filename().string();
        for (std::size_t i = 0; i < std::size(kLogSuffixes); ++i) {
            std::error_code typeError;
            if (SameIgnoringCase(candidate, name + kLogSuffixes[i]) && it->is_regular_file(typeError))
                found.emplace_back(i, (hive.has_parent_path() ? dir / candidate : fs::path(candidate)).string());
        }
    }
    std::sort(found.begin(), found.end());
    std::vector<std::string> paths;
    for (auto& [suffix, path] : found) paths.push_back(std::move(path));
    return paths;
}

}  // namespace TamvikLogs
