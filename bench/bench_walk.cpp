// Times a full walk of a hive through the public API: every key opened by
// name, every value enumerated and its data read. Usage: bench_walk HIVE [RUNS]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "RegAPI.h"

using namespace RegAPI;

namespace {

struct Totals {
    std::size_t keys = 0;
    std::size_t values = 0;
    std::size_t bytes = 0;
};

// Buffers shared by the whole walk, so that the measurement is the library's work.
std::vector<WCHAR> name(65537);
std::vector<BYTE> data(1 << 16);

void Walk(HKEY key, Totals& totals, int depth) {
    ++totals.keys;
    DWORD subKeys = 0, maxSubKey = 0, values = 0, maxValueName = 0, maxData = 0;
    RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, &subKeys, &maxSubKey, nullptr, &values, &maxValueName, &maxData,
                     nullptr, nullptr);
    for (DWORD i = 0; i < values; ++i) {
        DWORD nameLength = static_cast<DWORD>(name.size()), type = 0, size = 0;
        if (RegEnumValueW(key, i, name.data(), &nameLength, nullptr, &type, nullptr, &size) != Result::Ok) continue;
        if (size > data.size()) data.resize(size);
        nameLength = static_cast<DWORD>(name.size());
        DWORD got = static_cast<DWORD>(data.size());
        if (RegEnumValueW(key, i, name.data(), &nameLength, nullptr, &type, data.data(), &got) == Result::Ok) {
            ++totals.values;
            totals.bytes += got;
        }
    }
    if (depth > 512) return;
    for (DWORD i = 0; i < subKeys; ++i) {
        DWORD length = static_cast<DWORD>(name.size());
        if (RegEnumKeyExW(key, i, name.data(), &length, nullptr, nullptr, nullptr, nullptr) != Result::Ok) continue;
        std::u16string child(name.data(), length);
        HKEY sub = nullptr;
        if (child.find(u'\\') != std::u16string::npos || RegOpenKeyExW(key, child.c_str(), 0, 0, &sub) != Result::Ok)
            continue;
        Walk(sub, totals, depth + 1);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s HIVE [RUNS]\n", argv[0]);
        return 2;
    }
    const int runs = argc > 2 ? std::atoi(argv[2]) : 5;
    std::string path(argv[1]);
    std::u16string wide(path.begin(), path.end());
    double best = 1e9;
    Totals totals;
    for (int run = 0; run < runs; ++run) {
        auto start = std::chrono::steady_clock::now();
        HKEY hive = nullptr, root = nullptr;
        if (OpenHiveW(wide.c_str(), &hive, true) != Result::Ok || RegOpenKeyExW(hive, u"", 0, 0, &root) != Result::Ok) {
            std::fprintf(stderr, "%s: can't open\n", argv[1]);
            return 1;
        }
        totals = Totals();
        Walk(root, totals, 0);
        CloseHive(&hive);
        double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (seconds < best) best = seconds;
    }
    std::printf("tamvik: %zu keys, %zu values, %zu data bytes; best of %d runs %.3f s\n", totals.keys, totals.values,
                totals.bytes, runs, best);
    return 0;
}
