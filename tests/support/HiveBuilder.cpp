#include "support/HiveBuilder.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <stdexcept>

namespace TamvikTest {

namespace {

constexpr std::uint32_t kBase = 4096;
constexpr std::uint32_t kBinHeader = 32;
constexpr std::uint32_t kNone = 0xFFFFFFFF;
constexpr std::uint32_t kSegment = 16344;

void Put16(std::uint8_t* p, std::uint16_t v) {
    p[0] = static_cast<std::uint8_t>(v);
    p[1] = static_cast<std::uint8_t>(v >> 8);
}
void Put32(std::uint8_t* p, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<std::uint8_t>(v >> (8 * i));
}
std::uint32_t Get32(const std::uint8_t* p) {
    return static_cast<std::uint32_t>(p[0]) | (static_cast<std::uint32_t>(p[1]) << 8) |
           (static_cast<std::uint32_t>(p[2]) << 16) | (static_cast<std::uint32_t>(p[3]) << 24);
}

void Append16(Bytes& b, std::uint16_t v) {
    b.push_back(static_cast<std::uint8_t>(v));
    b.push_back(static_cast<std::uint8_t>(v >> 8));
}
void Append32(Bytes& b, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) b.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}
void AppendSig(Bytes& b, const char* sig) {
    b.push_back(static_cast<std::uint8_t>(sig[0]));
    b.push_back(static_cast<std::uint8_t>(sig[1]));
}

std::uint32_t RoundUp(std::uint64_t value, std::uint32_t unit) {
    return static_cast<std::uint32_t>((value + unit - 1) / unit * unit);
}

// Name bytes as stored: narrow names as they are, wide ones widened byte by byte to UTF-16LE.
Bytes StoredName(const std::string& name, bool wide) {
    Bytes out;
    for (char c : name) {
        out.push_back(static_cast<std::uint8_t>(c));
        if (wide) out.push_back(0);
    }
    return out;
}

// Writes a cell's header (size, and PrevLink in the second layout) into area.
void WriteCellHeader(Bytes& area, std::uint32_t offset, std::int32_t size, bool withPrevLink,
                     std::uint32_t prevLink, std::uint32_t magnitude) {
    Put32(&area[offset], static_cast<std::uint32_t>(size));
    if (withPrevLink && magnitude >= 8) Put32(&area[offset + 4], prevLink);
}

std::uint32_t CountKeys(const TreeKey& key) {
    std::uint32_t n = 1;
    for (const TreeKey& child : key.subkeys) n += CountKeys(child);
    return n;
}

}  // namespace

HiveBuilder::HiveBuilder(std::uint32_t minorVersion) : minorVersion_(minorVersion) {}

// --- Bins and raw cells -----------------------------------------------------

std::uint32_t HiveBuilder::AddBin(std::uint32_t size) {
    CloseBin();
    const std::uint32_t offset = static_cast<std::uint32_t>(area_.size());
    area_.resize(static_cast<std::size_t>(offset) + size, 0);
    std::memcpy(&area_[offset], "hbin", 4);
    Put32(&area_[offset + 4], offset);
    Put32(&area_[offset + 8], size);
    binStart_ = offset;
    binEnd_ = offset + size;
    position_ = offset + kBinHeader;
    lastCell_ = kNone;
    return offset;
}

void HiveBuilder::CloseBin() {
    if (position_ >= binEnd_) return;
    const std::uint32_t rest = binEnd_ - position_;
    // The rest of a bin is one free cell, linked like any other cell of the bin.
    WriteCellHeader(area_, position_, static_cast<std::int32_t>(rest), minorVersion_ == 1,
                    lastCell_ == kNone ? kNone : lastCell_ - binStart_, rest);
    lastCell_ = position_;
    position_ = binEnd_;
}

std::uint32_t HiveBuilder::PlaceCell(const Bytes& payload, bool allocated, std::uint32_t cellSize) {
    const std::uint32_t header = PayloadOffset();
    const std::uint32_t size = cellSize != 0 ? cellSize : RoundUp(payload.size() + header, 8);
    if (area_.empty() || static_cast<std::uint64_t>(position_) + size > binEnd_) {
        AddBin(RoundUp(static_cast<std::uint64_t>(size) + kBinHeader, 4096));
    }
    const std::uint32_t offset = position_;
    const std::int32_t stored = allocated ? -static_cast<std::int32_t>(size) : static_cast<std::int32_t>(size);
    WriteCellHeader(area_, offset, stored, minorVersion_ == 1,
                    lastCell_ == kNone ? kNone : lastCell_ - binStart_, size);
    // A payload longer than the chosen cell is cut: the cell's size is what a test asked for.
    if (size > header && !payload.empty()) {
        const std::size_t room = size - header;
        std::memcpy(&area_[offset + header], payload.data(), std::min(room, payload.size()));
    }
    lastCell_ = offset;
    position_ = offset + size;
    return offset;
}

std::uint32_t HiveBuilder::AddCell(const Bytes& payload, bool allocated, std::uint32_t cellSize) {
    return PlaceCell(payload, allocated, cellSize);
}

std::uint32_t HiveBuilder::AddFreeCell(std::uint32_t cellSize) { return PlaceCell({}, false, cellSize); }

// --- Records ----------------------------------------------------------------

std::uint32_t HiveBuilder::AddNk(const NkFields& f, std::uint32_t cellSize) {
    Bytes p(0x4C, 0);
    p[0] = 'n';
    p[1] = 'k';
    const std::uint16_t flags = f.wideName ? static_cast<std::uint16_t>(f.flags & ~0x20) : f.flags;
    Put16(&p[0x02], flags);
    Put32(&p[0x10], f.parent);
    Put32(&p[0x14], f.subKeyCount);
    Put32(&p[0x1C], f.subKeyList);
    Put32(&p[0x24], f.valueCount);
    Put32(&p[0x28], f.valueList);
    Put32(&p[0x2C], f.security);
    Put32(&p[0x30], f.classCell);
    Put32(&p[0x34], f.maxSubKeyName);
    Put32(&p[0x3C], f.maxValueName);
    Put32(&p[0x40], f.maxValueData);
    const std::uint16_t nameLength = f.nameLengthOverride >= 0 ? static_cast<std::uint16_t>(f.nameLengthOverride)
                                                               : static_cast<std::uint16_t>(f.name.size());
    Put16(&p[0x48], nameLength);
    Put16(&p[0x4A], f.classLength);
    p.insert(p.end(), f.name.begin(), f.name.end());
    return PlaceCell(p, true, cellSize);
}

std::uint32_t HiveBuilder::AddVk(const VkFields& f, std::uint32_t cellSize) {
    Bytes p(0x14, 0);
    p[0] = 'v';
    p[1] = 'k';
    const std::uint16_t nameLength = f.nameLengthOverride >= 0 ? static_cast<std::uint16_t>(f.nameLengthOverride)
                                                               : static_cast<std::uint16_t>(f.name.size());
    Put16(&p[0x02], nameLength);
    Put32(&p[0x04], f.dataLength);
    Put32(&p[0x08], f.dataCell);
    Put32(&p[0x0C], f.type);
    Put16(&p[0x10], f.wideName ? 0 : 1);
    p.insert(p.end(), f.name.begin(), f.name.end());
    return PlaceCell(p, true, cellSize);
}

std::uint32_t HiveBuilder::AddSk(std::uint32_t next, std::uint32_t prev, std::uint32_t refCount,
                                 std::uint32_t cellSize) {
    // A self-relative descriptor with an owner and a group (BUILTIN\Administrators
    // and SYSTEM) and no ACLs: enough for tools that look inside, and it makes
    // the cell large enough (80 bytes) for an sk to be recognised.
    static const std::uint8_t kAdmins[] = {1, 2, 0, 0, 0, 0, 0, 5, 32, 0, 0, 0, 0x20, 2, 0, 0};
    static const std::uint8_t kSystem[] = {1, 1, 0, 0, 0, 0, 0, 5, 18, 0, 0, 0};
    Bytes descriptor = {1, 0, 0x00, 0x80};  // revision 1, control SE_SELF_RELATIVE
    Append32(descriptor, 20);               // owner
    Append32(descriptor, 20 + sizeof kAdmins);  // group
    Append32(descriptor, 0);                // sacl
    Append32(descriptor, 0);                // dacl
    descriptor.insert(descriptor.end(), std::begin(kAdmins), std::end(kAdmins));
    descriptor.insert(descriptor.end(), std::begin(kSystem), std::end(kSystem));

    Bytes p;
    AppendSig(p, "sk");
    Append16(p, 0);
    Append32(p, next);
    Append32(p, prev);
    Append32(p, refCount);
    Append32(p, static_cast<std::uint32_t>(descriptor.size()));
    p.insert(p.end(), descriptor.begin(), descriptor.end());
    return PlaceCell(p, true, cellSize);
}

std::uint32_t HiveBuilder::AddLf(const std::vector<std::uint32_t>& keys, const std::vector<std::string>& names,
                                 std::uint32_t cellSize) {
    Bytes entries;
    for (std::size_t i = 0; i < keys.size(); ++i) {
        Append32(entries, keys[i]);
        std::uint8_t hint[4] = {0, 0, 0, 0};
        if (i < names.size() && !names[i].empty())
            std::memcpy(hint, names[i].data(), std::min<std::size_t>(4, names[i].size()));
        entries.insert(entries.end(), hint, hint + 4);
    }
    return AddListRaw("lf", static_cast<std::uint16_t>(keys.size()), entries, cellSize);
}

std::uint32_t HiveBuilder::AddLh(const std::vector<std::uint32_t>& keys, const std::vector<std::string>& names,
                                 std::uint32_t cellSize) {
    Bytes entries;
    for (std::size_t i = 0; i < keys.size(); ++i) {
        Append32(entries, keys[i]);
        Append32(entries, i < names.size() ? LhHash(names[i]) : 0);
    }
    return AddListRaw("lh", static_cast<std::uint16_t>(keys.size()), entries, cellSize);
}

std::uint32_t HiveBuilder::AddLi(const std::vector<std::uint32_t>& keys, std::uint32_t cellSize) {
    Bytes entries;
    for (std::uint32_t k : keys) Append32(entries, k);
    return AddListRaw("li", static_cast<std::uint16_t>(keys.size()), entries, cellSize);
}

std::uint32_t HiveBuilder::AddRi(const std::vector<std::uint32_t>& leaves, std::uint32_t cellSize) {
    Bytes entries;
    for (std::uint32_t l : leaves) Append32(entries, l);
    return AddListRaw("ri", static_cast<std::uint16_t>(leaves.size()), entries, cellSize);
}

std::uint32_t HiveBuilder::AddListRaw(const std::string& signature, std::uint16_t count, const Bytes& entries,
                                      std::uint32_t cellSize) {
    Bytes p;
    for (std::size_t i = 0; i < 2; ++i) p.push_back(i < signature.size() ? static_cast<std::uint8_t>(signature[i]) : 0);
    Append16(p, count);
    p.insert(p.end(), entries.begin(), entries.end());
    return PlaceCell(p, true, cellSize);
}

std::uint32_t HiveBuilder::AddValueList(const std::vector<std::uint32_t>& values, std::uint32_t cellSize) {
    Bytes p;
    for (std::uint32_t v : values) Append32(p, v);
    return PlaceCell(p, true, cellSize);
}

std::uint32_t HiveBuilder::AddData(const Bytes& data, std::uint32_t cellSize) { return PlaceCell(data, true, cellSize); }

std::uint32_t HiveBuilder::AddSegmentList(const std::vector<std::uint32_t>& segments, std::uint32_t cellSize) {
    return AddValueList(segments, cellSize);
}

std::uint32_t HiveBuilder::AddDb(std::uint16_t segmentCount, std::uint32_t segmentList, std::uint32_t cellSize) {
    Bytes p;
    AppendSig(p, "db");
    Append16(p, segmentCount);
    Append32(p, segmentList);
    return PlaceCell(p, true, cellSize);
}

std::uint32_t HiveBuilder::AddBigData(const Bytes& data) {
    std::vector<std::uint32_t> segments;
    for (std::size_t at = 0; at < data.size(); at += kSegment) {
        const std::size_t length = std::min<std::size_t>(kSegment, data.size() - at);
        segments.push_back(AddData(Bytes(data.begin() + static_cast<std::ptrdiff_t>(at),
                                         data.begin() + static_cast<std::ptrdiff_t>(at + length))));
    }
    const std::uint32_t list = AddSegmentList(segments);
    return AddDb(static_cast<std::uint16_t>(segments.size()), list);
}

// --- A tree in one call -------------------------------------------------------

std::uint32_t HiveBuilder::AddTree(const TreeKey& root) {
    // The sk names itself as next and previous: a ring of one.
    treeSecurity_ = AddSk(0, 0, CountKeys(root));
    PatchU32(treeSecurity_, 0x04, treeSecurity_);
    PatchU32(treeSecurity_, 0x08, treeSecurity_);
    const std::uint32_t offset = LayOutKey(root, 0, "");
    // The root carries the flags of a hive's entry key (0x04 entry, 0x08 not deletable).
    PatchU16(offset, 0x02, static_cast<std::uint16_t>(root.wideName ? 0x0C : 0x2C));
    root_ = offset;
    return offset;
}

std::uint32_t HiveBuilder::LayOutKey(const TreeKey& key, std::uint32_t parent, const std::string& path) {
    NkFields fields;
    Bytes name = StoredName(key.name, key.wideName);
    fields.name.assign(name.begin(), name.end());
    fields.wideName = key.wideName;
    fields.parent = parent;
    fields.security = treeSecurity_;
    // The nk goes first, so that children can name it; its links are patched in below.
    const std::uint32_t offset = AddNk(fields);
    keyOffsets_.emplace_back(path, offset);

    std::vector<std::uint32_t> children;
    std::vector<std::string> childNames;
    std::uint32_t maxSubKeyName = 0;
    for (const TreeKey& child : key.subkeys) {
        const std::string childPath = path.empty() ? child.name : path + "\\" + child.name;
        children.push_back(LayOutKey(child, offset, childPath));
        const Bytes stored = StoredName(child.name, child.wideName);
        childNames.emplace_back(stored.begin(), stored.end());
        maxSubKeyName = std::max<std::uint32_t>(maxSubKeyName, 2 * static_cast<std::uint32_t>(child.name.size()));
    }

    std::vector<std::uint32_t> values;
    std::uint32_t maxValueName = 0;
    std::uint32_t maxValueData = 0;
    for (const TreeValue& value : key.values) {
        values.push_back(LayOutValue(value));
        maxValueName = std::max<std::uint32_t>(maxValueName, 2 * static_cast<std::uint32_t>(value.name.size()));
        maxValueData = std::max<std::uint32_t>(maxValueData, static_cast<std::uint32_t>(value.data.size()));
    }

    std::uint32_t subKeyList = kNone;
    if (!children.empty()) {
        switch (key.list) {
        case ListKind::Lf: subKeyList = AddLf(children, childNames); break;
        case ListKind::Lh: subKeyList = AddLh(children, childNames); break;
        case ListKind::Li: subKeyList = AddLi(children); break;
        case ListKind::Ri: {
            const std::size_t per = std::max<std::uint32_t>(1, key.riLeafSize);
            std::vector<std::uint32_t> leaves;
            for (std::size_t at = 0; at < children.size(); at += per) {
                const std::size_t end = std::min(children.size(), at + per);
                leaves.push_back(AddLf(std::vector<std::uint32_t>(children.begin() + static_cast<std::ptrdiff_t>(at),
                                                                  children.begin() + static_cast<std::ptrdiff_t>(end)),
                                       std::vector<std::string>(childNames.begin() + static_cast<std::ptrdiff_t>(at),
                                                                childNames.begin() + static_cast<std::ptrdiff_t>(end))));
            }
            subKeyList = AddRi(leaves);
            break;
        }
        }
    }
    const std::uint32_t valueList = values.empty() ? kNone : AddValueList(values);

    PatchU32(offset, 0x14, static_cast<std::uint32_t>(children.size()));
    PatchU32(offset, 0x1C, subKeyList);
    PatchU32(offset, 0x24, static_cast<std::uint32_t>(values.size()));
    PatchU32(offset, 0x28, valueList);
    PatchU32(offset, 0x34, maxSubKeyName);
    PatchU32(offset, 0x3C, maxValueName);
    PatchU32(offset, 0x40, maxValueData);
    return offset;
}

std::uint32_t HiveBuilder::LayOutValue(const TreeValue& value) {
    const std::uint32_t length = static_cast<std::uint32_t>(value.data.size());
    DataForm form = value.form;
    if (form == DataForm::Auto) {
        if (length <= 4) form = DataForm::Inline;
        else if (minorVersion_ >= 4 && length >= kSegment + 1) form = DataForm::Db;
        else form = DataForm::Cell;
    }
    VkFields fields;
    const Bytes name = StoredName(value.name, value.wideName);
    fields.name.assign(name.begin(), name.end());
    fields.wideName = value.wideName;
    fields.type = value.type;
    switch (form) {
    case DataForm::Inline: {
        if (length > 4) throw std::invalid_argument("inline data holds at most 4 bytes");
        std::uint8_t word[4] = {0, 0, 0, 0};
        if (length != 0) std::memcpy(word, value.data.data(), length);
        fields.dataLength = 0x80000000u | length;
        fields.dataCell = Get32(word);
        break;
    }
    case DataForm::Cell:
        fields.dataLength = length;
        fields.dataCell = AddData(value.data);
        break;
    case DataForm::Db:
    case DataForm::Auto:
        fields.dataLength = length;
        fields.dataCell = AddBigData(value.data);
        break;
    }
    return AddVk(fields);
}

std::uint32_t HiveBuilder::KeyOffset(const std::string& path) const {
    for (const auto& [keyPath, offset] : keyOffsets_) {
        if (keyPath == path) return offset;
    }
    throw std::out_of_range("no key laid out at path " + path);
}

// --- Changes after the fact ---------------------------------------------------

void HiveBuilder::PatchArea(std::uint32_t areaOffset, const Bytes& bytes) {
    if (static_cast<std::uint64_t>(areaOffset) + bytes.size() > area_.size()) {
        throw std::out_of_range("patch beyond the bins");
    }
    std::copy(bytes.begin(), bytes.end(), area_.begin() + areaOffset);
}

void HiveBuilder::PatchPayload(std::uint32_t cellOffset, std::uint32_t at, const Bytes& bytes) {
    PatchArea(cellOffset + PayloadOffset() + at, bytes);
}

void HiveBuilder::PatchU16(std::uint32_t cellOffset, std::uint32_t at, std::uint16_t value) {
    Bytes b;
    Append16(b, value);
    PatchPayload(cellOffset, at, b);
}

void HiveBuilder::PatchU32(std::uint32_t cellOffset, std::uint32_t at, std::uint32_t value) {
    Bytes b;
    Append32(b, value);
    PatchPayload(cellOffset, at, b);
}

void HiveBuilder::SetCellSize(std::uint32_t cellOffset, std::int32_t size) {
    Bytes b;
    Append32(b, static_cast<std::uint32_t>(size));
    PatchArea(cellOffset, b);
}

void HiveBuilder::SetBinSize(std::uint32_t binOffset, std::uint32_t size) {
    Bytes b;
    Append32(b, size);
    PatchArea(binOffset + 8, b);
}

void HiveBuilder::BreakBinSignature(std::uint32_t binOffset) { PatchArea(binOffset, {'x'}); }

// --- The file -------------------------------------------------------------------

Bytes HiveBuilder::Build() const {
    // Close the open bin on a copy, so that building twice or adding more later still works.
    HiveBuilder closed(*this);
    closed.CloseBin();

    Bytes file(kBase, 0);
    for (std::size_t i = 0; i < 4; ++i) file[i] = i < signature_.size() ? static_cast<std::uint8_t>(signature_[i]) : 0;
    Put32(&file[0x04], 1);              // primary sequence number
    Put32(&file[0x08], 1);              // secondary sequence number
    Put32(&file[0x14], 1);              // major version
    Put32(&file[0x18], minorVersion_);
    Put32(&file[0x1C], 0);              // type: primary file
    Put32(&file[0x20], 1);              // format: direct memory load
    Put32(&file[0x24], root_);
    Put32(&file[0x28], binsSizeOverride_ >= 0 ? static_cast<std::uint32_t>(binsSizeOverride_) : closed.BinsSize());
    Put32(&file[0x2C], 1);              // clustering factor
    std::uint32_t sum = ChecksumOf(file);
    if (!checksumValid_) sum ^= 1;      // off by one bit
    Put32(&file[0x1FC], sum);
    file.insert(file.end(), closed.area_.begin(), closed.area_.end());
    return file;
}

std::uint32_t LhHash(const std::string& name) {
    std::uint32_t hash = 0;
    for (char c : name) {
        const auto byte = static_cast<std::uint8_t>(c);
        // High bytes count as negative numbers that toupper leaves alone.
        const std::int32_t term = byte < 0x80 ? std::toupper(byte) : static_cast<std::int32_t>(static_cast<std::int8_t>(byte));
        hash = hash * 37 + static_cast<std::uint32_t>(term);
    }
    return hash;
}

std::uint32_t ChecksumOf(const Bytes& baseBlock) {
    std::uint32_t sum = 0;
    for (std::uint32_t i = 0; i < 127 && 4 * i + 4 <= baseBlock.size(); ++i) sum ^= Get32(&baseBlock[4 * i]);
    if (sum == 0xFFFFFFFF) return 0xFFFFFFFE;
    if (sum == 0) return 1;
    return sum;
}

}  // namespace TamvikTest
