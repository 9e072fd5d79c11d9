// Guards the installed package: a program outside the project, built against
// it through pkg-config or find_package(Tamvik), adds a key and a value to a
// hive and reads the value back.
#include <RegAPI.h>

#include <cstdio>

int main(int argc, char** argv) {
    using namespace RegAPI;
    HKEY hive = nullptr, root = nullptr, key = nullptr;
    if (argc != 2 || OpenHiveA(argv[1], &hive, false) != Result::Ok) return 1;
    const DWORD answer = 42;
    DWORD type = 0, read = 0, size = sizeof read;
    const bool ok = RegOpenKeyExW(hive, u"", 0, 0, &root) == Result::Ok &&
                    RegCreateKeyExW(root, u"Consumer", &key) == Result::Ok &&
                    RegSetValueNewW(key, u"Answer", 0, 4, reinterpret_cast<const BYTE*>(&answer), 4) == Result::Ok &&
                    RegQueryValueExW(key, u"Answer", nullptr, &type, reinterpret_cast<BYTE*>(&read), &size) == Result::Ok;
    CloseHive(&hive);
    std::printf("%u\n", read);
    return ok && type == 4 ? 0 : 1;
}
