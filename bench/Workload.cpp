#include "Workload.h"

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include <time.h>

namespace bench {

namespace {

constexpr std::uint64_t kDataSeed = 0x7A3D'11C0'5EED'0003;
constexpr std::uint64_t kLookupSeed = 0x7A3D'11C0'5EED'0002;
constexpr std::size_t kPoolSize = 1 << 20;
constexpr std::size_t kMinData = 4, kMaxData = 5000;

std::uint64_t SplitMix(std::uint64_t& state) {
    std::uint64_t z = (state += 0x9E37'79B9'7F4A'7C15);
    z = (z ^ (z >> 30)) * 0xBF58'476D'1CE4'E5B9;
    z = (z ^ (z >> 27)) * 0x94D0'49BB'1331'11EB;
    return z ^ (z >> 31);
}

std::uint64_t Fnv(std::uint64_t hash, const void* data, std::size_t size) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    for (std::size_t i = 0; i < size; ++i) hash = (hash ^ bytes[i]) * 0x100'0000'01B3;
    return hash;
}

std::vector<std::string> Numbered(const char* format, int count) {
    std::vector<std::string> names;
    char buffer[16];
    for (int i = 0; i < count; ++i) {
        std::snprintf(buffer, sizeof buffer, format, i);
        names.emplace_back(buffer);
    }
    return names;
}

// Value data are slices of one seeded pool, so building them costs nothing
// inside the timed part.
const std::vector<std::uint8_t>& Pool() {
    static const std::vector<std::uint8_t> pool = [] {
        std::vector<std::uint8_t> bytes(kPoolSize);
        std::uint64_t state = kDataSeed;
        for (std::size_t i = 0; i < bytes.size(); i += 8) {
            std::uint64_t word = SplitMix(state);
            std::memcpy(bytes.data() + i, &word, 8);
        }
        return bytes;
    }();
    return pool;
}

// CPU time of the process: the machine is shared, so wall time alone says as
// much about the neighbours as about the code.
double CpuSeconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

std::uint64_t PeakKiB() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmHWM:", 0) == 0) return std::strtoull(line.c_str() + 6, nullptr, 10);
    return 0;
}

}  // namespace

const std::string& GroupName(int group) {
    static const std::vector<std::string> names = Numbered("G%03d", kGroups);
    return names.at(static_cast<std::size_t>(group));
}

const std::string& LeafName(int leaf) {
    static const std::vector<std::string> names = Numbered("K%02d", kLeaves);
    return names.at(static_cast<std::size_t>(leaf));
}

const std::string& ValueName(int value) {
    static const std::vector<std::string> names = Numbered("V%d", kValuesPerKey);
    return names.at(static_cast<std::size_t>(value));
}

int KeyIndex(int group, int leaf) { return group * (kLeaves + 1) + leaf + 1; }

Bytes ValueData(int keyIndex, int value, Mix mix) {
    static constexpr std::size_t kSmallSizes[kValuesPerKey] = {4, 24, 200, 8, 5000};
    std::uint64_t state = kDataSeed ^ (static_cast<std::uint64_t>(keyIndex) * kValuesPerKey + value);
    const std::uint64_t draw = SplitMix(state);
    const std::size_t size = mix == Mix::Small ? kSmallSizes[value] : kMinData + draw % (kMaxData - kMinData + 1);
    const std::size_t offset = (draw >> 32) % (kPoolSize - kMaxData);
    return {Pool().data() + offset, size};
}

void Totals::Key(std::string_view name) {
    ++keys;
    if (hashing) digest += Fnv(0xCBF2'9CE4'8422'2325, name.data(), name.size());
}

void Totals::Value(std::string_view name, const void* data, std::size_t size) {
    ++values;
    bytes += size;
    // A sum of per-value hashes: the order in which a side lists values doesn't matter.
    if (!hashing) return;
    const std::uint64_t length = size;
    digest += Fnv(Fnv(Fnv(0xCBF2'9CE4'8422'2325, name.data(), name.size()), &length, sizeof length), data, size);
}

std::string Totals::Check() const {
    std::string text = "keys=" + std::to_string(keys) + ",values=" + std::to_string(values) +
                       ",bytes=" + std::to_string(bytes);
    if (hashing) text += ",digest=" + std::to_string(digest);
    return text;
}

Totals ExpectedW3(Mix mix) {
    Totals totals;
    totals.hashing = true;
    totals.Key(kBenchKey);
    auto values = [&](int index) {
        for (int v = 0; v < kValuesPerKey; ++v) {
            Bytes data = ValueData(index, v, mix);
            totals.Value(ValueName(v), data.data, data.size);
        }
    };
    for (int g = 0; g < kGroups; ++g) {
        totals.Key(GroupName(g));
        values(KeyIndex(g, -1));
        for (int k = 0; k < kLeaves; ++k) {
            totals.Key(LeafName(k));
            values(KeyIndex(g, k));
        }
    }
    return totals;
}

bool PlainName(std::string_view name) {
    if (name.empty()) return false;
    for (char c : name)
        if (c < 0x20 || c > 0x7E || c == '\\') return false;
    return true;
}

std::vector<Lookup> DrawLookups(const std::vector<Candidate>& candidates) {
    std::vector<Lookup> lookups;
    if (candidates.empty()) return lookups;
    std::uint64_t state = kLookupSeed;
    for (int i = 0; i < kLookups; ++i) {
        const Candidate& key = candidates[SplitMix(state) % candidates.size()];
        lookups.push_back({key.path, key.values[SplitMix(state) % key.values.size()]});
    }
    return lookups;
}

// One lookup a line: the path below the root, components joined by '\', a tab, the value name.
bool WriteLookups(const std::string& file, const std::vector<Lookup>& lookups) {
    std::ofstream out(file);
    for (const Lookup& lookup : lookups) {
        for (std::size_t i = 0; i < lookup.path.size(); ++i) out << (i ? "\\" : "") << lookup.path[i];
        out << '\t' << lookup.value << '\n';
    }
    return static_cast<bool>(out);
}

std::vector<Lookup> ReadLookups(const std::string& file) {
    std::ifstream in(file);
    std::vector<Lookup> lookups;
    std::string line;
    while (std::getline(in, line)) {
        const std::size_t tab = line.find('\t');
        if (tab == std::string::npos) Fail("%s: a line without a tab", file.c_str());
        Lookup lookup;
        std::istringstream path(line.substr(0, tab));
        for (std::string part; std::getline(path, part, '\\');) lookup.path.push_back(part);
        lookup.value = line.substr(tab + 1);
        lookups.push_back(std::move(lookup));
    }
    return lookups;
}

void Fail(const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    std::fputs("bench: FAILED: ", stderr);
    std::vfprintf(stderr, format, args);
    std::fputc('\n', stderr);
    va_end(args);
    std::exit(1);
}

int Main(int argc, char** argv, const Side& side) {
    const std::string workload = argc > 2 ? argv[1] : "";
    auto usage = [&] {
        std::fprintf(stderr,
                     "usage: %s W1 HIVE | W2 HIVE LOOKUPS | W3 HIVE [VARIANT] | W3s HIVE [VARIANT] | W4 HIVE%s\n"
                     "       %s check-W3 HIVE | check-W3s HIVE | check-W4 HIVE\n"
                     "W3, W3s and W4 change HIVE: give them a copy (W4 the copy W3 wrote); the check-\n"
                     "runs verify a copy afterwards, through this side's own reading.\n",
                     argv[0], side.candidates ? " | lookups HIVE OUT" : "", argv[0]);
        return 2;
    };
    if (argc < 3) return usage();
    const std::string hive = argv[2];
    const bool small = workload == "W3s" || workload == "check-W3s";
    const Mix mix = small ? Mix::Small : Mix::Seeded;

    if (workload == "lookups" && side.candidates && argc == 4) {
        std::vector<Lookup> lookups = DrawLookups(side.candidates(hive));
        if (lookups.empty() || !WriteLookups(argv[3], lookups)) Fail("%s: no lookups written", argv[3]);
        return 0;
    }
    // The same work, verified through the side's own reading of what it wrote.
    if (workload == "check-W3" || workload == "check-W3s") {
        std::optional<Totals> found = side.readBack(hive);
        if (!found) Fail("%s: after %s %s finds no %s key", side.name, workload.c_str() + 6, hive.c_str(), kBenchKey);
        const std::string check = found->Check(), expected = ExpectedW3(mix).Check();
        if (check != expected)
            Fail("%s: after %s the bench key holds %s, expected %s", side.name, workload.c_str() + 6, check.c_str(),
                 expected.c_str());
        std::printf("check %s\n", check.c_str());
        return 0;
    }
    if (workload == "check-W4") {
        if (side.readBack(hive)) Fail("%s: after W4 the %s key is still there", side.name, kBenchKey);
        std::printf("check bench-key-gone\n");
        return 0;
    }
    std::vector<Lookup> lookups;
    if (workload == "W2") {
        if (argc != 4) return usage();
        lookups = ReadLookups(argv[3]);
        if (lookups.size() != kLookups) Fail("%s: %zu lookups, not %d", argv[3], lookups.size(), kLookups);
    }
    // The names and the data pool are built before the clock runs.
    if (workload == "W3" || workload == "W3s") ValueData(0, 0, mix), GroupName(0), LeafName(0), ValueName(0);

    std::string check;
    const auto start = std::chrono::steady_clock::now();
    const double cpuStart = CpuSeconds();
    if (workload == "W1") {
        check = side.walk(hive).Check();
    } else if (workload == "W2") {
        check = side.lookups(hive, lookups).Check();
    } else if (workload == "W3" || workload == "W3s") {
        side.create(hive, mix, argc > 3 ? argv[3] : "");
        check = "see-check-run";
    } else if (workload == "W4") {
        side.remove(hive);
        check = "see-check-run";
    } else {
        return usage();
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const double cpu = CpuSeconds() - cpuStart;
    const std::uint64_t peak = PeakKiB();
    std::printf("bench side=%s workload=%s seconds=%.6f cpu=%.6f peak_kib=%llu check=%s\n", side.name,
                workload.c_str(), seconds, cpu, static_cast<unsigned long long>(peak), check.c_str());
    return 0;
}

}  // namespace bench
