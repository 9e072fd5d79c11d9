// Reading a hive inside a disk image against reading the extracted file: the
// time from the image's open to the hive's bytes in memory (format detection,
// the server's start, the partition table, the NTFS mount, the file's read),
// the close, and qemu-nbd's start and stop alone. Medians of REPS runs.
// Usage: bench_image IMAGE HIVE-INSIDE EXTRACTED-FILE [REPS]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "Block.h"
#include "Formats.h"
#include "TamvikImage.h"

namespace {

using Clock = std::chrono::steady_clock;

double Median(int reps, const std::function<void()>& once) {
    std::vector<double> seconds;
    for (int i = 0; i < reps; ++i) {
        const auto start = Clock::now();
        once();
        seconds.push_back(std::chrono::duration<double>(Clock::now() - start).count());
    }
    std::sort(seconds.begin(), seconds.end());
    return seconds[seconds.size() / 2];
}

[[noreturn]] void Die(const std::string& why) {
    std::fprintf(stderr, "bench_image: %s\n", why.c_str());
    std::exit(1);
}

}  // namespace

int main(int argc, char** argv) {
    using namespace TamvikImage;
    if (argc < 4) Die("usage: bench_image IMAGE HIVE-INSIDE EXTRACTED-FILE [REPS]");
    const std::string imagePath = argv[1], inside = argv[2], extracted = argv[3];
    const int reps = argc > 4 ? std::max(1, std::atoi(argv[4])) : 5;
    Error error;
    const std::string format = DetectFormat(imagePath, error).name;

    std::vector<char> plain;
    const double file = Median(reps, [&] {  // as the hive library reads a file: its size, then one read
        std::FILE* in = std::fopen(extracted.c_str(), "rb");
        if (in == nullptr || std::fseek(in, 0, SEEK_END) != 0) Die(extracted + ": can't open");
        plain.resize(static_cast<std::size_t>(std::ftell(in)));
        std::rewind(in);
        if (std::fread(plain.data(), 1, plain.size(), in) != plain.size()) Die(extracted + ": short read");
        std::fclose(in);
    });

    const double server = format == "raw" ? 0 : Median(reps, [&] {
        std::unique_ptr<Block> block = OpenNbdBlock(imagePath, format, false, error);
        if (!block || block->Close()) Die("qemu-nbd: " + error.text);
    });

    double closing = 0;
    std::vector<std::uint8_t> bytes;
    const double open = Median(reps, [&] {
        auto image = Image::Open(imagePath, {}, error);
        const std::vector<int> holding = image ? image->PartitionsHolding(inside) : std::vector<int>{};
        auto volume = holding.empty() ? nullptr : Volume::Open(*image, holding.front(), false, error);
        if (!volume) Die(imagePath + ": " + error.text);
        VolumeDevice device(*volume);
        void* handle = nullptr;
        const std::u16string path(inside.begin(), inside.end());
        std::uint32_t one = 1;
        if (!device.DeviceOpen(&handle, path.c_str(), 3, 0, 3)) Die(device.LastError().text);
        Entry entry;
        volume->Stat(inside, entry, error);
        bytes.resize(entry.size);
        if (!device.DeviceSeek(handle, 0, 0) ||
            !device.DeviceRead(handle, bytes.data(), static_cast<std::uint32_t>(bytes.size()), &one))
            Die("read: " + device.LastError().text);
        const auto start = Clock::now();
        device.DeviceClose(handle);
        volume.reset();
        image->Close();
        closing += std::chrono::duration<double>(Clock::now() - start).count();
    });
    if (bytes.size() != plain.size() || std::memcmp(bytes.data(), plain.data(), bytes.size()) != 0)
        Die("the bytes through the image differ from the extracted file's: " + std::to_string(bytes.size()) + " vs " + std::to_string(plain.size()));
    std::printf("file %zu bytes, %s image, %d runs (medians)\n", plain.size(), format.c_str(), reps);
    std::printf("  extracted file, open to bytes in memory: %8.2f ms\n", file * 1e3);
    std::printf("  through the image, open to bytes:       %8.2f ms (close: %.2f ms)\n", open * 1e3,
                closing / reps * 1e3);
    std::printf("  qemu-nbd alone, start and stop:         %8.2f ms\n", server * 1e3);
}
