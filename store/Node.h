// Base of every in-memory mirror of a hive element: the hive itself, keys,
// values, lists and data. A node holds a private image of its whole cell.
#pragma once

#include <cstdint>
#include <memory>

#include "store/Platform.h"

namespace Tamvik {

class Hive;

class Node {
public:
    Node(std::uint32_t offset, Node* parent, std::unique_ptr<std::uint8_t[]> buffer, std::uint32_t bufferSize);
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;

    virtual Node* GetParent() const;
    virtual std::uint8_t* GetBuffer() const;
    virtual std::uint32_t GetOffset() const;
    virtual WString GetName() const;
    virtual WString GetPath() const;
    virtual Node* GetRoot();
    virtual Node* FindChild(Hive* hive, const char16_t* name);
    // Writes the image back over the cell, if the cell is still allocated at the image's size.
    virtual void Save(Hive* hive);
    virtual ~Node();

    std::uint32_t GetBufferSize() const { return bufferSize; }

protected:
    std::uint32_t offset;
    Node* parent;  // not owned
    std::unique_ptr<std::uint8_t[]> buffer;
    std::uint32_t bufferSize;  // bytes in buffer; the bound of every access to the image
};

}  // namespace Tamvik
