// The workloads both bench programs run, defined once so that Tamvik and hivex
// do the same work: the same paths, names and data, timed and checked alike.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace bench {

// W3/W4: one key under the root, kGroups groups under it, kLeaves leaves under
// each group; every group and leaf gets kValuesPerKey binary values.
inline constexpr const char* kBenchKey = "TamvikBench";
inline constexpr int kGroups = 100;
inline constexpr int kLeaves = 99;
inline constexpr int kValuesPerKey = 5;
inline constexpr std::uint32_t kValueType = 3;  // REG_BINARY

const std::string& GroupName(int group);
const std::string& LeafName(int leaf);
const std::string& ValueName(int value);

struct Bytes {
    const std::uint8_t* data;
    std::size_t size;
};
// The sizes of the values W3 writes: seeded from 4 to 5,000 bytes (W3), or
// five fixed sizes a key, 4, 24, 200, 8 and 5,000 bytes, as a system's small
// settings are (W3s).
enum class Mix { Seeded, Small };
// The data of value `value` of the key at `index` (KeyIndex); the same bytes on every call.
Bytes ValueData(int keyIndex, int value, Mix mix);
// A group's own index when leaf is -1.
int KeyIndex(int group, int leaf);

// What a walk saw; `digest` (names and data, in any order) only when hashing.
struct Totals {
    std::uint64_t keys = 0, values = 0, bytes = 0, digest = 0;
    bool hashing = false;
    void Key(std::string_view name);
    void Value(std::string_view name, const void* data, std::size_t size);
    std::string Check() const;
};
// What a read-back walk from the bench key finds after W3, bench key included.
Totals ExpectedW3(Mix mix);

// W2: a key's path below the root and one of its values.
struct Lookup {
    std::vector<std::string> path;
    std::string value;
};
inline constexpr int kLookups = 10000;
// Keys with their value names, from a walk of the large hive; the draw keeps
// only printable ASCII names so that both sides spell them alike.
struct Candidate {
    std::vector<std::string> path;
    std::vector<std::string> values;
};
std::vector<Lookup> DrawLookups(const std::vector<Candidate>& candidates);
bool WriteLookups(const std::string& file, const std::vector<Lookup>& lookups);
std::vector<Lookup> ReadLookups(const std::string& file);
bool PlainName(std::string_view name);

// One side of the comparison: each function opens the hive, does the work and
// closes it (committing, for writes); failures end the process through Fail.
struct Side {
    const char* name;
    Totals (*walk)(const std::string& hive);
    Totals (*lookups)(const std::string& hive, const std::vector<Lookup>& lookups);
    void (*create)(const std::string& hive, Mix mix, const std::string& variant);
    void (*remove)(const std::string& hive);
    // A hashing walk from the bench key, or nothing when the key is absent.
    std::optional<Totals> (*readBack)(const std::string& hive);
    // Only the side that draws the W2 list has it.
    std::vector<Candidate> (*candidates)(const std::string& hive);
};

[[noreturn]] void Fail(const char* format, ...) __attribute__((format(printf, 1, 2)));
// Parses the command line, runs and times one workload and reports it. What
// W3 and W4 wrote is checked by a second run of the program ("check-W3 HIVE"
// and so on), so that the timed process does the workload and nothing else.
int Main(int argc, char** argv, const Side& side);

}  // namespace bench
