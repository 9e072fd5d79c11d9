#include "api/EntryFrame.h"

#include <algorithm>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "nodes/CaseRun.h"

namespace Tamvik {

Node* WalkPath(Node* start, Hive* hive, const char16_t* path) {
    // The working copy, upper case. Most paths fit on the stack; a longer one takes the heap.
    const std::size_t length = std::char_traits<char16_t>::length(path);
    char16_t onStack[256];
    std::vector<char16_t> onHeap;
    char16_t* copy = onStack;
    if (length > std::size(onStack)) {
        onHeap.resize(length);
        copy = onHeap.data();
    }
    const CaseRulesHold rules;
    // Most paths name one key: they need no search for separators.
    const bool separated = UpperRun(CurrentCaseMap(), path, length, copy, u'\\');
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
