#include "nodes/MakeNode.h"

#include <new>

#include "nodes/Data.h"
#include "nodes/Key.h"
#include "nodes/Security.h"
#include "nodes/SubKeyList.h"
#include "nodes/Val.h"
#include "store/ByteOrder.h"

namespace Tamvik {

namespace {

template <class T>
std::unique_ptr<Node> Build(std::uint32_t offset, Node* parent, std::unique_ptr<std::uint8_t[]>& image,
                            std::uint32_t size, std::uint32_t payload) {
    // nothrow: an allocation failure is a null result, never an exception.
    T* node = new (std::nothrow) T(offset, parent, std::move(image), size, payload);
    return std::unique_ptr<Node>(node);
}

}  // namespace

// The one child of a hive, its root key, is built here: the store knows cells, not keys.
Node* Hive::FindChild(Hive*, const char16_t*) {
    if (rootKey == nullptr) rootKey = MakeNode(GetRootCell(), this, this, CellKind::BySignature);
    return rootKey.get();
}

std::unique_ptr<Node> MakeNode(const CellRef& ref, Hive* hive, Node* parent, CellKind kind) {
    if (!ref.IsValid() || hive == nullptr) return nullptr;
    try {
        const std::uint32_t size = ref.Magnitude();
        std::unique_ptr<std::uint8_t[]> image = hive->ReadAreaBlock(ref.offset, size);
        if (image == nullptr) return nullptr;
        const std::uint32_t payload = PayloadOffset(hive->MinorVersion());
        switch (kind) {
            case CellKind::ValueList: return Build<SubValList>(ref.offset, parent, image, size, payload);
            case CellKind::PlainData: return Build<MidData>(ref.offset, parent, image, size, payload);
            case CellKind::BigDataRecord: return Build<BigData>(ref.offset, parent, image, size, payload);
            case CellKind::SegmentList: return Build<SubDatList>(ref.offset, parent, image, size, payload);
            case CellKind::BySignature: break;
            default: return nullptr;
        }
        // A cell too small to hold a signature at the payload holds none.
        if (size < payload + 2) return nullptr;
        const std::uint16_t signature = LoadU16(image.get() + payload);
        if (size >= kMinKeyCell && signature == kNkSignature) return Build<Key>(ref.offset, parent, image, size, payload);
        if (size >= kMinValueCell && signature == kVkSignature) return Build<Val>(ref.offset, parent, image, size, payload);
        if (size >= kMinSecurityCell && signature == kSkSignature)
            return Build<Security>(ref.offset, parent, image, size, payload);
        if (signature == kRiSignature) return Build<Indirect>(ref.offset, parent, image, size, payload);
        if (signature == kLiSignature) return Build<IndxLeaf>(ref.offset, parent, image, size, payload);
        if (signature == kLfSignature) return Build<FastLeaf>(ref.offset, parent, image, size, payload);
        if (signature == kLhSignature) return Build<HashLeaf>(ref.offset, parent, image, size, payload);
        return nullptr;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

}  // namespace Tamvik
