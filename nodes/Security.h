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
    Security(std::uint32_t offset_, Node* parent_, std::unique_ptr<std::uint8_t[]> buffer_, std::uint32_t bufferSize_,
             std::uint32_t payloadOffset)
        : Node(offset_, parent_, std::move(buffer_), bufferSize_),
          record(PayloadOf(buffer.get(), bufferSize_, payloadOffset)) {}

    RecordRef record;
};

}  // namespace Tamvik
