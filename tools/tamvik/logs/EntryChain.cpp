#include "EntryChain.h"

#include <algorithm>

#include "Hex.h"

namespace TamvikLogs {

namespace {

std::string Where(const LogFile& log, const LogEntry& e) {
    return log.path + " entry at " + Hex(e.at) +
           (e.sequenceKnown ? " (sequence " + std::to_string(e.sequence) + ")" : "");
}

// The entries [0, count) of one log that a replay may apply, or why its
// entries start no run at all.
struct Run {
    std::size_t log = 0, count = 0;
    std::string refused;
    bool applied = false;
};

Run RunOf(const std::vector<LogFile>& logs, std::size_t l, std::optional<std::uint32_t> hiveSequence) {
    const LogFile& log = logs[l];
    const std::vector<LogEntry>& e = log.entries;
    const std::uint32_t base = log.base.sequence1;
    Run run{l, 0, {}, false};
    if (e.empty() || !e[0].problem.empty()) return run;  // a broken first entry tells its own fault
    // A log's base block is written when the log is begun anew, just before
    // its first entry: a first entry of another number is a leftover of an
    // earlier round, or the one written first is lost.
    if (e[0].sequence != base)
        run.refused = log.path + " begins with sequence " + std::to_string(e[0].sequence) +
                      ", not with its base block's " + std::to_string(base);
    // Begun before the hive was last written, the log's later entries can't
    // be told from changes the hive already holds.
    else if (hiveSequence && base < *hiveSequence)
        run.refused = log.path + " begins with sequence " + std::to_string(base) + ", older than the hive's " +
                      std::to_string(*hiveSequence);
    else
        while (++run.count < e.size() && e[run.count].problem.empty() &&
               e[run.count].sequence == std::uint64_t{e[run.count - 1].sequence} + 1) {
        }
    return run;
}

}  // namespace

EntryChain BuildChain(const std::vector<LogFile>& logs, const std::vector<std::size_t>& pool,
                      std::optional<std::uint32_t> hiveSequence) {
    std::vector<Run> runs;
    for (std::size_t l : pool) runs.push_back(RunOf(logs, l, hiveSequence));
    auto first = [&](const Run& r) { return logs[r.log].entries[0].sequence; };
    std::vector<Run*> ordered;
    for (Run& r : runs)
        if (r.count != 0) ordered.push_back(&r);
    // The log with the earlier entries first (of two that start alike, the
    // longer); each next log must go on where the one before ended.
    std::sort(ordered.begin(), ordered.end(), [&](const Run* a, const Run* b) {
        return first(*a) != first(*b) ? first(*a) < first(*b) : a->count > b->count;
    });
    EntryChain chain;
    std::uint64_t next = 0;
    for (Run* r : ordered) {
        if (!chain.steps.empty() && first(*r) != next) break;
        for (std::size_t i = 0; i < r->count; ++i) chain.steps.push_back({r->log, i});
        r->applied = true;
        next = first(*r) + std::uint64_t{r->count};
    }
    const std::uint64_t start = chain.steps.empty() ? 0 : first(*ordered.front()), last = next - 1;

    // The entry the hive needs first that the chain leaves out: not older
    // than its log or the hive, a number the chain doesn't hold. A broken
    // entry whose number is unknown counts as next.
    std::optional<std::uint64_t> lostAt;
    std::string why;
    for (const Run& r : runs) {
        const LogFile& log = logs[r.log];
        for (std::size_t i = r.applied ? r.count : 0; i < log.entries.size(); ++i) {
            const LogEntry& e = log.entries[i];
            const std::uint64_t seq = e.sequenceKnown ? e.sequence : next;
            if (e.sequenceKnown && (seq < log.base.sequence1 || (hiveSequence && seq < *hiveSequence) ||
                                    (!chain.steps.empty() && seq >= start && seq <= last)))
                continue;
            if (lostAt && (seq > *lostAt || (seq == *lostAt && e.problem.empty()))) continue;
            lostAt = seq;
            why = !e.problem.empty() ? Where(log, e) + ": " + e.problem
                  : !r.refused.empty() ? r.refused
                                       : "the sequence numbers skip from " + std::to_string(last) + " to " +
                                             std::to_string(seq) + " at " + Where(log, e);
        }
    }
    // The logs are written in turns, so a first entry later than the hive
    // needs is the rule while both are here. With one alone, the entries in
    // between were in the other.
    if (hiveSequence && !chain.steps.empty() && start > *hiveSequence && pool.size() < 2)
        chain.gap = "the first entry in the logs has sequence " + std::to_string(start) + ", the hive needs " +
                    std::to_string(*hiveSequence) + " first: a log is missing";
    else if (lostAt && chain.steps.empty())
        chain.gap = why;
    else if (lostAt)
        chain.gap = why + (*lostAt > last ? "; replay stops after sequence " + std::to_string(last)
                                          : "; replay leaves out sequence " + std::to_string(*lostAt));
    return chain;
}

}  // namespace TamvikLogs
