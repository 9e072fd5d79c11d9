#include "edit/Edit.h"
#include "nodes/MakeNode.h"
#include "store/Allocator.h"

namespace Tamvik {

namespace {
std::unique_ptr<Security> BuildSecurity(Hive* hive, std::uint32_t cellOffset) {
    return BuildNodeAt<Security>(hive, cellOffset, nullptr, CellKind::BySignature);
}
}  // namespace

void AddSecurityRef(Key* key, Hive* hive) {
    const std::uint32_t cell = key->Field(NkField::SecurityCell);
    if (hive->Image() != nullptr) {
        // In memory the count alone is written: the rest of the record stays as it is.
        const std::optional<ImageCell> sk = ImageCellOf(hive, cell, NodeClass::Security);
        if (sk) WriteRecordField(hive, cell, *sk, SkField::RefCount, sk->Record().U32(SkField::RefCount) + 1);
        return;
    }
    std::unique_ptr<Security> security = BuildSecurity(hive, cell);
    if (security == nullptr) return;
    security->record.SetU32(SkField::RefCount, security->record.U32(SkField::RefCount) + 1);
    security->Save(hive);
}

void ReleaseSecurity(Key* key, Hive* hive) {
    std::unique_ptr<Security> security = BuildSecurity(hive, key->Field(NkField::SecurityCell));
    if (security == nullptr) return;
    const std::uint32_t refCount = security->record.U32(SkField::RefCount);
    if (refCount == 1) {
        UnlinkSecurity(security.get(), hive);
        FreeCellAt(hive, security->GetOffset());
    } else {
        security->record.SetU32(SkField::RefCount, refCount - 1);
        security->Save(hive);
    }
    key->SetField(NkField::SecurityCell, kNoCell);
}

void UnlinkSecurity(Security* security, Hive* hive) {
    const std::uint32_t next = security->record.U32(SkField::NextSecurity);
    const std::uint32_t prev = security->record.U32(SkField::PrevSecurity);
    std::unique_ptr<Security> nextNode = BuildSecurity(hive, next);
    if (nextNode == nullptr) return;
    nextNode->record.SetU32(SkField::PrevSecurity, prev);
    nextNode->Save(hive);
    nextNode.reset();
    // Read afresh: in a ring of two the previous neighbour is the cell just saved.
    std::unique_ptr<Security> prevNode = BuildSecurity(hive, prev);
    if (prevNode == nullptr) return;
    prevNode->record.SetU32(SkField::NextSecurity, next);
    prevNode->Save(hive);
}

}  // namespace Tamvik
