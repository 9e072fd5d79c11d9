#include "api/EntryFrame.h"

#include <iterator>
#include <vector>

namespace Tamvik {

Node* WalkPath(Node* start, Hive* hive, const char16_t* path) {
    // The working copy: upper case, NUL-terminated; separators are overwritten
    // with NUL as they are found, and the search for the next one goes by the
    // length, past such NULs.
    const std::size_t length = WideLength(path);
    // Most paths fit on the stack; a longer one takes the heap.
    char16_t onStack[256];
    std::vector<char16_t> onHeap;
    char16_t* copy = onStack;
    if (length >= std::size(onStack)) {
        onHeap.resize(length + 1);
        copy = onHeap.data();
    }
    const CaseRulesHold rules;
    const CaseMap& map = CurrentCaseMap();
    for (std::size_t i = 0; i < length; ++i) copy[i] = map.Upper(path[i]);
    copy[length] = 0;
    Node* current = start;
    std::size_t component = 0;
    std::size_t search = 0;
    while (true) {
        std::size_t separator = search;
        while (separator < length && copy[separator] != u'\\') ++separator;
        const bool found = separator < length;
        if (found) copy[separator] = 0;
        if (found && separator == 0) {
            // Only a backslash at the very start is skipped.
            component = 1;
            search = 0;
            continue;
        }
        current = current->FindChild(hive, copy + component);
        if (current == nullptr) return nullptr;
        if (!found) return current;
        component = separator + 1;
        search = separator;
    }
}

}  // namespace Tamvik
