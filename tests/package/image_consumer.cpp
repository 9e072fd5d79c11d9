// Guards the installed image library: a program outside the project, built
// against it through pkg-config or find_package(Tamvik COMPONENTS image),
// finds a hive inside a disk image and reads a value of it.
#include <TamvikImage.h>

#include <cstdio>
#include <cstring>
#include <string>

int main(int argc, char** argv) {
    using namespace RegAPI;
    if (argc != 3) return 1;
    TamvikImage::Error error;
    auto image = TamvikImage::Image::Open(argv[1], {}, error);
    const std::vector<int> holding = image ? image->PartitionsHolding(argv[2]) : std::vector<int>{};
    auto volume = holding.size() == 1 ? TamvikImage::Volume::Open(*image, holding[0], false, error) : nullptr;
    if (!volume) return std::fprintf(stderr, "%s\n", error.text.c_str()), 1;
    TamvikImage::VolumeDevice device(*volume);
    const std::u16string path(argv[2], argv[2] + std::strlen(argv[2]));
    HKEY hive = nullptr, key = nullptr;
    DWORD value = 0, size = sizeof value;
    const bool ok = OpenHiveByVolumeW(path.c_str(), &device, &hive) == Result::Ok &&
                    RegOpenKeyExW(hive, u"ROOT\\Consumer", 0, 0, &key) == Result::Ok &&
                    RegQueryValueExW(key, u"Answer", nullptr, nullptr, reinterpret_cast<BYTE*>(&value), &size) ==
                        Result::Ok;
    CloseHiveByVolume(&hive, &device);
    std::printf("%u\n", value);
    return ok ? 0 : 1;
}
