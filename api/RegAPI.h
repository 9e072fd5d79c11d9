// Public interface of Tamvik: read and edit an offline Windows NT registry hive
// through functions shaped like the Win32 registry functions.
#pragma once

#include <cstdint>

// A caller's access to a hive that lies on a raw volume. The library calls the
// first five virtual functions, in this order of declaration, and nothing else.
class CRegVolumeDevice {
public:
    // Opens the hive named by path; stores an opaque handle in *handle.
    virtual bool DeviceOpen(void** handle, const char16_t* path, std::uint32_t, std::uint32_t,
                            std::uint32_t) = 0;
    // Moves to position (origin 0 start, 1 current place, 2 end).
    virtual bool DeviceSeek(void* handle, std::uint64_t position, std::uint32_t origin) = 0;
    // Reads *count elements of elementSize bytes; true only for the whole transfer.
    virtual bool DeviceRead(void* handle, void* buffer, std::uint32_t elementSize,
                            std::uint32_t* count) = 0;
    // Writes *count elements of elementSize bytes; true only for the whole transfer.
    virtual bool DeviceWrite(void* handle, const void* buffer, std::uint32_t elementSize,
                             std::uint32_t* count) = 0;
    // Releases the handle.
    virtual bool DeviceClose(void* handle) = 0;
    virtual ~CRegVolumeDevice() = default;
};

// The exported functions; everything else in the library is hidden.
#if defined(__GNUC__)
#define TAMVIK_API __attribute__((visibility("default")))
#else
#define TAMVIK_API
#endif

namespace RegAPI {

using DWORD = std::uint32_t;
using BYTE = std::uint8_t;
using LONG = std::int32_t;  // every result
using WCHAR = char16_t;     // wide strings are UTF-16

struct HKEY__;
using HKEY = HKEY__*;  // address of a live hive or key

struct FILETIME {
    DWORD dwLowDateTime;
    DWORD dwHighDateTime;
};

// The seven result numbers; no function returns any other.
namespace Result {
constexpr LONG Ok = 0;             // success
constexpr LONG HiveRefused = 5;    // not a hive, or the hive can't be built
constexpr LONG CannotCreate = 57;  // the subkey can't be created
constexpr LONG AlreadyExists = 72; // a subkey or value of that name exists
constexpr LONG Invalid = 87;       // everything else: bad argument, not found, end of a list...
constexpr LONG MoreData = 234;     // value data not delivered: buffer too small or unreadable
constexpr LONG Corrupt = 1015;     // a list or node can't be built, or a buffer can't be had
}  // namespace Result

// Hives in files.
TAMVIK_API LONG OpenHiveW(const WCHAR* path, HKEY* hive, bool readOnly);
TAMVIK_API LONG OpenHiveA(const char* path, HKEY* hive, bool readOnly);
TAMVIK_API LONG CloseHive(HKEY* hive);

// Hives on a raw volume, through the caller's device.
TAMVIK_API LONG OpenHiveByVolumeW(const WCHAR* path, CRegVolumeDevice* device, HKEY* hive);
TAMVIK_API LONG OpenHiveByVolumeA(const char* path, CRegVolumeDevice* device, HKEY* hive);
TAMVIK_API LONG CloseHiveByVolume(HKEY* hive, CRegVolumeDevice* device);

// Keys.
TAMVIK_API LONG RegOpenKeyExW(HKEY key, const WCHAR* path, DWORD options, DWORD access, HKEY* result);
TAMVIK_API LONG RegOpenKeyExA(HKEY key, const char* path, DWORD options, DWORD access, HKEY* result);
TAMVIK_API LONG RegCloseKey(HKEY key);
TAMVIK_API LONG RegFlushKey(HKEY key);
TAMVIK_API LONG RegQueryInfoKeyW(HKEY key, WCHAR* className, DWORD* classLength, DWORD* reserved, DWORD* subKeys,
                      DWORD* maxSubKeyLength, DWORD* maxClassLength, DWORD* values,
                      DWORD* maxValueNameLength, DWORD* maxValueLength, DWORD* securitySize,
                      FILETIME* lastWriteTime);
TAMVIK_API LONG RegQueryInfoKeyA(HKEY key, char* className, DWORD* classLength, DWORD* reserved, DWORD* subKeys,
                      DWORD* maxSubKeyLength, DWORD* maxClassLength, DWORD* values,
                      DWORD* maxValueNameLength, DWORD* maxValueLength, DWORD* securitySize,
                      FILETIME* lastWriteTime);
TAMVIK_API LONG RegEnumKeyExW(HKEY key, DWORD index, WCHAR* name, DWORD* nameLength, DWORD* reserved,
                   WCHAR* className, DWORD* classLength, FILETIME* lastWriteTime);
TAMVIK_API LONG RegEnumKeyExA(HKEY key, DWORD index, char* name, DWORD* nameLength, DWORD* reserved,
                   char* className, DWORD* classLength, FILETIME* lastWriteTime);

// Reading values.
TAMVIK_API LONG RegQueryValueExW(HKEY key, const WCHAR* name, DWORD* reserved, DWORD* type, BYTE* data,
                      DWORD* dataSize);
TAMVIK_API LONG RegQueryValueExA(HKEY key, const char* name, DWORD* reserved, DWORD* type, BYTE* data,
                      DWORD* dataSize);
TAMVIK_API LONG RegEnumValueW(HKEY key, DWORD index, WCHAR* name, DWORD* nameLength, DWORD* reserved,
                   DWORD* type, BYTE* data, DWORD* dataSize);
TAMVIK_API LONG RegEnumValueA(HKEY key, DWORD index, char* name, DWORD* nameLength, DWORD* reserved,
                   DWORD* type, BYTE* data, DWORD* dataSize);

// Changing a hive.
TAMVIK_API LONG RegCreateKeyExA(HKEY key, const char* name, HKEY* result);
TAMVIK_API LONG RegCreateKeyExW(HKEY key, const WCHAR* name, HKEY* result);
TAMVIK_API LONG RegSetValueExW(HKEY key, const WCHAR* name, DWORD reserved, DWORD type, const BYTE* data,
                    DWORD size);
TAMVIK_API LONG RegSetValueNewW(HKEY key, const WCHAR* name, DWORD reserved, DWORD type, const BYTE* data,
                     DWORD size);
TAMVIK_API LONG RegSetValueExA(HKEY key, const char* name, DWORD reserved, DWORD type, const BYTE* data,
                    DWORD size);
TAMVIK_API LONG RegSetValueNewA(HKEY key, const char* name, DWORD reserved, DWORD type, const BYTE* data,
                     DWORD size);
TAMVIK_API LONG RegDeleteKeyW(HKEY key, const WCHAR* path);
TAMVIK_API LONG RegDeleteKeyA(HKEY key, const char* path);
TAMVIK_API LONG RegDeleteValueW(HKEY key, const WCHAR* name);
TAMVIK_API LONG RegDeleteValueA(HKEY key, const char* name);

}  // namespace RegAPI
