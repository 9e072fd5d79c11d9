// The base block checksum: the two replaced results, what the sum covers, and
// the test and rewrite of the block by a Hive over a file.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <stdexcept>

#include "store/ByteOrder.h"
#include "store/FileStorage.h"
#include "store/Hive.h"
#include "support/HiveBuilder.h"
#include "support/TempFile.h"

namespace {

using TamvikTest::Bytes;
using TamvikTest::HiveBuilder;

// A Hive constructed straight over a temporary copy of some bytes.
class HiveOverFile {
public:
    explicit HiveOverFile(const Bytes& bytes) : file_(bytes) {
        store_ = Tamvik::OpenFileStore(file_.Path().c_str(), "r+b");
        if (store_ == nullptr) throw std::runtime_error("can't open " + file_.Path());
        hive_ = std::make_unique<Tamvik::Hive>(file_.WidePath(), store_, &Tamvik::FileSeek, &Tamvik::FileRead,
                                               &Tamvik::FileWrite);
    }
    ~HiveOverFile() {
        hive_.reset();
        Tamvik::CloseFileStore(store_);
    }
    Tamvik::Hive* operator->() { return hive_.get(); }
    // What the file holds now, with the stream's buffer written out first.
    Bytes Disk() {
        std::fflush(store_->File());
        return file_.Read();
    }

private:
    TamvikTest::TempFile file_;
    Tamvik::FileStore* store_ = nullptr;
    std::unique_ptr<Tamvik::Hive> hive_;
};

TamvikTest::TreeKey RootOnly() {
    TamvikTest::TreeKey root;
    root.name = "ROOT";
    return root;
}

Bytes BlankBlock() { return Bytes(4096, 0); }

void SetWord(Bytes& block, std::uint32_t index, std::uint32_t value) { Tamvik::StoreU32(&block[4 * index], value); }

TEST(Checksum, ZeroSumBecomesOne) {
    Bytes block = BlankBlock();
    EXPECT_EQ(Tamvik::BaseBlockChecksum(block.data()), 1u);
    // Two equal words cancel out: still a zero sum.
    SetWord(block, 0, 0x66676572);
    SetWord(block, 100, 0x66676572);
    EXPECT_EQ(Tamvik::BaseBlockChecksum(block.data()), 1u);
}

TEST(Checksum, AllOnesSumBecomesAllOnesMinusOne) {
    Bytes block = BlankBlock();
    SetWord(block, 126, 0xFFFFFFFF);
    EXPECT_EQ(Tamvik::BaseBlockChecksum(block.data()), 0xFFFFFFFEu);
    SetWord(block, 3, 0x0F0F0F0F);
    SetWord(block, 4, 0xF0F0F0F0);
    SetWord(block, 126, 0);
    EXPECT_EQ(Tamvik::BaseBlockChecksum(block.data()), 0xFFFFFFFEu);
}

TEST(Checksum, OtherSumsAreTakenAsTheyAre) {
    Bytes block = BlankBlock();
    SetWord(block, 0, 0x66676572);
    SetWord(block, 10, 0x12345678);
    EXPECT_EQ(Tamvik::BaseBlockChecksum(block.data()), 0x66676572u ^ 0x12345678u);
    // Sums one step away from the replaced ones stay unchanged.
    block = BlankBlock();
    SetWord(block, 5, 0xFFFFFFFE);
    EXPECT_EQ(Tamvik::BaseBlockChecksum(block.data()), 0xFFFFFFFEu);
    SetWord(block, 5, 2);
    EXPECT_EQ(Tamvik::BaseBlockChecksum(block.data()), 2u);
}

TEST(Checksum, CoversExactlyTheFirst127Words) {
    HiveBuilder builder;
    builder.AddTree(RootOnly());
    const Bytes file = builder.Build();
    Bytes block(file.begin(), file.begin() + 4096);
    const std::uint32_t sum = Tamvik::BaseBlockChecksum(block.data());
    EXPECT_EQ(sum, TamvikTest::ChecksumOf(block));
    EXPECT_EQ(sum, Tamvik::LoadU32(&block[0x1FC]));
    // Every bit of bytes 0 to 0x1FB counts.
    for (std::size_t byte = 0; byte < 0x1FC; ++byte) {
        for (int bit = 0; bit < 8; ++bit) {
            block[byte] ^= static_cast<std::uint8_t>(1 << bit);
            ASSERT_NE(Tamvik::BaseBlockChecksum(block.data()), sum) << "byte " << byte << " bit " << bit;
            block[byte] ^= static_cast<std::uint8_t>(1 << bit);
        }
    }
    // The checksum field itself and everything behind it don't.
    for (std::size_t byte = 0x1FC; byte < 4096; byte += 3) {
        block[byte] ^= 0x5A;
        ASSERT_EQ(Tamvik::BaseBlockChecksum(block.data()), sum) << "byte " << byte;
        block[byte] ^= 0x5A;
    }
}

// A base block with the given stored checksum, its words chosen so that they sum to zeroSum ? 0 : 0xFFFFFFFF.
Bytes BlockWithSum(bool zeroSum, std::uint32_t stored) {
    HiveBuilder builder;
    builder.AddTree(RootOnly());
    Bytes file = builder.Build();
    std::uint32_t sum = 0;
    for (std::uint32_t i = 0; i < 126; ++i) sum ^= Tamvik::LoadU32(&file[4 * i]);
    // Word 126 (bytes 0x1F8..0x1FB) is reserved: it cancels the rest.
    Tamvik::StoreU32(&file[0x1F8], zeroSum ? sum : ~sum);
    Tamvik::StoreU32(&file[0x1FC], stored);
    return file;
}

TEST(Checksum, StoredZeroNeverPasses) {
    {
        HiveOverFile hive(BlockWithSum(true, 0));
        EXPECT_FALSE(hive->VerifyBaseBlock());
    }
    HiveOverFile hive(BlockWithSum(true, 1));
    EXPECT_TRUE(hive->VerifyBaseBlock());
}

TEST(Checksum, StoredAllOnesNeverPasses) {
    {
        HiveOverFile hive(BlockWithSum(false, 0xFFFFFFFF));
        EXPECT_FALSE(hive->VerifyBaseBlock());
    }
    HiveOverFile hive(BlockWithSum(false, 0xFFFFFFFE));
    EXPECT_TRUE(hive->VerifyBaseBlock());
}

TEST(Checksum, VerifyLooksAtSignatureAndSum) {
    HiveBuilder builder;
    builder.AddTree(RootOnly());
    Bytes file = builder.Build();
    {
        HiveOverFile hive(file);
        EXPECT_TRUE(hive->VerifyBaseBlock());
    }
    Bytes late = file;
    late[0x200] ^= 0xFF;
    late[0xFFF] ^= 0xFF;
    {
        HiveOverFile hive(late);
        EXPECT_TRUE(hive->VerifyBaseBlock()) << "bytes from 0x200 on lie outside the sum";
    }
    Bytes flipped = file;
    flipped[0x1FB] ^= 0x80;
    {
        HiveOverFile hive(flipped);
        EXPECT_FALSE(hive->VerifyBaseBlock());
    }
    // A right sum doesn't save a wrong signature.
    builder.SetSignature("regF");
    HiveOverFile hive(builder.Build());
    EXPECT_FALSE(hive->VerifyBaseBlock());
}

TEST(Checksum, WriteBaseBlockStoresAFreshSum) {
    HiveBuilder builder;
    builder.AddTree(RootOnly());
    Bytes file = builder.Build();
    file[0x300] = 0xAB;  // outside what the system interprets: must go back as read
    HiveOverFile hive(file);
    hive->SetBinsSize(hive->BinsSize() + 4096);
    hive->WriteBaseBlock();
    const Bytes once = hive.Disk();
    ASSERT_GE(once.size(), 4096u);
    Bytes block(once.begin(), once.begin() + 4096);
    EXPECT_EQ(Tamvik::LoadU32(&block[0x28]), Tamvik::LoadU32(&file[0x28]) + 4096);
    EXPECT_EQ(Tamvik::LoadU32(&block[0x1FC]), Tamvik::BaseBlockChecksum(block.data()));
    EXPECT_EQ(block[0x300], 0xAB);
    EXPECT_TRUE(hive->VerifyBaseBlock());
    // Nothing else of the block changed.
    for (std::size_t i = 0; i < 4096; ++i) {
        if ((i >= 0x28 && i < 0x2C) || (i >= 0x1FC && i < 0x200)) continue;
        ASSERT_EQ(block[i], file[i]) << "base block byte " << i;
    }
    hive->WriteBaseBlock();
    const Bytes twice = hive.Disk();
    EXPECT_TRUE(std::equal(once.begin(), once.begin() + 4096, twice.begin()));
}

}  // namespace
