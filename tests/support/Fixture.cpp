// The suite's one fixture: a built hive opened in the suite's mode (see Fixture.h).
#include "support/Fixture.h"

#include <algorithm>
#include <stdexcept>

#include "store/ByteOrder.h"
#include "store/Format.h"
#include "store/Hive.h"
#include "support/Device.h"

namespace TamvikTest {

using namespace RegAPI;

TestHive::TestHive(const Bytes& bytes, bool readOnly_) : file(bytes), readOnly(readOnly_) {
    openResult = OpenTestHive(file.Path(), &hive, readOnly);
}

HKEY TestHive::Key(const std::u16string& path) {
    HKEY key = nullptr;
    const std::u16string full = path.empty() ? u"" : u"ROOT\\" + path;
    return hive != nullptr && RegOpenKeyExW(hive, full.c_str(), 0, 0, &key) == Result::Ok ? key : nullptr;
}

Tamvik::Hive* TestHive::Internal() const { return dynamic_cast<Tamvik::Hive*>(reinterpret_cast<Tamvik::Node*>(hive)); }

Bytes TestHive::Disk() const {
    // Tests that call the library's inner functions have no entry point to write back for them.
    if (hive != nullptr) Internal()->Flush();
    return file.Read();
}

void TestHive::Close() {
    if (hive != nullptr && CloseTestHive(&hive) != Result::Ok) throw std::logic_error("closing a test hive failed");
    hive = nullptr;
}

LONG TestHive::Reopen() {
    Close();
    return openResult = OpenTestHive(file.Path(), &hive, readOnly);
}

EditOutcome Edit(const HiveBuilder& builder, const std::function<LONG(TestHive&)>& act) {
    TestHive test(builder);
    EditOutcome outcome{Result::HiveRefused, test.Disk(), {}};
    if (test.openResult == Result::Ok) outcome.result = act(test);
    test.Close();
    outcome.after = test.Disk();
    return outcome;
}

std::uint32_t Image::Word(std::uint64_t position) const {
    std::uint32_t value = 0;
    for (int i = 3; i >= 0; --i) value = value << 8 | (position + i < file.size() ? file[position + i] : 0);
    return value;
}

std::string Image::Sig(std::uint32_t cell) const {
    const std::uint32_t word = U32(cell, 0);
    return {static_cast<char>(word), static_cast<char>(word >> 8)};
}

std::string Image::Name(std::uint32_t cell) const {
    const bool nk = Sig(cell) == "nk";
    const std::uint32_t length = U16(cell, nk ? Tamvik::NkField::NameLength : Tamvik::VkField::NameLength);
    const std::uint64_t start = Payload(cell) + (nk ? Tamvik::NkField::Name : Tamvik::VkField::Name);
    std::string name;
    for (std::uint64_t i = start; i < start + length && i < file.size(); ++i) name += static_cast<char>(file[i]);
    return name;
}

std::vector<std::uint32_t> Image::ListEntries(std::uint32_t list) const {
    const std::string sig = Sig(list);  // the entry size told independently of the library
    const std::uint32_t step = sig == "lf" || sig == "lh" ? 8 : 4;
    std::vector<std::uint32_t> entries;
    for (std::uint32_t i = 0; i < U16(list, 2); ++i) entries.push_back(U32(list, 4 + i * step));
    return entries;
}

std::vector<std::uint32_t> Image::SubKeys(std::uint32_t nk) const {
    if (U32(nk, Tamvik::NkField::SubKeyCount) == 0) return {};
    const std::uint32_t list = U32(nk, Tamvik::NkField::SubKeyListCell);
    if (Sig(list) != "ri") return ListEntries(list);
    std::vector<std::uint32_t> keys;
    for (std::uint32_t leaf : ListEntries(list))
        for (std::uint32_t key : ListEntries(leaf)) keys.push_back(key);
    return keys;
}

std::map<std::uint32_t, std::int32_t> Image::Cells() const {
    std::map<std::uint32_t, std::int32_t> cells;
    for (std::uint64_t bin = 0; bin < BinsSize();) {
        const std::uint32_t size = Word(4096 + bin + Tamvik::BinField::BinSize);
        if (size == 0 || Word(4096 + bin) != Tamvik::kHbinSignature) break;
        for (std::uint64_t cell = bin + Tamvik::kBinHeaderSize; cell < bin + size;) {
            const auto cellSize = static_cast<std::int32_t>(Word(4096 + cell));
            if (cellSize == 0) break;
            cells[static_cast<std::uint32_t>(cell)] = cellSize;
            cell += cellSize < 0 ? 0u - static_cast<std::uint32_t>(cellSize) : static_cast<std::uint32_t>(cellSize);
        }
        bin += size;
    }
    return cells;
}

Bytes Image::WithoutBinTimes() const {
    Bytes out = file;
    for (std::uint64_t bin = 0, size = 1; bin < BinsSize() && 4096 + bin + 32 <= file.size() && size != 0;
         bin += size = Word(4096 + bin + Tamvik::BinField::BinSize))
        std::fill_n(out.begin() + static_cast<std::ptrdiff_t>(4096 + bin + Tamvik::BinField::Timestamp), 8, 0);
    return out;
}

Bytes Image::Data(std::uint32_t vk) const {
    const std::uint32_t length = U32(vk, Tamvik::VkField::DataLength), cell = U32(vk, Tamvik::VkField::DataCell);
    auto bytes = [&](std::uint64_t from, std::uint32_t n) {
        Bytes out;
        for (std::uint64_t i = from; i < from + n && i < file.size(); ++i) out.push_back(file[i]);
        return out;
    };
    if (length >= Tamvik::kInlineData) return bytes(Payload(vk) + Tamvik::VkField::DataCell, length - Tamvik::kInlineData);
    if (Sig(cell) != "db" || Minor() < 4 || length <= Tamvik::kSegmentSize) return bytes(Payload(cell), length);
    Bytes out;
    for (std::uint32_t i = 0; i < U16(cell, 2) && out.size() < length; ++i) {
        const Bytes part = bytes(Payload(U32(U32(cell, 4), 4 * i)), std::min<std::uint32_t>(Tamvik::kSegmentSize,
                                                                                       length - out.size()));
        out.insert(out.end(), part.begin(), part.end());
    }
    return out;
}

std::vector<std::string> Image::SubKeyNames(std::uint32_t nk) const {
    std::vector<std::string> names;
    for (std::uint32_t key : SubKeys(nk)) names.push_back(Name(key));
    return names;
}

}  // namespace TamvikTest
