#include "EntryChain.h"

#include <map>
#include <optional>

#include "Hex.h"

namespace TamvikLogs {

namespace {

std::string Where(const LogFile& log, const LogEntry& e) {
    return log.path + " entry at " + Hex(e.at) +
           (e.sequenceKnown ? " (sequence " + std::to_string(e.sequence) + ")" : "");
}

}  // namespace

EntryChain BuildChain(const std::vector<LogFile>& logs, const std::vector<std::size_t>& pool, std::uint32_t minimum,
                      bool exact) {
    EntryChain chain;
    std::multimap<std::uint32_t, EntryRef> bySequence;  // the sound entries wanted
    for (std::size_t l : pool)
        for (std::size_t i = 0; i < logs[l].entries.size(); ++i) {
            const LogEntry& e = logs[l].entries[i];
            if (e.problem.empty() && e.sequence >= minimum && e.sequence >= logs[l].base.sequence1)
                bySequence.emplace(e.sequence, EntryRef{l, i});
        }
    if (bySequence.empty()) return chain;
    const std::uint32_t start = bySequence.begin()->first;
    if (exact && start != minimum)
        chain.gap = "the first entry in the logs has sequence " + std::to_string(start) + ", the hive needs " +
                    std::to_string(minimum) + " first: a log is missing";

    // Each step takes the entry with the next number, from the log of the
    // step before when two logs hold one (the later writes stay together).
    std::uint32_t next = start;
    std::size_t lastLog = bySequence.begin()->second.log;
    while (chain.steps.size() < bySequence.size()) {
        auto [from, to] = bySequence.equal_range(next);
        if (from == to) break;
        EntryRef step = from->second;
        for (auto it = from; it != to; ++it)
            if (it->second.log == lastLog) step = it->second;
        chain.steps.push_back(step);
        lastLog = step.log;
        ++next;
    }

    // Anything numbered after the last step means the chain broke early. A
    // broken entry whose number is unknown counts as next.
    const std::uint32_t last = next - 1;
    std::optional<std::uint32_t> firstLater;
    std::string why;
    for (std::size_t l : pool)
        for (const LogEntry& e : logs[l].entries) {
            const std::uint32_t seq = e.sequenceKnown ? e.sequence : next;
            if (seq <= last || (firstLater && (seq > *firstLater || (seq == *firstLater && e.problem.empty()))))
                continue;
            firstLater = seq;
            why = e.problem.empty() ? "the sequence numbers skip from " + std::to_string(last) + " to " +
                                          std::to_string(seq) + " at " + Where(logs[l], e)
                                    : Where(logs[l], e) + ": " + e.problem;
        }
    if (chain.gap.empty() && firstLater) chain.gap = why + "; replay stops after sequence " + std::to_string(last);
    return chain;
}

}  // namespace TamvikLogs
