// The fuzz driver: memory devices and files for the hive under test (see Driver.h).
#include "Driver.h"

#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "nodes/ReferenceCheck.h"
#include "store/ByteOrder.h"
#include "store/Format.h"
#include "support/HiveBuilder.h"

using namespace RegAPI;

namespace TamvikFuzz {

namespace {
constexpr std::size_t kModeByte = 0x1F8;
}  // namespace
// A damaged BinsSize can't make a device or a file eat the memory.
constexpr std::uint64_t kMaxSize = 64u << 20;

// A volume whose bytes are a vector: a private copy of the fuzzer's input.
class MemoryDevice : public CRegVolumeDevice {
public:
    explicit MemoryDevice(Bytes bytes) : bytes(std::move(bytes)) {}
    bool DeviceOpen(void** handle, const char16_t*, std::uint32_t, std::uint32_t, std::uint32_t) override {
        *handle = this;
        position = 0;
        ++open;
        return true;
    }
    bool DeviceSeek(void*, std::uint64_t to, std::uint32_t origin) override {
        const std::uint64_t base = origin == 0 ? 0 : origin == 2 ? bytes.size() : position;
        if (to > kMaxSize || base + to > kMaxSize) return false;
        position = base + to;
        return true;
    }
    bool DeviceRead(void*, void* buffer, std::uint32_t size, std::uint32_t* count) override {
        const std::uint64_t wanted = static_cast<std::uint64_t>(size) * *count;
        const std::uint64_t moved = std::min(wanted, position < bytes.size() ? bytes.size() - position : 0);
        if (moved != 0) std::memcpy(buffer, bytes.data() + position, moved);
        position += moved;
        const std::uint32_t asked = *count;
        *count = size == 0 ? asked : static_cast<std::uint32_t>(moved / size);
        return *count == asked;
    }
    bool DeviceWrite(void*, const void* buffer, std::uint32_t size, std::uint32_t* count) override {
        const std::uint64_t length = static_cast<std::uint64_t>(size) * *count;
        if (position + length > kMaxSize) return (*count = 0);
        ++writes;
        if (position + length > bytes.size()) bytes.resize(position + length);
        if (length != 0) std::memcpy(bytes.data() + position, buffer, length);
        position += length;
        return true;
    }
    bool DeviceClose(void*) override { return --open, true; }

    Bytes bytes;
    std::uint64_t position = 0, writes = 0;
    int open = 0;
};

void Fail(const std::string& what) {
    std::fprintf(stderr, "tamvik fuzz: %s\n", what.c_str());
    std::abort();
}

void Require(bool condition, const std::string& what) {
    if (!condition) Fail(what);
}

void Require(const TamvikTest::ProbeResult& probe) {
    if (!probe.violations.empty()) Fail(probe.violations.front());
}

void FixBaseBlock(Bytes& hive) {
    if (hive.size() < Tamvik::kBaseBlockSize / 8 || (hive[kModeByte] & 1) != 0) return;
    Tamvik::StoreU32(hive.data(), Tamvik::kRegfSignature);
    Tamvik::StoreU32(hive.data() + Tamvik::BaseBlockField::Checksum, TamvikTest::ChecksumOf(hive.data()));
}

namespace {
// A file in memory holding the bytes; the caller closes the descriptor.
int MemoryFile(const Bytes& bytes) {
    const int fd = memfd_create("hive", 0);
    Require(fd >= 0 && write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()), "memfd");
    return fd;
}

std::string PathOf(int fd) { return "/proc/self/fd/" + std::to_string(fd); }
}  // namespace

bool SoundForTheTool(const Bytes& hive) {
    const Tamvik::HiveScan scan(hive);
    const auto problem = [](const std::vector<Tamvik::Finding>& findings) {
        return std::any_of(findings.begin(), findings.end(), [](const Tamvik::Finding& f) { return !f.warning; });
    };
    return scan.Base().signatureOk && !problem(scan.Findings()) && !problem(Tamvik::CheckReferences(scan).findings);
}

HiveUnderTest::HiveUnderTest(const Bytes& bytes, bool readOnly)
    : viaFile_(bytes.size() > kModeByte && (bytes[kModeByte] & 2) != 0), readOnly_(readOnly) {
    if (!viaFile_) {
        device_ = std::make_unique<MemoryDevice>(bytes);
        path_ = u"memory";
        return;
    }
    fd_ = MemoryFile(bytes);
    const std::string path = PathOf(fd_);
    path_.assign(path.begin(), path.end());
}

HiveUnderTest::~HiveUnderTest() {
    Close();
    if (fd_ >= 0) close(fd_);
}

LONG HiveUnderTest::Open() {
    const LONG result = viaFile_ ? OpenHiveW(path_.c_str(), &hive_, readOnly_)
                                 : OpenHiveByVolumeW(path_.c_str(), device_.get(), &hive_);
    Require(result == Result::Ok || result == Result::HiveRefused || result == Result::Invalid, "open's result");
    if (result != Result::Ok) hive_ = nullptr;
    Require(result == Result::Ok || device_ == nullptr || device_->open == 0, "a refused open left the device open");
    return result;
}

void HiveUnderTest::Close() {
    if (hive_ == nullptr) return;
    const LONG result = viaFile_ ? CloseHive(&hive_) : CloseHiveByVolume(&hive_, device_.get());
    Require(result == Result::Ok && hive_ == nullptr, "closing an open hive");
    Require(device_ == nullptr || device_->open == 0, "the device is still open after the close");
}

Bytes HiveUnderTest::Contents() const {
    if (!viaFile_) return device_->bytes;
    struct stat info {};
    Require(fstat(fd_, &info) == 0, "fstat");
    Bytes out(static_cast<std::size_t>(info.st_size));
    Require(pread(fd_, out.data(), out.size(), 0) == static_cast<ssize_t>(out.size()), "pread");
    return out;
}

std::uint64_t HiveUnderTest::DeviceWrites() const { return device_ != nullptr ? device_->writes : 0; }

}  // namespace TamvikFuzz

namespace {
// A file hive grows where its header says the bins end, which a damaged
// BinsSize puts gigabytes out, and reopening it would read all of that into
// memory. Files stop at the device's bound instead: a write past it is
// refused as a full disk refuses it, which the edits must survive too. Set at
// the first input, after libFuzzer has put in its own signal handlers.
bool BoundFileSizes() {
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = TamvikFuzz::kMaxSize;
    return setrlimit(RLIMIT_FSIZE, &limit) == 0;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool bounded = BoundFileSizes();
    TamvikFuzz::Require(bounded, "setrlimit");
    TamvikFuzz::Harness(TamvikFuzz::Bytes(data, data + size));
    return 0;
}
