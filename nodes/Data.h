// Value data held outside the vk record: one plain data cell (MidData), or a
// db record (BigData) whose segment list (SubDatList) names its segments.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "store/Format.h"
#include "store/Node.h"
#include "store/Record.h"

namespace Tamvik {

class SubDatList;

class Data : public Node {
public:
    static bool Holds(NodeClass c) { return c == NodeClass::PlainData || c == NodeClass::BigData; }
    using Node::Node;
    // Copies length bytes of the value's data to target.
    virtual bool Read(Hive* hive, std::uint8_t* target, std::uint32_t length) = 0;
    // Replaces the data by length bytes of source.
    virtual bool Write(Hive* hive, const std::uint8_t* source, std::uint32_t length) = 0;
    // Releases every cell of the data; the node must be destroyed afterwards.
    virtual void Free(Hive* hive) = 0;
};

class MidData : public Data {
public:
    static bool Holds(NodeClass c) { return c == NodeClass::PlainData; }
    MidData(std::uint32_t offset, Node* parent, std::uint8_t* buffer, std::uint32_t bufferSize,
            std::uint32_t payloadOffset);
    WString GetName() const override;
    bool Read(Hive* hive, std::uint8_t* target, std::uint32_t length) override;
    // Read's copy from a data cell's record, for a caller that has the record in place.
    static bool ReadFrom(const RecordRef& record, std::uint8_t* target, std::uint32_t length);
    // Changes the image only; the caller follows with Save.
    bool Write(Hive* hive, const std::uint8_t* source, std::uint32_t length) override;
    void Free(Hive* hive) override;

    RecordRef record;
};

class BigData : public Data {
public:
    static bool Holds(NodeClass c) { return c == NodeClass::BigData; }
    BigData(std::uint32_t offset, Node* parent, std::uint8_t* buffer, std::uint32_t bufferSize,
            std::uint32_t payloadOffset);
    WString GetName() const override;
    bool Read(Hive* hive, std::uint8_t* target, std::uint32_t length) override;
    // Keeps or lowers the number of segments, never adds one; saves what it changes.
    bool Write(Hive* hive, const std::uint8_t* source, std::uint32_t length) override;
    void Free(Hive* hive) override;
    std::unique_ptr<SubDatList> GetSegmentList(Hive* hive);

    std::uint32_t SegmentCount() const { return record.U16(DbField::SegmentCount); }
    // True when the record looks like a db that the library may follow to release it.
    bool HasDbSignature() const;

    RecordRef record;
};

class SubDatList : public Node {
public:
    static bool Holds(NodeClass c) { return c == NodeClass::SegmentList; }
    SubDatList(std::uint32_t offset, Node* parent, std::uint8_t* buffer, std::uint32_t bufferSize,
               std::uint32_t payloadOffset);
    WString GetName() const override;
    // The segment at a position, or null; positions past the cell give null.
    std::unique_ptr<MidData> GetAt(Hive* hive, std::uint32_t index);
    // Entries the cell can hold, and the segment offset at a position among them.
    std::uint32_t EntriesHeld() const { return record.Size() / 4; }
    std::optional<std::uint32_t> EntryAt(std::uint32_t index) const {
        if (index >= EntriesHeld()) return std::nullopt;
        return record.U32(index * 4);
    }

    RecordRef record;
};

}  // namespace Tamvik
