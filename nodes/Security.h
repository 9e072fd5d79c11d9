// An sk cell: only its ring links and reference count are ever touched.
#pragma once

#include <cstdint>
#include <memory>

#include "store/Format.h"
#include "store/Node.h"
#include "store/Record.h"

namespace Tamvik {

class Security : public Node {
public:
    static bool Holds(NodeClass c) { return c == NodeClass::Security; }
    Security(std::uint32_t offset_, Node* parent_, std::uint8_t* buffer_, std::uint32_t bufferSize_,
             std::uint32_t payloadOffset)
        : Node(NodeClass::Security, offset_, parent_, buffer_, bufferSize_),
          record(PayloadOf(buffer, bufferSize_, payloadOffset)) {}

    RecordRef record;
};

}  // namespace Tamvik
