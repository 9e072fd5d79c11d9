#include "api/EntryFrame.h"

#include <iterator>
#include <vector>

namespace Tamvik {

namespace {
// Where the component from `from` ends: at the next separator (a NUL in the
// working copy), or at the path's end.
std::size_t ComponentEnd(const char16_t* copy, std::size_t from, std::size_t length) {
    while (from < length && copy[from] != 0) ++from;
    return from;
}
}  // namespace

Node* WalkPath(Node* start, Hive* hive, const char16_t* path) {
    // The working copy: upper case, with each separator made a NUL that ends
    // its component in place, and a NUL at the end.
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
    std::size_t end = length;  // of the first component; a path of one name needs no search then
    for (std::size_t i = 0; i < length; ++i) {
        const char16_t unit = map.Upper(path[i]);
        if (unit != u'\\') {
            copy[i] = unit;
            continue;
        }
        copy[i] = 0;
        if (end == length) end = i;
    }
    copy[length] = 0;
    std::size_t component = 0;
    if (end == 0 && length > 0) {
        // Only a backslash at the very start is skipped.
        component = 1;
        end = ComponentEnd(copy, component, length);
    }
    Node* current = start;
    while (true) {
        current = current->FindChild(hive, copy + component);
        if (current == nullptr || end == length) return current;
        component = end + 1;
        end = ComponentEnd(copy, component, length);
    }
}

}  // namespace Tamvik
