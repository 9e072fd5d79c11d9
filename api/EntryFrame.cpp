#include "api/EntryFrame.h"

#include <algorithm>
#include <iterator>
#include <string_view>
#include <vector>

namespace Tamvik {

Node* WalkPath(Node* start, Hive* hive, const char16_t* path) {
    // The working copy, upper case. Most paths fit on the stack, and are
    // measured while they are copied; a longer one takes the heap.
    const CaseRulesHold rules;
    const CaseMap& map = CurrentCaseMap();
    char16_t onStack[256];
    std::vector<char16_t> onHeap;
    char16_t* copy = onStack;
    bool separated = false;  // most paths name one key: they need no search for separators
    std::size_t length = 0;
    for (; length < std::size(onStack) && path[length] != 0; ++length) {
        copy[length] = map.Upper(path[length]);
        separated |= copy[length] == u'\\';
    }
    if (length == std::size(onStack) && path[length] != 0) {
        length = WideLength(path);
        onHeap.resize(length);
        copy = onHeap.data();
        for (std::size_t i = 0; i < length; ++i) {
            copy[i] = map.Upper(path[i]);
            separated |= copy[i] == u'\\';
        }
    }
    const std::u16string_view upper(copy, length);
    if (!separated) return start->FindChild(hive, upper);
    // Only a backslash at the very start is skipped.
    std::size_t component = upper.starts_with(u'\\') ? 1 : 0;
    Node* current = start;
    while (true) {
        const std::size_t end = std::min(upper.find(u'\\', component), length);
        current = current->FindChild(hive, upper.substr(component, end - component));
        if (current == nullptr || end == length) return current;
        component = end + 1;
    }
}

}  // namespace Tamvik
