// make_image OUT.qcow2 PATH=FILE...: a GPT disk image in qcow2 whose NTFS
// partition holds each FILE at PATH (folders made on the way), built without
// root as the image tests build theirs. The demo makes its image with it.
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>

#include "support/DiskImage.h"

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: make_image OUT.qcow2 PATH=FILE...\n");
        return 2;
    }
    try {
        std::vector<TamvikTest::NtfsFile> files;
        for (int i = 2; i < argc; ++i) {
            const std::string item = argv[i];
            const std::size_t split = item.find('=');
            if (split == std::string::npos) throw std::runtime_error("not PATH=FILE: " + item);
            files.push_back({item.substr(0, split), TamvikTest::ReadFileBytes(item.substr(split + 1))});
        }
        const TamvikTest::ScratchDir scratch;
        TamvikTest::MakeNtfs(scratch / "volume", 32 << 20, "Windows", files);
        TamvikTest::MakeDisk(scratch / "disk.raw", TamvikTest::Table::Gpt, scratch / "volume");
        TamvikTest::ConvertImage(scratch / "disk.raw", "qcow2", argv[1]);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "make_image: %s\n", failure.what());
        return 1;
    }
    return 0;
}
