// Transaction logs laid out for the tests (see LogBuilder.h).
#include "support/LogBuilder.h"

#include <algorithm>
#include <cstring>

#include "store/ByteOrder.h"
#include "support/HiveBuilder.h"
#include "tools/tamvik/logs/Marvin32.h"

namespace TamvikTest {

using namespace Tamvik;  // the byte order

namespace {

// Base block fields, and the header of a new-format entry.
constexpr std::size_t kSequence1 = 4, kSequence2 = 8, kTimestamp = 12, kFileType = 28, kBinsSize = 40,
                      kClustering = 44, kChecksum = 508;
constexpr std::size_t kEntrySize = 4, kEntrySequence = 12, kEntryBins = 16, kEntryCount = 20,
                      kHash1 = 24, kHash2 = 32, kEntryHeader = 40;
constexpr std::size_t kPage = 512;

std::size_t RoundUp(std::size_t n, std::size_t unit) { return (n + unit - 1) / unit * unit; }

}  // namespace

void SetBaseBlock(std::uint8_t* base, std::uint32_t primary, std::uint32_t secondary, bool checksumValid,
                  std::uint64_t timestamp) {
    StoreU32(base + kSequence1, primary);
    StoreU32(base + kSequence2, secondary);
    StoreU64(base + kTimestamp, timestamp);
    StoreU32(base + kChecksum, ChecksumOf(base) ^ (checksumValid ? 0 : 1));
}

LogBuilder::LogBuilder(const Bytes& hive, std::uint32_t fileType, std::uint32_t sequence, std::uint64_t timestamp)
    : sector_(kPage * std::clamp<std::uint32_t>(LoadU32(&hive[kClustering]), 1, 8)),
      binsSize_(LoadU32(&hive[kBinsSize])) {
    log_.assign(hive.begin(), hive.begin() + sector_);
    StoreU32(&log_[kFileType], fileType);
    SetBaseBlock(log_.data(), sequence, sequence, true, timestamp);
}

// The Marvin32 hashes are the tool's: the one home of that rule, pinned by a
// known answer and by the real logs Windows wrote, so sharing it hides nothing.
std::size_t LogBuilder::AddEntry(std::uint32_t sequence, const std::vector<LogPage>& pages, std::uint32_t binsSize) {
    Bytes e(kEntryHeader);
    std::memcpy(e.data(), "HvLE", 4);
    StoreU32(&e[kEntrySequence], sequence);
    StoreU32(&e[kEntryBins], binsSize != 0 ? binsSize : binsSize_);
    StoreU32(&e[kEntryCount], static_cast<std::uint32_t>(pages.size()));
    for (const LogPage& page : pages) {
        e.resize(e.size() + 8);
        StoreU32(&e[e.size() - 8], page.binsOffset);
        StoreU32(&e[e.size() - 4], static_cast<std::uint32_t>(page.bytes.size()));
    }
    for (const LogPage& page : pages) e.insert(e.end(), page.bytes.begin(), page.bytes.end());
    e.resize(RoundUp(e.size(), kPage));
    StoreU32(&e[kEntrySize], static_cast<std::uint32_t>(e.size()));
    StoreU64(&e[kHash1], TamvikLogs::Marvin32(&e[kEntryHeader], e.size() - kEntryHeader));
    StoreU64(&e[kHash2], TamvikLogs::Marvin32(e.data(), kHash2));
    const std::size_t at = log_.size();
    log_.insert(log_.end(), e.begin(), e.end());
    return at;
}

// Old format: "DIRT" and a bitmap, one bit per 512-byte page of the bins,
// the lowest bit of each byte first; then the dirty pages in bit order, from
// the next sector on.
Bytes LogBuilder::Build() const {
    Bytes out = log_;
    if (LoadU32(&out[kFileType]) != kOld) return out;
    out.resize(sector_ + 4 + binsSize_ / kPage / 8);
    std::memcpy(&out[sector_], "DIRT", 4);
    for (const auto& [page, content] : dirty_) out[sector_ + 4 + page / 8] |= static_cast<std::uint8_t>(1u << (page % 8));
    out.resize(RoundUp(out.size(), sector_));
    for (const auto& [page, content] : dirty_) out.insert(out.end(), content.begin(), content.end());
    return out;
}

}  // namespace TamvikTest
