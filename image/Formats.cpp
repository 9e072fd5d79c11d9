// Image formats by their magic numbers.
#include "Formats.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "Block.h"

namespace TamvikImage {
namespace {

constexpr std::size_t kHeadBytes = 4096;
constexpr std::size_t kVhdFooter = 512;
// vmdk sparse extent header: u16 compression algorithm (1: deflate, which only
// stream-optimized extents use) at byte 77.
constexpr std::size_t kVmdkCompression = 77;

bool Starts(const std::string& bytes, std::size_t at, const char* magic) {
    return bytes.compare(at, std::strlen(magic), magic) == 0;
}

}  // namespace

FormatFacts DetectFormat(const std::string& path, Error& error) {
    FormatFacts facts;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat info {};
    if (fd < 0 || fstat(fd, &info) != 0) {
        error = FailErrno(errno == ENOENT ? ErrorKind::NotFound : ErrorKind::Io, path, errno);
        if (fd >= 0) close(fd);
        return FormatFacts{"", ""};
    }
    std::string head(kHeadBytes, '\0'), tail(kVhdFooter, '\0');
    const ssize_t got = pread(fd, head.data(), head.size(), 0);
    head.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    const bool hasTail = S_ISREG(info.st_mode) && info.st_size >= static_cast<off_t>(2 * kVhdFooter) &&
                         pread(fd, tail.data(), tail.size(), info.st_size - static_cast<off_t>(kVhdFooter)) ==
                             static_cast<ssize_t>(kVhdFooter);
    close(fd);

    if (Starts(head, 0, "QFI\xfb"))
        facts.name = head.size() > 7 && head[7] == 1 ? "qcow" : "qcow2";
    else if (Starts(head, 0, "vhdxfile"))
        facts.name = "vhdx";
    else if (Starts(head, 0, "conectix") || (hasTail && Starts(tail, 0, "conectix")))
        facts.name = "vpc";  // a dynamic vhd starts with its footer's copy, a fixed one only ends with it
    else if (head.size() > 68 && std::memcmp(head.data() + 64, "\x7f\x10\xda\xbe", 4) == 0)
        facts.name = "vdi";
    else if (Starts(head, 0, "KDMV") || Starts(head, 0, "# Disk DescriptorFile")) {
        facts.name = "vmdk";
        const bool deflated = head.size() > kVmdkCompression + 1 && head[kVmdkCompression] == 1;
        if (deflated || head.find("createType=\"streamOptimized\"") != std::string::npos)
            facts.cannotWrite = "a stream-optimized vmdk can only be written from start to end; "
                                "convert it first (qemu-img convert -O vmdk) or use an overlay";
    }
    return facts;
}

}  // namespace TamvikImage
