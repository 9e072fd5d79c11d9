#include "edit/NewHive.h"

#include <chrono>
#include <cstring>

#include "store/Allocator.h"
#include "store/BaseBlock.h"
#include "store/ByteOrder.h"
#include "store/Format.h"

namespace Tamvik {

namespace {

using Image = std::vector<std::uint8_t>;

constexpr std::uint32_t kBinSize = kBinAlignment;  // a new hive has one bin of the least size
constexpr std::uint16_t kRootFlags = NkField::HiveEntryFlag | NkField::NoDeleteFlag | NkField::NarrowNameFlag;

// A SID of the NT authority (5) or the world authority (1).
Image Sid(std::uint8_t authority, std::initializer_list<std::uint32_t> subAuthorities) {
    Image sid = {1, static_cast<std::uint8_t>(subAuthorities.size()), 0, 0, 0, 0, 0, authority};
    for (std::uint32_t s : subAuthorities) AppendU32(sid, s);
    return sid;
}

// An access-allowed ACE that subkeys inherit.
Image AllowAce(std::uint32_t mask, const Image& sid) {
    Image ace = {0x00 /* ACCESS_ALLOWED */, 0x02 /* CONTAINER_INHERIT */};
    AppendU16(ace, static_cast<std::uint16_t>(8 + sid.size()));
    AppendU32(ace, mask);
    ace.insert(ace.end(), sid.begin(), sid.end());
    return ace;
}


}  // namespace

Image DefaultSecurityDescriptor() {
    constexpr std::uint32_t kKeyAllAccess = 0x000F003F;
    constexpr std::uint32_t kKeyRead = 0x00020019;
    const Image administrators = Sid(5, {32, 544});
    const Image system = Sid(5, {18});
    const Image everyone = Sid(1, {0});

    Image aces;
    for (const Image& ace : {AllowAce(kKeyAllAccess, administrators), AllowAce(kKeyAllAccess, system),
                             AllowAce(kKeyRead, everyone)})
        aces.insert(aces.end(), ace.begin(), ace.end());
    Image dacl = {2 /* ACL_REVISION */, 0};
    AppendU16(dacl, static_cast<std::uint16_t>(8 + aces.size()));
    AppendU16(dacl, 3);  // ACE count
    AppendU16(dacl, 0);
    dacl.insert(dacl.end(), aces.begin(), aces.end());

    // Header, then DACL, owner and group, as the system itself lays them out.
    constexpr std::uint32_t kHeader = 20;
    const auto daclOffset = kHeader;
    const auto ownerOffset = static_cast<std::uint32_t>(daclOffset + dacl.size());
    const auto groupOffset = static_cast<std::uint32_t>(ownerOffset + administrators.size());
    Image sd = {1 /* revision */, 0};
    AppendU16(sd, 0x8004);  // self-relative, DACL present
    AppendU32(sd, ownerOffset);
    AppendU32(sd, groupOffset);
    AppendU32(sd, 0);  // no SACL
    AppendU32(sd, daclOffset);
    sd.insert(sd.end(), dacl.begin(), dacl.end());
    sd.insert(sd.end(), administrators.begin(), administrators.end());
    sd.insert(sd.end(), system.begin(), system.end());
    return sd;
}

std::uint64_t FileTimeNow() {
    using namespace std::chrono;
    const auto since1970 = duration_cast<nanoseconds>(system_clock::now().time_since_epoch()).count();
    return static_cast<std::uint64_t>(since1970 / 100) + 116444736000000000ull;
}

Image EmptyHiveImage(const NewHiveOptions& options, std::uint64_t timestamp, Status* status) {
    *status = Status::Success();
    if (!WritableMinorVersion(options.minorVersion)) {
        *status = Status::Of(StatusCode::Invalid, "minor version must be 2 to 6 (version 1.1 has another cell layout)");
        return {};
    }
    std::string rootName;
    for (char16_t c : options.rootName) {
        if (c > 0xFF) {
            *status = Status::Of(StatusCode::Invalid, "the root name must be Latin-1 text: it is stored one byte a character");
            return {};
        }
        rootName += static_cast<char>(c);
    }
    if (rootName.size() > 255) {
        *status = Status::Of(StatusCode::Invalid, "the root name is too long");
        return {};
    }
    const Image sd = DefaultSecurityDescriptor();

    // Cells of the bin: the root nk, then its sk, then one free cell.
    constexpr std::uint32_t kRootCell = kBinHeaderSize;
    const std::uint32_t nkSize = NeedFor(NkField::Name + static_cast<std::uint32_t>(rootName.size()));
    const std::uint32_t skCell = kRootCell + nkSize;
    const std::uint32_t skSize = NeedFor(SkField::Descriptor + static_cast<std::uint32_t>(sd.size()));
    const std::uint32_t freeCell = skCell + skSize;

    Image file(kBaseBlockSize + kBinSize, 0);
    std::uint8_t* base = file.data();
    StoreU32(base + BaseBlockField::Signature, kRegfSignature);
    StoreU32(base + BaseBlockField::Sequence1, 1);  // primary sequence number
    StoreU32(base + BaseBlockField::Sequence2, 1);  // secondary: equal, so the hive is clean
    StoreU64(base + BaseBlockField::Timestamp, timestamp);
    StoreU32(base + BaseBlockField::MajorVersion, 1);  // major version
    StoreU32(base + BaseBlockField::MinorVersion, options.minorVersion);
    StoreU32(base + BaseBlockField::FileType, kPrimaryFileType);
    StoreU32(base + BaseBlockField::Format, kDirectLoadFormat);
    StoreU32(base + BaseBlockField::RootCell, kRootCell);
    StoreU32(base + BaseBlockField::BinsSize, kBinSize);  // length of the bins area
    StoreU32(base + BaseBlockField::Clustering, 1);        // clustering factor
    // The file name field holds the tail of a name in UTF-16; the root name serves.
    for (std::size_t i = 0; i < rootName.size() && i < 31; ++i)
        StoreU16(base + BaseBlockField::FileName + 2 * i, static_cast<std::uint8_t>(rootName[i]));
    EncodeChecksum(base);

    std::uint8_t* bin = base + kBaseBlockSize;
    StoreU32(bin + BinField::Signature, kHbinSignature);
    StoreU32(bin + BinField::BinOffset, 0);  // offset of this bin
    StoreU32(bin + BinField::BinSize, kBinSize);
    StoreU64(bin + BinField::Timestamp, timestamp);

    std::uint8_t* nk = bin + kRootCell;
    StoreU32(nk, static_cast<std::uint32_t>(-static_cast<std::int32_t>(nkSize)));
    std::uint8_t* r = nk + 4;
    StoreU16(r + NkField::Signature, kNkSignature);
    StoreU16(r + NkField::Flags, kRootFlags);
    StoreU64(r + NkField::Timestamp, timestamp);
    StoreU32(r + NkField::ParentCell, kNoCell);  // the root has no parent
    StoreU32(r + NkField::SubKeyCount, 0);       // subkeys
    StoreU32(r + NkField::VolatileSubKeyCount, 0);        // volatile subkeys
    StoreU32(r + NkField::SubKeyListCell, kNoCell);  // subkey list
    StoreU32(r + NkField::VolatileSubKeyListCell, kNoCell);  // volatile subkey list
    StoreU32(r + NkField::ValueCount, 0);       // values
    StoreU32(r + NkField::ValueListCell, kNoCell);  // value list
    StoreU32(r + NkField::SecurityCell, skCell);
    StoreU32(r + NkField::ClassCell, kNoCell);  // class name
    StoreU16(r + NkField::NameLength, static_cast<std::uint16_t>(rootName.size()));
    StoreU16(r + NkField::ClassLength, 0);
    std::memcpy(r + NkField::Name, rootName.data(), rootName.size());

    std::uint8_t* sk = bin + skCell;
    StoreU32(sk, static_cast<std::uint32_t>(-static_cast<std::int32_t>(skSize)));
    std::uint8_t* s = sk + 4;
    StoreU16(s + SkField::Signature, kSkSignature);
    StoreU32(s + SkField::NextSecurity, skCell);  // the ring of one: linked to itself both ways
    StoreU32(s + SkField::PrevSecurity, skCell);
    StoreU32(s + SkField::RefCount, 1);  // referenced by the root key
    StoreU32(s + SkField::DescriptorLength, static_cast<std::uint32_t>(sd.size()));
    std::memcpy(s + SkField::Descriptor, sd.data(), sd.size());

    StoreU32(bin + freeCell, kBinSize - freeCell);  // positive size: free
    return file;
}

}  // namespace Tamvik
