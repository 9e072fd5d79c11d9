// Hives laid out byte by byte for the tests (see HiveBuilder.h).
#include "support/HiveBuilder.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <stdexcept>

#include "store/ByteOrder.h"
#include "store/Format.h"

namespace TamvikTest {

using namespace Tamvik;

namespace {

std::uint32_t RoundUp(std::uint64_t value, std::uint32_t unit) {
    return static_cast<std::uint32_t>((value + unit - 1) / unit * unit);
}

void Append(Bytes& out, std::uint32_t value, int width) {
    for (int i = 0; i < width; ++i) out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

// Narrow names are stored as given, wide ones widened byte by byte to UTF-16LE.
std::string StoredName(const std::string& name, bool wide) {
    if (!wide) return name;
    std::string out;
    for (char c : name) out += {c, '\0'};
    return out;
}

std::uint32_t CountKeys(const TreeKey& key) {
    std::uint32_t n = 1;
    for (const TreeKey& child : key.subkeys) n += CountKeys(child);
    return n;
}

}  // namespace

std::uint32_t HiveBuilder::AddBin(std::uint32_t size) {
    CloseBin();
    const auto offset = static_cast<std::uint32_t>(area_.size());
    area_.resize(static_cast<std::size_t>(offset) + size, 0);
    StoreU32(&area_[offset + BinField::Signature], kHbinSignature);
    StoreU32(&area_[offset + BinField::BinOffset], offset);
    StoreU32(&area_[offset + BinField::BinSize], size);
    binStart_ = offset;
    binEnd_ = offset + size;
    position_ = offset + kBinHeaderSize;
    lastCell_ = kNoCell;
    return offset;
}

void HiveBuilder::CloseBin(bool allocated) {
    if (position_ < binEnd_) AddCell({}, allocated, binEnd_ - position_);
}

std::uint32_t HiveBuilder::AddCell(const Bytes& payload, bool allocated, std::uint32_t cellSize) {
    const std::uint32_t size = cellSize != 0 ? cellSize : RoundUp(payload.size() + Payload(), 8);
    if (area_.empty() || static_cast<std::uint64_t>(position_) + size > binEnd_)
        AddBin(RoundUp(static_cast<std::uint64_t>(size) + kBinHeaderSize, kBinAlignment));
    const std::uint32_t offset = position_;
    StoreI32(&area_[offset], allocated ? -static_cast<std::int32_t>(size) : static_cast<std::int32_t>(size));
    if (minor_ == 1 && size >= 8) StoreU32(&area_[offset + 4], lastCell_ == kNoCell ? kNoCell : lastCell_ - binStart_);
    if (size > Payload() && !payload.empty())
        std::memcpy(&area_[offset + Payload()], payload.data(), std::min<std::size_t>(size - Payload(), payload.size()));
    lastCell_ = offset;
    position_ = offset + size;
    return offset;
}

void HiveBuilder::AddCells(std::initializer_list<std::int32_t> sizes) {
    for (std::int32_t size : sizes) AddCell({}, size < 0, static_cast<std::uint32_t>(size < 0 ? -size : size));
}

std::uint32_t HiveBuilder::AddNk(const NkFields& f, std::uint32_t cellSize) {
    Bytes p(NkField::Name, 0);
    StoreU16(&p[NkField::Signature], kNkSignature);
    StoreU16(&p[NkField::Flags], f.flags);
    StoreU32(&p[NkField::SubKeyCount], f.subKeyCount);
    StoreU32(&p[NkField::SubKeyListCell], f.subKeyList);
    StoreU32(&p[NkField::ValueCount], f.valueCount);
    StoreU32(&p[NkField::ValueListCell], f.valueList);
    StoreU32(&p[NkField::SecurityCell], f.security);
    StoreU32(&p[NkField::ClassCell], f.classCell);
    StoreU16(&p[NkField::NameLength], static_cast<std::uint16_t>(f.nameLength >= 0 ? f.nameLength : f.name.size()));
    StoreU16(&p[NkField::ClassLength], f.classLength);
    p.insert(p.end(), f.name.begin(), f.name.end());
    return AddCell(p, true, cellSize);
}

std::uint32_t HiveBuilder::AddVk(const VkFields& f, std::uint32_t cellSize) {
    Bytes p(VkField::Name, 0);
    StoreU16(&p[VkField::Signature], kVkSignature);
    StoreU16(&p[VkField::NameLength], static_cast<std::uint16_t>(f.nameLength >= 0 ? f.nameLength : f.name.size()));
    StoreU32(&p[VkField::DataLength], f.dataLength);
    StoreU32(&p[VkField::DataCell], f.dataCell);
    StoreU32(&p[VkField::Type], f.type);
    StoreU16(&p[VkField::Flags], f.flags);
    p.insert(p.end(), f.name.begin(), f.name.end());
    return AddCell(p, true, cellSize);
}

std::uint32_t HiveBuilder::AddSk(std::uint32_t next, std::uint32_t prev, std::uint32_t refCount,
                                 std::uint32_t cellSize) {
    // A self-relative descriptor with owner Administrators and group SYSTEM and
    // no ACLs: enough for readers that look inside, and the cell is large
    // enough (72 bytes) for an sk to be recognised.
    static const Bytes kDescriptor = {1, 0, 0, 0x80, 20, 0, 0, 0, 36, 0, 0, 0, 0, 0, 0,    0, 0, 0, 0, 0,
                                      1, 2, 0, 0,    0, 0, 0, 5, 32, 0, 0, 0, 0x20, 2, 0, 0, 1, 1, 0, 0,
                                      0, 0, 0, 5,    18, 0, 0, 0};
    Bytes p;
    Append(p, kSkSignature, 4);
    Append(p, next, 4);
    Append(p, prev, 4);
    Append(p, refCount, 4);
    Append(p, static_cast<std::uint32_t>(kDescriptor.size()), 4);
    p.insert(p.end(), kDescriptor.begin(), kDescriptor.end());
    return AddCell(p, true, cellSize);
}

std::uint32_t HiveBuilder::AddList(const char* signature, const std::vector<std::uint32_t>& entries,
                                   const std::vector<std::string>& names, std::uint32_t cellSize, int count) {
    const std::string sig = signature;
    Bytes p = {static_cast<std::uint8_t>(sig[0]), static_cast<std::uint8_t>(sig[1])};
    Append(p, static_cast<std::uint32_t>(count >= 0 ? count : static_cast<int>(entries.size())), 2);
    for (std::size_t i = 0; i < entries.size(); ++i) {
        Append(p, entries[i], 4);
        const std::string name = i < names.size() ? names[i] : "";
        if (sig == "lh") Append(p, LhHash(name), 4);
        if (sig == "lf") {
            for (std::size_t b = 0; b < 4; ++b) p.push_back(b < name.size() ? static_cast<std::uint8_t>(name[b]) : 0);
        }
    }
    return AddCell(p, true, cellSize);
}

std::uint32_t HiveBuilder::AddOffsets(const std::vector<std::uint32_t>& offsets, std::uint32_t cellSize) {
    Bytes p;
    for (std::uint32_t offset : offsets) Append(p, offset, 4);
    return AddCell(p, true, cellSize);
}

std::uint32_t HiveBuilder::AddDb(std::uint16_t segmentCount, std::uint32_t segmentList, std::uint32_t cellSize) {
    Bytes p;
    Append(p, kDbSignature, 2);
    Append(p, segmentCount, 2);
    Append(p, segmentList, 4);
    return AddCell(p, true, cellSize);
}

std::uint32_t HiveBuilder::AddBigData(const Bytes& data) {
    std::vector<std::uint32_t> segments;
    for (std::size_t at = 0; at < data.size(); at += kSegmentSize) {
        const auto end = data.begin() + static_cast<std::ptrdiff_t>(std::min<std::size_t>(data.size(), at + kSegmentSize));
        segments.push_back(AddCell(Bytes(data.begin() + static_cast<std::ptrdiff_t>(at), end)));
    }
    return AddDb(static_cast<std::uint16_t>(segments.size()), AddOffsets(segments));
}

std::uint32_t HiveBuilder::AddTree(const TreeKey& root) {
    treeSecurity_ = AddSk(0, 0, CountKeys(root));
    // A ring of one: the sk names itself both ways.
    Patch32(treeSecurity_, SkField::NextSecurity, treeSecurity_);
    Patch32(treeSecurity_, SkField::PrevSecurity, treeSecurity_);
    root_ = LayOutKey(root, 0, "");
    // The flags of a hive's entry key: 0x04 entry, 0x08 not deletable.
    Patch16(root_, NkField::Flags, static_cast<std::uint16_t>(root.wideName ? 0x0C : 0x2C));
    return root_;
}

std::uint32_t HiveBuilder::LayOutKey(const TreeKey& key, std::uint32_t parent, const std::string& path) {
    NkFields fields;
    fields.name = StoredName(key.name, key.wideName);
    fields.flags = key.wideName ? 0 : NkField::NarrowNameFlag;
    fields.security = treeSecurity_;
    // The nk goes first so that children can name it; its links are patched in below.
    const std::uint32_t offset = AddNk(fields);
    Patch32(offset, NkField::ParentCell, parent);
    keyOffsets_.emplace_back(path, offset);

    std::vector<std::uint32_t> children;
    std::vector<std::string> names;
    std::uint32_t maxName = 0, maxValueName = 0, maxData = 0;
    for (const TreeKey& child : key.subkeys) {
        children.push_back(LayOutKey(child, offset, path.empty() ? child.name : path + "\\" + child.name));
        names.push_back(StoredName(child.name, child.wideName));
        maxName = std::max<std::uint32_t>(maxName, 2 * static_cast<std::uint32_t>(child.name.size()));
    }
    std::vector<std::uint32_t> values;
    for (const TreeValue& value : key.values) {
        values.push_back(LayOutValue(value));
        maxValueName = std::max<std::uint32_t>(maxValueName, 2 * static_cast<std::uint32_t>(value.name.size()));
        maxData = std::max<std::uint32_t>(maxData, static_cast<std::uint32_t>(value.data.size()));
    }
    std::uint32_t list = kNoCell;
    if (!children.empty() && key.list == ListKind::Ri) {
        std::vector<std::uint32_t> leaves;
        const std::size_t per = std::max<std::uint32_t>(1, key.riLeafSize);
        for (std::size_t at = 0; at < children.size(); at += per) {
            const std::size_t end = std::min(children.size(), at + per);
            leaves.push_back(AddList("lf", {children.begin() + at, children.begin() + end},
                                     {names.begin() + at, names.begin() + end}));
        }
        list = AddList("ri", leaves);
    } else if (!children.empty()) {
        static const char* const kSignatures[] = {"lf", "lh", "li"};
        list = AddList(kSignatures[static_cast<int>(key.list)], children, names);
    }
    Patch32(offset, NkField::SubKeyCount, static_cast<std::uint32_t>(children.size()));
    Patch32(offset, NkField::SubKeyListCell, list);
    Patch32(offset, NkField::ValueCount, static_cast<std::uint32_t>(values.size()));
    Patch32(offset, NkField::ValueListCell, values.empty() ? kNoCell : AddOffsets(values));
    Patch32(offset, NkField::MaxSubKeyName, maxName);
    Patch32(offset, NkField::MaxValueName, maxValueName);
    Patch32(offset, NkField::MaxValueData, maxData);
    return offset;
}

std::uint32_t HiveBuilder::LayOutValue(const TreeValue& value) {
    const auto length = static_cast<std::uint32_t>(value.data.size());
    DataForm form = value.form;
    if (form == DataForm::Auto)
        form = length <= 4 ? DataForm::Inline : minor_ >= 4 && length > kSegmentSize ? DataForm::Db : DataForm::Cell;
    VkFields fields;
    fields.name = StoredName(value.name, value.wideName);
    fields.flags = value.wideName ? 0 : VkField::NarrowNameFlag;
    fields.type = value.type;
    fields.dataLength = length;
    if (form == DataForm::Inline) {
        if (length > 4) throw std::invalid_argument("inline data holds at most 4 bytes");
        std::uint8_t word[4] = {};
        std::copy(value.data.begin(), value.data.end(), word);
        fields.dataLength |= kInlineData;
        fields.dataCell = LoadU32(word);
    } else {
        fields.dataCell = form == DataForm::Cell ? AddCell(value.data) : AddBigData(value.data);
    }
    return AddVk(fields);
}

std::uint32_t HiveBuilder::KeyOffset(const std::string& path) const {
    for (const auto& [keyPath, offset] : keyOffsets_)
        if (keyPath == path) return offset;
    throw std::out_of_range("no key laid out at " + path);
}

void HiveBuilder::PatchArea(std::uint32_t areaOffset, const Bytes& bytes) {
    if (static_cast<std::uint64_t>(areaOffset) + bytes.size() > area_.size()) throw std::out_of_range("patch");
    std::copy(bytes.begin(), bytes.end(), area_.begin() + areaOffset);
}

void HiveBuilder::Patch16(std::uint32_t cell, std::uint32_t field, std::uint16_t value) {
    PatchArea(cell + Payload() + field, {static_cast<std::uint8_t>(value), static_cast<std::uint8_t>(value >> 8)});
}

void HiveBuilder::Patch32(std::uint32_t cell, std::uint32_t field, std::uint32_t value) {
    Bytes bytes;
    Append(bytes, value, 4);
    PatchArea(cell + Payload() + field, bytes);
}

void HiveBuilder::SetCellSize(std::uint32_t cell, std::int32_t size) {
    Bytes bytes;
    Append(bytes, static_cast<std::uint32_t>(size), 4);
    PatchArea(cell, bytes);
}

void HiveBuilder::SetBinSize(std::uint32_t bin, std::uint32_t size) {
    Bytes bytes;
    Append(bytes, size, 4);
    PatchArea(bin + BinField::BinSize, bytes);
}

Bytes HiveBuilder::Build() const {
    HiveBuilder closed(*this);
    closed.CloseBin();
    Bytes file(kBaseBlockSize, 0);
    for (std::size_t i = 0; i < 4 && i < signature_.size(); ++i) file[i] = static_cast<std::uint8_t>(signature_[i]);
    StoreU32(&file[0x04], 1);  // sequence numbers, equal: a clean hive
    StoreU32(&file[0x08], 1);
    StoreU32(&file[0x14], 1);  // major version
    StoreU32(&file[BaseBlockField::MinorVersion], minor_);
    StoreU32(&file[0x20], 1);  // format: direct memory load
    StoreU32(&file[BaseBlockField::RootCell], root_);
    StoreU32(&file[BaseBlockField::BinsSize], binsSize_ >= 0 ? static_cast<std::uint32_t>(binsSize_) : closed.BinsSize());
    StoreU32(&file[0x2C], 1);  // clustering factor
    StoreU32(&file[BaseBlockField::Checksum], ChecksumOf(file.data()) ^ (checksumValid_ ? 0 : 1));
    file.insert(file.end(), closed.area_.begin(), closed.area_.end());
    return file;
}

std::uint32_t LhHash(const std::string& name) {
    std::uint32_t hash = 0;
    for (char c : name) {
        const auto byte = static_cast<std::uint8_t>(c);
        // Bytes from 0x80 count as negative numbers, which toupper leaves alone.
        hash = hash * 37 + static_cast<std::uint32_t>(byte < 0x80 ? std::toupper(byte) : static_cast<std::int8_t>(byte));
    }
    return hash;
}

std::uint32_t ChecksumOf(const std::uint8_t* baseBlock) {
    std::uint32_t sum = 0;
    for (int i = 0; i < 127; ++i)
        sum ^= static_cast<std::uint32_t>(baseBlock[4 * i] | baseBlock[4 * i + 1] << 8 | baseBlock[4 * i + 2] << 16 |
                                          static_cast<std::uint32_t>(baseBlock[4 * i + 3]) << 24);
    return sum == 0xFFFFFFFF ? 0xFFFFFFFE : sum == 0 ? 1 : sum;
}

}  // namespace TamvikTest
