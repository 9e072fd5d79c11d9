#include "api/HiveAccess.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include "edit/Edit.h"
#include "nodes/MakeNode.h"
#include "store/FileImage.h"
#include "store/Hive.h"
#include "RegAPI.h"

namespace Tamvik {

namespace {

std::uint64_t FileOffsetOf(CellOffset cell) { return cell + std::uint64_t{kBaseBlockSize}; }

std::string Hex(std::uint64_t n) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(n));
    return text;
}

Status NoKeyAt(CellOffset cell) {
    return Status::Of(StatusCode::Invalid, "no key record at cell " + Hex(cell), FileOffsetOf(cell));
}

// A key for one read, over the image's bytes.
using KeyView = Transient<Key>;

// The positions of a key's subkey list, each with the nk cell it gives: the
// walk the library's enumeration makes. visit(position, cell-or-nothing)
// returns false to stop. The status tells a list that can't be read, or one
// that holds fewer positions than the key counts.
template <class Visit>
Status ForEachSubKey(Hive* hive, Key* key, Visit visit) {
    const std::uint32_t count = key->SubKeyCount();
    if (count == 0) return Status::Success();
    const std::uint64_t where = FileOffsetOf(key->Field(NkField::SubKeyListCell));
    std::unique_ptr<SubKeyList> list = key->GetSubKeyList(hive);
    if (list == nullptr) return Status::Of(StatusCode::Damaged, "the subkey list can't be read", where);
    const std::uint64_t held = std::min<std::uint64_t>(count, list->Positions(hive));
    Status status;
    for (std::uint32_t i = 0; i < held; ++i) {
        const std::optional<std::uint32_t> cell = list->KeyCellAt(hive, i);
        if (!cell && status)
            status = Status::Of(StatusCode::Damaged, "subkey #" + std::to_string(i) + " gives no key", where);
        if (!visit(i, cell)) return status;
    }
    if (held < count && status)
        status = Status::Of(StatusCode::Damaged,
                            "the key counts " + std::to_string(count) + " subkeys, its list holds " + std::to_string(held),
                            where);
    return status;
}

// A hive file on a caller's volume device, kept as a file image is: every
// transfer is a DeviceSeek and a DeviceRead or DeviceWrite of the whole range.
class DeviceStore : public ImageStore {
public:
    DeviceStore(CRegVolumeDevice* device, void* handle) : device_(device), handle_(handle) {}
    ~DeviceStore() override { device_->DeviceClose(handle_); }
    // The device tells no size: the file ends before the first byte that
    // can't be read, found by doubling and then halving. The whole file is
    // read, as from a file, bins past those the header counts included.
    std::optional<std::uint64_t> Length() override {
        std::uint64_t readable = 0, unreadable = kBaseBlockSize;  // a byte at readable - 1 can be read
        while (unreadable <= kMaxLength && Readable(unreadable)) {
            readable = unreadable + 1;
            unreadable *= 2;
        }
        if (unreadable > kMaxLength) return std::nullopt;
        while (readable < unreadable) {
            const std::uint64_t middle = readable + (unreadable - readable) / 2;
            if (Readable(middle))
                readable = middle + 1;
            else
                unreadable = middle;
        }
        return readable;
    }
    std::uint64_t ReadAt(std::uint64_t position, std::uint8_t* target, std::uint64_t length) override {
        if (Transfer(position, target, length, false)) return length;
        // A read is all or nothing: short of the whole, it goes on a bin's size
        // at a time up to where the file ends.
        std::uint64_t done = 0;
        while (done < length) {
            const std::uint64_t step = std::min<std::uint64_t>(length - done, kBinAlignment);
            if (!Transfer(position + done, target + done, step, false)) break;
            done += step;
        }
        return done;
    }
    bool WriteAt(std::uint64_t position, const std::uint8_t* source, std::uint64_t length) override {
        return Transfer(position, const_cast<std::uint8_t*>(source), length, true);
    }
    bool Sync() override { return true; }  // the device has no call for it: what it took, it holds

private:
    // No hive file is longer: cell offsets are 32-bit and count from the base block's end.
    static constexpr std::uint64_t kMaxLength = (std::uint64_t{1} << 32) + kBaseBlockSize;

    bool Readable(std::uint64_t position) {
        std::uint8_t byte = 0;
        return Transfer(position, &byte, 1, false);
    }
    bool Transfer(std::uint64_t position, std::uint8_t* bytes, std::uint64_t length, bool write) {
        for (std::uint64_t done = 0; done < length;) {
            const auto chunk = static_cast<std::uint32_t>(std::min<std::uint64_t>(length - done, 1u << 30));
            std::uint32_t count = 1;
            if (!device_->DeviceSeek(handle_, position + done, 0)) return false;
            if (write ? !device_->DeviceWrite(handle_, bytes + done, chunk, &count)
                      : !device_->DeviceRead(handle_, bytes + done, chunk, &count))
                return false;
            done += chunk;
        }
        return true;
    }

    CRegVolumeDevice* device_;
    void* handle_;
};

// Empties an item for a new reading, keeping its buffers.
void Clear(SubKeyItem* item) {
    item->name.clear();
    item->cell = 0;
    item->status = Status::Success();
}
void Clear(ValueItem* item) {
    item->name.clear();
    item->type = item->length = item->cell = 0;
    item->data.clear();
    item->status = Status::Success();
}

// The item at the next position of a list being read anew. One the vector
// holds already keeps its buffers, so that a caller handing the same vector
// to every call of a walk stops allocating once they have grown; finish
// with Trim.
template <class Item>
Item& Next(std::vector<Item>* items, std::size_t* used) {
    if (*used == items->size()) items->emplace_back();
    Item& item = (*items)[(*used)++];
    Clear(&item);
    return item;
}
template <class Item>
void Trim(std::vector<Item>* items, std::size_t used) {
    items->erase(items->begin() + static_cast<std::ptrdiff_t>(used), items->end());
}

}  // namespace

namespace {
// Bins the internal API adds are at least this large: a caller that adds many
// cells (an import, a package's loop) grows the file in steps of 16 pages,
// not one or two. A multiple of the bin alignment, as every bin size is.
constexpr std::uint32_t kNewBinFloor = 16 * kBinAlignment;
}  // namespace

HiveAccess::HiveAccess(std::unique_ptr<Hive> hive, bool writable) : hive_(std::move(hive)), writable_(writable) {
    if (writable_) hive_->SetNewBinFloor(kNewBinFloor);
}

HiveAccess::~HiveAccess() { Close(); }

Status HiveAccess::Open(const std::string& path, OpenMode mode, std::unique_ptr<HiveAccess>* opened) {
    const bool writable = mode == OpenMode::Writable;
    errno = 0;
    std::unique_ptr<FileImage> image = FileImage::Open(path, !writable);
    if (image == nullptr)
        return Status::Of(errno == ENOMEM ? StatusCode::NoMemory : StatusCode::IoError,
                          std::string("can't open (") + std::strerror(errno != 0 ? errno : EIO) + ")");
    std::unique_ptr<Hive> hive(new (std::nothrow) Hive(WString(path.begin(), path.end()), std::move(image)));
    if (hive == nullptr) return Status::Of(StatusCode::NoMemory, "no memory for the hive");
    if (mode != OpenMode::Inspect && !hive->VerifyBaseBlock())
        return Status::Of(StatusCode::NotAHive, "the base block's signature or checksum is wrong", 0);
    opened->reset(new HiveAccess(std::move(hive), writable));
    return Status::Success();
}

Status HiveAccess::Open(CRegVolumeDevice* device, const WString& path, OpenMode mode,
                        std::unique_ptr<HiveAccess>* opened) {
    if (device == nullptr) return Status::Of(StatusCode::Invalid, "no device");
    const bool writable = mode == OpenMode::Writable;
    void* handle = nullptr;
    if (!device->DeviceOpen(&handle, path.c_str(), 3, 0, 3)) return Status::Of(StatusCode::IoError, "the device can't open it");
    std::unique_ptr<ImageStore> store(new (std::nothrow) DeviceStore(device, handle));
    if (store == nullptr) {
        device->DeviceClose(handle);
        return Status::Of(StatusCode::NoMemory, "no memory for the hive");
    }
    std::unique_ptr<FileImage> image = FileImage::Open(std::move(store), !writable);
    if (image == nullptr) return Status::Of(StatusCode::NoMemory, "no memory for the hive's image");
    std::unique_ptr<Hive> hive(new (std::nothrow) Hive(path, std::move(image)));
    if (hive == nullptr) return Status::Of(StatusCode::NoMemory, "no memory for the hive");
    if (mode != OpenMode::Inspect && !hive->VerifyBaseBlock())
        return Status::Of(StatusCode::NotAHive, "the base block's signature or checksum is wrong", 0);
    opened->reset(new HiveAccess(std::move(hive), writable));
    return Status::Success();
}

Status HiveAccess::CreateHive(const std::string& path, const NewHiveOptions& options) {
    Status built;
    const ByteVector image = EmptyHiveImage(options, FileTimeNow(), &built);
    if (!built) return built;
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0)
        return Status::Of(errno == EEXIST ? StatusCode::Exists : StatusCode::IoError,
                          std::string("can't create (") + std::strerror(errno) + ")");
    std::size_t done = 0;
    while (done < image.size()) {
        const ssize_t n = ::write(fd, image.data() + done, image.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<std::size_t>(n);
    }
    const bool written = done == image.size() && ::fsync(fd) == 0;
    ::close(fd);
    if (written) return Status::Success();
    ::unlink(path.c_str());
    return Status::Of(StatusCode::IoError, "can't write the new hive");
}

Status HiveAccess::Close() {
    if (hive_ == nullptr) return Status::Success();
    const bool synced = !writable_ || hive_->Sync();
    hive_.reset();
    return synced ? Status::Success() : Status::Of(StatusCode::IoError, "the hive couldn't be made durable");
}

CellOffset HiveAccess::Root() const { return hive_->RootCell(); }
bool HiveAccess::BaseBlockSound() const { return hive_->VerifyBaseBlock(); }
std::uint32_t HiveAccess::MinorVersion() const { return hive_->MinorVersion(); }

Status HiveAccess::Writable() const {
    return writable_ ? Status::Success() : Status::Of(StatusCode::ReadOnly, "the hive was opened for reading only");
}

Status HiveAccess::Info(CellOffset cell, KeyInfo* info) {
    const KeyView key(hive_.get(), cell, hive_.get(), CellKind::BySignature);
    if (!key) return NoKeyAt(cell);
    info->name = key->GetName();
    info->flags = key->record.U16(NkField::Flags);
    info->timestamp = key->Field(NkField::Timestamp) | std::uint64_t{key->Field(NkField::Timestamp + 4)} << 32;
    info->parent = key->Field(NkField::ParentCell);
    info->subKeys = key->SubKeyCount();
    info->values = key->ValueCount();
    info->maxSubKeyName = MaxNameUnits(key->Field(NkField::MaxSubKeyName));
    info->maxValueName = MaxNameUnits(key->Field(NkField::MaxValueName));
    info->maxClassName = key->Field(NkField::MaxClassName);
    info->maxValueData = key->Field(NkField::MaxValueData);
    info->securityCell = key->Field(NkField::SecurityCell);
    info->classCell = key->Field(NkField::ClassCell);
    return Status::Success();
}

Status HiveAccess::SubKeys(CellOffset cell, std::vector<SubKeyItem>* items) {
    std::size_t used = 0;
    const KeyView key(hive_.get(), cell, hive_.get(), CellKind::BySignature);
    if (!key) {
        items->clear();
        return NoKeyAt(cell);
    }
    const Status walked = ForEachSubKey(hive_.get(), key.get(), [&](std::uint32_t i, std::optional<std::uint32_t> found) {
        SubKeyItem& item = Next(items, &used);
        if (!found) {
            item.status = Status::Of(StatusCode::Damaged, "subkey #" + std::to_string(i) + " gives no key");
            return true;
        }
        item.cell = *found;
        KeyView(hive_.get(), *found, hive_.get(), CellKind::BySignature)->NameInto(NameTarget{nullptr, 0, &item.name});
        return true;
    });
    Trim(items, used);
    return walked;
}

Status HiveAccess::FindSubKey(CellOffset cell, const WString& name, CellOffset* found) {
    const KeyView key(hive_.get(), cell, hive_.get(), CellKind::BySignature);
    if (!key) return NoKeyAt(cell);
    const CaseRulesHold rules;
    const WString upper = UpperCaseName(name);
    bool matched = false;
    const Status walked = ForEachSubKey(hive_.get(), key.get(), [&](std::uint32_t, std::optional<std::uint32_t> at) {
        matched = at && KeyView(hive_.get(), *at, hive_.get(), CellKind::BySignature)->NameMatches(upper);
        if (matched) *found = *at;
        return !matched;
    });
    if (matched) return Status::Success();
    return Status::Of(StatusCode::NotFound, walked ? "no subkey of that name" : "no subkey of that name: " + walked.text,
                      walked.fileOffset);
}

Status HiveAccess::Find(CellOffset cell, const WString& path, CellOffset* found) {
    std::u16string_view rest(path);
    if (!rest.empty() && rest.front() == u'\\') rest.remove_prefix(1);
    CellOffset at = cell;
    while (!rest.empty()) {
        const std::size_t cut = std::min(rest.find(u'\\'), rest.size());
        if (Status step = FindSubKey(at, WString(rest.substr(0, cut)), &at); !step) return step;
        rest.remove_prefix(std::min(cut + 1, rest.size()));
    }
    if (!KeyView(hive_.get(), at, hive_.get(), CellKind::BySignature)) return NoKeyAt(at);
    *found = at;
    return Status::Success();
}

namespace {

// What the value at a vk offset is, with its data when asked: the data in
// place in the vk, in one cell, or behind a db record.
Status ReadValue(Hive* hive, SubValList* list, CellOffset cell, bool withData, ValueItem* item) {
    Clear(item);
    item->cell = cell;
    const Transient<Val> value(hive, cell, list, CellKind::BySignature);
    if (!value) return Status::Of(StatusCode::Damaged, "no value record at cell " + Hex(cell), FileOffsetOf(cell));
    value->NameInto(NameTarget{nullptr, 0, &item->name});
    item->type = value->ValueType();
    item->length = value->StoredLength();
    // No data needs no cell: one that isn't there is no fault then.
    if (!withData || item->length == 0) return Status::Success();
    // A length the storage can't hold is refused before memory is had for it.
    const std::uint32_t length = item->length;
    if (!value->DataFits(hive)) return Status::Of(StatusCode::BadData, "the value's data cell can't hold its length", FileOffsetOf(cell));
    try {
        item->data.assign(length, 0);
    } catch (const std::bad_alloc&) {
        return Status::Of(StatusCode::BadData, "the value's length is more than memory holds", FileOffsetOf(cell));
    }
    if (!value->ReadData(hive, item->data.data(), length)) {
        item->data.clear();
        return Status::Of(StatusCode::BadData, "the value's data can't be read", FileOffsetOf(cell));
    }
    return Status::Success();
}

}  // namespace

Status HiveAccess::Values(CellOffset cell, bool withData, std::vector<ValueItem>* items) {
    std::size_t used = 0;
    const auto trimmed = [&](Status status) {
        Trim(items, used);
        return status;
    };
    const KeyView key(hive_.get(), cell, hive_.get(), CellKind::BySignature);
    if (!key) return trimmed(NoKeyAt(cell));
    const std::uint32_t count = key->ValueCount();
    if (count == 0) return trimmed(Status::Success());
    const std::uint64_t where = FileOffsetOf(key->Field(NkField::ValueListCell));
    const Transient<SubValList> list(hive_.get(), key->Field(NkField::ValueListCell), key.get(), CellKind::ValueList);
    if (!list) return trimmed(Status::Of(StatusCode::Damaged, "the value list can't be read", where));
    const std::uint32_t held = std::min(count, list->EntriesHeld());
    Status status;
    items->reserve(held);
    for (std::uint32_t i = 0; i < held; ++i) {
        ValueItem& item = Next(items, &used);
        item.status = ReadValue(hive_.get(), list.get(), *list->EntryAt(i), withData, &item);
        if (!item.status && status) status = item.status;
    }
    if (held < count && status)
        status = Status::Of(StatusCode::Damaged,
                            "the key counts " + std::to_string(count) + " values, its list holds " + std::to_string(held),
                            where);
    return trimmed(status);
}

Status HiveAccess::ValuePosition(CellOffset cell, const WString& name, std::uint32_t* position) {
    const KeyView key(hive_.get(), cell, hive_.get(), CellKind::BySignature);
    if (!key) return NoKeyAt(cell);
    const std::uint32_t count = key->ValueCount();
    const Transient<SubValList> list(hive_.get(), key->Field(NkField::ValueListCell), key.get(), CellKind::ValueList);
    const CaseRulesHold rules;
    const WString upper = UpperCaseName(name);
    auto matches = [&](std::uint32_t entry) {
        // In memory each vk is read in place; on a volume a node reads it.
        if (hive_->Image() != nullptr) return ValueNameMatchesAt(hive_.get(), entry, upper).value_or(false);
        const Transient<Val> value(hive_.get(), entry, list.get(), CellKind::BySignature);
        return value && value->NameMatches(upper);
    };
    for (std::uint32_t i = 0; list && i < std::min(count, list->EntriesHeld()); ++i) {
        if (matches(*list->EntryAt(i))) {
            *position = i;
            return Status::Success();
        }
    }
    return Status::Of(StatusCode::NotFound, "no value of that name");
}

Status HiveAccess::FindValue(CellOffset cell, const WString& name, bool withData, ValueItem* item) {
    std::uint32_t position = 0;
    if (Status found = ValuePosition(cell, name, &position); !found) return found;
    const KeyView key(hive_.get(), cell, hive_.get(), CellKind::BySignature);
    const Transient<SubValList> list(hive_.get(), key->Field(NkField::ValueListCell), key.get(), CellKind::ValueList);
    return ReadValue(hive_.get(), list.get(), *list->EntryAt(position), withData, item);
}

Status HiveAccess::ValueData(CellOffset cell, ByteVector* data) {
    ValueItem item;
    Status read = ReadValue(hive_.get(), nullptr, cell, true, &item);
    *data = std::move(item.data);
    return read;
}

Status HiveAccess::CreateSubKey(CellOffset parent, const WString& name, ListOrder order, CellOffset* created) {
    if (Status can = Writable(); !can) return can;
    if (name.empty()) return Status::Of(StatusCode::Invalid, "a key name can't be empty");
    const std::optional<NewName> stored = StoredName(name);
    if (!stored) return Status::Of(StatusCode::Invalid, "the name is longer than a record holds");
    std::unique_ptr<Key> owner = BuildNodeAt<Key>(hive_.get(), parent, hive_.get(), CellKind::BySignature);
    if (owner == nullptr) return NoKeyAt(parent);
    const Status made = Tamvik::CreateSubKey(owner.get(), hive_.get(), *stored, {Caller::Internal, order}, created,
                                             &HiveLeafMemo(hive_.get()));
    hive_->Flush();
    return made;
}

Status HiveAccess::SetValue(CellOffset cell, const WString& name, std::uint32_t type, const std::uint8_t* data,
                            std::uint32_t length, bool surelyNew) {
    if (Status can = Writable(); !can) return can;
    if (length != 0 && data == nullptr) return Status::Of(StatusCode::Invalid, "no data for a length of " + std::to_string(length));
    const std::optional<NewName> stored = StoredName(name);
    if (!stored) return Status::Of(StatusCode::Invalid, "the name is longer than a record holds");
    std::unique_ptr<Key> owner = BuildNodeAt<Key>(hive_.get(), cell, hive_.get(), CellKind::BySignature);
    if (owner == nullptr) return NoKeyAt(cell);
    std::uint32_t position = 0;
    Status done;
    if (!surelyNew && ValuePosition(cell, name, &position)) {
        Val* value = owner->ValueAt(hive_.get(), position);
        done = value == nullptr ? Status::Of(StatusCode::Damaged, "the value can't be read")
                                : ReplaceValue(value, hive_.get(), type, data, length);
    } else {
        done = AddValue(owner.get(), hive_.get(), *stored, type, data, length, Caller::Internal);
    }
    hive_->Flush();
    return done;
}

Status HiveAccess::DeleteValue(CellOffset cell, const WString& name) {
    if (Status can = Writable(); !can) return can;
    std::uint32_t position = 0;
    if (Status found = ValuePosition(cell, name, &position); !found) return found;
    std::unique_ptr<Key> owner = BuildNodeAt<Key>(hive_.get(), cell, hive_.get(), CellKind::BySignature);
    if (owner == nullptr) return NoKeyAt(cell);
    Val* value = owner->ValueAt(hive_.get(), position);
    if (value == nullptr) return Status::Of(StatusCode::Damaged, "the value can't be read");
    Tamvik::DeleteValue(value, hive_.get());
    hive_->Flush();
    return Status::Success();
}

Status HiveAccess::DeleteSubKey(CellOffset parent, CellOffset cell) {
    if (Status can = Writable(); !can) return can;
    std::unique_ptr<Key> owner = BuildNodeAt<Key>(hive_.get(), parent, hive_.get(), CellKind::BySignature);
    if (owner == nullptr) return NoKeyAt(parent);
    std::optional<std::uint32_t> position;
    const Status walked = ForEachSubKey(hive_.get(), owner.get(), [&](std::uint32_t i, std::optional<std::uint32_t> at) {
        if (at == cell) position = i;
        return !position;
    });
    if (!position)
        return walked ? Status::Of(StatusCode::NotFound, "no such subkey", FileOffsetOf(cell)) : walked;
    HiveLeafMemo(hive_.get()).Forget();
    const Status deleted = DeleteSubKeyAt(owner.get(), hive_.get(), *position);
    hive_->Flush();
    return deleted;
}

Status HiveAccess::SortSubKeys(CellOffset cell, bool* changed) {
    if (changed != nullptr) *changed = false;
    if (Status can = Writable(); !can) return can;
    std::unique_ptr<Key> key = BuildNodeAt<Key>(hive_.get(), cell, hive_.get(), CellKind::BySignature);
    if (key == nullptr) return NoKeyAt(cell);
    HiveLeafMemo(hive_.get()).Forget();
    const Status sorted = Tamvik::SortSubKeys(key.get(), hive_.get(), changed);
    hive_->Flush();
    return sorted;
}

}  // namespace Tamvik
