#include "support/FailingStorage.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "support/OpenMode.h"

namespace TamvikTest {

namespace {
constexpr std::uint64_t kBase = 4096;
constexpr std::uint32_t kSegment = 16344;

// A full walk that touches every key name, value name and value data.
constexpr const char* kHivexScript = R"(import sys
try:
    import hivex
except Exception as e:
    print("hivex unavailable:", e)
    sys.exit(77)
h = hivex.Hivex(sys.argv[1])
keys = 0
values = 0
def walk(node, depth):
    global keys, values
    if depth > 512:
        raise Exception("key tree too deep")
    keys += 1
    h.node_name(node)
    for v in h.node_values(node):
        h.value_key(v)
        h.value_value(v)
        values += 1
    for c in h.node_children(node):
        walk(c, depth + 1)
walk(h.root(), 0)
print("keys", keys, "values", values)
)";
}  // namespace

// --- MemoryStorage ------------------------------------------------------------

std::unique_ptr<Tamvik::Hive> MemoryStorage::OpenHive() {
    return std::make_unique<Tamvik::Hive>(u"memory", this, &Seek, &Read, &Write);
}

bool MemoryStorage::Seek(void* context, std::uint64_t* position, std::uint32_t origin) {
    auto* self = static_cast<MemoryStorage*>(context);
    std::uint64_t base = origin == 0 ? 0 : origin == 1 ? self->position : self->bytes.size();
    self->position = base + *position;
    return true;
}

bool MemoryStorage::Read(void* context, void* buffer, std::uint32_t elementSize, std::uint32_t* count) {
    auto* self = static_cast<MemoryStorage*>(context);
    const std::uint64_t asked = *count;
    std::uint64_t whole = 0;
    while (whole < asked && self->position + elementSize <= self->bytes.size()) {
        std::memcpy(static_cast<std::uint8_t*>(buffer) + whole * elementSize, self->bytes.data() + self->position,
                    elementSize);
        self->position += elementSize;
        ++whole;
    }
    *count = static_cast<std::uint32_t>(whole);
    return whole == asked;
}

bool MemoryStorage::Write(void* context, const void* buffer, std::uint32_t elementSize, std::uint32_t* count) {
    auto* self = static_cast<MemoryStorage*>(context);
    ++self->writes;
    if (self->position >= self->refuseFrom || self->writes == self->refuseNumber) {
        ++self->refusedWrites;
        *count = 0;
        return false;
    }
    const std::uint64_t length = static_cast<std::uint64_t>(elementSize) * *count;
    if (self->position + length > self->bytes.size()) self->bytes.resize(self->position + length, 0);
    std::memcpy(self->bytes.data() + self->position, buffer, length);
    self->position += length;
    return true;
}

// --- HiveImage ------------------------------------------------------------------

HiveImage::HiveImage(Bytes file) : file_(std::move(file)) {}

HiveImage HiveImage::OfFile(const std::string& path) { return HiveImage(ReadFileBytes(path)); }

std::uint32_t HiveImage::File32(std::uint64_t position) const {
    if (position + 4 > file_.size()) throw std::out_of_range("read past the end of the hive file");
    return static_cast<std::uint32_t>(file_[position]) | (static_cast<std::uint32_t>(file_[position + 1]) << 8) |
           (static_cast<std::uint32_t>(file_[position + 2]) << 16) |
           (static_cast<std::uint32_t>(file_[position + 3]) << 24);
}

std::uint16_t HiveImage::File16(std::uint64_t position) const {
    if (position + 2 > file_.size()) throw std::out_of_range("read past the end of the hive file");
    return static_cast<std::uint16_t>(file_[position] | (file_[position + 1] << 8));
}

std::int32_t HiveImage::CellSize(std::uint32_t cell) const { return static_cast<std::int32_t>(File32(kBase + cell)); }

std::uint32_t HiveImage::U32(std::uint32_t cell, std::uint32_t at) const { return File32(kBase + cell + Payload() + at); }
std::uint16_t HiveImage::U16(std::uint32_t cell, std::uint32_t at) const { return File16(kBase + cell + Payload() + at); }
std::uint64_t HiveImage::U64(std::uint32_t cell, std::uint32_t at) const {
    return static_cast<std::uint64_t>(U32(cell, at)) | (static_cast<std::uint64_t>(U32(cell, at + 4)) << 32);
}

Bytes HiveImage::PayloadBytes(std::uint32_t cell, std::uint32_t at, std::uint32_t length) const {
    const std::uint64_t start = kBase + cell + Payload() + at;
    if (start + length > file_.size()) throw std::out_of_range("payload past the end of the hive file");
    return Bytes(file_.begin() + static_cast<std::ptrdiff_t>(start),
                 file_.begin() + static_cast<std::ptrdiff_t>(start + length));
}

std::string HiveImage::Signature(std::uint32_t cell) const {
    const Bytes sig = PayloadBytes(cell, 0, 2);
    return std::string(sig.begin(), sig.end());
}

std::string HiveImage::KeyName(std::uint32_t nk) const {
    const Bytes name = PayloadBytes(nk, 0x4C, U16(nk, 0x48));
    return std::string(name.begin(), name.end());
}

std::vector<std::uint32_t> HiveImage::SubKeys(std::uint32_t nk) const {
    std::vector<std::uint32_t> keys;
    if (U32(nk, 0x14) == 0) return keys;
    // Leaves are read entry by entry; an ri is a list of leaves.
    auto readList = [&](auto& self, std::uint32_t list) -> void {
        const std::string sig = Signature(list);
        const std::uint16_t count = U16(list, 2);
        for (std::uint32_t i = 0; i < count; ++i) {
            if (sig == "lf" || sig == "lh") keys.push_back(U32(list, 4 + 8 * i));
            else if (sig == "li") keys.push_back(U32(list, 4 + 4 * i));
            else if (sig == "ri") self(self, U32(list, 4 + 4 * i));
        }
    };
    readList(readList, U32(nk, 0x1C));
    return keys;
}

std::uint32_t HiveImage::FindSubKey(std::uint32_t nk, const std::string& name) const {
    for (std::uint32_t key : SubKeys(nk)) {
        if (KeyName(key) == name) return key;
    }
    return kNone;
}

std::uint32_t HiveImage::KeyAt(const std::string& path) const {
    std::uint32_t key = RootCell();
    std::size_t start = 0;
    while (key != kNone && start < path.size()) {
        std::size_t end = path.find('\\', start);
        if (end == std::string::npos) end = path.size();
        key = FindSubKey(key, path.substr(start, end - start));
        start = end + 1;
    }
    return key;
}

std::vector<std::uint32_t> HiveImage::Values(std::uint32_t nk) const {
    std::vector<std::uint32_t> values;
    const std::uint32_t count = U32(nk, 0x24);
    const std::uint32_t list = U32(nk, 0x28);
    for (std::uint32_t i = 0; i < count; ++i) values.push_back(U32(list, 4 * i));
    return values;
}

std::uint32_t HiveImage::FindValue(std::uint32_t nk, const std::string& name) const {
    for (std::uint32_t vk : Values(nk)) {
        const Bytes stored = PayloadBytes(vk, 0x14, U16(vk, 0x02));
        if (std::string(stored.begin(), stored.end()) == name) return vk;
    }
    return kNone;
}

Bytes HiveImage::ValueData(std::uint32_t vk) const {
    const std::uint32_t length = U32(vk, 0x04);
    if (length >= 0x80000000u) return PayloadBytes(vk, 0x08, std::min<std::uint32_t>(length - 0x80000000u, 4));
    const std::uint32_t cell = U32(vk, 0x08);
    if (MinorVersion() >= 4 && length > kSegment && Signature(cell) == "db") {
        Bytes data;
        const std::uint32_t segments = U16(cell, 2);
        const std::uint32_t list = U32(cell, 4);
        for (std::uint32_t i = 0; i < segments && data.size() < length; ++i) {
            const auto take = std::min<std::uint32_t>(kSegment, length - static_cast<std::uint32_t>(data.size()));
            const Bytes part = PayloadBytes(U32(list, 4 * i), 0, take);
            data.insert(data.end(), part.begin(), part.end());
        }
        return data;
    }
    return PayloadBytes(cell, 0, length);
}

std::vector<std::pair<std::uint32_t, std::int32_t>> HiveImage::Cells() const {
    std::vector<std::pair<std::uint32_t, std::int32_t>> cells;
    const std::uint32_t binsSize = BinsSize();
    std::uint32_t bin = 0;
    while (bin < binsSize) {
        const std::uint32_t binSize = File32(kBase + bin + 8);
        if (binSize == 0) break;
        std::uint32_t cell = bin + 32;
        while (cell < bin + binSize) {
            const std::int32_t size = CellSize(cell);
            cells.emplace_back(cell, size);
            const std::uint32_t step = size < 0 ? 0u - static_cast<std::uint32_t>(size) : static_cast<std::uint32_t>(size);
            if (step == 0) break;
            cell += step;
        }
        bin += binSize;
    }
    return cells;
}

std::set<std::uint32_t> HiveImage::AllocatedCells() const {
    std::set<std::uint32_t> allocated;
    for (const auto& [offset, size] : Cells()) {
        if (size < 0) allocated.insert(offset);
    }
    return allocated;
}

void SealFreeCells(Bytes& file, const std::set<std::uint32_t>& keep) {
    const HiveImage image(file);
    for (const auto& [offset, size] : image.Cells()) {
        if (size <= 0 || keep.count(offset) != 0) continue;
        const auto sealed = static_cast<std::uint32_t>(-size);
        for (int i = 0; i < 4; ++i) file[kBase + offset + i] = static_cast<std::uint8_t>(sealed >> (8 * i));
    }
}

// --- EditSession ---------------------------------------------------------------------

EditSession::EditSession(const Bytes& bytes) : file(bytes) { openResult = OpenTestHive(file.Path(), &hive); }

EditSession::~EditSession() { Close(); }

RegAPI::HKEY EditSession::Key(const std::u16string& path) {
    if (hive == nullptr) return nullptr;
    // The first component under a hive names the root, whatever it says.
    const std::u16string full = path.empty() ? u"ROOT" : u"ROOT\\" + path;
    RegAPI::HKEY key = nullptr;
    if (RegAPI::RegOpenKeyExW(hive, full.c_str(), 0, 0, &key) != RegAPI::Result::Ok) return nullptr;
    return key;
}

RegAPI::LONG EditSession::Close() {
    if (hive == nullptr) return RegAPI::Result::Invalid;
    const RegAPI::LONG result = CloseTestHive(&hive);
    hive = nullptr;
    return result;
}

// --- hivex ---------------------------------------------------------------------------

HivexVerdict HivexWalk(const std::string& path) {
    HivexVerdict verdict;
    if (access("/usr/bin/python3", X_OK) != 0) return verdict;
    const std::string text(kHivexScript);
    TempFile script(Bytes(text.begin(), text.end()));
    const std::string command = "/usr/bin/python3 '" + script.Path() + "' '" + path + "' 2>&1";
    std::FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return verdict;
    std::array<char, 256> chunk{};
    while (std::fgets(chunk.data(), static_cast<int>(chunk.size()), pipe) != nullptr) verdict.output += chunk.data();
    const int status = pclose(pipe);
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    verdict.available = code != 77;
    verdict.ok = code == 0;
    return verdict;
}

Bytes CountingBytes(std::size_t length, std::uint8_t seed) {
    Bytes bytes(length);
    for (std::size_t i = 0; i < length; ++i) bytes[i] = static_cast<std::uint8_t>(seed + i * 13 + (i >> 8));
    return bytes;
}

}  // namespace TamvikTest
